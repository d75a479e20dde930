// fanctl link: a folder that the service takes for a fan driver, from whatever driver is there.
//
// The folder holds the ten names of the known I2C driver: links to the chip's own attributes, with
// the channel's number mapped to 1, and plain files for what the chip has not. A sub-folder, which
// the service does not count, holds what is needed to undo it all.
#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "commands.h"
#include "drivers.h"
#include "files.h"
#include "link-plan.h"
#include "settings.h"
#include "state.h"
#include "utils.h"

namespace {

constexpr char kUnfinished[] = ".new";
constexpr char kSensorFolder[] = "/sensor";
constexpr char kSensorFile[] = "/sensor/temp1_input";
constexpr mode_t kFolderMode = 0755;
constexpr int kBootPatience = 10;  // seconds for the driver's module to be loaded
constexpr int kLockPatience = 3;   // seconds for another run to end
constexpr int kRestoreAttempts = 3;
constexpr char kLockFile[] = "/.fanctl.lock";

// --- Files ---

void write_new_file(const std::string& path, const std::string& text) {
  if (const int error = write_text(path, text, O_CREAT | O_EXCL | O_NOFOLLOW)) {
    refuse({path, " cannot be written: ", std::strerror(error)});
  }
}

void make_folder(const std::string& folder) {
  if (::mkdir(folder.c_str(), kFolderMode) != 0) {
    refuse({folder, " cannot be made: ", std::strerror(errno)});
  }
}

// Whether there is nothing in a folder but the record's own folder.
bool is_empty(const std::string& folder) {
  return std::ranges::all_of(
      names_in(folder), [](const std::string& name) { return "/" + name == LINK_RECORD_FOLDER; });
}

// Removes one of our own folders, which holds files, links and the record. The record goes last: it
// tells whose the folder is, to the next run as well when this one is interrupted.
void remove_folder(const std::string& folder) {
  for (const std::string& name : names_in(folder)) {
    (void)::unlink(join({folder, "/", name}).c_str());
  }
  (void)::unlink((folder + kSensorFile).c_str());
  (void)::rmdir((folder + kSensorFolder).c_str());
  (void)::unlink((folder + LINK_RECORD).c_str());
  (void)::rmdir((folder + LINK_RECORD_FOLDER).c_str());
  (void)::rmdir(folder.c_str());
}

// --- What was linked, and how the chip was before ---

struct Record {
  std::string chip;
  std::string channel;
  std::string modePath;  ///< empty: the chip has no modes
  std::string modeBefore;
};

// Nothing else is ever written to by what a record says.
bool is_mode(const Record& record) {
  return record.modePath.starts_with("/sys/") && record.modePath.ends_with("_enable") &&
         record.modePath.find("/../") == std::string::npos &&
         record.modePath.find('\0') == std::string::npos && !record.modeBefore.empty() &&
         record.modeBefore.find_first_not_of("0123456789") == std::string::npos;
}

// Where the mode is now: a driver that was loaded again has another folder.
std::string find_mode(const Record& record) {
  if (exists(record.modePath)) return record.modePath;
  for (const Chip& chip : list_chips()) {
    if (chip.id() != record.chip) continue;
    return chip.find(record.modePath.substr(record.modePath.rfind('/') + 1));
  }
  return {};
}

bool read_record(const std::string& folder, Record& record) {
  const FilePtr file(std::fopen((folder + LINK_RECORD).c_str(), "r"));
  if (!file) return false;
  Setting line;
  while (next_setting(file.get(), line)) {
    if (line.key == "chip") record.chip = line.value;
    if (line.key == "channel") record.channel = line.value;
    if (line.key == "mode_path") record.modePath = line.value;
    if (line.key == "mode_before") record.modeBefore = line.value;
  }
  return true;
}

void write_record(const std::string& folder, const Record& record) {
  make_folder(folder + LINK_RECORD_FOLDER);
  write_new_file(
      folder + LINK_RECORD,
      join({"# For fanctl link --undo.\nchip=", record.chip, "\nchannel=", record.channel,
            "\nmode_path=", record.modePath, "\nmode_before=", record.modeBefore, "\n"}));
}

// A driver that was loaded again has another folder for the same channel.
bool is_same_mode(const Record& one, const Record& other) {
  if (one.modePath == other.modePath) return true;
  return !one.chip.empty() && one.chip == other.chip && one.channel == other.channel;
}

// Gives the chip back the mode that it had. False, with a message, when it does not take it; a chip
// that is gone has no mode.
bool restore_mode(const Record& record) {
  if (!is_mode(record)) return true;
  const std::string path = find_mode(record);
  if (path.empty() || read_attribute(path) == record.modeBefore) return true;
  int error = 0;
  for (int attempt = 0; attempt < kRestoreAttempts; ++attempt) {
    if (attempt > 0) (void)::sleep(1);
    error = write_text(path, record.modeBefore, 0);
    if (error == 0) return true;
  }
  (void)std::fprintf(stderr, "%s does not take its former mode %s: %s\n", path.c_str(),
                     record.modeBefore.c_str(), std::strerror(error));
  return false;
}

// --- The place of the folder ---

std::string without_slash(std::string folder) {
  while (folder.size() > 1 && folder.ends_with('/')) folder.pop_back();
  return folder;
}

// The folder above, in which only root may write: what lies there is believed. Two runs must not
// meet, so it is locked as long as the object lives, by a file that only root can open.
class Place {
 public:
  explicit Place(const std::string& folder)
      : m_folder(without_slash(folder)), m_lock(lock_parent()) {}

