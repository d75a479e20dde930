// The temperature as the service would measure it at this moment.
#pragma once

#include <optional>
#include <string>

#include "configuration.h"
#include "disk-state.h"

/// A temperature in degrees Celsius and whose it is ("the sensor", "/dev/sda").
struct Reading {
  int celsius;
  std::string source;
};

/// The configured sensor; nothing when there is none, or when it cannot be read.
std::optional<Reading> read_sensor(const Settings& settings);

/// The hottest of the disks that gave a temperature; nothing when none did.
std::optional<Reading> hottest_disk(const DiskList& list);

/// The sensor, else the hottest disk. A sleeping disk stays asleep.
std::optional<Reading> read_temperature(const Settings& settings);
