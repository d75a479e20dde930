// What gnuplot is told: data and script.
#include "plot-script.h"

#include <algorithm>
#include <cmath>
#include <vector>

#include "text.h"

namespace {

// Readable on white and on black, and told apart without red and green. "black" becomes the colour
// of the surroundings' text.
constexpr char kTable[] = "#1f7acc";
constexpr char kRival[] = "#d97706";
constexpr char kQuiet[] = "#7f8791";
constexpr char kAlert[] = "#d43a3a";

// Distance of the time axis's labels in seconds, by the length of the time.
struct Ticks {
  long long atMost;  // s
  long long wide, narrow;
};
constexpr Ticks kTicks[] = {
    {1 * kHour, 10 * kMinute, 20 * kMinute}, {3 * kHour, 30 * kMinute, kHour},
    {8 * kHour, kHour, 2 * kHour},           {30 * kHour, 3 * kHour, 6 * kHour},
    {60 * kHour, 6 * kHour, 12 * kHour},     {1LL << 40, kDay, kDay},
};

double hours(long long second) { return static_cast<double>(second) / static_cast<double>(kHour); }

// --- What is drawn ---

// hour, outside, measured or sensor, coolest, hottest, speed
std::string minute_data(const Minute& minute, bool hasSensor) {
  return text_of("%.4f %.2f %.2f %.2f %.2f %.0f\n", hours(minute.second), minute.outside,
                 hasSensor ? minute.sensor : minute.hottest(), minute.coolest(), minute.hottest(),
                 minute.speed);
}

// Of a long time the slowest and the fastest minute of each piece: a fan that changes its speed all
// the time shall not look like one that stays.
std::string minutes_data(const Run& run, std::size_t points) {
  const auto& minutes = run.minutes;
  const bool hasSensor = !run.configuration->sensor.empty();
  const std::size_t stride = minutes.size() <= points ? 1 : minutes.size() * 2 / points + 1;
  std::string text;
  for (std::size_t i = 0; i < minutes.size(); i += stride) {
    const auto begin = minutes.begin() + static_cast<std::ptrdiff_t>(i);
    const auto end =
        minutes.begin() + static_cast<std::ptrdiff_t>(std::min(i + stride, minutes.size()));
    auto [slow, fast] = std::minmax_element(
        begin, end, [](const auto& a, const auto& b) { return a.speed < b.speed; });
    if (fast < slow) std::swap(slow, fast);
    text += minute_data(*slow, hasSensor);
    if (slow != fast) text += minute_data(*fast, hasSensor);
  }
  return text;
}

std::string commands_data(const Run& run, long long seconds) {
  std::string text;
  for (const auto& [second, command] : run.commands) {
    text += text_of("%.4f %d\n", hours(second), command);
  }
  return text + text_of("%.4f %d\n", hours(seconds), run.commands.back().second);
}

struct Range {
  double low, high;
};

Range temperatures_of(const Report& report) {
  Range range = {1e9, std::max(report.table().critical, report.table().alertLevel()) + 0.0};
  for (const std::size_t i : {std::size_t{0}, report.compared}) {
    for (const Minute& minute : report.runs[i].minutes) {
      range.low = std::min({range.low, minute.outside, minute.coolest()});
      range.high = std::max(range.high, minute.hottest());
    }
  }
  constexpr double kStep = 5;
  range.low = std::floor((range.low - 1) / kStep) * kStep;
  range.high = std::ceil((range.high + 2) / kStep) * kStep;
  const bool hasMarks =
      std::ranges::any_of(report.runs, [](const Run& run) { return !run.happenings.empty(); });
  constexpr double kMarksPart = 0.1;  // their rows at the upper edge
  if (hasMarks) range.high += (range.high - range.low) * kMarksPart;
  return range;
}

// --- The script ---

// Text of a label within double quotes.
std::string quoted(const std::string& text) {
  std::string safe(1, '"');
  for (const char each : text) {
    if (each == '"' || each == '\\') safe += '\\';
    safe += each;
  }
  return safe + '"';
}

// Labels only below the last panel.
std::string time_axis(const PlotFormat& format, long long seconds, bool hasLabels) {
  const auto row =
      std::ranges::find_if(kTicks, [&](const Ticks& t) { return seconds <= t.atMost; });
  const long long step = format.isNarrow ? row->narrow : row->wide;
  std::string text;
  for (long long at = 0; at <= seconds; at += step) {
    std::string label = at == kDay && seconds == kDay ? "24:00" : moment_of(at);
    if (step == kDay) label = text_of("day %lld", at / kDay + 1);
    if (label.starts_with("day") && step < kDay) label.erase(0, label.rfind(' ') + 1);
    if (!hasLabels || (step == kDay && at == seconds)) label.clear();
    text += text_of("%s\"%s\" %.6g", text.empty() ? "" : ",", label.c_str(), hours(at));
  }
  return text_of("set xrange [0:%.6g]\nset xtics (%s) scale 0.4 nomirror\n", hours(seconds),
                 text.c_str());
}

// The table's steps, and the two levels in words. A label that would lie upon another is left out.
std::string levels(const Report& report, const PlotFormat& format, const Range& range) {
  const Configuration& table = report.table();
  const double degreesOfLabel = (range.high - range.low) * format.font * 1.05 / format.temperatures;
  std::string text;
  double last = 1e9;
  for (auto step = table.steps.rbegin(); step != table.steps.rend(); ++step) {
    const auto& [degrees, command] = *step;
    if (degrees < range.low || degrees > range.high) continue;
    const bool isAlert = step == table.steps.rbegin();
    text += text_of(
        "set arrow from graph 0, first %d to graph 1, first %d nohead lw %s dt %s lc "
        "rgb '%s' back\n",
        degrees, degrees, isAlert ? "1.2" : "0.8", isAlert ? "(8,4)" : "1",
        isAlert ? "black" : kQuiet);
    if (last - degrees < degreesOfLabel) continue;
    last = degrees;
    text += text_of("set label '%s%d' at graph 1.008, first %d left\n",
                    format.isNarrow ? "" : "command ", command, degrees);
  }
  const auto word = [&](const char* what, int degrees, const char* color) {
    text += text_of(
        "set label '%s %d' at graph 0.01, first %d left offset 0, char 0.6 front tc "
        "rgb '%s'\n",
        what, degrees, degrees, color);
  };
  const bool isClose = std::abs(table.critical - table.alertLevel()) < degreesOfLabel;
  word(isClose ? "" : "alert level", table.alertLevel(), "black");
  text += text_of(
      "set arrow from graph 0, first %d to graph 1, first %d nohead lw 1.4 lc rgb '%s' "
      "back\n",
      table.critical, table.critical, kAlert);
  word(isClose ? "alert level, critical" : "critical", table.critical, kAlert);
  return text;
}

// --- Alerts and restarts ---

struct Mark {
  Happening what;
  int point;  // gnuplot's number of the shape
};
constexpr Mark kMarks[] = {
    {Happening::kHigh, 9},      {Happening::kCritical, 5}, {Happening::kNormal, 6},
    {Happening::kFanFailed, 1}, {Happening::kRestart, 2},
};

std::string marks_file(const char* run, const Mark& mark) {
  return text_of("%s-marks%d", run, static_cast<int>(mark.what));
}

std::string marks_data(const Run& run, const Mark& mark) {
  std::string text;
  for (const auto& [second, what] : run.happenings) {
    if (what == mark.what) text += text_of("%.4f\n", hours(second));
  }
  return text;
}

// --- The panels ---

// The pieces of a plot command.
class Plot {
 public:
  // With a title the piece gets a row of the legend.
  void add(const std::string& piece, const std::string& title) {
    m_text += (m_text.empty() ? "plot " : ", \\\n  ") + piece;
    m_text += title.empty() ? " notitle" : " title " + quoted(title);
    if (!title.empty()) ++m_titles;
  }
  const std::string& text() const { return m_text; }
  int titles() const { return m_titles; }

