#include "smart.h"

#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <array>
#include <cstddef>

#include "ata.h"
#include "utils.h"

namespace {

constexpr unsigned char kSmartSignatureMid = 0x4F;
constexpr unsigned char kSmartSignatureHigh = 0xC2;
constexpr int kCommandSmart = 0xB0;
constexpr int kCommandIdentifyDevice = 0xEC;
constexpr int kFeatureNone = 0;
constexpr int kFeatureSmartReadData = 0xD0;
constexpr int kFeatureSmartEnable = 0xD8;

constexpr unsigned int kTimeoutMs = 20000;
using Sector = std::array<unsigned char, ATA_SECTOR_SIZE>;

// SMART READ DATA: the attribute table follows the two bytes of the structure revision.
constexpr std::size_t kAttributeTable = 2;
constexpr std::size_t kAttributeCount = 30;
constexpr std::size_t kAttributeSize = 12;
constexpr std::size_t kAttributeRaw = 5;
constexpr unsigned char kAttributeTemperature = 194;

// IDENTIFY DEVICE: 16-bit words.
constexpr std::size_t kSerialWord = 10;
constexpr std::size_t kSerialWords = 10;
constexpr std::size_t kModelWord = 27;
constexpr std::size_t kModelWords = 20;

int ata_command_into(int fd, int command, int feature, Sector& sector) {
  return do_ata_command(fd, command, feature, reinterpret_cast<char*>(sector.data()));
}

// An ATA string holds two characters a word, the first in the high byte, and words arrive low byte
// first. Taken byte by byte, so the processor's own byte order does not come into it.
std::string ata_string(const Sector& identity, std::size_t firstWord, std::size_t words) {
  std::string text;
  text.reserve(2 * words);
  for (std::size_t word = firstWord; word < firstWord + words; ++word) {
    text += static_cast<char>(identity[2 * word + 1]);
    text += static_cast<char>(identity[2 * word]);
  }
  return text;
}

}  // namespace

bool send_ata_block(int fd, const AtaPassThrough16& block, void* buffer, AtaSense& sense) {
  const bool withData = buffer != nullptr;
  AtaPassThrough16 command = block;  // the kernel's header wants it writable
  sense = {};
  sg_io_hdr header{};
  header.interface_id = 'S';
  header.dxfer_direction = withData ? SG_DXFER_FROM_DEV : SG_DXFER_NONE;
  header.cmd_len = sizeof command;
  header.mx_sb_len = ATA_SENSE_SIZE;
  header.dxfer_len = withData ? ATA_SECTOR_SIZE : 0;
  header.dxferp = buffer;
  header.cmdp = &command.operation_code;
  header.sbp = sense.data();
  header.timeout = kTimeoutMs;
  return ::ioctl(fd, SG_IO, &header) >= 0;
}

int do_ata_command(int fd, int command, int feature, char* buffer) {
  const bool withData = buffer != nullptr;
  AtaPassThrough16 block{};
  block.operation_code = ATA_PASS_THROUGH_16;
  block.protocol = withData ? ATA_PROTOCOL_PIO_DATA_IN : ATA_PROTOCOL_NON_DATA;
  block.transfer = ATA_FROM_DEVICE | ATA_IN_BLOCKS | (withData ? ATA_LENGTH_IN_SECTOR_COUNT : 0);
  block.features = static_cast<unsigned char>(feature);
  block.sector_count = withData ? 1 : 0;
  block.lba_mid = kSmartSignatureMid;
  block.lba_high = kSmartSignatureHigh;
  block.command = static_cast<unsigned char>(command);

  AtaSense sense;
  if (send_ata_block(fd, block, buffer, sense)) return 1;
  write_trace("IOCTL error\n");
  return 0;
}

int get_smart_attr_value(int fd) {
  Sector data{};
  (void)ata_command_into(fd, kCommandSmart, kFeatureSmartReadData, data);
  for (std::size_t slot = 0; slot < kAttributeCount; ++slot) {
    const std::size_t attribute = kAttributeTable + slot * kAttributeSize;
    if (data[attribute] == kAttributeTemperature) return data[attribute + kAttributeRaw];
  }
  return 0;
}

int unable_smart_feature(int fd) {
  return do_ata_command(fd, kCommandSmart, kFeatureSmartEnable, nullptr) != 0 ? 1 : 0;
}

std::string get_identify_data(int fd) {
  // Blanks, as drives pad the fields, stay when the ioctl fails: NULs would end the status file.
  Sector identity;
  identity.fill(' ');
  (void)ata_command_into(fd, kCommandIdentifyDevice, kFeatureNone, identity);
  std::string model = ata_string(identity, kModelWord, kModelWords);
  std::erase(model, ' ');
  const std::string serial = ata_string(identity, kSerialWord, kSerialWords);
  return join({"Model: ", model, "\tSerial Nb : ", serial});
}
