#include "cmd-table.h"

#include <iterator>

#include "settings.h"
#include "utils.h"

void read_command_table(std::FILE* file, CommandTable& table) {
  Setting step;
  while (next_setting(file, step))
    table[parse_int(step.key.c_str())] = parse_int(step.value.c_str());
}

static int lowest_step(const CommandTable& table) {
  return table.empty() ? 0 : table.begin()->first;
}

int first_command(const CommandTable& table) { return table.empty() ? 0 : table.begin()->second; }

int last_command(const CommandTable& table) { return table.empty() ? 0 : table.rbegin()->second; }

int alert_level(const CommandTable& table) { return table.empty() ? 0 : table.rbegin()->first; }

Selection select_command(const CommandTable& table, int temperature, int previous,
                         bool hysteresis) {
  Selection selection;
  if (temperature <= lowest_step(table)) {
    selection.command = first_command(table);
    return selection;
  }
  if (temperature > alert_level(table)) {
    selection.place = Selection::kAbove;
    selection.command = last_command(table);
    return selection;
  }
  const auto upper = table.lower_bound(temperature);
  const auto lower = std::prev(upper);
  selection.place = Selection::kBetween;
  selection.lower = {lower->first, lower->second};
  selection.upper = {upper->first, upper->second};
  selection.diffInf = std::int64_t{temperature} - lower->first;
  selection.diffSup = std::int64_t{upper->first} - temperature;
  selection.takesUpper =
      hysteresis ? previous <= temperature : selection.diffSup < selection.diffInf;
  selection.command = selection.takesUpper ? upper->second : lower->second;
  return selection;
}
