// fanctl guard: what makes it act, what does not, and the alarm that it supplies.
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <fstream>
#include <functional>
#include <tuple>

#include "alerts.h"
#include "board.h"
#include "commands.h"
#include "state.h"

namespace {

const std::string kSettings =
    "fan_driver_sysfs_dir=" + FAN + "\ntemp_sensor_sysfs_entry=" + SENSOR + "\n";
const std::string kTable = "30=100\n60=240\n";

struct Change {
  std::string path, text;
};

struct GuardBoard : Board {
  explicit GuardBoard(bool gpio = false) {
    fan(FAN, gpio);
    write(FAN + "/pwm1", "100\n");
    write(SENSOR, "41000\n");
    config(kSettings, kTable);
  }
  // "-" removes the file, "mode 0400" sets its mode; of a disk it is the description.
  void apply(const Change& change) const {
    const auto& [path, text] = change;
    if (text == "-") {
      fs::remove_all(at(path));
    } else if (text.starts_with("mode ")) {
      allow(path, std::stoi(text.substr(5), nullptr, 8));
    } else if (path.starts_with("/dev/")) {
      disk(path.substr(5), text);
      write("/proc/partitions", read("/proc/partitions") + " 8 0 9 " + path.substr(5) + "\n");
    } else {
      write(path, text);
    }
  }
  void without_sensor() const { config("fan_driver_sysfs_dir=" + FAN + "\n", kTable); }
  int command(const std::string& name = "pwm1") const {
    return std::atoi(read(FAN + "/" + name).c_str());
  }
  State record() const { return read_state(GUARD_RECORD); }
};

// The service in its first wait, which lasts as long as the test.
struct Waiting : Service {
  explicit Waiting(const GuardBoard& board, const char* speed = "1")
      : Service((::setenv("APPLIANCE_SPEED", speed, 1), board)) {
    ::unsetenv("APPLIANCE_SPEED");
    REQUIRE(eventually([&] { return !board.entries({"select", "sleep"}).empty(); }));
    board.remove("/journal");
  }
};

std::string text_of(const char* path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

// A sanitizer and an emulator end the program in their own way.
bool can_run_out_of_memory() {
#ifdef __SANITIZE_ADDRESS__
  return false;
#else
  const char* const emulator = std::getenv("APPLIANCE_EMULATOR");
  return emulator == nullptr || *emulator == '\0';
#endif
}

// A long list of disks cannot be read any more.
void run_out_of_memory(Service& service) {
  rlim_t pages = 0;
  std::ifstream("/proc/" + std::to_string(service.daemon) + "/statm") >> pages;
  const rlim_t now = pages * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE));
  const rlimit most = {now + (1U << 20), now + (1U << 20)};
  REQUIRE(::prlimit(service.daemon, RLIMIT_AS, &most, nullptr) == 0);
  const int status = service.wait_end(SIGUSR2);
  REQUIRE(WIFEXITED(status));
  CHECK(WEXITSTATUS(status) == 1);
}

void halt(pid_t process) {
  REQUIRE(::kill(process, SIGSTOP) == 0);
  int status = 0;
  REQUIRE(::waitpid(process, &status, WUNTRACED) == process);
  REQUIRE(WIFSTOPPED(status));
}

}  // namespace

