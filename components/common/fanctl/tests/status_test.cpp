// fanctl status: what it says in each state, in three forms and on a terminal.
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <utime.h>

#include <cstdio>
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
    write(PID_FILE, std::to_string(::getpid()) + "\n");
    ::prctl(PR_GET_NAME, m_name);
    ::prctl(PR_SET_NAME, "fan_controller");
  }
  ~StatusBoard() {
    ::prctl(PR_SET_NAME, m_name);
    CHECK(entries({"woken"}).empty());
  }

 private:
  char m_name[16] = {};
};

// Asked by another program: an emulator tells a process something else of itself.
std::string start_of_this_process() {
  const std::string command = "cut -d ' ' -f 22 /proc/" + std::to_string(::getpid()) + "/stat";
  std::FILE* const answer = ::popen(command.c_str(), "r");
  REQUIRE(answer != nullptr);
  char field[32] = "";
  CHECK(std::fgets(field, sizeof field, answer) != nullptr);
  (void)::pclose(answer);
  return std::string(field, std::strcspn(field, "\n"));
}

// The first line, and the text of the row.
std::string first_line(const Fanctl& run) { return run.output.substr(0, run.output.find('\n')); }
std::string row(const Fanctl& run, std::string name) {
  name = "\n" + name + std::string(13 - name.size(), ' ');
  const std::size_t begin = run.output.find(name);
  if (begin == std::string::npos) return "no row";
  const std::size_t text = begin + name.size();
  return run.output.substr(text, run.output.find('\n', text) - text);
}

// The metric's samples, each without the common beginning of its name.
Lines samples(const std::string& text) {
  Lines found;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);)
    if (!line.starts_with('#')) found.push_back(line.substr(std::strlen("fan_controller_")));
  return found;
}

}  // namespace

TEST_CASE("all is well") {
  const StatusBoard board;
  const Fanctl run(board, {"status"});
  CHECK(run.status == 0);
  CHECK(run.errors.empty());
  CHECK(first_line(run) == "All well: 41 C, command 150, fan 1205 rpm.");
  const std::regex since("runs as process " + std::to_string(::getpid()) +
                         ", since 20\\d\\d-\\d\\d-\\d\\d \\d\\d:\\d\\d, \\d+ (second|minute)s?.*");
  CHECK(std::regex_match(row(run, "service"), since));
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
  const std::string hysteresis = kSettings + "use_hysteresis=yes\n", pwm = FAN + "/pwm1";
  const std::string standby = "/run/fan_controller/standby", guard = GUARD_RECORD;
  const std::string process = "process=" + std::to_string(::getpid()) + "\nstarted=";
  const std::string yesterday = std::to_string(std::time(nullptr) - 27 * 3600 - 59);
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
      {1, "first", "The guard has acted and its reason still holds, for 1 day 3 hours.", guard,
       "stands=yes\nsince=" + yesterday},
      {1, "", "/dev/sda has 66 C.", guard, "stands=yes\ntext=/dev/sda has 66 C."},
      {0, "alerts", "none", guard, "stands=no\nsince=" + yesterday},
      {0, "command", "255, differs from the table's 150", pwm, "255\n"},
      {0, "command", "cannot be read; the table gives 150", pwm, "n/a\n"},
      {0, "command", "150, as the table gives it (150 falling, 200 rising)", pwm, "150\n",
       hysteresis},
      {0, "command", "151, differs from the table's 150 falling, 200", pwm, "151\n", hysteresis},
      {0, "mode", "close-loop, automatic (2)", FAN + "/pwm1_enable", "2\n"},
      {0, "fan", "none is controlled", pwm, "-", "period_in_sec=9\n"},
      {0, "fan", FAN + " is not taken for a fan driver", pwm, "-"},
      {0, "temperature",
       "38 C, from /dev/sda, the hottest of 3 disks (1 asleep, not asked), as the", SENSOR, "-"},
      {0, "first", "The service runs and no alert stands, but no temperature", "/dev/sda", "-",
       "a=b"},
      {0, "settings", CONFIG + "/fan_controller.conf cannot", CONFIG + "/fan_controller.conf", "-"},
      {0, "table", CONFIG + "/fan_cmd_tab.conf cannot", CONFIG + "/fan_cmd_tab.conf", "-"},
      {0, "status file", STATUS + " is not there", STATUS, "-"},
      {0, "status file", STATUS + " is no plain file", STATUS, "@"},
      {0, "first", "All well: the disks are left to sleep, and the service does not", standby,
       process + start_of_this_process() + "\nmode=entering\n"},
      {0, "first", "All well: 41 C", standby, process + "1\nmode=spindown\n"},  // a former one
      {0, "first", "All well: 41 C", standby,
       process + start_of_this_process() + "\nmode=normal\n"},
  };
  for (const auto& [status, place, says, path, text, settings] : cases) {
    const StatusBoard board(settings);
    if (text == "-" || text == "@") fs::remove(board.at(path));
    if (text == "@") fs::create_symlink("/etc/passwd", board.at(path));
    if (text != "-" && text != "@") board.write(path, text);
    const Fanctl run(board, {"status"});
    CAPTURE(run.output);
    CAPTURE(says);
    CHECK((place == "first" ? first_line(run) : row(run, place)).starts_with(says));
    CHECK(run.status == status);
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
  CHECK(first_line(run) == "The service is held by a signal: it does not care for the fan.");
}

