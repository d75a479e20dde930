// fanctl check: planted mistakes are found, right configurations stay silent.
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "alert-flags.h"
#include "board.h"

namespace {

const std::string kDriver = "fan_driver_sysfs_dir=" + FAN + "\n";
const std::string kSensor = "temp_sensor_sysfs_entry=" + SENSOR + "\n";
const std::string kSettings = kDriver + kSensor;

// Nothing is wrong with it.
struct GoodBoard : Board {
  explicit GoodBoard(const std::string& settings = kSettings, bool gpio = false,
                     const std::string& table = TABLE) {
    fan(FAN, gpio);
    write(SENSOR, "36999\n");
    config(settings, table);
  }
};

Lines split(std::string text, const std::string& at) {
  Lines parts;
  for (std::size_t end; (end = text.find(at)) != std::string::npos; text.erase(0, end + at.size()))
    parts.push_back(text.substr(0, end));
  parts.push_back(text);
  return parts;
}

// Exactly these findings in their order, and the status that goes with them. One is written as
// "LINE KIND PART" for a line of the file, "FILE:LINE KIND PART", or "machine KIND PART".
void finds(const Board& board, const Lines& expected, const std::string& file = "") {
  const Fanctl run(board, {"check"});
  CAPTURE(run.output);
  const Lines paragraphs = split(run.output, "\n\n");
  CHECK(contains(paragraphs.back(), "driver "));
  const Lines lines = paragraphs.size() == 1 ? Lines{} : split(paragraphs[0], "\n");
  CHECK(lines.size() == expected.size());
  int status = 0;
  for (std::size_t i = 0; i < std::min(lines.size(), expected.size()); ++i) {
    std::string place, kind, part;
    std::istringstream text(expected[i]);
    text >> place >> kind >> std::ws;
    std::getline(text, part);
    if (place != "machine") {
      place = CONFIG + "/" + (contains(place, ":") ? place : file + ":" + place);
    }
    const std::string begin = place + ": " + kind + ": ";
    CHECK(lines[i].starts_with(begin));
    CHECK(contains(lines[i], part));
    CHECK(contains(lines[i].substr(begin.size()), ": "));  // what to do
    status = std::max(status, kind == "error" ? 2 : 1);
  }
  CHECK(run.status == status);
  CHECK(run.errors.empty());
}

// Lines of "CONTENT | FINDING; FINDING" about a file, each tried with other content. \n, \r and \t
// stand for what they do in C.
template <typename Config>
void each_finds(const std::string& corpus, const std::string& file, Config config) {
  const GoodBoard board;
  for (const std::string& line : split(corpus, "\n")) {
    if (line.empty()) continue;
    CAPTURE(line);
    const Lines halves = split(line, " | ");
    REQUIRE(halves.size() == 2);
    std::string content = halves[0];
    for (const auto* escape : {"\\n\n", "\\r\r", "\\t\t"}) {
      std::string joined;
      for (const auto& part : split(content, std::string(escape, 2))) joined += part + escape[2];
      content = joined.substr(0, joined.size() - 1);
    }
    config(board, content);
    finds(board, split(halves[1], "; "), file);
  }
}

std::string content_of(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

TEST_CASE("mistakes in fan_controller.conf, from its third line on") {
  each_finds(R"(
perod_in_sec=60 | 3 error "perod_in_sec" is not known and is ignored: did you mean period_in_sec?
Use_Hysteresis=yes | 3 error did you mean use_hysteresis?
=60 | 3 error the key "" is not known
 period_in_sec=60 | 3 error blank or tab beside period_in_sec
period_in_sec\t=60 | 3 error blank or tab beside period_in_sec
\n\nperiod_in_sec 60 | 5 error no = in the line
  # a comment | 3 warning remove the blank before the #
period_in_sec=60\nperiod_in_sec=61 | 4 warning stands in line 3 already, and this line replaces it
use_hysteresis=yes\nuse_hysteresis=no | 4 warning "yes" in one of them is enough
pid_file=/run/x\r | 3 error carriage return at the line's end becomes part of the path
pid_file=/run/x\ty | 3 error a tab becomes part of the path
pid_file= /run/x | 3 error blank behind the = becomes part of the path
use_hysteresis=Yes | 3 error so it changes nothing
use_hysteresis= yes | 3 error so it changes nothing
use_hysteresis=yes\r | 3 error a carriage return ends the line
period_in_sec=60s | 3 warning counts as 60, "s" behind it is ignored
period_in_sec=soon | 3 error has no number and counts as 0; 3 error without a pause
period_in_sec=0 | 3 error of 0 makes the service run without a pause
period_in_sec=-60 | 3 error of -60 makes the service run without a pause
period_in_sec=3601 | 3 warning more than an hour
hdd_critical_temperature=2147483648 | 3 error counts as 2147483647
hdd_critical_temperature=-2147483649 | 3 error counts as -2147483648; 3 warning is not above
hdd_critical_temperature=55 | 3 warning 55 is not above the table's last step, 55
)",
             "fan_controller.conf", [](const Board& board, const std::string& content) {
               board.config(kSettings + content, TABLE);
             });
}

TEST_CASE("mistakes in fan_cmd_tab.conf") {
  each_finds(R"(
# nothing | 1 error there is no step: the fan is stopped, and every temperature above 0
#\n40=100 | 2 warning the only step
35=90\n55=255\n35=-1 | 3 warning 35 degrees stand in line 1 already; 3 error -1 is negative
55=255\n45=80\n35=90 | 2 warning falls to 80 while the temperature rises to 45
35=-1\n55=255 | 1 error the command -1 is negative
35=90\n55=256 | 2 error 256 is above 255
35=0\n45=90\n55=255 | 1 warning stands still up to 40 degrees
35=0 | 1 warning the only step; 1 warning stands still at every temperature
-41=90\n55=255 | 1 warning -41 degrees are not between -40 and 120
1=9\n121=255 | 2 warning 121 degrees are not; fan_controller.conf:1 warning 65 is not above
35=90\n45 100\n55=255 | 2 error no = in the line
35=90\n45=0x80\n55=255 | 2 warning command counts as 0, "x80"; 2 warning falls to 0
35=90\n4O=100\n55=255 | 1 warning falls to 90; 2 warning temperature counts as 4, "O"
35=90\n=100\n55=255 | 1 warning falls to 90; 2 error temperature has no number
 #40=120\n55=255 | 1 error counts as the step 0=120
1=9\n2=9999999999\n55=255 | 2 error counts as 2147483647; 2 error is above 255; 3 warning falls
)",
             "fan_cmd_tab.conf", [](const Board& board, const std::string& content) {
               board.config(kSettings, content);
             });
}

