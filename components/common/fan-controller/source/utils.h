// What every room of the service uses: owned handles, text pieces and trace lines, and the readers
// of sysfs attributes, lines and numbers.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <cstdio>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

struct FileCloser {
  void operator()(std::FILE* file) const noexcept { (void)std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, FileCloser>;

struct DirCloser {
  void operator()(DIR* directory) const noexcept { (void)::closedir(directory); }
};
using DirPtr = std::unique_ptr<DIR, DirCloser>;

/// Owns a file descriptor and closes it. A negative number, as a failed open() gives, owns nothing.
class Descriptor {
 public:
  explicit Descriptor(int descriptor) noexcept : m_descriptor(descriptor) {}
  ~Descriptor() {
    if (m_descriptor >= 0) (void)::close(m_descriptor);
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int get() const { return m_descriptor; }
  explicit operator bool() const { return m_descriptor >= 0; }
  /// Hands the descriptor over without closing it.
  int release() { return std::exchange(m_descriptor, -1); }

 private:
  int m_descriptor;
};

/// One piece of a composed text: text as it is, or a whole number in decimal. Lives only as long as
/// the expression that names it; it does not copy the text.
class TextPiece {
 public:
  TextPiece(std::string_view text) : m_text(text) {}
  TextPiece(const std::string& text) : m_text(text) {}
  TextPiece(const char* text) : m_text(text) {}
  TextPiece(std::integral auto number) {
    const auto end = std::to_chars(m_digits.data(), m_digits.data() + m_digits.size(), number).ptr;
    m_text = {m_digits.data(), static_cast<std::size_t>(end - m_digits.data())};
  }
  TextPiece(const TextPiece&) = delete;
  TextPiece& operator=(const TextPiece&) = delete;

  std::string_view text() const { return m_text; }

 private:
  std::array<char, 24> m_digits;  // the longest 64-bit number with its sign has 20 characters
  std::string_view m_text;
};

/// The pieces joined with nothing between them.
std::string join(std::initializer_list<TextPiece> pieces);

/// Writes finished lines to standard output. Safe in a signal handler. In a pipe, a socket or a
/// terminal without room they wait for it, at most a second; once that was in vain, lines are
/// dropped without waiting until there is room again. While nobody reads they are dropped too, and
/// no SIGPIPE comes of it. Other failures lose the line and nothing else. Of a line that is longer
/// than a pipe or a terminal takes at once, the end alone may be lost.
void write_trace(std::string_view text) noexcept;

/// Tells that standard output is /dev/null: no line has to look for room any more.
void trace_into_null() noexcept;

/// No trace line is written any more: standard output is for something else.
void silence_traces() noexcept;

/// Writes one trace line, "<file>:<operation> <message>" and a line feed, in one go up to 1 KiB
/// (not on a terminal). No other line gets into it.
void trace_line(const char* file, const char* operation,
                std::initializer_list<TextPiece> message) noexcept;

/// Traces under the name of the operation that it stands in.
#define TRACE(...) trace_line(__FILE_NAME__, __func__, {__VA_ARGS__})
/// Traces from a helper under the name of the operation that the helper is a step of.
#define TRACE_AS(operation, ...) trace_line(__FILE_NAME__, operation, {__VA_ARGS__})

/// Reads the first line of a sysfs attribute: at most 127 bytes, handed back without the last of
/// them, which in sysfs is the line feed. Null when the attribute cannot be opened or read or is
/// empty, and, with a trace, when memory runs out. Never waits: a pipe without a writer is empty.
std::unique_ptr<char[]> sysfs_read_attr(char const* path);

/// Reads the next line of any length, without its line feed; a last line may lack it. False at the
/// end of the file or on a read error.
bool read_line(std::FILE* file, std::string& line);

/// The whole number, base 10, at the start of a text, read as strtol does: leading white space, a
/// sign, then digits up to the first other character; 0 when there is no digit. Numbers beyond the
/// range of int become its nearest end, whatever the width of long.
int parse_int(const char* text);
