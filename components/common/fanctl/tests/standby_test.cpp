// The shipped fanctl and the shipped service on one simulated board, with one clock for both.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <optional>

#include "board.h"
#include "commands.h"
#include "service-signal.h"
#include "state.h"

namespace {

const std::string kMemory = "/run/fan_controller/standby";
const std::string kDriver = "fan_driver_sysfs_dir=" + FAN + "\n";
const std::string kFanless = "#\n";  // the service counts its period down second by second

// Two disks that tell 31 and 47 degrees, and the service on its way.
struct Box : Board {
  explicit Box(const std::string& settings = kDriver) {
    (void)Fanctl(*this, {"--help"});  // the simulation is looked for only once
    fan(FAN, false);
    write("/proc/partitions", "   8 0 9 sda\n   8 16 9 sdb\n");
    disks("active", "active");
    config(settings, TABLE);
    write("/clock", "0");
    start();
  }
  void start() {
    const Handle trace(
        ::open(at("/trace").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    remove("/clock_reached");
    service.emplace(*this, Lines{"--verbose", "-c", CONFIG}, trace.number);
    REQUIRE(hasReached());
  }
  bool hasReached() const {
    return eventually([&] { return read("/clock_reached") == std::to_string(now) + "\n"; });
  }
  // The service has done what it had to up to then, and waits.
  void pass(int seconds) {
    now += seconds;
    remove("/clock_reached");
    write("/clock.new", std::to_string(now));
    fs::rename(at("/clock.new"), at("/clock"));
    REQUIRE(hasReached());
  }
  void disks(const std::string& sda, const std::string& sdb) const {
    disk("sda", "temperature=31\npower=" + sda + "\n");
    disk("sdb", "temperature=47\npower=" + sdb + "\n");
  }
  std::string run(const Lines& more = {}, int status = 0) const {
    const Fanctl fanctl(*this, Lines{"standby"} + more);
    CAPTURE(fanctl.errors);
    CHECK(fanctl.status == status);
    return fanctl.output + fanctl.errors;
  }
  std::string run_when(const std::string& sda, const std::string& sdb) const {
    disks(sda, sdb);
    return run();
  }
  // Puts the service to rest.
  void rest() const {
    for (int count = 0; count < 2; ++count) (void)run_when("standby", "standby");
    REQUIRE(mode() == "spindown");
  }
  std::string mode() const { return read_state(kMemory)["mode"]; }
  // How often the service was told to.
  long switched(const std::string& to) const {
    const std::string text = read("/trace"), line = "Switch to " + to + " mode";
    long count = 0;
    for (std::size_t at = 0; (at = text.find(line, at)) != std::string::npos; ++at) ++count;
    return count;
  }
  // Whether it measures from now on, over three cycles. The disks are asked by nobody else.
  bool measures() {
    (void)journal({});
    for (int cycle = 0; cycle < 3; ++cycle) pass(180);
    const auto calls = journal({"sg_io"}).size();
    CHECK((calls == 0 || calls >= 3 * 4));  // temperature and identity of two disks
    return calls != 0;
  }
  // Only the question that wakes no disk was put, and not in vain.
  void asksOnly() const {
    const Lines calls = journal({"sg_io", "woken"});
    CHECK_FALSE(calls.empty());
    for (const std::string& call : calls) {
      CHECK(call.substr(9) == " 85062000000000000000000000" + std::string("00e500 ") +
                                  "dir=-1 len=0 sense=32 timeout=20000 ok");
    }
  }

  int now = 0;
  std::optional<Service> service;
};

}  // namespace

TEST_CASE("two runs that find all disks asleep, and one that does not") {
  for (const std::string& settings : {kDriver, kFanless}) {
    CAPTURE(settings);
    Box box(settings);
    CHECK(box.run() == "");
    for (int run = 0; run < 3; ++run) CHECK(box.run_when("standby", "active") == "");
    CHECK(box.mode() == "normal");
    // Asleep, awake, asleep: not twice in a row.
    CHECK(box.run_when("standby", "standby") == "");
    CHECK(box.run_when("standby", "active") == "");
    (void)box.journal({});
    CHECK(box.run_when("standby", "standby") == "");
    CHECK(box.switched("spindown") == 0);
    CHECK(contains(box.run(), "all disks sleep: the service rests, SIGUSR1 goes to process "));
    CHECK(box.run() == "");
    box.asksOnly();
    CHECK_FALSE(box.measures());
    // At once, not when the period is over.
    CHECK(contains(box.run_when("standby", "active"),
                   "/dev/sdb is awake: the service measures again, SIGUSR2 goes to "));
    CHECK(contains(box.read("/trace"), "TMAX = 47\n"));
    CHECK(box.run() == "");
    CHECK(box.measures());
    CHECK(box.switched("spindown") == 1);
    CHECK(box.switched("normal") == 1);
  }
}

TEST_CASE("a day: no sleeping disk is woken, and the first measurement comes within an interval") {
  constexpr int kInterval = 30, kDay = 24 * 3600, kTimer = 60;
  // From when to when somebody uses the disks, seconds of the day.
  const int uses[][2] = {
      {0, 7}, {1000, 1003}, {25'017, 27'777}, {28'000, 28'001}, {61'003, 80'011}};
  Box box;
  (void)box.journal({});
  const Options options;
  int lastCommand = 0, rests = 0;
  for (bool sleeps = false; box.now < kDay;) {
    // The disks' own timer: any command but the question for the power mode starts it anew.
    bool used = false;
    for (const auto& [from, to] : uses) used |= box.now + kInterval > from && box.now <= to;
    const bool wasAsleep = sleeps;
    if (used) lastCommand = box.now;
    sleeps = !used && box.now - lastCommand >= kTimer;
    const std::string power = sleeps ? "standby" : "active";
    if (sleeps != wasAsleep) box.disks(power, power);
    REQUIRE(run_standby(options, {}) == EXIT_FINE);
    if (wasAsleep && !sleeps) CHECK(box.mode() == "normal");
    rests += box.mode() == "spindown" ? 1 : 0;
    const auto measured = [&] {
      const Lines calls = box.journal({"sg_io", "woken"});
      CHECK_FALSE(contains(calls, "woken sda"));
      return !std::ranges::all_of(calls, [](auto& call) { return contains(call, "00e500 "); });
    };
    // In the same run, not when a period is over.
    const bool hasMeasured = measured();
    if (wasAsleep && !sleeps) CHECK(hasMeasured);
    box.pass(kInterval);
    if (measured() || hasMeasured) lastCommand = box.now - kInterval;
  }
  CHECK(box.switched("spindown") == box.switched("normal") + 1);
  CHECK(box.switched("normal") == std::ssize(uses) - 1);
  CHECK(rests > 2000);  // of 2880
}

TEST_CASE("what counts as awake") {
  const std::string list = "/proc/partitions", dumb = " does not tell whether it sleeps";
  const std::string sensor = kDriver + "temp_sensor_sysfs_entry=" + SENSOR + "\n";
  const struct {
    std::string says;
    std::function<void(const Box&)> change;
  } cases[] = {
      {"/dev/sdb cannot be opened", [](auto& box) { box.remove("/dev/sdb"); }},
      {"/dev/sda" + dumb, [](auto& box) { box.disk("sda", "fails=ioctl\n"); }},
      {"/dev/sdb" + dumb, [](auto& box) { box.disk("sdb", "power=standby\nfails=reject\n"); }},
      {"there is no disk", [&](auto& box) { box.write(list, ""); }},
      {"the list of disks cannot be read", [&](auto& box) { box.remove(list); }},
      {"the service measures its sensor and touches no disk",
       [&](auto& box) { box.write(SENSOR, "41000\n"), box.config(sensor, TABLE); }},
  };
  for (const auto& each : cases) {
    CAPTURE(each.says);
    const Box box;
    box.rest();
    each.change(box);
    CHECK(contains(box.run(), each.says + ": the service measures again"));
    CHECK(box.switched("normal") == 1);
    const bool isSensor = contains(each.says, "sensor");
    CHECK(contains(box.run(), "touches no disk: there is nothing to do") == isSensor);
    (void)box.journal({});
    CHECK(box.run() == "");
    if (isSensor) CHECK(box.journal({"sg_io"}).empty());
  }
  const Box box;
  box.rest();
  box.remove(CONFIG + "/fan_controller.conf");
  CHECK(contains(box.run({}, 2), "fan_controller.conf cannot be read"));
  CHECK(box.switched("normal") == 1);
}

TEST_CASE("killed at any point") {
  // What stood in the memory, what had been sent, and, with counted waits, not served. These take
  // long: only where both signals are noted and disks are awake.
  const struct {
    std::string settings, mode;
    std::vector<int> sent;
  } cases[] = {{kDriver, "entering", {}},
               {kDriver, "entering", {SIGUSR1}},
               {kDriver, "leaving", {}},
               {kDriver, "leaving", {SIGUSR2}},
               {kDriver, "leaving", {SIGUSR1, SIGUSR2}},
               {kFanless, "leaving", {SIGUSR1, SIGUSR2}}};
  for (const auto& each : cases) {
    for (const bool asleep : {true, false}) {
      if (each.settings == kFanless && asleep) continue;
      CAPTURE(each.settings + each.mode);
      CAPTURE(each.sent.size());
      CAPTURE(asleep);
      Box box(each.settings);
      box.rest();
      std::string memory = box.read(kMemory);
      if (each.mode == "entering") (void)box.run_when("standby", "active");
      box.write(kMemory, memory.replace(memory.find("spindown"), 8, each.mode));
      for (const int signal : each.sent) ::kill(box.service->daemon, signal);
      (void)box.run_when("standby", asleep ? "standby" : "active");
      CHECK(box.mode() == (asleep ? "spindown" : "normal"));
      CHECK(box.measures() == !asleep);
    }
  }
}

TEST_CASE("a service that is busy is sent no SIGUSR1 and gets SIGUSR2 as soon as it can serve it") {
  Box box;
  REQUIRE(::mkfifo(box.at("/syslog").c_str(), 0600) == 0);
  box.disk("sdb", "temperature=33\npower=active\n");  // another command, which is logged
  box.write("/clock", "180");
  REQUIRE(eventually([&] { return contains(box.read("/trace"), "TMAX = 33\n"); }));
  for (int run = 0; run < 3; ++run) (void)box.run_when("standby", "standby");
  CHECK(box.mode() == "normal");
  const Handle log(::open(box.at("/syslog").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  box.now = 180;
  box.pass(1);
  (void)box.run();
  CHECK(box.switched("spindown") == 1);
  CHECK_FALSE(box.measures());
}

TEST_CASE("a service that waits for its table is not put to rest") {
  Box box(kFanless);
  CHECK(box.service->wait_end(SIGKILL) == SIGKILL);
  box.remove(CONFIG + "/fan_cmd_tab.conf");
  box.start();
  for (int run = 0; run < 3; ++run) CHECK(box.run_when("standby", "standby") == "");
  (void)::usleep(100'000);  // more than a clock tick after the start
  box.config("", TABLE);    // which it has not read yet
  CHECK(box.run() == "");
  CHECK(box.mode() == "normal");
}

TEST_CASE("a service that restarts its fan is not put to rest") {
  Box box;
  box.write(FAN + "/fan1_alarm", "1\n");
  for (int run = 0; run < 3; ++run) CHECK(box.run_when("standby", "standby") == "");
  box.write(FAN + "/fan1_alarm", "0\n");
  CHECK(contains(box.run(), "SIGUSR1 goes to process "));
}

TEST_CASE("a disk that hangs does not keep the service at rest") {
  Box box;
  box.rest();
  const std::string asking = box.read(kMemory) + "asking=yes\n";
  box.write(kMemory, asking);  // as a run leaves it that never came back
  CHECK(contains(box.run(), "a disk has not answered: the service measures again"));
  CHECK(box.switched("normal") == 1);
  (void)box.run();
  CHECK(contains(box.run(), "SIGUSR1 goes"));

  // That run is there still, and holds the lock.
  box.write(kMemory, asking);
  const HeldLock lock(box, "/run/fan_controller/.standby.lock");
  CHECK(box.run() == "");
  fs::last_write_time(box.at(kMemory), fs::file_time_type::clock::now() - std::chrono::minutes(1));
  CHECK(contains(box.run(), "a disk has not answered: the service measures again"));
}

TEST_CASE("another process is never hit, and a service that was started anew is noticed") {
  Box box;
  const ServiceProcess first = look_at_service();
  REQUIRE(first.process == box.service->daemon);
  box.rest();
  CHECK(box.service->wait_end(SIGKILL) == SIGKILL);
  CHECK_FALSE(send_signal(first, SIGUSR1));
  CHECK(box.run_when("active", "active") == "");
  // Its number was given to a process to which the signal would be the end.
  const pid_t other = ::_Fork();
  if (other == 0) {
    ::pause();
    ::_exit(0);
  }
  box.write(PID_FILE, std::to_string(other) + "\n");
  std::string memory = box.read(kMemory);
  box.write(kMemory, "process=" + std::to_string(other) + memory.substr(memory.find("\nstarted")));
  CHECK(box.run() == "");
  CHECK(box.run({"--end"}) == "");
  CHECK_FALSE(send_signal({.process = other, .started = first.started}, SIGUSR1));
  CHECK(::waitpid(other, nullptr, WNOHANG) == 0);
  (void)::kill(other, SIGKILL);
  CHECK(::waitpid(other, nullptr, 0) == other);

  box.write(kMemory, memory);
  box.start();
  CHECK(box.run() == "");
  CHECK(box.switched("normal") == 0);
  box.rest();
  CHECK(box.switched("spindown") == 1);
}

TEST_CASE("the end, a dry run, and a memory that cannot be kept") {
  Box box;
  (void)box.run_when("standby", "standby");
  const std::string before = box.read(kMemory);
  CHECK(contains(box.run({"--dry-run"}), "the service rests, SIGUSR1 would go to process "));
  CHECK(box.read(kMemory) == before);
  CHECK(box.switched("spindown") == 0);

  box.rest();
  CHECK(contains(box.run({"--dry-run", "--end"}), "SIGUSR2 would go"));
  CHECK(box.switched("normal") == 0);
  CHECK(contains(box.run({"--end"}), "this is the end of standby: the service measures again"));
  CHECK(box.switched("normal") == 1);
  CHECK_FALSE(box.exists(kMemory));
  CHECK(box.run({"--end"}) == "");

  // A folder that everybody can write to is not written to.
  box.rest();
  box.allow("/run/fan_controller", 0777);
  box.disks("active", "active");
  CHECK(contains(box.run({}, 2), "SIGUSR2 goes"));
  CHECK(box.switched("normal") == 2);
  box.allow("/run/fan_controller", 0755);
  (void)box.run({"--end"});
  (void)box.run_when("standby", "standby");
  box.allow("/run/fan_controller", 0777);
  for (int run = 0; run < 3; ++run) CHECK(contains(box.run({}, 2), kMemory));
  CHECK(box.switched("spindown") == 2);
}
