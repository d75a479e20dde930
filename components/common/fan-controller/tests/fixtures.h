// What the tests share: a controller and the shipped binary on a simulated appliance, and the
// management library's double.
#pragma once

#include <doctest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "FanController.h"
#include "alert-mgr.h"
#include "drivers.h"
#include "layout.h"
#include "program.h"

using Lines = std::vector<std::string>;

inline const std::string FAN = "/sys/fan";
inline const std::string SENSOR = "/sys/temp";
inline const std::string CONFIG = "/etc/fan_controller";
inline const std::string PID_FILE = "/var/run/fan_controller.pid";
inline const std::string STATUS = "/var/run/status";
inline const std::string TABLE = "30=100\n40=150\n50=200\n55=255\n";

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}
inline bool contains(const Lines& lines, const std::string& line) {
  return std::ranges::find(lines, line) != lines.end();
}
Lines operator+(Lines left, const Lines& right);
/// Everything that body writes to standard output.
std::string traced(const std::function<void()>& body);

/// An appliance; nothing may have been changed outside of it at its end.
struct TestAppliance : Appliance {
  ~TestAppliance();
};

/// A controller on an appliance of its own, to be driven operation by operation: fanless, with a
/// short table and nothing to report.
struct Bench : TestAppliance, FanController {
  Bench();
};

/// The management library as the linked service sees it; every call is journalled as "corvane".
inline int corvaneInitResult, corvaneEmptyFetches;  ///< the latter fail before one delivers

/// The shipped binary.
struct Service : Program {
  explicit Service(const Appliance& appliance, const Lines& arguments = {"--verbose", "-c", CONFIG},
                   int output = -1, int terminal = -1)
      : Program(appliance, {FAN_CONTROLLER_BINARY, arguments, output, terminal}) {}
};
