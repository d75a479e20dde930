#include "settings.h"

namespace {

std::string_view without_trailing_spaces(std::string_view text) {
  return text.substr(0, text.find_last_not_of(' ') + 1);  // npos + 1 is 0: nothing but spaces
}

}  // namespace

bool split_setting(std::string_view line, Setting& setting) {
  if (line.empty() || line.front() == '#') return false;
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos) return false;
  setting.key = without_trailing_spaces(line.substr(0, equals));
  setting.value = without_trailing_spaces(line.substr(equals + 1));
  return true;
}

bool next_setting(std::FILE* file, Setting& setting) {
  std::string line;
  while (read_line(file, line)) {
    if (split_setting(line, setting)) return true;
  }
  return false;
}
