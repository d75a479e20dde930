// fanctl status: what it says in each state, in three forms and on a terminal.
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <utime.h>

#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "alert-flags.h"
#include "alerts.h"
#include "board.h"

namespace {

const std::string kSettings = "fan_driver_sysfs_dir=" + FAN +
                              "\ntemp_sensor_sysfs_entry=" + SENSOR +
                              "\ndump_info_to_file=" + STATUS + "\n";
const std::string kSelf = std::to_string(::getpid());

// This process counts as the service. All is well, and the sensor is far from the disks' readings.
struct StatusBoard : Board {
  explicit StatusBoard(const std::string& settings = kSettings) {
    fan(FAN, false);
    write(FAN + "/name", "adt7475\n");
    write(FAN + "/pwm1", "150\n");
    write(FAN + "/pwm1_enable", "1\n");
    write(FAN + "/fan1_input", "1205\n");
    write(SENSOR, "41250\n");
    config(settings, TABLE);
    write("/proc/partitions", " 8 0 9 sda\n 8 16 9 sdb\n 8 32 9 sdc\n");
    disk("sda", "temperature=38\nmodel=DISK\nserial=S1\n");
    disk("sdb", "temperature=50\npower=standby\n");
    write(STATUS, "text");
    const utimbuf times{0, std::time(nullptr) - 7200};
    REQUIRE(::utime(at(STATUS).c_str(), &times) == 0);
  }
  ~StatusBoard() { CHECK(entries({"woken"}).empty()); }

  AsService service{*this};
};

// Asked by another program: an emulator tells a process something else of itself.
std::string start_of_this_process() {
  const Board board;
  const std::string ask = "cut -d ' ' -f 22 /proc/" + kSelf + "/stat >" + board.at("/start");
  REQUIRE(std::system(ask.c_str()) == 0);
  return board.read("/start");
}

// How a row begins.
std::string row(std::string name, const std::string& text) {
  name.resize(13, ' ');
  return "\n" + name + text;
}

// The metrics without comments and the common beginning of their names.
std::string samples(const Fanctl& run) {
  return std::regex_replace(run.output, std::regex("#[^\n]*\n|fan_controller_"), "");
}

}  // namespace

