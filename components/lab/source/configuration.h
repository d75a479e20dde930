// What is tried out: the service's two files, and what the service itself finds in them.
#pragma once

#include <map>
#include <string>

struct Configuration {
  std::string folder;    // as it was named
  std::string name;      // its last part
  std::string settings;  // fan_controller.conf, without the rule and without files of its own
  std::string table;     // fan_cmd_tab.conf
  // As the service's trace tells them.
  bool hysteresis = false;
  int period = 180;                   // s
  int critical = 65;                  // degrees Celsius
  std::string driver, alarm, sensor;  // paths; empty: not configured
  std::map<int, int> steps;           // degrees Celsius and their commands, at least one

  int alertLevel() const { return steps.rbegin()->first; }
  int highestCommand() const;
  // The settings with the one rule or the other.
  std::string settingsWith(bool useHysteresis) const;
};

// Reads the two files and has the service tell what they mean. Throws LabError, also when they name
// no fan driver, or a path that the simulated appliance cannot have.
Configuration read_configuration(const std::string& folder);
