// lab: a day of the fan control service at the developer's desk.
//
// Runs the shipped binary on the simulated appliance, in the closed loop with an enclosure that
// heats up or on recorded temperatures, with each rule of the table, and beside it a rival table.
// What the configuration means comes from the service itself; the lab links nothing of it.
//
// Everything is read and checked first, then run, then drawn and written: while an appliance is
// laid out, this program's own paths below /run, /sys and /var/tmp are the appliance's too.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "configuration.h"
#include "day.h"
#include "files.h"
#include "page.h"
#include "picture.h"
#include "run.h"
#include "stop.h"
#include "summary.h"
#include "text.h"

namespace {

enum Status { kFine = 0, kOtherOverheats = 1, kFailed = 2, kWrongUse = 64, kSignal = 128 };

struct Options {
  std::string config = LAB_CONFIG;
  std::string against;
  std::string enclosure = LAB_FOLDER "/enclosures/four-bay";
  std::string day = LAB_FOLDER "/days/summer";
  std::string replay;
  int hours = 0;
  std::string out = "build/lab";
};

void add_options(CLI::App& app, Options& options) {
  app.add_option("--config", options.config, "folder of the service's two files")->type_name("DIR");
  app.add_option("--against", options.against, "the folder of a rival")->type_name("DIR");
  app.add_option("--enclosure", options.enclosure, "what heats up")->type_name("FILE");
  auto* day = app.add_option("--day", options.day, "what happens")->type_name("FILE");
  app.add_option("--replay", options.replay, "recorded temperatures: lines of seconds,celsius")
      ->type_name("FILE.csv")
      ->excludes(day);
  app.add_option("--hours", options.hours, "how long, 24 by default; with --replay all of it")
      ->type_name("N")
      ->check(CLI::Range(1, 168));
  app.add_option("--out", options.out, "folder for the report")
      ->type_name("DIR")
      ->capture_default_str();
  app.footer(
      "Exit status: 0 fine, 1 another rule or table overheats, 2 the table overheats, bad input or "
      "a failure, 64 wrong use.");
}

// Progress on standard error: one line that changes, or a line a run where it is no terminal.
class Progress {
 public:
  Progress(std::size_t number, std::size_t count, const std::string& title)
      : m_text(text_of("Run %zu of %zu: %s", number, count, title.c_str())) {
    (void)std::fprintf(stderr, m_isTerminal ? "%s" : "%s\n", m_text.c_str());
  }
  ~Progress() {
    if (m_isTerminal) (void)std::fprintf(stderr, "\r\x1b[K");
  }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void show(double part) const {
    constexpr double kPercent = 100;
    if (m_isTerminal) (void)std::fprintf(stderr, "\r%s %3.0f %%", m_text.c_str(), part * kPercent);
  }

 private:
  bool m_isTerminal = ::isatty(STDERR_FILENO) == 1;
  std::string m_text;
};

// Commands that can hardly be meant for this fan.
std::string misfit_of(const Configuration& configuration, const Scenario& scenario) {
  constexpr double kSpeeds = 1000, kTooHigh = 1.5;
  constexpr int kDutyMost = 255;
  const double full = scenario.parameters.fullCommand;
  const int highest = configuration.highestCommand();
  const bool isLow = full > kSpeeds && highest <= kDutyMost;
  if (!isLow && highest <= full * kTooHigh) return "";
  return text_of(
      "%s: its highest command is %d, but the fan of %s runs at full speed with %.0f: is "
      "the table for another driver?",
      configuration.name.c_str(), highest, scenario.enclosureName.c_str(), full);
}

Run run_one(const Configuration& configuration, bool isRival, bool hysteresis,
            const Scenario& scenario, std::size_t number, std::size_t count) {
  Run named;
  named.isRival = isRival;
  named.hysteresis = hysteresis;
  const Progress progress(number, count, title_of(named));
  Run run =
      run_service(configuration, hysteresis, scenario, [&](double part) { progress.show(part); });
  run.isRival = isRival;
  return run;
}

// The appliance's files are written again and again: in memory that takes a fifth of the time.
void prefer_memory() {
  constexpr char kMemory[] = "/dev/shm";
  if (::access(kMemory, W_OK | X_OK) == 0) (void)::setenv("TMPDIR", kMemory, 0);
}

Status work(const Options& options) {
  const Scenario scenario =
      read_scenario(options.enclosure, options.day, options.replay, options.hours);
  std::vector<Configuration> configurations = {read_configuration(options.config)};
  if (!options.against.empty()) configurations.push_back(read_configuration(options.against));
  const Workshop workshop(options.out);

  Report report;
  report.scenario = &scenario;
  report.warnings = scenario.warnings;
  for (const Configuration& configuration : configurations) {
    const std::string misfit = misfit_of(configuration, scenario);
    if (!misfit.empty()) report.warnings.push_back(misfit);
  }
  for (const std::string& warning : report.warnings) {
    (void)std::fprintf(stderr, "lab: warning: %s\n", warning.c_str());
  }
  const std::size_t count = configurations.size() * 2;
  for (const Configuration& configuration : configurations) {
    const bool isRival = &configuration != &configurations.front();
    for (const bool otherRule : {false, true}) {
      report.runs.push_back(run_one(configuration, isRival, configuration.hysteresis != otherRule,
                                    scenario, report.runs.size() + 1, count));
      report.totals.push_back(totals_of(report.runs.back(), scenario));
    }
  }
  if (report.hasRival()) report.compared = 2;

  const Pictures pictures = draw(report, workshop.folder());
  Files files = csv_files(report);
  files["day.svg"] = document_of(pictures.wide);
  files["day-narrow.svg"] = document_of(pictures.narrow);
  files["report.html"] = page_of(report, pictures);
  throw_when_stopped();
  workshop.deliver(files);
  (void)std::fputs(summary_of(report, ::isatty(STDOUT_FILENO) == 1).c_str(), stdout);
  (void)std::printf("\nReport: %s/report.html\n", options.out.c_str());
  const std::string alarm = alarm_of(report);
  if (!report.overheats()) return alarm.empty() ? kFine : kOtherOverheats;
  (void)std::fprintf(stderr, "lab: %s/fan_cmd_tab.conf: %s\n", options.config.c_str(),
                     alarm.c_str());
  return kFailed;
}

int run(int argc, char* argv[]) {
  CLI::App app("Tries out a fan table: the shipped service in a simulated enclosure.", "lab");
  Options options;
  add_options(app, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kFine : kWrongUse;
  }
  remember_signals();
  prefer_memory();
  const Status status = work(options);
  return std::fflush(stdout) == 0 ? status : kFailed;
}

}  // namespace

int main(int argc, char* argv[]) {
  try {
    return run(argc, argv);
  } catch (const Stopped& stopped) {
    return kSignal + stopped.signal;
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "lab: %s\n", error.what());
    return kFailed;
  }
}
