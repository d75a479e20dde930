// The lab as a whole: the program that people start, and the report that it leaves.
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>

#include "fixtures.h"
#include "text.h"

namespace fs = std::filesystem;

namespace {

// Small and quick: two disks that get warm within minutes.
const std::string kBox =
    "step=1\nair_capacity=600\nboard_power=10\nwall_conductance=1\nfan_flow=0.01\nfan_speed=2400\n"
    "fan_start_speed=500\nfan_stall_speed=300\nfan_spin_up=2\nfan_power=2\nfan_command=255\n"
    "sensor_place=0.5\nsensor_lag=30\nsensor_resolution=500\noutside=0:24 3600:26 3600.25:26 "
    "86399:24 86400:24\n"
    "disk_capacity=300\ndisk_idle_power=5\ndisk_seek_power=12\ndisk_standby_power=1\n"
    "disk_conductance=0.3\ndisk_flow_conductance=1\ndisk=sda\ndisk=sdb\n";
const std::string kDay = "# a backup\n600 load all seek\n4800 load all idle\n";
const std::string kSettings =
    "fan_driver_sysfs_dir=/sys/fan\ntemp_sensor_sysfs_entry=/sys/sensor\nperiod_in_sec=60\n";
const std::string kTable = "30=80\n34=110\n38=150\n42=200\n55=255\n";
const std::map<int, int> kSteps = {{30, 80}, {34, 110}, {38, 150}, {42, 200}, {55, 255}};

struct Result {
  int status;
  std::string output, errors;
};

// A folder with everything that the lab is given.
struct Desk {
  Desk() {
    REQUIRE(mkdtemp(folder.data()) != nullptr);
    put("box", kBox);
    put("day", kDay);
    put("table/fan_controller.conf", kSettings);
    put("table/fan_cmd_tab.conf", kTable);
  }
  ~Desk() { fs::remove_all(folder); }
  std::string at(const std::string& name) const { return folder + "/" + name; }
  void put(const std::string& name, const std::string& text) const {
    fs::create_directories(fs::path(at(name)).parent_path());
    write_file(at(name), text);
  }
  std::string get(const std::string& name) const { return read_file(at(name)); }
  Result shell(const std::string& command) const {
    const std::string line = "cd '" + folder + "' && " + command + " >output 2>errors";
    const int status = std::system(line.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, get("output"), get("errors")};
  }
  Result lab(const std::string& options) const {
    return shell("'" LAB_BINARY "' --config table --enclosure box --out out " + options);
  }
  // The report's files.
  std::map<std::string, std::string> report() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::directory_iterator(at("out"))) {
      files[entry.path().filename()] = read_file(entry.path());
    }
    return files;
  }
  // Columns of one of its files by their heads.
  std::map<std::string, Lines> columns(const std::string& name) const {
    std::map<std::string, Lines> table;
    const Lines lines = lines_of(get("out/" + name)), heads = split(lines.at(0), ',');
    for (std::size_t i = 1; i < lines.size(); ++i) {
      const Lines cells = split(lines[i], ',');
      for (std::size_t j = 0; j < heads.size(); ++j) table[heads[j]].push_back(cells.at(j));
    }
    return table;
  }

  std::string folder = fs::temp_directory_path() / "lab test-XXXXXX";
};

// What the manual page of the table says.
int command_for(int temperature, int previous, bool hysteresis) {
  if (temperature <= kSteps.begin()->first) return kSteps.begin()->second;
  const auto upper = kSteps.lower_bound(temperature);
  if (upper == kSteps.end()) return kSteps.rbegin()->second;
  const auto lower = std::prev(upper);
  const bool isNearer = upper->first - temperature < temperature - lower->first;
  return (hysteresis ? temperature >= previous : isNearer) ? upper->second : lower->second;
}

}  // namespace

