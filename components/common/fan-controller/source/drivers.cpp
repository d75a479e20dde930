#include "drivers.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "utils.h"

static_assert(std::ranges::is_sorted(I2C_ATTRIBUTES));
static_assert(std::ranges::is_sorted(GPIO_ATTRIBUTES));

namespace {

constexpr char kCloseLoop[] = "2";  // the chip wants a speed, not a duty cycle

// Opened without waiting: a pipe would wait for its other end for good.
bool is_readable_file(const std::string& path) {
  if (DirPtr(::opendir(path.c_str()))) return false;
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  struct stat status {};
  return file && ::fstat(file.get(), &status) == 0 && !S_ISFIFO(status.st_mode);
}

}  // namespace

std::vector<std::string> list_readable_entries(DIR* directory, const std::string& path) {
  std::vector<std::string> entries;
  while (const dirent* entry = ::readdir(directory)) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (is_readable_file(join({path, "/", name}))) entries.emplace_back(name);
  }
  return entries;
}

const DriverRow* match_driver(std::vector<std::string> entries) {
  std::ranges::sort(entries);
  entries.erase(std::unique(entries.begin(), entries.end()), entries.end());
  for (const DriverRow& driver : DRIVER_ROWS) {
    if (std::ranges::equal(entries, driver.attributes)) return &driver;
  }
  return nullptr;
}

std::optional<bool> runs_close_loop(const std::string& directory) {
  const auto mode = sysfs_read_attr(join({directory, "/", FAN_MODE}).c_str());
  if (!mode) return std::nullopt;
  return std::strcmp(mode.get(), kCloseLoop) == 0;
}

std::string command_path(const std::string& directory, const DriverRow& driver, bool closeLoop) {
  return join({directory, "/", closeLoop ? FAN_TARGET : driver.command});
}

std::string alarm_path(const std::string& directory, const std::string& configured) {
  std::string own = join({directory, "/", FAN_ALARM});
  if (configured.empty()) return own;
  if (sysfs_read_attr(configured.c_str()) || !sysfs_read_attr(own.c_str())) return configured;
  return own;
}
