// The shipped binary on a simulated appliance, its waits on the simulated clock.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdlib>
#include <optional>
#include <sstream>
#include <tuple>

#include "fixtures.h"

namespace {

const std::string kUsage =
    "usage: \n\t/sbin/fan_controller [+--oneshot] [+--verbose] --config-dir=path_to_config_dir\n\n"
    "example: /sbin/fan_controller --config-dir=/etc/fan_controller\n\t\n";
const std::string kBrief =
    "\nTarvo HDDs Temperature Sensor & Fan Control\n"
    "A daemon that use SMART attribute #194 to get max of HDDs Celsius Temperature and control the "
    "system fan.\n\n"
    "For a complete "
    "spec, please refer to  the internal Tarvo products documentation (e.g. dorna_fan_spec.pdf) \n";

const std::string kDriver = "fan_driver_sysfs_dir=" + FAN + "\n";
const std::string kSensor = "temp_sensor_sysfs_entry=" + SENSOR + "\n";
const std::string kSettings = kDriver + kSensor;

// A product with an I2C fan, a sensor and two disks.
struct Product : TestAppliance {
  explicit Product(const std::string& timeline = "", const std::string& settings = kSettings,
                   const std::string& table = TABLE, bool gpio = false) {
    fan(FAN, gpio);
    write(SENSOR, "36000\n");
    write("/proc/partitions", "   8 0 9 sda\n   8 16 9 sdb\n   8 17 9 sdb1\n");
    disk("sda", "temperature=31\n");
    disk("sdb", "temperature=47\n");
    config(settings, table);
    write("/timeline", timeline);
  }
  // The fan command in force: the record without its padding.
  std::string command(const std::string& name = "pwm1") const {
    return read(FAN + "/" + name).c_str();
  }
  // Whether the service gets to so many waits.
  bool waits(std::size_t count) const {
    return eventually([&] { return entries({"select"}).size() >= count; });
  }
  // What a run of the service traces until it ends by itself.
  std::string run(const Lines& arguments = {"--verbose", "-c", CONFIG}) const {
    Service service(*this, arguments);
    CHECK(service.parentStatus == 0);
    REQUIRE(service.wait_end() == 0);
    return read("/out");
  }
};

std::function<bool(const std::string&)> gets(const std::string& part) {
  return [part](const std::string& text) { return contains(text, part); };
}

}  // namespace

TEST_CASE("command line and exit statuses") {
  const auto found = [](const std::string& directory) {
    return "main.cpp:main option config dir detected: " + directory + "\n";
  };
  const std::string good = "--config-dir=" + CONFIG, file = CONFIG + "/fan_cmd_tab.conf";
  const std::string once = "main.cpp:main option oneshot detected\n";
  const auto starts = [](const Lines& arguments, bool runs, const std::string& output,
                         const std::string& errors) {
    CAPTURE(output);
    CAPTURE(errors);
    const Product product;
    Service service(product, arguments);
    CHECK(service.parentStatus == (runs ? 0 : 1));
    REQUIRE((service.daemon != 0) == runs);
    if (runs) CHECK(service.wait_end() == 0);
    CHECK(product.read("/out") == output);
    const std::string written = product.read("/err");  // getopt's own messages among it
    CHECK(written.ends_with(errors));
    CHECK(written.empty() == errors.empty());
    CHECK((product.command() == "150") == runs);
    CHECK_FALSE(product.exists(PID_FILE));
  };
  starts({}, false, "", "");
  starts({"-o", "-h", "-c", CONFIG}, true, once + found(CONFIG), kBrief + kUsage);
  starts({"--help"}, false, "", kBrief + kUsage);
  starts({"--config-dir="}, false, found(""), "");
  starts({good, "-c", "/sys/none"}, false, found(CONFIG) + found("/sys/none"), "");
  starts({"-c", file}, false, found(file), "");
  starts({"-c", "/sys/none", good, "--oneshot"}, true, found("/sys/none") + found(CONFIG) + once,
         "");
  starts({good, "-o", "stray", "other"}, true, found(CONFIG) + once,
         kUsage + "non-option ARGV-elements: stray other \n");
  starts({"-x", "-o", "-c"}, false, once, kUsage);
}