TEST_CASE("what makes it act, and what does not") {
  const std::string pwm = FAN + "/pwm1", table = CONFIG + "/fan_cmd_tab.conf";
  const std::string settings = CONFIG + "/fan_controller.conf", line = "/timeline";
  const std::string blind = "no temperature can be read",
                    failed = "could not be given the highest command, 240: ";
  const Change noSensor = {settings, "fan_driver_sysfs_dir=" + FAN + "\n"},
               hot = {SENSOR, "90000\n"};
  const struct {
    std::string name;
    int status, command;
    std::string says;
    std::vector<Change> changes;
    Lines options = {};
  } cases[] = {
      {"all well", 0, 100, "", {}},
      {"critical", 0, 100, "", {{SENSOR, "65999\n"}}},
      {"above critical", 1, 240, "the sensor has 66 C", {{SENSOR, "66000\n"}}},
      {"a glance", 0, 100, "", {hot, {line, "3 write " + SENSOR + " 40000\n"}}},
      {"dry run", 1, 100, "Would write 240 to " + pwm, {hot}, {"--dry-run"}},
      {"hot and highest", 0, 240, "", {hot, {pwm, "240\n"}}},
      {"hot disk beside the sensor",
       1,
       240,
       "/dev/sda has 66 C",
       {{"/dev/sda", "temperature=66\n"}, {"/dev/sdb", "power=standby\n"}}},
      {"the disk is not asked", 0, 100, "", {{"/dev/sda", "temperature=66\n"}}, {"--no-disks"}},
      {"dead sensor, no disks", 1, 240, blind, {{SENSOR, "-"}}},
      {"sensor without a number", 1, 240, blind, {{SENSOR, "broken\n"}}},
      {"dead sensor, disks not asked", 1, 240, blind, {{SENSOR, "-"}}, {"--no-disks"}},
      {"dead sensor, disk", 0, 100, "", {{SENSOR, "-"}, {"/dev/sda", "temperature=40\n"}}},
      {"all asleep",
       0,
       100,
       "",
       {noSensor, {"/dev/sda", "power=standby\n"}, {"/dev/sdb", "fails=reject\n"}}},
      {"one asleep",
       0,
       100,
       "",
       {noSensor, {"/dev/sda", "power=standby\n"}, {"/dev/sdb", "model=FLASH\n"}}},
      {"awake without a temperature", 1, 240, blind, {noSensor, {"/dev/sda", "model=FLASH\n"}}},
      {"no list of disks", 1, 240, blind, {noSensor, {"/proc/partitions", "-"}}},
      {"awake and silent", 1, 240, blind, {noSensor, {"/dev/sda", "fails=reject\n"}}},
      {"empty table", 1, 255, "has no step", {{table, "# nothing\n"}}},
      {"no table", 1, 255, "fan_cmd_tab.conf cannot be read", {{table, "-"}}},
      {"table being written", 0, 100, "", {{table, ""}, {line, "2 write " + table + " 30=100\n"}}},
      {"no command above 0", 1, 255, "has no command above 0", {{table, "30=0\n60=\n"}}},
      {"the greatest is not the last",
       1,
       240,
       "the sensor has 90 C",
       {hot, {table, "30=240\n60=100\n"}}},
      {"not quite shown",
       1,
       200,
       "was given the highest command, 240",
       {hot, {line, "6 write " + pwm + " 200\n"}}},
      {"not taken",
       2,
       100,
       failed + pwm + " still reads 100",
       {hot, {line, "6 write " + pwm + " 100\n"}}},
      {"nothing is lowered",
       1,
       250,
       "the fan has the highest command already",
       {{pwm, "250\n"}, {SENSOR, "-"}}},
      {"one attribute cannot be read",
       1,
       240,
       "the sensor has 90 C",
       {hot, {FAN + "/fan1_div", "mode 0"}}},
      {"refused", 2, 100, failed + pwm + ": Permission denied", {hot, {pwm, "mode 0400"}}},
      {"no driver", 2, 0, "there is no fan driver to give it to", {hot, {FAN, "-"}}},
      {"no settings", 0, 100, "nothing to guard", {{settings, "-"}}},
  };
  for (const auto& each : cases) {
    CAPTURE(each.name);
    const GuardBoard board;
    const Waiting service(board);
    for (const Change& change : each.changes) board.apply(change);
    const Fanctl run(board, Lines{"guard"} + each.options);
    CHECK(run.status == each.status);
    CHECK(board.command() == each.command);
    CHECK_MESSAGE(contains(run.output + run.errors, each.says), (run.output + run.errors));
    CHECK((board.record()["stands"] == "yes") == (each.status != 0 && each.name != "dry run"));
    CHECK(board.entries({"woken"}).empty());
  }
}

TEST_CASE("commands that are speeds") {
  const GuardBoard board(true);
  board.write(FAN + "/fan1_max", "3200\n");
  board.config(kSettings, "# no step\n");
  CHECK(Fanctl(board, {"guard"}).status == 1);
  CHECK(board.command("fan1_target") == 3200);
  board.write(FAN + "/fan1_target", "0\n");
  board.write(FAN + "/fan1_max", "0\n");
  CHECK(Fanctl(board, {"guard"}).status == 1);
  CHECK(board.command("fan1_target") == 10000);
}