TEST_CASE("in the closed loop every command is the table's, by both rules, with a sensor or not") {
  for (const bool hasSensor : {true, false}) {
    CAPTURE(hasSensor);
    const Desk desk;
    if (!hasSensor) {
      desk.put("table/fan_controller.conf", "fan_driver_sysfs_dir=/run/x/fan\nperiod_in_sec=60\n");
    }
    CHECK(desk.lab("--day day --hours 2").status == 0);
    for (const bool hysteresis : {false, true}) {
      CAPTURE(hysteresis);
      auto run = desk.columns(hysteresis ? "table-hysteresis.csv" : "table-nearest.csv");
      const auto &measured = run["measured (C)"], &command = run["command"];
      REQUIRE(measured.size() == 121);
      for (std::size_t i = 2; i < measured.size(); ++i) {
        const int now = std::stoi(measured[i - 1]), before = std::stoi(measured[i - 2]);
        REQUIRE(std::stoi(command[i]) == command_for(now, before, hysteresis));
      }
      // It has to get warm enough for several steps, and to be cooled by them.
      CHECK(std::set<std::string>(command.begin(), command.end()).size() >= 3);
      CHECK(std::stod(run["speed (rpm)"].back()) ==
            doctest::Approx(2400.0 * std::stoi(command.back()) / 255).epsilon(0.01));
    }
    auto figures = desk.columns("figures.csv");
    double whole = 0;
    for (std::size_t i = 0; i < figures["figure"].size(); ++i) {
      if (figures["figure"][i].starts_with("time at command")) {
        whole += std::stod(figures["table-nearest"][i]);
      }
    }
    CHECK(whole == doctest::Approx(100).epsilon(0.005));
  }
}

TEST_CASE("a fan that is driven by its speed, blocked until it gets too hot, beside a rival") {
  const Desk desk;
  desk.put("box", std::string(kBox).replace(kBox.find("=255"), 4, "=2400"));
  desk.put("day", kDay + "5400 fan blocked\n6000 fan free\n");
  desk.put("table/fan_controller.conf", kSettings + "hdd_critical_temperature=34\n");
  desk.put("rival/fan_controller.conf", kSettings + "use_hysteresis=yes\n");
  desk.put("rival/fan_cmd_tab.conf", "30=900\n36=1500\n40=2400\n");
  const Result result = desk.lab("--against rival --day day --hours 2");
  CHECK(result.status == 2);
  CHECK(contains(result.errors, "table/fan_cmd_tab.conf: TOO HOT: table, nearest step: a disk is"));
  CHECK(result.output.starts_with("TOO HOT: table, nearest step: a disk is above 34 C"));
  CHECK(contains(desk.get("out/report.html"), "<p class=\"alarm\">TOO HOT: "));
  CHECK(contains(result.errors, "table: its highest command is 255, but the fan of box"));
  CHECK(contains(result.output, "The rival (rival, nearest step): "));
  auto notes = desk.columns("happenings.csv");
  for (const std::string run : {"rival-nearest", "rival-hysteresis"}) {
    std::string seen;
    for (std::size_t i = 0; i < notes["run"].size(); ++i) {
      if (notes["run"][i] == run) seen += notes["time (s)"][i] + " " + notes["what"][i] + "\n";
    }
    CHECK(contains(seen, "5460 restart of the fan tried\n5470 fan failed\n"));
  }
  auto rival = desk.columns("rival-hysteresis.csv");
  CHECK(rival["speed (rpm)"][95] == "0.0");  // blocked at that minute
  CHECK(std::stod(rival["speed (rpm)"].back()) >= 890);
}

TEST_CASE("recorded temperatures are measured at their seconds; gaps are named and bridged") {
  const Desk desk;
  desk.put("r.csv",
           "seconds,disk1,disk2\n1000,33,31.9\r\n1600,35.5,41\n1660,,36\n4660,32,31\n5260,32,31\n");
  desk.put("table/fan_controller.conf", "fan_driver_sysfs_dir=/sys/fan\nperiod_in_sec=60\n");
  const Result result = desk.lab("--replay r.csv");
  CHECK(result.status == 0);
  CHECK(contains(result.errors, "r.csv:5: no temperature in column 3 for 50 min"));
  auto run = desk.columns("table-nearest.csv");
  const auto& measured = run["measured (C)"];
  REQUIRE(measured.size() == 72);  // 4260 s
  // A value counts from its second on; the state at that second is still the one before.
  const std::map<std::size_t, std::string> expected = {{0, "33"},  {10, "33"}, {11, "41"},
                                                       {12, "36"}, {61, "36"}, {62, "32"}};
  for (const auto& [minute, celsius] : expected) CHECK(measured[minute] == celsius);
  CHECK(run["sdb (C)"][9] == "31.900");
}

