// fanctl notify: every change reaches every hook once, whatever fails or ends in between.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <sstream>

#include "alert-flags.h"
#include "board.h"

namespace {

const std::string kHooks = CONFIG + "/hooks.d";
const std::string kState = "/var/lib/fan_controller";
const std::string kTold = kState + "/told";
const std::string kFan = FAN_FAILED_FLAG, kHigh = HIGH_TEMP_FLAG, kCritical = CRIT_TEMP_FLAG;

// With hooks a and b. Thirty seconds of patience with one take three.
struct NotifyBoard : Board {
  NotifyBoard() {
    ::setenv("APPLIANCE_SPEED", "10", 1);
    (void)::prctl(PR_GET_NAME, m_name);
    service(true);
    hook("a");
    hook("b");
  }
  ~NotifyBoard() { (void)::prctl(PR_SET_NAME, m_name); }

  // A hook that logs what it is told, after what else it does.
  void hook(const std::string& name, const std::string& first = "", int mode = 0755) const {
    remove(kHooks + "/" + name);
    write(kHooks + "/" + name, "#!/bin/sh\nroot='" + at("") + "'\n" + first + "\nprintf '%s ' '" +
                                   name + "':$FAN_EVENT >>$root/log\n");
    allow(kHooks + "/" + name, mode);
  }
  // The test program itself has the service's name and number, or no process has.
  void service(bool runs) const {
    (void)::prctl(PR_SET_NAME, runs ? "fan_controller" : m_name);
    runs ? write(PID_FILE, std::to_string(::getpid()) + "\n") : remove(PID_FILE);
  }
  void guard(int number, const std::string& rest) const {
    write(kState + "/guard_acted", "number=" + std::to_string(number) + "\n" + rest);
  }
  // What hooks have logged since it was asked last: "a:fan_failed b:fan_failed ".
  std::string told() const {
    std::string log = read("/log");
    remove("/log");
    return log;
  }
  // What hooks log in one run.
  std::string notify(int status = 0) const {
    const Fanctl run(*this, {"notify"});
    CAPTURE(run.output);
    CAPTURE(run.errors);
    CHECK(run.status == status);
    return told();
  }

 private:
  char m_name[16] = {};
};

std::string by(const Lines& hooks, const Lines& events) {
  std::string log;
  for (const auto& event : events) {
    for (const auto& hook : hooks) log.append(hook).append(":").append(event).append(" ");
  }
  return log;
}

}  // namespace

TEST_CASE("each change is told once, in the order of cause and effect") {
  const NotifyBoard board;
  const auto write = [&](const std::string& path) { return [&, path] { board.write(path, ""); }; };
  const auto remove = [&](const std::string& path) { return [&, path] { board.remove(path); }; };
  const auto timeline = [&](const std::string& text) { board.write("/timeline", text + "\n"); };
  const auto uptime = [&](const char* text) { board.write("/proc/uptime", text); };
  const struct {
    const char* name;
    std::function<void()> change;
    Lines events;
  } steps[] = {
      {"first run", [] {}, {}},
      {"fan", write(kFan), {"fan_failed"}},
      {"shutdown and boot", [&] { board.service(false), uptime("20.00 1.00\n"); }, {}},
      {"the service comes late", [&] { board.service(true), uptime("290.00 1.00\n"); }, {}},
      {"a planted link", [&] { fs::create_symlink(board.at(kFan), board.at(kHigh)); }, {}},
      {"a planted second name",
       [&] {
         board.remove(kHigh), board.write("/var/tmp/other", "");
         fs::create_hard_link(board.at("/var/tmp/other"), board.at(kHigh));
       },
       {}},
      {"one name is left", remove("/var/tmp/other"), {"temperature_high"}},
      {"high and critical", write(kCritical), {"temperature_critical"}},
      {"two at once",
       [&] { board.remove(kFan), board.remove(kCritical); },
       {"fan_working", "temperature_high"}},
      {"one flag in the place of another",
       [&] { board.remove(kHigh), timeline("1 write " + kCritical); },
       {"temperature_critical"}},
      {"emptied again", [&] { timeline(""), board.write(kCritical, ""); }, {}},
      {"restart of the service",
       [&] {
         board.remove(PID_FILE), uptime("300.00 1.00\n");
         timeline("9 write " + PID_FILE + " " + std::to_string(::getpid()));
       },
       {}},
      {"end of the service, and all else",
       [&] {
         timeline(""), board.service(false);
         board.remove(kCritical), board.write(kFan, ""), board.guard(3, "");
       },
       {"service_stopped", "fan_failed", "temperature_normal", "guard_acted"}},
      {"boot without the service", [&] { uptime("20.00 1.00\n"); }, {}},
      {"the service is back", [&] { board.service(true); }, {"service_started"}},
      {"the guard again", [&] { board.guard(4, ""); }, {"guard_acted"}},
      {"to and fro between two looks", [&] { board.remove(kFan), board.write(kFan, ""); }, {}},
  };
  for (const auto& step : steps) {
    CAPTURE(step.name);
    step.change();
    CHECK(board.notify() == by({"a", "b"}, step.events));
    const std::string state = board.read(kTold);
    CHECK(board.notify().empty());
    CHECK(board.read(kTold) == state);
  }
}

