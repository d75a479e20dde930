#include "drivers.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

#include "utils.h"

static_assert(std::ranges::is_sorted(I2C_ATTRIBUTES));
static_assert(std::ranges::is_sorted(GPIO_ATTRIBUTES));

namespace {

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
  for (const DriverRow& driver : DRIVER_ROWS) {
    if (std::ranges::equal(entries, driver.attributes)) return &driver;
  }
  return nullptr;
}
