// fanctl curve: points, pictures, JSON and what cannot be drawn.
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "commands.h"
#include "curve-plot.h"
#include "fixtures.h"
#include "utils.h"

namespace {

const CommandTable kTable = {{30, 100}, {40, 150}, {50, 200}, {55, 255}};

Plot plot_of(const CommandTable& table, bool hysteresis, std::optional<Reading> now = {}) {
  Settings settings;
  settings.m_useHysteresis = hysteresis;
  return plot_curve(table, settings, std::move(now));
}

// Whether every element is closed in its turn; no more than these pictures need.
bool well_formed(const std::string& xml) {
  static const std::regex kTag("<(/?)([a-z]+)(?: [a-zA-Z-]+=\"[^\"<&]*\")*(/?)>");
  Lines open;
  std::size_t end = 0;
  for (std::sregex_iterator tag(xml.begin(), xml.end(), kTag), none; tag != none; ++tag) {
    const std::string between = xml.substr(end, static_cast<std::size_t>(tag->position()) - end);
    if (between.find_first_of("<>&") != std::string::npos) return false;
    end = static_cast<std::size_t>(tag->position() + tag->length());
    if ((*tag)[1].length() == 0 && (*tag)[3].length() == 0) open.push_back((*tag)[2]);
    if ((*tag)[1].length() == 0) continue;
    if (open.empty() || open.back() != (*tag)[2]) return false;
    open.pop_back();
    if (open.empty()) return xml.substr(end) == "\n";
  }
  return false;
}

// What body writes to standard error.
std::string complaint(const std::function<void()>& body) {
  const FilePtr file(std::tmpfile());
  const Descriptor before(::dup(STDERR_FILENO));
  ::dup2(::fileno(file.get()), STDERR_FILENO);
  body();
  ::dup2(before.get(), STDERR_FILENO);
  std::rewind(file.get());
  std::string line;
  return read_line(file.get(), line) ? line + "\n" : line;
}

std::size_t files_in(const std::string& folder) {
  using Entries = std::filesystem::directory_iterator;
  return static_cast<std::size_t>(std::distance(Entries(folder), Entries()));
}

}  // namespace

TEST_CASE("the points are the service's own") {
  struct Row {
    int celsius, nearest, rising, falling;
  };
  for (const Row& row : {Row{25, 100, 100, 100}, Row{35, 100, 150, 100}, Row{36, 150, 150, 100},
                         Row{50, 200, 200, 150}, Row{55, 255, 255, 200}, Row{70, 255, 255, 255}}) {
    CAPTURE(row.celsius);
    const auto index = static_cast<std::size_t>(row.celsius - 25);
    const CurvePoint near = plot_of(kTable, false).points.at(index);
    const CurvePoint hysteresis = plot_of(kTable, true).points.at(index);
    CHECK(near.celsius == row.celsius);
    CHECK(near.rising == row.nearest);
    CHECK(near.falling == row.nearest);
    CHECK(hysteresis.rising == row.rising);
    CHECK(hysteresis.falling == row.falling);
  }
}

TEST_CASE("the picture in characters") {
  const std::string drawn =
      draw_terminal(plot_of({{30, 80}, {50, 255}}, true, Reading{44, "/dev/sda"}), 30, false);
  CHECK("\n" + drawn == R"(
command
                     critical 65 C :
       alert level 50 C :          :
255 +     #========o=====#==============
    |     #             :|         :
    |     #             :|         :
    |     #             :|         :
    |     #             :|         :
    |     #             :|         :
 80 #=====#--------o-----+         :
    |                   :          :
    |                   :          :
  0 +                   :          :
    +----+--------------+----------+----
         30             50         65
                         temperature (C)
==== rising or steady  ---- falling
o now 44 C by /dev/sda: command 255
  while rising, 80 while falling
Between two steps of the table, a rising
or steady temperature gets the command
of the upper step and a falling one that
of the lower step.
)");
  // Nothing outside ASCII where the locale has no more, no line beyond the width.
  for (const int columns : {INT_MIN, 40, 53, 120}) {
    for (const CommandTable& table :
         {kTable, CommandTable{{50, 0}}, CommandTable{{40, 0}, {41, 255}, {42, 3}},
          CommandTable{{0, 32000}, {1000, 0}}, CommandTable{{-20, -300}, {-10, -100}},
          CommandTable{{INT_MIN, INT_MIN}, {40, INT_MAX}, {INT_MAX, INT_MIN}}}) {
      for (const bool hysteresis : {false, true}) {
        const std::string text = draw_terminal(
            plot_of(table, hysteresis, Reading{2147483, "the sensor"}), columns, false);
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
          CHECK(line.size() <= static_cast<std::size_t>(std::clamp(columns, 40, 100)));
          CHECK(std::ranges::all_of(line, [](char c) { return c >= ' ' && c <= '~'; }));
        }
        CHECK(contains(text, "temperature.\n"));
      }
    }
  }
}

