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

// One alert with the alert memory that it meets, and what it says.
struct Alert {
  int kind = U, temp = N, fan = W;
  FanDriverType driver = FAN_DRIVER_I2C;
  Report report = {};
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
      {.kind = F, .report = failed},
      {.kind = F, .fan = F},
      {.kind = F, .driver = NONE},
      {.kind = W, .fan = F, .report = works},
      {.kind = W},
      {.kind = H, .temp = U, .report = high},
      {.kind = H, .temp = H},
      {.kind = N, .temp = U, .report = normal},
      {.kind = N},
      {.kind = C, .temp = C, .driver = NONE, .report = critical},
      {.kind = ALERT_NO_DRIVE_TEMP, .report = silent},
      {.kind = kNoConfig, .report = noConfig},
      {.kind = kNoTable, .report = noTable},
      {.kind = kNoTable, .driver = NONE, .report = noTableNoFan},
      {.kind = ALERT_PID_FILE_ERROR},
      {.kind = U},
  };
  for (const auto& [kind, temp, fan, driver, report] : alerts) {
    CAPTURE(kind);
    CAPTURE(temp);
    CAPTURE(fan);
    Bench bench;
    bench.m_lastTempAlert = temp;
    bench.m_lastFanAlert = fan;
    bench.m_fanDriverType = driver;
    const std::string text = traced([&, raised = kind] { bench.alertNotification(raised); });
    CHECK(bench.journal({"syslog", "corvane", "sleep"}) ==
          kFrameBegin + report.entries + kFrameEnd);
    const bool reported = !report.entries.empty();
    const std::string end = kind == kNoConfig || kind == kNoTable ? " !!!\n\n" : " !!!\n";
    CHECK(text.starts_with(reported ? "alert-mgr.cpp:alertNotification !!! " + report.trace + end
                                    : ""));
    CHECK(text.empty() == !reported);
    CHECK(bench.m_lastFanAlert == (reported && kind <= W ? kind : fan));
    CHECK(bench.m_lastTempAlert == (reported && kind >= H && kind <= C ? kind : temp));
  }
}

TEST_CASE("a library that refuses or never delivers; start-up without a pid file") {
  Bench bench;
  corvaneInitResult = -1;
  bench.alertNotification(kNoConfig);
  CHECK(bench.journal({"corvane", "syslog"}) ==
        Lines{"corvane init", "syslog 3 no communication with libcorvane, exit alertnotify\\n"});
  corvaneInitResult = 0;
  corvaneEmptyFetches = 31;
  bench.alertNotification(kNoConfig);
  CHECK(bench.journal({"corvane", "syslog"}) == kFrameBegin + Lines(30, "corvane get 16") +
                                                    Lines{"syslog 3 Empty result for resource"} +
                                                    status("MissingConfig") + kFrameEnd);
  bench.config("#\n", TABLE);
  corvaneEmptyFetches = 2;
  bench.endlessWatcher(true);
  CHECK(contains(bench.journal({"syslog"}), "syslog 6 ret 1"));
  bench.m_pidFile = "/sys/none/pid";
  corvaneEmptyFetches = 1;
  bench.endlessWatcher(true);
  CHECK(bench.journal({"corvane", "syslog"}) ==
        kFrameBegin + Lines{"corvane get 16"} + kFrameEnd +
            Lines{"syslog 4 Unable to find appropriate fan entries in sysfs - consider a fanless "
                  "product",
                  "corvane init", "syslog 6 getting corvane fan config", "corvane get 16",
                  "syslog 6 ret 0"});
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

// What a reading of the alarm traces, from a memory and a count of clear readings before.
TEST_CASE("fan alarm") {
  const std::string prefix = "fan-ctrl.cpp:getFanAlarm ";
  const auto reads = [&](const std::string& reading, int last, int count, int left,
                         const Lines& messages) {
    CAPTURE(reading);
    Bench bench;
    bench.m_fanDriverType = FAN_DRIVER_I2C;
    bench.m_fanAlarmPath = "/sys/alarm";
    bench.m_lastFanAlert = last;
    bench.m_updateFanStatusCnt = count;
    bench.write("/sys/alarm", reading);
    std::string expected;
    for (const auto& message : messages) expected += prefix + message + "\n";
    int descriptor = -1;
    CHECK(traced([&] { bench.getFanAlarm(&descriptor, true); }).starts_with(expected));
    CHECK(bench.m_updateFanStatusCnt == left);
  };
  const std::string one = "read 1 in fan1alarm";
  const Lines restart = {one, "try to restart the FAN", "setting highest value"};
  reads("0\n", W, 0, 0, {});
  reads("1\n", W, 0, 0,
        restart + Lines{one, "FAN still blocked", "raise alert", "m_lastFanAlert 1"});
  reads("1\n", U, 2, 0, {one});
  reads("0\n", U, 2, 2, {});
  reads("1\n", F, 2, 0, {one});
  reads("", F, 1, 1, {});  // what cannot be read neither counts nor resets
  reads(" 1\n", F, 1, 2, {"read 0 in fan1_alarm for the 1time"});
  reads("0\n", F, 2, 0, {"FAN raised from dead", "m_updateFanStatusCnt2"});
}
