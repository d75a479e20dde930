#include "service-process.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <string_view>

#include "files.h"
#include "settings.h"
#include "state.h"
#include "utils.h"

namespace {

// Made by the service's unit when it is stopped on purpose, and removed when it is started.
constexpr char kStopped[] = "/run/fan_controller/stopped";
constexpr std::string_view kProgram = "fan_controller";

// The kernel shows the first 15 characters of a program's name. Everybody can give a program this
// name; the service is root's.
bool is_service(pid_t process) {
  struct stat status {};
  if (::stat(join({"/proc/", process}).c_str(), &status) != 0 ||
      (status.st_uid != 0 && status.st_uid != ::geteuid())) {
    return false;
  }
  const auto name = sysfs_read_attr(join({"/proc/", process, "/comm"}).c_str());
  return name && name.get() == kProgram.substr(0, 15);
}

// Runs, is halted, or has ended and waits for its parent: proc(5), the fields of stat behind the
// name, which may hold blanks and brackets itself.
ServiceProcess look_at(pid_t process) {
  ServiceProcess found;
  const FilePtr file(std::fopen(join({"/proc/", process, "/stat"}).c_str(), "r"));
  std::string line;
  if (process <= 0 || !is_service(process) || !file || !read_line(file.get(), line)) return found;
  constexpr int kStateField = 3, kStartField = 22;
  std::istringstream fields(line.substr(line.rfind(')') + 1));
  std::string field, state;
  for (int number = kStateField; number <= kStartField && fields >> field; ++number) {
    if (number == kStateField) state = field;
  }
  if (state == "Z" || state == "X") return found;
  found.process = process;
  found.started = std::strtoull(field.c_str(), nullptr, 10);
  found.state = state == "T" || state == "t" ? ServiceState::kHalted : ServiceState::kRuns;
  return found;
}

struct PipeCloser {
  void operator()(std::FILE* pipe) const noexcept { (void)::pclose(pipe); }
};

// What systemd knows of the unit; empty where there is no systemd.
State ask_systemd() {
  State unit;
  if (!exists("/run/systemd/system")) return unit;
  const std::unique_ptr<std::FILE, PipeCloser> answer(
      ::popen("systemctl show --property=ActiveState,SubState,MainPID "
              "fan_controller.service 2>/dev/null",
              "re"));
  Setting line;
  while (answer && next_setting(answer.get(), line)) unit[line.key] = line.value;
  return unit;
}

// Between two attempts systemd is about to start it. A unit that has failed was not stopped by
// hand, unless there is the mark: a stop that fails is a stop all the same.
bool is_wanted(State& unit) {
  const std::string& state = unit["ActiveState"];
  return state == "active" || unit["SubState"] == "auto-restart" ||
         (state == "failed" && !exists(kStopped));
}

}  // namespace

std::optional<double> age_of(const ServiceProcess& service) {
  timespec sinceBoot{};
  const long ticks = ::sysconf(_SC_CLK_TCK);
  if (service.process == 0 || ticks <= 0 || ::clock_gettime(CLOCK_BOOTTIME, &sinceBoot) != 0) {
    return std::nullopt;
  }
  constexpr double kNanoseconds = 1e-9;
  const double started = static_cast<double>(service.started) / static_cast<double>(ticks);
  const double now =
      static_cast<double>(sinceBoot.tv_sec) + static_cast<double>(sinceBoot.tv_nsec) * kNanoseconds;
  return std::max(now - started, 0.0);
}

ServiceProcess look_at_service(const std::string& removedFile) {
  const auto text = sysfs_read_attr(PID_FILE_PATH);
  ServiceProcess found = look_at(text ? parse_int(text.get()) : 0);
  if (found.process != 0) return found;
  State unit = ask_systemd();
  found = look_at(parse_int(unit["MainPID"].c_str()));
  if (found.process != 0) return found;
  const bool isLeft = text && removedFile == PID_FILE_PATH;
  if (isLeft || is_wanted(unit)) found.state = ServiceState::kEnded;
  return found;
}

bool is_still_there(const ServiceProcess& service) {
  const ServiceProcess now = look_at(service.process);
  return now.process != 0 && now.started == service.started;
}
