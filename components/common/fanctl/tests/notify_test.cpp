// fanctl notify: every change reaches every hook once, whatever fails or ends in between.
#include <fcntl.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <optional>

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
    service(true);
    hook("a");
    hook("b");
  }
  // A hook that logs what it is told, after what else it does.
  void hook(const std::string& name, const std::string& first = "", int mode = 0755) const {
    remove(kHooks + "/" + name);
    write(kHooks + "/" + name, "#!/bin/sh\nroot='" + at("") + "'\n" + first + "\nprintf '%s ' '" +
                                   name + "':$FAN_EVENT >>$root/log\n");
    allow(kHooks + "/" + name, mode);
  }
  void service(bool runs) {
    m_service.reset();
    runs ? (void)m_service.emplace(*this) : remove(PID_FILE);
  }
  void guard(int number, const std::string& rest) const {
    write(kState + "/guard_acted", "number=" + std::to_string(number) + "\n" + rest);
  }
  // What hooks log in one run, "a:fan_failed b:fan_failed ". What a hook has started ends with it.
  std::string notify(int status = 0, const Lines& more = {}) const {
    remove("/log");
    (void)journal({});
    Program run(*this, {FANCTL_BINARY, Lines{"notify"} + more});
    CAPTURE(read("/out") + read("/err"));
    CHECK(run.parentStatus == status);
    if (status == 1 && run.daemon != 0) CHECK(run.wait_end() == SIGKILL);
    return read("/log");
  }

  std::optional<AsService> m_service;
};

std::string by(const Lines& hooks, const Lines& events) {
  std::string log;
  for (const auto& event : events)
    for (const auto& hook : hooks) log.append(hook).append(":").append(event).append(" ");
  return log;
}

}  // namespace