TEST_CASE("the service: killed, halted, out of memory, stopped, called by its unit") {
  const struct {
    std::string name;
    std::function<void(Service&)> end;
    int status, command;
    std::string says;
    Lines arguments = {"guard"};
  } cases[] = {
      {"killed", [](Service& s) { CHECK(s.wait_end(SIGKILL) == SIGKILL); }, 1, 240,
       "does not run, although it should"},
      {"out of memory", run_out_of_memory, 1, 240, "does not run, although it should"},
      {"halted", [](Service& s) { halt(s.daemon); }, 1, 240, "a signal holds"},
      {"stopped", [](Service& s) { CHECK(s.wait_end(SIGTERM) == 0); }, 0, 100, ""},
      {"stopped, folder gone", [](Service& s) { CHECK(s.wait_end(SIGTERM) == 0); }, 0, 0, ""},
      {"ended, says the unit",
       [](Service& s) { CHECK(s.wait_end(SIGTERM) == 0); },
       1,
       240,
       "has ended",
       {"guard", "--service-ended"}},
  };
  for (const auto& each : cases) {
    CAPTURE(each.name);
    const GuardBoard board;
    if (each.name == "out of memory" && !can_run_out_of_memory()) continue;
    if (each.name == "out of memory") board.without_sensor();
    Waiting service(board);
    std::string disks;
    for (int disk = 0; disk < 200'000; ++disk) disks += " sda\n";
    board.write("/proc/partitions", disks);
    board.write(FAN + "/pwm1", "100\n");
    each.end(service);
    board.write("/proc/partitions", "");
    if (contains(each.name, "folder gone")) {  // and the sensor, which was in it
      fs::remove_all(board.at(FAN));
      board.remove(SENSOR);
      board.write(GUARD_RECORD, "number=1\nstands=yes\n");
    }
    const Fanctl run(board, each.arguments);
    CHECK((board.record()["stands"] == "yes") == (each.status != 0));
    CHECK(run.status == each.status);
    CHECK(board.command() == each.command);
    CHECK_MESSAGE(contains(run.errors, each.says), run.errors);
  }
}

TEST_CASE("what systemd says of a service without a process") {
  const std::string path = std::getenv("PATH");
  const struct {
    std::string answer;
    int status;
    bool isMarked = false;
  } cases[] = {
      {"ActiveState=inactive\nSubState=dead\nMainPID=0", 0},
      {"ActiveState=activating\nSubState=auto-restart\nMainPID=0", 1},
      {"ActiveState=activating\nSubState=start-pre\nMainPID=0", 0},
      {"ActiveState=deactivating\nSubState=stop-post\nMainPID=0", 0},
      {"ActiveState=failed\nSubState=failed\nMainPID=0", 1},
      {"ActiveState=failed\nSubState=failed\nMainPID=0", 0, true},
      {"ActiveState=active\nSubState=running\nMainPID=0", 1},
  };
  for (const auto& each : cases) {
    CAPTURE(each.answer);
    const GuardBoard board;
    board.write("/run/systemd/system/x", "");
    if (each.isMarked) board.write("/run/fan_controller/stopped", "");
    board.write("/bin/systemctl", "#!/bin/sh\ncat <<'.'\n" + each.answer + "\n.\n");
    board.allow("/bin/systemctl", 0755);
    ::setenv("PATH", (board.at("/bin") + ":" + path).c_str(), 1);
    CHECK(Fanctl(board, {"guard"}).status == each.status);
    ::setenv("PATH", path.c_str(), 1);
  }
}

TEST_CASE("somebody is told once, and again when it is another story") {
  const GuardBoard board;
  const Waiting service(board);
  long long clock = 1'800'000'000;
  using Result = std::tuple<int, std::size_t, std::string, std::string>;
  // Status, lines in the system log, number of the record and whether it stands.
  const auto run = [&](const char* sensor) {
    ::setenv("APPLIANCE_EPOCH", std::to_string(clock += 60).c_str(), 1);
    board.write(SENSOR, sensor);
    board.remove("/journal");
    const int status = Fanctl(board, {"guard"}).status;
    const State record = board.record();
    return Result{status, board.entries({"syslog"}).size(), record.at("number"),
                  record.at("stands")};
  };
  CHECK(run("90000\n") == Result{1, 1, "1", "yes"});
  CHECK(
      board.entries({"syslog"}).front().starts_with("syslog 2 fanctl guard: the sensor has 90 C"));
  CHECK(board.record()["temperature"] == "90");
  CHECK(contains(board.record()["text"], "the fan was given the highest command, 240"));
  CHECK(run("90000\n") == Result{0, 0, "1", "yes"});  // still hot
  board.write(FAN + "/pwm1", "100\n");
  CHECK(run("90000\n") == Result{1, 1, "1", "yes"});  // the same again
  board.write(FAN + "/pwm1", "100\n");
  board.allow(FAN + "/pwm1", 0400);
  CHECK(run("90000\n") == Result{2, 1, "2", "yes"});
  CHECK(contains(board.record()["text"], "could not be given"));
  CHECK(run("90000\n") == Result{2, 0, "2", "yes"});
  clock += 3600;
  CHECK(run("90000\n") == Result{2, 1, "3", "yes"});
  board.allow(FAN + "/pwm1", 0600);
  CHECK(run("40000\n") == Result{0, 0, "3", "no"});
  CHECK(run("90000\n") == Result{1, 1, "3", "yes"});  // comes and goes
  CHECK(run("40000\n") == Result{0, 0, "3", "no"});
  clock += 600;
  board.write(FAN + "/pwm1", "100\n");
  CHECK(run("90000\n") == Result{1, 1, "4", "yes"});
}

TEST_CASE("disks beside a sensor that is well are asked every fifth minute") {
  const GuardBoard board;
  const Waiting service(board);
  board.apply({"/dev/sda", "temperature=40\n"});
  const auto asked = [&](long long clock) {
    ::setenv("APPLIANCE_EPOCH", std::to_string(clock).c_str(), 1);
    board.remove("/journal");
    CHECK(Fanctl(board, {"guard"}).status == 0);
    return board.entries({"sg_io"}).size();
  };
  CHECK(asked(1'800'000'000) == 2);  // power mode, SMART data
  CHECK(asked(1'800'000'299) == 0);
  CHECK(asked(1'800'000'300) == 2);
  CHECK(asked(1'700'000'000) == 2);  // the clock was set back
}

TEST_CASE("a system log that hangs holds up the service, and not the guard") {
  const GuardBoard board;
  REQUIRE(::mkfifo(board.at("/syslog").c_str(), 0600) == 0);
  ::setenv("APPLIANCE_SPEED", "1", 1);
  const Service service(board);
  ::unsetenv("APPLIANCE_SPEED");
  board.write(SENSOR, "90000\n");
  CHECK(Fanctl(board, {"guard"}).status == 1);
  CHECK(board.command() == 240);
  CHECK(board.record()["number"] == "1");
  CHECK(board.entries({"syslog"}).empty());
}

TEST_CASE("another run that hangs does not keep the fan from its command") {
  const GuardBoard board;
  board.write(SENSOR, "90000\n");
  fs::create_directories(board.at(RUN_FOLDER));
  const HeldLock lock(board, "/run/fan_controller/.guard.lock");
  CHECK(Fanctl(board, {"guard"}).status == 1);
  CHECK(board.command() == 240);
}

// The shell text of the addition to the service's unit, on the board.
TEST_CASE("what the service's unit does when the service has ended") {
  std::string unit = text_of(FANCTL_UNIT),
              script = unit.substr(unit.find("ExecStopPost=+/bin/sh -c '") + 26);
  script.resize(script.rfind('\''));
  const auto put = [&](const std::string& from, const std::string& to) {
    for (std::size_t at = 0; (at = script.find(from, at)) != std::string::npos; at += to.size()) {
      script.replace(at, from.size(), to);
    }
  };
  const struct {
    std::string name, pidof, jobs, isActive, guard;
    std::string does;
    bool marks = false;
  } cases[] = {
      {"stop", "1", "1 fan_controller.service stop running", "0", "1", "link --undo\n", true},
      {"restart", "1", "1 fan_controller.service restart running", "0", "1", "link --undo\n", true},
      {"no room for the mark", "1", "1 fan_controller.service stop running", "0", "1",
       "link --undo\n", true},
      {"crash", "1", "", "0", "1", "guard --service-ended\n"},
      {"failed start", "1", "1 fan_controller.service start running", "0", "1",
       "guard --service-ended\n"},
      {"no guard", "1", "", "3", "1", "link --undo\n"},
      {"guard without a fan", "1", "", "0", "0", "guard --service-ended\nlink --undo\n"},
      {"guard that cannot", "1", "", "0", "2", "guard --service-ended\nlink --undo\n"},
      {"another copy", "0", "", "0", "1", ""},
  };
  const GuardBoard board;
  put("\\\n", "");
  put("$$", "$");
  put("/run/", board.at("/run/"));
  put("/usr/sbin/", "");
  for (const auto& each : cases) {
    CAPTURE(each.name);
    const auto fake = [&](const std::string& name, const std::string& body) {
      board.write("/bin/" + name, "#!/bin/sh\n" + body + "\n");
      board.allow("/bin/" + name, 0755);
    };
    fake("pidof", "exit " + each.pidof);
    fake("systemctl", "case $* in *list-jobs*) echo '" + each.jobs + "' ;; *) exit " +
                          each.isActive + " ;; esac");
    fake("fanctl",
         "echo \"$*\" >>" + board.at("/done") + "\n[ \"$1\" = link ] || exit " + each.guard);
    board.remove("/done");
    board.remove("/run/fan_controller/stopped");
    if (each.name == "no room for the mark") {
      fs::create_directories(board.at("/run/fan_controller/stopped"));
    }
    board.write("/script", "PATH=" + board.at("/bin") + ":$PATH\n" + script + "\n");
    CHECK(std::system(("sh " + board.at("/script")).c_str()) == 0);
    CHECK(board.read("/done") == each.does);
    CHECK(board.exists("/run/fan_controller/stopped") == each.marks);
  }
}

TEST_CASE("a week of silences that are in order") {
  constexpr int kRuns = 7 * 24 * 60 / 5;
  const std::string settings = CONFIG + "/fan_controller.conf";
  const struct {
    std::string name;
    std::vector<Change> changes;
    const char* speed = "1";
  } cases[] = {
      {"spindown, all disks asleep",
       {{settings, "fan_driver_sysfs_dir=" + FAN + "\n"},
        {"/dev/sda", "power=standby\n"},
        {"/dev/sdb", "power=standby\n"}}},
      {"waiting for its settings", {{settings, "-"}}},
      {"waiting for the management library", {{"/corvane", "-"}}},
      {"restart of the fan", {{FAN + "/fan1_alarm", "1\n"}}, "200"},
      {"critical alerts at the highest command", {{SENSOR, "70000\n"}}},
  };
  for (const auto& each : cases) {
    CAPTURE(each.name);
    const GuardBoard board;
    for (const Change& change : each.changes) board.apply(change);
    const Waiting service(board, each.speed);
    const int before = board.command();
    (void)traced([&] {
      for (int run = 0; run < kRuns; ++run) REQUIRE(run_guard({}, {}) == EXIT_FINE);
    });
    CHECK((board.command() == before || each.name == "restart of the fan"));
    CHECK(board.record().empty());
    CHECK(board.entries({"woken"}).empty());
  }
}

TEST_CASE("the alarm of a chip that has none") {
  const std::string folder = "/run/fan_controller/fan", alarm = folder + "/fan1_alarm";
  const std::string chip = "/sys/devices/i2c/0-002e/hwmon/hwmon0/";
  const struct {
    std::string name, speed, command, before, timeline, after;
    std::string own = "";  // of the chip
  } cases[] = {
      {"turns", "900", "100", "0", "", "0"},
      {"turns again", "900", "100", "1", "", "0"},
      {"stands still", "0", "100", "0", "", "1"},
      {"stands as commanded", "0", "0", "1", "", "0"},
      {"only slow to start", "0", "100", "0", "8 write " + chip + "fan1_input 700\n", "0"},
      {"starts soon after", "0", "100", "0", "20 write " + chip + "fan1_input 700\n", "0"},
      {"still stands, later turns", "0", "100", "1", "120 write " + chip + "fan1_input 700\n", "1"},
      {"the chip's own alarm", "0", "100", "0", "", "0", " fan1_alarm=0"},
  };
  for (const auto& each : cases) {
    CAPTURE(each.name);
    const Board board(
        {{0, "nct7802", "i2c/0-002e", "pwm1=1 pwm1_enable=2 fan1_input=1" + each.own}});
    board.config("fan_driver_sysfs_dir=" + folder + "\n", kTable);
    REQUIRE(Fanctl(board, {"link", "nct7802"}).status == 0);
    board.write(chip + "pwm1", each.command + "\n");
    board.write(chip + "fan1_input", each.speed + "\n");
    board.write(alarm, each.before + "\n");
    board.write("/timeline", each.timeline);
    CHECK(Fanctl(board, {"guard"}).status == 0);
    CHECK(board.read(alarm) == each.after + "\n");
  }
}

TEST_CASE("the service reports a blocked fan by the alarm that the guard supplies") {
  const std::string folder = "/run/fan_controller/fan";
  const GuardBoard board;
  board.chip({0, "nct7802", "i2c/0-002e", "pwm1=1 pwm1_enable=2 fan1_input=0"});
  board.config("fan_driver_sysfs_dir=" + folder + "\ntemp_sensor_sysfs_entry=" + SENSOR + "\n",
               kTable);
  REQUIRE(Fanctl(board, {"link", "nct7802"}).status == 0);
  const Waiting service(board, "2000");
  CHECK(!board.exists(FAN_FAILED_FLAG));
  CHECK(Fanctl(board, {"guard"}).status == 0);
  CHECK(eventually([&] { return board.exists(FAN_FAILED_FLAG); }));
  board.write("/sys/devices/i2c/0-002e/hwmon/hwmon0/fan1_input", "1200\n");
  CHECK(Fanctl(board, {"guard"}).status == 0);
  CHECK(eventually([&] { return !board.exists(FAN_FAILED_FLAG); }));
}
