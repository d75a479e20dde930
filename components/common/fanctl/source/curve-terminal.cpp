// The curve in characters.
#include <algorithm>
#include <array>
#include <cmath>
#include <string_view>

#include "curve-plot.h"
#include "terminal.h"

namespace {

constexpr int kNarrowest = 40;
constexpr int kWidest = 100;

// All junctions of thin and thick lines, counted in threes by the thickness of the arm to the top,
// the right, the bottom and the left. Each but the first has three bytes in UTF-8.
constexpr std::string_view kBoxes =
    "   ╴╸╷┐┑╻┒┓╶─╾┌┬┭┎┰┱╺╼━┍┮┯┏┲┳"
    "╵┘┙│┤┥╽┧┪└┴┵├┼┽┟╁╅┕┶┷┝┾┿┢╆╈"
    "╹┚┛╿┦┩┃┨┫┖┸┹┞╀╃┠╂╉┗┺┻┡╄╇┣╊╋";
enum Arm : std::size_t { kUp, kRight, kDown, kLeft };

using Paint = std::string (*)(std::string_view);
std::string unpainted(std::string_view text) { return std::string(text); }
// By the order of Look.
constexpr Paint kPaints[] = {unpainted, dim, green, unpainted, yellow, red, bold};

struct Cell {
  std::string text;  // one character; empty: lines, or nothing
  std::array<unsigned, 4> arms{};
  Look look = kPlain;

  unsigned thickest() const { return *std::ranges::max_element(arms); }
  bool empty() const { return text.empty() && thickest() == 0; }

  std::string glyph(bool utf8) const {
    if (!text.empty()) return text;
    const unsigned index = ((arms[kUp] * 3 + arms[kRight]) * 3 + arms[kDown]) * 3 + arms[kLeft];
    if (utf8) return std::string(kBoxes.substr(std::size_t{index} * 3, 3));
    const bool thick = thickest() > 1;
    if (arms[kUp] + arms[kDown] == 0) return thick ? "=" : "-";
    if (arms[kLeft] + arms[kRight] == 0) return thick ? "#" : "|";
    return thick ? "#" : "+";
  }
};

class Terminal : public Canvas {
 public:
  Terminal(int columns, bool utf8) : Canvas(columns, 1), m_utf8(utf8) {}

  void text(double x, double y, Anchor anchor, Look look, const std::string& words) override {
    std::string letters = words;
    constexpr std::string_view kDegree = "°";
    if (const auto at = letters.find(kDegree); !m_utf8 && at != std::string::npos) {
      letters.erase(at, kDegree.size());
    }
    const int length = static_cast<int>(width_of(letters));
    int column = column_of(x);
    if (anchor == kMiddle) column -= (length - 1) / 2;
    if (anchor == kEnd) column -= length - 1;
    column = std::max(0, std::min(column, columns() - length));
    for (std::size_t begin = 0; begin < letters.size() && column < columns(); ++column) {
      std::size_t end = begin + 1;
      while (end < letters.size() && width_of(letters.substr(end, 1)) == 0) ++end;
      put(at(column, y), letters.substr(begin, end - begin), look);
      begin = end;
    }
  }

  void line(const Points& points, Look look) override {
    for (std::size_t i = 1; i < points.size(); ++i) {
      const auto& [x, y] = points[i - 1];
      const auto& [toX, toY] = points[i];
      for (int column = column_of(x); column < column_of(toX); ++column) {
        grow(at(column, y), kRight, look);
        grow(at(column + 1, y), kLeft, look);
      }
      const auto [top, bottom] = std::minmax({std::lround(y), std::lround(toY)});
      for (long row = top; row < bottom; ++row) {
        grow(at(toX, static_cast<double>(row)), kDown, look);
        grow(at(toX, static_cast<double>(row + 1)), kUp, look);
      }
    }
  }

  void degree_tick(double x, double y) override { grow(at(x, y), kDown, kQuiet); }
  void command_tick(double x, double y, double) override { grow(at(x, y), kLeft, kQuiet); }

  void mark(double x, double top, double bottom, Look look) override {
    for (long row = std::lround(top); row < std::lround(bottom); ++row) {
      Cell& cell = at(x, static_cast<double>(row));
      if (cell.empty()) put(cell, m_utf8 ? "┊" : ":", look);
    }
  }

  void dot(double x, double y) override { put(at(x, y), m_utf8 ? "●" : "o", kNow); }

  std::string lines() const {
    std::string all;
    for (const auto& row : m_rows) all += line_of(row) + "\n";
    return all;
  }

 private:
  static int column_of(double x) { return static_cast<int>(std::lround(x)); }

  Cell& at(double x, double y) {
    const auto row = static_cast<std::size_t>(std::lround(y));
    while (m_rows.size() <= row) m_rows.emplace_back(static_cast<std::size_t>(columns()));
    return m_rows[row][static_cast<std::size_t>(column_of(x))];
  }

  static void put(Cell& cell, const std::string& character, Look look) {
    cell.text = character;
    cell.look = look;
  }

  static void grow(Cell& cell, Arm arm, Look look) {
    cell.arms[arm] = std::max(cell.arms[arm], look == kRising ? 2U : 1U);
    cell.look = look;
  }

  std::string line_of(const std::vector<Cell>& row) const {
    std::string line, blanks, run;
    Look look = kPlain;
    for (const Cell& cell : row) {
      if (cell.empty()) {
        blanks += ' ';
        continue;
      }
      if (cell.look != look || !blanks.empty()) {
        if (!run.empty()) line += kPaints[look](run);
        line += blanks;
        run.clear();
        blanks.clear();
      }
      look = cell.look;
      run += cell.glyph(m_utf8);
    }
    return run.empty() ? line : line + kPaints[look](run);
  }

  bool m_utf8;
  std::vector<std::vector<Cell>> m_rows;
};

}  // namespace

std::string draw_terminal(const Plot& plot, int columns, bool utf8) {
  Terminal terminal(std::clamp(columns, kNarrowest, kWidest), utf8);
  draw(terminal, plot);
  return terminal.lines();
}
