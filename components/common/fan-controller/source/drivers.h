// The fan drivers that are known, each by the names of its attributes (the kernel's hwmon sysfs
// interface).
#pragma once

#include <dirent.h>

#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// What the configured sysfs directory turned out to hold.
enum FanDriverType : int {
  FAN_DRIVER_NONE = 0,  ///< fanless product
  FAN_DRIVER_GPIO = 1,
  FAN_DRIVER_I2C = 2,
};

inline constexpr std::string_view FAN_ALARM = "fan1_alarm";
inline constexpr std::string_view FAN_PWM = "pwm1";
inline constexpr std::string_view FAN_MODE = "pwm1_enable";
inline constexpr std::string_view FAN_TARGET = "fan1_target";

// In the order of their bytes.
inline constexpr std::array<std::string_view, 10> I2C_ATTRIBUTES = {
    FAN_ALARM, "fan1_div", "fan1_input", FAN_TARGET,  "modalias",
    "name",    FAN_PWM,    FAN_MODE,     "pwm1_mode", "uevent"};
inline constexpr std::array<std::string_view, 11> GPIO_ATTRIBUTES = {
    FAN_ALARM, "fan1_input", "fan1_max", "fan1_min",  FAN_TARGET, "modalias",
    "name",    FAN_PWM,      FAN_MODE,   "pwm1_mode", "uevent"};

inline constexpr char MATCH_I2C[] = "Match a fan driver I2C interface";
inline constexpr char MATCH_GPIO[] = "Match a fan driver GPIO interface";

/// A kind of driver. A directory that holds exactly these readable files, in no particular order,
/// has it.
struct DriverRow {
  FanDriverType kind;
  const char* match;  ///< the text that reports the match
  std::string_view command;
  bool asksForMode;  ///< whether FAN_MODE can send the commands to FAN_TARGET instead
  std::span<const std::string_view> attributes;
};

/// In the order in which they are tried.
inline constexpr DriverRow DRIVER_ROWS[] = {
    {.kind = FAN_DRIVER_I2C,
     .match = MATCH_I2C,
     .command = FAN_PWM,
     .asksForMode = true,
     .attributes = I2C_ATTRIBUTES},
    {.kind = FAN_DRIVER_GPIO,
     .match = MATCH_GPIO,
     .command = FAN_TARGET,
     .asksForMode = false,
     .attributes = GPIO_ATTRIBUTES},
};

/// The names in an open directory that can be opened for reading, in the directory's order. Left
/// out are directories, links to them, and pipes. path: the directory's own.
std::vector<std::string> list_readable_entries(DIR* directory, const std::string& path);

/// The driver that has exactly these entries, in whatever order; null when there is none.
const DriverRow* match_driver(std::vector<std::string> entries);

/// Whether the driver in a directory regulates the fan's speed itself, as FAN_MODE tells; nothing
/// when that cannot be read.
std::optional<bool> runs_close_loop(const std::string& directory);

/// The full path of the attribute that takes the commands.
std::string command_path(const std::string& directory, const DriverRow& driver, bool closeLoop);

/// The full path of the alarm attribute to read: the configured one, or the driver's own where none
/// is configured or only the own one can be read.
std::string alarm_path(const std::string& directory, const std::string& configured);
