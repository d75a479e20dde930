#include <fcntl.h>
#include <sys/select.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <iterator>
#include <string_view>
#include <utility>

#include "FanController.h"
#include "alert-mgr.h"
#include "disks.h"
#include "drivers.h"
#include "settings.h"
#include "smart.h"
#include "utils.h"

// --- The object ---

FanController::FanController(std::string configDir) : m_configDir(std::move(configDir)) {
  set_default_values_to_global_params();
  syslog(LOG_INFO, "Fan Controller service has been started - config dir %s", m_configDir.c_str());
}

FanController::FanController() : m_configDir("/etc/fan_controller") {
  set_default_values_to_global_params();
  syslog(LOG_INFO, "Fan Controller service has been started");
}

void FanController::set_default_values_to_global_params() {
  m_pidFile = "/var/run/fan_controller.pid";
  m_fanAlarmPath.clear();
  m_fanDriverSysfsDir = m_fanAlarmPath;
  m_periodInSec = 180;
  m_currentTemp = -1;
  m_previousTemp = -1;
  m_lastFanAlert = ALERT_UNKNOWN;
  m_lastTempAlert = ALERT_UNKNOWN;
  m_hddCriticalTemp = 65;
  m_useHysteresis = false;
  m_closeLoop = false;
  m_spindownMode = false;
  m_missingConfigAlertRaised = false;
  m_missingCmdTableAlertRaised = false;
  m_fanDriverType = FAN_DRIVER_NONE;
  m_updateFanStatusCnt = 0;
  m_isSigTermDetected = std::make_unique<SignalFlag>(false);
  m_switchToNormalMode = std::make_unique<SignalFlag>(false);
  m_switchToSpindownMode = std::make_unique<SignalFlag>(false);
  m_infoString = std::make_unique<std::string>();
}

FanController::~FanController() {
  TRACE("Do some cleanup before exit");
  m_isSigTermDetected.reset();
  m_switchToSpindownMode.reset();
  m_switchToNormalMode.reset();
  m_infoString.reset();
  m_curCmd.reset();
  syslog(LOG_INFO, "The fan controller service has been stopped.");
}

// --- Start-up ---

