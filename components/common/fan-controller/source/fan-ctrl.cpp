#include <fcntl.h>
#include <sys/select.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <iterator>
#include <set>
#include <span>
#include <string_view>
#include <utility>

#include "FanController.h"
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

int first_command(const FanController& controller) {
  return controller.m_valueMap.empty() ? 0 : controller.m_valueMap.begin()->second;
}

int last_command(const FanController& controller) {
  return controller.m_valueMap.empty() ? 0 : controller.m_valueMap.rbegin()->second;
}

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
bool wait_before_reload(const FanController& controller) {
  for (int second = 0; second < kLoadRetrySeconds; ++second) {
    (void)::sleep(1);
    if (*controller.m_isSigTermDetected) return false;
  }
  return true;
}

// Repeats one of the file readers until it succeeds. False: SIGTERM ended the wait for the file.
bool load_patiently(FanController& controller, bool (FanController::*load)(),
                    bool FanController::*alertRaised, AlertKind missing) {
  while (!(controller.*load)()) {
    if (!(controller.*alertRaised)) controller.alertNotification(missing);
    if (!wait_before_reload(controller)) return false;
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
    const int command = first_command(controller);
    TRACE_AS(kWatcher, "Switch to spindown mode ", command);
    controller.m_curCmd->set_cur_cmd_val(command);
    controller.m_spindownMode = true;
    *controller.m_switchToSpindownMode = false;
  }
}

// False: SIGTERM ended the wait.
bool count_down(const FanController& controller, int seconds) {
  for (; seconds > 0; --seconds) {
    if (*controller.m_isSigTermDetected) return false;
    (void)::sleep(1);
  }
  return true;
}

// A timed wait: a descriptor count of 1 leaves the alarm attribute out of what select() watches, as
// sysfs would report it ready at once. A signal ends it early.
void wait_and_check_alarm(FanController& controller, int alarm, int period) {
  fd_set attributes;
  FD_ZERO(&attributes);
  const bool fits = alarm < FD_SETSIZE;  // not so behind a thousand inherited descriptors
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
  if (controller.m_fanDriverType == FAN_DRIVER_NONE) {
    if (!count_down(controller, period)) TRACE_AS(kWatcher, "Exit now !!");
    return;
  }
  const DescriptorPtr alarm(Descriptor(::open(controller.m_fanAlarmPath.c_str(), O_RDONLY)));
  if (alarm) {
    wait_and_check_alarm(controller, alarm.get().fd, period);
  } else if (!count_down(controller, period)) {
    TRACE_AS(kWatcher, "get down the fan to the minimum speed before exit");
    controller.m_curCmd->set_cur_cmd_val(first_command(controller));
  }
}

void remove_pid_file(const FanController& controller) {
  (void)::unlink(controller.m_pidFile.c_str());
}

}  // namespace

