#include "text.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "day.h"

namespace fs = std::filesystem;

std::string text_of(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  char piece[512];
  const int length = std::vsnprintf(piece, sizeof piece, format, arguments);
  va_end(arguments);
  if (length < static_cast<int>(sizeof piece)) return piece;
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  va_start(arguments, format);
  (void)std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  text.pop_back();
  return text;
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file || fs::is_directory(path)) throw LabError(path + ": there is no such file to read");
  return {std::istreambuf_iterator<char>(file), {}};
}

void write_file(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary);
  file << content;
  file.close();
  if (!file) throw LabError(path + ": could not be written");
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines = split(text, '\n');
  if (lines.back().empty()) lines.pop_back();
  return lines;
}

std::vector<std::string> split(std::string_view text, char delimiter) {
  std::vector<std::string> words;
  for (;;) {
    const std::size_t end = text.find(delimiter);
    words.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) return words;
    text.remove_prefix(end + 1);
  }
}

std::string trimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r";
  const std::size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return "";
  return std::string(text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin));
}

std::optional<double> number_in(const std::string& text) {
  // strtod() knows more than people write into such files: hexadecimal numbers, infinity.
  if (text.empty() || text.find_first_not_of("+-.0123456789eE") != std::string::npos) return {};
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (*end != '\0' || !std::isfinite(value)) return {};
  return value;
}

std::string name_of(const std::string& path) {
  const fs::path whole = fs::absolute(path).lexically_normal();
  return (whole.has_filename() ? whole : whole.parent_path()).filename().string();
}

std::string length_of(double seconds) {
  const auto minutes = std::llround(seconds / kMinute);
  if (minutes < kMinute) return text_of("%lld min", minutes);
  if (minutes % kMinute == 0) return text_of("%lld h", minutes / kMinute);
  return text_of("%lld h %02lld min", minutes / kMinute, minutes % kMinute);
}

std::string moment_of(long long second) {
  const long long minute = second / kMinute;
  const long long day = second / kDay;
  const std::string clock =
      text_of("%02lld:%02lld", minute / kMinute - day * kHoursOfDay, minute % kMinute);
  return day == 0 ? clock : text_of("day %lld %s", day + 1, clock.c_str());
}
