// The enclosure that heats up: its physics, its file, and the shipped service inside it.
#include "enclosure.h"

#include <unistd.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

#include "fixtures.h"

using appliance::Enclosure, appliance::EnclosureParameters, appliance::Load;

namespace {

const std::string kValues =
    "step=1\nair_capacity=300\nboard_power=15\nwall_conductance=1\nfan_flow=0.01\nfan_speed=2000\n"
    "fan_start_speed=500\nfan_stall_speed=300\nfan_spin_up=2\nfan_power=2\nfan_command=255\n"
    "sensor_place=0.25\nsensor_lag=60\nsensor_resolution=250\noutside=0:25\ndisk_capacity=450\n"
    "disk_idle_power=5\ndisk_seek_power=8\ndisk_standby_power=1\ndisk_conductance=0.25\n"
    "disk_flow_conductance=1\ndisk=sda\ndisk_conductance=0.2\ndisk=sdb\n";
constexpr double kAir = 1.16 * 1006;  // J/(m3 K)
using Values = std::vector<double>;

std::string textOf(const std::string& example) {
  std::ifstream file(LAB_FOLDER "/enclosures/" + example);
  return {std::istreambuf_iterator<char>(file), {}};
}

EnclosureParameters parametersOf(const std::string& text) {
  EnclosureParameters parameters;
  REQUIRE(appliance::readEnclosure(text, parameters) == "");
  return parameters;
}

void loadAll(Enclosure& box, Load load) {
  for (std::size_t i = 0; i < box.disks().size(); ++i) box.setLoad(i, load);
}

double watts(const EnclosureParameters& box, std::size_t disk, Load load) {
  const auto& own = box.disks[disk];
  return load == Load::kIdle ? own.idle : load == Load::kSeek ? own.seek : own.standby;
}

// Air, sensor, disks.
Values temperatures(const Enclosure& box) {
  Values all = {box.air(), box.sensor()};
  all.insert(all.end(), box.disks().begin(), box.disks().end());
  return all;
}

// Where they settle when the fan's flow is a share of the full one.
Values closedForm(const EnclosureParameters& box, double around, double share, Load load) {
  double power = box.board, mean = 0;
  const std::size_t disks = box.disks.size();
  for (std::size_t i = 0; i < disks; ++i) power += watts(box, i, load);
  const double air = around + power / (box.walls + kAir * box.fullFlow * share);
  Values all = {air, 0};
  for (std::size_t i = 0; i < disks; ++i) {
    const double conductance = box.disks[i].still + box.disks[i].flow * std::pow(share, 0.6);
    all.push_back(air + watts(box, i, load) / conductance);
    mean += all.back() / static_cast<double>(disks);
  }
  all[1] = air + box.sensorPlace * (mean - air);
  return all;
}

double distance(const Values& left, const Values& right) {
  double most = left.size() == right.size() ? 0 : INFINITY;
  for (std::size_t i = 0; i < left.size(); ++i) most = std::max(most, std::abs(left[i] - right[i]));
  return most;
}

// A summer day of 24 to 31 degrees in pieces of some seconds. At times the fan stands still, and
// starts at full speed; with a share it turns with that one all day.
void liveDay(Enclosure& box, double piece, double onlyShare, const std::function<void()>& each) {
  constexpr struct {
    double until, share;
    Load load;
  } kDay[] = {{7200, 0.5, Load::kIdle},   {18000, 0.5, Load::kSeek}, {30000, 0.8, Load::kIdle},
              {43200, 0, Load::kIdle},    {46800, 1, Load::kSeek},   {60000, 0.4, Load::kStandby},
              {64000, 0.05, Load::kIdle}, {80000, 1, Load::kIdle},   {86400, 0.6, Load::kSeek}};
  for (const auto& [until, share, load] : kDay) {
    loadAll(box, load);
    const double command = (onlyShare < 0 ? share : onlyShare) * box.parameters().fullCommand;
    for (; box.seconds() < until; each()) box.advanceTo(box.seconds() + piece, command);
  }
}

Values recordedDay(EnclosureParameters parameters, double step, double piece, double share = -1,
                   double dust = 1) {
  parameters.step = step;
  Enclosure box(std::move(parameters));
  box.setDust(dust);
  Values all;
  liveDay(box, piece, share, [&] {
    for (const double each : temperatures(box)) all.push_back(each);
  });
  return all;
}

// What is made less what leaves and what is stored, as a part of what is made.
double energyMissing(const EnclosureParameters& parameters) {
  Enclosure box(parameters);
  const auto stored = [&] {
    double sum = parameters.air * box.air();
    for (std::size_t i = 0; i < box.disks().size(); ++i) {
      sum += parameters.disks[i].capacity * box.disks()[i];
    }
    return sum;
  };
  const double before = stored();
  double made = 0, left = 0;
  liveDay(box, parameters.step, -1, [&] {
    double power = parameters.board;
    for (std::size_t i = 0; i < box.disks().size(); ++i) power += watts(parameters, i, box.load(i));
    const double exchange = parameters.walls + kAir * box.flow();
    made += power * parameters.step;
    left += exchange * (box.air() - box.outside()) * parameters.step;
  });
  return (made - left - (stored() - before)) / made;
}

// An appliance in which the files of the enclosure are there.
struct Box : TestAppliance {
  explicit Box(const std::string& timeline) {
    fan(FAN, false);
    write(SENSOR, "25000\n");
    write("/proc/partitions", "   8 0 9 sda\n   8 16 9 sdb\n");
    for (const char* name : {"sda", "sdb"}) disk(name, "model=PLAIN\ntemperature=25\n");
    config("fan_driver_sysfs_dir=" + FAN + "\ntemp_sensor_sysfs_entry=" + SENSOR +
               "\nperiod_in_sec=60\n",
           "25=64\n31=128\n60=255\n");
    write("/enclosure", kValues + "command_file=" + FAN + "/pwm1\nspeed_file=" + FAN +
                            "/fan1_input\nalarm_file=" + FAN +
                            "/fan1_alarm\nsensor_file=" + SENSOR + "\n");
    write("/timeline", timeline);
  }
  double number(const std::string& path) const { return std::stod(read(path)); }
  // Of the last line of the record: 1 outside, 2 air, 3 sensor, 5 speed, 6 flow, 8 and 9 disks.
  double last(int column) const {
    const std::string csv = read("/enclosure.csv");
    std::istringstream line(csv.substr(csv.rfind('\n', csv.size() - 2) + 1));
    std::string cell;
    for (int i = 0; i <= column; ++i) std::getline(line, cell, ',');
    return std::stod(cell);
  }
};

}  // namespace

