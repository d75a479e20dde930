#include "utils.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <limits>
#include <new>
#include <optional>
#include <span>

namespace {

constexpr std::size_t kAttributeBuffer = 128;  // one byte of it for the terminating NUL

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kPatience(1000);
constexpr std::size_t kTerminalRoom = 256;

// Used by the signal handler as well, but never at the same time: OutputHold sees to that.
bool intoNull = false;
bool silent = false;
bool stalled = false;   // a second of waiting was in vain
bool lineOpen = false;  // the last line lacks its end
bool readerGone = false;
Clock::time_point deadline;  // of the line that is written

// For as long as a line is written: signals wait, so that the handler's line does not get into it.
// The SIGPIPE that the line itself causes is taken away, as it tells only that nobody reads. The
// kernel hands out a thread's own signal before one that was sent to the process, which stays.
class OutputHold {
 public:
  OutputHold() {
    sigset_t all;
    (void)::sigfillset(&all);
    (void)::sigprocmask(SIG_BLOCK, &all, &m_before);
    readerGone = false;
    deadline = Clock::now() + kPatience;
  }
  ~OutputHold() {
    if (readerGone) {
      sigset_t pipeSignal;
      (void)::sigemptyset(&pipeSignal);
      (void)::sigaddset(&pipeSignal, SIGPIPE);
      const timespec now{};
      (void)::sigtimedwait(&pipeSignal, nullptr, &now);
    }
    (void)::sigprocmask(SIG_SETMASK, &m_before, nullptr);
  }
  OutputHold(const OutputHold&) = delete;
  OutputHold& operator=(const OutputHold&) = delete;

 private:
  sigset_t m_before{};
};

enum class Output { kFile, kPipe, kTerminal };

// A file takes everything at once. A pipe, a socket and a terminal have a reader, who may be slow.
Output output_kind() {
  struct stat status {};
  if (::fstat(STDOUT_FILENO, &status) != 0) return Output::kFile;
  if (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode)) return Output::kPipe;
  return S_ISCHR(status.st_mode) && ::isatty(STDOUT_FILENO) != 0 ? Output::kTerminal
                                                                 : Output::kFile;
}

// False: there is no room, or nobody to read. A write would then wait for good, and the fan with
// it. The descriptor itself is not made non-blocking: it is shared with whoever handed it down.
bool find_room() {
  const auto rest = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
  const int patience = stalled ? 0 : std::max(static_cast<int>(rest.count()), 0);
  pollfd output = {.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
  const int ready = ::poll(&output, 1, patience);
  stalled = ready == 0;
  return ready > 0 && output.revents == POLLOUT;
}

// How much of the text a write takes without waiting where there is room. A pipe takes PIPE_BUF
// bytes, more than a piece of a line has. A terminal may have room for one byte only, but it takes
// as many as its driver's smallest buffer; a control character is handled apart and needs room of
// its own.
std::size_t sure_length(Output output, std::string_view text) {
  if (output != Output::kTerminal) return text.size();
  const std::size_t plain = std::min(text.find_first_of("\n\r\t"), kTerminalRoom);
  return std::min(std::max(plain, std::size_t{1}), text.size());
}

// Whether the text was written to its end.
bool write_out(std::string_view text) {
  const Output output = intoNull ? Output::kFile : output_kind();
  while (!text.empty()) {
    if (output != Output::kFile && !find_room()) return false;
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), sure_length(output, text));
    if (written < 0 && errno == EINTR) continue;
    readerGone = written < 0 && errno == EPIPE;
    if (written <= 0) return false;
    lineOpen = text[static_cast<std::size_t>(written) - 1] != '\n';
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// A line that was begun and not ended is ended before the next one begins.
bool begin_line() { return !lineOpen || write_out("\n"); }

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
  if (text.empty() || silent) return;
  std::optional<OutputHold> hold;
  if (!intoNull) hold.emplace();
  if (begin_line()) (void)write_out(text);
}

void trace_into_null() noexcept { intoNull = true; }

void silence_traces() noexcept { silent = true; }

void trace_line(const char* file, const char* operation,
                std::initializer_list<TextPiece> message) noexcept {
  if (silent) return;
  std::optional<OutputHold> hold;
  if (!intoNull) hold.emplace();
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
