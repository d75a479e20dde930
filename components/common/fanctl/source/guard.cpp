// fanctl guard: the last line of defence. It measures for itself, and gives the fan the table's
// highest command when something is wrong. It never lowers a command and never sends a signal.
#include "guard.h"

#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "alerts.h"
#include "commands.h"
#include "files.h"
#include "hwmon.h"
#include "link-plan.h"
#include "measurement.h"
#include "service-process.h"
#include "state.h"

namespace {

constexpr int kBetweenLooks = 5;  // seconds; longer than a restart of the service takes
constexpr int kLockPatience = 10;
constexpr int kHour = 3600;
constexpr int kFullPower = 255;
constexpr int kFullSpeed = 10000;  // rpm; a driver takes what its fan can do

// --- What is wrong ---

struct Reason {
  const char* name;
  std::string text;
};

struct Look {
  Configuration configuration;
  Driver driver;
  std::string commandPath;  // empty: there is no fan to give a command to
  int highest = 0;          // command
  std::optional<int> command;
  std::optional<Reading> hottest;
  std::vector<Reason> reasons;

  void add(const char* name, std::initializer_list<TextPiece> text) {
    reasons.push_back({name, join(text)});
  }
};

std::optional<int> read_number(const std::string& path) {
  const auto text = read_attribute(path);
  if (!text || text->find_first_of("0123456789") == std::string::npos) return std::nullopt;
  return parse_int(text->c_str());
}

// A driver that is not recognised at this moment, because one of its attributes cannot be read, can
// still take a command.
std::string find_command(const std::string& folder, const Driver& driver) {
  if (driver.row != nullptr) return driver.commandPath;
  if (folder.empty()) return {};
  const bool bySpeed = runs_close_loop(folder).value_or(false);
  std::string path = join({folder, "/", bySpeed ? FAN_TARGET : FAN_PWM});
  return exists(path) ? path : std::string();
}

int highest_command(const Look& look) {
  if (!look.configuration.table.empty()) return last_command(look.configuration.table);
  if (!look.commandPath.ends_with(FAN_TARGET)) return kFullPower;
  const std::string folder = look.configuration.settings.m_fanDriverSysfsDir;
  const int most = read_number(folder + "/fan1_max").value_or(0);
  return most > 0 ? most : kFullSpeed;
}

bool is_below_highest(const Look& look) { return !look.command || *look.command < look.highest; }

void check_heat(Look& look, const std::optional<Reading>& reading) {
  if (!reading) return;
  if (!look.hottest || reading->celsius > look.hottest->celsius) look.hottest = reading;
  const int critical = look.configuration.settings.m_hddCriticalTemp;
  if (reading->celsius <= critical || !is_below_highest(look)) return;
  look.add("hot", {reading->source, " has ", reading->celsius, " C, above the critical ", critical,
                   " C, and the fan has less than the highest command"});
}

void check_service(Look& look) {
  const ServiceState state = look_at_service().state;
  if (state == ServiceState::kEnded) {
    look.add("ended", {"the fan control service does not run, although it should"});
  } else if (state == ServiceState::kHalted) {
    look.add("halted", {"a signal holds the fan control service, so it does nothing"});
  }
}

void check_table(Look& look) {
  const Configuration& configuration = look.configuration;
  if (!configuration.table.empty()) return;
  look.add("table", {"the table ", configuration.tablePath,
                     configuration.hasTable ? " has no step" : " cannot be read"});
}

// A thing that answers nothing may be a memory stick beside sleeping disks: it counts only where
// nothing sleeps.
bool seem_awake(const DiskList& list) {
  const auto has = [&](PowerMode power) {
    return std::ranges::find(list.disks, power, &DiskState::power) != list.disks.end();
  };
  if (has(PowerMode::kActive)) return true;
  return !list.listed || (has(PowerMode::kUnknown) && !has(PowerMode::kStandby));
}

// The disks come last: one that hangs takes 20 seconds, and what is wrong already is enough.
Look look_around(const Options& options, const GuardOptions& guard) {
  Look look;
  look.configuration = read_configuration(options.configDir);
  Settings& settings = look.configuration.settings;
  if (!look.configuration.hasSettings) settings.m_fanDriverSysfsDir = LinkOptions().folder;
  look.driver = find_driver(settings);
  look.commandPath = find_command(settings.m_fanDriverSysfsDir, look.driver);
  look.highest = highest_command(look);
  look.command = read_number(look.commandPath);
  if (guard.serviceEnded) {
    look.add("ended", {"the fan control service has ended, and not by a stop"});
    return look;
  }
  check_service(look);
  check_table(look);
  if (read_number(settings.m_tempSensorPath)) check_heat(look, read_sensor(settings));
  if (!look.reasons.empty()) return look;

  const auto askSilent = look.hottest ? AskSilent::kNo : AskSilent::kYes;
  const DiskList list = guard.noDisks ? DiskList{.listed = true} : list_disk_states(askSilent);
  check_heat(look, hottest_disk(list));
  const bool hasSensor = !settings.m_tempSensorPath.empty();
  if (!look.hottest && (hasSensor || seem_awake(list))) {
    look.add("blind", {"no temperature can be read"});
  }
  return look;
}

// What both looks have found: a table that is being written and a service that is being restarted
// are in order a moment later.
void keep_lasting(Look& look, const Look& before) {
  std::erase_if(look.reasons, [&](const Reason& reason) {
    return std::ranges::none_of(before.reasons, [&](const Reason& each) {
      return std::string_view(each.name) == reason.name;
    });
  });
}

// --- What is done ---

enum Outcome { kStood, kRaised, kFailed };

// A chip with few steps shows another number than it was given: near enough counts as taken.
bool is_near(int command, int highest) {
  constexpr int kPart = 8;
  return command >= highest - highest / kPart;
}

Outcome give_highest(Look& look, std::string& failure) {
  if (!is_below_highest(look)) return kStood;
  if (look.commandPath.empty()) {
    failure = "there is no fan driver to give it to";
    return kFailed;
  }
  const auto before = look.command;
  const int error = write_text(look.commandPath, join({look.highest, "\n"}), 0);
  look.command = read_number(look.commandPath);
  if (error != 0) failure = join({look.commandPath, ": ", std::strerror(error)});
  if (error == 0 && look.command && !is_near(*look.command, look.highest)) {
    failure = join({look.commandPath, " still reads ", *look.command});
  }
  if (!failure.empty()) return kFailed;
  return before == look.command && before ? kStood : kRaised;
}

std::string sentence(const Look& look, Outcome outcome, const std::string& failure) {
  std::string text;
  for (const Reason& reason : look.reasons) {
    text += join({text.empty() ? "" : "; ", reason.text});
  }
  const std::string command = std::to_string(look.highest);
  if (outcome == kStood) return join({text, ": the fan has the highest command already"});
  if (outcome == kRaised) return join({text, ": the fan was given the highest command, ", command});
  return join({text, ": the fan could not be given the highest command, ", command, ": ", failure});
}

void wake(int) {}

// A system log that hangs must not hold up whoever called: the timer's signal ends the wait.
void log(const std::string& text) {
  struct sigaction action {};
  action.sa_handler = wake;
  (void)::sigaction(SIGALRM, &action, nullptr);
  const itimerval patience = {.it_interval = {1, 0}, .it_value = {1, 0}};
  (void)::setitimer(ITIMER_REAL, &patience, nullptr);
  ::syslog(LOG_CRIT, "fanctl guard: %s", text.c_str());
  const itimerval off = {};
  (void)::setitimer(ITIMER_REAL, &off, nullptr);
}

std::string names(const std::vector<Reason>& reasons) {
  std::string list;
  for (const Reason& reason : reasons) list += join({list.empty() ? "" : " ", reason.name});
  return list;
}

// Whether somebody has to be told: of something new, or once more when the fan had lost the command
// again after an hour.
bool is_news(const GuardRecord& record, const std::string& reasons, Outcome outcome) {
  if (!record.stands || record.reasons != reasons) return true;
  return outcome == kRaised && std::time(nullptr) - record.since >= kHour;
}

void keep(const GuardRecord& record) {
  if (write_guard_record(record)) return;
  (void)std::fprintf(stderr, "%s cannot be written: %s\n", GUARD_RECORD, std::strerror(errno));
}

ExitStatus act(Look& look) {
  std::string failure;
  const Outcome outcome = give_highest(look, failure);
  if (outcome == kStood && look.reasons.size() == 1 &&
      look.reasons.front().name == std::string_view("hot")) {
    (void)std::printf("The fan has the highest command.\n");
    return EXIT_FINE;
  }
  const std::string text = sentence(look, outcome, failure);
  GuardRecord record = read_guard_record();
  const std::string reasons = names(look.reasons);
  const bool isNews = is_news(record, reasons, outcome);
  if (isNews) {
    record = {record.number + 1,
              true,
              std::time(nullptr),
              reasons,
              look.hottest ? std::to_string(look.hottest->celsius) : "",
              text};
    keep(record);
  }
  (void)std::fprintf(stderr, "fanctl guard: %s\n", text.c_str());
  if (isNews || outcome == kRaised) log(text);
  return outcome == kFailed ? EXIT_ERRORS : EXIT_WARNINGS;
}

void note_end() {
  GuardRecord record = read_guard_record();
  if (!record.stands) return;
  record.stands = false;
  keep(record);
  (void)std::printf("Nothing is wrong any more.\n");
}

ExitStatus say(const Look& look) {
  for (const Reason& reason : look.reasons) (void)std::printf("%s\n", reason.text.c_str());
  if (look.reasons.empty()) {
    (void)std::printf("Nothing is wrong.\n");
    return EXIT_FINE;
  }
  if (!is_below_highest(look)) {
    (void)std::printf("The fan has the highest command, %d, already.\n", look.highest);
  } else if (look.commandPath.empty()) {
    (void)std::printf("There is no fan driver to give the highest command to.\n");
  } else {
    (void)std::printf("Would write %d to %s.\n", look.highest, look.commandPath.c_str());
  }
  return look.commandPath.empty() ? EXIT_ERRORS : EXIT_WARNINGS;
}

Descriptor wait_for_lock(bool patient) {
  const std::string path = join({RUN_FOLDER, "/.guard.lock"});
  for (int second = 0;; ++second) {
    Descriptor lock = lock_file(path);
    if (lock || errno != EWOULDBLOCK || !patient || second == kLockPatience) {
      return Descriptor(lock.release());
    }
    (void)::sleep(1);
  }
}

}  // namespace

ExitStatus run_guard(const Options& options, const GuardOptions& guard) {
  Look look = look_around(options, guard);
  const std::string folder = look.configuration.settings.m_fanDriverSysfsDir;
  if (folder.empty() || (!look.configuration.hasSettings && look.commandPath.empty())) {
    (void)std::printf("No fan is controlled here: there is nothing to guard.\n");
    return EXIT_FINE;
  }
  if (guard.dryRun) return say(look);
  ExitStatus status = EXIT_FINE;
  {
    // Whoever calls because the service has ended does not go without: the command counts most.
    const Descriptor lock = wait_for_lock(guard.serviceEnded);
    if (!lock && errno == EWOULDBLOCK && !guard.serviceEnded) return EXIT_FINE;
    if (!look.reasons.empty() && !guard.serviceEnded) {
      (void)::sleep(kBetweenLooks);
      const Look before = std::move(look);
      look = look_around(options, guard);
      keep_lasting(look, before);
    }
    if (look.reasons.empty()) {
      note_end();
    } else {
      status = act(look);
    }
  }
  if (!guard.serviceEnded) supply_alarm(folder, look.driver);
  return status;
}