TEST_CASE("what is known before anything was told") {
  const NotifyBoard board;
  fs::remove_all(board.at(kHooks));
  board.service(false);
  board.write(kFan, "");
  board.guard(7, "stands=yes\n");
  CHECK(board.notify().empty());
  board.hook("a");
  CHECK(board.notify().empty());  // what happened without hooks is not told later
  board.remove(kTold);
  CHECK(board.notify() == "a:fan_failed a:guard_acted ");
  board.remove(kHooks + "/a");
  board.hook("b");
  board.write(kHigh, "");
  CHECK(board.notify() == "b:temperature_high ");
  board.hook("a");
  board.remove(kFan);
  CHECK(board.notify() == "a:fan_working b:fan_working ");
}

TEST_CASE("the real service's alert, and what a hook is given") {
  const NotifyBoard board;
  board.service(false);
  board.config("dump_info_to_file=" + STATUS + "\n", TABLE);
  board.write("/proc/partitions", "   8 0 9 sda\n   8 16 9 sdb\n");
  board.disk("sda", "temperature=31\n");
  board.disk("sdb", "temperature=57\n");
  board.hook("a",
             "tr '\\0' '\\n' </proc/$$/environ >$root/env\n"
             "grep -E '^(Cap(Bnd|Inh)|Sig(Blk|Ign)):' /proc/self/status >$root/rights\n"
             "(pwd; umask; readlink /proc/$$/fd/0; ls /proc/$$/fd) >$root/place");
  Service service(board, {"--oneshot", "--verbose", "-c", CONFIG});
  REQUIRE(service.wait_end() == 0);
  (void)board.journal({});

  char name[256] = {};
  REQUIRE(::gethostname(name, sizeof name - 1) == 0);
  const std::string host = name;
  const Handle handedDown(::fcntl(STDOUT_FILENO, F_DUPFD, 77));
  ::signal(SIGPIPE, SIG_IGN);
  CHECK(board.notify() == "a:temperature_high b:temperature_high ");
  ::signal(SIGPIPE, SIG_DFL);
  CHECK(board.read("/env") ==
        "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\nHOME=/root\n"
        "FAN_EVENT=temperature_high\nFAN_TEXT=" +
            host + " is too hot; the temperature is 57 C.\nFAN_TEMPERATURE=57\nFAN_HOST=" + host +
            "\n");
  CHECK(board.journal({"sg_io"}).empty());  // no disk was asked
  CHECK(board.read("/place").starts_with("/\n0022\n/dev/null\n0\n1\n"));
  CHECK_FALSE(contains(board.read("/place"), "77"));
  std::istringstream rights(board.read("/rights"));
  int count = 0;
  for (std::string label, mask; rights >> label >> mask; ++count) {
    CAPTURE(label);
    unsigned long long set = std::stoull(mask, nullptr, 16);
    if (label == "CapBnd:") set &= ::geteuid() == 0 ? ~0xcfULL : 0;  // chown to setuid, no kill
    CHECK(set == 0);
  }
  CHECK(count == 4);

  using File = fs::file_time_type::clock;
  const struct {
    std::function<void()> change;
    std::string says;
  } readings[] = {
      {[&] {
         fs::last_write_time(board.at(STATUS), File::now() - std::chrono::minutes(7));
         board.remove(kHigh);
       },
       "is not too hot any more.\nFAN_TEMPERATURE=\n"},
      {[&] {
         board.write("/var/tmp/status", "Temp HDD1 = 99degC");
         board.remove(STATUS);
         fs::create_symlink(board.at("/var/tmp/status"), board.at(STATUS));
         board.write(kFan, "");
       },
       " has failed.\nFAN_TEMPERATURE=\n"},
      {[&] { board.guard(1, "temperature=71\ntext=Off.\n"); }, ": Off.\nFAN_TEMPERATURE=71\n"},
      {[&] {
         board.config("temp_sensor_sysfs_entry=" + SENSOR + "\n", "");
         board.write(SENSOR, "43900\n");
         board.remove(kFan);
       },
       " works again; the temperature is 43 C.\nFAN_TEMPERATURE=43\n"},
  };
  for (const auto& each : readings) {
    each.change();
    CHECK_FALSE(board.notify().empty());
    CHECK(contains(board.read("/env"), each.says));
  }
}

