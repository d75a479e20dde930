// A day of the shipped service on the simulated appliance.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "configuration.h"
#include "day.h"

// The state at a full minute.
struct Minute {
  long long second = 0;                     // of the counted time
  double outside = 0, air = 0, sensor = 0;  // degrees Celsius
  double command = 0;
  double speed = 0;     // rpm
  double flow = 0;      // m3/s
  double fanPower = 0;  // W
  std::vector<double> disks;
  // Of the minute that ends here.
  double meanSpeed = 0;      // rpm
  double meanFanPower = 0;   // W
  double sound = 0;          // energy, against full speed
  double warmestSensor = 0;  // degrees Celsius, as the following
  std::vector<double> warmest;
  int measured = 0;      // whole degrees, as the service would measure now
  int measuredMost = 0;  // at any moment of the minute

  double hottest() const;
  double coolest() const;
};

enum class Happening { kHigh, kCritical, kNormal, kFanFailed, kRestart };
inline constexpr std::size_t kHappenings = 5;
extern const char* const kHappeningTexts[kHappenings];

struct Run {
  const Configuration* configuration = nullptr;
  bool isRival = false;
  bool hysteresis = false;
  std::vector<Minute> minutes;  // from second 0 on
  // When a command was given; the first one, at second 0, is what the warm-up ended with.
  std::vector<std::pair<long long, int>> commands;
  std::vector<std::pair<long long, Happening>> happenings;

  std::string rule() const { return hysteresis ? "hysteresis" : "nearest step"; }
  // "table-nearest", "rival-hysteresis": for files.
  std::string id() const;
};

// Runs it to the end of the scenario. progress is told, from time to time, the part that is done
// (0 to 1). Throws LabError when the service does not come to the end, or finds no fan.
Run run_service(const Configuration& configuration, bool hysteresis, const Scenario& scenario,
                const std::function<void(double)>& progress);