TEST_CASE("each change is told once, in the order of cause and effect") {
  NotifyBoard board;
  const auto put = [&](const std::string& path) { board.write(path, ""); };
  const auto drop = [&](const std::string& path) { board.remove(path); };
  const auto timeline = [&](const std::string& text) { board.write("/timeline", text + "\n"); };
  const auto uptime = [&](const char* text) { board.write("/proc/uptime", text); };
  const std::string other = "/var/tmp/other", self = std::to_string(::getpid());
  const struct {
    const char* name;
    std::function<void()> change;
    Lines events;
  } steps[] = {
      {"first run", [] {}, {}},
      {"fan", [&] { put(kFan); }, {"fan_failed"}},
      {"shutdown and boot", [&] { board.service(false), uptime("20.00 1.00\n"); }, {}},
      {"the service comes late", [&] { board.service(true), uptime("290.00 1.00\n"); }, {}},
      {"a planted link", [&] { fs::create_symlink(board.at(kFan), board.at(kHigh)); }, {}},
      {"link removed", [&] { drop(kHigh), put(other); }, {}},
      {"a second name", [&] { fs::create_hard_link(board.at(other), board.at(kHigh)); }, {}},
      {"one name is left", [&] { drop(other); }, {"temperature_high"}},
      {"high and critical", [&] { put(kCritical); }, {"temperature_critical"}},
      {"two", [&] { drop(kFan), drop(kCritical); }, {"fan_working", "temperature_high"}},
      {"replaced",
       [&] { drop(kHigh), timeline("1 write " + kCritical); },
       {"temperature_critical"}},
      {"emptied again", [&] { timeline(""), put(kCritical), uptime("300.00 1.00\n"); }, {}},
      {"restart", [&] { drop(PID_FILE), timeline("9 write " + PID_FILE + " " + self); }, {}},
      {"end of the service, and all else",
       [&] { timeline(""), board.service(false), drop(kCritical), put(kFan), board.guard(3, ""); },
       {"service_stopped", "fan_failed", "temperature_normal", "guard_acted"}},
      {"boot without the service", [&] { uptime("20.00 1.00\n"); }, {}},
      {"the service is back", [&] { board.service(true); }, {"service_started"}},
      {"the guard again", [&] { board.guard(4, ""); }, {"guard_acted"}},
      {"to and fro between two looks", [&] { drop(kFan), put(kFan); }, {}},
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
  NotifyBoard board;
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

TEST_CASE("numbers that notify has not written count as 0") {
  for (const std::string number : {"2147483647", "-2147483648", "-9223372036854775808"}) {
    CAPTURE(number);
    NotifyBoard board;
    board.write(kTold, "service=running\nfan=working\nserial=" + number + "\nhook.a=" + number +
                           "\nfailure.a=" + number + " it ended with status 1\n");
    board.write(kFan, "");
    board.hook("b", "exit 1");
    CHECK(board.notify(1) == "a:fan_failed ");
    CHECK(board.notify(1).empty());
  }
}

TEST_CASE("the real service's alert, and what a hook is given") {
  NotifyBoard board;
  board.service(false);
  board.config("dump_info_to_file=" + STATUS + "\n", TABLE);
  board.write("/proc/partitions", "   8 0 9 sda\n   8 16 9 sdb\n");
  board.disk("sda", "temperature=31\n");
  board.disk("sdb", "temperature=57\n");
  board.hook("a",
             "tr '\\0' '\\n' </proc/$$/environ | sed \"s/=$(uname -n)/=HOST/\" >$root/env\n"
             "echo $((0x$(sed -n 's/^CapBnd:.//p' /proc/self/status) & ~0xcf)) >$root/rights\n"
             "(pwd; umask; grep -cE '^(CapInh|SigBlk|SigIgn):.0+$' /proc/self/status; readlink "
             "/proc/$$/fd/0; ls /proc/$$/fd) >$root/place");
  Service service(board, {"--oneshot", "--verbose", "-c", CONFIG});
  REQUIRE(service.wait_end() == 0);

  const Handle handedDown(::fcntl(STDOUT_FILENO, F_DUPFD, 77));
  ::signal(SIGPIPE, SIG_IGN);
  CHECK(board.notify() == "a:temperature_high b:temperature_high ");
  ::signal(SIGPIPE, SIG_DFL);
  CHECK(board.read("/env") ==
        "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin\nHOME=/root\n"
        "FAN_EVENT=temperature_high\nFAN_TEXT=HOST is too hot; the temperature is 57 C.\n"
        "FAN_TEMPERATURE=57\nFAN_HOST=HOST\n");
  CHECK(board.journal({"sg_io"}).empty());  // no disk was asked
  CHECK(board.read("/place").starts_with("/\n0022\n3\n/dev/null\n0\n1\n"));
  CHECK_FALSE(contains(board.read("/place"), "77"));
  // Of the rights that can be had, chown to setuid are left (no kill).
  if (::geteuid() == 0) CHECK(board.read("/rights") == "0\n");

  const std::string file = board.at(STATUS), moved = board.at("/moved");
  const std::string sensor = "temp_sensor_sysfs_entry=" + SENSOR + "\n";
  const auto aged = fs::file_time_type::clock::now() - std::chrono::minutes(7);
  const struct {
    std::function<void()> change;
    std::string says;
  } readings[] = {
      {[&] { fs::rename(file, moved), fs::create_symlink(moved, file), board.write(kFan, ""); },
       " has failed.\nFAN_TEMPERATURE=\n"},
      {[&] { fs::rename(moved, file), fs::last_write_time(file, aged), board.remove(kHigh); },
       "is not too hot any more.\nFAN_TEMPERATURE=\n"},
      {[&] { board.guard(1, "temperature=71\ntext=Off\n"); }, ": Off.\nFAN_TEMPERATURE=71\n"},
      {[&] { board.config(sensor, ""), board.write(SENSOR, "43900\n"), board.remove(kFan); },
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
    for (const auto& flag : {kFan, kHigh}) board.write(flag, "");
    CHECK(board.notify(1) == "a:fan_failed a:temperature_high ");
    CHECK(contains(board.read("/out"), "fan_failed: not told by b: " + each.says));
    const Lines logged = board.journal({"syslog"});
    REQUIRE(logged.size() == 1);
    CHECK(contains(logged[0], "4 fanctl notify: hook b failed with fan_failed: " + each.says));
    board.hook("b");
    for (const auto& flag : {kFan, kHigh}) board.remove(flag);
    CHECK(board.notify() == "b:fan_failed b:temperature_high " +
                                by({"a", "b"}, {"fan_working", "temperature_normal"}));
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
    board.hook("a");
    board.hook(victim, "rm $root/kill 2>/dev/null && kill -KILL $PPID && exit");
    REQUIRE(board.notify().empty());
    board.write("/kill", "");
    for (const auto& flag : {kFan, kHigh}) board.write(flag, "");
    std::string all = board.notify(-1);
    CHECK(all == (*victim == 'a' ? "" : "a:fan_failed "));
    for (const auto& flag : {kFan, kHigh}) board.remove(flag);  // told all the same: they were seen
    all += board.notify();
    CHECK(all ==
          by({"a", "b"}, {"fan_failed", "temperature_high", "fan_working", "temperature_normal"}));
  }
  const std::string file = board.at(kTold), kept = board.at("/told");
  board.write(kFan, "");
  const auto fails = [&](const std::string& path) {
    const std::string says = "nothing can be told, because " + path + " cannot be written: ";
    CHECK(board.notify(2).empty());
    CHECK(board.read("/err").starts_with("fanctl notify: " + says));
    CHECK(board.journal({"syslog"}).at(0).starts_with("syslog 3 fanctl notify: " + says));
  };
  board.allow(kState, 0777);
  fails(kState + "/.lock");
  board.allow(kState, 0755);
  fs::rename(file, kept);
  fs::create_directory(file);
  fails(kTold);
  board.remove(kTold);
  fs::rename(kept, file);
  CHECK(board.notify() == "a:fan_failed b:fan_failed ");
}

TEST_CASE("changes while hooks run, another run at the same time, and a hook that fails for ever") {
  const NotifyBoard board;
  board.hook("a", "[ $FAN_EVENT != fan_failed ] || : >$root" + kHigh);
  REQUIRE(board.notify().empty());
  board.write(kFan, "");
  {
    const HeldLock other(board, kState + "/.lock");
    CHECK(board.notify().empty());
  }
  CHECK(board.notify() == by({"a", "b"}, {"fan_failed", "temperature_high"}));

  board.hook("b", "exit 1");
  Lines events, logged;
  for (int change = 0; change < 34; ++change) {
    change % 2 == 0 ? board.write(kCritical, "") : board.remove(kCritical);
    events.push_back(change % 2 == 0 ? "temperature_critical" : "temperature_high");
    CHECK(board.notify(1) == "a:" + events.back() + " ");
    logged = logged + board.journal({"syslog"});
  }
  REQUIRE(logged.size() == 1 + 2);  // the failure once an hour, and two events that are too many
  CHECK(contains(logged[0], "hook b failed with temperature_critical: "));
  CHECK(contains(logged[1], "forgotten: temperature_critical"));
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
  CHECK(board.notify(2, {"--test", "fan_failed"}).empty());
  CHECK(contains(board.read("/err"), "there is no hook in " + kHooks + ": copy one"));
  CHECK(board.notify(64, {"--test", "fan_broken"}).empty());
  CHECK(contains(board.read("/err"), "There are: service_stopped service_started fan_failed"));

  fs::create_directories(board.at(kHooks + "/folder"));
  const char* const odd = "10 odd=%\n ";
  for (const char* const name : {".hidden", "old~", "c.dpkg-new", "a", "B", odd}) board.hook(name);
  board.hook("README", "", 0644);
  fs::create_symlink("/nowhere", board.at(kHooks + "/nowhere"));
  fs::create_symlink("a", board.at(kHooks + "/link"));
  CHECK(board.notify(0, {"--test", "guard_acted"}) == by({odd, "B", "a", "a"}, {"guard_acted"}));
  const std::string told = "guard_acted: told by ";
  CHECK(board.read("/out") ==
        told + "10 odd=%? \n" + told + "B\n" + told + "a\n" + told + "link\n");
  CHECK_FALSE(board.exists(kTold));
  board.hook("B", "echo \"$FAN_TEXT\"; exit 1");
  CHECK(board.notify(1, {"--test", "fan_failed"}) == by({odd, "a", "a"}, {"fan_failed"}));
  CHECK(contains(board.read("/out"), "This is a test: The fan of "));
  board.hook("B");
  (void)board.notify();
  board.write(kFan, "");
  board.hook(odd, "exit 1");
  CHECK(board.notify(1) == by({"B", "a", "a"}, {"fan_failed"}));
  board.hook(odd);
  CHECK(board.notify() == by({odd}, {"fan_failed"}));
  CHECK(board.notify().empty());
}
