#include "figures.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <set>

#include "text.h"

// One paragraph.
const char* const kLeftOutOfModel =
    "The service is the shipped program; the enclosure around it is a model. Each disk and the air "
    "have one temperature each, so there are no hot spots, and the order of the disks in the air "
    "flow counts only as far as the enclosure's file says it. Heat goes through air and walls "
    "only: no radiation, no contact from disk to metal to disk. The outside air is as dry and as "
    "dense on a mountain as at the sea, the fan does not age, and dust counts only where the day "
    "says so. A disk's power has three values: standby, idle, seek. The power supply, and other "
    "fans, are part of the board's power or not there at all. The loudness is the fan's own by the "
    "fan laws, without the disks, without a resonance of the box, and without the tone of the "
    "blades. The enclosure's values are typical ones until you replace them by those of your box.";

namespace {

constexpr double kDecibel = 10;
constexpr double kPercent = 100;

std::string celsius(double value) { return text_of("%.1f", value); }

double share_at_command(const Run& run, int command, long long seconds) {
  double sum = 0;
  for (std::size_t i = 0; i < run.commands.size(); ++i) {
    const long long end = i + 1 < run.commands.size() ? run.commands[i + 1].first : seconds;
    if (run.commands[i].second == command) sum += static_cast<double>(end - run.commands[i].first);
  }
  return sum / static_cast<double>(seconds);
}

long long happenings_of(const Run& run, Happening what) {
  return std::ranges::count(run.happenings, what, [](const auto& one) { return one.second; });
}

std::string loudness_text(double loudness) {
  return loudness <= kSilent ? "silent" : text_of("%.1f", std::abs(loudness));
}

// "as a run's column shows it" for each run.
template <typename Function>
std::vector<std::string> each_run(const Report& report, Function&& text) {
  std::vector<std::string> values;
  for (std::size_t i = 0; i < report.runs.size(); ++i) {
    values.push_back(text(report.runs[i], report.totals[i]));
  }
  return values;
}

std::string count(double value) { return text_of("%.0f", value); }

void add_times_at_commands(const Report& report, std::vector<Figure>& figures) {
  std::set<int> commands;
  for (const Run& run : report.runs) {
    for (const auto& [second, command] : run.commands) commands.insert(command);
    for (const auto& [degrees, command] : run.configuration->steps) commands.insert(command);
  }
  for (const int command : commands) {
    figures.push_back({"time at command " + std::to_string(command), "%",
                       each_run(report, [&](const Run& run, const Totals&) {
                         const double share =
                             share_at_command(run, command, report.scenario->seconds);
                         const auto& steps = run.configuration->steps;
                         const bool isStep = std::ranges::any_of(
                             steps, [&](const auto& step) { return step.second == command; });
                         return share > 0 || isStep ? text_of("%.1f", share * kPercent) : "-";
                       })});
  }
}

}  // namespace

Totals totals_of(const Run& run, const Scenario& scenario) {
  Totals totals;
  totals.warmest = run.minutes.front().disks;
  double speeds = 0, energy = 0, sound = 0;
  const double full = scenario.parameters.fullSpeed;
  const int alert = run.configuration->alertLevel();
  const int critical = run.configuration->critical;
  for (const Minute& minute : run.minutes) {
    for (std::size_t i = 0; i < scenario.disks.size(); ++i) {
      const double warmest = minute.second == 0 ? minute.disks[i] : minute.warmest[i];
      totals.warmest[i] = std::max(totals.warmest[i], warmest);
    }
    if (minute.second == 0) continue;  // it ends the last minute of the warm-up
    totals.measured = std::max(totals.measured, minute.measuredMost);
    if (minute.measuredMost > alert) ++totals.aboveAlert;
    if (minute.measuredMost > critical) ++totals.aboveCritical;
    if (*std::ranges::max_element(minute.warmest) > critical) ++totals.overheated;
    speeds += minute.meanSpeed / full;
    energy += minute.meanFanPower;
    sound += minute.sound;
  }
  const auto warmest = std::ranges::max_element(totals.warmest);
  totals.hottest = *warmest;
  totals.hottestDisk = static_cast<std::size_t>(warmest - totals.warmest.begin());
  const auto minutes = static_cast<double>(run.minutes.size() - 1);
  const double days = static_cast<double>(scenario.seconds) / static_cast<double>(kDay);
  totals.changesADay = static_cast<double>(run.commands.size() - 1) / days;
  totals.speedShare = speeds / minutes;
  totals.energy = energy / minutes * static_cast<double>(kHoursOfDay);
  totals.loudness = sound > 0 ? kDecibel * std::log10(sound / minutes) : kSilent;
  return totals;
}

std::string title_of(const Run& run) {
  return std::string(run.isRival ? "rival" : "table") + ", " + run.rule();
}