TEST_CASE("a hook that fails gets what it has missed, and holds nobody up") {
  const NotifyBoard board;
  const std::string foreign = "others than root can write to ";
  const struct {
    std::string text, says;
    int mode = 0755;
  } cases[] = {
      {"#!/bin/sh\nexit 3", "it ended with status 3"},
      {"#!/bin/sh\nkill -SEGV $$", "it was ended by signal 11"},
      {"echo", "it cannot be executed: Exec format error"},
      {"#!/no/such/shell", "it cannot be executed: No such file"},
      {"#!/bin/sh\ntrap '' TERM; sleep 300; exit", "it did not end in 30 seconds"},
      {"", foreign + kHooks + "/b", 0775},
      {"", foreign + kHooks + "/b", 0757},
      {"link", foreign + "/var/tmp"},
  };
  board.allow("/var/tmp", 01777);
  REQUIRE(board.notify().empty());
  for (const auto& each : cases) {
    CAPTURE(each.says);
    if (!each.text.empty()) board.write(kHooks + "/b", each.text);
    board.allow(kHooks + "/b", each.mode);
    if (each.text == "link") {
      fs::rename(board.at(kHooks + "/b"), board.at("/var/tmp/b"));
      fs::create_symlink(board.at("/var/tmp/b"), board.at(kHooks + "/b"));
    }
    (void)board.journal({});
    board.write(kFan, "");
    board.write(kHigh, "");
    Program run(board, {FANCTL_BINARY, {"notify"}});
    CHECK(run.parentStatus == 1);
    if (run.daemon != 0) CHECK(run.wait_end() == SIGKILL);  // what the hook had started
    CHECK(contains(board.read("/out"), "fan_failed: not told by b: " + each.says));
    CHECK(board.told() == "a:fan_failed a:temperature_high ");
    const Lines logged = board.journal({"syslog"});
    REQUIRE(logged.size() == 1);
    CHECK(contains(logged[0], "4 fanctl notify: hook b failed with fan_failed: " + each.says));
    board.hook("b");
    board.remove(kFan);
    CHECK(board.notify() == "b:fan_failed b:temperature_high a:fan_working b:fan_working ");
    board.remove(kHigh);
    CHECK(board.notify() == "a:temperature_normal b:temperature_normal ");
  }
  board.allow(kHooks, 0777);
  board.write(kFan, "");
  CHECK(board.notify(1).empty());
  board.allow(kHooks, 0755);
  CHECK(board.notify() == "a:fan_failed b:fan_failed ");
}

TEST_CASE("a run that is killed, and a state that cannot be written: nothing is lost") {
  const NotifyBoard board;
  for (const char* const victim : {"a", "b"}) {
    CAPTURE(victim);
    board.hook("a");
    board.hook("b");
    board.hook(victim, "rm $root/kill 2>/dev/null && kill -KILL $PPID && exit");
    REQUIRE(board.notify().empty());
    board.write("/kill", "");
    board.write(kFan, "");
    board.write(kHigh, "");
    std::string all = board.notify(-1);
    CHECK(all == (*victim == 'a' ? "" : "a:fan_failed "));
    board.remove(kHigh);  // told all the same: it has been seen
    board.remove(kFan);
    all += board.notify();
    CHECK(all ==
          by({"a", "b"}, {"fan_failed", "temperature_high", "fan_working", "temperature_normal"}));
  }
  const std::string kept = board.read(kTold);
  board.write(kFan, "");
  const auto fails = [&](const std::string& file) {
    (void)board.journal({});
    const Fanctl run(board, {"notify"});
    const std::string says = "nothing can be told, because " + file + " cannot be written: ";
    CHECK(run.status == 2);
    CHECK(board.told().empty());
    CHECK(run.errors.starts_with("fanctl notify: " + says));
    CHECK(board.journal({"syslog"}).at(0).starts_with("syslog 3 fanctl notify: " + says));
  };
  board.allow(kState, 0777);
  fails(kState + "/.lock");
  board.allow(kState, 0755);
  board.remove(kTold);
  fs::create_directory(board.at(kTold));
  fails(kTold);
  board.remove(kTold);
  board.write(kTold, kept);
  CHECK(board.notify() == "a:fan_failed b:fan_failed ");
}

