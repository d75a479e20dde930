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

TEST_CASE("settings") {
  const TestAppliance appliance;
  const auto settings = [&](const std::string& file) {
    appliance.config(file, "");
    FanController c(CONFIG + "/");
    CHECK(c.loadConfig());
    return join({c.m_pidFile, "|", c.m_fanDriverSysfsDir, "|", c.m_fanAlarmPath, "|",
                 c.m_periodInSec, "|", c.m_dumpInfoFile, "|", int{c.m_useHysteresis}, "|",
                 c.m_hddCriticalTemp, "|", c.m_tempSensorPath});
  };
  const std::string defaults = "|||180||0|65|", long5000(5000, 'p');
  CHECK(
      settings("# only\n\n   \n  #pid_file=/x\n#pid_file=/x\nnonsense\n=5\nx=y=z\nPID_FILE=/x\n") ==
      PID_FILE + defaults);
  CHECK(settings("pid_file = /x.pid  \ndump_info_to_file=/a\ndump_info_to_file=\n") ==
        " /x.pid" + defaults);
  CHECK(settings("fan_driver_sysfs_dir=/d=e\nfan_driver_sysfs_alarm=/a\ndump_info_to_file=/s\n"
                 "temp_sensor_sysfs_entry=/t") == PID_FILE + "|/d=e|/a|180|/s|0|65|/t");
  CHECK(settings(
            "period_in_sec = 60s\nhdd_critical_temperature=50\nhdd_critical_temperature=\t-7x\n") ==
        PID_FILE + "|||60||0|-7|");
  CHECK(settings("period_in_sec=9999999999999\nhdd_critical_temperature=-99999999999999999999\n") ==
        PID_FILE + "|||2147483647||0|-2147483648|");
  CHECK(settings("use_hysteresis=yes  \nuse_hysteresis=no\n") == PID_FILE + "|||180||1|65|");
  CHECK(settings("use_hysteresis=Yes\nuse_hysteresis= yes\nuse_hysteresis=yes\r\n") ==
        PID_FILE + defaults);
  CHECK(settings("pid_file=" + long5000) == long5000 + defaults);
  appliance.config("use_hysteresis=maybe\ntemp_sensor_sysfs_entry=/t\n", "");
  const std::string prefix = "fan-ctrl.cpp:loadConfig ";
  CHECK(traced([] { FanController(CONFIG).loadConfig(); })
            .starts_with(
                prefix + "configfile /etc/fan_controller/fan_controller.conf has been opened\n" +
                prefix + "use_hysteresis : maybe\n" + prefix + "temp_sensor_sysfs_entry: /t\n"));
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
  const std::pair<std::string, bool> cases[] = {
      {SENSOR, true}, {"", false}, {"/sys/none/pwm1", false}, {"/sys/full", true}};
  for (const auto& each : cases) {
    const std::string& path = each.first;
    CAPTURE(path);
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
             (each.second ? Lines{"syslog 6 Send new value to fan " + to} : Lines{});
    };
    CHECK(set(-1) == Lines{"syslog 6 m_currentCmd -1"});
    CHECK(set(INT_MIN) == changed("-1", "-2147483648"));
    CHECK(set(150) == changed("-2147483648", "150"));
    if (path == SENSOR) CHECK(appliance.read(SENSOR) == std::string("150").append(29, '\0'));
    CHECK(set(150) == Lines{"syslog 6 m_currentCmd 150"});
  }
}

