// How fanctl writes for people.
#pragma once

#include <string>
#include <string_view>

/// Colours, on a terminal and unless the environment variable NO_COLOR asks for none; otherwise the
/// text as it is.
std::string bold(std::string_view text);
std::string red(std::string_view text);
std::string yellow(std::string_view text);
std::string green(std::string_view text);
std::string dim(std::string_view text);

/// Whether standard output is a terminal.
bool on_terminal();

/// Columns of the terminal: its own word, else the variable COLUMNS, else 80.
int terminal_columns();

/// Whether the locale's characters are UTF-8.
bool speaks_utf8();

/// The text with blanks behind it up to a width, counted in characters of UTF-8.
std::string padded(std::string_view text, std::size_t width);

/// The number of characters of a UTF-8 text.
std::size_t width_of(std::string_view text);

/// Text from a chip or a disk, safe to be shown: control bytes become question marks.
std::string printable(std::string_view text);