TEST_CASE("degrees outside the picture are named") {
  const auto outside = [](const CommandTable& table) {
    const std::string text = draw_terminal(plot_of(table, false), 100, true);
    const auto at = text.find("Outside");
    return at == std::string::npos ? "" : text.substr(at);
  };
  CHECK(outside(kTable).empty());
  CHECK(outside({{30, 80}, {1030, 255}}) == "Outside the picture: the step 1030=255.\n");
  CHECK(outside({{-61, 1}, {151, 2}, {152, 3}, {153, 4}, {150, 5}}) ==
        "Outside the picture: 4 of 5 steps.\n");
}

TEST_CASE("the picture as SVG") {
  for (const bool hysteresis : {false, true}) {
    const std::string svg = draw_svg(plot_of(kTable, hysteresis, Reading{44, "/dev/sda"}));
    CHECK(well_formed(svg));
    CHECK(contains(svg, "Steps, in command: 30 °C: 100, 40 °C: 150, 50 °C: 200, 55 °C: 255."));
    for (const char* text : {"30", "40", "50", "55", "100", "150", "200", "255",
                             "alert level 55 °C", "critical 65 °C", "temperature (°C)"}) {
      CHECK(contains(svg, std::string(">") + text + "</text>"));
    }
    CHECK(contains(svg, "class=\"falling\"") == hysteresis);
  }
}

TEST_CASE("what is read, written and refused") {
  const Appliance appliance;
  const Options options{.configDir = CONFIG}, json{.configDir = CONFIG, .json = true};
  const std::string folder = appliance.at("/pictures"), file = folder + "/curve.svg";
  appliance.write("/pictures/curve.svg", "old");
  appliance.fan("/sys/fan", true);
  appliance.write(SENSOR, "43999\n");
  const std::string settings =
      "fan_driver_sysfs_dir=" + FAN + "\ntemp_sensor_sysfs_entry=" + SENSOR;
  appliance.config(settings + "\nuse_hysteresis=yes\n", TABLE);

  const auto answer = nlohmann::json::parse(traced([&] {
    CHECK(run_curve(json, {.svgFile = file}) == EXIT_FINE);
    (void)std::fflush(stdout);
  }));
  CHECK(answer["rule"] == "hysteresis");
  CHECK(answer["alert_level"] == 55);
  CHECK(answer["critical"] == 65);
  CHECK(answer["temperature"] == 43);
  CHECK(answer["points"][20] == nlohmann::json{{"celsius", 45}, {"rising", 200}, {"falling", 150}});
  CHECK(well_formed(appliance.read("/pictures/curve.svg")));
  CHECK(contains(appliance.read("/pictures/curve.svg"), ">fan1_target (rpm)</text>"));

  // A file that cannot be written stays as it is, and nothing stays beside it.
  std::filesystem::create_symlink("curve.svg", folder + "/link");
  for (const char* name : {"/none/curve.svg", "/link", "", "/"}) {
    CHECK(complaint([&] {
            CHECK(run_curve(options, {.svgFile = folder + name}) == EXIT_ERRORS);
          }).starts_with("fanctl: " + folder + name));
  }
  rlimit before{};
  ::getrlimit(RLIMIT_FSIZE, &before);
  const rlimit small{.rlim_cur = 1000, .rlim_max = before.rlim_max};
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  ::setrlimit(RLIMIT_FSIZE, &small);
  CHECK(complaint([&] { CHECK(run_curve(options, {.svgFile = file}) == EXIT_ERRORS); }) ==
        "fanctl: " + file + ": File too large\n");
  ::setrlimit(RLIMIT_FSIZE, &before);
  (void)std::signal(SIGXFSZ, handler);
  CHECK(well_formed(appliance.read("/pictures/curve.svg")));
  CHECK(files_in(folder) == 2);

  const auto refused = [&](const std::string& table) {
    appliance.config(settings, table);
    return complaint([&] { CHECK(run_curve(options, {}) == EXIT_ERRORS); });
  };
  const std::string table = "fanctl: " + CONFIG + "/fan_cmd_tab.conf: ";
  CHECK(refused("# 40=120\n").starts_with(table + "there is no step in this table"));
  appliance.remove(CONFIG + "/fan_cmd_tab.conf");
  CHECK(refused("") == table + "No such file or directory\n");
  appliance.config(settings, TABLE);
  appliance.remove(CONFIG + "/fan_controller.conf");
  CHECK(complaint([&] { CHECK(run_curve(options, {.svgFile = file}) == EXIT_WARNINGS); }) != "");
}

TEST_CASE("the present temperature") {
  const Appliance appliance;
  const auto now = [&](const std::string& sensor) {
    appliance.config("temp_sensor_sysfs_entry=" + SENSOR + "\n", TABLE);
    if (!sensor.empty()) appliance.write(SENSOR, sensor);
    const std::string text = traced([] {
      CHECK(run_curve({.configDir = CONFIG}, {}) == EXIT_FINE);
      (void)std::fflush(stdout);
    });
    const auto at = text.find("now ");
    return at == std::string::npos ? "unknown" : text.substr(at, text.find('\n', at) - at);
  };
  CHECK(now("") == "unknown");
  appliance.write("/proc/partitions", "sda\nsdb\n");
  appliance.disk("sda", "temperature=41\n");
  appliance.disk("sdb", "temperature=51\n");
  CHECK(contains(now(""), "C by /dev/sdb: command 200"));
  CHECK(contains(now("45999\n"), "C by the sensor: command 150"));
}