TEST_CASE("JSON") {
  const StatusBoard board(kSettings + "use_hysteresis=yes\n");
  board.write(HIGH_TEMP_FLAG, "");
  board.disk("sda", "temperature=38\nmodel=D\xff\n");
  const Fanctl run(board, {"status", "--json"});
  CHECK(run.status == 1);
  auto json = nlohmann::json::parse(run.output);
  CHECK(std::regex_match(json["service"]["since"].get<std::string>(),
                         std::regex("20\\d\\d-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\dZ")));
  CHECK(json["alerts"][0]["seconds"] < 600);
  CHECK(json["status_file"]["seconds"] >= 7200);
  for (auto* each : {&json["service"], &json["alerts"][0], &json["status_file"]}) {
    each->erase("since");
    each->erase("seconds");
  }
  CHECK(json == nlohmann::json::parse(R"({
    "state": "alert",
    "service": {"state": "runs", "process": )" +
                                      std::to_string(::getpid()) + R"(, "spindown": false},
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
  board.write(CRIT_TEMP_FLAG, "");
  board.disk("sda", "temperature=38\nmodel_hex=41225c0a01ff42\n");
  const Fanctl run(board, {"status", "--prometheus"});
  CHECK(run.status == 1);
  CAPTURE(run.output);
  Lines found = samples(run.output);
  REQUIRE(found.size() == 10);
  CHECK(found.back().starts_with("status_age_seconds 720"));
  found.pop_back();
  CHECK(found ==
        Lines{"up 1", "temperature_celsius 41",
              "disk_temperature_celsius{device=\"/dev/sda\",model=\"A\\\"\\\\\\n?\ufffdB\"} 38",
              "command 150", "fan_speed_rpm 1205", "alert{kind=\"fan_failed\"} 0",
              "alert{kind=\"temperature_high\"} 0", "alert{kind=\"temperature_critical\"} 1",
              "alert{kind=\"guard_acted\"} 0"});
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
  const std::string none = Fanctl(board, {"status", "--prometheus"}).output;
  CHECK(samples(none) ==
        Lines{"up 1", "alert{kind=\"fan_failed\"} 0", "alert{kind=\"temperature_high\"} 0",
              "alert{kind=\"temperature_critical\"} 1", "alert{kind=\"guard_acted\"} 0"});
  CHECK(std::ranges::count(none, '#') == 4);
}

TEST_CASE("a linked chip: what stands in for a tachometer and for a mode is no value") {
  const StatusBoard board("fan_driver_sysfs_dir=/run/fan_controller/fan\n");
  board.chip({0, "emc2103", "i2c/0-002e", "fan1_target=150 pwm1_enable=0"});
  REQUIRE(Fanctl(board, {"link", "emc2103"}).status == 0);
  const Fanctl run(board, {"status"});
  CHECK(row(run, "mode") == "close-loop, target speed (3)");  // the service's own number is 2
  CHECK(row(run, "fan") == "its speed is not known");
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
