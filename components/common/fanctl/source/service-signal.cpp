#include "service-signal.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <string_view>

#include "files.h"
#include "utils.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr useconds_t kLookAgain = 500;  // microseconds
constexpr auto kPatience = std::chrono::seconds(2);
constexpr auto kLongest = std::chrono::seconds(10);

// What is behind a name in /proc/PID/status, proc(5); empty when the process has ended.
std::string status_of(pid_t process, std::string_view name) {
  const FilePtr file(std::fopen(join({"/proc/", process, "/status"}).c_str(), "r"));
  std::string line;
  while (file && read_line(file.get(), line)) {
    if (line.starts_with(name)) return line.substr(name.size());
  }
  return {};
}

bool is_pending(pid_t process) {
  constexpr int kHex = 16;
  return std::strtoull(status_of(process, "ShdPnd:\t").c_str(), nullptr, kHex) != 0;
}

// The attribute is open during the wait only, and while an alarm is acted upon.
bool has_open(pid_t process, const std::string& path) {
  struct stat wanted {};
  if (path.empty() || ::stat(path.c_str(), &wanted) != 0) return false;
  const std::string folder = join({"/proc/", process, "/fd"});
  return std::ranges::any_of(names_in(folder), [&](const std::string& name) {
    struct stat open {};
    return ::stat(join({folder, "/", name}).c_str(), &open) == 0 && open.st_dev == wanted.st_dev &&
           open.st_ino == wanted.st_ino;
  });
}

// A wait in steps of a second shows itself: the process sleeps anew each second. When the
// management library does not answer it sleeps for ten.
bool counts_seconds(pid_t process) {
  constexpr useconds_t kOneStep = 1'100'000;
  for (int step = 0; step < 2; ++step) {
    const std::string before = status_of(process, "voluntary_ctxt_switches:\t");
    (void)::usleep(kOneStep);
    if (before.empty() || status_of(process, "voluntary_ctxt_switches:\t") == before) return false;
  }
  return true;
}

enum class Activity { kWaits, kMeasures, kOther };

// Sees to it that a signal which was sent before has been taken, because two of a kind that are
// pending count as one.
Activity settle(const Waiting& waiting) {
  const pid_t process = waiting.service.process;
  const auto end = Clock::now() + kPatience;
  std::string state;
  for (; Clock::now() < end; (void)::usleep(kLookAgain)) {
    state = status_of(process, "State:\t");
    if (!state.starts_with('S') || is_pending(process)) continue;
    if (waiting.pause == Pause::kCounted || has_open(process, waiting.alarmPath)) {
      return Activity::kWaits;
    }
  }
  // Nothing but a disk that has to start turning lets it wait for a device for so long.
  return state.starts_with('D') ? Activity::kMeasures : Activity::kOther;
}

}  // namespace

Waiting look_at_wait(const ServiceProcess& service, const Configuration& configuration) {
  Waiting waiting{.service = service,
                  .pause = Pause::kAlarm,
                  .alarmPath = find_driver(configuration.settings).alarmPath};
  if (has_open(service.process, waiting.alarmPath)) return waiting;
  waiting.pause = counts_seconds(service.process) ? Pause::kCounted : Pause::kNone;
  // The cycle that it was found in may be over by now.
  if (has_open(service.process, waiting.alarmPath)) {
    waiting.pause = Pause::kAlarm;
    return waiting;
  }
  waiting.steps = std::max(configuration.settings.m_periodInSec, 1);
  return waiting;
}

// The descriptor holds on to the process, whatever happens to its number. Kernels before 5.3 have
// none.
bool send_signal(const ServiceProcess& service, int number) {
  const Descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, service.process, 0)));
  if (!is_still_there(service)) {
    errno = ESRCH;
    return false;
  }
  if (!process) return ::kill(service.process, number) == 0;
  return ::syscall(SYS_pidfd_send_signal, process.get(), number, nullptr, 0) == 0;
}

bool end_wait(const Waiting& waiting, int number) {
  const auto end = Clock::now() + kLongest;
  for (int step = 0; step < waiting.steps; ++step) {
    const Activity activity = settle(waiting);
    if (step > 0 && activity == Activity::kMeasures) return true;
    if (activity != Activity::kWaits || Clock::now() > end) return false;
    if (!send_signal(waiting.service, step == 0 ? number : SIGSYS)) return false;
  }
  return settle(waiting) != Activity::kOther;
}
