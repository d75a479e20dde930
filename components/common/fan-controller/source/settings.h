// The grammar of the two configuration files and the keys of fan_controller.conf, for whatever
// holds the settings.
#pragma once

#include <array>
#include <cstdio>
#include <string>
#include <string_view>

#include "utils.h"

/// The settings' file in the configuration directory.
inline constexpr char CONFIG_FILE[] = "fan_controller.conf";

/// What one line of a configuration file sets. Spaces at the end of either text are gone.
struct Setting {
  std::string key;
  std::string value;
};

/// Takes a line without its line feed apart at its first =. False for a line that sets nothing: an
/// empty one, a comment (a # in the first column) and one without a =.
bool split_setting(std::string_view line, Setting& setting);

/// Finds the next line that sets something. False at the end of the file or on a read error.
bool next_setting(std::FILE* file, Setting& setting);

/// One key of fan_controller.conf and the member that takes its value: one of text, number and yes.
template <typename Holder>
struct SettingRow {
  std::string_view key;
  const char* label;  ///< of the trace that shows the value
  std::string Holder::*text = nullptr;
  int Holder::*number = nullptr;
  bool Holder::*yes = nullptr;
};

/// The keys, for any holder with members of these names.
template <typename Holder>
inline constexpr auto SETTING_ROWS = std::to_array<SettingRow<Holder>>({
    {.key = "pid_file", .label = "pid_file : ", .text = &Holder::m_pidFile},
    {.key = "fan_driver_sysfs_dir",
     .label = "fan_driver_interface : ",
     .text = &Holder::m_fanDriverSysfsDir},
    {.key = "fan_driver_sysfs_alarm",
     .label = "fan_driver_alarm : ",
     .text = &Holder::m_fanAlarmPath},
    {.key = "period_in_sec", .label = "period_in_sec found: ", .number = &Holder::m_periodInSec},
    {.key = "dump_info_to_file", .label = "dump_info_to_file : ", .text = &Holder::m_dumpInfoFile},
    {.key = "use_hysteresis", .label = "use_hysteresis : ", .yes = &Holder::m_useHysteresis},
    {.key = "hdd_critical_temperature",
     .label = "hdd_critical_temperature : ",
     .number = &Holder::m_hddCriticalTemp},
    {.key = "temp_sensor_sysfs_entry",
     .label = "temp_sensor_sysfs_entry: ",
     .text = &Holder::m_tempSensorPath},
});

/// Sets the row's member to the value: text as it is, a number as parse_int reads it, "yes" as
/// true. Any other text leaves a yes-or-no member as it was.
template <typename Holder>
void apply_setting(Holder& holder, const SettingRow<Holder>& row, const std::string& value) {
  if (row.text != nullptr) {
    holder.*row.text = value;
  } else if (row.number != nullptr) {
    holder.*row.number = parse_int(value.c_str());
  } else if (value == "yes") {
    holder.*row.yes = true;
  }
}
