// The one state object of the service and its operations.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "CurCmd.h"
#include "cmd-table.h"

/// One byte. A signal handler may set it at any moment, and every test of it reads the memory
/// again. There is one thread, so no atomic type is needed: ARMv5 has none without a lock.
using SignalFlag = volatile bool;
static_assert(sizeof(SignalFlag) == 1);

/// Holds all state of the service. One object a process; main builds it and runs endlessWatcher.
/// Temperatures are whole degrees Celsius.
class FanController {
 public:
  /// Logs the start of the service; reads no file and touches no hardware.
  explicit FanController(std::string configDir);
  /// The same with the directory /etc/fan_controller.
  FanController();
  /// Writes nothing to the driver and removes no file.
  ~FanController();
  FanController(const FanController&) = delete;
  FanController& operator=(const FanController&) = delete;

  // --- Watch loop ---

  /// Runs the service until SIGTERM, or for one temperature refresh when oneshot is set.
  void endlessWatcher(bool oneshot);

  // --- Temperature and fan command ---

  /// Takes the system sensor's temperature (the kernel's hwmon sysfs interface, thousandths of a
  /// degree) and selects the command for it. -1 when there is no readable sensor: nothing changed
  /// then. Any other value: done.
  int updateSysTemp();
  /// Takes the temperature of the hottest disk of /proc/partitions and selects the command for it.
  /// activateSmart: switch SMART on first, on every disk. A disk that cannot be opened is left out,
  /// no disk at all counts as 0 degrees; without a readable list nothing but the device list
  /// changes. Always -1.
  int updateMaxTempHDD(bool activateSmart);
  /// The sensor, or else the disks.
  void refreshTemperature(bool activateSmart);
  /// Applies the command of the table's step for m_currentTemp, by the nearest step or by
  /// hysteresis, and raises the temperature alerts. True: a command was applied.
  bool processCmd();

  // --- Fan driver ---

  /// Finds the kind of fan driver, its command and its alarm attribute from the names in the
  /// configured sysfs directory, and builds m_curCmd. Whatever fails makes a fanless product.
  void detectProductConfig();
  /// Reads the alarm attribute: restarts a blocked fan when restart is set, reports it failed when
  /// it stays blocked, and working again after three clear readings. alarmDescriptor belongs to the
  /// caller's wait and is not used. An attribute that cannot be read changes nothing.
  void getFanAlarm(int* alarmDescriptor, bool restart);

  // --- Files ---

  /// Reads fan_controller.conf over the settings in force. False when it cannot be opened.
  bool loadConfig();
  /// Adds the entries of fan_cmd_tab.conf to the table. False when it cannot be opened.
  bool loadValuesTab();
  /// Rewrites the status file. 1 when it was written, 0 when there is none or it cannot be opened.
  int dumpInfoToFile();

  // --- Reporting ---

  /// Reports one AlertKind: alert memory, syslog, flag files, status word. Dropped whole, with one
  /// line at LOG_ERR, while the management library cannot be reached. Blocks up to 300 seconds.
  void alertNotification(int kind);
  /// 1 when the file can be opened for reading, else 0. A link is not followed: 0.
  int check_file(char const* path);
  /// Creates the file, or empties it, and logs either outcome at LOG_ERR. What somebody else has
  /// put at its place (a link, a pipe, a folder, a file of his) gives way to a new file: the folder
  /// is everybody's.
  void create_file(char const* path);

  // --- State ---

  std::unique_ptr<SignalFlag> m_isSigTermDetected;
  std::unique_ptr<SignalFlag> m_switchToNormalMode;
  std::unique_ptr<SignalFlag> m_switchToSpindownMode;
  std::unique_ptr<std::string> m_infoString;  ///< text of the last status dump
  std::unique_ptr<CurCmd> m_curCmd;           ///< null until discovery; commands come after it
  std::string m_pidFile;
  int m_fanDriverType;  ///< a FanDriverType
  std::string m_fanDriverSysfsDir;
  std::string m_fanCmdPath;
  std::string m_fanAlarmPath;
  std::string m_tempSensorPath;  ///< empty: no system sensor
  std::string m_dumpInfoFile;    ///< empty: no status file
  std::string m_configDir;
  int m_periodInSec;  ///< seconds between two temperature refreshes
  bool m_useHysteresis;
  int m_hddCriticalTemp;
  CommandTable m_valueMap;
  CommandTable::iterator m_valueMapIt;
  std::map<std::string, int> m_hddTempMap;  ///< drive identity to temperature
  std::map<std::string, int>::iterator m_hddTempMapIt;
  std::vector<std::string> m_hddDevices;
  std::vector<std::string>::iterator m_hddDevicesIt;
  int m_currentTemp;  ///< -1 until the first measurement
  int m_previousTemp;
  int m_lastTempAlert;       ///< an AlertKind, or ALERT_UNKNOWN
  int m_lastFanAlert;        ///< an AlertKind, or ALERT_UNKNOWN
  int m_updateFanStatusCnt;  ///< clear alarm readings since the fan failed
  bool m_missingConfigAlertRaised;
  bool m_missingCmdTableAlertRaised;
  bool m_spindownMode;  ///< no temperature is read, so that sleeping disks stay asleep
  bool m_closeLoop;

 private:
  void set_default_values_to_global_params();
};
