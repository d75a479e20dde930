// Single operations: texts and numbers, both configuration files, the command holder, selection.
#include <climits>
#include <regex>
#include <utility>

#include "fixtures.h"
#include "utils.h"

using namespace std::string_literals;
namespace fs = std::filesystem;
using Table = std::map<int, int>;

TEST_CASE("the first line of an attribute, without its last byte") {
  const TestAppliance appliance;
  const auto attribute = [](const std::string& path) {
    const auto value = sysfs_read_attr(path.c_str());
    return value ? std::string(value.get()) : "nothing";
  };
  const auto content = [&](const std::string& text) {
    appliance.write(SENSOR, text);
    return attribute(SENSOR);
  };
  const std::string long126(126, 'x');
  CHECK(content("first\nsecond\n") == "first");
  CHECK(content("\n").empty());
  CHECK(content("") == "nothing");
  CHECK(content("7").empty());
  CHECK(content(long126 + "\n") == long126);
  CHECK(content(std::string(127, 'x')) == long126);
  CHECK(content(std::string(4096, 'x')) == long126);
  CHECK(content("ab\0c\n"s) == "ab");
  for (const char* path : {"", "/sys", "/sys/none"}) CHECK(attribute(path) == "nothing");
}

namespace {

struct Settings {
  std::string pidFile = PID_FILE, driver = {}, alarm = {}, status = {}, sensor = {};
  int period = 180, critical = 65;
  bool hysteresis = false;
};

}  // namespace

static void reads(const std::string& file, const Settings& expected) {
  CAPTURE(file);
  const TestAppliance appliance;
  appliance.config(file, "");
  FanController controller(CONFIG + "/");
  CHECK(controller.loadConfig());
  CHECK(controller.m_pidFile == expected.pidFile);
  CHECK(controller.m_fanDriverSysfsDir == expected.driver);
  CHECK(controller.m_fanAlarmPath == expected.alarm);
  CHECK(controller.m_periodInSec == expected.period);
  CHECK(controller.m_dumpInfoFile == expected.status);
  CHECK(controller.m_useHysteresis == expected.hysteresis);
  CHECK(controller.m_hddCriticalTemp == expected.critical);
  CHECK(controller.m_tempSensorPath == expected.sensor);
}

TEST_CASE("settings") {
  const std::string long5000(5000, 'p');
  reads("# only\n\n   \n  #pid_file=/x\n#pid_file=/x\nnonsense\n=5\nx=y=z\nPID_FILE=/x\n", {});
  reads("pid_file = /x.pid  \ndump_info_to_file=/a\ndump_info_to_file=\n", {.pidFile = " /x.pid"});
  reads(
      "fan_driver_sysfs_dir=/d=e\nfan_driver_sysfs_alarm=/a\ndump_info_to_file=/s\n"
      "temp_sensor_sysfs_entry=/t",
      {.driver = "/d=e", .alarm = "/a", .status = "/s", .sensor = "/t"});
  reads("period_in_sec = 60s\nhdd_critical_temperature=50\nhdd_critical_temperature=\t-7x\n",
        {.period = 60, .critical = -7});
  reads("period_in_sec=9999999999999\nhdd_critical_temperature=-99999999999999999999\n",
        {.period = INT_MAX, .critical = INT_MIN});
  reads("use_hysteresis=yes  \nuse_hysteresis=no\n", {.hysteresis = true});
  reads("use_hysteresis=Yes\nuse_hysteresis= yes\nuse_hysteresis=yes\r\n", {});
  reads("pid_file=" + long5000, {.pidFile = long5000});
  const TestAppliance appliance;
  // Each key with the label of its trace.
  const std::pair<std::string, std::string> keys[] = {
      {"pid_file", "pid_file : "},
      {"fan_driver_sysfs_dir", "fan_driver_interface : "},
      {"fan_driver_sysfs_alarm", "fan_driver_alarm : "},
      {"period_in_sec", "period_in_sec found: "},
      {"dump_info_to_file", "dump_info_to_file : "},
      {"use_hysteresis", "use_hysteresis : "},
      {"hdd_critical_temperature", "hdd_critical_temperature : "},
      {"temp_sensor_sysfs_entry", "temp_sensor_sysfs_entry: "},
  };
  const std::string prefix = "fan-ctrl.cpp:loadConfig ";
  std::string file,
      trace = prefix + "configfile " + CONFIG + "/fan_controller.conf has been opened\n";
  for (const auto& [key, label] : keys) {
    file += key + "=" + long5000 + "\n";
    trace += prefix + label + long5000 + "\n";
  }
  appliance.config(file, "");
  CHECK(traced([] { FanController(CONFIG).loadConfig(); }).starts_with(trace + "fan-ctrl.cpp:~"));
}