TEST_CASE("what is wrong with the machine") {
  const std::string hwmon = "/sys/class/hwmon/hwmon12", partitions = "/proc/partitions";
  const auto disk = [](const std::string& text) {
    return std::pair<std::string, std::string>("/dev/sda", "# disk\n" + text);
  };
  const std::pair<std::string, std::string> oneDisk(partitions, " 8 0 9 sda\n");
  const std::string toSensor = "temp_sensor_sysfs_entry=" + hwmon + "/temp1_input\n";
  const struct {
    std::string settings = kSettings;
    std::vector<std::pair<std::string, std::string>> files = {};
    std::vector<std::pair<std::string, int>> modes = {};
    std::vector<Appliance::Chip> chips = {};
    Lines expected;
  } cases[] = {
      {.files = {{FAN + "/pwm2", "0"}},
       .expected = {"machine error Nearest is I2C; missing: none; too many: pwm2: no chip with"}},
      {.settings = "fan_driver_sysfs_dir=/sys/odd\n" + kSensor,
       .files = {{"/sys/odd/fan1_max", "0"}, {"/sys/odd/fan2_max", "0"}},
       .chips = {{0, "lm75", "i2c/0-0048", ""}, {1, "adt7475", "i2c/0-002e", "pwm1=0"}},
       .expected = {"machine error Nearest is GPIO; missing: fan1_alarm fan1_input fan1_min "
                    "fan1_target modalias name pwm1 pwm1_enable pwm1_mode uevent; too many: "
                    "fan2_max: run fanctl link --at-boot adt7475 and write fan_driver_sysfs_dir="
                    "/run/fan_controller/fan"}},
      {.settings = kSensor,
       .chips = {{0, "max6650", "i2c/0-001b", "fan1_target=0"},
                 {1, "max6650", "i2c/0-0048", "pwm1=0"}},
       .expected = {"machine warning no fan driver is configured, but there is a chip with a fan: "
                    "run fanctl link --at-boot max6650-i2c-0-1b"}},
      {.settings = "fan_driver_sysfs_dir=/sys/none\n" + kSensor,
       .expected = {"machine error /sys/none is no folder that can be opened"}},
      {.settings = "fan_driver_sysfs_dir=/sys/class/hwmon/hwmon3/../../../fan\n" + toSensor,
       .files = {{hwmon + "/temp1_input", "36000"}, {"/sys/class/hwmon/hwmon3/name", ""}},
       .expected = {"machine warning fan_driver_sysfs_dir: the number in",
                    "machine warning temp_sensor_sysfs_entry: the number in " + hwmon}},
      {.modes = {{FAN + "/pwm1", 0400}},
       .expected = {"machine error file " + FAN + "/pwm1 cannot be written (Permission denied)"}},
      {.files = {{FAN + "/pwm1_enable", "2\n"}},
       .modes = {{FAN + "/fan1_target", 0400}},
       .expected = {"fan_cmd_tab.conf:4 warning highest command is 255, and the driver takes it",
                    "machine error file " + FAN + "/fan1_target cannot be written"}},
      {.settings = "fan_driver_sysfs_dir=/run/x\n" + kSensor,
       .files = {{CONFIG + "/fan_link.conf", "chip=none\nfolder=/run/x\n"}},
       .expected = {"machine error fan_link.conf: there is no chip none"}},
      {.files = {{SENSOR, "N/A\n"}}, .expected = {"machine error \"N/A\", which counts as 0"}},
      {.settings = kSettings + "fan_driver_sysfs_alarm=" + hwmon + "/fan1_alarm",
       .expected = {"machine warning fan_driver_sysfs_alarm: the number in",
                    "machine warning cannot be read; the service takes " + FAN + "/fan1_alarm"}},
      {.files = {{FAN + "/fan1_alarm", ""}},
       .expected = {"machine warning " + FAN + "/fan1_alarm cannot be read, so a blocked fan"}},
      {.files = {oneDisk, disk("temperature=38\n")},
       .modes = {{SENSOR, 0200}},
       .expected = {"machine error cannot be read; the disks are measured instead"}},
      {.files = {{SENSOR, "36\n"}}, .expected = {"machine error reads 36, which counts as 0"}},
      {.files = {{SENSOR, "151000\n"}}, .expected = {"machine error which counts as 151"}},
      {.files = {{SENSOR, "-41000\n"}}, .expected = {"machine error which counts as -41"}},
      {.settings = kDriver, .expected = {"machine error neither a sensor nor a disk with a"}},
      {.settings = kDriver,
       .files = {{partitions, " 8 0 9 sda\n 8 16 9 sdb\n 8 0 9 sdaa\n 8 0 9 sdab\n"},
                 disk("temperature=38\n")},
       .expected = {"machine warning /dev/sdb cannot be opened and is not measured",
                    "machine warning more than 26 disks; those beyond sdz"}},
      {.settings = kDriver,
       .files = {oneDisk, disk("fails=ioctl\n")},
       .expected = {"machine error neither", "machine warning /dev/sda takes no ATA command"}},
      {.settings = kDriver,
       .files = {oneDisk, disk("fails=reject\n")},
       .expected = {"machine error neither", "machine warning /dev/sda takes no ATA command"}},
      {.settings = kDriver,
       .files = {oneDisk, disk("model=X\n")},
       .expected = {"machine error neither", "machine warning /dev/sda gives no temperature"}},
      {.settings = kSettings + "dump_info_to_file=/var/tmp/status",
       .modes = {{"/var/tmp", 01777}},
       .expected = {"machine error dump_info_to_file: others than root can write to /var/tmp"}},
      {.settings = kSettings + "dump_info_to_file=/run/none/status",
       .expected = {"machine warning dump_info_to_file: there is no folder /run/none"}},
      {.modes = {{CONFIG, 0770},
                 {CONFIG + "/fan_controller.conf", 0666},
                 {CONFIG + "/fan_cmd_tab.conf", 0664}},
       .expected = {"machine error others than root can write to " + CONFIG + ":",
                    "machine error /fan_controller.conf:", "machine error /fan_cmd_tab.conf:"}},
      {.files = {{CRIT_TEMP_FLAG + std::string("/file"), ""}},
       .expected = {"machine warning " + std::string(CRIT_TEMP_FLAG) + " is no plain file"}},
  };
  for (const auto& each : cases) {
    CAPTURE(each.expected.back());
    const GoodBoard board(each.settings);
    for (const auto& [path, text] : each.files) board.write(path, text);
    for (const auto& [path, mode] : each.modes) board.allow(path, mode);
    for (const auto& chip : each.chips) board.chip(chip);
    finds(board, each.expected);
  }
  const GoodBoard board;
  fs::create_symlink("x", board.at(FAN_FAILED_FLAG));
  board.write(HIGH_TEMP_FLAG, "");
  fs::create_hard_link(board.at(HIGH_TEMP_FLAG), board.at("/var/tmp/other"));
  for (const char* name : {"fan_controller.conf", "fan_cmd_tab.conf"}) {
    board.remove(CONFIG + "/" + name);
  }
  finds(board, {"fan_controller.conf:1 error cannot be opened",
                "fan_cmd_tab.conf:1 error cannot be opened", "machine error neither a sensor",
                std::string("machine warning ") + FAN_FAILED_FLAG + " is no plain file of root's",
                std::string("machine warning ") + HIGH_TEMP_FLAG});
}