TEST_CASE("start-up: missing files are asked for every 300 seconds and reported once") {
  const Product product("601 write /etc/fan_controller/fan_controller.conf " + kDriver +
                            "1501 write /etc/fan_controller/fan_cmd_tab.conf 30=77\n",
                        "", "");
  for (auto* flag : {CRIT_TEMP_FLAG, HIGH_TEMP_FLAG, FAN_FAILED_FLAG}) product.write(flag, "");
  const std::string text = product.run({"-o", "--verbose", "-c", CONFIG});
  std::size_t from = 0;
  for (const std::string part :
       {"endlessWatcher pid = ",
        "loadConfig Fail to open configfile /etc/fan_controller/fan_controller.conf\n",
        "send_config_to_corvane Send fan status MissingConfig to corvane\n",
        "endlessWatcher => config file loaded\n", "CurCmd CurCmd object created\n",
        "Send fan status FanNonRotating to corvane\n",
        "loadValuesTab => value tab file loaded \n"
        "fan-ctrl.cpp:endlessWatcher values tab: /etc/fan_controller/fan_cmd_tab.conf\n"
        "fan-ctrl.cpp:endlessWatcher 30 => 77\n"
        "fan-ctrl.cpp:endlessWatcher 2 : m_lastFanAlert -1\n"
        "fan-ctrl.cpp:endlessWatcher 2 : m_lastTempAlert -1\n"
        "fan-ctrl.cpp:endlessWatcher 4 : m_lastFanAlert 0\n"
        "fan-ctrl.cpp:endlessWatcher 4 : m_lastTempAlert 4\n"
        "fan-ctrl.cpp:updateMaxTempHDD hdd /dev/sda is present \n"}) {
    CAPTURE(part);
    from = text.find(part, from);
    REQUIRE(from != std::string::npos);
    if (part.starts_with("Send")) CHECK(text.rfind(part) == from);
  }
  CHECK_FALSE(contains(text, "Do some cleanup"));
}

TEST_CASE("signals and the pid file are traced") {
  const Product product(
      "150 signal USR1\n260 signal USR2\n460 signal HUP\n470 signal PIPE\n480 signal ALRM\n"
      "500 signal TERM\n",
      kSettings + "period_in_sec=100\npid_file=/var/run/other.pid\n");
  const std::string text = product.run();
  CHECK(contains(text, "endlessWatcher Switch to spindown mode 100\n"));
  CHECK(contains(text, "endlessWatcher Switch to normal mode\n"));
  for (const std::string name : {"SIGHUP", "SIGPIPE", "SIGALARM", "SIGTERM"}) {
    CHECK(contains(text, "main.cpp:signal_handler " + name + " detected\n"));
  }
  CHECK_FALSE(contains(text, "SIGUSR"));
  CHECK_FALSE(contains(text, "corrupted"));  // a time-out is no failure, nor is a signal
  const std::string pid = std::to_string(std::stoi(product.read(PID_FILE)));
  CHECK(contains(text, "pid = " + pid + " stored in /var/run/fan_controller.pid\n"));
  CHECK(product.read(PID_FILE) == pid + "\n");
}

TEST_CASE("what ends a wait is traced") {
  const std::tuple<std::string, std::string, std::string, std::string> ends[] = {
      {kSensor, TABLE, "3 signal TERM\n",
       "SIGTERM detected\nfan-ctrl.cpp:endlessWatcher Exit now !!\n(end)"},
      {kSensor + "period_in_sec=3\n", TABLE, "3 signal TERM\n", "SIGTERM detected\n(end)"},
      {kSettings + "period_in_sec=2\n", TABLE, "0 remove /sys/fan/fan1_alarm\n5 signal TERM\n",
       "endlessWatcher get down the fan to the minimum speed before exit\n(end)"},
      {"", TABLE, "3 signal TERM\n", "SIGTERM detected\n(end)"},
      {kSettings, "", "3 signal TERM\n", "SIGTERM detected\n(end)"},
  };
  for (const auto& [settings, table, timeline, trace] : ends) {
    CAPTURE(trace);
    const Product product(timeline, settings, table);
    CHECK((product.run() + "(end)").ends_with(trace));
  }
}