 private:
  std::string m_text;
  int m_titles = 0;
};

// The two runs that are drawn.
struct Pair {
  explicit Pair(const Report& report)
      : table(report.runs.front()), rival(report.runs[report.compared]) {}

  const Run& table;
  const Run& rival;
};

// A row for each run at the upper edge; the legend tells the shapes, the colours tell the runs.
void add_marks(Plot& plot, const Pair& pair, const Range& range) {
  const double span = range.high - range.low;
  for (const Mark& mark : kMarks) {
    const bool ofTable = !marks_data(pair.table, mark).empty();
    const bool ofRival = !marks_data(pair.rival, mark).empty();
    const auto points = [&](const char* run, double down, const char* color) {
      plot.add(text_of("'%s' using 1:(%.6g) with points pt %d ps 1.1 lw 1.5 lc rgb '%s'",
                       marks_file(run, mark).c_str(), range.high - span * down, mark.point, color),
               "");
    };
    if (ofTable) points("table", 0.025, kTable);
    if (ofRival) points("rival", 0.07, kRival);
    if (!ofTable && !ofRival) continue;
    plot.add(text_of("keyentry with points pt %d ps 1.1 lw 1.5 lc rgb 'black'", mark.point),
             kHappeningTexts[static_cast<std::size_t>(mark.what)]);
  }
}

Plot temperatures(const Report& report, const PlotFormat& format, const Range& range) {
  const Pair pair(report);
  const auto line = [&](const char* file, int column, double width, const char* dash,
                        const char* color) {
    return text_of("'%s' using 1:%d with lines lw %.2f dt %s lc rgb '%s'", file, column,
                   format.line * width, dash, color);
  };
  const std::string first = report.hasRival() ? "table" : pair.table.rule();
  const std::string second = report.hasRival() ? "rival" : pair.rival.rule();
  const auto hasSensor = [](const Run& run) { return !run.configuration->sensor.empty(); };
  Plot plot;
  if (report.scenario->disks.size() > 1) {
    plot.add(
        text_of("'table' using 1:4:5 with filledcurves fs solid 0.18 noborder lc rgb '%s'", kTable),
        first + ": all disks");
  }
  plot.add(line("table", 5, 1, "1", kTable), first + ": hottest disk");
  plot.add(line("rival", 5, 1, "(7,4)", kRival), second + ": hottest disk");
  if (hasSensor(pair.table)) plot.add(line("table", 3, 0.7, "1", kTable), first + ": sensor");
  if (hasSensor(pair.rival)) plot.add(line("rival", 3, 0.7, "(7,4)", kRival), second + ": sensor");
  if (!report.scenario->isRecorded) plot.add(line("table", 2, 0.8, "(2,3)", kQuiet), "outside");
  add_marks(plot, pair, range);
  return plot;
}

// The table's line lies on the rival's, which is broader: where both are the same, both are seen.
Plot two_lines(const PlotFormat& format, const char* ofTable, const char* ofRival) {
  Plot plot;
  plot.add(text_of("%s lw %.2f lc rgb '%s'", ofRival, format.line * 1.7, kRival), "");
  plot.add(text_of("%s lw %.2f lc rgb '%s'", ofTable, format.line * 0.7, kTable), "");
  return plot;
}

// Distance of the marks on an axis from 0: at most four of them, at round numbers.
double round_step(double most) {
  constexpr double kDutyMost = 255;  // its thirds are round to those who know it
  if (most == kDutyMost) return kDutyMost / 3;
  const double power = std::pow(10, std::floor(std::log10(most / 4)));
  for (const double factor : {1.0, 2.0, 5.0}) {
    if (most <= 4 * factor * power) return factor * power;
  }
  return 10 * power;
}

// Panels from the top to the bottom, in pixels.
class Panels {
 public:
  Panels(const PlotFormat& format, int legendRows)
      : m_format(format), m_at(legendRows * format.font * 3 / 2 + format.font) {
    m_height = m_at + format.temperatures + 2 * format.small + 3 * title() + 2 * format.font + 4;
  }