TEST_CASE("steady state: the closed form; without flow the walls decide") {
  const Values byHand = {26.97323, 27.99407, 30.97323, 31.13990};
  CHECK(distance(closedForm(parametersOf(kValues), 25, 1, Load::kIdle), byHand) < 1e-5);
  double most = 0;
  for (const std::string& text : {kValues, textOf("four-bay"), textOf("two-bay")}) {
    auto parameters = parametersOf(text);
    parameters.step = 1;
    for (const double share : {0.0, 0.4, 0.7, 1.0}) {
      for (const Load load : {Load::kIdle, Load::kSeek, Load::kStandby}) {
        Enclosure box(parameters);
        box.setOutside(28);
        loadAll(box, load);
        box.advanceTo(86400, share * parameters.fullCommand);
        const auto settled = closedForm(parameters, 28, share, load);
        most = std::max(most, distance(temperatures(box), settled));
      }
    }
  }
  MESSAGE("largest difference to the closed form: ", most, " K");
  CHECK(most < 1e-6);
}

TEST_CASE("a summer day: energy, the step's length, more flow") {
  for (const std::string example : {"four-bay", "two-bay"}) {
    CAPTURE(example);
    auto parameters = parametersOf(textOf(example));
    parameters.outside = {{0, 26}, {21600, 24}, {57600, 31}};
    const double step = parameters.step, missing = energyMissing(parameters);
    const double halved =
        distance(recordedDay(parameters, step, 1), recordedDay(parameters, step / 2, 1));
    MESSAGE(example, ": energy missing ", missing, ", half the step changes ", halved, " K");
    CHECK(std::abs(missing) < 1e-6);
    CHECK(halved < 0.05);
    // Nothing swings with the longest step: no colder than outside, no warmer than without a fan.
    const double warmest = closedForm(parameters, 31, 0, Load::kSeek).back();
    for (const double each : recordedDay(parameters, 60, 400)) {
      REQUIRE(each > 24);
      REQUIRE(each < warmest);
    }
    constexpr double kFlows[][2] = {{0.4, 0.5}, {0.4, 0.8}, {0.4, 1}, {0.7, 0.7}, {1, 0.7}, {1, 1}};
    Values warmer = recordedDay(parameters, 1, 400, 0);
    for (const auto& [share, dust] : kFlows) {
      Values cooler = recordedDay(parameters, 1, 400, share, dust);
      for (std::size_t i = 0; i < cooler.size(); ++i) REQUIRE(cooler[i] <= warmer[i] + 1e-9);
      warmer = std::move(cooler);
    }
  }
}