TEST_CASE("bad input is named with its place, and the report stays as it was") {
  const std::string settings = "table/fan_controller.conf", table = "table/fan_cmd_tab.conf";
  const std::string cases[][4] = {
      {"box", "step=1\nair_capacity=-5\n", "", "box:2: air_capacity: '-5' is not possible"},
      {"box", "step=1\n", "", "box: air_capacity is missing"},
      {"day", "# a\n600 load sdz seek\n", "--day day", "day:2: write load DISK idle, seek or"},
      {"day", "600 dust 2\n", "--day day", "day:1: write dust FACTOR"},
      {"day", "600 write /x 1\n", "--day day", "day:1: 'write' is none of load, outside, fan"},
      {"day", "60 fan free\n30 fan free\n", "--day day", "day:2: this second comes before"},
      {"day", "86400 fan free\n", "--day day", "day:1: 86400 is no second of a day"},
      {"day", "outside=5:20\n", "--day day", "day:1: outside: write SECONDS:CELSIUS"},
      {"r.csv", "0,40\n60,hot\n", "--replay r.csv", "r.csv:2: 'hot' is no temperature"},
      {"r.csv", "s,c\n60,40\n0,40\n", "--replay r.csv", "r.csv:3: this line is earlier than"},
      {"r.csv", "0,40\n60,40,41\n", "--replay r.csv", "r.csv:2: this line has another number of"},
      {"r.csv", "0,400\n", "--replay r.csv", "r.csv:1: 400 degrees are not possible"},
      {"r.csv", "0,40,40,40\n", "--replay r.csv", "r.csv: it has 3 columns of temperatures"},
      {"r.csv", "", "--replay r.csv", "r.csv: there is no temperature in it"},
      {settings, "period_in_sec=60\n", "", settings + ": it names no fan driver"},
      {settings, "#\nfan_driver_sysfs_dir=/etc\n", "", settings + ":2: the lab knows only paths"},
      {settings, "temp_sensor_sysfs_entry=/sys/../x\n", "", settings + ":1: the lab knows only"},
      {settings, kSettings + "period_in_sec=0\n", "", "period_in_sec has to be a positive number"},
      {settings, "fan_driver_sysfs_dir=/sys/f\ntemp_sensor_sysfs_entry=/sys/f/t\n", "",
       "the service finds no fan driver in /sys/f"},
      {table, "# nothing\n", "", table + ": the service finds no step in it"},
      {"other", "", "--day none", "none: there is no such file to read"},
  };
  for (const auto& [file, text, options, message] : cases) {
    CAPTURE(message);
    const Desk desk;
    desk.put("out/report.html", "old");
    desk.put(file, text);
    const Result result = desk.lab(options + " --hours 1");
    CHECK(result.status == 2);
    CHECK(contains(result.errors, "lab: "));
    CHECK(contains(result.errors, message));
    CHECK(desk.report() == std::map<std::string, std::string>{{"report.html", "old"}});
    CHECK_FALSE(fs::exists(desk.at("out.new")));
  }
  for (const char* options :
       {"--hours 0", "--hours 169", "--day day --replay r.csv", "--nonsense"}) {
    CHECK(Desk().lab(options).status == 64);
  }
}

TEST_CASE("the same input gives the same bytes, wherever it lies, and a page that stands alone") {
  const Desk first, second;
  CHECK(first.lab("--day day --hours 1").status == 0);
  CHECK(second.lab("--day day --hours 1").status == 0);
  CHECK(first.report() == second.report());
  CHECK(first.report().size() == 7);
  CHECK(first.get("output") == second.get("output"));
  for (const auto& [name, content] : first.report()) CHECK_FALSE(contains(content, first.at("")));
  // What an earlier run has left and this one does not make is no part of the report.
  first.put("out/rival-nearest.csv", "old");
  first.put("out/notes", "mine");
  CHECK(first.lab("--day day --hours 1").status == 0);
  CHECK(first.report().contains("notes"));
  CHECK_FALSE(first.report().contains("rival-nearest.csv"));

  // The page needs nothing but itself.
  const std::string page = first.get("out/report.html");
  for (const char* outside : {"http:", "https:", " src=", "url(", "@import", "<script", "<link"}) {
    CAPTURE(outside);
    CHECK_FALSE(contains(page, outside));
  }
  CHECK(contains(page, "default-src 'none'"));
  if (first.shell("command -v chromium").status != 0) return;
  // The policy in the page makes an error in the console of everything that it asks for.
  const Result browser = first.shell(
      "timeout 60 chromium --headless --no-sandbox --disable-gpu --user-data-dir=profile "
      "--enable-logging=stderr --dump-dom \"file://$PWD/out/report.html\"");
  CHECK(browser.status == 0);
  CHECK(contains(browser.output, "The figures that decide"));
  CHECK_FALSE(contains(browser.errors, "CONSOLE"));
}
