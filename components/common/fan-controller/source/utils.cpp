#include "utils.h"

#include <fcntl.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <new>
#include <span>

namespace {

constexpr std::size_t kAttributeBuffer = 128;  // one byte of it for the terminating NUL

constexpr std::chrono::milliseconds kPatience(1000);
// A terminal that reports room takes this many bytes without making the writer wait. A pipe takes
// PIPE_BUF bytes, which is more than a TraceLine holds.
constexpr std::size_t kTerminalRoom = 256;

// Set and tested by the signal handler's trace as well, hence the type.
volatile std::sig_atomic_t intoNull = 0;
volatile std::sig_atomic_t silent = 0;
volatile std::sig_atomic_t stalled = 0;   // a second of waiting was in vain
volatile std::sig_atomic_t writing = 0;   // inside write()
volatile std::sig_atomic_t lineOpen = 0;  // the last line lacks its end

// False: there is no room, or nobody to read. A write could then wait for good, and the fan with
// it. The descriptor itself is not made non-blocking: it is shared with whoever handed it down.
bool find_room() noexcept {
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + (stalled != 0 ? std::chrono::milliseconds(0) : kPatience);
  for (;;) {
    const auto rest = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd output = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
    const int ready = ::poll(&output, 1, std::max(static_cast<int>(rest.count()), 0));
    if (ready < 0 && errno == EINTR) continue;
    stalled = ready == 0 ? 1 : 0;
    return ready > 0 && output.revents == POLLOUT;
  }
}

// Whether the text was written to its end. A line that was begun and not ended is ended before the
// next one begins.
bool write_out(std::string_view text) noexcept {
  while (!text.empty()) {
    if (silent != 0 || (intoNull == 0 && !find_room())) return false;
    const bool fits = text.size() <= kTerminalRoom || ::isatty(STDOUT_FILENO) == 0;
    const std::sig_atomic_t outer = writing;  // a signal's line may come in between
    writing = 1;
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), fits ? text.size() : kTerminalRoom);
    writing = outer;
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    lineOpen = text[static_cast<std::size_t>(written) - 1] == '\n' ? 0 : 1;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

bool begin_line() noexcept { return lineOpen == 0 || write_out("\n"); }

// Composes a line without memory of its own from the heap: the last lines of a process that has run
// out of it are traced too. A line that does not fit goes out in pieces; when one of them is lost,
// so is the rest.
class TraceLine {
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
    if (!m_begun) m_lost = !begin_line();
    m_begun = true;
    m_lost = m_lost || !write_out({m_text.data(), m_length});
    m_length = 0;
  }

 private:
  std::array<char, 1024> m_text;
  std::size_t m_length = 0;
  bool m_begun = false;
  bool m_lost = false;
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
  if (begin_line()) (void)write_out(text);
}

void trace_into_null() noexcept { intoNull = 1; }

void silence_traces() noexcept { silent = 1; }

bool trace_is_written() noexcept { return writing != 0; }

void trace_line(const char* file, const char* operation,
                std::initializer_list<TextPiece> message) noexcept {
  TraceLine line;
  for (const char* piece : {file, ":", operation, " "}) line.append(piece);
  for (const TextPiece& piece : message) line.append(piece.text());
  line.append("\n");
  line.flush();
}

// The length of the line with its line feed; 0 when there is none.
static std::size_t read_first_line(char const* path, std::span<char> buffer) {
  const Descriptor file(::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::size_t length = 0;
  while (file && length < buffer.size()) {
    const ssize_t count = ::read(file.get(), buffer.data() + length, buffer.size() - length);
    if (count < 0) return 0;
    if (count == 0) break;
    const auto piece = buffer.subspan(length, static_cast<std::size_t>(count));
    const auto end = std::ranges::find(piece, '\n');
    if (end != piece.end()) return length + static_cast<std::size_t>(end - piece.begin()) + 1;
    length += piece.size();
  }
  return length;
}

std::unique_ptr<char[]> sysfs_read_attr(char const* path) {
  std::array<char, kAttributeBuffer> line;
  const std::size_t length = read_first_line(path, std::span(line).first<kAttributeBuffer - 1>());
  if (length == 0) return nullptr;
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
