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
#include "terminal.h"

namespace {

constexpr int kBetweenLooks = 5;  // seconds; longer than a restart of the service takes
constexpr int kLockPatience = 3;
constexpr int kDiskPatience = 40;  // for all disks; one that hangs takes 20 for each question
constexpr int kDiskPause = 300;    // some disks do not fall asleep when they are asked too often
constexpr int kHour = 3600;
constexpr int kTenMinutes = 600;
constexpr int kUntilShown = 1;  // seconds until a chip shows a command that it has taken
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
  bool isHot = false;  // with whatever command
  bool asksDisks = false;
  ServiceState service = ServiceState::kRuns;
  std::vector<Reason> reasons;

  void add(const char* name, std::initializer_list<TextPiece> text) {
    reasons.push_back({name, join(text)});
  }
};

// A driver that is not recognised at this moment, because one of its attributes cannot be read, can
// still take a command. Only GPIO fans have these limits.
std::string find_command(const std::string& folder, const Driver& driver) {
  if (driver.row != nullptr) return driver.commandPath;
  if (folder.empty()) return {};
  const bool isGpio = exists(folder + "/fan1_min") && !exists(folder + "/fan1_div");
  const bool bySpeed = isGpio || runs_close_loop(folder).value_or(false);
  std::string path = join({folder, "/", bySpeed ? FAN_TARGET : FAN_PWM});
  return exists(path) ? path : std::string();
}

int full_command(const Look& look) {
  if (!look.commandPath.ends_with(FAN_TARGET)) return kFullPower;
  const std::string folder = look.configuration.settings.m_fanDriverSysfsDir;
  const int most = read_number(folder + "/fan1_max").value_or(0);
  return most > 0 ? most : kFullSpeed;
}

// The greatest number of the table, at whatever step it stands; 0 when it has none above that.
int table_command(const CommandTable& table) {
  int highest = 0;
  for (const auto& [temperature, command] : table) highest = std::max(highest, command);
  return highest;
}

int highest_command(const Look& look) {
  const int highest = table_command(look.configuration.table);
  return highest > 0 ? highest : full_command(look);
}

bool is_below_highest(const Look& look) { return !look.command || *look.command < look.highest; }

void check_heat(Look& look, const std::optional<Reading>& reading) {
  if (!reading) return;
  if (!look.hottest || reading->celsius > look.hottest->celsius) look.hottest = reading;
  const int critical = look.configuration.settings.m_hddCriticalTemp;
  if (reading->celsius <= critical) return;
  look.isHot = true;
  if (!is_below_highest(look)) return;
  look.add("hot", {reading->source, " has ", reading->celsius, " C, above the critical ", critical,
                   " C, and the fan has less than the highest command"});
}

void check_service(Look& look) {
  const ServiceState state = look.service =
      look_at_service(look.configuration.settings.m_pidFile).state;
  if (state == ServiceState::kEnded) {
    look.add("ended", {"the fan control service does not run, although it should"});
  } else if (state == ServiceState::kHalted) {
    look.add("halted", {"a signal holds the fan control service, so it does nothing"});
  }
}

void check_table(Look& look) {
  const Configuration& configuration = look.configuration;
  if (table_command(configuration.table) > 0) return;
  look.add("table", {"the table ", configuration.tablePath,
                     !configuration.hasTable       ? " cannot be read"
                     : configuration.table.empty() ? " has no step"
                                                   : " has no command above 0"});
}

// A disk that is awake and answers, but has no temperature, and a memory stick that answers
// nothing, are no fault beside disks that sleep.
bool seem_blind(const DiskList& list) {
  const auto sleeps = [](const DiskState& disk) { return disk.power == PowerMode::kStandby; };
  const auto isMute = [](const DiskState& disk) {
    return disk.power == PowerMode::kActive && disk.model.empty();
  };
  if (!list.listed || std::ranges::any_of(list.disks, isMute)) return true;
  return !list.disks.empty() && std::ranges::none_of(list.disks, sleeps);
}

// While the sensor is well, the disks are asked every fifth minute.
bool is_time_for_disks() {
  const std::string path = join({RUN_FOLDER, "/guard"});
  const std::time_t now = std::time(nullptr);
  const auto last = number_in(read_state(path)["disks_asked"], LATEST_MOMENT);
  if (last <= now && now - last < kDiskPause) return false;
  (void)write_state(path, {{"disks_asked", std::to_string(now)}});
  return true;
}

void check_disks(Look& look, const GuardOptions& guard) {
  const bool isWell = look.hottest.has_value();
  if (!look.asksDisks && !guard.noDisks) {
    look.asksDisks = !isWell || guard.dryRun || read_guard_record().stands || is_time_for_disks();
  }
  DiskList list{.listed = true};
  if (look.asksDisks) {
    list = list_disk_states({.askSilent = !isWell, .nameAll = false, .seconds = kDiskPatience});
  }
  check_heat(look, hottest_disk(list));
  const bool hasSensor = !look.configuration.settings.m_tempSensorPath.empty();
  if (!look.hottest && (hasSensor || seem_blind(list))) {
    look.add("blind", {"no temperature can be read"});
  }
}

// The disks come last: one that hangs takes long, and what is wrong already is enough.
Look look_around(const Options& options, const GuardOptions& guard, bool asksDisks = false) {
  Look look;
  look.asksDisks = asksDisks;
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
  if (look.reasons.empty()) check_disks(look, guard);
  return look;
}

// --- What is done ---

enum Outcome { kStood, kRaised, kFailed };

// A chip with few steps shows another number than it was given: near enough counts as taken.
bool is_near(int command, int highest) {
  constexpr int kPart = 5;
  return command >= highest - highest / kPart;
}