TEST_CASE("a folder that is linked when the service starts, and disks that sleep") {
  Board board({{0, "adt7475", "i2c/0-002e", "pwm1=77 pwm1_enable=2"}});
  board.config("fan_driver_sysfs_dir=/run/x\n", TABLE);
  board.write(CONFIG + "/fan_link.conf", "chip=adt7475\nfolder=/run/x\n");
  board.write("/proc/partitions", "sda\n");
  board.disk("sda", "power=standby\n");
  finds(board, {});
  const std::string summary = Fanctl(board, {"check"}).output;
  CHECK(contains(summary, "/run/x, made by fanctl link before the service starts\n"));
  CHECK(contains(summary, "not known now (1 asleep and not asked)\n"));
  REQUIRE(Fanctl(board, {"link", "adt7475", "--to", "/run/x"}).status == 0);
  finds(board, {});
  board.remove(CONFIG + "/fan_link.conf");
  finds(board, {"machine warning /run/x ends with the service and is not made again"});
}

TEST_CASE("right configurations stay silent") {
  int shipped = 0;
  for (const auto& entry : fs::recursive_directory_iterator(SHIPPED_CONFIG)) {
    if (entry.path().filename() != "fan_controller.conf") continue;
    CAPTURE(entry.path().native());
    const Board board;  // the hardware that they name
    board.fan("/run/fan_controller/fan", false);
    board.write("/run/fan_controller/fan/sensor/temp1_input", "36000\n");
    board.write("/proc/partitions", " 8 0 9 sda\n");
    board.disk("sda", "temperature=38\npower=standby\n");
    board.config(content_of(entry.path()),
                 content_of(entry.path().parent_path() / "fan_cmd_tab.conf"));
    finds(board, {});
    CHECK(board.journal({"woken"}).empty());
    ++shipped;
  }
  CHECK(shipped == 4);

  const std::string odd =
      "#period_in_sec=0\n\n \t \n#\nperiod_in_sec  = 3600  \nuse_hysteresis=no   \n"
      "hdd_critical_temperature=+121\nfan_driver_sysfs_alarm=\ndump_info_to_file=/run/a=b";
  const struct {
    std::string settings, table, mode;
    bool gpio;
  } cases[] = {{odd, "# steps\n\n120=255\n-40=1\n 40 = 1 \r\n -5=1", "1\n", false},
               {"use_hysteresis=yes", "35=1500\n55=4000\n", "2\n", false},  // rpm
               {"", "35=1500\n55=4000\n", "1\n", true}};
  for (const auto& each : cases) {
    CAPTURE(each.table);
    const GoodBoard board(kSettings + each.settings, each.gpio, each.table);
    board.write(FAN + "/pwm1_enable", each.mode);
    board.write(HIGH_TEMP_FLAG, "");
    finds(board, {});
  }
}