// One selection with what it is based on, the command and the alert that follow, and the end of
// what is traced, without its prefix.
static void selects(const Table& table, int last, int temperature, int command, int alert,
                    const std::string& trace = "", int critical = 65, bool hysteresis = false,
                    int previous = 0) {
  CAPTURE(temperature);
  CAPTURE(previous);
  Bench bench;
  bench.m_valueMap = table;
  bench.m_useHysteresis = hysteresis;
  bench.m_hddCriticalTemp = critical;
  bench.m_lastTempAlert = last;
  bench.m_currentTemp = temperature;
  bench.m_previousTemp = previous;
  const std::string text = traced([&] { CHECK(bench.processCmd()); });
  CHECK(std::regex_replace(text, std::regex("fan-ctrl.cpp:processCmd "), "").ends_with(trace));
  CHECK(bench.m_curCmd->m_currentCmd == command);
  CHECK(bench.m_lastTempAlert == (alert == ALERT_UNKNOWN ? last : alert));
  CHECK(bench.journal({"corvane"}).empty() == (alert == ALERT_UNKNOWN));
}

TEST_CASE("selection") {
  const Table usual = {{30, 100}, {40, 150}, {50, 200}, {55, 255}};
  const Table none, extreme = {{INT_MIN, 1}, {INT_MAX, 2}};
  const int N = ALERT_TEMP_NORMAL, H = ALERT_TEMP_HIGH, C = ALERT_TEMP_CRITICAL, U = ALERT_UNKNOWN;
  // At and below the table, between its steps, at its end.
  selects(usual, H, -20, 100, N);
  selects(usual, N, 30, 100, U, "temp = 30\n take min step of values tab i.e. \ntHigh 55\n");
  selects(usual, N, 35, 100, U, "diffSup 5\n35 choose lower limit 30\n");
  selects(usual, U, 36, 150, N,
          "m_valueMapIt->first 40\nm_currentTemp 36\nm_valueMapIt->first 30\n"
          "diffInf 6\ndiffSup 4\n36 choose upper limit 40\n");
  selects(usual, C, 54, 255, N);
  selects(usual, H, 55, 255, U);
  selects(usual, N, 55, 255, U);
  // Above the table; critical on every reading.
  selects(usual, N, 56, 255, H);
  selects(usual, H, 65, 255, U, "temp = 65\ntHigh 55\n take max step of values tab i.e. \n");
  selects(usual, C, 65, 255, H);
  selects(usual, C, 66, 255, C);
  selects(usual, N, 50, 200, U, "", 40);
  selects(usual, N, 56, 255, C, "", 40);
  // Hysteresis.
  selects(usual, N, 42, 200, U, "5\n42: choose upper limit 5040\n previous temp value was 40\n", 65,
          true, 40);
  selects(usual, N, 42, 150, U, "5\n42: choose lower limit 40\n previous temp value was 45\n", 65,
          true, 45);
  selects(usual, N, 42, 200, U, "", 65, true, 42);
  selects(usual, N, 50, 150, U, "", 65, true, 52);
  // Short tables, and one that spans all integers.
  selects({{40, 7}}, H, 39, 7, N);
  selects(none, H, 0, 0, U);
  selects(none, N, 1, 0, H);
  selects(extreme, N, 0, 2, U);
  selects(extreme, N, -1, 1, U);
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
  const auto reads = [&](const std::string& text, int temperature, const std::string& state) {
    CAPTURE(text);
    bench.write(SENSOR, text);
    const std::string trace = traced([&] { CHECK(bench.updateSysTemp() != -1); });
    const std::string number = std::to_string(temperature);
    CHECK(trace.starts_with("fan-ctrl.cpp:updateSysTemp System Temp. = " + number + "\n"));
    CHECK(bench.read(STATUS).ends_with("\nSystem Temp is " + state + " : " + number + "degC\n"));
    CHECK(std::exchange(previous, temperature) == bench.m_previousTemp);
  };
  reads("54999\n", 54, "OK");
  reads("55000\n", 55, "HOT");
  reads("-1500\n", -1, "OK");
  reads(" 52000 mC\n", 52, "OK");
  reads("99999999999999\n", INT_MAX / 1000, "HOT");
  bench.m_valueMap.clear();
  reads("-999\n", 0, "HOT");
  reads("warm\n", 0, "HOT");
  CHECK(contains(bench.read(STATUS), "\n# 0degC"));
}
