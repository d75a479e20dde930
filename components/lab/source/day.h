// What a run is given: the enclosure, and the day or the recorded temperatures that it lives
// through.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "enclosure.h"

inline constexpr long long kMinute = 60;  // s, and of minutes in an hour
inline constexpr long long kHour = 3600;  // s
inline constexpr long long kHoursOfDay = 24;
inline constexpr long long kDay = kHoursOfDay * kHour;
// Before the counting begins everything warms up, in the state of the day's first second.
inline constexpr long long kWarmUp = 6 * kHour;

struct Scenario {
  std::string enclosureName;
  std::string name;  // of the day's file or the recording's
  bool isRecorded = false;
  long long seconds = 0;  // to be counted
  std::string enclosure;  // the file's text, its day shifted by the warm-up
  appliance::EnclosureParameters parameters;
  // The disks that are shown, in the order of their names: with a recording those that it has.
  // Their places in the enclosure's file.
  std::vector<std::size_t> disks;
  std::vector<double> start;  // degrees Celsius of the disks at the very first second
  // Second from the beginning of the counted time, and what the timeline takes.
  std::vector<std::pair<long long, std::string>> events;
  std::vector<std::string> warnings;

  const std::string& diskName(std::size_t shown) const {
    return parameters.diskNames[disks[shown]];
  }
};

// Reads the two files. Without hours the whole recording is counted, or one day. Throws LabError.
Scenario read_scenario(const std::string& enclosureFile, const std::string& dayFile,
                       const std::string& recordingFile, int hours);

// The events with the warm-up before them and SIGTERM behind them, as the simulation reads them.
std::string timeline_of(const Scenario& scenario);