  const std::string& folder() const { return m_folder; }
  std::string unfinished() const { return m_folder + kUnfinished; }

 private:
  int lock_parent() {
    if (!m_folder.starts_with('/') || m_folder.size() < 2) {
      refuse({"--to wants a folder with its whole path: ", m_folder});
    }
    const std::string parent = parent_of(m_folder);
    const int problem = make_own_folder(parent);
    if (problem == EPERM) refuse({"others can write to ", parent, ": choose a folder of root's"});
    if (problem != 0) refuse({parent, " cannot be used: ", std::strerror(problem)});
    for (int second = 0;; ++second) {
      Descriptor file = lock_file(parent + kLockFile);
      if (file) return file.release();
      if (errno != EWOULDBLOCK) {
        refuse({parent, kLockFile, " cannot be opened: ", std::strerror(errno)});
      }
      if (second == kLockPatience) refuse({"another fanctl link is at work in ", parent});
      (void)::sleep(1);
    }
  }

  std::string m_folder;
  Descriptor m_lock;
};

[[noreturn]] void refuse_foreign(const std::string& folder) {
  refuse({folder, " was not made by fanctl link: choose another folder with --to"});
}

// Whether the folder is there; a folder that fanctl did not make is nobody's to replace.
bool find_own(const Place& place, Record& record) {
  if (!exists(place.folder())) return false;
  if (!read_record(place.folder(), record)) {
    refuse_foreign(place.folder());
  }
  return true;
}

// A run that was interrupted leaves its unfinished folder, and perhaps the chip in its new mode.
// Its record is kept until that is put right.
void clear_unfinished(const Place& place) {
  const std::string unfinished = place.unfinished();
  if (!exists(unfinished)) return;
  Record left, standing;
  const bool isRecorded = read_record(unfinished, left);
  const bool stands = read_record(place.folder(), standing);
  const bool isOther = !stands || !is_same_mode(standing, left);
  if (isRecorded && isOther && !restore_mode(left)) {
    refuse({unfinished, " stays: try again, or put ", left.chip, " into its mode by hand"});
  }
  // The record is made first and removed last: without it there is nothing else of ours.
  if (isRecorded || is_empty(unfinished)) remove_folder(unfinished);
  if (exists(unfinished)) refuse_foreign(unfinished);
}

// --- Making it ---

void make_link(const std::string& target, const std::string& path) {
  if (::symlink(target.c_str(), path.c_str()) != 0) {
    refuse({path, " cannot be made: ", std::strerror(errno)});
  }
}

void build(const std::string& folder, const Plan& plan, const Record& record) {
  make_folder(folder);
  write_record(folder, record);
  for (const auto& [name, target] : plan.links) make_link(target, join({folder, "/", name}));
  for (const auto& [name, text] : plan.files) {
    write_new_file(join({folder, "/", name}), text + "\n");
  }
  if (!plan.sensor.empty()) {  // in a sub-folder, which the service does not count
    make_folder(folder + kSensorFolder);
    make_link(plan.sensor, folder + kSensorFile);
  }
  const DirPtr directory(::opendir(folder.c_str()));
  const DriverRow* row =
      directory ? match_driver(list_readable_entries(directory.get(), folder)) : nullptr;
  if (row == nullptr || row->kind != FAN_DRIVER_I2C) {
    refuse({"the service would not recognise the folder: can all of the chip's files be read?"});
  }
}

void set_mode(const Plan& plan) {
  if (plan.modePath.empty()) return;
  const int error = write_text(plan.modePath, plan.mode, 0);
  if (error != 0) {
    refuse({plan.modePath, " does not take mode ", plan.mode, ": ", std::strerror(error)});
  }
  const auto mode = read_attribute(plan.modePath);
  if (!mode || *mode != plan.mode) {
    refuse({plan.modePath, " reads ", mode.value_or("nothing"), " after mode ", plan.mode,
            " was written: the chip does not take commands"});
  }
}

// In one step: whoever looks sees the old folder or the new one.
void put_in_place(const Place& place) {
  const std::string from = place.unfinished();
  const bool replaces = exists(place.folder());
  const int result = replaces ? ::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD,
                                            place.folder().c_str(), RENAME_EXCHANGE)
                              : ::rename(from.c_str(), place.folder().c_str());
  if (result != 0) refuse({place.folder(), " cannot be put in place: ", std::strerror(errno)});
  if (replaces) remove_folder(from);
}

