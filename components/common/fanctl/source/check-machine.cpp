// fanctl check: what the settings name, and what the service will meet here.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "alert-flags.h"
#include "files.h"
#include "findings.h"
#include "link-plan.h"
#include "utils.h"

namespace {

constexpr int kMillidegrees = 1000;
constexpr int kColdest = -40, kHottest = 150;

class MachineFindings {
 public:
  explicit MachineFindings(Findings& findings) : m_findings(findings) {}
  void error(std::initializer_list<TextPiece> text) {
    m_findings.push_back({"machine", true, join(text)});
  }
  void warning(std::initializer_list<TextPiece> text) {
    m_findings.push_back({"machine", false, join(text)});
  }

 private:
  Findings& m_findings;
};

// --- Paths ---

// A number that the kernel gives at boot, in the order in which drivers come up.
bool has_changing_number(const std::string& path) {
  for (std::size_t at = path.find("/hwmon"); at != std::string::npos;
       at = path.find("/hwmon", at + 1)) {
    const std::size_t digit = at + 6;
    if (digit < path.size() && path[digit] >= '0' && path[digit] <= '9') return true;
  }
  return false;
}

void check_stable(const char* key, const std::string& path, const char* instead,
                  MachineFindings& machine) {
  if (!has_changing_number(path)) return;
  machine.warning(
      {key, ": the number in ", path, " may be another one after the next boot: ", instead});
}

void check_owner(const std::string& path, MachineFindings& machine) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0 || !others_can_write(status)) return;
  machine.error({"others than root can write to ", path, ": chown root it and chmod go-w it"});
}

// --- The driver ---

// A chip that `fanctl link` could present to the service, by the word to name it with; empty when
// there is none.
std::string linkable_chip(const std::string& folder, const Machine& machine) {
  const auto usable = [](const Chip& chip) {
    return !chip.numbers("pwm", "").empty() || !chip.numbers("fan", "_target").empty();
  };
  // The configured one, by whatever path; else the first.
  const std::string wanted = folder.empty() ? "" : real_path(folder);
  const auto isWanted = [&](const Chip& chip) {
    return usable(chip) && (wanted == real_path(chip.folder) || wanted == chip.device);
  };
  auto chip = std::ranges::find_if(machine.chips, isWanted);
  if (chip == machine.chips.end()) chip = std::ranges::find_if(machine.chips, usable);
  if (chip == machine.chips.end()) return {};
  return std::ranges::count(machine.chips, chip->name, &Chip::name) == 1 ? chip->name : chip->id();
}

std::string link_advice(const std::string& folder, const Machine& machine) {
  const std::string chip = linkable_chip(folder, machine);
  if (chip.empty()) return "no chip with a PWM is there: load the module of the fan's driver";
  return join({"run fanctl link --at-boot ", chip,
               " and write fan_driver_sysfs_dir=/run/fan_controller/fan"});
}

std::string names(const std::vector<std::string_view>& list) {
  std::string text;
  for (const std::string_view name : list) text += join({text.empty() ? "" : " ", name});
  return text.empty() ? "none" : text;
}

struct Difference {
  const DriverRow* row;
  std::vector<std::string_view> missing;
  std::vector<std::string_view> tooMany;
  std::size_t size() const { return missing.size() + tooMany.size(); }
};

Difference compare(const DriverRow& row, const std::vector<std::string>& entries) {
  Difference difference{&row, {}, {}};
  for (const std::string_view name : row.attributes) {
    if (std::ranges::find(entries, name) == entries.end()) difference.missing.push_back(name);
  }
  for (const std::string& name : entries) {
    if (std::ranges::find(row.attributes, name) == row.attributes.end())
      difference.tooMany.push_back(name);
  }
  return difference;
}

void report_no_match(const std::string& folder, const Machine& machine, MachineFindings& findings) {
  std::vector<Difference> differences;
  for (const DriverRow& row : DRIVER_ROWS)
    differences.push_back(compare(row, machine.driver.entries));
  const Difference& nearest = *std::ranges::min_element(differences, {}, &Difference::size);
  findings.error({folder, " is not taken for a fan driver. Nearest is ",
                  nearest.row->kind == FAN_DRIVER_I2C ? "I2C" : "GPIO",
                  "; missing: ", names(nearest.missing), "; too many: ", names(nearest.tooMany),
                  ": ", link_advice(folder, machine)});
}

void check_writable(const std::string& path, MachineFindings& findings) {
  if (Descriptor(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC))) return;
  findings.error({"the commands' file ", path, " cannot be written (", std::strerror(errno),
                  "): run as root, and look at its mode"});
}

