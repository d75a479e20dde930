#include "measurement.h"

#include <algorithm>

#include "utils.h"

namespace {

constexpr int kMillidegrees = 1000;

}  // namespace

std::optional<Reading> read_sensor(const Settings& settings) {
  const auto value = sysfs_read_attr(settings.m_tempSensorPath.c_str());
  if (!value) return std::nullopt;
  return Reading{parse_int(value.get()) / kMillidegrees, "the sensor"};
}

std::optional<Reading> hottest_disk(const DiskList& list) {
  const auto hottest = std::ranges::max_element(list.disks, {}, &DiskState::temperature);
  if (hottest == list.disks.end() || hottest->temperature == 0) return std::nullopt;
  return Reading{hottest->temperature, hottest->path};
}

std::optional<Reading> read_temperature(const Settings& settings) {
  auto reading = read_sensor(settings);
  return reading ? reading : hottest_disk(list_disk_states());
}