TEST_CASE("teardown") {
  const TestAppliance appliance;
  const std::string trace = traced([] {
    FanController controller(CONFIG);
    controller.m_curCmd = std::make_unique<CurCmd>();
  });
  CHECK(
      trace.ends_with("~FanController Do some cleanup before exit\n"
                      "CurCmd.cpp:~CurCmd CurCmd object deleted\n"));
  const std::string stopped = "syslog 6 The fan controller service has been stopped.";
  CHECK(appliance.journal({"syslog"}).back() == stopped);
}

TEST_CASE("command table") {
  const TestAppliance appliance;
  const auto table = [&](const std::string& file) {
    appliance.write(CONFIG + "/fan_cmd_tab.conf", file);
    FanController controller(CONFIG);
    CHECK(controller.loadValuesTab());
    return controller.m_valueMap;
  };
  CHECK(table("") == Table{});
  CHECK(table("#45=1\n\n45 120\n") == Table{});
  CHECK(table(" 45 = 120 \n=9") == Table{{0, 9}, {45, 120}});
  CHECK(table("60=3\r\n40=1\r\n45=5\r\n45=6") == Table{{40, 1}, {45, 6}, {60, 3}});
  CHECK(table("45=\nabc=100\n-5=+50\n46=0x80\n") == Table{{45, 0}, {0, 100}, {-5, 50}, {46, 0}});
  CHECK(table("99999999999=-99999999999\n") == Table{{INT_MAX, INT_MIN}});
}

TEST_CASE("a command reaches the driver once, as a record of 32 bytes") {
  for (const std::string& path : {SENSOR, ""s, "/sys/none/pwm1"s, "/sys/full"s}) {
    CAPTURE(path);
    const bool reached = path == SENSOR || path == "/sys/full";
    const TestAppliance appliance;
    appliance.write(SENSOR, std::string(40, '9'));
    fs::create_symlink("/dev/full", appliance.at("/sys/full"));
    CurCmd command(path);
    const auto set = [&](int value) {
      command.set_cur_cmd_val(value);
      return appliance.journal({"syslog"});
    };
    const auto changed = [&](const std::string& from, const std::string& to) {
      return Lines{"syslog 6 m_currentCmd " + from, "syslog 4 updating m_currentCmd to val " + to} +
             (reached ? Lines{"syslog 6 Send new value to fan " + to} : Lines{});
    };
    CHECK(set(-1) == Lines{"syslog 6 m_currentCmd -1"});
    CHECK(set(INT_MIN) == changed("-1", "-2147483648"));
    CHECK(set(150) == changed("-2147483648", "150"));
    if (path == SENSOR) CHECK(appliance.read(SENSOR) == std::string("150").append(29, '\0'));
    CHECK(set(150) == Lines{"syslog 6 m_currentCmd 150"});
    CHECK(command.sendCommandToDriver(7, path.c_str()) == (reached ? 1 : 0));
  }
}

namespace {

constexpr int N = ALERT_TEMP_NORMAL, H = ALERT_TEMP_HIGH, C = ALERT_TEMP_CRITICAL;
constexpr int U = ALERT_UNKNOWN;

// What a choice is based on, the command and the alert that follow, and the end of what is
// traced, without its prefix.
struct Choice {
  Table table = {{30, 100}, {40, 150}, {50, 200}, {55, 255}};
  int last = N, critical = 65;
  int before = 0;  // by hysteresis, if given
  int now = 0, command = 0, alert = U;
  std::string trace = {};
};

}  // namespace

