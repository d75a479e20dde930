// The picture of a command table: what it shows and where, for the terminal and for SVG alike.
#pragma once

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cmd-table.h"
#include "configuration.h"
#include "measurement.h"

/// The commands at a temperature; by the nearest-step rule both are the same.
struct CurvePoint {
  int celsius;
  int rising;  ///< or steady
  int falling;
};

struct Plot {
  CommandTable table;  ///< never empty
  bool hysteresis = false;
  int critical = 0;
  std::optional<Reading> now;
  std::string unit = "command";
  std::vector<CurvePoint> points;  ///< of every degree that is drawn, ascending

  /// The service's own selection at one temperature.
  CurvePoint at(int celsius) const;
  bool shows(int celsius) const {
    return celsius >= points.front().celsius && celsius <= points.back().celsius;
  }
};

/// The degrees around the table, the critical temperature and the present one, as far as they lie
/// between -60 and 150. The table must hold a step.
Plot plot_curve(const CommandTable& table, const Settings& settings, std::optional<Reading> now);

/// One sentence: what is drawn.
std::string explain_rule(const Plot& plot);

/// What is painted alike.
enum Look { kPlain, kQuiet, kRising, kFalling, kAlert, kCritical, kNow };
enum Anchor { kBegin, kMiddle, kEnd };

/// Where a picture is drawn on. Positions are columns and lines of text from the left and the top,
/// fractions where the surface has finer ones. Texts are UTF-8.
class Canvas {
 public:
  using Points = std::vector<std::pair<double, double>>;

  /// columns: its width; gap: lines between the lowest command and the axis.
  Canvas(int columns, double gap) : m_columns(columns), m_gap(gap) {}
  Canvas(const Canvas&) = delete;
  Canvas& operator=(const Canvas&) = delete;
  virtual ~Canvas() = default;

  int columns() const { return m_columns; }
  double gap() const { return m_gap; }

  virtual void text(double x, double y, Anchor anchor, Look look, const std::string& words) = 0;
  /// From point to point, along lines and columns only.
  virtual void line(const Points& points, Look look) = 0;
  virtual void degree_tick(double x, double y) = 0;
  /// end: where the picture ends on the right.
  virtual void command_tick(double x, double y, double end) = 0;
  /// A vertical line below which other lines stay visible.
  virtual void mark(double x, double top, double bottom, Look look) = 0;
  virtual void dot(double x, double y) = 0;

 private:
  int m_columns;
  double m_gap;
};

void draw(Canvas& canvas, const Plot& plot);

/// Lines with line feeds, at most so many columns wide where that is between 40 and 100.
std::string draw_terminal(const Plot& plot, int columns, bool utf8);

std::string draw_svg(const Plot& plot);
