// Single operations: texts and numbers, both configuration files, the command holder, selection.
#include <climits>
#include <regex>

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

// What a temperature traces at the end, and its command, where random days do not get to.
TEST_CASE("selection") {
  const auto selects = [](const Table& table, int before, int now, int command,
                          const std::string& trace) {
    CAPTURE(now);
    Bench bench;
    if (!table.empty()) bench.m_valueMap = table;
    bench.m_useHysteresis = before != 0;
    if (now > 60) bench.m_lastTempAlert = ALERT_TEMP_HIGH;
    bench.m_currentTemp = now;
    bench.m_previousTemp = before;
    const std::string text = traced([&] { CHECK(bench.processCmd()); });
    const std::string lines = std::regex_replace(text, std::regex("fan-ctrl.cpp:processCmd "), "");
    CHECK(("\n" + lines).ends_with("\n" + trace));
    CHECK(bench.m_curCmd->m_currentCmd == command);
  };
  const Table usual = {{30, 100}, {40, 150}, {50, 200}, {55, 255}};
  const Table extreme = {{INT_MIN, 1}, {INT_MAX, 2}};
  selects(usual, 0, 35, 100,
          "m_valueMapIt->first 40\nm_currentTemp 35\nm_valueMapIt->first 30\n"
          "diffInf 5\ndiffSup 5\n35 choose lower limit 30\n");
  selects(usual, 0, 36, 150, "diffInf 6\ndiffSup 4\n36 choose upper limit 40\n");
  selects(usual, 0, 65, 255, "current temp = 65\ntHigh 55\n take max step of values tab i.e. \n");
  selects(usual, 40, 42, 200,
          "tHigh 55\n42: choose upper limit 5040\n previous temp value was 40\n");
  selects(usual, 45, 42, 150, "tHigh 55\n42: choose lower limit 40\n previous temp value was 45\n");
  selects({{40, 7}}, 0, 40, 7, " take min step of values tab i.e. \ntHigh 40\n");
  selects(extreme, 0, 0, 2, "");
  selects(extreme, 0, -1, 1, "");
}

TEST_CASE("system temperature and its status file") {
  Bench bench;
  CHECK(bench.updateSysTemp() == -1);
  CHECK(bench.dumpInfoToFile() == 0);
  bench.m_dumpInfoFile = bench.at("/missing/status");
  CHECK(bench.dumpInfoToFile() == 0);
  bench.m_tempSensorPath = SENSOR;
  bench.m_dumpInfoFile = bench.at(STATUS);
  const auto measures = [&](const std::string& text, int temperature, const std::string& state) {
    CAPTURE(text);
    bench.write(SENSOR, text);
    const std::string trace = traced([&] { CHECK(bench.updateSysTemp() != -1); });
    const std::string number = std::to_string(temperature);
    CHECK(trace.starts_with("fan-ctrl.cpp:updateSysTemp System Temp. = " + number + "\n"));
    CHECK(bench.read(STATUS).ends_with("\nSystem Temp is " + state + " : " + number + "degC\n"));
  };
  measures(" 52000 mC\n", 52, "OK");
  measures("99999999999999\n", INT_MAX / 1000, "HOT");
}
