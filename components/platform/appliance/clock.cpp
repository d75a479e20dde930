// Simulated time: the clock, the waits that move it and the timeline of what happens meanwhile.
#include <fcntl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "appliance.h"
#include "simulation.h"

namespace appliance {
namespace {

using Microseconds = long long;
constexpr Microseconds kSecond = 1'000'000;
constexpr Microseconds kEndOfTime = std::numeric_limits<Microseconds>::max();
constexpr Microseconds kLongestNap = 3600 * kSecond;       // of real waiting, keeps a timeval small
constexpr std::size_t kLineUsual = std::size_t{4} * 1024;  // of the timeline
constexpr std::size_t kLineMax = std::size_t{256} * 1024;
constexpr std::size_t kScriptMax = 32;
constexpr std::size_t kWatchedMax = 2048;  // of a watched file
constexpr long kLookAgain = 500'000;       // nanoseconds between two looks at <root>/clock
constexpr mode_t kFileMode = 0644;
constexpr int kOctal = 8;
constexpr int kDecimal = 10;

using Select = int(int, fd_set*, fd_set*, fd_set*, timeval*);

// Plain data without a constructor: the C library is called before constructors run.
struct Clock {
  Microseconds elapsed;
  long long epoch;
  bool epochKnown;
  bool follows;      // <root>/clock, from the first wait on
  off64_t timeline;  // what has happened of it, in bytes
};
constinit Clock clock{};

bool isSimulated() { return root() != nullptr && gettid() == getpid(); }

Microseconds later(Microseconds time, Microseconds wait) {
  return time > kEndOfTime - wait ? kEndOfTime : time + wait;
}

Microseconds fromSeconds(long long seconds) {
  return seconds > kEndOfTime / kSecond ? kEndOfTime : seconds * kSecond;
}

double speed() {
  const char* const text = std::getenv("APPLIANCE_SPEED");
  return text == nullptr ? 0 : std::strtod(text, nullptr);
}

Select* realSelect() {
  static auto* const real = next<Select>("select");
  return real;
}

// The time that <root>/clock gives; nothing when there is none.
std::optional<Microseconds> givenTime() {
  const std::string text = readFile(std::string(root()) + "/clock", kScriptMax);
  if (text.empty()) return std::nullopt;
  return fromSeconds(std::strtoll(text.c_str(), nullptr, kDecimal));
}

void tellReached(Microseconds time) {
  const int file = openat(AT_FDCWD, (std::string(root()) + "/clock_reached").c_str(),
                          O_WRONLY | O_CREAT | O_CLOEXEC, kFileMode);
  const std::string text = std::to_string(time / kSecond) + '\n';
  [[maybe_unused]] const ssize_t written = ::write(file, text.data(), text.size());
  if (file >= 0) close(file);
}

// As passUntil, by <root>/clock. Signals are let in only while it really waits, so that each one
// ends the wait.
bool followUntil(Microseconds moment) {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &before);
  bool interrupted = false;
  Microseconds told = -1;
  while (!interrupted && clock.elapsed < moment) {
    const Microseconds given = givenTime().value_or(clock.elapsed);
    clock.elapsed = std::max(clock.elapsed, std::min(given, moment));
    if (clock.elapsed == moment) break;
    if (given != told) tellReached(given);
    told = given;
    const timespec rest{.tv_sec = 0, .tv_nsec = kLookAgain};
    interrupted = pselect(0, nullptr, nullptr, nullptr, &rest, &before) != 0;
  }
  sigprocmask(SIG_SETMASK, &before, nullptr);
  return !interrupted;
}

// Lets time pass up to a moment; false when a signal came first.
bool letPass(Microseconds moment) {
  if (clock.follows) return followUntil(moment);
  using RealClock = std::chrono::steady_clock;
  const double rate = speed();
  if (!(rate > 0)) {
    clock.elapsed = std::max(clock.elapsed, moment);
    return true;
  }
  const Microseconds start = clock.elapsed;
  const auto realStart = RealClock::now();
  while (clock.elapsed < moment) {
    const double realRest = static_cast<double>(moment - clock.elapsed) / rate;
    const auto nap = realRest < static_cast<double>(kLongestNap)
                         ? static_cast<Microseconds>(realRest) + 1
                         : kLongestNap;
    timeval rest{};
    rest.tv_sec = static_cast<time_t>(nap / kSecond);
    rest.tv_usec = static_cast<suseconds_t>(nap % kSecond);
    const bool interrupted = realSelect()(0, nullptr, nullptr, nullptr, &rest) != 0;

    const std::chrono::duration<double, std::micro> real = RealClock::now() - realStart;
    const double simulated = real.count() * rate;
    const bool over = simulated >= static_cast<double>(moment - start);
    const Microseconds reached = over ? moment : start + static_cast<Microseconds>(simulated);
    clock.elapsed = std::max(clock.elapsed, reached);
    if (interrupted) return false;
  }
  return true;
}

bool passUntil(Microseconds moment) {
  const bool whole = letPass(moment);
  liveUntil(static_cast<double>(clock.elapsed) / static_cast<double>(kSecond));
  return whole;
}

// Timeline

struct Event {
  Microseconds due = 0;
  std::string line;
  std::string action;
  std::string object;
  std::string text;
};

// A line without a valid second is due at once and does nothing, which the journal will say.
Event parse(std::string_view line) {
  Event event;
  event.line = line;
  const std::string seconds(cut(line, ' '));
  char* end = nullptr;
  const long long due = std::strtoll(seconds.c_str(), &end, kDecimal);
  if (seconds.empty() || *end != '\0' || due < 0) return event;
  event.due = fromSeconds(due);
  event.action = cut(line, ' ');
  event.object = cut(line, ' ');
  event.text = line;
  return event;
}

// A part of the timeline.
std::string readPart(off64_t offset, std::size_t size) {
  const std::string path = std::string(root()) + "/timeline";
  const int file = openat(AT_FDCWD, path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return {};
  std::string text(size, '\0');
  const ssize_t count = pread64(file, text.data(), size, offset);
  close(file);
  text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return text;
}

struct Place {
  Event event;
  off64_t behind;
};

// The first event from a byte of the timeline on.
std::optional<Place> eventFrom(off64_t offset) {
  for (;;) {
    std::string text = readPart(offset, kLineUsual);
    if (text.find('\n') == std::string::npos) text = readPart(offset, kLineMax);
    if (text.empty()) return std::nullopt;
    for (std::string_view rest = text; !rest.empty();) {
      const std::size_t end = rest.find('\n');
      // What begins here may go on behind the piece.
      if (end == std::string_view::npos && rest.size() < text.size()) break;
      const auto line = cut(rest, '\n');
      offset += static_cast<off64_t>(line.size()) + 1;
      if (line.find_first_not_of(" \t") == std::string_view::npos || line[0] == '#') continue;
      return Place{parse(line), offset};
    }
  }
}

// A text of several lines: each \n of two characters is a line feed.
std::string unfolded(std::string_view text) {
  std::string lines;
  for (std::size_t end = 0; (end = text.find("\\n")) != std::string_view::npos;) {
    lines.append(text.substr(0, end)).push_back('\n');
    text.remove_prefix(end + 2);
  }
  return lines.append(text);
}

// Replaces the content and keeps the permissions, as a driver does with its attribute; what the
// permissions forbid to the program is not forbidden to the timeline.
bool replaceContent(const char* path, const std::string& text) {
  struct stat64 status;
  const bool closed = fstatat64(AT_FDCWD, path, &status, 0) == 0 && (status.st_mode & S_IWUSR) == 0;
  if (closed) fchmodat(AT_FDCWD, path, S_IWUSR, 0);
  const int file = openat(AT_FDCWD, path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode);
  const std::string content = text + '\n';
  const bool written = file >= 0 && ::write(file, content.data(), content.size()) ==
                                        static_cast<ssize_t>(content.size());
  if (file >= 0) close(file);
  if (closed) fchmodat(AT_FDCWD, path, status.st_mode & ALLPERMS, 0);
  return written;
}

bool changeFile(const Event& event) {
  PathBuffer buffer;
  const char* const path = belowRoot(event.object.c_str(), buffer);
  if (path == nullptr) return false;
  if (event.action == "write") return replaceContent(path, unfolded(event.text));
  if (event.action == "remove") return unlinkat(AT_FDCWD, path, 0) == 0;
  if (event.action == "mode" && !event.text.empty()) {
    const auto mode = static_cast<mode_t>(std::strtoul(event.text.c_str(), nullptr, kOctal));
    return fchmodat(AT_FDCWD, path, mode, 0) == 0;
  }
  return false;
}

struct SignalName {
  std::string_view name;
  int number;
};
constexpr SignalName kSignals[] = {
    {"TERM", SIGTERM}, {"USR1", SIGUSR1}, {"USR2", SIGUSR2}, {"HUP", SIGHUP},
    {"PIPE", SIGPIPE}, {"ALRM", SIGALRM}, {"INT", SIGINT},
};

// Only a signal that runs a handler ends a system call.
bool runsHandler(int number) {
  struct sigaction action;
  sigset_t blocked;
  if (sigaction(number, nullptr, &action) != 0) return false;
  if (sigprocmask(SIG_BLOCK, nullptr, &blocked) != 0) return false;
  return action.sa_handler != SIG_IGN && action.sa_handler != SIG_DFL &&
         sigismember(&blocked, number) == 0;
}

// 0 for a name that is not known.
int signalNumber(std::string_view name) {
  for (const auto& signal : kSignals) {
    if (signal.name == name) return signal.number;
  }
  return 0;
}

// Makes an event happen; true when it ends the wait.
bool happen(const Event& event) {
  const int number = event.action == "signal" ? signalNumber(event.object) : 0;
  if (number != 0) {
    const bool ends = runsHandler(number);
    raise(number);
    return ends;
  }
  if (changeEnclosure(event.action, event.object, event.text)) return false;
  if (!changeFile(event)) record("timeline", "failed: %s", event.line.c_str());
  return false;
}

// What the journal says of each watched file.
std::map<std::string, std::string>& watched() {
  static std::map<std::string, std::string> files;
  return files;
}

void lookAtWatched() {
  const std::string list = readFile(std::string(root()) + "/watched", kLineUsual);
  for (std::string_view rest = list; !rest.empty();) {
    const std::string path(cut(rest, '\n'));
    PathBuffer buffer;
    struct stat64 status;
    const char* const real = belowRoot(path.c_str(), buffer);
    if (real == nullptr) continue;
    const std::string text = readFile(real, kWatchedMax);
    const bool isThere = !text.empty() || fstatat64(AT_FDCWD, real, &status, 0) == 0;
    std::string said = path;
    if (isThere) said.append(" ").append(text, 0, text.find('\0'));
    if (std::exchange(watched()[path], said) == said) continue;
    record(isThere ? "holds" : "lacks", "%s", said.c_str());
  }
}

struct Wait {
  Microseconds rest;
  bool interrupted;
};

Wait wait(Microseconds length) {
  lookAtWatched();
  if (const auto given = clock.follows ? std::nullopt : givenTime()) {
    clock.follows = true;
    clock.elapsed = *given;
  }
  const Microseconds deadline = later(clock.elapsed, length);
  bool interrupted = false;
  while (!interrupted) {
    const auto next = eventFrom(clock.timeline);
    if (!next || next->event.due > deadline) break;
    interrupted = !passUntil(next->event.due);
    if (interrupted) break;
    clock.timeline = next->behind;  // first: a signal handler may wait in turn
    interrupted = happen(next->event);
  }
  if (!interrupted) interrupted = !passUntil(deadline);
  return {std::max(deadline - clock.elapsed, Microseconds{0}), interrupted};
}

// What a file below the root says about the next call of a function; it is gone then.
std::string takeFile(const char* name) {
  const std::string path = root() + std::string(name);
  std::string text = readFile(path, kScriptMax);
  if (!text.empty()) unlinkat(AT_FDCWD, path.c_str(), 0);
  return text;
}

// The three sets of a select call.
struct Sets {
  fd_set* set[3];

  void clear() const {
    for (auto* const one : set) {
      if (one != nullptr) FD_ZERO(one);
    }
  }
};

int simulatedSelect(int count, const Sets& sets, timeval& timeout) {
  const long long seconds = timeout.tv_sec;
  const long long fraction = timeout.tv_usec;
  if (fraction == 0) {
    record("select", "%lld nfds=%d", seconds, count);
  } else {
    record("select", "%lld.%06lld nfds=%d", seconds, fraction, count);
  }
  if (seconds < 0 || fraction < 0) {
    errno = EINVAL;
    return -1;
  }

  const std::string scripted = takeFile("/select");
  if (!scripted.empty()) {
    sets.clear();
    const auto result = static_cast<int>(std::strtol(scripted.c_str(), nullptr, kDecimal));
    if (result < 0) errno = EBADF;
    return result;
  }

  // The kernel looks at the descriptors below the count and leaves its answer in the copies.
  fd_set copies[3];
  fd_set* asked[3];
  for (int i = 0; i < 3; ++i) {
    asked[i] = sets.set[i] == nullptr ? nullptr : &copies[i];
    if (asked[i] != nullptr) copies[i] = *sets.set[i];
  }
  timeval none{};
  int ready = realSelect()(std::min(count, FD_SETSIZE), asked[0], asked[1], asked[2], &none);
  if (ready < 0) return ready;
  if (ready == 0) {
    const Wait waited = wait(later(fromSeconds(seconds), fraction));
    timeout.tv_sec = static_cast<time_t>(waited.rest / kSecond);  // as Linux does
    timeout.tv_usec = static_cast<suseconds_t>(waited.rest % kSecond);
    if (waited.interrupted) {
      errno = EINTR;
      return -1;
    }
    sets.clear();
    return 0;
  }
  for (int i = 0; i < 3; ++i) {
    if (asked[i] != nullptr) *sets.set[i] = copies[i];
  }
  return ready;
}

}  // namespace
}  // namespace appliance