// A warning: another chip that was linked before did not take its former mode back.
ExitStatus link_chip(const Choice& choice, const std::string& sensor, const std::string& folder) {
  const Place place(folder);
  clear_unfinished(place);
  Record former;
  const bool replaces = find_own(place, former);
  Plan plan = make_plan(choice);
  plan.sensor = sensor;

  Record record{choice.chip.id(), std::to_string(choice.channel), plan.modePath, ""};
  const bool sameMode = replaces && is_same_mode(former, record);
  record.modeBefore = sameMode ? former.modeBefore : read_attribute(plan.modePath).value_or("");
  try {
    build(place.unfinished(), plan, record);
    set_mode(plan);
    put_in_place(place);
  } catch (const Refusal&) {
    if (!sameMode && exists(place.unfinished())) (void)restore_mode(record);
    remove_folder(place.unfinished());
    throw;
  }
  const bool givenBack = !replaces || sameMode || restore_mode(former);

  (void)std::printf("%s: %s, channel %d", place.folder().c_str(), record.chip.c_str(),
                    choice.channel);
  if (!plan.modePath.empty()) {
    (void)std::printf(", %s (was %s)", mode_name(choice.chip.name, plan.mode).c_str(),
                      mode_name(choice.chip.name, record.modeBefore).c_str());
  }
  (void)std::printf("\nCommands are %s.\n",
                    plan.closeLoop ? "revolutions per minute" : "0 (stopped) to 255 (full power)");
  if (plan.files.contains("fan1_alarm")) {
    (void)std::printf("It has no alarm: a fan that is blocked stays unnoticed%s.\n",
                      plan.links.contains("fan1_input") ? ", unless fanctl guard runs" : "");
  }
  return givenBack ? EXIT_FINE : EXIT_WARNINGS;
}

ExitStatus undo(const std::string& folder) {
  if (!exists(without_slash(folder)) && !exists(without_slash(folder) + kUnfinished)) {
    (void)std::printf("%s is not there: nothing to undo\n", folder.c_str());
    return EXIT_FINE;
  }
  const Place place(folder);
  clear_unfinished(place);
  Record record;
  if (!find_own(place, record)) {
    (void)std::printf("%s is not there: nothing to undo\n", place.folder().c_str());
    return EXIT_FINE;
  }
  const bool isGone = is_mode(record) && find_mode(record).empty();
  // First: the folder holds what is needed for it, now or at another try.
  if (!restore_mode(record)) {
    refuse(
        {place.folder(), " stays: try again, or put the fan into the mode that you want by hand"});
  }
  remove_folder(place.folder());
  if (exists(place.folder())) refuse({place.folder(), " holds something else, so it stays"});
  (void)std::printf(
      "%s is removed, %s %s\n", place.folder().c_str(), record.chip.c_str(),
      isGone ? "is not there, so its mode was not given back" : "has its former mode");
  return EXIT_FINE;
}

// --- At boot ---

