#include "enclosure.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <string_view>

namespace appliance {
namespace {

constexpr double kDensity = 1.16;       // kg/m3, of air at 30 degrees
constexpr double kHeatCapacity = 1006;  // J/(kg K), of air at constant pressure
constexpr double kFlowExponent = 0.6;
constexpr double kDay = 86400;
constexpr double kMost = 1e9;

// A value of the file, and what it may be: from 0 to most.
struct Row {
  std::string_view key;
  double EnclosureParameters::*value;
  bool zeroToo;
  double most;
};
constexpr Row kRows[] = {
    {"step", &EnclosureParameters::step, false, 60},
    {"air_capacity", &EnclosureParameters::air, false, kMost},
    {"board_power", &EnclosureParameters::board, true, kMost},
    {"wall_conductance", &EnclosureParameters::walls, false, kMost},
    {"fan_flow", &EnclosureParameters::fullFlow, true, kMost},
    {"fan_speed", &EnclosureParameters::fullSpeed, false, kMost},
    {"fan_start_speed", &EnclosureParameters::startSpeed, true, kMost},
    {"fan_stall_speed", &EnclosureParameters::stallSpeed, true, kMost},
    {"fan_spin_up", &EnclosureParameters::spinUp, false, kMost},
    {"fan_power", &EnclosureParameters::fanPower, true, kMost},
    {"fan_command", &EnclosureParameters::fullCommand, false, kMost},
    {"sensor_place", &EnclosureParameters::sensorPlace, true, 1},
    {"sensor_lag", &EnclosureParameters::sensorLag, false, kMost},
    {"sensor_resolution", &EnclosureParameters::sensorStep, false, kMost},
};

struct DiskRow {
  std::string_view key;
  double DiskParameters::*value;
  bool zeroToo;
};
constexpr DiskRow kDiskRows[] = {
    {"disk_capacity", &DiskParameters::capacity, false},
    {"disk_idle_power", &DiskParameters::idle, true},
    {"disk_seek_power", &DiskParameters::seek, true},
    {"disk_standby_power", &DiskParameters::standby, true},
    {"disk_conductance", &DiskParameters::still, false},
    {"disk_flow_conductance", &DiskParameters::flow, true},
};

struct FileRow {
  std::string_view key;
  std::string EnclosureParameters::*path;
};
constexpr FileRow kFileRows[] = {
    {"command_file", &EnclosureParameters::commandFile},
    {"speed_file", &EnclosureParameters::speedFile},
    {"pwm_file", &EnclosureParameters::pwmFile},
    {"alarm_file", &EnclosureParameters::alarmFile},
    {"sensor_file", &EnclosureParameters::sensorFile},
};

// "0:22 21600:19": seconds of the day in ascending order, and degrees Celsius.
bool toSchedule(const std::string& text, Schedule& schedule) {
  schedule.clear();
  for (std::string_view rest = text; !rest.empty();) {
    const std::size_t blank = std::min(rest.find(' '), rest.size());
    const std::string_view word = rest.substr(0, blank);
    rest.remove_prefix(std::min(blank + 1, rest.size()));
    if (word.empty()) continue;
    const std::size_t colon = std::min(word.find(':'), word.size());
    double seconds = 0, celsius = 0;
    if (colon == word.size() || !toNumber(std::string(word.substr(0, colon)), seconds) ||
        !toNumber(std::string(word.substr(colon + 1)), celsius)) {
      return false;
    }
    const bool ascends = schedule.empty() ? seconds == 0 : seconds > schedule.back().first;
    if (!ascends || seconds > kDay || !isOutside(celsius)) return false;
    schedule.emplace_back(seconds, celsius);
  }
  return !schedule.empty();
}

class Reader {
 public:
  explicit Reader(EnclosureParameters& parameters) : m_parameters(parameters) {}

  // What is wrong with a line; empty when nothing is.
  std::string take(const std::string& key, const std::string& value) {
    if (key == "disk") return takeDisk(value);
    const bool isAgain = has(key);
    m_seen.push_back(key);
    for (const FileRow& row : kFileRows) {
      if (row.key != key) continue;
      m_parameters.*row.path = value;
      const bool isWhole = value.starts_with("/") && value.find("..") == std::string::npos;
      return isWhole || value.empty() ? "" : key + " is no whole path";
    }
    if (key == "outside") {
      if (toSchedule(value, m_parameters.outside)) return "";
      return "outside: write SECONDS:CELSIUS, the first at 0, ascending, up to 86400";
    }
    for (const Row& row : kRows) {
      if (row.key != key) continue;
      if (isAgain) return key + " is there twice";
      return takeNumber(row, value, m_parameters.*row.value, row.most);
    }
    for (const DiskRow& row : kDiskRows) {
      if (row.key == key) return takeNumber(row, value, m_parameters.disk.*row.value, kMost);
    }
    return key + ": there is no such value";
  }

