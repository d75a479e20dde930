// fanctl status for programs: JSON, and metrics for a collector.
#include <algorithm>
#include <ctime>
#include <nlohmann/json.hpp>

#include "disk-text.h"
#include "status.h"
#include "utils.h"

namespace {

using Json = nlohmann::ordered_json;
constexpr auto kReplace = Json::error_handler_t::replace;  // of bytes that are no UTF-8

// --- JSON ---

const char* name_of(ServiceState state) {
  switch (state) {
    case ServiceState::kRuns:
      return "runs";
    case ServiceState::kHalted:
      return "halted";
    case ServiceState::kEnded:
      return "ended";
    case ServiceState::kOff:
      break;
  }
  return "off";
}

void add_moment(Json& json, const Status& status, std::time_t moment) {
  std::tm utc{};
  char text[32];
  if (::gmtime_r(&moment, &utc) != nullptr &&
      std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc) != 0) {
    json["since"] = text;
  }
  json["seconds"] = age(status, moment);
}

const char* name_of(ExitStatus state) {
  if (state == EXIT_FINE) return "well";
  return state == EXIT_WARNINGS ? "alert" : "down";
}

Json service_as_json(const Status& status) {
  Json json = {{"state", name_of(status.service.state)}};
  if (status.service.process != 0) json["process"] = status.service.process;
  if (status.serviceSince) add_moment(json, status, *status.serviceSince);
  json["spindown"] = status.inSpindown;
  return json;
}

Json command_as_json(const Status& status) {
  Json json = {{"path", status.driver.commandPath}};
  if (status.command) json["in_force"] = *status.command;
  if (status.wanted && status.wanted->rising == status.wanted->falling) {
    json["table"] = status.wanted->rising;
  } else if (status.wanted) {
    json["table_rising"] = status.wanted->rising;
    json["table_falling"] = status.wanted->falling;
  }
  if (status.command && status.wanted) json["differs"] = status.differs();
  return json;
}

Json fan_as_json(const Status& status) {
  Json json = {{"driver", status.driver.row->kind == FAN_DRIVER_I2C ? "I2C" : "GPIO"},
               {"folder", status.configuration.settings.m_fanDriverSysfsDir}};
  if (status.speed) json["rpm"] = *status.speed;
  if (status.driver.closeLoop) json["loop"] = *status.driver.closeLoop ? "close" : "open";
  if (status.mode) {
    json["mode"] = parse_int(status.mode->value.c_str());
    json["mode_name"] = status.mode->name;
  }
  return json;
}

Json alerts_as_json(const Status& status) {
  Json json = Json::array();
  for (const Alert& alert : status.alerts) {
    if (!alert.since) continue;
    Json each = {{"kind", alert.kind}};
    add_moment(each, status, *alert.since);
    if (!alert.more.empty()) each["text"] = alert.more;
    json.push_back(std::move(each));
  }
  return json;
}

// --- Metrics ---

struct Metric {
  const char* name;  ///< behind fan_controller_
  const char* help;
};
constexpr Metric kUp = {"up", "Whether the fan control service runs."};
constexpr Metric kTemperature = {"temperature_celsius",
                                 "Temperature as the service would measure it now."};
constexpr Metric kDiskTemperature = {"disk_temperature_celsius",
                                     "Temperature of a disk; left out while it sleeps."};
constexpr Metric kCommand = {"command", "Fan command in force, in the units of the driver."};
constexpr Metric kSpeed = {"fan_speed_rpm", "Speed of the fan in revolutions per minute."};
constexpr Metric kAlert = {"alert", "Whether an alert of this kind stands."};
constexpr Metric kAge = {"status_age_seconds", "Seconds since the status file was written."};

/// Labels with their braces, which may be empty, and the value.
struct Sample {
  std::string labels;
  long long value;
};

// JSON escapes the same three characters, once the other control bytes are gone.
std::string label_value(std::string_view text) {
  std::string value(text);
  std::ranges::replace_if(
      value,
      [](char c) { return (static_cast<unsigned char>(c) < ' ' && c != '\n') || c == '\x7f'; },
      '?');
  return Json(value).dump(-1, ' ', false, kReplace);
}

void add(std::string& text, const Metric& metric, const std::vector<Sample>& samples) {
  if (samples.empty()) return;
  const std::string name = join({"fan_controller_", metric.name});
  text += join({"# HELP ", name, " ", metric.help, "\n# TYPE ", name, " gauge\n"});
  for (const auto& [labels, value] : samples) text += join({name, labels, " ", value, "\n"});
}

template <typename Number>
std::vector<Sample> known(const std::optional<Number>& value) {
  if (!value) return {};
  return {{"", static_cast<long long>(*value)}};
}

std::vector<Sample> disk_samples(const DiskList& list) {
  std::vector<Sample> samples;
  for (const DiskState& disk : list.disks) {
    if (disk.temperature == 0) continue;
    samples.push_back(
        {join({"{device=", label_value(disk.path), ",model=", label_value(disk.model), "}"}),
         disk.temperature});
  }
  return samples;
}

std::vector<Sample> alert_samples(const std::vector<Alert>& alerts) {
  std::vector<Sample> samples;
  samples.reserve(alerts.size());
  for (const Alert& alert : alerts) {
    samples.push_back({join({"{kind=\"", alert.kind, "\"}"}), alert.since ? 1 : 0});
  }
  return samples;
}

}  // namespace

std::string status_as_json(const Status& status) {
  constexpr int kIndent = 2;
  Json json = {{"state", name_of(exit_status(status))}, {"service", service_as_json(status)}};
  if (!status.configuration.hasSettings || !status.configuration.hasTable) {
    json["configuration"] = "cannot be read";
  }
  if (status.temperature) {
    json["temperature"] = {{"celsius", status.temperature->celsius},
                           {"source", status.temperature->source}};
  }
  if (status.driver.row != nullptr) {
    json["command"] = command_as_json(status);
    json["fan"] = fan_as_json(status);
  }
  json["alerts"] = alerts_as_json(status);
  if (status.statusFileWritten) {
    json["status_file"] = {{"path", status.configuration.settings.m_dumpInfoFile}};
    add_moment(json["status_file"], status, *status.statusFileWritten);
  }
  json["disks"] = Json::array();
  for (const DiskState& disk : status.disks.disks) json["disks"].push_back(disk_as_json(disk));
  return json.dump(kIndent, ' ', false, kReplace) + "\n";
}

std::string status_as_metrics(const Status& status) {
  std::optional<long long> statusAge;
  if (status.statusFileWritten) statusAge = age(status, *status.statusFileWritten);
  std::optional<int> celsius;
  if (status.temperature) celsius = status.temperature->celsius;
  std::string text;
  add(text, kUp, {{"", status.runs() ? 1 : 0}});
  add(text, kTemperature, known(celsius));
  add(text, kDiskTemperature, disk_samples(status.disks));
  add(text, kCommand, known(status.command));
  add(text, kSpeed, known(status.speed));
  add(text, kAlert, alert_samples(status.alerts));
  add(text, kAge, known(statusAge));
  return text;
}
