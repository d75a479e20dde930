// The disks as the service would measure them, without waking those that sleep.
#pragma once

#include <string>
#include <vector>

/// What a disk answers to CHECK POWER MODE (ATA/ATAPI command set), which wakes none.
enum class PowerMode {
  kUnknown,  ///< no answer, or one that says nothing of it
  kActive,   ///< turning: active or idle
  kStandby,  ///< not turning; SMART commands would make it turn
};

/// Asks an open disk. Blocks for 20 seconds at most.
PowerMode ask_power_mode(int fd);

/// One disk of /proc/partitions.
struct DiskState {
  std::string path;
  bool opened = false;
  bool answers = false;  ///< it takes ATA commands
  bool asked = false;    ///< for temperature and identity
  PowerMode power = PowerMode::kUnknown;
  int temperature = 0;  ///< degrees Celsius; 0, as for the service, when the disk gives none
  std::string model;    ///< empty while the disk sleeps
  std::string serial;
};

/// How disks are asked.
struct DiskQuestions {
  bool askSilent = true;  ///< a disk that does not tell its power mode, too; it may be woken
  bool nameAll = true;    ///< else only disks without a temperature are asked who they are
  int seconds = 0;  ///< after which no further disk is asked, as if it told nothing; 0: no end
};

/// All disks that the service would measure, each once. A disk in standby is asked for nothing but
/// its power mode. listed: whether the list of partitions could be read; beyondZ: how many disks
/// have a name that the service takes for another disk's (sdaa and on).
struct DiskList {
  bool listed = false;
  int beyondZ = 0;
  std::vector<DiskState> disks = {};
};
DiskList list_disk_states(const DiskQuestions& questions = {});

/// Says why not all disks sleep, as in "/dev/sda is awake"; empty when they do. A disk that tells
/// nothing counts as awake, and so do disks that are not listed. Asks for nothing but the power
/// mode, up to the first disk that is awake.
std::string why_awake();