TEST_CASE("the fan starts, stalls, runs out and is blocked") {
  Enclosure box(parametersOf(kValues));
  constexpr struct {
    double seconds, rpm, speed;
    bool isBlocked = false;
  } kTurns[] = {{60, 400, 0},       {60, 499, 0},     {60, 500, 500},  {60, 400, 400},
                {60, 300, 300},     {60, 299, 0},     {60, 400, 0},    {2, 2000, 1264.24},
                {60, 4000, 2000},   {5, 0, 164.17},   {60, 400, 0},    {60, 2000, 2000},
                {60, -1, 0},        {60, 2000, 2000}, {60, NAN, 0},    {60, 2000, 2000},
                {1, 2000, 0, true}, {60, 400, 0},     {60, 2000, 2000}};
  for (const auto& turn : kTurns) {
    CAPTURE(turn.rpm);
    box.setBlocked(turn.isBlocked);
    box.advanceTo(box.seconds() + turn.seconds, turn.rpm / 2000 * 255);
    CHECK(box.speed() == doctest::Approx(turn.speed));
  }
}

TEST_CASE("the enclosure's file") {
  constexpr const char* kFaults[][3] = {
      {"step=1", "step=", "1: step: '' is not possible"},
      {"step=1", "step=61", "1: step: '61' is not possible"},
      {"step=1", "step", "1: this is no line of the form name=value"},
      {"step=1", "steps=1", "1: steps: there is no such value"},
      {"step=1", "step=1\nstep=1", "2: step is there twice"},
      {"step=1\n", "", "step is missing"},
      {"y=300", "y=-300", "2: air_capacity: '-300' is not possible"},
      {"fan_power=2", "fan_power=2 W", "10: fan_power: '2 W' is not possible"},
      {"fan_stall_speed=300", "fan_stall_speed=501", "fan_stall_speed is above fan_start_speed"},
      {"fan_start_speed=500", "fan_start_speed=2001", "fan_start_speed is above fan_speed"},
      {"disk_conductance=0.25\n", "", "21: disk: disk_conductance has to stand above it"},
      {"disk=sdb", "disk=sda", "24: disk: sda is there twice"},
      {"disk=sdb", "speed_file=/../x", "24: speed_file is no whole path"},
      {"disk=sda\ndisk_conductance=0.2\ndisk=sdb\n", "", "there is no disk"},
      {"outside=0:25\n", "", "outside is missing"},
  };
  EnclosureParameters parameters;
  for (const auto& [from, to, problem] : kFaults) {
    std::string text = kValues;
    text.replace(text.find(from), std::string(from).size(), to);
    CHECK(appliance::readEnclosure(text, parameters) == problem);
  }
  for (const std::string schedule :
       {"", "1:20", "0:20 7200:21 3600:22", "0:20 0:21", "0:20 86401:20", "0:20,3600:21", "0",
        "0:", "0:1e4", "0:nan"}) {
    CAPTURE(schedule);
    CHECK(appliance::readEnclosure("outside=" + schedule, parameters).starts_with("1: outside: "));
  }

  Enclosure box(parametersOf(kValues + "# the last one counts\noutside=0:20 43200:30 64800:24\n"));
  constexpr double kTimes[][2] = {{6, 25}, {12, 30}, {15, 27}, {21, 22}, {24, 20}, {54, 25}};
  for (const auto& [hour, celsius] : kTimes) {
    box.advanceTo(hour * 3600, 0);
    CHECK(box.outside() == doctest::Approx(celsius));
  }
}

