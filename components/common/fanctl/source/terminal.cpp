#include "terminal.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cstring>

#include "utils.h"

namespace {

constexpr int kUsualColumns = 80;

bool has_colours() {
  const char* none = std::getenv("NO_COLOR");
  return on_terminal() && (none == nullptr || *none == '\0');
}

std::string painted(const char* colour, std::string_view text) {
  if (!has_colours()) return std::string(text);
  return join({"\x1b[", colour, "m", text, "\x1b[0m"});
}

// All bytes of a character but the first begin with the bits 10.
bool continues_character(char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; }

}  // namespace

std::string bold(std::string_view text) { return painted("1", text); }
std::string red(std::string_view text) { return painted("31", text); }
std::string yellow(std::string_view text) { return painted("33", text); }
std::string green(std::string_view text) { return painted("32", text); }
std::string dim(std::string_view text) { return painted("2", text); }

bool on_terminal() { return ::isatty(STDOUT_FILENO) != 0; }

int terminal_columns() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
  const char* columns = std::getenv("COLUMNS");
  const int named = columns != nullptr ? parse_int(columns) : 0;
  return named > 0 ? named : kUsualColumns;
}

bool speaks_utf8() {
  (void)std::setlocale(LC_CTYPE, "");
  return std::strcmp(::nl_langinfo(CODESET), "UTF-8") == 0;
}

std::size_t width_of(std::string_view text) {
  return text.size() - static_cast<std::size_t>(std::ranges::count_if(text, continues_character));
}

std::string padded(std::string_view text, std::size_t width) {
  std::string result(text);
  const std::size_t own = width_of(text);
  if (own < width) result.append(width - own, ' ');
  return result;
}

std::string printable(std::string_view text) {
  std::string result(text);
  std::ranges::replace_if(
      result, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, '?');
  return result;
}
