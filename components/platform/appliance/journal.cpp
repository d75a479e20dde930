// The journal and the system log, which goes there.
#include <fcntl.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>

#include "appliance.h"
#include "simulation.h"

namespace appliance {
namespace {

constexpr std::size_t kTextMax = 4096;
constexpr std::size_t kEscapeMax = 4;  // \xNN
constexpr std::size_t kHeadMax = 64;   // seconds and kind
constexpr unsigned char kFirstPrintable = ' ';
constexpr unsigned char kDelete = 0x7f;
constexpr mode_t kJournalMode = 0644;

// One byte as the journal shows it, so that a line stays a line; returns the characters written.
std::size_t escape(unsigned char byte, char* to) {
  if (byte == '\n') {
    to[0] = '\\';
    to[1] = 'n';
    return 2;
  }
  if (byte >= kFirstPrintable && byte != kDelete && byte != '\\') {
    to[0] = static_cast<char>(byte);
    return 1;
  }
  static constexpr char kDigits[] = "0123456789abcdef";
  to[0] = '\\';
  to[1] = 'x';
  to[2] = kDigits[byte >> 4];
  to[3] = kDigits[byte & 0x0f];
  return kEscapeMax;
}

// No memory from the heap: the program may log in a signal handler.
void write(const char* kind, const char* text, const char* name = "/journal") {
  PathBuffer buffer;
  const char* const path = root() == nullptr ? nullptr : belowRoot(name, buffer);
  if (path == nullptr) return;

  char line[kHeadMax + kTextMax * kEscapeMax + 1];
  const int head = std::snprintf(line, kHeadMax, "%lld %.32s ", appliance_elapsed(), kind);
  std::size_t length = head < 0 ? 0 : static_cast<std::size_t>(head);
  for (; *text != '\0' && length + kEscapeMax < sizeof line; ++text) {
    length += escape(static_cast<unsigned char>(*text), line + length);
  }
  line[length++] = '\n';

  const int file = openat(AT_FDCWD, path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kJournalMode);
  if (file < 0) return;
  [[maybe_unused]] const ssize_t written = ::write(file, line, length);
  close(file);
}

// A system log that does not read: as long as nobody opens the pipe for reading either. The C
// library tries twice, each time until it is heard or a signal handler ends the wait.
bool isHeard() {
  PathBuffer buffer;
  const char* const path = belowRoot("/syslog", buffer);
  for (int attempt = 0; attempt < 2; ++attempt) {
    const int pipe = path == nullptr ? -1 : openat(AT_FDCWD, path, O_WRONLY | O_CLOEXEC);
    if (pipe >= 0) close(pipe);
    if (pipe >= 0 || errno == ENOENT) return true;
  }
  return false;
}

void recordSyslog(int priority, const char* format, va_list arguments) {
  const int cause = errno;
  char text[kTextMax];
  const int head = std::snprintf(text, sizeof text, "%d ", priority);
  errno = cause;  // for %m
  std::vsnprintf(text + head, sizeof text - static_cast<std::size_t>(head), format, arguments);
  if (isHeard()) write("syslog", text);
  errno = cause;
}

}  // namespace

void record(const char* kind, const char* format, ...) {
  const int cause = errno;
  char text[kTextMax];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  write(kind, text);
  errno = cause;
}

void recordOutside(const char* path) {
  const int cause = errno;
  write("outside", path, "/outside");
  errno = cause;
}

// Whoever starts a program can see in its journal that the simulation stands before it. Its process
// has its name even if an emulator runs it.
__attribute__((constructor)) static void recordPresence() {
  if (root() != nullptr) (void)prctl(PR_SET_NAME, program_invocation_short_name);
  record("preload", "%s", program_invocation_short_name);
}

}  // namespace appliance

void appliance_note(const char* kind, const char* text) { appliance::record(kind, "%s", text); }

APPLIANCE_INTERPOSED void syslog(int priority, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  if (appliance::root() != nullptr) {
    appliance::recordSyslog(priority, format, arguments);
  } else {
    static auto* const real = appliance::next<void(int, const char*, va_list)>("vsyslog");
    real(priority, format, arguments);
  }
  va_end(arguments);
}

// What the fortified headers call instead of syslog.
APPLIANCE_INTERPOSED __attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int flag,
                                                                             const char* format,
                                                                             ...) {
  va_list arguments;
  va_start(arguments, format);
  if (appliance::root() != nullptr) {
    appliance::recordSyslog(priority, format, arguments);
  } else {
    static auto* const real =
        appliance::next<void(int, int, const char*, va_list)>("__vsyslog_chk");
    real(priority, flag, format, arguments);
  }
  va_end(arguments);
}
