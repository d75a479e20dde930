// fanctl notify: what has changed since it was told last, and telling it, once for each change.
//
// One file says what was told: what is known (service, fan, temperature, guard), the number of the
// newest event, the events that a hook has still to take, and for each hook the number of the last
// one that it took. It is written before hooks are run and after each success. Whatever ends a run,
// no event is lost, and none is repeated but one whose success could not be noted any more.
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "alerts.h"
#include "commands.h"
#include "configuration.h"
#include "files.h"
#include "hooks.h"
#include "measurement.h"
#include "service-process.h"
#include "state.h"
#include "terminal.h"
#include "utils.h"

namespace {

constexpr char kToldFile[] = "/var/lib/fan_controller/told";
constexpr char kLockFile[] = "/var/lib/fan_controller/.lock";
constexpr char kHookFolder[] = "/hooks.d";  // in the configuration's folder

constexpr int kBootSeconds = 300;             // until then the service may not have been started
constexpr unsigned int kRestartSeconds = 10;  // a restart of the service is over by then
constexpr unsigned int kReplaceSeconds = 1;   // the service removes one flag and makes another
constexpr std::size_t kEventsMost = 32;       // that are kept for hooks that fail
constexpr int kRounds = 4;                    // for what changes while hooks run

// --- The events ---

// What becomes known, the event that it makes, and its sentence with the host's name inside. In the
// order of cause and effect, in which several changes are told.
struct EventRow {
  std::string_view key;
  std::string_view value;  ///< empty: any
  std::string_view event;
  std::string_view before;
  std::string_view after;
};

constexpr EventRow kEventRows[] = {
    {"service", "stopped", "service_stopped", "The fan control service of ", " does not run"},
    {"service", "running", "service_started", "The fan control service of ", " runs again"},
    {"fan", "failed", "fan_failed", "The fan of ", " has failed"},
    {"fan", "working", "fan_working", "The fan of ", " works again"},
    {"temperature", "high", "temperature_high", "", " is too hot"},
    {"temperature", "critical", "temperature_critical", "", " is dangerously hot"},
    {"temperature", "normal", "temperature_normal", "", " is not too hot any more"},
    {"guard", "", "guard_acted", "The guard of ", " has acted"},
};

std::string host_name() {
  char name[HOST_NAME_MAX + 1] = {};
  return ::gethostname(name, sizeof name - 1) == 0 ? printable(name) : "this machine";
}

Notice make_notice(const EventRow& row, const std::string& temperature) {
  const std::string host = host_name();
  std::string text = join({row.before, host, row.after});
  if (!temperature.empty()) text += join({"; the temperature is ", temperature, " C"});
  return {std::string(row.event), text + ".", temperature, host};
}

// --- The temperature, without asking a disk ---

// The service's status file, when it is a fresh one. Only a plain file in a folder of root's: the
// settings may name any place.
FilePtr open_status_file(const Settings& settings) {
  const std::string& path = settings.m_dumpInfoFile;
  struct stat folder {};
  struct stat file {};
  if (path.empty() || ::stat(parent_of(path).c_str(), &folder) != 0 || others_can_write(folder)) {
    return nullptr;
  }
  const int age = 2 * std::clamp(settings.m_periodInSec, 0, INT_MAX / 4) + 1;
  Descriptor status(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!status || ::fstat(status.get(), &file) != 0 || !S_ISREG(file.st_mode) ||
      file.st_mtime < std::time(nullptr) - age) {
    return nullptr;
  }
  FilePtr opened(::fdopen(status.get(), "r"));
  if (opened) (void)status.release();
  return opened;
}

// "/dev/sda_is_OK ; Temp HDD1 = 41degC  [...]"; 0 for a line of something else.
int drive_temperature(std::string_view line) {
  const std::size_t name = line.find("Temp HDD");
  const std::size_t equals = line.find('=', name == std::string_view::npos ? line.size() : name);
  if (equals == std::string_view::npos) return 0;
  return parse_int(std::string(line.substr(equals + 1)).c_str());
}

std::string temperature_now(const Settings& settings) {
  if (const auto reading = read_sensor(settings)) return std::to_string(reading->celsius);
  int hottest = 0;
  const FilePtr file = open_status_file(settings);
  std::string line;
  while (file && read_line(file.get(), line)) hottest = std::max(hottest, drive_temperature(line));
  return hottest == 0 ? std::string() : std::to_string(hottest);
}

// --- What is to be seen ---

bool service_runs() { return look_at_service().state == ServiceState::kRuns; }

bool is_just_booted() {
  const auto uptime = sysfs_read_attr("/proc/uptime");
  return uptime && parse_int(uptime.get()) < kBootSeconds;
}

// A service that is missing is looked for twice: a restart is nothing to tell.
std::string look_for_service(const std::string& known) {
  if (service_runs()) return "running";
  if (is_just_booted() || known == "stopped") return known;
  if (!known.empty()) (void)::sleep(kRestartSeconds);
  return service_runs() ? "running" : "stopped";
}

std::string temperature_level() {
  if (flag_since(CRIT_TEMP_FLAG)) return "critical";
  return flag_since(HIGH_TEMP_FLAG) ? "high" : "normal";
}

std::string look_at_temperature(const std::string& known) {
  std::string level = temperature_level();
  if (level != "normal" || known == level) return level;
  (void)::sleep(kReplaceSeconds);
  return temperature_level();
}

// Tells two acts apart, also when the record was removed and counts anew.
std::string name_of(const GuardRecord& guard) { return join({guard.number, "@", guard.since}); }

struct Seen {
  State values;  ///< one for each key of the rows above
  GuardRecord guard;
};

Seen look(const State& told) {
  Seen seen;
  seen.values["service"] = look_for_service(told.at("service"));
  seen.values["fan"] = flag_since(FAN_FAILED_FLAG) ? "failed" : "working";
  seen.values["temperature"] = look_at_temperature(told.at("temperature"));
  seen.guard = read_guard_record();
  const bool hasActed = seen.guard.number > 0;
  seen.values["guard"] = hasActed ? name_of(seen.guard) : told.at("guard");
  return seen;
}

// --- What was told ---

constexpr std::string_view kEventKey = "event.";
constexpr std::string_view kHookKey = "hook.";
constexpr std::string_view kFailureKey = "failure.";  // of a hook: when it was reported, and why

// With its noughts, so that the keys are in the order of the numbers.
std::string event_key(int serial) {
  constexpr std::size_t kDigits = 10;
  const std::string number = std::to_string(serial);
  return join({kEventKey, std::string(kDigits - number.size(), '0'), number});
}

// A key holds no = and no blank at its end; the name of a file may.
std::string hook_key(const std::string& name, std::string_view beginning = kHookKey) {
  std::string key(beginning);
  for (const char each : name) {
    const auto byte = static_cast<unsigned char>(each);
    if (byte > ' ' && each != '=' && each != '%') {
      key += each;
    } else {
      key += join({"%", byte, "."});
    }
  }
  return key;
}

// The first entry with this beginning; entries with it stand together.
State::iterator first_of(State& told, std::string_view beginning) {
  return told.lower_bound(std::string(beginning));
}

// Of the newest event, or of the last one that a hook took.
int serial_in(const std::string& value) { return static_cast<int>(number_in(value, INT_MAX - 1)); }

void note_event(State& told, const Notice& notice) {
  const int serial = serial_in(told["serial"]) + 1;
  told["serial"] = std::to_string(serial);
  told[event_key(serial)] = join(
      {notice.event, " ", notice.temperature.empty() ? "-" : notice.temperature, " ", notice.text});
}

Notice read_event(const std::string& value) {
  const std::size_t temperature = value.find(' ') + 1;
  const std::size_t text = value.find(' ', temperature) + 1;
  const std::string degrees = value.substr(temperature, text - temperature - 1);
  return {value.substr(0, temperature - 1), value.substr(text), degrees == "-" ? "" : degrees,
          host_name()};
}

// What is known before anything was told: alerts that stand are told, and how the service is found,
// so it is known.
void begin(State& told) {
  const GuardRecord guard = read_guard_record();
  told.emplace("service", "");
  told.emplace("fan", "working");
  told.emplace("temperature", "normal");
  told.emplace("guard", guard.stands ? "0" : name_of(guard));
  told.emplace("serial", "0");
}

Notice make_guard_notice(const EventRow& row, const GuardRecord& guard, const Settings& settings) {
  const bool isKnown = !guard.temperature.empty();
  Notice notice = make_notice(row, isKnown ? guard.temperature : temperature_now(settings));
  if (guard.text.empty()) return notice;
  notice.text = join({"The guard of ", notice.host, ": ", printable(guard.text), "."});
  return notice;
}

// Notes an event for each row whose value has come up.
void note_changes(State& told, const Settings& settings) {
  const Seen seen = look(told);
  for (const EventRow& row : kEventRows) {
    std::string& known = told[std::string(row.key)];
    const std::string& now = seen.values.at(std::string(row.key));
    if (now == known || (!row.value.empty() && now != row.value)) continue;
    const bool isFirst = known.empty();
    known = now;
    if (isFirst) continue;
    note_event(told, row.key == "guard" ? make_guard_notice(row, seen.guard, settings)
                                        : make_notice(row, temperature_now(settings)));
  }
}

// A hook that is gone is forgotten. A new one gets what happens from now on.
void note_hooks(State& told, const std::vector<std::string>& hooks) {
  State known;
  for (const auto& hook : hooks) {
    const std::string key = hook_key(hook);
    const auto former = told.find(key);
    known[key] = former == told.end() ? told["serial"] : former->second;
    const auto failure = told.find(hook_key(hook, kFailureKey));
    if (failure != told.end()) known[failure->first] = failure->second;
  }
  std::erase_if(told, [](const auto& entry) {
    return entry.first.starts_with(kHookKey) || entry.first.starts_with(kFailureKey);
  });
  told.merge(known);
}

// Forgets the events that all hooks have taken, and the oldest ones when there are too many.
void drop_events(State& told) {
  int taken = serial_in(told["serial"]);
  for (auto hook = first_of(told, kHookKey);
       hook != told.end() && hook->first.starts_with(kHookKey); ++hook) {
    taken = std::min(taken, serial_in(hook->second));
  }
  auto event = first_of(told, kEventKey);
  while (event != told.end() && event->first.starts_with(kEventKey) &&
         event->first <= event_key(taken)) {
    event = told.erase(event);
  }
  auto count = std::ranges::count_if(
      told, [](const auto& entry) { return entry.first.starts_with(kEventKey); });
  for (; count > static_cast<std::ptrdiff_t>(kEventsMost); --count) {
    syslog(LOG_WARNING, "fanctl notify: too many events wait for hooks that fail, forgotten: %s",
           event->second.c_str());
    event = told.erase(event);
  }
}

// --- Telling it ---

ExitStatus complain(std::initializer_list<TextPiece> what) {
  const std::string reason = std::strerror(errno);
  const std::string text = join({"fanctl notify: ", join(what), ": ", reason});
  syslog(LOG_ERR, "%s", text.c_str());
  (void)std::fprintf(stderr, "%s\n", text.c_str());
  return EXIT_ERRORS;
}

ExitStatus cannot_keep(const char* path) {
  return complain({"nothing can be told, because ", path, " cannot be written"});
}

struct Hooks {
  std::string folder;
  std::vector<std::string> names;
  std::set<std::string> failed;  ///< in this run; they are tried again in the next one
};

// Runs a hook and remembers that it failed. Empty when it succeeded, otherwise why it did not.
std::string run(Hooks& hooks, const std::string& name, const Notice& notice) {
  std::string problem = run_hook(join({hooks.folder, "/", name}), notice);
  if (!problem.empty()) hooks.failed.insert(name);
  return problem;
}

// The log may lie on disks that are to sleep: the same failure is reported once an hour.
bool is_old_failure(State& told, const std::string& hook, const std::string& problem) {
  constexpr long long kHour = 3600;
  std::string& known = told[hook_key(hook, kFailureKey)];
  const long long now = std::time(nullptr), then = number_in(known, LATEST_MOMENT);
  const std::size_t blank = known.find(' ');
  const bool isSame = blank != std::string::npos && known.substr(blank + 1) == problem;
  if (isSame && now - then < kHour && then - now < kHour) return true;
  known = join({now, " ", problem});
  return false;
}

void report(const Notice& notice, const std::string& hook, const std::string& problem) {
  const std::string name = printable(hook);
  if (problem.empty()) {
    (void)std::printf("%s: told by %s\n", notice.event.c_str(), name.c_str());
  } else {
    (void)std::printf("%s: not told by %s: %s\n", notice.event.c_str(), name.c_str(),
                      problem.c_str());
    syslog(LOG_WARNING, "fanctl notify: hook %s failed with %s: %s", name.c_str(),
           notice.event.c_str(), problem.c_str());
  }
  (void)std::fflush(stdout);  // the next hook writes there as well
}

// False when it cannot be noted any more what was told.
bool tell(State& told, Hooks& hooks) {
  const State events = told;
  for (const auto& [key, value] : events) {
    if (!key.starts_with(kEventKey)) continue;
    const int serial = parse_int(key.c_str() + kEventKey.size());
    const Notice notice = read_event(value);
    for (const auto& name : hooks.names) {
      std::string& taken = told[hook_key(name)];
      if (serial_in(taken) >= serial || hooks.failed.contains(name)) continue;
      const std::string problem = run(hooks, name, notice);
      if (problem.empty()) {
        taken = std::to_string(serial);
        drop_events(told);
        told.erase(hook_key(name, kFailureKey));
        if (!write_state(kToldFile, told)) return false;
      }
      if (problem.empty() || !is_old_failure(told, name, problem)) report(notice, name, problem);
    }
  }
  return true;
}

// Whether a hook has not taken an event yet.
bool has_waiting(const State& told) {
  const auto event = told.lower_bound(std::string(kEventKey));
  return event != told.end() && event->first.starts_with(kEventKey);
}

ExitStatus tell_changes(const Options& options) {
  const Descriptor lock = lock_file(kLockFile);
  if (!lock && errno == EWOULDBLOCK) return EXIT_FINE;  // that run looks again before it ends
  if (!lock) return cannot_keep(kLockFile);
  const Settings settings = read_configuration(options.configDir).settings;
  Hooks hooks{options.configDir + kHookFolder, {}, {}};
  State written = read_state(kToldFile);
  State told = written;
  begin(told);
  if (exists(hooks.folder) && !DirPtr(::opendir(hooks.folder.c_str()))) {
    return complain({hooks.folder, " cannot be read"});
  }
  for (int round = 0; round < kRounds; ++round) {
    hooks.names = list_hooks(hooks.folder);
    note_hooks(told, hooks.names);
    note_changes(told, settings);
    drop_events(told);
    if (round > 0 && told == written) break;
    // Before the first hook, though nothing is new: what cannot be noted would be told again and
    // again.
    const bool runsHooks = round == 0 && has_waiting(told);
    if ((told != written || runsHooks) && !write_state(kToldFile, told)) {
      return cannot_keep(kToldFile);
    }
    written = told;
    if (!tell(told, hooks)) {
      return complain({"it may be told once more, because ", kToldFile, " cannot be written"});
    }
    if (told != written && !write_state(kToldFile, told)) return cannot_keep(kToldFile);
    written = told;
  }
  return hooks.failed.empty() ? EXIT_FINE : EXIT_WARNINGS;
}

ExitStatus test_hooks(const Options& options, const std::string& event) {
  const auto* const row = std::ranges::find(kEventRows, event, &EventRow::event);
  if (row == std::end(kEventRows)) {
    std::string names;
    for (const EventRow& each : kEventRows) names += join({" ", each.event});
    (void)std::fprintf(stderr, "fanctl notify: there is no event %s. There are:%s\n", event.c_str(),
                       names.c_str());
    return EXIT_WRONG_USE;
  }
  Hooks hooks{options.configDir + kHookFolder, {}, {}};
  hooks.names = list_hooks(hooks.folder);
  if (hooks.names.empty()) {
    (void)std::fprintf(stderr,
                       "fanctl notify: there is no hook in %s: copy one from %s, "
                       "and make it executable\n",
                       hooks.folder.c_str(), "/usr/share/doc/fan-controller-tools/hooks");
    return EXIT_ERRORS;
  }
  Notice notice =
      make_notice(*row, temperature_now(read_configuration(options.configDir).settings));
  notice.text = "This is a test: " + notice.text;
  for (const auto& name : hooks.names) report(notice, name, run(hooks, name, notice));
  return hooks.failed.empty() ? EXIT_FINE : EXIT_WARNINGS;
}

}  // namespace

ExitStatus run_notify(const Options& options, const NotifyOptions& notify) {
  return notify.test.empty() ? tell_changes(options) : test_hooks(options, notify.test);
}
