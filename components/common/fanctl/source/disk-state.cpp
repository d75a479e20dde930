#include "disk-state.h"

#include <fcntl.h>

#include <algorithm>
#include <ctime>
#include <string_view>

#include "ata.h"
#include "disks.h"
#include "smart.h"
#include "utils.h"

namespace {

constexpr unsigned char kCheckPowerMode = 0xE5;

// Where the answer's count field lies in the sense data (SAT): in the ATA status return descriptor,
// or in the information field of the fixed format.
constexpr unsigned char kFixedFormat = 0x70;
constexpr unsigned char kDescriptorFormat = 0x72;
constexpr unsigned char kResponseMask = 0x7F;
constexpr std::size_t kDescriptor = 8;
constexpr unsigned char kAtaStatusReturn = 0x09;
constexpr std::size_t kDescriptorCount = kDescriptor + 5;
constexpr std::size_t kDescriptorStatus = kDescriptor + 13;
constexpr std::size_t kFixedStatus = 4;
constexpr std::size_t kFixedCount = 6;
constexpr unsigned char kStatusError = 0x01;

constexpr unsigned char kStandbyZ = 0x00;
constexpr unsigned char kStandbyY = 0x01;

PowerMode power_mode(unsigned char status, unsigned char count) {
  if ((status & kStatusError) != 0 || status == 0) return PowerMode::kUnknown;
  return count == kStandbyZ || count == kStandbyY ? PowerMode::kStandby : PowerMode::kActive;
}

// The service's identity of a drive: "Model: <model>\tSerial Nb : <serial>".
void take_identity(const std::string& identity, DiskState& disk) {
  constexpr std::string_view kFill(" \0", 2);  // some drives have NULs there
  constexpr std::string_view kModel = "Model: ", kSerial = "\tSerial Nb : ";
  const std::size_t serial = identity.find(kSerial);
  if (serial == std::string::npos || !identity.starts_with(kModel)) return;
  disk.model = identity.substr(kModel.size(), serial - kModel.size());
  const std::string padded = identity.substr(serial + kSerial.size());
  disk.model.erase(disk.model.find_last_not_of(kFill) + 1);
  const std::size_t first = padded.find_first_not_of(kFill);
  if (first == std::string::npos) return;
  disk.serial = padded.substr(first, padded.find_last_not_of(kFill) - first + 1);
}

// Of a clock that nobody sets.
int seconds_now() {
  timespec now{};
  (void)::clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int>(now.tv_sec);
}

// Neither opening nor closing it for reading makes a disk turn.
Descriptor open_disk(const std::string& path) {
  return Descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

DiskState look_at(const std::string& path, const DiskQuestions& questions, int end) {
  DiskState disk;
  disk.path = path;
  const Descriptor device = open_disk(path);
  disk.opened = static_cast<bool>(device);
  const auto isLate = [&] { return questions.seconds > 0 && seconds_now() >= end; };
  if (!device || isLate()) return disk;
  disk.power = ask_power_mode(device.get());
  disk.answers = disk.power != PowerMode::kUnknown;
  if (disk.power == PowerMode::kStandby || isLate()) return disk;
  if (disk.power == PowerMode::kUnknown && !questions.askSilent) return disk;
  disk.asked = true;
  disk.temperature = get_smart_attr_value(device.get());
  if (!isLate() && (questions.nameAll || disk.temperature == 0)) {
    take_identity(get_identify_data(device.get()), disk);
  }
  disk.answers = disk.answers || disk.temperature != 0 || !disk.model.empty();
  return disk;
}

// Each disk once. beyondZ: how many have a name that counts as another one's.
struct Paths {
  bool listed = false;
  int beyondZ = 0;
  std::vector<std::string> paths;
};

Paths list_paths() {
  Paths list;
  std::vector<std::string> paths;
  const FilePtr partitions(std::fopen(PARTITIONS_FILE, "rb"));
  list.listed = partitions && list_disks(partitions.get(), paths);
  for (const std::string& path : paths) {
    if (std::ranges::find(list.paths, path) == list.paths.end()) {
      list.paths.push_back(path);
    } else {
      ++list.beyondZ;
    }
  }
  return list;
}

}  // namespace

PowerMode ask_power_mode(int fd) {
  AtaPassThrough16 block{};
  block.operation_code = ATA_PASS_THROUGH_16;
  block.protocol = ATA_PROTOCOL_NON_DATA;
  block.transfer = ATA_CHECK_CONDITION;
  block.command = kCheckPowerMode;
  AtaSense sense;
  if (!send_ata_block(fd, block, nullptr, sense)) return PowerMode::kUnknown;
  const unsigned char format = sense[0] & kResponseMask;
  if (format == kDescriptorFormat && sense[kDescriptor] == kAtaStatusReturn) {
    return power_mode(sense[kDescriptorStatus], sense[kDescriptorCount]);
  }
  // What the disk itself could not do is reported in the fixed format as well, with a sense key.
  constexpr std::size_t kKey = 2;
  constexpr unsigned char kKeyMask = 0x0F, kRecovered = 0x01;
  if (format == kFixedFormat && (sense[kKey] & kKeyMask) <= kRecovered) {
    return power_mode(sense[kFixedStatus], sense[kFixedCount]);
  }
  return PowerMode::kUnknown;
}

DiskList list_disk_states(const DiskQuestions& questions) {
  const int end = seconds_now() + questions.seconds;
  const Paths found = list_paths();
  DiskList list{.listed = found.listed, .beyondZ = found.beyondZ, .disks = {}};
  for (const std::string& path : found.paths) list.disks.push_back(look_at(path, questions, end));
  return list;
}

std::string why_awake() {
  const Paths found = list_paths();
  if (!found.listed) return "the list of disks cannot be read";
  if (found.paths.empty()) return "there is no disk";
  for (const std::string& path : found.paths) {
    const Descriptor device = open_disk(path);
    if (!device) return path + " cannot be opened";
    const PowerMode power = ask_power_mode(device.get());
    if (power == PowerMode::kActive) return path + " is awake";
    if (power == PowerMode::kUnknown) return path + " does not tell whether it sleeps";
  }
  return {};
}
