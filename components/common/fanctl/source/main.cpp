// fanctl: the command line.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "commands.h"
#include "utils.h"

namespace {

// What CLI11 says about wrong use, with the status that all subcommands share. To ask for help is
// no wrong use.
int explain(const CLI::App& app, const CLI::ParseError& error, const char* first) {
  if (dynamic_cast<const CLI::RequiredError*>(&error) != nullptr && first != nullptr &&
      app.get_subcommands().empty()) {
    (void)std::fprintf(stderr, "fanctl: there is no %s: check, hardware, link, curve or notify\n",
                       first);
    return EXIT_WRONG_USE;
  }
  return app.exit(error) == 0 ? EXIT_FINE : EXIT_WRONG_USE;
}

void share_options(CLI::App& command, Options& options, bool lists) {
  command.add_option("-c,--config-dir", options.configDir, "folder of the service's two files")
      ->type_name("DIR")
      ->capture_default_str();
  if (lists) command.add_flag("--json", options.json, "the same as JSON, for programs");
}

int run(int argc, char* argv[]) {
  CLI::App app(
      "Prepares a machine for the fan control service, and tells what the service will do.",
      "fanctl");
  app.set_version_flag("--version", FANCTL_VERSION);
  app.require_subcommand(1);
  app.footer("Exit status: 0 nothing to say, 1 warnings, 2 errors, 64 wrong use. See fanctl(8).");

  Options options;
  auto* check = app.add_subcommand("check", "what the service will do here, and what is wrong");
  share_options(*check, options, true);
  auto* hardware = app.add_subcommand("hardware", "chips, fans, temperatures and disks");
  share_options(*hardware, options, true);

  LinkOptions link;
  auto* linker = app.add_subcommand("link", "make the folder that the service takes for a driver");
  share_options(*linker, options, false);
  linker
      ->add_option("chip", link.chip,
                   "chip and, after a colon, the number of its PWM (1 if left out); "
                   "without it, what --at-boot noted")
      ->type_name("CHIP[:CHANNEL]");
  auto* folder = linker->add_option("--to", link.folder, "the folder to make")
                     ->type_name("DIR")
                     ->capture_default_str();
  linker
      ->add_option("--sensor", link.sensor,
                   "a temperature to link as well, in the folder's sensor/temp1_input")
      ->type_name("CHIP[:NUMBER]");
  auto* atBoot =
      linker->add_flag("--at-boot", link.atBoot, "make it again before the service starts");
  linker->add_flag("--undo", link.undo, "remove the folder, give the chip its mode back")
      ->excludes(atBoot);

  CurveOptions curve;
  auto* drawer = app.add_subcommand("curve", "draw the command over the temperature");
  share_options(*drawer, options, true);
  drawer->add_option("--svg", curve.svgFile, "draw into this file instead")->type_name("FILE");

  NotifyOptions notify;
  auto* notifier = app.add_subcommand("notify", "tell what has changed, by the hooks of hooks.d");
  share_options(*notifier, options, false);
  notifier->add_option("--test", notify.test, "try all hooks with this event")->type_name("EVENT");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return explain(app, error, argc > 1 ? argv[1] : nullptr);
  }
  if (linker->parsed() && link.undo && (!link.chip.empty() || !link.sensor.empty())) {
    (void)std::fputs("--undo takes no CHIP: it knows what was linked\n", stderr);
    return EXIT_WRONG_USE;
  }
  if (linker->parsed() && link.chip.empty() && !link.undo &&
      (!link.sensor.empty() || folder->count() > 0)) {
    (void)std::fputs("--to and --sensor need a CHIP: see fanctl hardware\n", stderr);
    return EXIT_WRONG_USE;
  }
  if (linker->parsed() && !link.folder.starts_with('/')) {
    (void)std::fputs("--to wants a folder with its whole path\n", stderr);
    return EXIT_WRONG_USE;
  }
  if (linker->parsed() && link.atBoot && link.chip.empty()) {
    (void)std::fputs("--at-boot needs a CHIP: see fanctl hardware\n", stderr);
    return EXIT_WRONG_USE;
  }

  link.folderNamed = folder->count() > 0;

  if (check->parsed()) return run_check(options);
  if (hardware->parsed()) return run_hardware(options);
  if (linker->parsed()) return run_link(options, link);
  if (notifier->parsed()) return run_notify(options, notify);
  return run_curve(options, curve);
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
