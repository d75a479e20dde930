#include "day.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "text.h"

namespace {

constexpr double kColdest = -50;  // degrees Celsius, of air and disks
constexpr double kWarmest = 150;
constexpr long long kGap = 10 * kMinute;  // without a recorded value
constexpr long long kFinest = 10;         // s between two recorded values that are used
constexpr int kHoursMost = 168;
constexpr long long kSecondMost = 1LL << 40;

[[noreturn]] void fail(const std::string& file, std::size_t line, const std::string& what) {
  throw LabError(file + ":" + std::to_string(line) + ": " + what);
}

bool is_possible(const std::optional<double>& celsius) {
  return celsius && *celsius >= kColdest && *celsius <= kWarmest;
}

// The readers of the enclosure put the line's number in front.
appliance::EnclosureParameters parameters_of(const std::string& file, const std::string& text) {
  appliance::EnclosureParameters parameters;
  const std::string problem = appliance::readEnclosure(text, parameters);
  if (problem.empty()) return parameters;
  const bool hasLine = problem.front() >= '0' && problem.front() <= '9';
  throw LabError(file + (hasLine ? ":" : ": ") + problem);
}

// --- The enclosure ---

// The same day, begun earlier by the warm-up.
std::string shifted(const appliance::Schedule& points) {
  constexpr auto kShift = static_cast<double>(kWarmUp);
  constexpr auto kLength = static_cast<double>(kDay);
  appliance::Schedule later = {{0, appliance::temperatureAt(points, kLength - kShift)}};
  for (const auto& [second, celsius] : points) {
    // The end of the day is the beginning of the next: a point there comes just before it.
    const double whole = std::round(second);
    const double moved = second >= kLength ? kShift - 1 : std::fmod(whole + kShift, kLength);
    if (moved > 0) later.emplace_back(moved, celsius);
  }
  std::ranges::sort(later);
  const auto same = [](const auto& left, const auto& right) { return left.first == right.first; };
  later.erase(std::unique(later.begin(), later.end(), same), later.end());
  std::string text;
  for (const auto& [second, celsius] : later) text += text_of("%.0f:%.6g ", second, celsius);
  return text;
}

// --- The day's file ---

struct Verb {
  std::string_view name;
  std::size_t words;
  bool (*isPossible)(const std::vector<std::string>& words, const Scenario& scenario);
  const char* form;
};

constexpr Verb kVerbs[] = {
    {"load", 2,
     [](const auto& words, const Scenario& scenario) {
       const auto& disks = scenario.parameters.diskNames;
       const bool knows = words[0] == "all" || std::ranges::count(disks, words[0]) > 0;
       return knows && (words[1] == "idle" || words[1] == "seek" || words[1] == "standby");
     },
     "load DISK idle, seek or standby; DISK is all or a disk of the enclosure"},
    {"outside", 1,
     [](const auto& words, const Scenario&) { return is_possible(number_in(words[0])); },
     "outside DEGREES, from -50 to 150"},
    {"fan", 1,
     [](const auto& words, const Scenario&) { return words[0] == "blocked" || words[0] == "free"; },
     "fan blocked, or fan free"},
    {"dust", 1,
     [](const auto& words, const Scenario&) {
       const auto factor = number_in(words[0]);
       return factor && *factor > 0 && *factor <= 1;
     },
     "dust FACTOR, above 0 and up to 1"},
};

// What is wrong with the words behind the second; empty when nothing is.
std::string fault_of(std::vector<std::string> words, const Scenario& scenario) {
  const auto verb = std::ranges::find(kVerbs, words.front(), &Verb::name);
  if (verb == std::end(kVerbs)) {
    return "'" + words.front() + "' is none of load, outside, fan and dust";
  }
  words.erase(words.begin());
  if (words.size() == verb->words && verb->isPossible(words, scenario)) return "";
  return std::string("write ") + verb->form;
}

std::vector<std::string> words_of(const std::string& line) {
  auto words = split(line, ' ');
  std::erase(words, "");
  return words;
}

void take_schedule(const std::string& file, std::size_t number, const std::string& line,
                   Scenario& scenario) {
  // The enclosure's own reader judges it.
  appliance::EnclosureParameters parameters;
  const std::string problem = appliance::readEnclosure(line, parameters);
  if (problem.starts_with("1: ")) fail(file, number, problem.substr(3));
  scenario.parameters.outside = parameters.outside;
}

void read_day(const std::string& file, Scenario& scenario) {
  std::size_t number = 0;
  long long last = 0;
  std::vector<std::pair<long long, std::string>> day;
  for (const std::string& raw : lines_of(read_file(file))) {
    ++number;
    const std::string line = trimmed(raw);
    if (line.empty() || line.front() == '#') continue;
    if (line.starts_with("outside=")) {
      take_schedule(file, number, line, scenario);
      continue;
    }
    auto words = words_of(line);
    const auto second = number_in(words.front());
    if (words.size() < 2 || !second || *second != std::floor(*second)) {
      fail(file, number, "this is no line of the form SECOND ACTION, such as 43200 load all seek");
    }
    if (*second < 0 || *second >= static_cast<double>(kDay)) {
      fail(file, number, words.front() + " is no second of a day, which has 86400");
    }
    const auto due = static_cast<long long>(*second);
    if (due < last) fail(file, number, "this second comes before that of a line above it");
    last = due;
    words.erase(words.begin());
    const std::string fault = fault_of(words, scenario);
    if (!fault.empty()) fail(file, number, fault);
    std::string action;
    for (const std::string& word : words) action += (action.empty() ? "" : " ") + word;
    day.emplace_back(due, action);
  }
  // Each day is like the first one.
  for (long long begin = 0; begin < scenario.seconds; begin += kDay) {
    for (const auto& [due, action] : day) scenario.events.emplace_back(begin + due, action);
  }
}

// --- Recorded temperatures ---

struct Sample {
  long long second;
  std::vector<std::string> cells;
};

// A line of names. A column may be called disk1, so only a whole cell counts as a number.
bool is_header(const std::vector<std::string>& cells) {
  return std::ranges::none_of(cells, [](const auto& cell) { return number_in(cell).has_value(); });
}

Sample sample_of(const std::string& file, std::size_t number, std::vector<std::string> cells) {
  const auto second = number_in(cells.front());
  if (!second || std::abs(*second) > static_cast<double>(kSecondMost)) {
    fail(file, number, "'" + cells.front() + "' is no number of seconds");
  }
  cells.erase(cells.begin());
  for (const std::string& cell : cells) {
    if (cell.empty()) continue;
    const auto celsius = number_in(cell);
    if (!celsius) fail(file, number, "'" + cell + "' is no temperature");
    if (!is_possible(celsius)) fail(file, number, cell + " degrees are not possible");
  }
  return {static_cast<long long>(std::floor(*second)), std::move(cells)};
}

// Names the columns that have had no temperature for long before this line.
class Gaps {
 public:
  Gaps(const std::string& file, Scenario& scenario) : m_file(name_of(file)), m_scenario(scenario) {}

