// fanctl check: what the service will do with this configuration on this machine.
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "alert-flags.h"
#include "commands.h"
#include "findings.h"
#include "service-process.h"
#include "terminal.h"
#include "utils.h"

namespace {

using Json = nlohmann::ordered_json;

Machine look_at_machine(const Settings& settings) {
  Machine machine;
  machine.chips = list_chips();
  machine.disks = list_disk_states();
  machine.driver = find_driver(settings);
  machine.sensorText = read_attribute(settings.m_tempSensorPath);
  return machine;
}

// --- The summary: rows of a name and a text ---

using Summary = std::vector<std::pair<std::string, std::string>>;

std::string driver_text(const Settings& settings, const Driver& driver) {
  if (driver.row == nullptr) return "none: no fan is controlled, temperatures are reported";
  const char* kind = driver.row->kind == FAN_DRIVER_I2C ? "I2C" : "GPIO";
  std::string mode;
  if (driver.closeLoop) mode = *driver.closeLoop ? ", close-loop" : ", open-loop";
  return join({kind, mode, ", in ", settings.m_fanDriverSysfsDir});
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
  std::string text =
      join({hottest->temperature, " C now, from the hottest of ", disks.size(), " disks"});
  if (asleep > 0) text += join({" (", asleep, " asleep and not asked)"});
  return text;
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
  const std::string critical = std::to_string(std::max(level, settings.m_hddCriticalTemp));
  Summary rows = {{"driver", driver_text(settings, machine.driver)}};
  if (machine.driver.row != nullptr) {
    rows.push_back({"command", "to " + machine.driver.commandPath});
    rows.push_back({"alarm", "from " + machine.driver.alarmPath});
  }
  rows.push_back({"temperature", temperature_text(settings, machine)});
  rows.push_back(
      {"table", join({table_text(configuration.table),
                      settings.m_useHysteresis ? ", by hysteresis" : ", by the nearest step"})});
  rows.push_back({"alerts", join({"high above ", level, " C, critical above ", critical, " C"})});
  rows.push_back({"period", join({settings.m_periodInSec, " seconds"})});
  rows.push_back(
      {"writes", join({"/var/run/fan_controller.pid, flags in /var/tmp",
                       settings.m_dumpInfoFile.empty() ? "" : ", ", settings.m_dumpInfoFile})});
  const pid_t process = find_service();
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
  const Machine machine = look_at_machine(configuration.settings);
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