TEST_CASE("all is well") {
  const StatusBoard board;
  const Fanctl run(board, {"status"});
  CHECK(run.status == 0);
  CHECK(run.errors.empty());
  CHECK(run.output.starts_with("All well: 41 C, command 150, fan 1205 rpm.\n"));
  const std::regex since(row("service", "runs as process ") + kSelf +
                         ", since 20\\d\\d-\\d\\d-\\d\\d \\d\\d:\\d\\d, \\d+ (second|minute)");
  CHECK(std::regex_search(run.output, since));
  CHECK(run.output.ends_with("\ntemperature  41 C, from the sensor " + SENSOR + R"(
command      150, as the table gives it
fan          1205 rpm
mode         open-loop, manual (1)
alerts       none
status file  /var/run/status, 2 hours old
disks        /dev/sda  38 C, DISK  S1
             /dev/sdb  sleeping, was not woken
             /dev/sdc  cannot be opened: are you root?
)"));
}

TEST_CASE("each state has its sentence, its row and its exit status") {
  const std::string both = kSettings + "use_hysteresis=yes\n", pwm = FAN + "/pwm1";
  const std::string standby = "/run/fan_controller/standby", guard = GUARD_RECORD;
  const std::string process = "process=" + kSelf + "\nstarted=";
  const std::string current = process + start_of_this_process();
  const std::string yesterday = std::to_string(std::time(nullptr) - 27 * 3600 - 59);
  const std::string settings = CONFIG + "/fan_controller.conf",
                    table = CONFIG + "/fan_cmd_tab.conf";
  const std::string hottest = "38 C, from /dev/sda, the hottest";
  const struct {
    int status;
    std::string place, says;  // "first" is the sentence
    std::string path, text;   // what is written; "-": removed, "@": made a link
    std::string settings = kSettings;
  } cases[] = {
      {2, "first", "The service does not run.", PID_FILE, "-"},
      {2, "first", "The service should run, but has ended.", PID_FILE, "999999999\n"},
      {1, "first", "The fan has failed, for ", FAN_FAILED_FLAG, ""},
      {1, "alert", "temperature high, since ", HIGH_TEMP_FLAG, ""},
      {1, "first", "The temperature is critical, for ", CRIT_TEMP_FLAG, ""},
      {0, "alerts", "none", FAN_FAILED_FLAG, "@"},
      {1, "first", "The guard has acted and its reason still holds, for 1 day 3 hours.\n", guard,
       "stands=yes\nsince=" + yesterday},
      {1, "", "/dev/sda has 66 C.", guard, "stands=yes\ntext=/dev/sda has 66 C."},
      {0, "alerts", "none", guard, "stands=no\nsince=" + yesterday},
      {0, "command", "255, differs from the table's 150", pwm, "255\n"},
      {0, "command", "cannot be read; the table gives 150", pwm, "n/a\n"},
      {0, "command", "150, as the table gives it (150 falling, 200 ris", pwm, "150\n", both},
      {0, "command", "151, differs from the table's 150 falling, 200", pwm, "151\n", both},
      {0, "mode", "close-loop, automatic (2)", FAN + "/pwm1_enable", "2\n"},
      {0, "fan", "none is controlled", pwm, "-", "period_in_sec=9\n"},
      {0, "fan", FAN + " is not taken for a fan driver", pwm, "-"},
      {0, "first", "The service runs and no alert stands, but its fan driver", pwm, "-"},
      {0, "temperature", hottest + " of 3 disks (1 asleep, not asked), as the", SENSOR, "-"},
      {0, "first", "The service runs and no alert stands, but no temper", "/dev/sda", "-", "a=b"},
      {0, "settings", settings + " cannot", settings, "-"},
      {0, "table", table + " cannot", table, "-"},
      {0, "status file", STATUS + " is not there", STATUS, "-"},
      {0, "status file", STATUS + " is no plain file", STATUS, "@"},
      {0, "first", "All well: the disks are left to sleep, and the service does not", standby,
       current + "mode=entering\n"},
      {0, "first", "All well: 41 C", standby, process + "1\nmode=spindown\n"},  // a former one
      {0, "first", "All well: 41 C", standby, current + "mode=normal\n"},
  };
  for (const auto& each : cases) {
    const StatusBoard board(each.settings);
    const bool isLink = each.text == "@";
    if (isLink || each.text == "-") fs::remove(board.at(each.path));
    if (isLink) fs::create_symlink("/etc/passwd", board.at(each.path));
    if (!isLink && each.text != "-") board.write(each.path, each.text);
    const Fanctl run(board, {"status"});
    CAPTURE(run.output);
    CAPTURE(each.says);
    CHECK((each.place == "first" ? run.output.starts_with(each.says)
                                 : contains(run.output, row(each.place, each.says))));
    CHECK(run.status == each.status);
    CHECK(run.errors.empty());
  }
}

TEST_CASE("a process that a signal holds is no running service") {
  const StatusBoard board;
  const pid_t held = ::_Fork();
  if (held == 0) {
    for (;;) (void)::raise(SIGSTOP);
  }
  (void)::waitpid(held, nullptr, WUNTRACED);
  board.write(PID_FILE, std::to_string(held) + "\n");
  const Fanctl run(board, {"status"});
  (void)::kill(held, SIGKILL);
  (void)::waitpid(held, nullptr, 0);
  CHECK(run.status == 2);
  CHECK(run.output.starts_with("The service is held by a signal: it does not care for the fan.\n"));
}

TEST_CASE("JSON") {
  const StatusBoard board(kSettings + "use_hysteresis=yes\n");
  board.write(HIGH_TEMP_FLAG, "");
  board.disk("sda", "temperature=38\nmodel=D\xff\n");
  const Fanctl run(board, {"status", "--json"});
  CHECK(run.status == 1);
  auto json = nlohmann::json::parse(run.output);
  CHECK(json["alerts"][0]["seconds"] < 600);
  CHECK(json["status_file"]["seconds"] >= 7200);
  const std::regex time("20\\d\\d-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ");
  for (auto* each : {&json["service"], &json["alerts"][0], &json["status_file"]}) {
    CHECK(std::regex_match((*each)["since"].get<std::string>(), time));
    each->erase("since");
    each->erase("seconds");
  }
  CHECK(json == nlohmann::json::parse(R"({
    "state": "alert",
    "service": {"state": "runs", "process": )" +
                                      kSelf + R"(, "spindown": false},
    "temperature": {"celsius": 41, "source": "the sensor"},
    "command": {"path": "/sys/fan/pwm1", "in_force": 150, "table_rising": 200,
                "table_falling": 150, "differs": false},
    "fan": {"driver": "I2C", "folder": "/sys/fan", "rpm": 1205, "loop": "open", "mode": 1,
            "mode_name": "manual"},
    "alerts": [{"kind": "temperature_high"}],
    "status_file": {"path": "/var/run/status"},
    "disks": [{"path": "/dev/sda", "state": "awake", "celsius": 38, "model": "D\ufffd"},
              {"path": "/dev/sdb", "state": "sleeping"}, {"path": "/dev/sdc", "state": "closed"}]
  })"));
}

TEST_CASE("metrics: labels are escaped, and what cannot be read is left out") {
  const StatusBoard board;
  const std::string alerts =
      "alert{kind=\"fan_failed\"} 0\nalert{kind=\"temperature_high\"} 0\n"
      "alert{kind=\"temperature_critical\"} 1\nalert{kind=\"guard_acted\"} 0\n";
  board.write(CRIT_TEMP_FLAG, "");
  board.disk("sda", "temperature=38\nmodel_hex=41225c0a01ff42\n");
  const Fanctl run(board, {"status", "--prometheus"});
  CHECK(run.status == 1);
  CAPTURE(run.output);
  const std::string found = samples(run);
  CHECK(found.substr(0, found.size() - 4) == R"(up 1
temperature_celsius 41
disk_temperature_celsius{device="/dev/sda",model="A\"\\\n?)"
                                             "\ufffd"
                                             R"(B"} 38
command 150
fan_speed_rpm 1205
)" + alerts + "status_age_seconds 7");  // 7200 and what has passed since
  for (const auto& name : {"up", "disk_temperature_celsius", "alert"}) {
    const std::string full = std::string("fan_controller_") + name;
    CHECK(std::regex_search(
        run.output, std::regex("# HELP " + full + " [^\n]+\n# TYPE " + full + " gauge\n" + full)));
  }
  if (std::system("command -v promtool >/dev/null") == 0) {
    CHECK(std::system(("promtool check metrics <" + board.at("/out")).c_str()) == 0);
  }

  for (const auto* attribute : {"/pwm1", "/fan1_input"}) board.write(FAN + attribute, "n/a\n");
  for (const auto& path : {SENSOR, STATUS, std::string("/dev/sda")}) board.remove(path);
  const Fanctl none(board, {"status", "--prometheus"});
  CHECK(samples(none) == "up 1\n" + alerts);
  CHECK(std::ranges::count(none.output, '#') == 4);
}

TEST_CASE("a linked chip: what stands in for a tachometer and for a mode is no value") {
  const StatusBoard board("fan_driver_sysfs_dir=/run/fan_controller/fan\n");
  board.chip({0, "emc2103", "i2c/0-002e", "fan1_target=150 pwm1_enable=0"});
  REQUIRE(Fanctl(board, {"link", "emc2103"}).status == 0);
  const Fanctl run(board, {"status"});
  CHECK(contains(run.output,
                 row("mode", "close-loop, target speed (3)\n")));  // the service's own number is 2
  CHECK(contains(run.output, row("fan", "its speed is not known\n")));
  CHECK_FALSE(contains(Fanctl(board, {"status", "--prometheus"}).output, "fan_speed_rpm"));
}

TEST_CASE("--output replaces a file, and nothing that is no plain file") {
  const StatusBoard board;
  const std::string file = "/run/fan.prom", link = "/run/link.prom";
  board.write(file, "old");
  board.allow(file, 0600);
  fs::create_hard_link(board.at(file), board.at("/run/other"));
  fs::create_symlink(board.at(file), board.at(link));
  CHECK(Fanctl(board, {"status", "--prometheus", "--output", link}).status == 2);
  CHECK(board.read(file) == "old");
  ::umask(077);
  const Fanctl run(board, {"status", "--prometheus", "--output", file});
  ::umask(022);
  CHECK(run.errors == "");
  CHECK(run.status == 0);
  CHECK(run.output.empty());
  CHECK(board.read(file).starts_with("# HELP fan_controller_up "));
  CHECK(board.read("/run/other") == "old");  // it was not written into
  CHECK((fs::status(board.at(file)).permissions() & fs::perms::mask) == fs::perms(0644));
  CHECK(Fanctl(board, {"status", "--prometheus", "--output", "/run/none/x"}).status == 2);
  CHECK(std::ranges::distance(fs::directory_iterator(board.at("/run"))) == 3);  // no half file
}

TEST_CASE("--watch shows it again, fitted, and leaves the terminal as it was") {
  const StatusBoard board;
  board.write(FAN_FAILED_FLAG, "");
  const Channel terminal(Channel::kTerminal);
  const int user = terminal.reader->number, screen = terminal.writer->number;
  const winsize size{.ws_row = 6, .ws_col = 30, .ws_xpixel = 0, .ws_ypixel = 0};
  REQUIRE(::ioctl(screen, TIOCSWINSZ, &size) == 0);
  termios before{};
  REQUIRE(::tcgetattr(screen, &before) == 0);
  before.c_lflag |= ICANON | ECHO | ISIG;
  before.c_cc[VINTR] = 3;
  for (const std::string end : {"xq", "\x03"}) {
    REQUIRE(::tcsetattr(screen, TCSANOW, &before) == 0);
    std::string seen;
    termios during{};
    std::thread person([&] {
      seen = received(user, [](const std::string& text) {  // two looks
        return text.find("\x1b[H") != text.rfind("\x1b[H") && text.ends_with("the se");
      });
      (void)::tcgetattr(screen, &during);
      CHECK(::write(user, end.data(), end.size()) == static_cast<ssize_t>(end.size()));
      seen += received(user, [](const std::string& text) { return contains(text, "\x1b[?1049l"); });
    });
    const int status =
        Program(board, {FANCTL_BINARY, {"status", "--watch", "1"}, screen, screen}).parentStatus;
    person.join();
    CHECK(status == 1);
    CHECK(seen.starts_with("\x1b[?1049h\x1b[?25l\x1b[H"));
    CHECK(seen.ends_with("\x1b[?25h\x1b[?1049l"));
    CHECK_FALSE(contains(seen, "\x1b[2J"));
    CHECK((during.c_lflag & (ICANON | ECHO)) == 0);
    termios after{};
    REQUIRE(::tcgetattr(screen, &after) == 0);
    CHECK(std::memcmp(&before, &after, sizeof before) == 0);
    const std::size_t begin = seen.find("\x1b[H");
    const std::string frame = seen.substr(begin, seen.find("\x1b[H", begin + 1) - begin);
    const std::string shown = std::regex_replace(frame, std::regex("\x1b\\[[0-9;]*[A-Za-z]"), "");
    CAPTURE(shown);
    CHECK(std::regex_match(shown, std::regex("fanctl status at ..:..:.., eve\r\n\r\n"
                                             "The fan has failed, for \\d .*\r\n\r\n"
                                             "service      runs as process \\d\r\n"
                                             "temperature  41 C, from the se")));
  }
}
