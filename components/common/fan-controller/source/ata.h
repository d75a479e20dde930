// ATA commands in ATA PASS-THROUGH (16) command blocks (SCSI/ATA Translation, SAT), carried to a
// disk by the kernel's SG_IO ioctl.
#pragma once

#include <array>
#include <cstddef>

/// The command block, field by field as SAT lays it out. "ext" holds bits 15:8, which only 48-bit
/// commands use.
struct AtaPassThrough16 {
  unsigned char operation_code;
  unsigned char protocol;  // bits 4-1
  unsigned char transfer;  // CK_COND, T_DIR, BYT_BLOK, T_LENGTH
  unsigned char features_ext;
  unsigned char features;
  unsigned char sector_count_ext;
  unsigned char sector_count;
  unsigned char lba_low_ext;
  unsigned char lba_low;
  unsigned char lba_mid_ext;
  unsigned char lba_mid;
  unsigned char lba_high_ext;
  unsigned char lba_high;
  unsigned char device;
  unsigned char command;
  unsigned char control;
};
inline constexpr std::size_t ATA_BLOCK_SIZE = 16;
static_assert(sizeof(AtaPassThrough16) == ATA_BLOCK_SIZE);

inline constexpr unsigned char ATA_PASS_THROUGH_16 = 0x85;
inline constexpr unsigned char ATA_PROTOCOL_NON_DATA = 3 << 1;
inline constexpr unsigned char ATA_PROTOCOL_PIO_DATA_IN = 4 << 1;
inline constexpr unsigned char ATA_CHECK_CONDITION = 1 << 5;
inline constexpr unsigned char ATA_FROM_DEVICE = 1 << 3;
inline constexpr unsigned char ATA_IN_BLOCKS = 1 << 2;
inline constexpr unsigned char ATA_LENGTH_IN_SECTOR_COUNT = 2;

inline constexpr std::size_t ATA_SECTOR_SIZE = 512;
inline constexpr std::size_t ATA_SENSE_SIZE = 32;
using AtaSense = std::array<unsigned char, ATA_SENSE_SIZE>;

/// Sends one command block to an open disk and, exactly when a buffer is given, receives one sector
/// of 512 bytes into it. sense: what the disk has to say about the command, zero where it says
/// nothing. False when the ioctl failed. Blocks for 20 seconds at most.
bool send_ata_block(int fd, const AtaPassThrough16& block, void* buffer, AtaSense& sense);
