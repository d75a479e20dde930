// fanctl guard: the alarm of a fan whose chip measures its speed but has no alarm.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "files.h"
#include "guard.h"
#include "hwmon.h"
#include "link-plan.h"
#include "state.h"

namespace {

constexpr int kBetweenReadings = 10;  // seconds
constexpr int kWatchStep = 3;
constexpr int kWatchSteps = 15;  // together less than a minute, when the next run begins

// A speed or a command that cannot be read says nothing, so there is no alarm either.
bool stands_still(const std::string& folder, const std::string& commandPath) {
  const auto command = read_attribute(commandPath);
  const auto speed = read_attribute(folder + "/fan1_input");
  return command && speed && parse_int(command->c_str()) > 0 && parse_int(speed->c_str()) == 0;
}

void set_alarm(const std::string& folder, const char* value) {
  const std::string path = join({folder, "/", FAN_ALARM});
  if (read_attribute(path) == value) return;
  const int error = write_text(path, join({value, "\n"}), O_NOFOLLOW);
  if (error != 0) (void)std::fprintf(stderr, "%s: %s\n", path.c_str(), std::strerror(error));
}

}  // namespace

bool lacks_alarm(const std::string& folder) {
  return is_filler(folder, FAN_ALARM) && !is_filler(folder, "fan1_input");
}

void supply_alarm(const std::string& folder, const Driver& driver) {
  if (!lacks_alarm(folder) || driver.row == nullptr) return;
  // Not the guard's own lock: this takes long, and the guard may be called meanwhile.
  const Descriptor lock = lock_file(join({RUN_FOLDER, "/.alarm.lock"}));
  if (!lock) return;
  for (int look = 0; stands_still(folder, driver.commandPath); ++look) {
    if (look > 0) set_alarm(folder, "1");
    if (look > kWatchSteps) return;
    (void)::sleep(look == 0 ? kBetweenReadings : kWatchStep);
  }
  set_alarm(folder, "0");
}
