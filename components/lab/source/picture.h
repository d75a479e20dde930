// The day's picture, drawn by gnuplot: temperatures with the table's steps, command and speed below
// on the same time axis.
#pragma once

#include <string>

#include "figures.h"

// SVG, in which the text's colour is that of the surroundings.
struct Pictures {
  std::string wide, narrow;
};

// Draws in a folder of its own below the one that is named. Throws LabError when gnuplot is missing
// or fails.
Pictures draw(const Report& report, const std::string& folder);

// A picture as a document, readable on light and dark ground.
std::string document_of(const std::string& svg);
// A picture as part of a page that holds several: its ids get a prefix.
std::string inline_svg(const std::string& svg, const std::string& prefix);