void check_driver(const Settings& settings, const Machine& machine, MachineFindings& findings) {
  const std::string& folder = settings.m_fanDriverSysfsDir;
  if (folder.empty()) {
    if (linkable_chip(folder, machine).empty()) return;
    findings.warning({"no fan driver is configured, but there is a chip with a fan: ",
                      link_advice(folder, machine)});
    return;
  }
  check_stable("fan_driver_sysfs_dir", folder, "run fanctl link --at-boot and name its folder",
               findings);
  if (!machine.bootProblem.empty()) {
    findings.error({BOOT_FILE, ": ", machine.bootProblem, ": run fanctl link --at-boot again"});
  }
  if (!machine.driver.opened && machine.bootFolder == folder) return;  // not made yet
  if (!machine.driver.opened) {
    findings.error({"fan_driver_sysfs_dir ", folder,
                    " is no folder that can be opened: ", link_advice(folder, machine)});
    return;
  }
  if (machine.driver.row == nullptr) return report_no_match(folder, machine, findings);
  if (is_linked_folder(folder) && machine.bootFolder != folder) {
    findings.warning({folder,
                      " ends with the service and is not made again: run fanctl link with "
                      "--at-boot: see fanctl hardware"});
  }
  check_writable(machine.driver.commandPath, findings);

  const std::string& alarm = settings.m_fanAlarmPath;
  check_stable("fan_driver_sysfs_alarm", alarm, "remove the key when the driver has fan1_alarm",
               findings);
  if (!alarm.empty() && !read_attribute(alarm)) {
    findings.warning({"fan_driver_sysfs_alarm ", alarm, " cannot be read; the service takes ",
                      machine.driver.alarmPath, ": correct the path, or remove the key"});
  }
  if (!read_attribute(machine.driver.alarmPath)) {
    findings.warning({"the alarm ", machine.driver.alarmPath,
                      " cannot be read, so a blocked fan stays unnoticed: look at its mode"});
  }
}

// --- The temperature ---

void check_sensor(const Settings& settings, const Machine& machine, MachineFindings& findings) {
  const std::string& path = settings.m_tempSensorPath;
  if (path.empty()) return;
  check_stable("temp_sensor_sysfs_entry", path,
               "let fanctl link --sensor make a path that stays, or name one without such a number",
               findings);
  if (!machine.sensorText) {
    findings.error({"temp_sensor_sysfs_entry ", path,
                    " cannot be read; the disks are measured instead: correct the path"});
    return;
  }
  const std::string& text = *machine.sensorText;
  const int value = parse_int(text.c_str());
  const int degrees = value / kMillidegrees;
  if (text.find_first_not_of("-+0123456789 ") != std::string::npos ||
      text.find_first_of("0123456789") == std::string::npos) {
    findings.error({"the sensor reads \"", text, "\", which counts as ", degrees,
                    " degrees: name a sensor that gives a whole number"});
  } else if ((value > 0 && degrees == 0) || degrees < kColdest || degrees > kHottest) {
    findings.error({"the sensor reads ", value, ", which counts as ", degrees,
                    " degrees: name a sensor that speaks thousandths of a degree"});
  }
}

bool gives_temperature(const DiskState& disk) {
  return disk.power == PowerMode::kStandby || disk.temperature != 0;
}

void check_disk(const DiskState& disk, MachineFindings& findings) {
  if (!disk.opened) {
    findings.warning({disk.path, " cannot be opened and is not measured: run as root"});
  } else if (!disk.answers) {
    findings.warning(
        {disk.path,
         " takes no ATA command and counts as 0 degrees: measure another way, by a sensor"});
  } else if (!gives_temperature(disk)) {
    findings.warning(
        {disk.path,
         " gives no temperature (SMART attribute 194) and counts as 0 degrees: use a sensor"});
  }
}

void check_disks(const Machine& machine, MachineFindings& findings) {
  const DiskList& list = machine.disks;
  const bool noSensor = !machine.sensorText.has_value();
  const bool allOpened = std::ranges::all_of(list.disks, &DiskState::opened);
  if (noSensor && allOpened && std::ranges::none_of(list.disks, gives_temperature)) {
    findings.error(
        {"there is neither a sensor nor a disk with a temperature, so the fan stays at the lowest "
         "command: name a sensor with temp_sensor_sysfs_entry"});
  }
  if (!noSensor) return;  // then no disk is measured
  for (const DiskState& disk : list.disks) check_disk(disk, findings);
  if (list.beyondZ > 0) {
    findings.warning(
        {"there are more than 26 disks; those beyond sdz are not measured: use a sensor"});
  }
}

// --- What is written ---

void check_status_file(const std::string& path, MachineFindings& findings) {
  if (path.empty()) return;
  struct stat status {};
  const std::string folder = parent_of(path);
  if (::stat(folder.c_str(), &status) != 0) {
    findings.warning(
        {"dump_info_to_file: there is no folder ", folder, ", so nothing is written: make it"});
  } else if (others_can_write(status)) {
    findings.error(
        {"dump_info_to_file: others than root can write to ", folder,
         " and have another file overwritten through a link: choose a folder such as /run"});
  }
}

void check_flag(const char* path, MachineFindings& findings) {
  struct stat status {};
  if (::lstat(path, &status) != 0) return;
  const bool isRoots = status.st_uid == 0 || status.st_uid == ::geteuid();
  if (S_ISREG(status.st_mode) && status.st_nlink == 1 && isRoots) return;
  findings.warning(
      {path, " is no plain file of root's, so the service did not make it: remove it"});
}

}  // namespace

void check_machine(const Configuration& configuration, const Machine& machine, Findings& findings) {
  MachineFindings list(findings);
  const Settings& settings = configuration.settings;
  check_owner(parent_of(configuration.settingsPath), list);
  check_owner(configuration.settingsPath, list);
  check_owner(configuration.tablePath, list);
  check_driver(settings, machine, list);
  check_sensor(settings, machine, list);
  check_disks(machine, list);
  check_status_file(settings.m_dumpInfoFile, list);
  for (const char* flag : {FAN_FAILED_FLAG, HIGH_TEMP_FLAG, CRIT_TEMP_FLAG}) check_flag(flag, list);
}
