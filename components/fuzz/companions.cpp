// The readers of fanctl, by the subcommands that use them.
#include <algorithm>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "findings.h"
#include "hwmon.h"
#include "machine.h"
#include "readers.h"

namespace {

using machine::expect;

const Options kOptions;

bool is_shown_safely(const std::string& text) {
  return std::ranges::none_of(text, [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < ' ' && c != '\n') || byte == 0x7f;
  });
}

// Nothing but its own folders and the attributes of a chip is ever written to.
void expect_own_places() {
  constexpr std::string_view kOwn[] = {"/sys/", "/run/fan_controller/", "/var/lib/fan_controller/"};
  for (const std::string& path : machine::written) {
    expect(std::ranges::any_of(kOwn, [&](auto folder) { return path.starts_with(folder); }));
  }
}

// Puts the pieces to the paths, of which the last may keep what they hold, and runs a subcommand.
template <typename Work>
void with_files(const Input& input, std::initializer_list<const char*> paths, Work work) {
  for (std::size_t i = 0; const char* path : paths) {
    if (i < input.pieces.size()) machine::put(path, input.pieces[i++]);
  }
  machine::run(work);
  expect_own_places();
}

void expect_output(const Input& input) {
  if (input.option) {
    expect(nlohmann::json::accept(machine::shown));
  } else {
    expect(is_shown_safely(machine::shown));
  }
}

constexpr char kSettings[] = "/etc/fan_controller/fan_controller.conf";
constexpr char kTable[] = "/etc/fan_controller/fan_cmd_tab.conf";
constexpr char kRecord[] = "/var/lib/fan_controller/guard_acted";
constexpr char kStandby[] = "/run/fan_controller/standby";
constexpr char kChip[] = "/sys/class/hwmon/hwmon1/";

// Without a fan: nothing is spent on what another reader looks at.
void leave_fan_out() { machine::put(kSettings, "dump_info_to_file=/run/fan_controller/status\n"); }

// A finding names a line that is in its file.
void read_lines(const Input& input) {
  with_files(input, {kSettings, kTable}, [&] {
    const Configuration configuration = read_configuration(kOptions.configDir);
    Findings findings;
    check_files(configuration, Driver(), findings);
    const auto lines = [](const char* path) {
      return static_cast<std::size_t>(std::ranges::count(machine::text_of(path), '\n')) + 1;
    };
    const std::size_t settings = lines(kSettings), steps = lines(kTable);
    for (const Finding& finding : findings) {
      const std::string_view place = finding.place;
      const std::size_t colon = place.rfind(':');
      const bool ofTable = place.substr(0, colon) == kTable;
      expect(ofTable || place.substr(0, colon) == kSettings);
      const auto line = std::strtoul(place.substr(colon + 1).data(), nullptr, 10);
      expect(line >= 1 && line <= (ofTable ? steps : settings));
    }
  });
}

// A look at the chips takes half of the time: they are there only when the input chooses one.
void read_check(const Input& input) {
  if (input.pieces.size() <= 2) machine::leave_out("/sys/class/hwmon");
  with_files(input, {kSettings, kTable, "/etc/fan_controller/fan_link.conf"},
             [&] { (void)run_check({.json = input.option}); });
  expect_output(input);
}

void read_chip(const Input& input) {
  static const std::string chip = kChip;
  static const std::string name = chip + "name", mode = chip + "pwm1_enable",
                           label = chip + "temp1_label", value = chip + "temp1_input";
  with_files(input, {name.c_str(), mode.c_str(), label.c_str(), value.c_str()},
             [&] { (void)run_hardware({.json = input.option}); });
  expect_output(input);
}

void read_service(const Input& input) {
  leave_fan_out();
  with_files(input, {"/var/run/fan_controller.pid", "/proc/1/stat", kStandby, "/systemctl"},
             [&] { (void)run_status({.json = input.option}, {}); });
  expect_output(input);
}

void read_guard_and_link(const Input& input) {
  with_files(
      input,
      {kRecord, "/run/fan_controller/fan/.link/record", "/sys/class/hwmon/hwmon1/fan1_input"},
      [&] { (void)run_status({.json = input.option}, {}); });
  expect_output(input);
}

// As metrics: a line each, with its name.
void read_disk_answers(const Input& input) {
  leave_fan_out();
  machine::disk = {input.piece(1), input.piece(2), input.piece(3)};
  with_files(input, {"/proc/partitions"},
             [&] { (void)run_status({}, {.prometheus = input.option}); });
  expect(is_shown_safely(machine::shown));
}

// The guard never lowers a command.
void read_guard(const Input& input) {
  static const std::string chip = kChip;
  static const std::string command = chip + "pwm1", sensor = chip + "temp1_input";
  int before = 0, after = 0;
  with_files(input, {kRecord, "/run/fan_controller/guard", command.c_str(), sensor.c_str(), kTable},
             [&] {
               before = read_number(command).value_or(0);
               (void)run_guard({}, {.serviceEnded = input.option});
               after = read_number(command).value_or(0);
             });
  expect(after >= before);
}

void read_told(const Input& input) {
  leave_fan_out();
  with_files(input, {"/var/lib/fan_controller/told", "/run/fan_controller/status", kRecord},
             [&] { (void)run_notify({}, {}); });
}

void read_standby(const Input& input) {
  with_files(input, {kStandby, "/proc/1/status", "/proc/1/stat"},
             [&] { (void)run_standby({}, {.end = input.option, .dryRun = true}); });
  expect(machine::written.empty());
}

// What a record says is written to a mode and nothing else.
void read_link(const Input& input) {
  with_files(input,
             {"/run/fan_controller/fan/.link/record", "/run/fan_controller/fan.new/.link/record"},
             [&] { (void)run_link({}, {.undo = true}); });
  for (const std::string& path : machine::written) {
    expect(path.ends_with("_enable") || path.ends_with(".fanctl.lock"));
  }
}

void read_curve(const Input& input) {
  with_files(input, {kTable, kSettings}, [&] { (void)run_curve({.json = input.option}, {}); });
}

constexpr Reader kReaders[] = {
    {'l', read_lines},          {'c', read_check},        {'h', read_chip},  {'s', read_service},
    {'r', read_guard_and_link}, {'d', read_disk_answers}, {'g', read_guard}, {'n', read_told},
    {'y', read_standby},        {'u', read_link},         {'p', read_curve}};

}  // namespace

std::span<const Reader> companion_readers() { return kReaders; }
