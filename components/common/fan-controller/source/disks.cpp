#include "disks.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <string_view>

#include "utils.h"

namespace {

constexpr std::size_t kPartitionLine = 256;  // a longer line is considered in pieces
constexpr std::size_t kDeviceName = 3;       // "sd" and the drive letter

}  // namespace

bool list_disks(std::FILE* partitions, std::vector<std::string>& devices) {
  // Two bytes more than a line takes: the byte behind an "sd" at the very end is looked at too.
  std::array<char, kPartitionLine + 2> line{};
  while (std::fgets(line.data(), kPartitionLine, partitions) != nullptr) {
    const char* name = std::strstr(line.data(), "sd");
    if (name == nullptr) continue;
    const char behindLetter = name[kDeviceName];
    if (behindLetter >= '0' && behindLetter <= '9') continue;
    devices.push_back(join({"/dev/", std::string_view(name, kDeviceName)}));
  }
  if (std::ferror(partitions) == 0) return true;
  devices.clear();
  return false;
}
