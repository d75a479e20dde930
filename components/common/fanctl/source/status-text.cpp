// fanctl status for people.
#include <algorithm>
#include <ctime>

#include "disk-text.h"
#include "status.h"
#include "terminal.h"
#include "utils.h"

namespace {

// --- Times ---

// The two largest units: "1 day 3 hours".
std::string duration(long long seconds) {
  constexpr struct {
    long long seconds;
    const char* unit;
  } kUnits[] = {{86400, " day"}, {3600, " hour"}, {60, " minute"}, {1, " second"}};
  std::string text;
  for (const auto& [length, unit] : kUnits) {
    const long long count = seconds / length;
    seconds %= length;
    const bool isSecond = !text.empty();
    if (count > 0) text += join({isSecond ? " " : "", count, unit, count == 1 ? "" : "s"});
    if (isSecond || (count > 0 && length == 60)) break;
  }
  return text.empty() ? "0 seconds" : text;
}

std::string since(const Status& status, std::time_t moment) {
  std::tm local{};
  char text[32];
  if (::localtime_r(&moment, &local) == nullptr ||
      std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &local) == 0) {
    return duration(age(status, moment));
  }
  return join({"since ", text, ", ", duration(age(status, moment))});
}

// --- The first sentences ---

std::string well(const Status& status) {
  if (status.inSpindown) {
    return "All well: the disks are left to sleep, and the service does not measure.";
  }
  const Configuration& configuration = status.configuration;
  if (!configuration.hasSettings || !configuration.hasTable) {
    return "The service runs and no alert stands, but its configuration cannot be read.";
  }
  if (!configuration.settings.m_fanDriverSysfsDir.empty() && status.driver.row == nullptr) {
    return "The service runs and no alert stands, but its fan driver is not found.";
  }
  if (!status.temperature) {
    return "The service runs and no alert stands, but no temperature can be read.";
  }
  std::string text = join({"All well: ", status.temperature->celsius, " C"});
  if (status.command) text += join({", command ", *status.command});
  if (status.speed) text += join({", fan ", *status.speed, " rpm"});
  return text + ".";
}

std::string headline(const Status& status) {
  std::string text;
  const auto complain = [&](const std::string& sentence) { text += red(bold(sentence)) + "\n"; };
  switch (status.service.state) {
    case ServiceState::kRuns:
      break;
    case ServiceState::kHalted:
      complain("The service is held by a signal: it does not care for the fan.");
      break;
    case ServiceState::kEnded:
      complain("The service should run, but has ended.");
      break;
    case ServiceState::kOff:
      complain("The service does not run.");
      break;
  }
  for (const Alert& alert : status.alerts) {
    if (!alert.since) continue;
    complain(join({alert.words, ", for ", duration(age(status, *alert.since)), "."}));
  }
  if (!text.empty()) return text;
  const std::string sentence = well(status);
  return (sentence.starts_with("All well") ? green(bold(sentence)) : yellow(bold(sentence))) + "\n";
}

// --- The rows ---

using Paint = std::string (*)(std::string_view);

std::string plain(std::string_view text) { return std::string(text); }

struct Row {
  std::string name;
  std::string text;
  Paint paint = plain;
};
using Rows = std::vector<Row>;

Row service_row(const Status& status) {
  const ServiceProcess& service = status.service;
  if (service.state == ServiceState::kEnded) return {"service", "should run, but has ended", red};
  if (service.state == ServiceState::kOff) return {"service", "does not run", red};
  std::string text = join({"runs as process ", service.process});
  if (status.serviceSince) text += join({", ", since(status, *status.serviceSince)});
  if (status.runs()) return {"service", text};
  return {"service", text + ", held by a signal", red};
}

void add_configuration(const Configuration& configuration, Rows& rows) {
  if (!configuration.hasSettings) {
    rows.push_back({"settings", configuration.settingsPath + " cannot be read", red});
  }
  if (!configuration.hasTable) {
    rows.push_back({"table", configuration.tablePath + " cannot be read", red});
  }
}

