// fanctl: the command line.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <iterator>
#include <string>

#include "commands.h"
#include "terminal.h"
#include "utils.h"

namespace {

constexpr int kLongestWatch = 3600;  // seconds

// All that the command line can say.
struct CommandLine {
  Options options;
  LinkOptions link;
  CurveOptions curve;
  StatusOptions status;
  NotifyOptions notify;
  GuardOptions guard;
  StandbyOptions standby;
};

ExitStatus refuse(const char* why) {
  (void)std::fprintf(stderr, "%s\n", why);
  return EXIT_WRONG_USE;
}

// --- What each subcommand takes ---

void add_nothing(CLI::App&, CommandLine&) {}

void add_link(CLI::App& command, CommandLine& line) {
  LinkOptions& link = line.link;
  command
      .add_option("chip", link.chip,
                  "chip and, after a colon, the number of its PWM (1 if left out); "
                  "without it, what --at-boot noted")
      ->type_name("CHIP[:CHANNEL]");
  command
      .add_option_function<std::string>(
          "--to", [&link](const std::string& to) { link.folder = to, link.folderNamed = true; },
          "the folder to make")
      ->type_name("DIR")
      ->default_str(link.folder);
  command
      .add_option("--sensor", link.sensor,
                  "a temperature to link as well, in the folder's sensor/temp1_input")
      ->type_name("CHIP[:NUMBER]");
  auto* atBoot =
      command.add_flag("--at-boot", link.atBoot, "make it again before the service starts");
  command.add_flag("--undo", link.undo, "remove the folder, give the chip its mode back")
      ->excludes(atBoot);
}

ExitStatus link_or_refuse(const CommandLine& line) {
  const LinkOptions& link = line.link;
  if (link.undo && (!link.chip.empty() || !link.sensor.empty())) {
    return refuse("--undo takes no CHIP: it knows what was linked");
  }
  if (link.chip.empty() && !link.undo && (!link.sensor.empty() || link.folderNamed)) {
    return refuse("--to and --sensor need a CHIP: see fanctl hardware");
  }
  if (!link.folder.starts_with('/')) return refuse("--to wants a folder with its whole path");
  if (link.atBoot && link.chip.empty()) {
    return refuse("--at-boot needs a CHIP: see fanctl hardware");
  }
  return run_link(line.options, link);
}

void add_curve(CLI::App& command, CommandLine& line) {
  command.add_option("--svg", line.curve.svgFile, "draw into this file instead")->type_name("FILE");
}

void add_status(CLI::App& command, CommandLine& line) {
  StatusOptions& status = line.status;
  auto* json = command.get_option("--json");
  auto* metrics =
      command.add_flag("--prometheus", status.prometheus, "the same as metrics")->excludes(json);
  command.add_option("--output", status.outputFile, "write the metrics into this file instead")
      ->type_name("FILE")
      ->needs(metrics);
  command.add_option("--watch", status.watchSeconds, "show it again and again until q is pressed")
      ->type_name("SECONDS")
      ->check(CLI::Range(1, kLongestWatch))
      ->excludes(json)
      ->excludes(metrics);
}

ExitStatus status_or_refuse(const CommandLine& line) {
  if (line.status.watchSeconds > 0 && !on_terminal()) {
    return refuse("--watch needs a terminal to write to");
  }
  return run_status(line.options, line.status);
}

void add_notify(CLI::App& command, CommandLine& line) {
  command.add_option("--test", line.notify.test, "try all hooks with this event")
      ->type_name("EVENT");
}

void add_guard(CLI::App& command, CommandLine& line) {
  GuardOptions& guard = line.guard;
  command.add_flag("--dry-run", guard.dryRun, "only say what is wrong and what would be done");
  command.add_flag("--no-disks", guard.noDisks, "measure the sensor only");
  command.add_flag("--service-ended", guard.serviceEnded,
                   "for the service's unit: it has ended other than by a stop");
}

void add_standby(CLI::App& command, CommandLine& line) {
  StandbyOptions& standby = line.standby;
  command.add_flag("--end", standby.end, "bring the service back to normal operation");
  command.add_flag("--dry-run", standby.dryRun, "say what would be done, and do nothing");
}

struct Subcommand {
  const char* name;
  const char* what;
  bool lists;  // it can write JSON
  void (*add)(CLI::App&, CommandLine&);
  ExitStatus (*run)(const CommandLine&);
};

constexpr Subcommand kSubcommands[] = {
    {"check", "what the service will do here, and what is wrong", true, add_nothing,
     [](const CommandLine& line) { return run_check(line.options); }},
    {"hardware", "chips, fans, temperatures and disks", true, add_nothing,
     [](const CommandLine& line) { return run_hardware(line.options); }},
    {"link", "make the folder that the service takes for a driver", false, add_link,
     link_or_refuse},
    {"curve", "draw the command over the temperature", true, add_curve,
     [](const CommandLine& line) { return run_curve(line.options, line.curve); }},
    {"status", "what holds now: service, fan, alerts, disks", true, add_status, status_or_refuse},
    {"notify", "tell what has changed, by the hooks of hooks.d", false, add_notify,
     [](const CommandLine& line) { return run_notify(line.options, line.notify); }},
    {"guard", "the highest command when the service or a disk needs it", false, add_guard,
     [](const CommandLine& line) { return run_guard(line.options, line.guard); }},
    {"standby", "let the service rest while all disks sleep", false, add_standby,
     [](const CommandLine& line) { return run_standby(line.options, line.standby); }},
};

// --- The command line ---

void add_common(CLI::App& command, const Subcommand& row, Options& options) {
  command.add_option("-c,--config-dir", options.configDir, "folder of the service's two files")
      ->type_name("DIR")
      ->capture_default_str();
  if (row.lists) command.add_flag("--json", options.json, "the same as JSON, for programs");
}

// What CLI11 says about wrong use, with the status that all subcommands share. To ask for help is
// no wrong use.
int explain(const CLI::App& app, const CLI::ParseError& error, const char* first) {
  if (dynamic_cast<const CLI::RequiredError*>(&error) == nullptr || first == nullptr ||
      !app.get_subcommands().empty()) {
    return app.exit(error) == 0 ? EXIT_FINE : EXIT_WRONG_USE;
  }
  std::string names;
  for (const Subcommand& row : kSubcommands) {
    const bool isLast = &row == std::end(kSubcommands) - 1;
    names += join({names.empty() ? "" : (isLast ? " or " : ", "), row.name});
  }
  return refuse(join({"fanctl: there is no ", first, ": ", names}).c_str());
}

int run(int argc, char* argv[]) {
  CLI::App app("Prepares a machine for the fan control service, and looks after it.", "fanctl");
  app.set_version_flag("--version", FANCTL_VERSION);
  app.require_subcommand(1);
  app.footer("Exit status: 0 nothing to say, 1 warnings, 2 errors, 64 wrong use. See fanctl(8).");
  CommandLine line;
  for (const Subcommand& row : kSubcommands) {
    CLI::App& command = *app.add_subcommand(row.name, row.what);
    add_common(command, row, line.options);
    row.add(command, line);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return explain(app, error, argc > 1 ? argv[1] : nullptr);
  }
  const std::string name = app.get_subcommands().front()->get_name();
  for (const Subcommand& row : kSubcommands) {
    if (row.name == name) return row.run(line);
  }
  return EXIT_WRONG_USE;
}

}  // namespace

int main(int argc, char* argv[]) {
  silence_traces();  // of the service's own readers
  try {
    const int status = run(argc, argv);
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
    std::perror("fanctl: standard output");
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "fanctl: %s\n", error.what());
  }
  return EXIT_ERRORS;
}
