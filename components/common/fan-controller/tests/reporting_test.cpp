// Alerts, flag files, the wait for the management library, the fan alarm.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "fixtures.h"

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

// What an alert says: the journal between the library's frame, and the trace line without its own.
struct Report {
  Lines entries = {};
  std::string trace = {};
};

// One alert with the alert memory and the flag files that it meets, and what follows. Flag files
// are named by their first letters.
struct Alert {
  int kind = U, temp = N, fan = W;
  FanDriverType driver = FAN_DRIVER_I2C;
  std::string found = {};
  Report report = {};
  std::string left = {};
};

}  // namespace

TEST_CASE("what each alert reports, and when") {
  const std::string drives = "syslog 3 The temperature of the drive(s) is ";
  const std::string created = "syslog 3 Creating /var/tmp/",
                    missing = "unable to find config file ";
  const Report failed = {status("FanFailed") + Lines{created + "fan_failed_alert file"},
                         "The system fan is failing"};
  const Report works = {status("FanRaisedFromDead"), "The system fan is working now"};
  const Report high = {
      Lines{drives + "above normal values (over 55degC)", created + "high_temp_alert file"} +
          status("TemperatureAlert"),
      "temperature is too high"};
  const Report normal = {Lines{drives + "now normal."} + status("OK"),
                         "temperature is now normal."};
  const Report critical = {
      Lines{created + "crit_temp_alert file",
            drives + "critical (over 65degC)SYSTEM WILL NOW SHUTDOWN FOR EMERGENCY"} +
          status("TemperatureTooHigh"),
      "temperature is critical, shut down now"};
  const Report silent = {
      Lines{"syslog 4 The drives detected in the system are not providing their temperature "
            "values.\\nAs a precaution, the fan speed is set to the maximum."} +
          status("KO"),
      "no temperature sensored from any hdd device"};
  const Report noConfig = {status("MissingConfig"),
                           missing + "fan_controller.conf in /etc/fan_controller"};
  const std::string table = missing + "fan_cmd_tab.conf in /etc/fan_controller";
  const Report noTable = {
      Lines{"syslog 4 The fan controller could not be initialized. As a precaution, the fan speed "
            "is set to the maximum."} +
          status("FanNonRotating"),
      table};
  const Report noTableNoFan = {
      Lines{"syslog 4 The temperature controller could not be initialized."} +
          status("FanNonRotating"),
      table};
  const FanDriverType NONE = FAN_DRIVER_NONE;
  const Alert alerts[] = {
      {.kind = F, .report = failed, .left = "F"},
      {.kind = F, .fan = F},
      {.kind = F, .driver = NONE},
      {.kind = W, .fan = F, .found = "F", .report = works},
      {.kind = W, .found = "F", .left = "F"},
      {.kind = H, .report = high, .left = "H"},
      {.kind = H, .temp = U, .found = "C", .report = high, .left = "H"},
      {.kind = H, .temp = H, .found = "H", .left = "H"},
      {.kind = N, .temp = U, .found = "H", .report = normal},
      {.kind = N, .temp = C, .found = "HC", .report = normal, .left = "H"},
      {.kind = N, .found = "H", .left = "H"},
      {.kind = C, .temp = H, .found = "H", .report = critical, .left = "C"},
      {.kind = C, .temp = C, .driver = NONE, .found = "C", .report = critical, .left = "C"},
      {.kind = ALERT_NO_DRIVE_TEMP, .report = silent},
      {.kind = kNoConfig, .report = noConfig},
      {.kind = kNoTable, .report = noTable},
      {.kind = kNoTable, .driver = NONE, .report = noTableNoFan},
      {.kind = ALERT_PID_FILE_ERROR},
      {.kind = U},
  };
  for (const auto& [kind, temp, fan, driver, found, report, left] : alerts) {
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
      if (contains(found, letter)) bench.write(path, "");
    }
    const std::string text = traced([&, raised = kind] { bench.alertNotification(raised); });
    CHECK(bench.journal({"syslog", "corvane", "sleep"}) ==
          kFrameBegin + report.entries + kFrameEnd);
    const bool reported = !report.entries.empty();
    const std::string end = kind == kNoConfig || kind == kNoTable ? " !!!\n\n" : " !!!\n";
    CHECK(text.starts_with(reported ? "alert-mgr.cpp:alertNotification !!! " + report.trace + end
                                    : ""));
    CHECK(text.empty() == !reported);
    for (const auto& [letter, path] : files) {
      CHECK(bench.exists(path) == contains(left, letter));
    }
    CHECK(bench.m_lastFanAlert == (reported && kind <= W ? kind : fan));
    CHECK(bench.m_lastTempAlert == (reported && kind >= H && kind <= C ? kind : temp));
    CHECK(bench.m_missingConfigAlertRaised == (kind == kNoConfig));
    CHECK(bench.m_missingCmdTableAlertRaised == (kind == kNoTable));
    CHECK(bench.exists(STATUS) == (reported && (kind == H || kind == C)));
  }
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
  const Lines retries = {"corvane get 16", "sleep 10", "corvane get 16", "sleep 10"};
  const Lines begins = {
      "syslog 4 Unable to find appropriate fan entries in sysfs - consider a fanless product",
      "corvane init", "syslog 6 getting corvane fan config", "corvane get 16"};
  for (const bool writable : {true, false}) {
    Bench bench;
    bench.config("#\n", TABLE);
    bench.write(HIGH_TEMP_FLAG, "");
    bench.m_lastTempAlert = bench.m_lastFanAlert = U;
    if (!writable) bench.m_pidFile = "/sys/none/pid";
    corvaneEmptyFetches = 2;
    bench.endlessWatcher(true);
    CHECK(bench.journal({"corvane", "sleep", "syslog"}) ==
          (writable ? begins + Lines{"syslog 6 ret 1"} + retries
                    : kFrameBegin + retries + kFrameEnd + begins + Lines{"syslog 6 ret 0"}));
    CHECK(bench.m_lastTempAlert == H);
    CHECK(bench.m_lastFanAlert == W);
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
  using Path = const std::string&;
  const std::pair<std::string, void (*)(Path, Path)> plants[] = {
      {"dangling link", [](Path flag, Path victim) { fs::create_symlink(victim + "2", flag); }},
      {"link", [](Path flag, Path victim) { fs::create_symlink(victim, flag); }},
      {"hard link", [](Path flag, Path victim) { fs::create_hard_link(victim, flag); }},
      {"pipe", [](Path flag, Path) { REQUIRE(::mkfifo(flag.c_str(), 0600) == 0); }},
      {"empty folder", [](Path flag, Path) { fs::create_directory(flag); }},
      {"folder", [](Path flag, Path) { fs::create_directories(flag + "/inside"); }},
      {"another's file",
       [](Path flag, Path) {
         std::ofstream(flag) << "old";
         if (::geteuid() == 0) REQUIRE(::chown(flag.c_str(), 65534, 65534) == 0);
       }},
      {"own file", [](Path flag, Path) { std::ofstream(flag) << "old"; }},
  };
  const mode_t mask = ::umask(0);
  ::umask(mask);
  for (const auto& [name, plant] : plants) {
    CAPTURE(name);
    Bench bench;
    const std::string flag = bench.at(HIGH_TEMP_FLAG), victim = bench.at("/victim");
    bench.write("/victim", "precious");
    CHECK(bench.check_file(HIGH_TEMP_FLAG) == 0);
    plant(flag, victim);
    struct stat before = {}, after = {};
    const timespec late[] = {{2'500'000'000, 0}, {2'500'000'000, 0}};  // beyond 32 bits of time
    (void)::utimensat(AT_FDCWD, flag.c_str(), late, AT_SYMLINK_NOFOLLOW);
    REQUIRE(::lstat(flag.c_str(), &before) == 0);
    if (S_ISLNK(before.st_mode)) CHECK(bench.check_file(HIGH_TEMP_FLAG) == 0);
    bench.create_file(HIGH_TEMP_FLAG);
    CHECK(bench.journal({"syslog"}) == Lines{"syslog 3 Creating /var/tmp/high_temp_alert file"});
    REQUIRE(::lstat(flag.c_str(), &after) == 0);
    CHECK(S_ISREG(after.st_mode));
    CHECK(after.st_nlink == 1);
    CHECK(after.st_uid == ::geteuid());
    CHECK(after.st_size == 0);
    const fs::directory_iterator left(bench.at("/var/tmp"));
    CHECK(std::distance(begin(left), end(left)) == (name == "folder" ? 2 : 1));
    if (name != "own file") CHECK((after.st_mode & ALLPERMS) == (0666 & ~mask));
    if (name == "own file") CHECK(after.st_ino == before.st_ino);
    CHECK(bench.check_file(HIGH_TEMP_FLAG) == 1);
    CHECK(bench.read("/victim") == "precious");
    CHECK_FALSE(bench.exists("/victim2"));
  }
}