TEST_CASE("a signal while the service starts") {
  for (const std::string name : {"TERM", "HUP"}) {
    const Product product(name == "HUP" ? "9 signal TERM\n" : "");
    product.write("/fork", name);
    const std::string text = product.run();
    CHECK(contains(text, "signal_handler SIG" + name + " detected\n"));
    CHECK(product.journal({"select"}).empty() == (name == "TERM"));
    CHECK_FALSE(product.exists(PID_FILE));
  }
}

TEST_CASE("the service outlives the process that started it and led the terminal's session") {
  for (int start = 0; start < 20; ++start) {
    const Product product("3 signal TERM\n");
    const Channel terminal(Channel::kTerminal);
    Service service(product, {"-c", CONFIG}, -1, terminal.writer->number);
    CHECK(service.parentStatus == 0);
    REQUIRE(service.wait_end() == 0);
  }
}

TEST_CASE("a reader who reads at once gets every line, whatever signals arrive") {
  std::string table, lines;
  for (int step = 1; step <= 3000; ++step) {
    const std::string number = std::to_string(step);
    table += number + "=" + number + "\n";
    lines += "fan-ctrl.cpp:endlessWatcher " + number + " => " + number + "\n";
  }
  for (const auto kind : {Channel::kPipe, Channel::kSocket, Channel::kTerminal}) {
    CAPTURE(kind);
    const Product product("", kSettings, table);
    Channel channel(kind);
    Service service(product, {"-o", "--verbose", "-c", CONFIG}, channel.writer->number);
    channel.writer.reset();
    const std::string text = received(channel.reader->number, [&](const std::string&) {
      ::kill(service.daemon, SIGSYS);
      return false;
    });
    CHECK(service.wait_end() == 0);
    CHECK(contains(text, lines));
  }
}

TEST_CASE("what was handed down as standard output stays as it was") {
  for (const auto kind : {Channel::kPipe, Channel::kSocket, Channel::kTerminal}) {
    CAPTURE(kind);
    const Product product("20 signal TERM\n");
    ::setenv("APPLIANCE_SPEED", "1", 1);
    Channel channel(kind);
    const int flags = ::fcntl(channel.writer->number, F_GETFL);
    Service service(product, {"--verbose", "-c", CONFIG}, channel.writer->number);
    REQUIRE(product.waits(1));
    CHECK(::fcntl(channel.writer->number, F_GETFL) == flags);
    timeval patience{};
    socklen_t size = sizeof patience;
    ::getsockopt(channel.writer->number, SOL_SOCKET, SO_SNDTIMEO, &patience, &size);
    CHECK(patience.tv_sec + patience.tv_usec == 0);
    channel.writer.reset();
    ::kill(service.daemon, SIGPIPE);
    const std::string signal = "main.cpp:signal_handler SIGPIPE detected\n";
    CHECK(contains(received(channel.reader->number, gets(signal)), signal));
    CHECK(service.wait_end(SIGTERM) == 0);
    CHECK_FALSE(product.exists(PID_FILE));
  }
}