  std::string missing() const {
    for (const Row& row : kRows) {
      if (!has(row.key)) return std::string(row.key) + " is missing";
    }
    if (!has("outside")) return "outside is missing";
    if (m_parameters.disks.empty()) return "there is no disk";
    if (m_parameters.stallSpeed > m_parameters.startSpeed) {
      return "fan_stall_speed is above fan_start_speed";
    }
    if (m_parameters.startSpeed > m_parameters.fullSpeed) {
      return "fan_start_speed is above fan_speed";
    }
    return "";
  }

 private:
  bool has(std::string_view key) const {
    return std::find(m_seen.begin(), m_seen.end(), key) != m_seen.end();
  }

  template <typename AnyRow>
  static std::string takeNumber(const AnyRow& row, const std::string& text, double& value,
                                double most) {
    const bool isPossible =
        toNumber(text, value) && (row.zeroToo ? value >= 0 : value > 0) && value <= most;
    return isPossible ? "" : std::string(row.key) + ": '" + text + "' is not possible";
  }

  std::string takeDisk(const std::string& name) {
    for (const DiskRow& row : kDiskRows) {
      if (!has(row.key)) return "disk: " + std::string(row.key) + " has to stand above it";
    }
    if (name.size() != 3 || !name.starts_with("sd") || name[2] < 'a' || name[2] > 'z') {
      return "disk: " + name + " is no name such as sda";
    }
    const auto& names = m_parameters.diskNames;
    if (std::find(names.begin(), names.end(), name) != names.end()) {
      return "disk: " + name + " is there twice";
    }
    m_parameters.disks.push_back(m_parameters.disk);
    m_parameters.diskNames.push_back(name);
    return "";
  }

  EnclosureParameters& m_parameters;
  std::vector<std::string> m_seen;
};

// How far something with a time constant gets towards its aim.
double approach(double from, double to, double seconds, double constant) {
  return to + (from - to) * std::exp(-seconds / constant);
}

}  // namespace

bool isOutside(double celsius) {
  constexpr double kColdest = -273.15;
  constexpr double kWarmest = 1000;
  return celsius >= kColdest && celsius <= kWarmest;
}

bool toNumber(const std::string& text, double& value) {
  char* end = nullptr;
  value = std::strtod(text.c_str(), &end);
  return !text.empty() && *end == '\0' && std::isfinite(value);
}

double temperatureAt(const Schedule& points, double second) {
  const auto next = std::find_if(points.begin(), points.end(),
                                 [&](const auto& point) { return point.first > second; });
  const auto& from = *std::prev(next);
  const auto to = next == points.end() ? std::make_pair(kDay, points.front().second) : *next;
  const double part = (second - from.first) / (to.first - from.first);
  return from.second + part * (to.second - from.second);
}

std::string readEnclosure(const std::string& text, EnclosureParameters& parameters) {
  parameters = {};
  Reader reader(parameters);
  std::string_view rest = text;
  for (int number = 1; !rest.empty(); ++number) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.find_first_not_of(" \t") == std::string_view::npos || line[0] == '#') continue;
    const std::size_t equals = line.find('=');
    const std::string problem =
        equals == std::string_view::npos
            ? "this is no line of the form name=value"
            : reader.take(
                  std::string(line.substr(0, equals)),
                  std::string(line.substr(equals + 1, line.find_last_not_of(" \t") - equals)));
    if (!problem.empty()) return std::to_string(number) + ": " + problem;
  }
  return reader.missing();
}

Enclosure::Enclosure(EnclosureParameters parameters)
    : m_parameters(std::move(parameters)),
      m_air(outside()),
      m_sensor(m_air),
      m_disks(m_parameters.disks.size(), m_air),
      m_loads(m_parameters.disks.size(), Load::kIdle) {}

double Enclosure::outside() const {
  return temperatureAt(m_parameters.outside, std::fmod(m_seconds, kDay));
}

double Enclosure::flow() const {
  return m_parameters.fullFlow * m_dust * m_speed / m_parameters.fullSpeed;
}

double Enclosure::diskPower(std::size_t disk) const {
  const DiskParameters& parameters = m_parameters.disks[disk];
  if (m_loads[disk] == Load::kStandby) return parameters.standby;
  return m_loads[disk] == Load::kSeek ? parameters.seek : parameters.idle;
}