std::vector<Figure> figures_of(const Report& report) {
  const Scenario& scenario = *report.scenario;
  std::vector<Figure> figures;
  const auto add = [&](const std::string& name, const std::string& unit, auto&& text) {
    figures.push_back({name, unit, each_run(report, text)});
  };
  for (std::size_t i = 0; i < scenario.disks.size(); ++i) {
    add("highest of " + scenario.diskName(i), "C",
        [&](const Run&, const Totals& totals) { return celsius(totals.warmest[i]); });
  }
  add("highest measured", "C",
      [](const Run&, const Totals& totals) { return std::to_string(totals.measured); });
  add("alert level", "C", [](const Run& run, const Totals&) {
    return std::to_string(run.configuration->alertLevel());
  });
  add("measured above the alert level", "min",
      [](const Run&, const Totals& totals) { return std::to_string(totals.aboveAlert); });
  add("critical", "C",
      [](const Run& run, const Totals&) { return std::to_string(run.configuration->critical); });
  add("measured above critical", "min",
      [](const Run&, const Totals& totals) { return std::to_string(totals.aboveCritical); });
  add("a disk above critical", "min",
      [](const Run&, const Totals& totals) { return std::to_string(totals.overheated); });
  add("changes of command", "a day",
      [](const Run&, const Totals& totals) { return count(totals.changesADay); });
  add_times_at_commands(report, figures);
  add("mean speed", "rpm", [&](const Run&, const Totals& totals) {
    return count(totals.speedShare * scenario.parameters.fullSpeed);
  });
  add("mean speed", "% of full", [](const Run&, const Totals& totals) {
    return text_of("%.1f", totals.speedShare * kPercent);
  });
  add("loudness", "dB below full",
      [](const Run&, const Totals& totals) { return loudness_text(totals.loudness); });
  add("energy of the fan", "Wh a day",
      [](const Run&, const Totals& totals) { return text_of("%.1f", totals.energy); });
  add("temperature alerts", "", [](const Run& run, const Totals&) {
    return std::to_string(happenings_of(run, Happening::kHigh) +
                          happenings_of(run, Happening::kCritical));
  });
  add("restarts of the fan tried", "", [](const Run& run, const Totals&) {
    return std::to_string(happenings_of(run, Happening::kRestart));
  });
  return figures;
}

std::string verdict_of(const Report& report) {
  const Totals& totals = report.totals.front();
  return text_of(
      "With this table (%s, %s) the hottest disk reaches %.1f C; the fan changes its speed %.0f "
      "times a day and runs at %.0f %% of its full speed.",
      report.table().name.c_str(), report.runs.front().rule().c_str(), totals.hottest,
      totals.changesADay, totals.speedShare * kPercent);
}

std::string others_of(const Report& report) {
  std::string text;
  for (std::size_t i = 1; i < report.runs.size(); ++i) {
    const Run& run = report.runs[i];
    const Totals& totals = report.totals[i];
    if (i > 1) text += " ";
    if (run.isRival) text += "The rival (" + run.configuration->name + ", " + run.rule() + ")";
    if (!run.isRival) text += run.hysteresis ? "With hysteresis" : "With the nearest step";
    text += text_of(": %.1f C, %.0f changes a day, %.0f %%.", totals.hottest, totals.changesADay,
                    totals.speedShare * kPercent);
  }
  return text;
}

std::string alarm_of(const Report& report) {
  std::string text;
  for (std::size_t i = 0; i < report.runs.size(); ++i) {
    const Totals& totals = report.totals[i];
    if (totals.overheated <= 1) continue;
    text += text_of("%s%s: a disk is above %d C, the critical temperature, for %s",
                    text.empty() ? "TOO HOT: " : "; ", title_of(report.runs[i]).c_str(),
                    report.runs[i].configuration->critical,
                    length_of(static_cast<double>(totals.overheated * kMinute)).c_str());
  }
  return text.empty() ? text : text + ".";
}

std::string basis_of(const Report& report) {
  const Scenario& scenario = *report.scenario;
  std::string text = "Table: " + report.table().name;
  if (report.hasRival()) text += "; rival: " + report.runs[2].configuration->name;
  text += "; enclosure: " + scenario.enclosureName;
  text += (scenario.isRecorded ? "; recorded temperatures: " : "; day: ") + scenario.name;
  return text + "; " + length_of(static_cast<double>(scenario.seconds));
}

std::vector<Note> notes_of(const Report& report) {
  std::vector<Note> notes;
  for (std::size_t i = 0; i < report.runs.size(); ++i) {
    for (const auto& [second, what] : report.runs[i].happenings) notes.push_back({second, i, what});
  }
  std::ranges::stable_sort(notes, {}, &Note::second);
  return notes;
}