  int height() const { return m_height; }
  std::string next(int height, const char* name) {
    m_at += title();
    const int top = m_at;
    m_at += height;
    return text_of(
        "set lmargin at screen %.4f\nset rmargin at screen %.4f\nset tmargin at screen "
        "%.4f\nset bmargin at screen %.4f\nunset label\nunset arrow\nset label '%s' at "
        "graph 0, graph 1 left offset 0, char 0.75\n",
        m_format.left, m_format.right, part(top), part(m_at), name);
  }

 private:
  // Room above a panel.
  int title() const { return m_format.font * 5 / 2; }
  double part(int y) const { return 1 - static_cast<double>(y) / m_height; }

  const PlotFormat& m_format;
  int m_at;
  int m_height;
};

int highest_command(const Pair& pair) {
  int highest = 1;
  for (const Run* run : {&pair.table, &pair.rival}) {
    highest = std::max(highest, run->configuration->highestCommand());
    for (const auto& [second, command] : run->commands) highest = std::max(highest, command);
  }
  return highest;
}

}  // namespace

std::map<std::string, std::string> plot_files(const Report& report, const PlotFormat& format) {
  const Pair pair(report);
  const long long seconds = report.scenario->seconds;
  const Range range = temperatures_of(report);
  const Plot top = temperatures(report, format, range);
  Panels panels(format, (top.titles() + format.legendColumns - 1) / format.legendColumns);

  std::string script = text_of(
      "set terminal svg size %d,%d fixed noenhanced font 'system-ui,%d'\nset output 'out.svg'\n"
      "set encoding utf8\nset multiplot\nset border 3 lw 0.6 lc rgb 'black'\n"
      "set grid xtics lw 0.5 dt 1 lc rgb '%s'\nset ytics nomirror scale 0.4\n",
      format.width, panels.height(), format.font, kQuiet);
  script += time_axis(format, seconds, false);
  script += panels.next(format.temperatures, "temperature, °C");
  script += levels(report, format, range);
  script += text_of(
      "set yrange [%.6g:%.6g]\nset ytics 10\nset key at screen %.3f, screen 0.995 left "
      "top Left reverse horizontal maxcols %d samplen 2.2 width -1\n",
      range.low, range.high, format.legendLeft, format.legendColumns);
  script += top.text() + "\nunset key\n";

  const int highest = highest_command(pair);
  script += panels.next(format.small, "command");
  script += text_of("set yrange [0:%.6g]\nset ytics autofreq %.6g\n", highest * 1.08,
                    round_step(highest));
  script += two_lines(format, "'table-commands' using 1:2 with steps",
                      "'rival-commands' using 1:2 with steps")
                .text();

  const double full = report.scenario->parameters.fullSpeed;
  script += '\n';
  script += panels.next(format.small, "speed, rpm");
  script += time_axis(format, seconds, true);
  script +=
      text_of("set yrange [0:%.6g]\nset ytics autofreq %.6g\n", full * 1.08, round_step(full));
  script +=
      two_lines(format, "'table' using 1:6 with lines", "'rival' using 1:6 with lines").text();

  std::map<std::string, std::string> files = {
      {"script", script + "\nunset multiplot\n"},
      {"table", minutes_data(pair.table, format.points)},
      {"rival", minutes_data(pair.rival, format.points)},
      {"table-commands", commands_data(pair.table, seconds)},
      {"rival-commands", commands_data(pair.rival, seconds)}};
  for (const Mark& mark : kMarks) {
    files[marks_file("table", mark)] = marks_data(pair.table, mark);
    files[marks_file("rival", mark)] = marks_data(pair.rival, mark);
  }
  return files;
}