TEST_CASE("a link in the place of the critical flag is no flag") {
  Bench bench;
  bench.m_lastTempAlert = H;
  bench.write(HIGH_TEMP_FLAG, "");
  fs::create_symlink("/nowhere", bench.at(CRIT_TEMP_FLAG));
  bench.alertNotification(N);
  CHECK_FALSE(bench.exists(HIGH_TEMP_FLAG));
}

// One call a reading: 0, 1, x (" 1") or - (unreadable). restarts: what each restart attempt finds
// after its ten seconds. results: per call, . nothing, r restarted, F failed, W working.
struct Supervision {
  int last = W;
  std::string readings, restarts = {}, results;
  int counter = 0, command = -1;
};

TEST_CASE("fan alarm: readings in, alerts out") {
  const Supervision supervisions[] = {
      {.readings = "00x-", .results = "...."},
      // Selection takes its own command again.
      {.readings = "1010", .restarts = "00", .results = "r.r.", .command = 200},
      {.readings = "1100000", .restarts = "1", .results = "F...W..", .command = 200},
      {.last = F, .readings = "xxx", .results = "..W", .command = 200},  // other text is no alarm
      {.last = F, .readings = "001000", .results = ".....W", .command = 200},
      // What cannot be read neither counts nor resets, and selects nothing after a restart.
      {.last = F, .readings = "0-0-0", .results = "....W", .command = 200},
      {.last = F, .readings = "0100", .results = "....", .counter = 2},
      {.readings = "1", .restarts = "-", .results = "r", .command = 90},
      {.last = U, .readings = "1010", .results = "...."},
  };
  const std::map<char, std::string> texts = {{'-', ""}, {'x', " 1\n"}, {'0', "0\n"}, {'1', "1\n"}};
  const std::string attribute = "/sys/alarm", prefix = "fan-ctrl.cpp:getFanAlarm ";
  for (const Supervision& each : supervisions) {
    CAPTURE(each.readings);
    Bench bench;
    bench.m_valueMap = {{30, 200}, {60, 90}};
    bench.m_fanDriverType = FAN_DRIVER_I2C;
    bench.m_fanAlarmPath = attribute;
    bench.m_lastFanAlert = each.last;
    bench.write("/proc/partitions", "sda\n");
    bench.disk("sda", "temperature=20\n");
    // Readings change while the restart waits: the timeline supplies what is found then.
    std::string timeline;
    for (std::size_t n = 0; n < each.restarts.size(); ++n) {
      const std::string reading(1, each.restarts[n]);
      timeline += std::to_string(10 * n + 9) + (reading == "-" ? " remove " : " write ") +
                  attribute + " " + reading + "\n";
    }
    bench.write("/timeline", timeline);
    std::string seen;
    for (const char reading : each.readings) {
      bench.write(attribute, texts.at(reading));
      const int count = bench.m_updateFanStatusCnt;
      int descriptor = -1;
      const std::string trace = traced([&] { bench.getFanAlarm(&descriptor, true); });
      const Lines entries = bench.journal({"corvane", "sleep"});
      const bool restarted = contains(entries, "sleep 10");
      const bool working = contains(entries, "corvane property status=FanRaisedFromDead");
      const bool failed = contains(entries, "corvane property status=FanFailed");
      seen += failed ? 'F' : working ? 'W' : restarted ? 'r' : '.';
      CHECK(contains(trace, "TMAX = 20\n") == (working || (restarted && each.restarts != "-")));
      CHECK_FALSE(contains(trace, "Activate smart"));
      CHECK(contains(trace, prefix + "try to restart the FAN\n" + prefix +
                                "setting highest value\n") == restarted);
      CHECK(contains(trace, "read 1 in fan1alarm\n" + prefix + "FAN still blocked\n" + prefix +
                                "raise alert\n" + prefix + "m_lastFanAlert 1\n") == failed);
      CHECK(trace.starts_with(prefix + "FAN raised from dead\n" + prefix +
                              "m_updateFanStatusCnt2\n") == working);
      CHECK((trace == prefix + "read 0 in fan1_alarm for the " + std::to_string(count) +
                          "time\n") == (bench.m_updateFanStatusCnt > count));
    }
    CHECK(seen == each.results);
    CHECK(bench.m_updateFanStatusCnt == each.counter);
    CHECK(bench.m_curCmd->m_currentCmd == each.command);
  }
}