// Written beside the file, to be renamed into place once the chip is linked.
void prepare_boot_file(const std::string& beside, const BootLink& boot) {
  (void)::unlink(beside.c_str());
  std::string text = "# Made before each start of the service. Written by fanctl link --at-boot.\n";
  text += join({"chip=", boot.chip, "\nfolder=", boot.folder, "\n"});
  if (!boot.sensor.empty()) text += join({"sensor=", boot.sensor, "\n"});
  write_new_file(beside, text);
}

std::string full_name(const Choice& choice) {
  return join({choice.chip.id(), ":", choice.channel});
}

// The driver's module may still be on its way: waits for the chip for what is left of the patience.
Choice choose_patiently(const std::string& chip, int& patience) {
  for (; patience > 0; --patience) {
    try {
      return choose(chip);
    } catch (const NoSuchChip&) {
      (void)::sleep(1);
    }
  }
  return choose(chip);
}

// A fan without its sensor is better than none: the service then measures the disks.
std::string sensor_at_boot(const std::string& sensor, int& patience, ExitStatus& status) {
  if (sensor.empty()) return {};
  try {
    return sensor_path(choose_patiently(sensor, patience));
  } catch (const Refusal& refusal) {
    (void)std::fprintf(stderr, "fanctl link: the sensor is left out: %s\n", refusal.what());
    status = EXIT_WARNINGS;
    return {};
  }
}

ExitStatus link_at_boot(const std::string& path, const LinkOptions& link) {
  BootLink boot{"", link.folder, ""};
  if (!read_boot_file(path, boot)) {
    (void)std::printf("%s is not there: nothing to link\n", path.c_str());
    return EXIT_FINE;
  }
  if (boot.chip.empty()) refuse({path, " names no chip: write chip=NAME, see fanctl hardware"});
  int patience = kBootPatience;
  ExitStatus status = EXIT_FINE;
  const Choice choice = choose_patiently(boot.chip, patience);
  const std::string sensor = sensor_at_boot(boot.sensor, patience, status);
  return std::max(status, link_chip(choice, sensor, boot.folder));
}

ExitStatus link_now(const std::string& bootFile, const LinkOptions& link) {
  const Choice choice = choose(link.chip);
  const std::string folder = without_slash(link.folder);
  const std::string beside = bootFile + kUnfinished;
  BootLink boot{full_name(choice), folder, ""};
  std::string sensor;
  if (!link.sensor.empty()) {
    const Choice sensorChoice = choose(link.sensor);
    sensor = sensor_path(sensorChoice);
    boot.sensor = full_name(sensorChoice);
  }
  if (link.atBoot) prepare_boot_file(beside, boot);
  ExitStatus status = EXIT_FINE;
  try {
    status = link_chip(choice, sensor, folder);
  } catch (const Refusal&) {
    if (link.atBoot) (void)::unlink(beside.c_str());
    throw;
  }
  if (link.atBoot) {
    if (::rename(beside.c_str(), bootFile.c_str()) != 0) {
      refuse({bootFile, " cannot be written: ", std::strerror(errno)});
    }
    (void)std::printf("%s: the folder is made before each start of the service.\n",
                      bootFile.c_str());
  } else {
    (void)std::printf("The folder ends with the service. With --at-boot it is made each time.\n");
  }
  (void)std::printf(
      "Nobody controls this fan until the service has started with it. Write into\n"
      "fan_controller.conf, then type systemctl restart fan_controller:\n"
      "fan_driver_sysfs_dir=%s\n",
      folder.c_str());
  if (!sensor.empty()) {
    (void)std::printf("temp_sensor_sysfs_entry=%s%s\n", folder.c_str(), kSensorFile);
  }
  return status;
}

}  // namespace

ExitStatus run_link(const Options& options, const LinkOptions& link) {
  const std::string bootFile = join({options.configDir, "/", BOOT_FILE});
  try {
    if (link.undo) {
      BootLink boot{"", link.folder, ""};
      if (!link.folderNamed) (void)read_boot_file(bootFile, boot);
      return undo(boot.folder);
    }
    return link.chip.empty() ? link_at_boot(bootFile, link) : link_now(bootFile, link);
  } catch (const Refusal& refusal) {
    (void)std::fprintf(stderr, "fanctl link: %s\n", refusal.what());
    return EXIT_ERRORS;
  }
}
