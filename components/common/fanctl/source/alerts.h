// The alerts that stand, by the service's flag files and by the guard's record.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "alert-flags.h"

/// An alert of the service and the flag file that says it.
struct AlertRow {
  std::string_view kind;
  const char* flag;
};

inline constexpr AlertRow ALERT_ROWS[] = {
    {"fan_failed", FAN_FAILED_FLAG},
    {"temperature_high", HIGH_TEMP_FLAG},
    {"temperature_critical", CRIT_TEMP_FLAG},
};

/// Since when a flag stands; nothing when it does not. Everybody can write to its folder, so only a
/// plain file of root's with one name counts. It is not opened.
std::optional<std::time_t> flag_since(const char* flag);

/// What the guard did last: fanctl guard writes it, others read it.
struct GuardRecord {
  int number = 0;       ///< counts what it did; 0: nothing yet
  bool stands = false;  ///< what made it act has not gone yet
  bool failed = false;  ///< the fan could not be given the highest command
  std::time_t since = 0;
  std::string reasons;      ///< their names, such as "hot"
  std::string temperature;  ///< degrees Celsius; empty when it was not known
  std::string text;         ///< one sentence
};

inline constexpr char GUARD_RECORD[] = "/var/lib/fan_controller/guard_acted";

/// The record; without a file that nothing was done.
GuardRecord read_guard_record();

/// Replaces the record. False, with errno, when it cannot be written.
bool write_guard_record(const GuardRecord& record);