TEST_CASE("a fifo's reader may come late, and go away at any time") {
  const std::string cycle = "4 : m_lastFanAlert 1\n", signal = "SIGPIPE detected\n";
  // What was written before he came is there only if the fifo was open for reading all the time.
  for (const int access : {O_RDWR, O_WRONLY}) {
    CAPTURE(access);
    const Product product("", kSettings + "period_in_sec=1\n");
    const std::string out = product.at("/fifo");
    REQUIRE(::mkfifo(out.c_str(), 0600) == 0);
    std::optional<Handle> reader(::open(out.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    std::optional<Handle> writer(::open(out.c_str(), access | O_CLOEXEC));
    reader.reset();
    Service service(product, {"--verbose", "-c", CONFIG}, writer->number);
    writer.reset();
    REQUIRE(product.waits(9));
    reader.emplace(::open(out.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const std::string text = received(reader->number, gets(cycle));
    CHECK(contains(text, cycle));
    CHECK(contains(text, "endlessWatcher pid = ") == (access == O_RDWR));
    CHECK_FALSE(contains(text, signal));
    ::kill(service.daemon, SIGPIPE);
    CHECK(contains(received(reader->number, gets(signal)), signal));
    reader.reset();
    CHECK(service.wait_end(SIGTERM) == 0);
  }
}

TEST_CASE("a reader who stops reading costs a second once, and whole lines") {
  for (const auto kind : {Channel::kPipe, Channel::kTerminal}) {
    CAPTURE(kind);
    const Product product("", kSettings + "period_in_sec=1\n");
    Channel channel(kind);
    Service service(product, {"--verbose", "-c", CONFIG}, channel.writer->number);
    channel.writer.reset();
    REQUIRE(product.waits(600));  // three times what a pipe or a terminal holds
    const auto isMore = [](const std::string& text) { return text.size() > 200'000; };
    const std::string text = received(channel.reader->number, isMore);
    channel.reader.reset();
    CHECK(service.wait_end(SIGTERM) == 0);
    CHECK(isMore(text));
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line) && !lines.eof();) {
      const std::size_t name = line.find(".cpp:");
      const bool whole = name <= 9 && name == line.rfind(".cpp:");
      if (!whole) CHECK(line == "");
    }
  }
}

TEST_CASE("a pipe among the files of the hardware is no value, and holds nothing up") {
  for (const std::string& pipe : {FAN + "/extra", std::string("/sys/alarm"), SENSOR}) {
    for (const bool held : {false, true}) {
      CAPTURE(pipe);
      const Product product("3 signal TERM\n", kSettings + "fan_driver_sysfs_alarm=/sys/alarm\n");
      product.write(FAN + "/fan1_alarm", "");  // an alarm that is a pipe is kept then
      product.write("/sys/alarm", "0\n");
      product.remove(pipe);
      REQUIRE(::mkfifo(product.at(pipe).c_str(), 0600) == 0);
      if (pipe == SENSOR) {  // then the disks are measured, and one of them is a pipe as well
        product.remove("/dev/sda");
        REQUIRE(::mkfifo(product.at("/dev/sda").c_str(), 0600) == 0);
      }
      const Handle writer(held ? ::open(product.at(pipe).c_str(), O_RDWR | O_CLOEXEC) : -1);
      const std::string text = product.run();
      CHECK(contains(text, "Match a fan driver I2C interface\n"));
      CHECK(product.command() == (pipe == SENSOR ? "200" : "150"));
    }
  }
}

TEST_CASE("SIGINT ends a real wait and the service at once") {
  const Product product("20 signal TERM\n");
  ::setenv("APPLIANCE_SPEED", "1", 1);
  Service service(product);
  REQUIRE(product.waits(1));
  CHECK(service.wait_end(SIGINT) == SIGINT);
  CHECK(product.exists(PID_FILE));
}

TEST_CASE("a select that fails is traced, and the service goes on") {
  const Product product("200 signal TERM\n");
  product.write("/select", "-1");
  CHECK(contains(product.run(), " corrupted after select() returned\n"));
  CHECK(product.journal({"select"}) == Lines(3, "select 180 nfds=1"));
}

TEST_CASE("no trace gets into a file when the caller has closed standard output") {
  const char* const emulator = std::getenv("APPLIANCE_EMULATOR");
  if (emulator != nullptr && *emulator != '\0') return;  // which does not run this machine's shell
  const Product product;
  ::setenv("APPLIANCE_SPEED", "1", 1);
  Program service(product, {"/bin/sh",
                            {"-c", "exec \"$0\" \"$@\" >&-", FAN_CONTROLLER_BINARY, "--verbose",
                             "-c", CONFIG}});
  REQUIRE(product.waits(1));
  CHECK(product.read(PID_FILE) == std::to_string(service.daemon) + "\n");
  CHECK(service.wait_end(SIGTERM) == 0);
}