using namespace appliance;

long long appliance_elapsed() { return appliance::clock.elapsed / kSecond; }

void appliance_reset() {
  appliance::clock.elapsed = 0;
  appliance::clock.timeline = 0;
  forgetEnclosure();
  watched().clear();
  appliance::clock.follows = false;
}

APPLIANCE_INTERPOSED time_t time(time_t* result) noexcept {
  static auto* const real = next<time_t(time_t*)>("time");
  if (root() == nullptr) return real(result);
  const char* const text = std::getenv("APPLIANCE_EPOCH");
  if (text == nullptr && !appliance::clock.epochKnown) {
    appliance::clock.epoch = real(nullptr);
    appliance::clock.epochKnown = true;
  }
  const long long epoch =
      text == nullptr ? appliance::clock.epoch : std::strtoll(text, nullptr, kDecimal);
  const auto now = static_cast<time_t>(epoch + appliance_elapsed());
  if (result != nullptr) *result = now;
  return now;
}

APPLIANCE_INTERPOSED unsigned int sleep(unsigned int seconds) {
  static auto* const real = next<unsigned int(unsigned int)>("sleep");
  if (!isSimulated()) return real(seconds);
  record("sleep", "%u", seconds);
  const Wait waited = wait(fromSeconds(seconds));
  if (!waited.interrupted) return 0;
  return static_cast<unsigned int>((waited.rest + kSecond - 1) / kSecond);
}

