#include "service-process.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <string_view>

#include "utils.h"

namespace {

constexpr char kPidFile[] = "/var/run/fan_controller.pid";
constexpr std::string_view kProgram = "fan_controller";

// The kernel shows the first 15 characters of a program's name.
bool is_service(pid_t process) {
  const auto name = sysfs_read_attr(join({"/proc/", process, "/comm"}).c_str());
  return name && name.get() == kProgram.substr(0, 15);
}

}  // namespace

pid_t find_service() {
  const auto text = sysfs_read_attr(kPidFile);
  const pid_t process = text ? parse_int(text.get()) : 0;
  return process > 0 && is_service(process) ? process : 0;
}
