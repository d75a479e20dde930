// The report as one page that needs nothing but itself.
#pragma once

#include <string>

#include "figures.h"
#include "picture.h"

std::string page_of(const Report& report, const Pictures& pictures);