TEST_CASE("selection") {
  const Table none, extreme = {{INT_MIN, 1}, {INT_MAX, 2}};
  const std::string lower =
      "m_valueMapIt->first 40\nm_currentTemp 35\nm_valueMapIt->first 30\n"
      "diffInf 5\ndiffSup 5\n35 choose lower limit 30\n";
  const std::string upper = "diffInf 6\ndiffSup 4\n36 choose upper limit 40\n";
  const std::string above = "current temp = 65\ntHigh 55\n take max step of values tab i.e. \n";
  const std::string rises = "tHigh 55\n42: choose upper limit 5040\n previous temp value was 40\n";
  const std::string falls = "tHigh 55\n42: choose lower limit 40\n previous temp value was 45\n";
  const Choice choices[] = {
      // At and below the table, between its steps, at its end.
      {.last = H, .now = -20, .command = 100, .alert = N},
      {.now = 30, .command = 100, .trace = " take min step of values tab i.e. \ntHigh 55\n"},
      {.now = 35, .command = 100, .trace = lower},
      {.last = U, .now = 36, .command = 150, .alert = N, .trace = upper},
      {.last = C, .now = 54, .command = 255, .alert = N},
      {.last = H, .now = 55, .command = 255},
      {.now = 55, .command = 255},
      // Above the table; critical on every reading.
      {.now = 56, .command = 255, .alert = H},
      {.last = H, .now = 65, .command = 255, .trace = above},
      {.last = C, .now = 65, .command = 255, .alert = H},
      {.last = C, .now = 66, .command = 255, .alert = C},
      {.critical = 40, .now = 50, .command = 200},
      {.critical = 40, .now = 56, .command = 255, .alert = C},
      {.before = 40, .now = 42, .command = 200, .trace = rises},
      {.before = 45, .now = 42, .command = 150, .trace = falls},
      {.before = 42, .now = 42, .command = 200},
      {.before = 52, .now = 50, .command = 150},
      // Short tables, and one that spans all integers.
      {.table = {{40, 7}}, .last = H, .now = 39, .command = 7, .alert = N},
      {.table = none, .last = H},
      {.table = none, .now = 1, .alert = H},
      {.table = extreme, .command = 2},
      {.table = extreme, .now = -1, .command = 1},
  };
  for (const Choice& each : choices) {
    CAPTURE(each.now);
    CAPTURE(each.before);
    Bench bench;
    bench.m_valueMap = each.table;
    bench.m_useHysteresis = each.before != 0;
    bench.m_hddCriticalTemp = each.critical;
    bench.m_lastTempAlert = each.last;
    bench.m_currentTemp = each.now;
    bench.m_previousTemp = each.before;
    const std::string text = traced([&] { CHECK(bench.processCmd()); });
    const std::string lines = std::regex_replace(text, std::regex("fan-ctrl.cpp:processCmd "), "");
    CHECK(("\n" + lines).ends_with("\n" + each.trace));
    CHECK(bench.m_curCmd->m_currentCmd == each.command);
    CHECK(bench.m_lastTempAlert == (each.alert == U ? each.last : each.alert));
    CHECK(bench.journal({"corvane"}).empty() == (each.alert == U));
  }
}

TEST_CASE("system temperature and its status file") {
  Bench bench;
  CHECK(bench.updateSysTemp() == -1);
  CHECK(bench.dumpInfoToFile() == 0);
  bench.m_dumpInfoFile = bench.at("/missing/status");
  CHECK(bench.dumpInfoToFile() == 0);
  bench.m_tempSensorPath = SENSOR;
  bench.m_dumpInfoFile = bench.at(STATUS);
  int previous = -1;
  const auto measures = [&](const std::string& text, int temperature, const std::string& state) {
    CAPTURE(text);
    bench.write(SENSOR, text);
    const std::string trace = traced([&] { CHECK(bench.updateSysTemp() != -1); });
    const std::string number = std::to_string(temperature);
    CHECK(trace.starts_with("fan-ctrl.cpp:updateSysTemp System Temp. = " + number + "\n"));
    CHECK(bench.read(STATUS).ends_with("\nSystem Temp is " + state + " : " + number + "degC\n"));
    CHECK(std::exchange(previous, temperature) == bench.m_previousTemp);
  };
  measures("54999\n", 54, "OK");
  measures("55000\n", 55, "HOT");
  measures("-1500\n", -1, "OK");
  measures(" 52000 mC\n", 52, "OK");
  measures("99999999999999\n", INT_MAX / 1000, "HOT");
  bench.m_valueMap.clear();
  measures("-999\n", 0, "HOT");
  measures("warm\n", 0, "HOT");
  CHECK(contains(bench.read(STATUS), "\n# 0degC"));
}
