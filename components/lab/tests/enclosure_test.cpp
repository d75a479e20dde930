// The enclosure that heats up: its physics, its file, and the shipped service inside it.
#include "enclosure.h"

#include <unistd.h>

#include <cmath>

#include "fixtures.h"
#include "text.h"

using appliance::Enclosure, appliance::EnclosureParameters, appliance::Load;

namespace {

const std::string kValues =
    "step=1\nair_capacity=300\nboard_power=15\nwall_conductance=1\nfan_flow=0.01\nfan_speed=2000\n"
    "fan_start_speed=500\nfan_stall_speed=300\nfan_spin_up=2\nfan_power=2\nfan_command=255\n"
    "sensor_place=0.25\nsensor_lag=60\nsensor_resolution=250\noutside=0:25\ndisk_capacity=450\n"
    "disk_idle_power=5\ndisk_seek_power=8\ndisk_standby_power=1\ndisk_conductance=0.25\n"
    "disk_flow_conductance=1\ndisk=sda\ndisk_conductance=0.2\ndisk=sdb\n";
const std::string kExamples = LAB_FOLDER "/enclosures/";
constexpr double kAir = 1.16 * 1006;  // J/(m3 K)
using Values = std::vector<double>;

EnclosureParameters parametersOf(const std::string& text) {
  EnclosureParameters parameters;
  REQUIRE(appliance::readEnclosure(text, parameters) == "");
  return parameters;
}

void loadAll(Enclosure& box, Load load) {
  for (std::size_t i = 0; i < box.disks().size(); ++i) box.setLoad(i, load);
}

double watts(const appliance::DiskParameters& disk, Load load) {
  return load == Load::kIdle ? disk.idle : load == Load::kSeek ? disk.seek : disk.standby;
}

// Of the board and all disks.
double watts(const EnclosureParameters& box, Load load) {
  double sum = box.board;
  for (const auto& disk : box.disks) sum += watts(disk, load);
  return sum;
}

// Air, sensor, disks.
Values temperatures(const Enclosure& box) {
  Values all = {box.air(), box.sensor()};
  all.insert(all.end(), box.disks().begin(), box.disks().end());
  return all;
}

// Where they settle when the fan's flow is a share of the full one.
Values closedForm(const EnclosureParameters& box, double around, double share, Load load) {
  const double air = around + watts(box, load) / (box.walls + kAir * box.fullFlow * share);
  Values all = {air, air};
  for (const auto& disk : box.disks) {
    all.push_back(air + watts(disk, load) / (disk.still + disk.flow * std::pow(share, 0.6)));
    all[1] += box.sensorPlace * (all.back() - air) / static_cast<double>(box.disks.size());
  }
  return all;
}

double distance(const Values& left, const Values& right) {
  double most = left.size() == right.size() ? 0 : INFINITY;
  for (std::size_t i = 0; i < left.size(); ++i) most = std::max(most, std::abs(left[i] - right[i]));
  return most;
}

double stored(const Enclosure& box) {
  double joules = box.parameters().air * box.air();
  for (std::size_t i = 0; i < box.disks().size(); ++i) {
    joules += box.parameters().disks[i].capacity * box.disks()[i];
  }
  return joules;
}

struct Day {
  Values temperatures;  // after each piece
  double missing;       // energy made less left less stored, a part of it; a piece has to be a step
};

// A summer day of 24 to 31 degrees in pieces of some seconds. At times the fan stands still, and
// starts at full speed; with a share it turns with that one all day.
Day dayOf(EnclosureParameters parameters, double step, double piece, double onlyShare = -1,
          double dust = 1) {
  constexpr struct {
    double until, share;
    Load load;
  } kParts[] = {{15000, 0.5, Load::kSeek},  {36000, 0, Load::kIdle},
                {43200, 1, Load::kSeek},    {57600, 0.4, Load::kStandby},
                {64000, 0.05, Load::kIdle}, {86400, 0.6, Load::kSeek}};
  parameters.step = step;
  parameters.outside = {{0, 26}, {21600, 24}, {57600, 31}};
  Enclosure box(parameters);
  box.setDust(dust);
  Values all;
  double made = 0, left = 0;
  const double before = stored(box);
  for (const auto& [until, share, load] : kParts) {
    loadAll(box, load);
    while (box.seconds() < until) {
      box.advanceTo(box.seconds() + piece,
                    (onlyShare < 0 ? share : onlyShare) * parameters.fullCommand);
      for (const double each : temperatures(box)) all.push_back(each);
      made += watts(parameters, load) * piece;
      left += (parameters.walls + kAir * box.flow()) * (box.air() - box.outside()) * piece;
    }
  }
  return {all, (made - left - (stored(box) - before)) / made};
}

// An appliance in which the files of the enclosure are there.
struct Box : TestAppliance {
  explicit Box(const std::string& timeline) {
    fan(FAN, false);
    write(SENSOR, "25000\n");
    write("/proc/partitions", "   8 0 9 sda\n   8 16 9 sdb\n");
    for (const char* name : {"sda", "sdb"}) disk(name, "model=PLAIN\ntemperature=25\n");
    config("fan_driver_sysfs_dir=/sys/fan\ntemp_sensor_sysfs_entry=/sys/temp\nperiod_in_sec=60\n",
           "25=64\n31=128\n60=255\n");
    write("/enclosure", kValues +
                            "command_file=/sys/fan/pwm1\nspeed_file=/sys/fan/fan1_input\n"
                            "alarm_file=/sys/fan/fan1_alarm\nsensor_file=/sys/temp\n");
    write("/timeline", timeline);
  }
  double number(const std::string& path) const { return std::stod(read(path)); }
  // Of the last line of the record: 1 outside, 2 air, 3 sensor, 5 speed, 6 flow, 8 and 9 disks.
  double last(std::size_t column) const {
    return std::stod(split(lines_of(read("/enclosure.csv")).back(), ',').at(column));
  }
};

}  // namespace