  void take(const Sample& sample, std::size_t number) {
    m_last.resize(sample.cells.size(), sample.second);
    m_held.resize(sample.cells.size(), "the first one counts");
    for (std::size_t i = 0; i < sample.cells.size(); ++i) {
      if (sample.cells[i].empty()) continue;
      const long long gap = sample.second - std::exchange(m_last[i], sample.second);
      const char* const held = std::exchange(m_held[i], "the last one is held");
      if (gap <= kGap) continue;
      m_scenario.warnings.push_back(text_of(
          "%s:%zu: no temperature in column %zu for %s before this line; %s", m_file.c_str(),
          number, i + 2, length_of(static_cast<double>(gap)).c_str(), held));
    }
  }

 private:
  std::string m_file;
  Scenario& m_scenario;
  std::vector<long long> m_last;
  std::vector<const char*> m_held;
};

std::vector<Sample> read_samples(const std::string& file, Scenario& scenario) {
  std::vector<Sample> samples;
  Gaps gaps(file, scenario);
  std::size_t number = 0;
  bool isFirst = true;
  for (const std::string& line : lines_of(read_file(file))) {
    ++number;
    if (trimmed(line).empty()) continue;
    auto cells = split(line, ',');
    for (std::string& cell : cells) cell = trimmed(cell);
    if (std::exchange(isFirst, false) && is_header(cells)) continue;
    if (cells.size() < 2) fail(file, number, "this is no line of the form seconds,celsius");
    samples.push_back(sample_of(file, number, std::move(cells)));
    gaps.take(samples.back(), number);
    if (samples.size() == 1) continue;
    const Sample& before = samples[samples.size() - 2];
    if (samples.back().cells.size() != before.cells.size()) {
      fail(file, number, "this line has another number of columns than those above it");
    }
    if (samples.back().second < before.second) {
      fail(file, number, "this line is earlier than the one above it: sort the file");
    }
  }
  if (samples.empty()) throw LabError(file + ": there is no temperature in it");
  return samples;
}

// The first temperature of each column: what is not known before it, is like it.
std::vector<std::string> first_cells(const std::vector<Sample>& samples, const std::string& file) {
  std::vector<std::string> cells = samples.front().cells;
  for (std::size_t i = 0; i < cells.size(); ++i) {
    const auto first =
        std::ranges::find_if(samples, [&](const auto& sample) { return !sample.cells[i].empty(); });
    if (first == samples.end()) {
      throw LabError(text_of("%s: there is no temperature in column %zu", file.c_str(), i + 2));
    }
    cells[i] = first->cells[i];
  }
  return cells;
}

// How much of a recording is used.
long long seconds_of(const std::vector<Sample>& samples, const std::string& file, int hours,
                     Scenario& scenario) {
  const long long whole = std::max(samples.back().second - samples.front().second, kMinute);
  const long long most = (hours > 0 ? hours : kHoursMost) * kHour;
  if (whole > most && hours == 0) {
    scenario.warnings.push_back(name_of(file) + ": only its first 168 hours are used");
  }
  return std::min(whole, most);
}

void read_recording(const std::string& file, int hours, Scenario& scenario) {
  const auto samples = read_samples(file, scenario);
  const std::size_t columns = samples.front().cells.size();
  const std::size_t disks = scenario.disks.size();
  if (columns > disks) {
    throw LabError(text_of("%s: it has %zu columns of temperatures, but %s has %zu disks",
                           file.c_str(), columns, scenario.enclosureName.c_str(), disks));
  }
  // The column of each disk, in the order of the enclosure's file; further disks have the last one.
  std::vector<std::size_t> place(disks);
  for (std::size_t i = 0; i < disks; ++i) place[scenario.disks[i]] = std::min(i, columns - 1);
  scenario.disks.resize(columns);
  scenario.seconds = seconds_of(samples, file, hours, scenario);

  auto cells = first_cells(samples, file);
  for (std::size_t i = 0; i < disks; ++i) {
    scenario.start[i] = number_in(cells[place[i]]).value_or(scenario.start[i]);
  }
  std::string last, action;
  long long due = 0;  // the next second at which a value may count
  const auto emit = [&](long long second) {
    if (action == last) return;
    scenario.events.emplace_back(second, last = action);
    due = second + kFinest;
  };
  for (const Sample& sample : samples) {
    const long long second = sample.second - samples.front().second;
    // What came too early counts later, if nothing newer has come until then.
    if (second > due && !action.empty()) emit(due);
    for (std::size_t i = 0; i < columns; ++i) {
      if (!sample.cells[i].empty()) cells[i] = sample.cells[i];
    }
    action = "celsius ";
    for (const std::size_t column : place) action += cells[column] + ",";
    action.pop_back();
    if (second >= due) emit(second);
  }
  emit(due);
}

}  // namespace

