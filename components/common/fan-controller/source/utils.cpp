#include "utils.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr std::size_t kAttributeBuffer = 128;  // one byte of it for the terminating NUL

// Set and tested by the signal handler's trace as well, hence the type.
volatile std::sig_atomic_t readerGone = 0;

// Composes a line without memory of its own from the heap: the last lines of a process that has run
// out of it are traced too. A line that does not fit goes out in pieces.
class TraceBuffer {
 public:
  void append(std::string_view text) {
    while (!text.empty()) {
      const std::size_t part = std::min(text.size(), m_text.size() - m_length);
      std::copy_n(text.data(), part, m_text.data() + m_length);
      m_length += part;
      text.remove_prefix(part);
      if (m_length == m_text.size()) flush();
    }
  }
  void flush() {
    write_trace({m_text.data(), m_length});
    m_length = 0;
  }

 private:
  std::array<char, 1024> m_text;
  std::size_t m_length = 0;
};

}  // namespace

std::string join(std::initializer_list<TextPiece> pieces) {
  std::size_t length = 0;
  for (const TextPiece& piece : pieces) length += piece.text().size();
  std::string joined;
  joined.reserve(length);
  for (const TextPiece& piece : pieces) joined += piece.text();
  return joined;
}

void write_trace(std::string_view text) noexcept {
  while (!text.empty() && readerGone == 0) {
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
    if (written > 0) {
      text.remove_prefix(static_cast<std::size_t>(written));
    } else if (written < 0 && errno == EPIPE) {
      readerGone = 1;
    } else if (written == 0 || errno != EINTR) {
      return;
    }
  }
}

void trace_line(const char* file, const char* operation,
                std::initializer_list<TextPiece> message) noexcept {
  TraceBuffer line;
  for (const char* piece : {file, ":", operation, " "}) line.append(piece);
  for (const TextPiece& piece : message) line.append(piece.text());
  line.append("\n");
  line.flush();
}

std::unique_ptr<char[]> sysfs_read_attr(char const* path) {
  std::array<char, kAttributeBuffer> line;
  std::size_t length = 0;
  {
    const FilePtr file(std::fopen(path, "r"));
    if (!file) return nullptr;
    // Counted by hand because fgets does not tell the length of a line that holds a NUL.
    while (length < line.size() - 1) {
      const int byte = getc_unlocked(file.get());
      if (byte == EOF) break;
      line[length++] = static_cast<char>(byte);
      if (byte == '\n') break;
    }
    if (length == 0 || std::ferror(file.get()) != 0) return nullptr;
  }
  line[length - 1] = '\0';
  std::unique_ptr<char[]> value(new (std::nothrow) char[length]);
  if (!value) {
    TRACE("Can't read ", path, ": Out of memory!!!");
    return nullptr;
  }
  std::copy_n(line.data(), length, value.get());
  return value;
}

bool read_line(std::FILE* file, std::string& line) {
  line.clear();
  for (;;) {
    const int byte = getc_unlocked(file);
    if (byte == '\n') return true;
    // Half a line that ends in a read error is dropped: half a number is a wrong number.
    if (byte == EOF) return !line.empty() && std::ferror(file) == 0;
    line += static_cast<char>(byte);
  }
}

int parse_int(const char* text) {
  const long number = std::strtol(text, nullptr, 10);
  return static_cast<int>(
      std::clamp<long>(number, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}