Outcome give_highest(Look& look, std::string& failure) {
  const auto before = look.command = read_number(look.commandPath);
  if (!is_below_highest(look)) return kStood;
  if (look.commandPath.empty()) {
    failure = "there is no fan driver to give it to";
    return kFailed;
  }
  // Of a command that cannot be read it is not known whether this would lower it.
  if (!before) look.highest = std::max(look.highest, full_command(look));
  const int error = write_text(look.commandPath, join({look.highest, "\n"}), 0);
  if (error != 0) {
    failure = join({look.commandPath, ": ", std::strerror(error)});
    return kFailed;
  }
  (void)::sleep(kUntilShown);
  look.command = read_number(look.commandPath);
  if (look.command && !is_near(*look.command, look.highest) && look.command <= before) {
    failure = join({look.commandPath, " still reads ", *look.command});
    return kFailed;
  }
  return before && before == look.command ? kStood : kRaised;
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

// Whether somebody has to be told: of something new; of the same when it is an hour later and the
// fan had lost the command or never took it; but not of each crash of a service that crashes again
// and again.
bool is_news(const GuardRecord& record, const std::string& reasons, Outcome outcome) {
  if (record.reasons != reasons || (outcome == kFailed && !record.failed)) return true;
  const std::time_t age = std::time(nullptr) - record.since;
  if (age < 0 || age >= kHour) return !record.stands || outcome != kStood;
  return !record.stands && age >= kTenMinutes;
}

Descriptor wait_for_lock() {
  const std::string path = join({RUN_FOLDER, "/.guard.lock"});
  for (int second = 0;; ++second) {
    Descriptor lock = lock_file(path);
    if (lock || errno != EWOULDBLOCK || second == kLockPatience) return Descriptor(lock.release());
    (void)::sleep(1);
  }
}

void keep(const GuardRecord& record) {
  if (write_guard_record(record)) return;
  (void)std::fprintf(stderr, "%s cannot be written: %s\n", GUARD_RECORD, std::strerror(errno));
}

// First the command, then the system log, whose hanging costs seconds at most, then what a full or
// hanging disk may hold up.
ExitStatus act(Look& look) {
  std::string failure;
  const Outcome outcome = give_highest(look, failure);
  const std::string reasons = names(look.reasons);
  GuardRecord record = read_guard_record();
  if (outcome == kStood && reasons == "hot") {  // the chip shows less than it was given
    (void)std::printf("It is too hot, and the fan has the highest command.\n");
    return EXIT_FINE;
  }
  const std::string text = sentence(look, outcome, failure);
  (void)std::fprintf(stderr, "fanctl guard: %s\n", text.c_str());
  const bool isNews = is_news(record, reasons, outcome);
  if (isNews || outcome == kRaised) log(text);
  if (isNews) {
    ++record.number;
    record.since = std::time(nullptr);
    record.temperature = look.hottest ? std::to_string(look.hottest->celsius) : "";
  }
  record.stands = true;
  record.failed = outcome == kFailed;
  record.reasons = reasons;
  if (isNews || outcome != kStood) record.text = text;
  keep(record);
  return outcome == kFailed ? EXIT_ERRORS : EXIT_WARNINGS;
}

// before: as it was before the look, which knows nothing of what another run has done since. False
// when there was nothing to end.
bool note_end(const GuardRecord& before) {
  GuardRecord record = read_guard_record();
  if (!before.stands || !record.stands || record.number != before.number) return false;
  record.stands = false;
  keep(record);
  return true;
}

ExitStatus say(const Look& look) {
  for (const Reason& reason : look.reasons) (void)std::printf("%s\n", reason.text.c_str());
  if (look.reasons.empty()) {
    (void)std::printf(look.isHot ? "It is too hot, and the fan has the highest command.\n"
                                 : "Nothing is wrong.\n");
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

}  // namespace

ExitStatus run_guard(const Options& options, const GuardOptions& guard) {
  const GuardRecord before = read_guard_record();
  Look look = look_around(options, guard);
  const std::string folder = look.configuration.settings.m_fanDriverSysfsDir;
  if (folder.empty() || (!look.configuration.hasSettings && look.commandPath.empty())) {
    (void)std::printf("No fan is controlled here: there is nothing to guard.\n");
    return EXIT_FINE;
  }
  // A service that is stopped has given the chip its own control back, and the folder is gone; the
  // sensor may have been in it.
  if (look.service == ServiceState::kOff && !exists(folder)) {
    (void)std::printf("The service is stopped, and %s is gone: there is nothing to guard.\n",
                      folder.c_str());
    if (guard.dryRun || !before.stands) return EXIT_FINE;
    const Descriptor lock = wait_for_lock();
    (void)note_end(before);
    return EXIT_FINE;
  }
  if (guard.dryRun) return say(look);
  // A table that is being written and a service that is being restarted are in order a moment
  // later.
  if (!look.reasons.empty() && !guard.serviceEnded) {
    (void)::sleep(kBetweenLooks);
    look = look_around(options, guard, look.asksDisks);
  }
  ExitStatus status = EXIT_FINE;
  {
    // Another run may hang. The fan gets its command all the same.
    const Descriptor lock = wait_for_lock();
    if (!look.reasons.empty()) {
      status = act(look);
    } else if (look.isHot) {
      (void)std::printf("It is too hot, and the fan has the highest command.\n");
    } else if (note_end(before)) {
      (void)std::printf("Nothing is wrong any more.\n");
    } else if (on_terminal()) {
      (void)std::printf("Nothing is wrong.\n");
    }
  }
  if (!guard.serviceEnded) supply_alarm(folder, look.driver);
  return status;
}
