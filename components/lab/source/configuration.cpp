#include "configuration.h"

#include <algorithm>
#include <cstdlib>

#include "layout.h"
#include "program.h"
#include "text.h"

namespace {

constexpr char kSettingsFile[] = "fan_controller.conf";
constexpr char kTableFile[] = "fan_cmd_tab.conf";
constexpr char kRule[] = "use_hysteresis";
constexpr char kDriver[] = "fan_driver_sysfs_dir";

// A path of these lies below the appliance's root. Everything else would be this machine's own,
// which the service could change.
constexpr const char* kPathKeys[] = {kDriver, "fan_driver_sysfs_alarm", "temp_sensor_sysfs_entry"};
constexpr const char* kRoots[] = {"/sys/", "/run/", "/var/run/"};
// Nobody reads these files here.
constexpr const char* kLeftOut[] = {kRule, "pid_file", "dump_info_to_file"};

bool begins_with_any(const std::string& line, const auto& beginnings) {
  return std::ranges::any_of(beginnings, [&](const char* text) { return line.starts_with(text); });
}

bool is_of_appliance(const std::string& path) {
  return begins_with_any(path, kRoots) && (path + "/").find("/../") == std::string::npos;
}

// The lines that the service may have.
std::string harmless(const std::string& file, const std::string& text) {
  std::string settings;
  std::size_t number = 0;
  for (const std::string& line : lines_of(text)) {
    ++number;
    if (begins_with_any(line, kLeftOut)) continue;
    const std::size_t equals = line.find('=');
    if (begins_with_any(line, kPathKeys) && equals != std::string::npos &&
        !is_of_appliance(line.substr(equals + 1))) {
      throw LabError(
          text_of("%s:%zu: the lab knows only paths that begin with /sys/ or /run/, "
                  "without a blank before them",
                  file.c_str(), number));
    }
    settings += line + "\n";
  }
  return settings;
}

std::string rule_lines(const std::string& text) {
  std::string lines;
  for (const std::string& line : lines_of(text)) {
    if (line.starts_with(kRule)) lines += line + "\n";
  }
  return lines;
}

// Takes "label value" of a trace line.
bool takes(const std::string& line, const std::string& label, std::string& value) {
  const std::size_t found = line.find(label);
  if (found == std::string::npos) return false;
  value = line.substr(found + label.size());
  return true;
}

void take_step(const std::string& line, Configuration& configuration) {
  const std::size_t arrow = line.find(" => ");
  const std::size_t blank = line.rfind(' ', arrow - 1);
  if (arrow == std::string::npos || blank == std::string::npos) return;
  configuration.steps[std::atoi(line.c_str() + blank)] = std::atoi(line.c_str() + arrow + 4);
}

void take_trace(const std::string& trace, Configuration& configuration) {
  bool isTable = false;
  for (const std::string& line : lines_of(trace)) {
    std::string value;
    if (takes(line, "fan_driver_interface : ", configuration.driver)) continue;
    if (takes(line, "fan_driver_alarm : ", configuration.alarm)) continue;
    if (takes(line, "temp_sensor_sysfs_entry: ", configuration.sensor)) continue;
    if (takes(line, "period_in_sec found: ", value))
      configuration.period = std::atoi(value.c_str());
    if (takes(line, "use_hysteresis : ", value) && value == "yes") configuration.hysteresis = true;
    if (takes(line, "hdd_critical_temperature : ", value)) {
      configuration.critical = std::atoi(value.c_str());
    }
    isTable = isTable || line.find("values tab: ") != std::string::npos;
    if (isTable) take_step(line, configuration);
  }
}

// One cycle on an appliance without any hardware: nothing is found, but everything is told.
void ask_service(const std::string& rule, Configuration& configuration) {
  const Appliance appliance;
  appliance.config(configuration.settings + rule, configuration.table);
  Program program(appliance,
                  {.binary = FAN_CONTROLLER_BINARY,
                   .arguments = {"--oneshot", "--verbose", "--config-dir=/etc/fan_controller"}});
  (void)program.wait_end();
  take_trace(appliance.read("/out"), configuration);
}

}  // namespace

int Configuration::highestCommand() const {
  return std::ranges::max_element(steps, {}, [](const auto& step) { return step.second; })->second;
}

std::string Configuration::settingsWith(bool useHysteresis) const {
  return useHysteresis ? settings + kRule + "=yes\n" : settings;
}

Configuration read_configuration(const std::string& folder) {
  Configuration configuration;
  configuration.folder = folder;
  configuration.name = name_of(folder);
  const std::string file = folder + "/" + kSettingsFile;
  const std::string text = read_file(file);
  configuration.settings = harmless(file, text);
  configuration.table = read_file(folder + "/" + kTableFile);
  // The appliance has no empty files: without a table the service would wait for one.
  if (configuration.settings.empty()) configuration.settings.push_back('\n');
  if (configuration.table.empty()) configuration.table.push_back('\n');
  ask_service(rule_lines(text), configuration);

  if (configuration.driver.empty()) {
    throw LabError(file + ": it names no fan driver (" + kDriver +
                   "): there is nothing to try out");
  }
  if (configuration.steps.empty()) {
    throw LabError(folder + "/" + kTableFile + ": the service finds no step in it");
  }
  if (configuration.period < 1) {
    throw LabError(file + ": period_in_sec has to be a positive number");
  }
  return configuration;
}