namespace {

constexpr char kWatcher[] = "endlessWatcher";
constexpr int kLoadRetrySeconds = 300;

void write_pid_file(FanController& controller) {
  const FilePtr file(std::fopen(controller.m_pidFile.c_str(), "w+"));
  if (!file) {
    controller.alertNotification(ALERT_PID_FILE_ERROR);
    return;
  }
  TRACE_AS(kWatcher, "pid = ", ::getpid(), " stored in ", controller.m_pidFile);
  (void)std::fprintf(file.get(), "%i\n", ::getpid());
}

// False: SIGTERM ended the wait.
bool wait_before_reload(const SignalFlag& terminated) {
  for (int second = 0; second < kLoadRetrySeconds; ++second) {
    (void)::sleep(1);
    if (terminated) return false;
  }
  return true;
}

void trace_values_tab(FanController& controller) {
  TRACE_AS(kWatcher, "values tab: ", controller.m_configDir, "/", CMD_TABLE_FILE);
  auto& step = controller.m_valueMapIt;
  for (step = controller.m_valueMap.begin(); step != controller.m_valueMap.end(); ++step) {
    TRACE_AS(kWatcher, step->first, " => ", step->second);
  }
}

// The flag files that an earlier run left behind tell what was reported last.
void restore_alert_memory(FanController& controller) {
  TRACE_AS(kWatcher, "2 : m_lastFanAlert ", controller.m_lastFanAlert);
  TRACE_AS(kWatcher, "2 : m_lastTempAlert ", controller.m_lastTempAlert);
  if (controller.m_lastTempAlert == ALERT_UNKNOWN) {
    controller.m_lastTempAlert = controller.check_file(CRIT_TEMP_FLAG) != 0   ? ALERT_TEMP_CRITICAL
                                 : controller.check_file(HIGH_TEMP_FLAG) != 0 ? ALERT_TEMP_HIGH
                                                                              : ALERT_TEMP_NORMAL;
  }
  if (controller.m_lastFanAlert == ALERT_UNKNOWN) {
    controller.m_lastFanAlert =
        controller.check_file(FAN_FAILED_FLAG) != 0 ? ALERT_FAN_FAILED : ALERT_FAN_WORKING;
  }
}

// The first cycle should find the library ready to be told; its answer itself is of no use here.
void wait_for_library(corvane_handle& handle) {
  if (corvane_init(&handle) != 0) return;
  syslog(LOG_INFO, "getting corvane fan config");
  const int result = corvane_get_config(&handle, FAN_RESOURCE_ID);
  syslog(LOG_INFO, "ret %d", result);
  wait_for_fan_resource(&handle, result);
}

// --- One cycle ---

void switch_mode(FanController& controller) {
  if (*controller.m_switchToNormalMode) {
    TRACE_AS(kWatcher, "Switch to normal mode");
    controller.m_spindownMode = false;
    *controller.m_switchToNormalMode = false;
  } else if (*controller.m_switchToSpindownMode) {
    const int command = first_command(controller.m_valueMap);
    TRACE_AS(kWatcher, "Switch to spindown mode ", command);
    controller.m_curCmd->set_cur_cmd_val(command);
    controller.m_spindownMode = true;
    *controller.m_switchToSpindownMode = false;
  }
}

// False: SIGTERM ended the wait.
bool count_down(const SignalFlag& terminated, int seconds) {
  for (; seconds > 0; --seconds) {
    if (terminated) return false;
    (void)::sleep(1);
  }
  return true;
}

// A timed wait: a descriptor count of 1 leaves the alarm attribute out of what select() watches, as
// sysfs would report it ready at once. A signal ends it early.
void wait_and_check_alarm(FanController& controller, int alarm, int period) {
  fd_set attributes;
  FD_ZERO(&attributes);
  const bool fits = alarm < FD_SETSIZE;  // FD_SET at or beyond FD_SETSIZE is undefined
  if (fits) FD_SET(alarm, &attributes);
  timeval timeout{};
  timeout.tv_sec = period;
  const int result = ::select(1, &attributes, nullptr, nullptr, &timeout);
  if (result == 0 || !fits || FD_ISSET(alarm, &attributes)) {
    controller.getFanAlarm(&alarm, true);
  } else {
    TRACE_AS(kWatcher, "file descriptor ", alarm, " corrupted after select() returned");
  }
}

void wait_period(FanController& controller, int period) {
  const SignalFlag& terminated = *controller.m_isSigTermDetected;
  if (controller.m_fanDriverType == FAN_DRIVER_NONE) {
    if (!count_down(terminated, period)) TRACE_AS(kWatcher, "Exit now !!");
    return;
  }
  const char* const path = controller.m_fanAlarmPath.c_str();
  const Descriptor alarm(::open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (alarm) {
    wait_and_check_alarm(controller, alarm.get(), period);
  } else if (!count_down(terminated, period)) {
    TRACE_AS(kWatcher, "get down the fan to the minimum speed before exit");
    controller.m_curCmd->set_cur_cmd_val(first_command(controller.m_valueMap));
  }
}

}  // namespace

void FanController::endlessWatcher(bool oneshot) {
  write_pid_file(*this);
  while (!loadConfig()) {
    if (!m_missingConfigAlertRaised) alertNotification(ALERT_MISSING_CONFIG);
    if (!wait_before_reload(*m_isSigTermDetected)) return;
  }
  TRACE("=> config file loaded");
  detectProductConfig();
  while (!loadValuesTab()) {
    if (!m_missingCmdTableAlertRaised) alertNotification(ALERT_MISSING_CMD_TABLE);
    if (!wait_before_reload(*m_isSigTermDetected)) return;
  }
  trace_values_tab(*this);
  restore_alert_memory(*this);
  corvane_handle library{};  // stays connected for the life of the process
  wait_for_library(library);

  for (bool firstCycle = true; !*m_isSigTermDetected; firstCycle = false) {
    TRACE("4 : m_lastFanAlert ", m_lastFanAlert);
    TRACE("4 : m_lastTempAlert ", m_lastTempAlert);
    const int period = m_periodInSec;
    switch_mode(*this);
    if (!m_spindownMode) refreshTemperature(firstCycle);
    if (oneshot) break;
    wait_period(*this, period);
  }
  (void)::unlink(m_pidFile.c_str());
}

// --- Temperature ---

namespace {

constexpr int kMillidegrees = 1000;

// Where both ways of measuring meet: the new temperature is shown, then it is acted upon.
void take_temperature(FanController& controller, const char* operation, const char* label,
                      int temperature) {
  controller.m_previousTemp = controller.m_currentTemp;
  controller.m_currentTemp = temperature;
  TRACE_AS(operation, label, temperature);
  (void)controller.dumpInfoToFile();
  if (controller.processCmd()) return;
  controller.alertNotification(ALERT_NO_DRIVE_TEMP);
  TRACE_AS(operation, "\nproblem in processing temperature value");
}

}  // namespace

void FanController::refreshTemperature(bool activateSmart) {
  if (updateSysTemp() == -1) (void)updateMaxTempHDD(activateSmart);
}

int FanController::updateSysTemp() {
  auto value = sysfs_read_attr(m_tempSensorPath.c_str());
  if (!value) return -1;
  const int temperature = parse_int(value.get()) / kMillidegrees;
  value.reset();
  take_temperature(*this, __func__, "System Temp. = ", temperature);
  return 0;
}

int FanController::updateMaxTempHDD(bool activateSmart) {
  m_hddDevices.clear();
  const FilePtr partitions(std::fopen(PARTITIONS_FILE, "rb"));
  if (!partitions || !list_disks(partitions.get(), m_hddDevices)) return -1;

  m_hddTempMap.clear();
  int maximum = 0;
  for (m_hddDevicesIt = m_hddDevices.begin(); m_hddDevicesIt != m_hddDevices.end();
       ++m_hddDevicesIt) {
    const std::string& path = *m_hddDevicesIt;
    TRACE("hdd ", path, " is present ");
    const Descriptor disk(::open(path.c_str(), O_RDONLY | O_NONBLOCK));
    if (!disk) {
      TRACE("and cannot be opened");
      continue;
    }
    if (activateSmart) {
      TRACE("Activate smart feature set on device ", path);
      (void)unable_smart_feature(disk.get());
    }
    const int temperature = get_smart_attr_value(disk.get());
    TRACE(path, " returned temp=", temperature, "degC");
    m_hddTempMap[get_identify_data(disk.get())] = temperature;
    maximum = std::max(maximum, temperature);
  }

  take_temperature(*this, __func__, "TMAX = ", maximum);
  return -1;
}

// --- Command selection ---

namespace {

constexpr char kSelection[] = "processCmd";

// Between two steps, by the nearer one.
void apply_nearest_step(FanController& controller, const Selection& selection) {
  const int temperature = controller.m_currentTemp;
  const int lower = selection.lower.temperature;
  const int upper = selection.upper.temperature;
  TRACE_AS(kSelection, "m_valueMapIt->first ", upper);
  TRACE_AS(kSelection, "m_currentTemp ", temperature);
  TRACE_AS(kSelection, "m_valueMapIt->first ", lower);
  TRACE_AS(kSelection, "diffInf ", selection.diffInf);
  TRACE_AS(kSelection, "diffSup ", selection.diffSup);
  controller.m_curCmd->set_cur_cmd_val(selection.command);
  if (selection.takesUpper) {
    TRACE_AS(kSelection, temperature, " choose upper limit ", upper);
  } else {
    TRACE_AS(kSelection, temperature, " choose lower limit ", lower);
  }
}

// Between two steps, by the direction in which the temperature goes.
void apply_by_hysteresis(FanController& controller, const Selection& selection) {
  const int temperature = controller.m_currentTemp;
  const int previous = controller.m_previousTemp;
  controller.m_curCmd->set_cur_cmd_val(selection.command);
  if (selection.takesUpper) {
    TRACE_AS(kSelection, temperature, ": choose upper limit ", selection.upper.temperature,
             previous);
  } else {
    TRACE_AS(kSelection, temperature, ": choose lower limit ", selection.lower.temperature);
  }
  TRACE_AS(kSelection, " previous temp value was ", previous);
}

}  // namespace

bool FanController::processCmd() {
  const auto selection = select_command(m_valueMap, m_currentTemp, m_previousTemp, m_useHysteresis);
  const int tHigh = alert_level(m_valueMap);
  TRACE("current temp = ", m_currentTemp);
  if (selection.place == Selection::kBelow) {
    m_curCmd->set_cur_cmd_val(selection.command);
    TRACE(" take min step of values tab i.e. ");
  }
  TRACE("tHigh ", tHigh);
  if (selection.place == Selection::kAbove) {
    TRACE(" take max step of values tab i.e. ");
    m_curCmd->set_cur_cmd_val(selection.command);
    if (m_currentTemp > m_hddCriticalTemp) {
      alertNotification(ALERT_TEMP_CRITICAL);
    } else if (m_lastTempAlert != ALERT_TEMP_HIGH) {
      alertNotification(ALERT_TEMP_HIGH);
    }
    return true;
  }
  if (m_currentTemp < tHigh && m_lastTempAlert != ALERT_TEMP_NORMAL) {
    alertNotification(ALERT_TEMP_NORMAL);
  }
  if (selection.place == Selection::kBelow) return true;

  m_valueMapIt = m_valueMap.find(selection.upper.temperature);
  if (!m_useHysteresis && !selection.takesUpper) --m_valueMapIt;
  if (m_useHysteresis) {
    apply_by_hysteresis(*this, selection);
  } else {
    apply_nearest_step(*this, selection);
  }
  return true;
}

// --- Fan alarm ---

namespace {

constexpr char kAlarm[] = "getFanAlarm";
constexpr char kAlarmRaised[] = "1";
constexpr unsigned int kRestartSeconds = 10;
constexpr int kClearReadings = 2;  // before the one that reports the fan working

void count_clear_reading(FanController& controller) {
  if (controller.m_lastFanAlert != ALERT_FAN_FAILED) return;
  if (controller.m_updateFanStatusCnt == kClearReadings) {
    TRACE_AS(kAlarm, "FAN raised from dead");
    TRACE_AS(kAlarm, "m_updateFanStatusCnt", controller.m_updateFanStatusCnt);
    controller.alertNotification(ALERT_FAN_WORKING);
    controller.m_updateFanStatusCnt = 0;
  } else {
    TRACE_AS(kAlarm, "read 0 in fan1_alarm for the ", controller.m_updateFanStatusCnt, "time");
    ++controller.m_updateFanStatusCnt;
  }
}

void try_restart(FanController& controller) {
  TRACE_AS(kAlarm, "try to restart the FAN");
  TRACE_AS(kAlarm, "setting highest value");
  controller.m_curCmd->set_cur_cmd_val(last_command(controller.m_valueMap));
  (void)::sleep(kRestartSeconds);
}

}  // namespace

void FanController::getFanAlarm(int* alarmDescriptor, bool restart) {
  const auto value = sysfs_read_attr(m_fanAlarmPath.c_str());
  if (!value) return;
  if (std::strcmp(value.get(), kAlarmRaised) != 0) {
    count_clear_reading(*this);
    if (!restart) refreshTemperature(false);
    return;
  }
  m_updateFanStatusCnt = 0;
  TRACE("read 1 in fan1alarm");
  if (restart) {
    if (m_lastFanAlert != ALERT_FAN_WORKING) return;
    try_restart(*this);
    getFanAlarm(alarmDescriptor, false);
    return;
  }
  TRACE("FAN still blocked");
  TRACE("raise alert");
  TRACE("m_lastFanAlert ", m_lastFanAlert);
  alertNotification(ALERT_FAN_FAILED);
  refreshTemperature(false);
}

// --- Fan driver discovery ---

namespace {

constexpr char kDiscovery[] = "detectProductConfig";

void use_driver(FanController& controller, const DriverRow& driver) {
  const std::string& directory = controller.m_fanDriverSysfsDir;
  TRACE_AS(kDiscovery, driver.match);
  syslog(LOG_INFO, driver.kind == FAN_DRIVER_I2C ? MATCH_I2C : MATCH_GPIO);
  controller.m_fanDriverType = driver.kind;
  if (driver.asksForMode) {
    const auto closeLoop = runs_close_loop(directory);
    if (closeLoop) {
      TRACE_AS(kDiscovery, *closeLoop ? "Fan mode is close-loop" : "Fan mode is open-loop");
    }
    controller.m_closeLoop = closeLoop.value_or(false);
  }
  controller.m_fanCmdPath = command_path(directory, driver, controller.m_closeLoop);
  controller.m_fanAlarmPath = alarm_path(directory, controller.m_fanAlarmPath);
}

// Leaves the driver type at FAN_DRIVER_NONE when there is nothing to be recognised.
void find_driver(FanController& controller) {
  const std::string& path = controller.m_fanDriverSysfsDir;
  const DirPtr directory(::opendir(path.c_str()));
  if (!directory) {
    TRACE_AS(kDiscovery, "config dir ", path, "does not exist or is not a directory");
    return;
  }
  TRACE_AS(kDiscovery, "Get current entries in sysfs ", path);
  auto entries = list_readable_entries(directory.get(), path);
  for (const std::string& name : entries) {
    TRACE_AS(kDiscovery, "Keep sysfs entry: ", path, "/", name);
  }
  if (const DriverRow* driver = match_driver(std::move(entries))) {
    use_driver(controller, *driver);
  } else {
    TRACE_AS(kDiscovery, "Sysfs entries in ", path, " does not match with any known pattern");
  }
}

}  // namespace

void FanController::detectProductConfig() {
  if (m_fanDriverSysfsDir.empty()) {
    m_fanDriverType = FAN_DRIVER_NONE;
  } else {
    find_driver(*this);
  }
  m_curCmd = std::make_unique<CurCmd>(m_fanCmdPath);
  if (m_fanDriverType != FAN_DRIVER_NONE) return;
  syslog(LOG_WARNING,
         "Unable to find appropriate fan entries in sysfs - consider a fanless product");
  TRACE("Unable to find appropriate fan entries in sysfs - consider a fanless product");
}

// --- Configuration files ---

bool FanController::loadConfig() {
  const std::string path = join({m_configDir, "/", CONFIG_FILE});
  const FilePtr file(std::fopen(path.c_str(), "r"));
  if (!file) {
    TRACE("Fail to open configfile ", path);
    return false;
  }
  TRACE("configfile ", path, " has been opened");
  Setting setting;
  while (next_setting(file.get(), setting)) {
    const auto& rows = SETTING_ROWS<FanController>;
    const auto row = std::ranges::find(rows, setting.key, &SettingRow<FanController>::key);
    if (row == rows.end()) continue;
    apply_setting(*this, *row, setting.value);
    TRACE(row->label, setting.value);
  }
  return true;
}

bool FanController::loadValuesTab() {
  const std::string path = join({m_configDir, "/", CMD_TABLE_FILE});
  const FilePtr file(std::fopen(path.c_str(), "r"));
  if (!file) return false;
  read_command_table(file.get(), m_valueMap);
  TRACE("=> value tab file loaded ");
  return true;
}

// --- Status file ---

namespace {

std::string status_header(int alertLevel) {
  const std::time_t now = std::time(nullptr);
  const std::tm* local = std::localtime(&now);
  const std::tm time = local != nullptr ? *local : std::tm{};
  return join({"# Tarvo Fan Controller Service\n", "# Current state for HDD temperatures\n",  //
               "# ", alertLevel, "degC is considered as the alert level ", "for HDD temperature\n",
               "# System time : ", time.tm_hour, ":", time.tm_min, ":", time.tm_sec, "\t",
               time.tm_mday, "-", time.tm_mon + 1, "-", time.tm_year + 1900, "\n"});
}

// Devices are in the kernel's order, temperatures in the order of the drives' identities. The two
// orders differ: a line may show another disk's temperature; kept, because others parse it.
std::string drive_lines(FanController& controller, int alertLevel) {
  std::string lines;
  auto& device = controller.m_hddDevicesIt;
  auto& drive = controller.m_hddTempMapIt;
  device = controller.m_hddDevices.begin();
  drive = controller.m_hddTempMap.begin();
  for (int n = 1; device != controller.m_hddDevices.end() && drive != controller.m_hddTempMap.end();
       ++device, ++drive, ++n) {
    const char* state = drive->second < alertLevel ? "OK ; " : "HOT ; ";
    lines += join({*device, "_is_", state, "Temp HDD", n, " = ", drive->second, "degC ", " [",
                   drive->first, "]\n"});
  }
  return lines;
}

}  // namespace

int FanController::dumpInfoToFile() {
  if (m_dumpInfoFile.empty()) return 0;
  const FilePtr file(std::fopen(m_dumpInfoFile.c_str(), "w+"));
  if (!file) return 0;
  m_valueMapIt = m_valueMap.empty() ? m_valueMap.end() : std::prev(m_valueMap.end());
  const int level = alert_level(m_valueMap);
  std::string text = status_header(level);
  if (sysfs_read_attr(m_tempSensorPath.c_str())) {
    const char* state = m_currentTemp < level ? "OK : " : "HOT : ";
    text += join({"System Temp is ", state, m_currentTemp, "degC\n"});
  } else {
    text += drive_lines(*this, level);
  }
  *m_infoString = std::move(text);
  // Up to the first NUL; a drive may have them in its identity.
  (void)std::fputs(m_infoString->c_str(), file.get());
  return 1;
}
