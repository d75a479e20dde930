// The report in the terminal, at most 80 columns wide.
#pragma once

#include <string>

#include "figures.h"

// With colors only where they are wanted.
std::string summary_of(const Report& report, bool colors);
