// Alerts, flag files, the wait for the management library, the fan alarm.
#include <fcntl.h>
#include <sys/stat.h>

#include "house.h"

namespace fs = std::filesystem;

namespace {

const Lines kFrameBegin = {"corvane init", "corvane get 16"};
const Lines kFrameEnd = {"corvane write 16", "corvane close"};
constexpr int F = ALERT_FAN_FAILED, W = ALERT_FAN_WORKING, U = ALERT_UNKNOWN;
constexpr int N = ALERT_TEMP_NORMAL, H = ALERT_TEMP_HIGH, C = ALERT_TEMP_CRITICAL;
constexpr int kNoConfig = ALERT_MISSING_CONFIG, kNoTable = ALERT_MISSING_CMD_TABLE;

Lines status(const std::string& word) {
  return {"corvane property status=" + word, "corvane write 16"};
}

// One alert with the alert memory that it meets, the journal between the library's frame, the end
// of its trace line, and the flag files before and after by their first letters.
void raises(int kind, int temp, int fan, const Lines& entries, const std::string& trace,
            const std::string& flags, const std::string& flagsAfter,
            FanDriverType driver = FAN_DRIVER_I2C) {
  CAPTURE(kind);
  CAPTURE(temp);
  CAPTURE(fan);
  Bench bench;
  bench.m_lastTempAlert = temp;
  bench.m_lastFanAlert = fan;
  bench.m_fanDriverType = driver;
  bench.m_dumpInfoFile = bench.at(STATUS);
  const std::pair<std::string, std::string> files[] = {
      {"F", FAN_FAILED_FLAG}, {"H", HIGH_TEMP_FLAG}, {"C", CRIT_TEMP_FLAG}};
  for (const auto& [letter, path] : files) {
    if (contains(flags, letter)) bench.write(path, "");
  }
  const std::string text = traced([&] { bench.alertNotification(kind); });
  CHECK(bench.journal({"syslog", "corvane", "sleep"}) == kFrameBegin + entries + kFrameEnd);
  const bool reported = !entries.empty();
  const std::string end = kind == kNoConfig || kind == kNoTable ? " !!!\n\n" : " !!!\n";
  CHECK(text.starts_with(reported ? "alert-mgr.cpp:alertNotification !!! " + trace + end : ""));
  CHECK(text.empty() == !reported);
  for (const auto& [letter, path] : files) {
    CHECK(bench.exists(path) == contains(flagsAfter, letter));
  }
  CHECK(bench.m_lastFanAlert == (reported && kind <= W ? kind : fan));
  CHECK(bench.m_lastTempAlert == (reported && kind >= H && kind <= C ? kind : temp));
  CHECK(bench.m_missingConfigAlertRaised == (kind == kNoConfig));
  CHECK(bench.m_missingCmdTableAlertRaised == (kind == kNoTable));
  CHECK(bench.exists(STATUS) == (reported && (kind == H || kind == C)));
}

}  // namespace

