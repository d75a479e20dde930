// The fan command table by itself: its file's lines, its ends and the choice of a step.
#pragma once

#include <cstdint>
#include <cstdio>
#include <map>

/// The table's file in the configuration directory.
inline constexpr char CMD_TABLE_FILE[] = "fan_cmd_tab.conf";

/// Step temperature in degrees Celsius to fan command, in the command attribute's own units.
using CommandTable = std::map<int, int>;

/// Adds the steps of an open file to the table: a line each of the form temperature=command; a
/// later line replaces an earlier one of the same temperature.
void read_command_table(std::FILE* file, CommandTable& table);

/// The command of the lowest step; 0 with an empty table.
int first_command(const CommandTable& table);

/// The command of the highest step; 0 with an empty table.
int last_command(const CommandTable& table);

/// The temperature of the highest step, above which a temperature is reported high; 0 with an empty
/// table.
int alert_level(const CommandTable& table);

/// Where a temperature lies in the table and which command it gets.
struct Selection {
  enum Place {
    kBelow,    ///< at or below the lowest step
    kAbove,    ///< above the highest one
    kBetween,  ///< above the lowest step, up to the highest one
  };
  struct Step {
    int temperature;
    int command;
  };

  Place place = kBelow;
  int command = 0;
  // Set for kBetween only.
  Step lower{};  ///< the steps on both sides; the upper one may be the temperature's own
  Step upper{};
  std::int64_t diffInf = 0;  ///< degrees from the lower step; a table may span all of int
  std::int64_t diffSup = 0;  ///< degrees up to the upper step
  bool takesUpper = false;
};

/// Chooses the command for a temperature. Between two steps the nearer one decides, the lower one
/// at equal distance; by hysteresis a rising or steady temperature takes the upper one and a
/// falling one the lower. previous: the temperature measured before, used by hysteresis only.
Selection select_command(const CommandTable& table, int temperature, int previous, bool hysteresis);