TEST_CASE("the summary, as JSON") {
  const GoodBoard board(kDriver + "use_hysteresis=yes\nperod=\xff\n" +
                            "dump_info_to_file=/run/status\nhdd_critical_temperature=60\n",
                        false, "35=0\n45=90\n");
  board.write("/proc/partitions", " 8 0 9 sda\n 8 16 9 sdb\n 8 32 9 sdc\n");
  board.disk("sda", "temperature=38\n");
  board.disk("sdb", "temperature=50\npower=standby\n");
  board.disk("sdc", "temperature=41\npower=idle\nsense=fixed\n");
  std::optional<AsService> service(board);
  const Fanctl run(board, {"check", "--json"});
  service.reset();
  CHECK(run.status == 2);
  CHECK(board.journal({"woken"}).empty());
  const auto json = nlohmann::json::parse(run.output);
  REQUIRE(json["findings"].size() == 2);
  CHECK(json["findings"][0]["place"] == CONFIG + "/fan_controller.conf:3");
  CHECK(json["findings"][0]["kind"] == "error");
  CHECK(json["findings"][1]["kind"] == "warning");
  CHECK(contains(json["findings"][1]["text"].get<std::string>(),
                 "stands still up to 35 degrees"));  // when it rises
  CHECK(json["summary"] ==
        nlohmann::json{
            {"driver", "I2C, open-loop, in " + FAN},
            {"command", "to " + FAN + "/pwm1"},
            {"alarm", "from " + FAN + "/fan1_alarm"},
            {"temperature", "41 C now, from the hottest of 3 disks (1 asleep and not asked)"},
            {"table", "35=0 45=90, by hysteresis"},
            {"alerts", "high above 45 C, critical above 60 C"},
            {"period", "180 seconds"},
            {"writes", "/var/run/fan_controller.pid, flags in /var/tmp, /run/status"},
            {"service", "runs as process " + std::to_string(::getpid())}});
  // The process of that number is another program now.
  CHECK(contains(Fanctl(board, {"check"}).output, "does not run"));
}