TEST_CASE("what each alert reports, and when") {
  const std::string drives = "syslog 3 The temperature of the drive(s) is ";
  const auto created = [](const std::string& flag) {
    return Lines{"syslog 3 Creating /var/tmp/" + flag + "_alert file"};
  };
  const Lines none;
  const Lines high = Lines{drives + "above normal values (over 55degC)"} + created("high_temp") +
                     status("TemperatureAlert");
  const Lines normal = Lines{drives + "now normal."} + status("OK");
  const Lines critical =
      created("crit_temp") +
      Lines{drives + "critical (over 65degC)SYSTEM WILL NOW SHUTDOWN FOR EMERGENCY"} +
      status("TemperatureTooHigh");
  const Lines failed = status("FanFailed") + created("fan_failed");
  const std::string isHigh = "temperature is too high", isNormal = "temperature is now normal.";
  const std::string isCritical = "temperature is critical, shut down now";
  raises(F, N, W, failed, "The system fan is failing", "", "F");
  raises(F, N, F, none, "", "", "");
  raises(F, N, W, none, "", "", "", FAN_DRIVER_NONE);
  raises(W, N, F, status("FanRaisedFromDead"), "The system fan is working now", "F", "");
  raises(W, N, W, none, "", "F", "F");
  raises(H, N, W, high, isHigh, "", "H");
  raises(H, U, W, high, isHigh, "C", "H");
  raises(H, H, W, none, "", "H", "H");
  raises(N, U, W, normal, isNormal, "H", "");
  raises(N, C, W, normal, isNormal, "HC", "H");
  raises(N, N, W, none, "", "H", "H");
  raises(C, H, W, critical, isCritical, "H", "C");
  raises(C, C, W, critical, isCritical, "C", "C", FAN_DRIVER_NONE);
  raises(ALERT_NO_DRIVE_TEMP, N, W,
         Lines{"syslog 4 The drives detected in the system are not providing their temperature "
               "values.\\nAs a precaution, the fan speed is set to the maximum."} +
             status("KO"),
         "no temperature sensored from any hdd device", "", "");
  const std::string missing = "unable to find config file ", tail = " in /etc/fan_controller";
  const Lines noFan = {
      "syslog 4 The fan controller could not be initialized. As a precaution, the "
      "fan speed is set to the maximum."};
  const Lines noTemp = {"syslog 4 The temperature controller could not be initialized."};
  const Lines stands = status("FanNonRotating");
  raises(kNoConfig, N, W, status("MissingConfig"), missing + "fan_controller.conf" + tail, "", "");
  raises(kNoTable, N, W, noFan + stands, missing + "fan_cmd_tab.conf" + tail, "", "");
  raises(kNoTable, N, W, noTemp + stands, missing + "fan_cmd_tab.conf" + tail, "", "",
         FAN_DRIVER_NONE);
  for (const int kind : {int{ALERT_PID_FILE_ERROR}, U}) raises(kind, N, W, none, "", "", "");
}

TEST_CASE("a library that refuses or is slow") {
  for (const int empty : {-1, 0, 30, 31}) {
    CAPTURE(empty);
    const bool refuses = empty < 0;
    Bench bench;
    corvaneInitResult = refuses ? -1 : 0;
    corvaneEmptyFetches = empty;
    bench.alertNotification(kNoConfig);
    CHECK(bench.m_missingConfigAlertRaised == !refuses);
    Lines expected = kFrameBegin;
    for (int n = 0; n < empty && n < 30; ++n)
      expected = expected + Lines{"corvane get 16", "sleep 10"};
    if (empty > 30) expected.push_back("syslog 3 Empty result for resource");
    expected = expected + status("MissingConfig") + kFrameEnd;
    if (refuses)
      expected = {"corvane init", "syslog 3 no communication with libcorvane, exit alertnotify\\n"};
    CHECK(bench.journal({"corvane", "sleep", "syslog"}) == expected);
  }
}

TEST_CASE("start-up waits for the library, and goes on without a pid file") {
  const Lines retry = {"corvane get 16", "sleep 10"};
  for (const bool writable : {true, false}) {
    Bench bench;
    bench.config("#\n", TABLE);
    if (!writable) bench.m_pidFile = "/sys/none/pid";
    corvaneEmptyFetches = 2;
    bench.endlessWatcher(true);
    CHECK(bench.journal({"corvane", "sleep"}) ==
          kFrameBegin + retry + retry + (writable ? Lines{} : kFrameEnd + kFrameBegin));
  }
}

TEST_CASE("a dropped alert is raised again; an alert within an alert has its own connection") {
  Bench bench;
  bench.m_tempSensorPath = SENSOR;
  bench.m_lastFanAlert = F;
  bench.write(SENSOR, "60000\n");
  for (const int result : {-1, 0}) {
    corvaneInitResult = result;
    bench.alertNotification(W);
    bench.refreshTemperature(false);
    const Lines told = kFrameBegin + status("FanRaisedFromDead") + kFrameBegin +
                       status("TemperatureAlert") + kFrameEnd + kFrameEnd;
    CHECK(bench.journal({"corvane"}) == (result == 0 ? told : Lines(2, "corvane init")));
  }
}