void FanController::endlessWatcher(bool oneshot) {
  write_pid_file(*this);
  if (!load_patiently(*this, &FanController::loadConfig, &FanController::m_missingConfigAlertRaised,
                      ALERT_MISSING_CONFIG)) {
    return;
  }
  TRACE("=> config file loaded");
  detectProductConfig();
  if (!load_patiently(*this, &FanController::loadValuesTab,
                      &FanController::m_missingCmdTableAlertRaised, ALERT_MISSING_CMD_TABLE)) {
    return;
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
  remove_pid_file(*this);
}

// --- Temperature ---

namespace {

constexpr int kMillidegrees = 1000;
constexpr char kPartitions[] = "/proc/partitions";
constexpr std::size_t kPartitionLine = 256;  // a longer line is considered in pieces
constexpr std::size_t kDeviceName = 3;       // "sd" and the drive letter

// Collects the whole disks. The name's place and length are all that is looked at, so a 27th disk
// (sdaa) counts as the first one once more. False, and none, when the list cannot be read to its
// end: the hottest disk may be among those that are missing.
bool list_disks(std::FILE* partitions, std::vector<std::string>& devices) {
  // Two bytes more than a line takes: the byte behind an "sd" at the very end is looked at too.
  std::array<char, kPartitionLine + 2> line{};
  while (std::fgets(line.data(), kPartitionLine, partitions) != nullptr) {
    const char* name = std::strstr(line.data(), "sd");
    if (name == nullptr) continue;
    const char behindLetter = name[kDeviceName];
    if (behindLetter >= '0' && behindLetter <= '9') continue;
    devices.push_back(join({"/dev/", std::string_view(name, kDeviceName)}));
  }
  if (std::ferror(partitions) == 0) return true;
  devices.clear();
  return false;
}

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
  const FilePtr partitions(std::fopen(kPartitions, "rb"));
  if (!partitions || !list_disks(partitions.get(), m_hddDevices)) return -1;

  m_hddTempMap.clear();
  int maximum = 0;
  for (m_hddDevicesIt = m_hddDevices.begin(); m_hddDevicesIt != m_hddDevices.end();
       ++m_hddDevicesIt) {
    const std::string& path = *m_hddDevicesIt;
    TRACE("hdd ", path, " is present ");
    const DescriptorPtr disk(Descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK)));
    if (!disk) {
      TRACE("and cannot be opened");
      continue;
    }
    if (activateSmart) {
      TRACE("Activate smart feature set on device ", path);
      (void)unable_smart_feature(disk.get().fd);
    }
    const int temperature = get_smart_attr_value(disk.get().fd);
    TRACE(path, " returned temp=", temperature, "degC");
    m_hddTempMap[get_identify_data(disk.get().fd)] = temperature;
    maximum = std::max(maximum, temperature);
  }

  take_temperature(*this, __func__, "TMAX = ", maximum);
  return -1;
}

// --- Command selection ---

namespace {

constexpr char kSelection[] = "processCmd";

// Between two steps the nearer one decides, the lower one at equal distance.
void apply_nearest_step(FanController& controller) {
  const int temperature = controller.m_currentTemp;
  auto& step = controller.m_valueMapIt;
  const auto upper = step;
  const auto lower = std::prev(step);
  // Wider than int: a table may span all of its range.
  const std::int64_t diffInf = std::int64_t{temperature} - lower->first;
  const std::int64_t diffSup = std::int64_t{upper->first} - temperature;
  TRACE_AS(kSelection, "m_valueMapIt->first ", upper->first);
  TRACE_AS(kSelection, "m_currentTemp ", temperature);
  TRACE_AS(kSelection, "m_valueMapIt->first ", lower->first);
  TRACE_AS(kSelection, "diffInf ", diffInf);
  TRACE_AS(kSelection, "diffSup ", diffSup);
  if (diffSup < diffInf) {
    controller.m_curCmd->set_cur_cmd_val(upper->second);
    TRACE_AS(kSelection, temperature, " choose upper limit ", upper->first);
  } else {
    step = lower;
    controller.m_curCmd->set_cur_cmd_val(lower->second);
    TRACE_AS(kSelection, temperature, " choose lower limit ", lower->first);
  }
}

// Between two steps a rising or steady temperature takes the upper one, a falling one the lower.
void apply_by_hysteresis(FanController& controller) {
  const int temperature = controller.m_currentTemp;
  const int previous = controller.m_previousTemp;
  const auto upper = controller.m_valueMapIt;
  if (previous <= temperature) {
    controller.m_curCmd->set_cur_cmd_val(upper->second);
    TRACE_AS(kSelection, temperature, ": choose upper limit ", upper->first, previous);
  } else {
    const auto lower = std::prev(upper);
    controller.m_curCmd->set_cur_cmd_val(lower->second);
    TRACE_AS(kSelection, temperature, ": choose lower limit ", lower->first);
  }
  TRACE_AS(kSelection, " previous temp value was ", previous);
}

}  // namespace

