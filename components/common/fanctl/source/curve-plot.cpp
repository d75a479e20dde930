#include "curve-plot.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <set>
#include <sstream>

#include "terminal.h"
#include "utils.h"

namespace {

// No sensor of a machine in use tells less or more.
constexpr int kColdest = -60;
constexpr int kHottest = 150;
constexpr int kMargin = 5;
constexpr std::size_t kNamedSteps = 3;  // more outside the picture are only counted

// Lines from the top: the command's unit, the labels of two marks, the curve.
constexpr int kTop = 3;
constexpr int kBottom = kTop + 9;

int within(int celsius) { return std::clamp(celsius, kColdest, kHottest); }
int round_down(int celsius) { return celsius - (celsius % kMargin + kMargin) % kMargin; }

// Numbers along an axis to positions on the canvas.
struct Scale {
  std::int64_t low, high;
  double first, last;

  double operator()(std::int64_t value) const {
    return first +
           (last - first) * static_cast<double>(value - low) / static_cast<double>(high - low);
  }
};

struct Axes {
  Scale x, y;
  double bottom;  // the line of the axis of degrees
};

// The numbers, important ones first, without those whose labels would touch another's.
std::vector<std::int64_t> choose(const std::vector<std::int64_t>& numbers, const Scale& scale,
                                 bool across) {
  struct Room {
    double begin, end;
  };
  std::vector<Room> taken;
  std::vector<std::int64_t> chosen;
  for (const std::int64_t number : numbers) {
    const double half = across ? static_cast<double>(std::to_string(number).size() + 2) / 2 : 0.5;
    const Room room{.begin = scale(number) - half, .end = scale(number) + half};
    const auto touches = [&](const Room& other) {
      return room.begin < other.end && other.begin < room.end;
    };
    if (std::ranges::any_of(taken, touches)) continue;
    taken.push_back(room);
    chosen.push_back(number);
  }
  return chosen;
}

std::vector<std::int64_t> degree_labels(const Plot& plot, const Scale& x) {
  std::vector<std::int64_t> degrees = {alert_level(plot.table), plot.table.begin()->first,
                                       plot.critical};
  for (const auto& step : plot.table) degrees.push_back(step.first);
  degrees.push_back(x.low);
  degrees.push_back(x.high);
  std::erase_if(degrees, [&](std::int64_t degree) { return degree < x.low || degree > x.high; });
  return choose(degrees, x, true);
}

std::vector<std::int64_t> command_labels(const Plot& plot, const Scale& y) {
  std::vector<std::int64_t> commands = {plot.points.back().rising, plot.points.front().rising};
  std::set<int> others;
  for (const CurvePoint& point : plot.points) others.insert({point.rising, point.falling});
  for (const int command : others) commands.push_back(command);
  commands.push_back(y.low);
  commands.push_back(y.high);
  return choose(commands, y, false);
}

Scale command_scale(const Plot& plot) {
  std::int64_t low = plot.points.front().rising;
  std::int64_t high = low;
  for (const CurvePoint& point : plot.points) {
    low = std::min<std::int64_t>({low, point.rising, point.falling});
    high = std::max<std::int64_t>({high, point.rising, point.falling});
  }
  // A picture that begins at 0 tells most, unless all steps would then lie close to each other.
  if (low == high || low <= high / 2) {
    low = std::min<std::int64_t>(low, 0);
    high = std::max<std::int64_t>(high, low + 1);
  }
  return {.low = low, .high = high, .first = kBottom, .last = kTop};
}

Axes lay_out(const Canvas& canvas, const Plot& plot) {
  const Scale y = command_scale(plot);
  std::size_t widest = 0;
  for (const std::int64_t command : command_labels(plot, y)) {
    widest = std::max(widest, std::to_string(command).size());
  }
  return {.x = {.low = plot.points.front().celsius,
                .high = plot.points.back().celsius,
                .first = static_cast<double>(widest) + 2,
                .last = static_cast<double>(canvas.columns()) - 1},
          .y = y,
          .bottom = kBottom + canvas.gap()};
}

void draw_axes(Canvas& canvas, const Plot& plot, const Axes& axes) {
  const auto& [x, y, bottom] = axes;
  const double left = x.first - 1;
  canvas.text(0, 0, kBegin, kQuiet, plot.unit);
  for (const std::int64_t command : command_labels(plot, y)) {
    canvas.command_tick(left, y(command), x.last);
    canvas.text(left - 2, y(command), kEnd, kPlain, std::to_string(command));
  }
  canvas.line({{left, kTop}, {left, bottom}, {x.last, bottom}}, kQuiet);
  // A step whose label finds no room has its tick all the same.
  for (const auto& step : plot.table) {
    if (plot.shows(step.first)) canvas.degree_tick(x(step.first), bottom);
  }
  for (const std::int64_t degree : degree_labels(plot, x)) {
    canvas.degree_tick(x(degree), bottom);
    canvas.text(x(degree), bottom + 1, kMiddle, kPlain, std::to_string(degree));
  }
  canvas.text(x.last, bottom + 2, kEnd, kQuiet, "temperature (°C)");
}

void draw_curve(Canvas& canvas, const Plot& plot, const Axes& axes, int CurvePoint::*command,
                Look look) {
  const auto& [x, y, bottom] = axes;
  Canvas::Points points = {{x.first - 1, y(plot.points.front().*command)}};
  for (const CurvePoint& point : plot.points) {
    const double height = y(point.*command);
    points.emplace_back(x(point.celsius), points.back().second);
    points.emplace_back(x(point.celsius), height);
  }
  canvas.line(points, look);
}

// The label of the mark farther right stands higher, so that it crosses no mark.
void draw_marks(Canvas& canvas, const Plot& plot, const Axes& axes) {
  struct Mark {
    int celsius;
    const char* name;
    Look look;
  };
  std::vector<Mark> marks = {{alert_level(plot.table), "alert level ", kAlert},
                             {plot.critical, "critical ", kCritical}};
  std::ranges::stable_sort(marks, {}, &Mark::celsius);
  double line = kTop;
  for (const Mark& mark : marks) {
    if (!plot.shows(mark.celsius)) continue;
    const std::string text = join({mark.name, mark.celsius, " °C"});
    const double x = axes.x(mark.celsius);
    const bool left = x - 1 - static_cast<double>(width_of(text)) >= axes.x.first;
    canvas.text(left ? x - 2 : x + 2, --line, left ? kEnd : kBegin, mark.look, text);
    canvas.mark(x, line, axes.bottom, mark.look);
  }
}

std::string tell_now(const Plot& plot) {
  const CurvePoint point = plot.at(plot.now->celsius);
  std::string text =
      join({"now ", point.celsius, " °C by ", plot.now->source, ": command ", point.rising});
  if (point.rising != point.falling)
    text += join({" while rising, ", point.falling, " while falling"});
  return text;
}

std::string tell_outside(const Plot& plot) {
  std::vector<std::string> what;
  for (const auto& [celsius, command] : plot.table) {
    if (!plot.shows(celsius)) what.push_back(join({"the step ", celsius, "=", command}));
  }
  if (what.size() > kNamedSteps) what = {join({what.size(), " of ", plot.table.size(), " steps"})};
  if (!plot.shows(plot.critical)) {
    what.push_back(join({"the critical temperature ", plot.critical, " °C"}));
  }
  if (plot.now && !plot.shows(plot.now->celsius)) what.emplace_back("the present temperature");
  std::string text;
  for (const std::string& each : what) {
    text += (text.empty() ? "Outside the picture: " : ", ") + each;
  }
  if (!text.empty()) text += ".";
  return text;
}

std::vector<std::string> wrapped(const std::string& text, int columns) {
  std::istringstream words(text);
  std::vector<std::string> lines;
  for (std::string word; words >> word;) {
    if (lines.empty() ||
        width_of(lines.back()) + 1 + width_of(word) > static_cast<std::size_t>(columns)) {
      lines.push_back(word);
    } else {
      lines.back() += " " + word;
    }
  }
  return lines;
}

void write_legend(Canvas& canvas, const Plot& plot, const Axes& axes) {
  constexpr int kSample = 3, kSecond = 23, kRoom = 66;
  double x = axes.x.first;
  double y = axes.bottom + 2;
  const auto entry = [&](const char* name, Look look) {
    canvas.line({{x, y}, {x + kSample, y}}, look);
    canvas.text(x + kSample + 2, y, kBegin, kPlain, name);
  };
  // Beside the axis' name where there is room for all.
  if (plot.hysteresis && canvas.columns() < kRoom) {
    x = 0;
    ++y;
  }
  entry(plot.hysteresis ? "rising or steady" : "command", kRising);
  x += kSecond;
  if (plot.hysteresis) entry("falling", kFalling);

  const auto write = [&](const std::string& words, double indent) {
    const int columns = canvas.columns() - static_cast<int>(indent);
    for (const std::string& line : wrapped(words, columns)) {
      canvas.text(indent, ++y, kBegin, indent > 0 ? kNow : kPlain, line);
    }
  };
  if (plot.now) {
    canvas.dot(0, y + 1);
    write(tell_now(plot), 2);
  }
  write(explain_rule(plot), 0);
  write(tell_outside(plot), 0);
}

}  // namespace