TEST_CASE("steady state: the closed form; without flow the walls decide") {
  const Values byHand = {26.97323, 27.99407, 30.97323, 31.13990};
  CHECK(distance(closedForm(parametersOf(kValues), 25, 1, Load::kIdle), byHand) < 1e-5);
  for (const std::string& text :
       {kValues, read_file(kExamples + "four-bay"), read_file(kExamples + "two-bay")}) {
    auto parameters = parametersOf(text);
    parameters.step = 1;
    for (const double share : {0.0, 0.4, 0.7, 1.0}) {
      for (const Load load : {Load::kIdle, Load::kSeek, Load::kStandby}) {
        Enclosure box(parameters);
        box.setOutside(28);
        loadAll(box, load);
        box.advanceTo(86400, share * parameters.fullCommand);
        CHECK(distance(temperatures(box), closedForm(parameters, 28, share, load)) < 1e-6);
      }
    }
  }
}

TEST_CASE("a summer day: energy, the step's length, more flow") {
  for (const std::string example : {"four-bay", "two-bay"}) {
    CAPTURE(example);
    const auto parameters = parametersOf(read_file(kExamples + example));
    const double step = parameters.step;
    const Day day = dayOf(parameters, step, step);
    CHECK(std::abs(day.missing) < 1e-6);
    CHECK(distance(day.temperatures, dayOf(parameters, step / 2, step).temperatures) < 0.05);
    // Nothing swings with the longest step: no colder than outside, no warmer than without a fan.
    const double warmest = closedForm(parameters, 31, 0, Load::kSeek).back();
    for (const double each : dayOf(parameters, 60, 400).temperatures) {
      REQUIRE((each > 24 && each < warmest));
    }
    constexpr double kFlows[][2] = {{0.4, 0.5}, {0.4, 0.8}, {0.4, 1}, {0.7, 0.7}, {1, 0.7}, {1, 1}};
    Values warmer = dayOf(parameters, 1, 400, 0).temperatures;
    for (const auto& [share, dust] : kFlows) {
      Values cooler = dayOf(parameters, 1, 400, share, dust).temperatures;
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
  } kTurns[] = {{60, 499, 0},    {60, 500, 500},     {60, 300, 300},     {60, 299, 0},
                {60, 400, 0},    {2, 2000, 1264.24}, {60, 4000, 2000},   {5, 0, 164.17},
                {60, 400, 0},    {60, 2000, 2000},   {60, -1, 0},        {60, 2000, 2000},
                {60, NAN, 0},    {60, 2000, 2000},   {1, 2000, 0, true}, {60, 400, 0},
                {60, 2000, 2000}};
  for (const auto& turn : kTurns) {
    CAPTURE(turn.rpm);
    box.setBlocked(turn.isBlocked);
    box.advanceTo(box.seconds() + turn.seconds, turn.rpm / 2000 * 255);
    CHECK(box.speed() == doctest::Approx(turn.speed));
  }
}

TEST_CASE("the enclosure's file") {
  EnclosureParameters parameters;
  for (const std::string line :
       {"step=", "step=61", "air_capacity=-300", "fan_power=2 W", "steps=1",
        "outside=", "outside=1:20", "outside=0:20 7200:21 3600:22", "outside=0:20 0:21",
        "outside=0:20 86401:20", "outside=0:20,3600:21", "outside=0", "outside=0:", "outside=0:1e4",
        "outside=0:nan"}) {
    CAPTURE(line);
    const std::string fault = "1: " + split(line, '=')[0] + ": ";
    CHECK(appliance::readEnclosure(line, parameters).starts_with(fault));
  }
  constexpr const char* kFaults[][3] = {
      {"step=1", "step", "1: this is no line of the form name=value"},
      {"step=1", "step=1\nstep=1", "2: step is there twice"},
      {"step=1\n", "", "step is missing"},
      {"fan_stall_speed=300", "fan_stall_speed=501", "fan_stall_speed is above fan_start_speed"},
      {"fan_start_speed=500", "fan_start_speed=2001", "fan_start_speed is above fan_speed"},
      {"disk_conductance=0.25\n", "", "21: disk: disk_conductance has to stand above it"},
      {"disk=sdb", "disk=sda", "24: disk: sda is there twice"},
      {"disk=sdb", "speed_file=/../x", "24: speed_file is no whole path"},
      {"disk=sda\ndisk_conductance=0.2\ndisk=sdb\n", "", "there is no disk"},
      {"outside=0:25\n", "", "outside is missing"}};
  for (const auto& [from, to, problem] : kFaults) {
    std::string text = kValues;
    text.replace(text.find(from), std::string(from).size(), to);
    CHECK(appliance::readEnclosure(text, parameters) == problem);
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
  } kEvents[] = {{"600 load all seek", 8, 42, 44},
                 {"600 load sdb standby", 9, 35, 37},
                 {"600 outside 15", 1, 15, 15},
                 {"600 celsius 50,", 3, 50, 50},
                 {"600 celsius 50,41.5\n700 celsius 51,", 9, 41.5, 41.5},
                 {"0 write /sys/fan/pwm1 255\n9 dust 0.5", 6, 0.005, 0.005}};
  for (const auto& event : kEvents) {
    CAPTURE(event.events);
    const Box box(std::string(event.events) + "\n");
    ::sleep(1200);
    CHECK(box.journal({"timeline", "enclosure"}).empty());
    CHECK(box.last(event.column) >= event.least);
    CHECK(box.last(event.column) <= event.most);
  }
  std::string timeline;
  Lines failed;
  for (const std::string event : {"load sde seek", "load sda fast", "outside", "outside nan",
                                  "dust 0", "dust 1.1", "fan stuck", "celsius 4x"}) {
    timeline += "1 " + event + "\n";
    failed.push_back("timeline failed: 1 " + event);
  }
  const Box box(timeline + "2 load sda standby\n3 remove " + SENSOR +
                "\n57 write /sys/fan/pwm1 255\n");
  ::sleep(59);
  CHECK(box.journal({"timeline"}) == failed);
  CHECK(!box.exists(SENSOR));
  CHECK(box.read("/dev/sda") == "# disk\nmodel=PLAIN\ntemperature=25\npower=standby\n");
  CHECK(box.number(FAN + "/fan1_input") == 1264);  // 2000 * (1 - 1 / e)
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
