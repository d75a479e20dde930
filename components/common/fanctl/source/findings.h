// What fanctl check finds, and the two halves of the check.
#pragma once

#include <string>
#include <vector>

#include "configuration.h"
#include "disk-state.h"
#include "hwmon.h"

/// One finding. Its text ends with what to do.
struct Finding {
  std::string place;  ///< FILE:LINE, or "machine"
  bool isError =
      false;  ///< else a warning: the service does what is written, but it is seldom wanted
  std::string text;
};

using Findings = std::vector<Finding>;

/// What the check knows of the machine: read once, so that the findings and the summary agree.
struct Machine {
  std::vector<Chip> chips;
  DiskList disks;
  Driver driver;
  std::optional<std::string> sensorText;  ///< what the sensor reads; nothing when it cannot be read
  std::string bootFolder;                 ///< of fan_link.conf; empty when there is none
  std::string bootProblem;                ///< why it could not be made; empty when it could
};

/// Reads both files line by line, as the service's own readers take them.
void check_files(const Configuration& configuration, const Driver& driver, Findings& findings);

/// Looks at what the settings name, and at what the service will meet here.
void check_machine(const Configuration& configuration, const Machine& machine, Findings& findings);
