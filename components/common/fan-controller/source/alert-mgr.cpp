#include "alert-mgr.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "FanController.h"
#include "drivers.h"
#include "settings.h"
#include "utils.h"

namespace {

constexpr char kOperation[] = "alertNotification";
constexpr int kResourceRetries = 30;
constexpr unsigned int kResourceRetrySeconds = 10;

// Closes a connection whose storage is somebody else's.
struct ConnectionCloser {
  void operator()(corvane_handle* handle) const { (void)corvane_close(handle); }
};
using ConnectionPtr = std::unique_ptr<corvane_handle, ConnectionCloser>;

// Not asked first whether it is there: what cannot be read, or is a link to nothing, goes as well.
void remove_flag(char const* path) { (void)std::remove(path); }

// Nothing that somebody else has put there, nor another file's second name.
bool is_own_plain_file(const struct stat& status) {
  return S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == ::geteuid();
}

bool is_own_flag(char const* path) {
  struct stat status {};
  return ::lstat(path, &status) == 0 && is_own_plain_file(status);
}

void report_fan_failed(FanController& controller, corvane_handle& handle) {
  if (controller.m_lastFanAlert == ALERT_FAN_FAILED) return;
  if (controller.m_fanDriverType == FAN_DRIVER_NONE) return;
  controller.m_lastFanAlert = ALERT_FAN_FAILED;
  TRACE_AS(kOperation, "!!! The system fan is failing !!!");
  (void)send_config_to_corvane(&handle, "FanFailed");
  controller.create_file(FAN_FAILED_FLAG);
}

void report_fan_working(FanController& controller, corvane_handle& handle) {
  if (controller.m_lastFanAlert == ALERT_FAN_WORKING) return;
  controller.m_lastFanAlert = ALERT_FAN_WORKING;
  TRACE_AS(kOperation, "!!! The system fan is working now !!!");
  (void)send_config_to_corvane(&handle, "FanRaisedFromDead");
  remove_flag(FAN_FAILED_FLAG);
  controller.refreshTemperature(false);
}

void report_temp_high(FanController& controller, corvane_handle& handle) {
  if (controller.m_lastTempAlert == ALERT_TEMP_HIGH) return;
  controller.m_lastTempAlert = ALERT_TEMP_HIGH;
  (void)controller.dumpInfoToFile();
  syslog(LOG_ERR, "%s %s (over %idegC)", "The temperature of the drive(s)",
         "is above normal values", alert_level(controller.m_valueMap));
  TRACE_AS(kOperation, "!!! temperature is too high !!!");
  controller.create_file(HIGH_TEMP_FLAG);
  remove_flag(CRIT_TEMP_FLAG);
  (void)send_config_to_corvane(&handle, "TemperatureAlert");
}

void report_temp_normal(FanController& controller, corvane_handle& handle) {
  if (controller.m_lastTempAlert == ALERT_TEMP_NORMAL) return;
  controller.m_lastTempAlert = ALERT_TEMP_NORMAL;
  syslog(LOG_ERR, "The temperature of the drive(s) is now normal.");
  TRACE_AS(kOperation, "!!! temperature is now normal. !!!");
  // What somebody else has put in the critical flag's place must not keep the high one.
  if (!is_own_flag(CRIT_TEMP_FLAG)) remove_flag(HIGH_TEMP_FLAG);
  remove_flag(CRIT_TEMP_FLAG);
  (void)send_config_to_corvane(&handle, "OK");
}

void report_temp_critical(FanController& controller, corvane_handle& handle) {
  controller.m_lastTempAlert = ALERT_TEMP_CRITICAL;
  TRACE_AS(kOperation, "!!! temperature is critical, shut down now !!!");
  (void)controller.dumpInfoToFile();
  remove_flag(HIGH_TEMP_FLAG);
  controller.create_file(CRIT_TEMP_FLAG);
  syslog(LOG_ERR, "%s (over %idegC)%s", "The temperature of the drive(s) is critical",
         controller.m_hddCriticalTemp, "SYSTEM WILL NOW SHUTDOWN FOR EMERGENCY");
  (void)send_config_to_corvane(&handle, "TemperatureTooHigh");
}

void report_no_drive_temp(corvane_handle& handle) {
  TRACE_AS(kOperation, "!!! no temperature sensored from any hdd device !!!");
  syslog(LOG_WARNING, "%s%s\n%s%s", "The drives detected in the system ",
         "are not providing their temperature values.", "As a precaution, the fan speed is set ",
         "to the maximum.");
  (void)send_config_to_corvane(&handle, "KO");
}

// The line feed inside the message leaves an empty line behind it.
void trace_missing_file(const FanController& controller, const char* name) {
  TRACE_AS(kOperation, "!!! unable to find config file ", name, " in ", controller.m_configDir,
           " !!!\n");
}

void report_missing_config(FanController& controller, corvane_handle& handle) {
  controller.m_missingConfigAlertRaised = true;
  trace_missing_file(controller, CONFIG_FILE);
  (void)send_config_to_corvane(&handle, "MissingConfig");
}

void report_missing_cmd_table(FanController& controller, corvane_handle& handle) {
  trace_missing_file(controller, CMD_TABLE_FILE);
  controller.m_missingCmdTableAlertRaised = true;
  if (controller.m_fanDriverType != FAN_DRIVER_NONE) {
    syslog(LOG_WARNING,
           "The fan controller could not be initialized. As a precaution, the fan speed is set to "
           "the maximum.");
  } else {
    syslog(LOG_WARNING, "The temperature controller could not be initialized.");
  }
  (void)send_config_to_corvane(&handle, "FanNonRotating");
}

// Without a default, so that a kind that is added has to be thought of here. A number that is no
// kind tells the library that something happened, and no more.
void report(FanController& controller, AlertKind kind, corvane_handle& handle) {
  switch (kind) {
    case ALERT_FAN_FAILED:
      return report_fan_failed(controller, handle);
    case ALERT_FAN_WORKING:
      return report_fan_working(controller, handle);
    case ALERT_TEMP_HIGH:
      return report_temp_high(controller, handle);
    case ALERT_TEMP_NORMAL:
      return report_temp_normal(controller, handle);
    case ALERT_TEMP_CRITICAL:
      return report_temp_critical(controller, handle);
    case ALERT_NO_DRIVE_TEMP:
      return report_no_drive_temp(handle);
    case ALERT_MISSING_CONFIG:
      return report_missing_config(controller, handle);
    case ALERT_MISSING_CMD_TABLE:
      return report_missing_cmd_table(controller, handle);
    case ALERT_PID_FILE_ERROR:
      return;
  }
}

constexpr int kReplaceAttempts = 100;

// A flag that is there already stays there: programs may look for it at any moment.
bool empty_own_file(char const* path) {
  struct stat status {};
  if (!is_own_flag(path)) return false;
  const Descriptor file(::open(path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return file && ::fstat(file.get(), &status) == 0 && is_own_plain_file(status) &&
         ::ftruncate(file.get(), 0) == 0;
}

bool create_new_file(char const* path) {
  constexpr mode_t kEverybody = 0666;  // less the file mode mask
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
  return static_cast<bool>(Descriptor(::open(path, kFlags, kEverybody)));
}

// A folder that is not empty cannot be removed: it gets a name that nobody else has.
void put_folder_aside(char const* path) {
  if (::rmdir(path) == 0) return;
  std::string aside = join({path, ".XXXXXX"});
  if (::mkdtemp(aside.data()) == nullptr) return;
  if (std::rename(path, aside.c_str()) != 0) (void)::rmdir(aside.c_str());
}

// Rejects links planted in /var/tmp, and whatever else is in the way: a file made in a folder of
// our own takes its place in one step, so nobody can be quicker.
bool replace_planted(char const* path) {
  std::string own = join({path, ".XXXXXX"});
  if (::mkdtemp(own.data()) == nullptr) return false;
  const std::string file = join({own, "/flag"});
  bool replaced = false;
  if (create_new_file(file.c_str())) {
    for (int attempt = 0; !replaced && attempt < kReplaceAttempts; ++attempt) {
      replaced = std::rename(file.c_str(), path) == 0;
      if (!replaced && errno != EISDIR) break;
      if (!replaced) put_folder_aside(path);
    }
    (void)::unlink(file.c_str());
  }
  (void)::rmdir(own.c_str());
  return replaced;
}

bool create_empty(char const* path) {
  if (empty_own_file(path) || create_new_file(path)) return true;
  return errno == EEXIST && replace_planted(path);
}

}  // namespace

void FanController::alertNotification(int kind) {
  corvane_handle handle{};
  if (corvane_init(&handle) != 0) {
    syslog(LOG_ERR, "no communication with libcorvane, exit alertnotify\n");
    return;
  }
  const ConnectionPtr connection(&handle);
  wait_for_fan_resource(&handle, corvane_get_config(&handle, FAN_RESOURCE_ID));
  report(*this, AlertKind{kind}, handle);
  (void)corvane_set_config(&handle, FAN_RESOURCE_ID);
}

// Rejects links planted in /var/tmp, which could lead root to a device, and waits for no pipe.
int FanController::check_file(char const* path) {
  const Descriptor file(::open(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  return file ? 1 : 0;
}

void FanController::create_file(char const* path) {
  if (create_empty(path)) {
    syslog(LOG_ERR, "Creating %s file", path);
  } else {
    syslog(LOG_ERR, "Can't open file %s", path);
  }
}

void wait_for_fan_resource(corvane_handle* handle, int lastResult) {
  for (int retry = 0; lastResult != 0; ++retry) {
    if (retry == kResourceRetries) {
      syslog(LOG_ERR, "Empty result for resource");
      return;
    }
    lastResult = corvane_get_config(handle, FAN_RESOURCE_ID);
    (void)::sleep(kResourceRetrySeconds);
  }
}

int send_config_to_corvane(void* handle, char const* status) {
  TRACE("Send fan status ", status, " to corvane");
  auto* connection = static_cast<corvane_handle*>(handle);
  (void)corvane_set_property_string(connection, "status", status);
  return corvane_set_config(connection, FAN_RESOURCE_ID);
}
