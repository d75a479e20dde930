// fanctl check: the two files, line by line.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <map>
#include <numeric>

#include "findings.h"
#include "utils.h"

namespace {

constexpr int kLongPeriod = 3600;
constexpr int kColdest = -40, kHottest = 120;  // what disks and sensors can be expected to report
constexpr int kFullPower = 255;

// Findings of one line.
class LineFindings {
 public:
  LineFindings(Findings& findings, const std::string& file, int line)
      : m_findings(findings), m_place(join({file, ":", line})) {}
  void error(std::initializer_list<TextPiece> text) {
    m_findings.push_back({m_place, true, join(text)});
  }
  void warning(std::initializer_list<TextPiece> text) {
    m_findings.push_back({m_place, false, join(text)});
  }

 private:
  Findings& m_findings;
  std::string m_place;
};

// The number of letters to change, insert or drop that makes one word of the other.
std::size_t distance(std::string_view left, std::string_view right) {
  std::vector<std::size_t> row(right.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < left.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i + 1;
    for (std::size_t j = 0; j < right.size(); ++j) {
      const std::size_t changed = diagonal + (left[i] == right[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min(changed, std::min(row[j], row[j + 1]) + 1);
    }
  }
  return row.back();
}

std::string_view nearest_key(const std::string& key) {
  const auto& rows = SETTING_ROWS<Settings>;
  const auto begun =
      std::ranges::find_if(rows, [&](const auto& row) { return row.key.starts_with(key); });
  if (!key.empty() && begun != rows.end()) return begun->key;
  std::string_view nearest;
  std::size_t least = std::string::npos;
  for (const auto& row : rows) {
    const std::size_t length = row.key.size();
    const std::size_t more = std::max(key.size(), length) - std::min(key.size(), length);
    if (more >= least) continue;  // as many letters are to insert or drop at least
    const std::size_t changes = distance(key, row.key);
    if (changes >= least) continue;
    least = changes;
    nearest = row.key;
  }
  return nearest;
}

// Without the white space around it.
std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t\r");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

void check_number(const std::string& text, const char* what, LineFindings& line) {
  const int number = parse_int(text.c_str());
  errno = 0;
  char* end = nullptr;
  const long long whole = std::strtoll(text.c_str(), &end, 10);
  if (end == text.c_str()) {
    line.error({what, " has no number and counts as 0: write a whole number"});
  } else if (errno == ERANGE || whole > INT_MAX || whole < INT_MIN) {
    line.error({what, " is beyond what the service can hold and counts as ", number,
                ": write a number nearer to 0"});
  } else if (!trimmed(end).empty()) {
    line.warning(
        {what, " counts as ", number, ", \"", trimmed(end), "\" behind it is ignored: remove it"});
  }
}

// --- fan_controller.conf ---

void check_text(const std::string& key, const std::string& value, LineFindings& line) {
  if (value.starts_with(' ')) {
    line.error({key, ": the blank behind the = becomes part of the path: remove it"});
  }
  if (value.ends_with('\r')) {
    line.error({key,
                ": the carriage return at the line's end becomes part of the path: save the file "
                "with Unix line ends"});
  } else if (value.find_first_of("\t\r") != std::string::npos) {
    line.error({key, ": a tab becomes part of the path: remove it"});
  }
}

void check_value(const SettingRow<Settings>& row, const std::string& value, LineFindings& line) {
  const std::string key(row.key);
  if (row.text != nullptr) {
    check_text(key, value, line);
  } else if (row.yes != nullptr) {
    if (value == "yes" || value == "no") return;
    if (value.ends_with('\r')) {
      line.error({key,
                  " is not read: a carriage return ends the line. Save the file with Unix line "
                  "ends: yes or no"});
    } else {
      line.error({key,
                  " is neither \"yes\" nor \"no\", so it changes nothing: write one of them, "
                  "in small letters and without blanks"});
    }
  } else {
    check_number(value, key.c_str(), line);
    const int number = parse_int(value.c_str());
    if (row.number != &Settings::m_periodInSec) return;
    if (number <= 0) {
      line.error({key, " of ", number, " makes the service run without a pause: write 60 or more"});
    } else if (number > kLongPeriod) {
      line.warning({key, " of ", number,
                    " lets more than an hour pass between two measurements: "
                    "write 300 or less"});
    }
  }
}

void check_again(const SettingRow<Settings>& row, int first, LineFindings& line) {
  if (row.yes != nullptr) {
    line.warning({row.key, " stands in line ", first,
                  " already; a \"yes\" in one of them is enough: "
                  "remove one"});
  } else {
    line.warning(
        {row.key, " stands in line ", first, " already, and this line replaces it: remove one"});
  }
}

// A line that the service takes for a setting or for nothing.
void check_line(const std::string& text, std::map<std::string, int>& seen, int number,
                LineFindings& line) {
  Setting setting;
  const std::string bare = trimmed(text);
  if (bare.empty() || text.starts_with('#')) return;
  if (bare.starts_with('#')) {
    return line.warning({"a comment begins in the first column: remove the blank before the #"});
  }
  if (!split_setting(text, setting)) {
    return line.error({"there is no = in the line, so it is ignored: write key=value"});
  }
  const auto& rows = SETTING_ROWS<Settings>;
  const auto row = std::ranges::find(rows, setting.key, &SettingRow<Settings>::key);
  if (row == rows.end()) {
    const std::string key = trimmed(setting.key);
    if (std::ranges::find(rows, key, &SettingRow<Settings>::key) != rows.end()) {
      return line.error(
          {"the blank or tab beside ", key, " makes it another key, which is ignored: remove it"});
    }
    return line.error({"the key \"", key, "\" is not known and is ignored: did you mean ",
                       nearest_key(key), "?"});
  }
  if (const auto [first, isNew] = seen.emplace(setting.key, number); !isNew) {
    check_again(*row, first->second, line);
  }
  check_value(*row, setting.value, line);
}

// --- fan_cmd_tab.conf ---

void check_step(const std::string& text, std::map<int, int>& seen, int number, LineFindings& line) {
  Setting step;
  const std::string bare = trimmed(text);
  if (bare.empty() || text.starts_with('#')) return;
  if (!split_setting(text, step)) {
    return line.error({"there is no = in the line, so it is ignored: write temperature=command"});
  }
  if (bare.starts_with('#')) {
    line.error({"a comment begins in the first column; this line counts as the step ",
                parse_int(step.key.c_str()), "=", parse_int(step.value.c_str()),
                ": remove the blank before the #"});
    seen.emplace(parse_int(step.key.c_str()), number);
    return;
  }
  check_number(step.key, "the temperature", line);
  check_number(step.value, "the command", line);
  const int temperature = parse_int(step.key.c_str());
  if (const auto [first, isNew] = seen.emplace(temperature, number); !isNew) {
    line.warning({temperature, " degrees stand in line ", first->second,
                  " already, and this line replaces it: remove one"});
    first->second = number;
  }
  if (temperature < kColdest || temperature > kHottest) {
    line.warning({temperature, " degrees are not between ", kColdest, " and ", kHottest,
                  ": write degrees Celsius"});
  }
}

// The highest temperature that still gets no power, by the rule in force.
int last_standing(const CommandTable& table, bool hysteresis, bool falling) {
  int temperature = std::max(table.begin()->first, kColdest);
  const int change = falling ? 1 : -1;  // from it to the temperature before
  while (temperature < std::min(alert_level(table), kHottest) &&
         select_command(table, temperature + 1, temperature + 1 + change, hysteresis).command ==
             0) {
    ++temperature;
  }
  return temperature;
}

std::string standing_text(const CommandTable& table, bool hysteresis) {
  if (table.size() == 1 || last_command(table) == 0) return "at every temperature";
  std::string text = join({"up to ", last_standing(table, hysteresis, false), " degrees"});
  if (hysteresis) text += join({" (falling, up to ", last_standing(table, true, true), ")"});
  return text;
}

void check_commands(const Configuration& configuration, const Driver& driver,
                    const std::map<int, int>& lines, Findings& findings) {
  const CommandTable& table = configuration.table;
  const bool dutyCycle = driver.commandPath.ends_with(join({"/", FAN_PWM}));
  for (auto step = table.begin(); step != table.end(); ++step) {
    LineFindings line(findings, configuration.tablePath, lines.at(step->first));
    if (step->second < 0) {
      line.error(
          {"the command ", step->second, " is negative, and no driver takes it: write 0 or more"});
    } else if (dutyCycle && step->second > kFullPower) {
      line.error({"the command ", step->second,
                  " is above 255, the most that pwm1 takes: write 0 to 255"});
    }
    if (step != table.begin() && step->second < std::prev(step)->second) {
      line.warning({"the command falls to ", step->second, " while the temperature rises to ",
                    step->first, ": is it meant?"});
    }
  }
}

// Commands for a duty cycle, sent to a driver that wants revolutions per minute.
void check_speeds(const Configuration& configuration, const Driver& driver,
                  const std::map<int, int>& lines, Findings& findings) {
  const int highest = last_command(configuration.table);
  if (!driver.commandPath.ends_with(FAN_TARGET) || highest <= 0 || highest > kFullPower) return;
  LineFindings(findings, configuration.tablePath, lines.at(alert_level(configuration.table)))
      .warning({"the highest command is ", highest,
                ", and the driver takes it as revolutions per minute: write speeds"});
}

void check_whole_table(const Configuration& configuration, const Driver& driver,
                       const std::map<int, int>& lines, Findings& findings) {
  const CommandTable& table = configuration.table;
  if (table.empty()) {
    LineFindings(findings, configuration.tablePath, 1)
        .error(
            {"there is no step: the fan is stopped, and every temperature above 0 counts as high. "
             "Write steps, such as 35=90"});
    return;
  }
  check_commands(configuration, driver, lines, findings);
  check_speeds(configuration, driver, lines, findings);
  if (configuration.settings.m_fanDriverSysfsDir.empty()) return;  // no fan takes the commands
  LineFindings first(findings, configuration.tablePath, lines.at(table.begin()->first));
  if (table.size() == 1) {
    first.warning({"it is the only step, so the command never changes: write more steps"});
  }
  if (table.begin()->second == 0) {
    first.warning({"with the command 0 the fan stands still ",
                   standing_text(table, configuration.settings.m_useHysteresis),
                   ": write a command with which it turns, unless that is meant"});
  }
}

int line_of(const Finding& finding) {
  return parse_int(finding.place.c_str() + finding.place.rfind(':') + 1);
}

// Goes through the lines of a file; what the check does with one is the argument.
template <typename Check>
void each_line(const std::string& path, bool isThere, Findings& findings, Check check) {
  const FilePtr file(std::fopen(path.c_str(), "r"));
  if (!file || !isThere) {
    LineFindings(findings, path, 1)
        .error({"the file cannot be opened: the service waits for it, and no fan is controlled. "
                "Make it, or name another folder with --config-dir"});
    return;
  }
  std::string text;
  for (int number = 1; read_line(file.get(), text); ++number) {
    LineFindings line(findings, path, number);
    check(text, number, line);
  }
}

}  // namespace

void check_files(const Configuration& configuration, const Driver& driver, Findings& findings) {
  std::map<std::string, int> keys;
  each_line(configuration.settingsPath, configuration.hasSettings, findings,
            [&](const std::string& text, int number, LineFindings& line) {
              check_line(text, keys, number, line);
            });
  std::map<int, int> steps;
  each_line(configuration.tablePath, configuration.hasTable, findings,
            [&](const std::string& text, int number, LineFindings& line) {
              check_step(text, steps, number, line);
            });
  if (!configuration.hasTable) return;
  // Every step comes from a line, a comment with a blank before it among them.
  for (const auto& [temperature, command] : configuration.table) steps.emplace(temperature, 1);
  check_whole_table(configuration, driver, steps, findings);
  // What was found in a whole table stands where its line is.
  const auto ofTable = std::ranges::find_if(findings, [&](const Finding& finding) {
    return finding.place.starts_with(configuration.tablePath + ":");
  });
  std::stable_sort(ofTable, findings.end(), [](const Finding& left, const Finding& right) {
    return line_of(left) < line_of(right);
  });

  const int critical = configuration.settings.m_hddCriticalTemp;
  if (configuration.table.empty() || critical > alert_level(configuration.table)) return;
  const auto key = keys.find("hdd_critical_temperature");
  LineFindings line(findings, configuration.settingsPath, key == keys.end() ? 1 : key->second);
  line.warning({"hdd_critical_temperature ", critical, " is not above the table's last step, ",
                alert_level(configuration.table),
                ": above that step it is critical at once and never high. Write a higher one"});
}