APPLIANCE_INTERPOSED int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional,
                                timeval* timeout) {
  if (timeout == nullptr || !isSimulated()) {
    return realSelect()(count, readable, writable, exceptional, timeout);
  }
  return simulatedSelect(count, {{readable, writable, exceptional}}, *timeout);
}

// A signal may come before the child's first instruction.
APPLIANCE_INTERPOSED pid_t fork() noexcept {
  static auto* const real = next<pid_t()>("fork");
  const pid_t child = real();
  if (child != 0 || root() == nullptr) return child;
  const int number = signalNumber(takeFile("/fork"));
  if (number != 0) raise(number);
  return child;
}

// What programs with 64-bit time call on a 32-bit machine.
#if __TIMESIZE == 32
struct Timeval64 {
  long long tv_sec;
  long long tv_usec;
};

APPLIANCE_INTERPOSED long long __time64(long long* result) noexcept {
  const long long now = time(nullptr);
  if (result != nullptr) *result = now;
  return now;
}

APPLIANCE_INTERPOSED int __select64(int count, fd_set* readable, fd_set* writable,
                                    fd_set* exceptional, Timeval64* timeout) {
  if (timeout == nullptr) return select(count, readable, writable, exceptional, nullptr);
  constexpr long long kLongest = std::numeric_limits<time_t>::max();
  timeval narrow{};
  narrow.tv_sec = static_cast<time_t>(std::min(timeout->tv_sec, kLongest));
  narrow.tv_usec = static_cast<suseconds_t>(timeout->tv_usec);
  const int result = select(count, readable, writable, exceptional, &narrow);
  *timeout = {narrow.tv_sec, narrow.tv_usec};
  return result;
}
#endif