TEST_CASE("changes while hooks run, another run at the same time, and a hook that fails for ever") {
  const NotifyBoard board;
  board.hook("a", "[ $FAN_EVENT != fan_failed ] || : >$root" + kHigh);
  REQUIRE(board.notify().empty());
  board.write(kFan, "");
  {
    const Handle other(::open(board.at(kState + "/.lock").c_str(), O_RDWR | O_CLOEXEC));
    REQUIRE(::flock(other.number, LOCK_EX) == 0);
    CHECK(board.notify().empty());
  }
  CHECK(board.notify() == by({"a", "b"}, {"fan_failed", "temperature_high"}));

  board.hook("b", "exit 1");
  (void)board.journal({});
  Lines events;
  for (int change = 0; change < 34; ++change) {
    change % 2 == 0 ? board.write(kCritical, "") : board.remove(kCritical);
    events.push_back(change % 2 == 0 ? "temperature_critical" : "temperature_high");
    CHECK(board.notify(1) == "a:" + events.back() + " ");
  }
  const Lines logged = board.journal({"syslog"});
  // The failure once an hour, and two events that are too many.
  CHECK(logged.size() == 1 + 2);
  CHECK(contains(logged.at(0), "hook b failed with temperature_critical: "));
  CHECK(contains(logged.at(1), "forgotten: temperature_critical"));
  board.hook("b");
  // What could not be noted is not told, again and again, though nothing is new.
  board.allow(kState, 0777);
  CHECK(board.notify(2).empty());
  board.allow(kState, 0755);
  board.hook("c");  // a new one is told nothing of that
  CHECK(board.notify() == by({"b"}, Lines(events.begin() + 2, events.end())));
}

TEST_CASE("which files are hooks, and the test of them") {
  const NotifyBoard board;
  fs::remove_all(board.at(kHooks));
  const Fanctl none(board, {"notify", "--test", "fan_failed"});
  CHECK(none.status == 2);
  CHECK(contains(none.errors, "there is no hook in " + kHooks + ": copy one"));
  const Fanctl wrong(board, {"notify", "--test", "fan_broken"});
  CHECK(wrong.status == 64);
  CHECK(contains(wrong.errors, "There are: service_stopped service_started fan_failed"));

  fs::create_directories(board.at(kHooks + "/folder"));
  const char* const odd = "10 odd=%\n ";
  for (const char* const name : {".hidden", "old~", "c.dpkg-new", "a", "B", odd}) {
    board.hook(name);
  }
  board.hook("README", "", 0644);
  fs::create_symlink("/nowhere", board.at(kHooks + "/nowhere"));
  fs::create_symlink("a", board.at(kHooks + "/link"));
  for (const char* const event :
       {"fan_failed", "fan_working", "temperature_high", "temperature_critical",
        "temperature_normal", "service_stopped", "service_started", "guard_acted"}) {
    const std::string told = event + std::string(": told by ");
    const Fanctl test(board, {"notify", "--test", event});
    CHECK(test.status == 0);
    CHECK(test.output == told + "10 odd=%? \n" + told + "B\n" + told + "a\n" + told + "link\n");
  }
  CHECK_FALSE(board.exists(kTold));
  board.hook("B", "echo \"$FAN_TEXT\"; exit 1");
  const Fanctl failing(board, {"notify", "--test", "fan_failed"});
  CHECK(failing.status == 1);
  CHECK(contains(failing.output, "This is a test: The fan of "));
  board.hook("B");
  (void)board.notify();
  board.write(kFan, "");
  board.hook(odd, "exit 1");
  CHECK(board.notify(1) == by({"B", "a", "a"}, {"fan_failed"}));
  board.hook(odd);
  CHECK(board.notify() == by({odd}, {"fan_failed"}));
  CHECK(board.notify().empty());
}
