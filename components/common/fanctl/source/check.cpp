// fanctl check: what the service will do with this configuration on this machine.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "alert-flags.h"
#include "commands.h"
#include "files.h"
#include "findings.h"
#include "guard.h"
#include "link-plan.h"
#include "service-process.h"
#include "terminal.h"
#include "utils.h"

namespace {

using Json = nlohmann::ordered_json;

// The folder that is made before the service starts.
void look_at_boot_link(const std::string& configDir, Machine& machine) {
  BootLink boot{"", "/run/fan_controller/fan", ""};
  try {
    if (!read_boot_file(join({configDir, "/", BOOT_FILE}), boot)) return;
    machine.bootFolder = boot.folder;
    if (boot.chip.empty()) refuse({"it names no chip"});
    const Choice choice = choose(boot.chip);
    if (::geteuid() == 0) (void)make_plan(choice);  // others may not write to the chip
  } catch (const Refusal& refusal) {
    machine.bootProblem = refusal.what();
  }
}

Machine look_at_machine(const std::string& configDir, const Settings& settings) {
  Machine machine;
  look_at_boot_link(configDir, machine);
  machine.chips = list_chips();
  machine.disks = list_disk_states();
  machine.driver = find_driver(settings);
  machine.sensorText = read_attribute(settings.m_tempSensorPath);
  return machine;
}

// --- The summary: rows of a name and a text ---

using Summary = std::vector<std::pair<std::string, std::string>>;

std::string driver_text(const Settings& settings, const Machine& machine) {
  const Driver& driver = machine.driver;
  if (!driver.opened && !machine.bootFolder.empty() &&
      machine.bootFolder == settings.m_fanDriverSysfsDir) {
    return machine.bootFolder + ", made by fanctl link before the service starts";
  }
  if (driver.row == nullptr) return "none: no fan is controlled, temperatures are reported";
  const char* kind = driver.row->kind == FAN_DRIVER_I2C ? "I2C" : "GPIO";
  std::string mode;
  if (driver.closeLoop) mode = *driver.closeLoop ? ", close-loop" : ", open-loop";
  return join({kind, mode, ", in ", settings.m_fanDriverSysfsDir});
}

std::string alarm_text(const Settings& settings, const Driver& driver) {
  if (real_path(driver.alarmPath).starts_with("/sys/")) return "from " + driver.alarmPath;
  if (lacks_alarm(settings.m_fanDriverSysfsDir) && settings.m_fanAlarmPath.empty()) {
    return driver.alarmPath + ", kept by fanctl guard: a blocked fan stays unnoticed without it";
  }
  return driver.alarmPath + ", not the driver's own: a blocked fan may stay unnoticed";
}

std::string temperature_text(const Settings& settings, const Machine& machine) {
  if (machine.sensorText) {
    return join({parse_int(machine.sensorText->c_str()) / 1000, " C now, from ",
                 settings.m_tempSensorPath});
  }
  const auto& disks = machine.disks.disks;
  const auto hottest = std::ranges::max_element(disks, {}, &DiskState::temperature);
  if (hottest == disks.end()) return "0 C: there is no disk";
  const auto asleep = std::ranges::count(disks, PowerMode::kStandby, &DiskState::power);
  const std::string sleepers = asleep > 0 ? join({" (", asleep, " asleep and not asked)"}) : "";
  if (hottest->temperature == 0 && asleep > 0) return "not known now" + sleepers;
  return join(
      {hottest->temperature, " C now, from the hottest of ", disks.size(), " disks", sleepers});
}

std::string table_text(const CommandTable& table) {
  std::string text;
  for (const auto& [temperature, command] : table) {
    text += join({text.empty() ? "" : " ", temperature, "=", command});
  }
  return text.empty() ? "empty" : text;
}

Summary summarise(const Configuration& configuration, const Machine& machine) {
  const Settings& settings = configuration.settings;
  const int level = alert_level(configuration.table);
  Summary rows = {{"driver", driver_text(settings, machine)}};
  if (!configuration.hasSettings || !configuration.hasTable) {
    rows.insert(rows.begin(),
                {"start", "waits for the missing file, asks again every 300 seconds"});
  }
  if (machine.driver.row != nullptr) {
    rows.push_back({"command", "to " + machine.driver.commandPath});
    rows.push_back({"alarm", alarm_text(settings, machine.driver)});
  }
  rows.push_back({"temperature", temperature_text(settings, machine)});
  if (configuration.hasTable) {
    rows.push_back(
        {"table", join({table_text(configuration.table),
                        settings.m_useHysteresis ? ", by hysteresis" : ", by the nearest step"})});
    const int critical = settings.m_hddCriticalTemp;
    rows.push_back(
        {"alerts", critical > level
                       ? join({"high above ", level, " C, critical above ", critical, " C"})
                       : join({"critical above ", level, " C, high never"})});
  }
  rows.push_back({"period", settings.m_periodInSec > 0 ? join({settings.m_periodInSec, " seconds"})
                                                       : "none: no pause"});
  rows.push_back(
      {"writes", join({"/var/run/fan_controller.pid, flags in /var/tmp",
                       settings.m_dumpInfoFile.empty() ? "" : ", ", settings.m_dumpInfoFile})});
  if (settings.m_pidFile != Settings().m_pidFile) {
    rows.push_back({"removes", settings.m_pidFile + " when it ends"});
  }
  const pid_t process = look_at_service(settings.m_pidFile).process;
  rows.push_back({"service", process == 0 ? "does not run" : join({"runs as process ", process})});
  return rows;
}

// --- Output ---

void print(const Findings& findings, const Summary& summary) {
  for (const Finding& finding : findings) {
    (void)std::printf("%s: %s %s\n", printable(finding.place).c_str(),
                      finding.isError ? red("error:").c_str() : yellow("warning:").c_str(),
                      printable(finding.text).c_str());
  }
  if (!findings.empty()) (void)std::printf("\n");
  for (const auto& [name, text] : summary) {
    (void)std::printf("%s%s\n", bold(padded(name, 13)).c_str(), printable(text).c_str());
  }
}

void print_json(const Findings& findings, const Summary& summary) {
  Json json = {{"findings", Json::array()}, {"summary", Json::object()}};
  for (const Finding& finding : findings) {
    json["findings"].push_back({{"place", finding.place},
                                {"kind", finding.isError ? "error" : "warning"},
                                {"text", finding.text}});
  }
  for (const auto& [name, text] : summary) json["summary"][name] = text;
  (void)std::printf("%s\n", json.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

}  // namespace

ExitStatus run_check(const Options& options) {
  const Configuration configuration = read_configuration(options.configDir);
  const Machine machine = look_at_machine(options.configDir, configuration.settings);
  Findings findings;
  check_files(configuration, machine.driver, findings);
  check_machine(configuration, machine, findings);
  const Summary summary = summarise(configuration, machine);
  if (options.json) {
    print_json(findings, summary);
  } else {
    print(findings, summary);
  }
  if (std::ranges::any_of(findings, &Finding::isError)) return EXIT_ERRORS;
  return findings.empty() ? EXIT_FINE : EXIT_WARNINGS;
}