bool FanController::processCmd() {
  const int tLow = m_valueMap.empty() ? 0 : m_valueMap.begin()->first;
  const int tHigh = alertLevel();
  TRACE("current temp = ", m_currentTemp);
  const bool belowTable = m_currentTemp <= tLow;
  if (belowTable) {
    m_curCmd->set_cur_cmd_val(first_command(*this));
    TRACE(" take min step of values tab i.e. ");
  }
  TRACE("tHigh ", tHigh);
  if (m_currentTemp > tHigh) {
    TRACE(" take max step of values tab i.e. ");
    m_curCmd->set_cur_cmd_val(last_command(*this));
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
  if (belowTable) return true;

  m_valueMapIt = m_valueMap.lower_bound(m_currentTemp);
  if (m_useHysteresis) {
    apply_by_hysteresis(*this);
  } else {
    apply_nearest_step(*this);
  }
  return true;
}

int FanController::alertLevel() const {
  return m_valueMap.empty() ? 0 : m_valueMap.rbegin()->first;
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
  controller.m_curCmd->set_cur_cmd_val(last_command(controller));
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
constexpr char kCloseLoop[] = "2";  // pwm1_enable: the driver regulates the speed itself

// The attributes of the two known drivers, in the order of their bytes.
constexpr std::array<std::string_view, 10> kI2cAttributes = {
    "fan1_alarm", "fan1_div", "fan1_input",  "fan1_target", "modalias",
    "name",       "pwm1",     "pwm1_enable", "pwm1_mode",   "uevent"};
constexpr std::array<std::string_view, 11> kGpioAttributes = {
    "fan1_alarm", "fan1_input", "fan1_max",    "fan1_min",  "fan1_target", "modalias",
    "name",       "pwm1",       "pwm1_enable", "pwm1_mode", "uevent"};
static_assert(std::ranges::is_sorted(kI2cAttributes));
static_assert(std::ranges::is_sorted(kGpioAttributes));

using Entries = std::set<std::string>;

bool matches(const Entries& entries, std::span<const std::string_view> attributes) {
  return std::ranges::equal(entries, attributes);
}

Entries list_readable_entries(DIR* directory, const std::string& path) {
  Entries entries;
  while (const dirent* entry = ::readdir(directory)) {
    const std::string_view name = entry->d_name;
    if (name == "." || name == "..") continue;
    const std::string full = join({path, "/", name});
    if (DirPtr(::opendir(full.c_str()))) continue;
    if (!FilePtr(std::fopen(full.c_str(), "r"))) continue;
    TRACE_AS(kDiscovery, "Keep sysfs entry: ", full);
    entries.emplace(name);
  }
  return entries;
}

std::string attribute_path(const FanController& controller, std::string_view name) {
  return join({controller.m_fanDriverSysfsDir, "/", name});
}

void use_default_alarm(FanController& controller) {
  if (controller.m_fanAlarmPath.empty()) {
    controller.m_fanAlarmPath = attribute_path(controller, "fan1_alarm");
  }
}

void configure_i2c(FanController& controller) {
  TRACE_AS(kDiscovery, "Match a fan driver I2C interface");
  syslog(LOG_INFO, "Match a fan driver I2C interface");
  controller.m_fanDriverType = FAN_DRIVER_I2C;
  controller.m_fanCmdPath = attribute_path(controller, "pwm1");
  const auto mode = sysfs_read_attr(attribute_path(controller, "pwm1_enable").c_str());
  if (mode && std::strcmp(mode.get(), kCloseLoop) == 0) {
    TRACE_AS(kDiscovery, "Fan mode is close-loop");
    controller.m_closeLoop = true;
  } else if (mode) {
    TRACE_AS(kDiscovery, "Fan mode is open-loop");
  }
  use_default_alarm(controller);
}

void configure_gpio(FanController& controller) {
  TRACE_AS(kDiscovery, "Match a fan driver GPIO interface");
  syslog(LOG_INFO, "Match a fan driver GPIO interface");
  controller.m_fanCmdPath = attribute_path(controller, "fan1_target");
  controller.m_fanDriverType = FAN_DRIVER_GPIO;
  use_default_alarm(controller);
}

// A configured alarm attribute that cannot be read gives way to the driver's own.
void check_alarm_path(FanController& controller) {
  if (sysfs_read_attr(controller.m_fanAlarmPath.c_str())) return;
  std::string own = attribute_path(controller, "fan1_alarm");
  if (sysfs_read_attr(own.c_str())) controller.m_fanAlarmPath = std::move(own);
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
  const Entries entries = list_readable_entries(directory.get(), path);
  if (matches(entries, kI2cAttributes)) {
    configure_i2c(controller);
  } else if (matches(entries, kGpioAttributes)) {
    configure_gpio(controller);
  } else {
    TRACE_AS(kDiscovery, "Sysfs entries in ", path, " does not match with any known pattern");
  }
  if (controller.m_fanDriverType != FAN_DRIVER_NONE) check_alarm_path(controller);
  if (controller.m_closeLoop) controller.m_fanCmdPath = attribute_path(controller, "fan1_target");
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

namespace {

// What one line of a configuration file sets.
struct Setting {
  std::string key;
  std::string value;
};

void strip_trailing_spaces(std::string& text) {
  text.erase(text.find_last_not_of(' ') + 1);  // npos + 1 is 0: nothing but spaces
}

// Finds the next line of the form key=value; empty lines, comments (a # in the first column) and
// lines without a = are passed over. False at the end of the file.
bool next_setting(std::FILE* file, Setting& setting) {
  std::string line;
  while (read_line(file, line)) {
    if (line.empty() || line.front() == '#') continue;
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    setting.key = line.substr(0, equals);
    setting.value = line.substr(equals + 1);
    strip_trailing_spaces(setting.key);
    strip_trailing_spaces(setting.value);
    return true;
  }
  return false;
}

struct KnownSetting {
  std::string_view key;
  const char* label;  // of the trace
  void (*apply)(FanController& controller, const std::string& value);
};

constexpr KnownSetting kKnownSettings[] = {
    {"pid_file", "pid_file : ",
     [](FanController& controller, const std::string& value) { controller.m_pidFile = value; }},
    {"fan_driver_sysfs_dir", "fan_driver_interface : ",
     [](FanController& controller, const std::string& value) {
       controller.m_fanDriverSysfsDir = value;
     }},
    {"fan_driver_sysfs_alarm", "fan_driver_alarm : ",
     [](FanController& controller, const std::string& value) {
       controller.m_fanAlarmPath = value;
     }},
    {"period_in_sec", "period_in_sec found: ",
     [](FanController& controller, const std::string& value) {
       controller.m_periodInSec = parse_int(value.c_str());
     }},
    {"dump_info_to_file", "dump_info_to_file : ",
     [](FanController& controller, const std::string& value) {
       controller.m_dumpInfoFile = value;
     }},
    {"use_hysteresis", "use_hysteresis : ",
     [](FanController& controller, const std::string& value) {
       if (value == "yes") controller.m_useHysteresis = true;
     }},
    {"hdd_critical_temperature", "hdd_critical_temperature : ",
     [](FanController& controller, const std::string& value) {
       controller.m_hddCriticalTemp = parse_int(value.c_str());
     }},
    {"temp_sensor_sysfs_entry", "temp_sensor_sysfs_entry: ",
     [](FanController& controller, const std::string& value) {
       controller.m_tempSensorPath = value;
     }},
};

}  // namespace

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
    const auto* known = std::ranges::find(kKnownSettings, setting.key, &KnownSetting::key);
    if (known == std::end(kKnownSettings)) continue;
    known->apply(*this, setting.value);
    TRACE(known->label, setting.value);
  }
  return true;
}

bool FanController::loadValuesTab() {
  const std::string path = join({m_configDir, "/", CMD_TABLE_FILE});
  const FilePtr file(std::fopen(path.c_str(), "r"));
  if (!file) return false;
  Setting step;
  while (next_setting(file.get(), step)) {
    m_valueMap[parse_int(step.key.c_str())] = parse_int(step.value.c_str());
  }
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

// The n-th device of the list stands beside the n-th drive of the map, which is in the order of the
// drives' identities.
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
  const int level = alertLevel();
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