Scenario read_scenario(const std::string& enclosureFile, const std::string& dayFile,
                       const std::string& recordingFile, int hours) {
  Scenario scenario;
  scenario.enclosureName = name_of(enclosureFile);
  const std::string text = read_file(enclosureFile);
  scenario.parameters = parameters_of(enclosureFile, text);
  const auto& names = scenario.parameters.diskNames;
  scenario.disks.resize(names.size());
  std::iota(scenario.disks.begin(), scenario.disks.end(), std::size_t{0});
  std::ranges::sort(scenario.disks, {}, [&](std::size_t disk) { return names[disk]; });
  scenario.isRecorded = !recordingFile.empty();
  scenario.name = name_of(scenario.isRecorded ? recordingFile : dayFile);
  scenario.seconds = (hours > 0 ? hours : kHoursOfDay) * kHour;
  const double around = appliance::temperatureAt(scenario.parameters.outside, kDay - kWarmUp);
  scenario.start.assign(names.size(), around);
  if (scenario.isRecorded) {
    read_recording(recordingFile, hours, scenario);
  } else {
    read_day(dayFile, scenario);
  }
  // A later line of the same name counts.
  scenario.enclosure = text + "\noutside=" + shifted(scenario.parameters.outside) + "\n";
  return scenario;
}

std::string timeline_of(const Scenario& scenario) {
  std::string before;
  std::string text;
  for (const auto& [second, action] : scenario.events) {
    if (second >= scenario.seconds) break;
    if (second == 0) before += "0 " + action + "\n";
    text += std::to_string(second + kWarmUp) + " " + action + "\n";
  }
  return before + text + std::to_string(kWarmUp + scenario.seconds) + " signal TERM\n";
}