Row temperature_row(const Status& status) {
  const auto& disks = status.disks.disks;
  const std::string& sensor = status.configuration.settings.m_tempSensorPath;
  const auto& reading = status.temperature;
  const bool ofDisk = reading && std::ranges::count(disks, reading->source, &DiskState::path) > 0;
  if (reading && !ofDisk) {
    return {"temperature", join({reading->celsius, " C, from the sensor ", sensor})};
  }
  std::string notes;
  if (const auto asleep = std::ranges::count(disks, PowerMode::kStandby, &DiskState::power)) {
    notes += join({" (", asleep, " asleep, not asked)"});
  }
  if (!sensor.empty()) notes += ", as the sensor cannot be read";
  if (!reading) return {"temperature", "not known" + notes, yellow};
  std::string text = join({reading->celsius, " C, from ", reading->source});
  if (disks.size() > 1) text += join({", the hottest of ", disks.size(), " disks"});
  return {"temperature", text + notes};
}

Row command_row(const Status& status) {
  const std::string force = status.command ? std::to_string(*status.command) : "cannot be read";
  if (!status.wanted) return {"command", force};
  const auto& [rising, falling] = *status.wanted;
  const std::string table =
      rising == falling ? std::to_string(rising) : join({falling, " falling, ", rising, " rising"});
  if (status.differs()) {
    return {"command", join({force, ", differs from the table's ", table}), yellow};
  }
  if (!status.command) return {"command", join({force, "; the table gives ", table}), yellow};
  return {"command", join({force, ", as the table gives it",
                           rising == falling ? std::string() : join({" (", table, ")"})})};
}

Row fan_row(const Status& status) {
  const Driver& driver = status.driver;
  const std::string& folder = status.configuration.settings.m_fanDriverSysfsDir;
  if (folder.empty()) return {"fan", "none is controlled, temperatures are reported"};
  if (!driver.opened) return {"fan", folder + " cannot be opened", yellow};
  if (driver.row == nullptr) return {"fan", folder + " is not taken for a fan driver", yellow};
  return {"fan", status.speed ? join({*status.speed, " rpm"}) : "its speed is not known"};
}

void add_fan(const Status& status, Rows& rows) {
  if (status.driver.row != nullptr) rows.push_back(command_row(status));
  if (status.configuration.hasSettings) rows.push_back(fan_row(status));
  std::string mode;
  if (const auto& closeLoop = status.driver.closeLoop)
    mode = *closeLoop ? "close-loop" : "open-loop";
  if (status.mode) {
    mode += join({mode.empty() ? "" : ", ", status.mode->name, " (", status.mode->value, ")"});
  }
  if (!mode.empty()) rows.push_back({"mode", mode});
}

void add_alerts(const Status& status, Rows& rows) {
  const std::size_t before = rows.size();
  for (const Alert& alert : status.alerts) {
    if (!alert.since) continue;
    std::string words(alert.kind);
    std::ranges::replace(words, '_', ' ');
    rows.push_back({"alert", join({words, ", ", since(status, *alert.since)}), red});
    if (!alert.more.empty()) rows.push_back({"", alert.more});
  }
  if (rows.size() == before) rows.push_back({"alerts", "none"});
}

void add_status_file(const Status& status, Rows& rows) {
  const std::string& path = status.configuration.settings.m_dumpInfoFile;
  if (path.empty()) return;
  if (!status.statusFileIsPlain) {
    rows.push_back({"status file", path + " is no plain file", yellow});
  } else if (!status.statusFileWritten) {
    rows.push_back({"status file", path + " is not there", yellow});
  } else {
    const std::string old = duration(age(status, *status.statusFileWritten));
    rows.push_back({"status file", join({path, ", ", old, " old"})});
  }
}

void add_disks(const DiskList& list, Rows& rows) {
  if (!list.listed) rows.push_back({"disks", "/proc/partitions cannot be read", yellow});
  const char* name = list.disks.size() == 1 ? "disk" : "disks";
  for (const DiskState& disk : list.disks) {
    rows.push_back({name, join({disk.path, "  ", describe_disk(disk)})});
    name = "";
  }
}

Rows list_rows(const Status& status) {
  Rows rows = {service_row(status)};
  if (status.inSpindown) {
    rows.push_back({"spindown", "the disks are left to sleep, nothing is measured"});
  }
  add_configuration(status.configuration, rows);
  rows.push_back(temperature_row(status));
  add_fan(status, rows);
  add_alerts(status, rows);
  add_status_file(status, rows);
  add_disks(status.disks, rows);
  return rows;
}

}  // namespace

std::string status_as_text(const Status& status) {
  constexpr std::size_t kNameWidth = 13;
  std::string text = headline(status) + "\n";
  for (const Row& row : list_rows(status)) {
    text += join({bold(padded(row.name, kNameWidth)), row.paint(printable(row.text)), "\n"});
  }
  return text;
}
