// Small things that the parts of the lab share: text, numbers, and the error that ends it.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// Something is wrong with what the lab was given, or with what it found: the whole message. What
// lies in a file begins with "FILE:LINE: ".
struct LabError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// As printf.
std::string text_of(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The whole content of a file; throws LabError when it cannot be read.
std::string read_file(const std::string& path);
// Throws LabError when not all of it could be written.
void write_file(const std::string& path, const std::string& content);

// The lines without their line feeds.
std::vector<std::string> lines_of(const std::string& text);
// The words between a delimiter; an empty text is one empty word.
std::vector<std::string> split(std::string_view text, char delimiter);
// Without the blanks, tabs and carriage returns around it.
std::string trimmed(std::string_view text);
// The whole text as a number; nothing for anything else.
std::optional<double> number_in(const std::string& text);

// The last part of a path: what a file or folder is called in a report, which shall be the same on
// every machine.
std::string name_of(const std::string& path);

// "7 h 05 min", "12 min"
std::string length_of(double seconds);
// A moment of the counted time: "12:05", beyond the first day "day 2 12:05".
std::string moment_of(long long second);
