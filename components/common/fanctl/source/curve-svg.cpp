// The curve as an SVG picture, for a page or a README.
#include <algorithm>
#include <cmath>

#include "curve-plot.h"
#include "utils.h"

namespace {

constexpr int kColumns = 80;
// A column and a line of text, in pixels.
constexpr int kColumn = 9;
constexpr int kLine = 24;
constexpr int kEdge = 32;

// By the order of Look; the page itself comes last.
struct Colour {
  const char* name;
  const char* light;
  const char* dark;
};
constexpr Colour kColours[] = {
    {"plain", "#24292e", "#e4e8ec"},  {"quiet", "#5d666f", "#98a2ad"},
    {"rising", "#0b62c4", "#5aa9f8"}, {"falling", "#7d4fc4", "#bd97f5"},
    {"alert", "#8f6200", "#dca52e"},  {"critical", "#c3202b", "#f5685f"},
    {"now", "#15743a", "#4cc06a"},    {"page", "#ffffff", "#14181d"},
};

constexpr const char* kAnchors[] = {"start", "middle", "end"};

// All shapes take the colour of their class, so dark surroundings change nothing else.
constexpr char kShapes[] =
    "text{fill:currentColor;font:14px system-ui,'DejaVu Sans',Helvetica,Arial,sans-serif}\n"
    "rect,circle{fill:currentColor}path{fill:none;stroke:currentColor;stroke-linejoin:round}\n"
    ".rising{stroke-width:3}.falling{stroke-width:2;stroke-dasharray:7 "
    "4}.grid{stroke-opacity:.25}\n"
    ".mark{stroke-width:1.5;stroke-dasharray:3 4}\n";

std::string style() {
  std::string light, dark;
  for (const Colour& colour : kColours) {
    light += join({".", colour.name, "{color:", colour.light, "}"});
    dark += join({".", colour.name, "{color:", colour.dark, "}"});
  }
  return join(
      {"<style>\n", kShapes, light, "\n@media(prefers-color-scheme:dark){", dark, "}\n</style>\n"});
}

long across(double x) { return std::lround(x * kColumn) + kEdge; }
long down(double y) { return std::lround(y * kLine) + kEdge; }

class Svg : public Canvas {
 public:
  Svg() : Canvas(kColumns, 0) {}

  // No text of a picture holds a character that XML takes for markup.
  void text(double x, double y, Anchor anchor, Look look, const std::string& words) override {
    constexpr int kHalfLetter = 5;
    x += anchor == kBegin ? -0.5 : anchor == kEnd ? 0.5 : 0;  // lines run through cells' middles
    m_shapes +=
        join({"<text class=\"", kColours[look].name, "\" text-anchor=\"", kAnchors[anchor],
              "\" x=\"", across(x), "\" y=\"", down(y) + kHalfLetter, "\">", words, "</text>\n"});
    m_height = std::max(m_height, down(y) + kEdge);
  }

  void line(const Points& points, Look look) override {
    long height = down(points.front().second);
    std::string data = join({"M", across(points.front().first), " ", height});
    for (const auto& [x, y] : points) {
      if (down(y) == height) continue;  // the stretch goes on
      height = down(y);
      data += join({"H", across(x), "V", height});
    }
    data += join({"H", across(points.back().first)});
    path(kColours[look].name, data);
  }

  void degree_tick(double x, double y) override {
    path("quiet", join({"M", across(x), " ", down(y), "v6"}));
  }
  void command_tick(double x, double y, double end) override {
    path("quiet grid", join({"M", across(x), " ", down(y), "H", across(end)}));
  }
  void mark(double x, double top, double bottom, Look look) override {
    path(join({kColours[look].name, " mark"}),
         join({"M", across(x), " ", down(top) - kLine / 4, "V", down(bottom)}));
  }
  void dot(double x, double y) override {
    m_shapes +=
        join({"<circle class=\"now\" cx=\"", across(x), "\" cy=\"", down(y), "\" r=\"6\"/>\n"});
  }

  std::string file(const std::string& description) const {
    constexpr int kWidth = kColumns * kColumn + 2 * kEdge;
    return join({"<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" width=\"", kWidth,
                 "\" height=\"", m_height, "\" viewBox=\"0 0 ", kWidth, " ", m_height,
                 "\">\n<title>Fan command by temperature</title>\n<desc>", description, "</desc>\n",
                 style(), "<rect class=\"page\" width=\"100%\" height=\"100%\" rx=\"8\"/>\n",
                 m_shapes, "</svg>\n"});
  }

 private:
  void path(const std::string& classes, const std::string& data) {
    m_shapes += join({"<path class=\"", classes, "\" d=\"", data, "\"/>\n"});
  }

  std::string m_shapes;
  long m_height = 0;
};

}  // namespace

std::string draw_svg(const Plot& plot) {
  Svg svg;
  draw(svg, plot);
  std::string steps;
  for (const auto& [celsius, command] : plot.table) {
    steps += join({steps.empty() ? "" : ", ", celsius, " °C: ", command});
  }
  return svg.file(join({explain_rule(plot), " Steps, in ", plot.unit, ": ", steps, "."}));
}
