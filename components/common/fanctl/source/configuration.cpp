#include "configuration.h"

#include <dirent.h>

#include <algorithm>

#include "utils.h"

Configuration read_configuration(const std::string& folder) {
  Configuration configuration;
  configuration.settingsPath = join({folder, "/", CONFIG_FILE});
  configuration.tablePath = join({folder, "/", CMD_TABLE_FILE});
  if (const FilePtr file{std::fopen(configuration.settingsPath.c_str(), "r")}) {
    configuration.hasSettings = true;
    const auto& rows = SETTING_ROWS<Settings>;
    Setting setting;
    while (next_setting(file.get(), setting)) {
      const auto row = std::ranges::find(rows, setting.key, &SettingRow<Settings>::key);
      if (row != rows.end()) apply_setting(configuration.settings, *row, setting.value);
    }
  }
  if (const FilePtr file{std::fopen(configuration.tablePath.c_str(), "r")}) {
    configuration.hasTable = true;
    read_command_table(file.get(), configuration.table);
  }
  return configuration;
}

Driver find_driver(const Settings& settings) {
  Driver driver;
  const std::string& folder = settings.m_fanDriverSysfsDir;
  const DirPtr directory(folder.empty() ? nullptr : ::opendir(folder.c_str()));
  if (!directory) return driver;
  driver.opened = true;
  driver.entries = list_readable_entries(directory.get(), folder);
  driver.row = match_driver(driver.entries);
  if (driver.row == nullptr) return driver;
  if (driver.row->asksForMode) driver.closeLoop = runs_close_loop(folder);
  driver.commandPath = command_path(folder, *driver.row, driver.closeLoop.value_or(false));
  driver.alarmPath = alarm_path(folder, settings.m_fanAlarmPath);
  return driver;
}
