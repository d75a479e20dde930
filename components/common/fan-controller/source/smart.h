// ATA SMART access to a disk: commands of the ATA/ATAPI command set in ATA PASS-THROUGH (16)
// command blocks (SCSI/ATA Translation, SAT), carried by the kernel's SG_IO ioctl. Descriptors are
// opened and closed by the caller.
#pragma once

#include <string>

/// Sends one ATA command with the SMART signature to an open block device and, exactly when a
/// buffer is given, receives one sector of 512 bytes into it. 1 when the ioctl was accepted, 0 when
/// it failed. A command that the drive itself rejects counts as accepted. Blocks for 20 seconds at
/// most.
int do_ata_command(int fd, int command, int feature, char* buffer);

/// The drive's temperature in degrees Celsius, 0 to 255: lowest raw byte of attribute 194 in SMART
/// READ DATA, where makers of disks agree to keep it though the standard leaves it to them.
/// 0 when the drive has no such attribute or did not answer.
int get_smart_attr_value(int fd);

/// SMART ENABLE OPERATIONS. 1 when the command was accepted, else 0.
int unable_smart_feature(int fd);

/// "Model: <model without blanks>\tSerial Nb : <20 characters>" from IDENTIFY DEVICE. The fields
/// are taken whole, NUL characters included; they are blank when the ioctl fails.
std::string get_identify_data(int fd);
