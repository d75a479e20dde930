// Disks behind SG_IO, the Linux SCSI generic interface (version 3 header, scsi/sg.h).
//
// A disk is a text file whose first line is `# disk`; lines of `name=value` follow:
//   model, serial          text, padded with blanks
//   model_hex, serial_hex  the bytes of the text in hex, padded with NUL
//   temperature            degrees Celsius, as attribute 194 in the first free slot
//   slotN                  SMART attribute entry N (0 to 29), 12 bytes in hex
//   smart_file             file of the 512 bytes that SMART READ DATA returns; a relative path
//                         begins at the root folder
//   power                  standby, idle or active (the default), as CHECK POWER MODE tells it; a
//                          disk in standby that gets another command is noted as `woken` in the
//                          journal and sleeps on
//   sense                  fixed: CHECK POWER MODE is answered in the fixed format of sense data
//   fails                  ioctl: the system call fails; reject: the disk refuses every command
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "simulation.h"

namespace appliance {
namespace {

constexpr std::string_view kDiskMark = "# disk\n";
constexpr std::size_t kDiskFileMax = std::size_t{16} * 1024;
constexpr int kHex = 16;
constexpr int kDecimal = 10;

// ATA: one sector, 256 words stored low byte first.
constexpr std::size_t kSectorSize = 512;
using Sector = std::array<unsigned char, kSectorSize>;

// ATA/ATAPI command set, IDENTIFY DEVICE: serial number in words 10-19, model in words 27-46.
constexpr std::size_t kSerialOffset = 20;
constexpr std::size_t kSerialSize = 20;
constexpr std::size_t kModelOffset = 54;
constexpr std::size_t kModelSize = 40;

// SMART READ DATA: revision, attribute entries, and a last byte that makes the sum of all zero.
constexpr unsigned char kSmartRevision = 0x10;  // 0x0010, low byte first
constexpr std::size_t kAttributesOffset = 2;
constexpr std::size_t kAttributeSize = 12;
constexpr std::size_t kAttributeCount = 30;
constexpr unsigned char kTemperatureId = 194;
// The entry of attribute 194: id, flags (low byte first), value, worst, six raw bytes, reserved.
constexpr unsigned char kTemperatureEntry[kAttributeSize] = {kTemperatureId, 0x22, 0, 100, 100};
constexpr std::size_t kRawOffset = 5;

// ATA PASS-THROUGH (16) of SAT, the command block byte by byte.
constexpr std::size_t kBlockSize = 16;
enum Field : std::size_t {
  kOperation,
  kProtocol,  // multiple count (7:5), protocol (4:1), extend (0)
  kTransfer,  // off-line (7:6), CK_COND, T_TYPE, T_DIR, BYT_BLOK, T_LENGTH (1:0)
  kFeaturesHigh,
  kFeatures,
  kCountHigh,
  kCount,
  kLbaLowHigh,
  kLbaLow,
  kLbaMidHigh,
  kLbaMid,
  kLbaHighHigh,
  kLbaHigh,
  kDevice,
  kCommand,
  kControl,
};
constexpr unsigned char kAtaPassThrough16 = 0x85;
constexpr unsigned char kNonData = 3 << 1;
constexpr unsigned char kPioDataIn = 4 << 1;
constexpr unsigned char kFromDevice = 0x08;
constexpr unsigned char kInBlocks = 0x04;
constexpr unsigned char kLengthMask = 0x03;
constexpr unsigned char kLengthInCount = 0x02;
constexpr unsigned char kCheckAlways = 0x20;  // CK_COND: registers are told after success too

constexpr unsigned char kSmart = 0xb0;
constexpr unsigned char kSmartReadData = 0xd0;
constexpr unsigned char kSmartEnableOperations = 0xd8;
constexpr unsigned char kSmartLbaMid = 0x4f;
constexpr unsigned char kSmartLbaHigh = 0xc2;
constexpr unsigned char kIdentifyDevice = 0xec;
constexpr unsigned char kCheckPowerMode = 0xe5;

// The count register after CHECK POWER MODE.
constexpr unsigned char kStandby = 0x00;
constexpr unsigned char kIdle = 0x80;
constexpr unsigned char kActive = 0xff;

// SCSI status and fixed format sense data.
constexpr unsigned char kCheckCondition = 0x02;
constexpr unsigned short kDriverSense = 0x08;
constexpr std::size_t kSenseSize = 18;
constexpr unsigned char kFixedFormat = 0x70;
constexpr std::size_t kSenseKeyOffset = 2;
constexpr std::size_t kAdditionalLengthOffset = 7;
constexpr unsigned char kAdditionalLength = 10;
constexpr std::size_t kSenseCodeOffset = 12;
struct Sense {
  unsigned char key;
  unsigned char code;
};
constexpr Sense kInvalidField{0x05, 0x24};  // illegal request, invalid field in command block
constexpr Sense kAborted{0x0b, 0x00};       // aborted command

// What SAT tells of the registers, in either format: "recovered error", "ATA pass-through
// information available", then the count and status registers.
constexpr unsigned char kReady = 0x50;  // status: ready, seek complete
constexpr unsigned char kRecovered = 0x01;
constexpr unsigned char kInformation = 0x1d;
constexpr std::size_t kDescriptorSenseSize = 22;
using Registers = std::array<unsigned char, kDescriptorSenseSize>;

Registers inDescriptorFormat(unsigned char count) {
  return {0x72, kRecovered, 0, kInformation, 0, 0, 0, 14, 0x09, 12, 0, 0, 0, count, 0, 0, 0, 0,
          0,    0,          0, kReady};
}

Registers inFixedFormat(unsigned char count) {
  return {kFixedFormat,      0, kRecovered, 0, kReady, 0, count,
          kAdditionalLength, 0, 0,          0, 0,      0, kInformation};
}

enum class Failure { kNone, kIoctl, kReject };

struct Disk {
  Sector identity{};
  Sector smart{};
  Failure failure = Failure::kNone;
  unsigned char power = kActive;
  bool fixedFormat = false;
};

// Text to bytes; false for an odd digit or what is no digit.
bool fromHex(std::string_view text, std::string& bytes) {
  if (text.size() % 2 != 0) return false;
  for (; !text.empty(); text.remove_prefix(2)) {
    const std::string pair(text.substr(0, 2));
    char* end = nullptr;
    const auto byte = std::strtoul(pair.c_str(), &end, kHex);
    if (*end != '\0') return false;
    bytes.push_back(static_cast<char>(byte));
  }
  return true;
}

// An ATA string: the first character of each pair lies in the high byte of its word.
void putString(Sector& sector, std::size_t offset, std::string text, std::size_t size, char pad) {
  text.resize(size, pad);
  for (std::size_t i = 0; i < size; ++i) {
    sector[offset + (i ^ 1)] = static_cast<unsigned char>(text[i]);
  }
}

bool putSlot(Sector& smart, std::string_view number, std::string_view hex) {
  const auto slot = std::strtoul(std::string(number).c_str(), nullptr, kDecimal);
  std::string bytes;
  if (number.empty() || slot >= kAttributeCount || !fromHex(hex, bytes)) return false;
  if (bytes.size() != kAttributeSize) return false;
  std::memcpy(&smart[kAttributesOffset + slot * kAttributeSize], bytes.data(), kAttributeSize);
  return true;
}

void putTemperature(Sector& smart, const std::string& text) {
  for (std::size_t slot = 0; slot < kAttributeCount; ++slot) {
    unsigned char* const entry = &smart[kAttributesOffset + slot * kAttributeSize];
    if (entry[0] != 0) continue;
    std::copy(std::begin(kTemperatureEntry), std::end(kTemperatureEntry), entry);
    entry[kRawOffset] = static_cast<unsigned char>(std::strtol(text.c_str(), nullptr, kDecimal));
    return;
  }
}

void putChecksum(Sector& smart) {
  unsigned int sum = 0;
  for (std::size_t i = 0; i + 1 < kSectorSize; ++i) sum += smart[i];
  smart[kSectorSize - 1] = static_cast<unsigned char>(0U - sum);
}

// One line of the disk's file other than temperature and smart_file; false when not understood.
bool putKey(Disk& disk, const std::string& name, const std::string& value) {
  std::string bytes;
  if (name == "model") {
    putString(disk.identity, kModelOffset, value, kModelSize, ' ');
  } else if (name == "serial") {
    putString(disk.identity, kSerialOffset, value, kSerialSize, ' ');
  } else if (name == "model_hex" && fromHex(value, bytes)) {
    putString(disk.identity, kModelOffset, bytes, kModelSize, '\0');
  } else if (name == "serial_hex" && fromHex(value, bytes)) {
    putString(disk.identity, kSerialOffset, bytes, kSerialSize, '\0');
  } else if (name.starts_with("slot")) {
    return putSlot(disk.smart, std::string_view(name).substr(4), value);
  } else if (name == "power" && value == "standby") {
    disk.power = kStandby;
  } else if (name == "power" && value == "idle") {
    disk.power = kIdle;
  } else if (name == "power" && value == "active") {
    disk.power = kActive;
  } else if (name == "sense" && value == "fixed") {
    disk.fixedFormat = true;
  } else if (name == "fails" && value == "ioctl") {
    disk.failure = Failure::kIoctl;
  } else if (name == "fails" && value == "reject") {
    disk.failure = Failure::kReject;
  } else {
    return false;
  }
  return true;
}

Disk parseDisk(const std::string& text) {
  Disk disk;
  putString(disk.identity, kModelOffset, "", kModelSize, ' ');
  putString(disk.identity, kSerialOffset, "", kSerialSize, ' ');
  disk.smart[0] = kSmartRevision;
  std::string temperature;
  std::string smartFile;
  for (std::string_view rest = text; !rest.empty();) {
    const std::string_view line = cut(rest, '\n');
    if (line.empty() || line[0] == '#') continue;
    std::string_view tail = line;
    const std::string name(cut(tail, '='));
    const std::string value(tail);
    if (name == "temperature") {
      temperature = value;
    } else if (name == "smart_file") {
      smartFile = value;
    } else if (!putKey(disk, name, value)) {
      record("disk", "not understood: %s", std::string(line).c_str());
    }
  }
  if (!temperature.empty()) putTemperature(disk.smart, temperature);
  putChecksum(disk.smart);
  if (!smartFile.empty()) {
    const std::string raw =
        readFile(smartFile.starts_with('/') ? smartFile : std::string(root()) + '/' + smartFile,
                 kSectorSize);
    if (raw.size() != kSectorSize) record("disk", "not 512 bytes: %s", smartFile.c_str());
    disk.smart.fill(0);
    std::copy(raw.begin(), raw.end(), disk.smart.begin());
  }
  return disk;
}

// What the kernel refuses in the header, or nullptr.
const char* headerFault(const sg_io_hdr& header) {
  if (header.interface_id != 'S') return "interface_id";
  if (header.cmd_len != kBlockSize) return "cmd_len";
  if (header.cmdp == nullptr) return "cmdp";
  if (header.sbp == nullptr) return "sbp";
  if (header.mx_sb_len < kSenseSize) return "mx_sb_len";
  if (header.timeout == 0) return "timeout";
  if (header.iovec_count != 0 || header.flags != 0 || header.pack_id != 0 ||
      header.usr_ptr != nullptr) {
    return "unused field";
  }
  switch (header.dxfer_direction) {
    case SG_DXFER_FROM_DEV:
      if (header.dxfer_len != kSectorSize) return "dxfer_len";
      return header.dxferp == nullptr ? "dxferp" : nullptr;
    case SG_DXFER_NONE:
      return header.dxfer_len == 0 ? nullptr : "dxfer_len";
    default:
      return "dxfer_direction";
  }
}

// What the disk itself refuses, or nullptr.
const char* commandFault(const unsigned char* block, bool withData) {
  switch (block[kCommand]) {
    case kSmart:
      if (block[kLbaMid] != kSmartLbaMid || block[kLbaHigh] != kSmartLbaHigh) return "signature";
      if (block[kFeatures] == kSmartReadData) return withData ? nullptr : "protocol";
      if (block[kFeatures] == kSmartEnableOperations) return withData ? "protocol" : nullptr;
      return "feature";
    case kIdentifyDevice:
      if (block[kFeatures] != 0) return "feature";
      return withData ? nullptr : "protocol";
    case kCheckPowerMode:
      if (block[kFeatures] != 0) return "feature";
      return withData ? "protocol" : nullptr;
    default:
      return "command";
  }
}

// What the translation layer (SAT) refuses in the command block, or nullptr.
const char* blockFault(const unsigned char* block, int direction) {
  if (block[kOperation] != kAtaPassThrough16) return "operation code";
  for (const auto field : {kFeaturesHigh, kCountHigh, kLbaLowHigh, kLbaMidHigh, kLbaHighHigh}) {
    if (block[field] != 0) return "high-order byte";
  }
  if (block[kLbaLow] != 0 || block[kDevice] != 0 || block[kControl] != 0) return "unused byte";
  const int flags = kFromDevice | kInBlocks | kLengthMask |
                    (block[kCommand] == kCheckPowerMode ? kCheckAlways : 0);
  if ((block[kTransfer] & ~flags) != 0) return "transfer flags";

  const bool withData = block[kProtocol] == kPioDataIn;
  if (!withData && block[kProtocol] != kNonData) return "protocol";
  if (withData != (direction == SG_DXFER_FROM_DEV)) return "direction";
  if (withData) {
    if (block[kTransfer] != (kFromDevice | kInBlocks | kLengthInCount)) return "transfer flags";
    if (block[kCount] != 1) return "sector count";
  } else {
    // SAT ignores T_DIR and BYT_BLOK where T_LENGTH is zero.
    if ((block[kTransfer] & kLengthMask) != 0) return "transfer flags";
    if (block[kCount] != 0) return "sector count";
  }
  return commandFault(block, withData);
}

void checkCondition(sg_io_hdr& header, const unsigned char* sense, std::size_t size) {
  const std::size_t length = std::min<std::size_t>(size, header.mx_sb_len);
  std::memcpy(header.sbp, sense, length);
  header.sb_len_wr = static_cast<unsigned char>(length);
  header.status = kCheckCondition;
  header.masked_status = kCheckCondition >> 1;
  header.driver_status = kDriverSense;
  header.info = SG_INFO_CHECK;
  header.resid = static_cast<int>(header.dxfer_len);
}

void fail(sg_io_hdr& header, const Sense& sense) {
  unsigned char data[kSenseSize] = {kFixedFormat};
  data[kSenseKeyOffset] = sense.key;
  data[kAdditionalLengthOffset] = kAdditionalLength;
  data[kSenseCodeOffset] = sense.code;
  checkCondition(header, data, sizeof data);
}

void succeed(sg_io_hdr& header, const Disk& disk) {
  if ((header.cmdp[kTransfer] & kCheckAlways) != 0) {
    const auto sense =
        disk.fixedFormat ? inFixedFormat(disk.power) : inDescriptorFormat(disk.power);
    checkCondition(header, sense.data(), disk.fixedFormat ? kSenseSize : sense.size());
  }
  if (header.dxfer_direction != SG_DXFER_FROM_DEV) return;
  const bool identify = header.cmdp[kCommand] == kIdentifyDevice;
  const Sector& data = identify ? disk.identity : disk.smart;
  std::memcpy(header.dxferp, data.data(), data.size());
}

std::string nodeName(int descriptor) {
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  PathBuffer target;
  const ssize_t length = readlink(link.c_str(), target, sizeof target);
  if (length < 0) return "?";
  const std::string path(target, static_cast<std::size_t>(length));
  return path.substr(path.rfind('/') + 1);
}

std::string blockText(const sg_io_hdr& header) {
  if (header.cmdp == nullptr || header.cmd_len != kBlockSize) return "-";
  std::string text;
  char digits[3];
  for (std::size_t i = 0; i < kBlockSize; ++i) {
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(header.cmdp[i]));
    text += digits;
  }
  return text;
}

void recordCall(int descriptor, const sg_io_hdr& header, const std::string& outcome) {
  record("sg_io", "%s %s dir=%d len=%u sense=%u timeout=%u %s", nodeName(descriptor).c_str(),
         blockText(header).c_str(), header.dxfer_direction, header.dxfer_len,
         static_cast<unsigned>(header.mx_sb_len), header.timeout, outcome.c_str());
}

int execute(int descriptor, const Disk& disk, sg_io_hdr& header) {
  if (const char* const fault = headerFault(header)) {
    recordCall(descriptor, header, std::string("invalid: ") + fault);
    errno = header.interface_id == 'S' ? EINVAL : ENOSYS;
    return -1;
  }
  if (disk.failure == Failure::kIoctl) {
    recordCall(descriptor, header, "fails");
    errno = EIO;
    return -1;
  }

  header.status = header.masked_status = header.msg_status = header.sb_len_wr = 0;
  header.host_status = header.driver_status = 0;
  header.resid = 0;
  header.duration = header.info = 0;
  if (const char* const fault = blockFault(header.cmdp, header.dxfer_direction)) {
    recordCall(descriptor, header, std::string("invalid: ") + fault);
    fail(header, kInvalidField);
  } else if (disk.failure == Failure::kReject) {
    recordCall(descriptor, header, "rejected");
    fail(header, kAborted);
  } else {
    recordCall(descriptor, header, "ok");
    if (disk.power == kStandby && header.cmdp[kCommand] != kCheckPowerMode) {
      record("woken", "%s", nodeName(descriptor).c_str());
    }
    succeed(header, disk);
  }
  return 0;
}

// The text of the disk behind a descriptor; empty when there is no simulated disk.
std::string diskText(int descriptor) {
  std::string text(kDiskMark.size(), '\0');
  if (pread(descriptor, text.data(), text.size(), 0) != static_cast<ssize_t>(text.size()) ||
      text != kDiskMark) {
    return {};
  }
  text.resize(kDiskFileMax);
  const ssize_t count = pread(descriptor, text.data(), text.size(), 0);
  text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return text;
}

}  // namespace
}  // namespace appliance

namespace {

using Ioctl = int(int, unsigned long, ...);

int simulatedIoctl(Ioctl* real, int descriptor, unsigned long request, void* argument) {
  if (request != SG_IO || argument == nullptr || appliance::root() == nullptr) {
    return real(descriptor, request, argument);
  }
  const int cause = errno;
  const std::string text = appliance::diskText(descriptor);
  errno = cause;
  if (text.empty()) return real(descriptor, request, argument);
  return appliance::execute(descriptor, appliance::parseDisk(text),
                            *static_cast<sg_io_hdr*>(argument));
}

}  // namespace

// Every request of interest has one argument, a pointer; for the others it is handed on as it is.
APPLIANCE_INTERPOSED int ioctl(int descriptor, unsigned long request, ...) noexcept {
  static auto* const real = appliance::next<Ioctl>("ioctl");
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return simulatedIoctl(real, descriptor, request, argument);
}

// What programs with 64-bit time call on a 32-bit machine.
#if __TIMESIZE == 32
APPLIANCE_INTERPOSED int __ioctl_time64(int descriptor, unsigned long request, ...) noexcept {
  static auto* const real = appliance::next<Ioctl>("__ioctl_time64");
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  return simulatedIoctl(real, descriptor, request, argument);
}
#endif