TEST_CASE("events of the timeline, and the files that follow") {
  constexpr struct {
    const char* events;
    int column;
    double least, most;  // one W more or less for ten minutes: 1.3 K at most
  } kEvents[] = {{"600 load all idle", 8, 39, 41},
                 {"600 load sda seek", 8, 42, 44},
                 {"600 load sdb standby", 9, 35, 37},
                 {"600 outside 15", 1, 15, 15},
                 {"600 celsius 50,", 3, 50, 50},
                 {"600 celsius 50,41.5", 9, 41.5, 41.5},
                 {"0 write /sys/fan/pwm1 255", 6, 0.01, 0.01},
                 {"0 write /sys/fan/pwm1 255\n9 dust 0.5", 6, 0.005, 0.005},
                 {"0 write /sys/fan/pwm1 255\n9 fan blocked", 5, 0, 0},
                 {"0 write /sys/fan/pwm1 255\n9 fan blocked\n99 fan free", 5, 2000, 2000}};
  for (const auto& event : kEvents) {
    CAPTURE(event.events);
    const Box box(std::string(event.events) + "\n");
    ::sleep(1200);
    CHECK(box.journal({"timeline", "enclosure"}).empty());
    CHECK(box.last(event.column) >= event.least);
    CHECK(box.last(event.column) <= event.most);
  }
  {
    const Box box("0 write /sys/fan/pwm1 255\n");
    ::sleep(2);
    CHECK(box.number(FAN + "/fan1_input") == 1264);  // 2000 * (1 - 1 / e)
  }
  std::string timeline;
  Lines failed;
  for (const std::string event : {"load sde seek", "load sda fast", "outside", "outside nan",
                                  "dust 0", "dust 1.1", "fan stuck", "celsius 4x"}) {
    timeline += "1 " + event + "\n";
    failed.push_back("timeline failed: 1 " + event);
  }
  const Box box(timeline + "2 load sda standby\n3 remove " + SENSOR + "\n");
  ::sleep(60);
  CHECK(box.journal({"timeline"}) == failed);
  CHECK(!box.exists(SENSOR));
  CHECK(box.read("/dev/sda") == "# disk\nmodel=PLAIN\ntemperature=25\npower=standby\n");
}

TEST_CASE("the service in the enclosure settles, each time in the same way") {
  const auto settled = closedForm(parametersOf(kValues), 25, 128.0 / 255, Load::kIdle);
  std::string records[2];
  for (std::string& record : records) {
    const Box box("14400 signal TERM\n");
    Service service(box, {"-c", CONFIG});
    REQUIRE(service.wait_end() == 0);
    record = box.read("/enclosure.csv");
    CHECK(record.starts_with("0,25.000,25.000,25.000000000,64,0.0,"));
    CHECK(box.number(FAN + "/pwm1") == 128);
    CHECK(box.number(FAN + "/fan1_input") == 1004);
    CHECK(box.number(SENSOR) == std::floor(settled[1] * 4) * 250);
    CHECK(std::abs(box.last(8) - settled[2]) < 0.01);
    const auto degrees = std::to_string(static_cast<int>(settled[2]));
    CHECK(contains(box.read("/dev/sda"), "\ntemperature=" + degrees + "\n"));
  }
  CHECK(records[0] == records[1]);
}

TEST_CASE("a blocked fan: the alarm, the service's flag, and back") {
  const std::string flag = "/var/tmp/fan_failed_alert", blocked = "3600 fan blocked\n";
  for (const bool isFreed : {false, true}) {
    const Box box(blocked + (isFreed ? "5400 fan free\n" : "") + "9000 signal TERM\n");
    Service service(box, {"-c", CONFIG});
    REQUIRE(service.wait_end() == 0);
    CHECK(contains(box.journal({"syslog"}), "syslog 3 Creating " + flag + " file"));
    CHECK(box.exists(flag) == !isFreed);
    CHECK(box.number(FAN + "/fan1_alarm") == (isFreed ? 0 : 1));
    CHECK((box.number(FAN + "/fan1_input") > 0) == isFreed);
    CHECK((box.last(2) > 45) == !isFreed);
  }
}