CurvePoint Plot::at(int celsius) const {
  const auto after = [&](int previous) {
    return select_command(table, celsius, previous, hysteresis).command;
  };
  return {.celsius = celsius, .rising = after(INT_MIN), .falling = after(INT_MAX)};
}

Plot plot_curve(const CommandTable& table, const Settings& settings, std::optional<Reading> now) {
  Plot plot;
  plot.table = table;
  plot.hysteresis = settings.m_useHysteresis;
  plot.critical = settings.m_hddCriticalTemp;
  plot.now = std::move(now);
  int lowest = within(table.begin()->first);
  int highest = within(alert_level(table));
  for (const int celsius : {plot.critical, plot.now ? plot.now->celsius : plot.critical}) {
    if (celsius != within(celsius)) continue;
    lowest = std::min(lowest, celsius);
    highest = std::max(highest, celsius);
  }
  const int end = within(-round_down(-highest - kMargin));
  for (int celsius = within(round_down(lowest - kMargin)); celsius <= end; ++celsius) {
    plot.points.push_back(plot.at(celsius));
  }
  return plot;
}

std::string explain_rule(const Plot& plot) {
  if (plot.hysteresis) {
    return "Between two steps of the table, a rising or steady temperature gets the command of the "
           "upper step and a falling one that of the lower step.";
  }
  return "Every temperature gets the command of the nearest step of the table, of the lower one "
         "when two are equally near.";
}

void draw(Canvas& canvas, const Plot& plot) {
  const Axes axes = lay_out(canvas, plot);
  draw_axes(canvas, plot, axes);
  if (plot.hysteresis) draw_curve(canvas, plot, axes, &CurvePoint::falling, kFalling);
  draw_curve(canvas, plot, axes, &CurvePoint::rising, kRising);
  draw_marks(canvas, plot, axes);
  if (plot.now && plot.shows(plot.now->celsius)) {
    const CurvePoint point = plot.at(plot.now->celsius);
    for (const int command : {point.rising, point.falling}) {
      canvas.dot(axes.x(point.celsius), axes.y(command));
    }
  }
  write_legend(canvas, plot, axes);
}