TEST_CASE("colours only on a terminal, and not against the user's will") {
  const GoodBoard board(kSettings + "perod=1\n");
  for (const bool wanted : {true, false}) {
    const Channel terminal(Channel::kTerminal);
    if (!wanted) ::setenv("NO_COLOR", "1", 1);
    (void)Fanctl(board, {"check"}, terminal.writer->number);
    ::unsetenv("NO_COLOR");
    const std::string text = received(terminal.reader->number, [](const std::string& seen) {
      return contains(seen, "does not run");
    });
    CHECK(contains(text, wanted ? ":3: \x1b[31merror:\x1b[0m " : ":3: error: "));
  }
}

TEST_CASE("wrong use") {
  const Board board;
  for (const std::string line :  // there is no terminal to watch on
       {"", "chek", "check --fast", "check more", "hardware -c", "link --json a", "link a b",
        "link --undo a", "link --at-boot", "link --at-boot --undo a", "status --watch 5",
        "status --watch 0", "status --watch 5 --json", "status --json --prometheus",
        "status --output /run/x"}) {
    std::istringstream words(line);
    const Fanctl run(board, Lines(std::istream_iterator<std::string>(words), {}));
    CAPTURE(run.errors);
    CHECK(run.status == 64);
    CHECK(run.output.empty());
    CHECK_FALSE(run.errors.empty());
  }
  CHECK(fs::is_empty(board.at("/run")));
  for (const char* option : {"--help", "--version"}) {
    const Fanctl run(board, {option});
    CHECK(run.status == 0);
    CHECK_FALSE(run.output.empty());
    CHECK(run.errors.empty());
  }
}
