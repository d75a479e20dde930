// What the rest of the appliance is told: alert kinds, flag files and the bridge to the management
// library.
#pragma once

#include <corvane.h>

#include "alert-flags.h"

/// The argument of FanController::alertNotification and the values of its alert memory.
enum AlertKind : int {
  ALERT_FAN_FAILED = 0,
  ALERT_FAN_WORKING = 1,
  ALERT_TEMP_HIGH = 2,
  ALERT_TEMP_NORMAL = 3,
  ALERT_TEMP_CRITICAL = 4,
  ALERT_NO_DRIVE_TEMP = 5,
  ALERT_MISSING_CONFIG = 6,
  ALERT_MISSING_CMD_TABLE = 7,
  ALERT_PID_FILE_ERROR = 8,
};

/// The alert memory's value before anything is known.
inline constexpr int ALERT_UNKNOWN = -1;

/// The management library's resource that stands for the fan.
inline constexpr int FAN_RESOURCE_ID = 16;

/// Retries until the library delivers the fan resource, at most 30 times 10 seconds, and logs at
/// LOG_ERR when it never does. lastResult: what the caller's own first corvane_get_config gave; 0
/// means that there is nothing to wait for.
void wait_for_fan_resource(corvane_handle* handle, int lastResult);

/// Sets the "status" property of the fan resource and writes the resource back. handle: a connected
/// corvane_handle. Result: that of corvane_set_config, 0 for success.
int send_config_to_corvane(void* handle, char const* status);