double Enclosure::fanPower() const {
  return m_parameters.fanPower * std::pow(m_speed / m_parameters.fullSpeed, 3);
}

void Enclosure::turnFan(double seconds, double command) {
  const double share = std::isfinite(command) ? command / m_parameters.fullCommand : 0;
  double aim = m_parameters.fullSpeed * std::clamp(share, 0.0, 1.0);
  // A fan that has stalled runs out. Before it stands still it can only be started again.
  const bool turns = m_speed > 0 && m_speed >= m_parameters.stallSpeed;
  if (aim < (turns ? m_parameters.stallSpeed : m_parameters.startSpeed)) aim = 0;
  m_speed = m_blocked ? 0 : approach(m_speed, aim, seconds, m_parameters.spinUp);
  constexpr double kStandstill = 1;  // rpm
  if (aim == 0 && m_speed < kStandstill) m_speed = 0;
}

// The temperatures at the end of the step are those from which its heat flows, so no length of the
// step lets them swing. The disks touch only the air: the system is solved in one pass.
void Enclosure::heat(double seconds) {
  const double share = m_parameters.fullFlow > 0 ? flow() / m_parameters.fullFlow : 0;
  const double forced = std::pow(share, kFlowExponent);
  const double exchange = m_parameters.walls + kDensity * kHeatCapacity * flow();
  const double around = outside();
  double weight = m_parameters.air / seconds + exchange;
  double heat = m_parameters.air / seconds * m_air + m_parameters.board + exchange * around;
  const auto conductance = [&](const DiskParameters& disk) {
    return disk.still + disk.flow * forced;
  };
  const auto inertia = [&](const DiskParameters& disk) { return disk.capacity / seconds; };
  for (std::size_t i = 0; i < m_disks.size(); ++i) {
    const DiskParameters& disk = m_parameters.disks[i];
    const double part = conductance(disk) / (inertia(disk) + conductance(disk));
    weight += conductance(disk) * (1 - part);
    heat += part * (inertia(disk) * m_disks[i] + diskPower(i));
  }
  m_air = heat / weight;
  for (std::size_t i = 0; i < m_disks.size(); ++i) {
    const DiskParameters& disk = m_parameters.disks[i];
    m_disks[i] = (inertia(disk) * m_disks[i] + diskPower(i) + conductance(disk) * m_air) /
                 (inertia(disk) + conductance(disk));
  }

  double mean = 0;
  for (const double each : m_disks) mean += each / static_cast<double>(m_disks.size());
  const double place = m_air + m_parameters.sensorPlace * (mean - m_air);
  m_sensor = approach(m_sensor, place, seconds, m_parameters.sensorLag);
}

// The loudness of a fan grows with 50 times the logarithm of its speed.
void Enclosure::watch(double seconds) {
  constexpr double kSoundExponent = 5, kColdest = -1000;
  if (m_interval.disks.empty()) {
    m_interval.sensor = kColdest;
    m_interval.disks.assign(m_disks.size(), kColdest);
  }
  m_interval.seconds += seconds;
  m_interval.speed += m_speed * seconds;
  m_interval.fanPower += fanPower() * seconds;
  m_interval.sound += std::pow(m_speed / m_parameters.fullSpeed, kSoundExponent) * seconds;
  m_interval.sensor = std::max(m_interval.sensor, m_sensor);
  for (std::size_t i = 0; i < m_disks.size(); ++i) {
    m_interval.disks[i] = std::max(m_interval.disks[i], m_disks[i]);
  }
}

Interval Enclosure::takeInterval() {
  if (!(m_interval.seconds > 0)) watch(1);  // at the start: as it is now
  Interval taken = std::move(m_interval);
  m_interval = {};
  for (double* const sum : {&taken.speed, &taken.fanPower, &taken.sound}) *sum /= taken.seconds;
  return taken;
}

void Enclosure::setTemperatures(const std::vector<double>& celsius) {
  m_isReplayed = true;
  for (std::size_t i = 0; i < m_disks.size() && !celsius.empty(); ++i) {
    const double value = celsius[std::min(i, celsius.size() - 1)];
    if (!std::isnan(value)) m_disks[i] = value;
  }
  if (!celsius.empty() && !std::isnan(celsius.front())) m_sensor = m_air = celsius.front();
}

void Enclosure::advanceTo(double seconds, double command) {
  while (m_seconds < seconds) {
    const double step = std::min(seconds - m_seconds, m_parameters.step);
    m_seconds += step;
    turnFan(step, command);
    if (!m_isReplayed) heat(step);
    watch(step);
  }
}

}  // namespace appliance