TEST_CASE("flag files in a folder that is everybody's") {
  Bench bench;
  const std::string flag = bench.at(HIGH_TEMP_FLAG), victim = bench.at("/victim");
  bench.write("/victim", "precious");
  CHECK(bench.check_file(HIGH_TEMP_FLAG) == 0);
  const auto replaces = [&] {
    bench.create_file(HIGH_TEMP_FLAG);
    CHECK(bench.journal({"syslog"}) == Lines{"syslog 3 Creating /var/tmp/high_temp_alert file"});
    CHECK(fs::is_regular_file(fs::symlink_status(flag)));
    CHECK(bench.read("/victim") == "precious");
    fs::remove(flag);
  };
  fs::create_symlink(victim, flag);
  replaces();
  fs::create_hard_link(victim, flag);
  replaces();
  REQUIRE(::mkfifo(flag.c_str(), 0600) == 0);  // without a reader or a writer to be waited for
  replaces();
  bench.write(HIGH_TEMP_FLAG, "old");
  const timespec late[] = {{2'500'000'000, 0}, {2'500'000'000, 0}};  // beyond 32 bits of time
  REQUIRE(::utimensat(AT_FDCWD, flag.c_str(), late, 0) == 0);
  bench.create_file(HIGH_TEMP_FLAG);
  CHECK(bench.journal({"syslog"}) == Lines{"syslog 3 Creating /var/tmp/high_temp_alert file"});
  CHECK(bench.read(HIGH_TEMP_FLAG).empty());
}

// readings: one a call, 0, 1, x (" 1") or - (unreadable). recheck: what each restart attempt finds
// after its ten seconds. results: per call, . nothing, r restarted, F failed, W working.
static void alarms(int last, const std::string& readings, const std::string& recheck,
                   const std::string& results, int counter, int command) {
  CAPTURE(readings);
  const std::map<char, std::string> texts = {{'-', ""}, {'x', " 1\n"}, {'0', "0\n"}, {'1', "1\n"}};
  const std::string attribute = "/sys/alarm", prefix = "fan-ctrl.cpp:getFanAlarm ";
  Bench bench;
  bench.m_valueMap = {{30, 200}, {60, 90}};
  bench.m_fanDriverType = FAN_DRIVER_I2C;
  bench.m_fanAlarmPath = attribute;
  bench.m_tempSensorPath = SENSOR;
  bench.m_lastFanAlert = last;
  bench.write(SENSOR, "20000\n");
  // Readings change while the restart waits: the timeline supplies what the re-check finds.
  std::string timeline;
  for (std::size_t n = 0; n < recheck.size(); ++n) {
    timeline += std::to_string(10 * n + 9) + (recheck[n] == '-' ? " remove " : " write ") +
                attribute + " " + recheck[n] + "\n";
  }
  bench.write("/timeline", timeline);
  std::string seen;
  for (const char reading : readings) {
    bench.write(attribute, texts.at(reading));
    int descriptor = -1;
    const std::string trace = traced([&] { bench.getFanAlarm(&descriptor, true); });
    const Lines entries = bench.journal({"corvane", "sleep"});
    const bool restarted = contains(entries, "sleep 10");
    const bool working = contains(entries, "corvane property status=FanRaisedFromDead");
    const bool failed = contains(entries, "corvane property status=FanFailed");
    seen += failed ? 'F' : working ? 'W' : restarted ? 'r' : '.';
    CHECK(contains(trace, "Temp. = 20\n") == (working || (restarted && recheck != "-")));
    CHECK(contains(trace, prefix + "try to restart the FAN\n" + prefix +
                              "setting highest value\n") == restarted);
    CHECK(contains(trace, "read 1 in fan1alarm\n" + prefix + "FAN still blocked\n" + prefix +
                              "raise alert\n" + prefix + "m_lastFanAlert 1\n") == failed);
    CHECK(trace.starts_with(prefix + "FAN raised from dead\n" + prefix +
                            "m_updateFanStatusCnt2\n") == working);
  }
  CHECK(seen == results);
  CHECK(bench.m_updateFanStatusCnt == counter);
  CHECK(bench.m_curCmd->m_currentCmd == command);
}

TEST_CASE("fan alarm: readings in, alerts out") {
  alarms(W, "00x-", "", "....", 0, -1);
  alarms(W, "1010", "00", "r.r.", 0, 200);  // selection takes its own command again
  alarms(W, "1100000", "1", "F...W..", 0, 200);
  alarms(F, "xxx", "", "..W", 0, 200);  // other text is no alarm
  alarms(F, "001000", "", ".....W", 0, 200);
  alarms(F, "0-0-0", "", "....W", 0, 200);  // neither counts nor resets
  alarms(F, "0100", "", "....", 2, -1);
  alarms(W, "1", "-", "r", 0, 90);  // unreadable after the restart: nothing is selected
  alarms(U, "1010", "", "....", 0, -1);
}
