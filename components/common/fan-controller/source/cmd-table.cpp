#include "cmd-table.h"

#include <iterator>

#include "settings.h"
#include "utils.h"

void read_command_table(std::FILE* file, CommandTable& table) {
  Setting step;
  while (next_setting(file, step))
    table[parse_int(step.key.c_str())] = parse_int(step.value.c_str());
}

int first_command(const CommandTable& table) { return table.empty() ? 0 : table.begin()->second; }

int last_command(const CommandTable& table) { return table.empty() ? 0 : table.rbegin()->second; }

int alert_level(const CommandTable& table) { return table.empty() ? 0 : table.rbegin()->first; }

Selection select_command(const CommandTable& table, int temperature, int previous,
                         bool hysteresis) {
  const int lowest = table.empty() ? 0 : table.begin()->first;
  if (temperature <= lowest) return {.place = Selection::kBelow, .command = first_command(table)};
  if (temperature > alert_level(table)) {
    return {.place = Selection::kAbove, .command = last_command(table)};
  }
  const auto upper = table.lower_bound(temperature);
  const auto lower = std::prev(upper);
  // Wider than int: a table may span all of its range.
  const bool nearerToUpper =
      std::int64_t{upper->first} - temperature < std::int64_t{temperature} - lower->first;
  const bool takesUpper = hysteresis ? previous <= temperature : nearerToUpper;
  return {.place = Selection::kBetween,
          .command = takesUpper ? upper->second : lower->second,
          .lower = {lower->first, lower->second},
          .upper = {upper->first, upper->second},
          .takesUpper = takesUpper};
}
