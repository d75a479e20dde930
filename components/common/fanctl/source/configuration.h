// The service's configuration as its own readers take it, without the service.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "cmd-table.h"
#include "drivers.h"
#include "settings.h"

/// The settings of fan_controller.conf, under the names and with the defaults that the service has.
struct Settings {
  std::string m_pidFile = "/var/run/fan_controller.pid";
  std::string m_fanDriverSysfsDir;
  std::string m_fanAlarmPath;
  int m_periodInSec = 180;
  std::string m_dumpInfoFile;
  bool m_useHysteresis = false;
  int m_hddCriticalTemp = 65;
  std::string m_tempSensorPath;
};

/// Both files.
struct Configuration {
  Settings settings;
  CommandTable table;
  std::string settingsPath;
  std::string tablePath;
  bool hasSettings = false;  ///< fan_controller.conf could be opened
  bool hasTable = false;     ///< so could fan_cmd_tab.conf
};

Configuration read_configuration(const std::string& folder);

/// The driver's folder, looked at as the service does at its start.
struct Driver {
  bool opened = false;
  std::vector<std::string> entries;  ///< its readable files
  const DriverRow* row = nullptr;    ///< null: the service takes the product for a fanless one
  std::optional<bool> closeLoop;     ///< nothing: the mode cannot be read, or is not asked for
  std::string commandPath;
  std::string alarmPath;
};

Driver find_driver(const Settings& settings);
