// The script and the data that gnuplot draws the day's picture from.
#pragma once

#include <map>
#include <string>

#include "figures.h"

// A picture for a width of the page. The rest of its height follows.
struct PlotFormat {
  int width;                // px
  int font;                 // px
  double left, right;       // of the panels; parts of the width
  int temperatures, small;  // height of the panels, px
  double line;              // width, px
  std::size_t points;       // at most, of a line
  double legendLeft;        // part of the width
  int legendColumns;
  bool isNarrow;  // fewer words
};

// Files by their names; gnuplot is run on "script" and makes "out.svg".
std::map<std::string, std::string> plot_files(const Report& report, const PlotFormat& format);
