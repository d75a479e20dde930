// fanctl standby: the service rests while all disks sleep.
//
// The service notes a signal and looks at it when a cycle begins, at SIGUSR2 first. Were both noted
// at a time, it would end in the spindown mode, with disks awake. So a signal that matters is sent
// while the service waits, its wait is ended at once, and what is to be done is noted before and
// after: a run that was killed in between is made good by the next one.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

#include "alert-flags.h"
#include "commands.h"
#include "configuration.h"
#include "disk-state.h"
#include "files.h"
#include "hwmon.h"
#include "service-process.h"
#include "service-signal.h"
#include "state.h"
#include "terminal.h"
#include "utils.h"

namespace {

constexpr char kMemory[] = "/run/fan_controller/standby";
constexpr char kLock[] = "/run/fan_controller/.standby.lock";
constexpr int kRunsAsleep = 2;

enum class Mode {
  kNormal,
  kSensor,    // normal too, and for good as long as the service has a sensor
  kEntering,  // SIGUSR1 may have been sent, and may have been served
  kSpindown,
  kLeaving,  // as much is known of SIGUSR2
};
constexpr std::array<std::string_view, 5> kModeNames = {"normal", "sensor", "entering", "spindown",
                                                        "leaving"};

struct Standby {
  Options options;
  bool dryRun = false;
  ServiceProcess service;
  Configuration configuration;
  int asleep = 0;  // runs in a row that found all disks asleep
  Mode mode = Mode::kNormal;
  bool isAsking = false;  // about to ask the disks while the service rests
  bool isStuck = false;   // a run before this one has not got beyond that
};

bool is_normal(const Standby& standby) {
  return standby.mode == Mode::kNormal || standby.mode == Mode::kSensor;
}

bool is_unfinished(const Standby& standby) {
  return standby.mode == Mode::kEntering || standby.mode == Mode::kLeaving;
}

// What is new is always said; the rest only to people, as the journal would fill with it.
void say(const Standby& standby, bool isNew, const std::string& text) {
  if (isNew || standby.dryRun || on_terminal()) (void)std::printf("%s\n", text.c_str());
}

ExitStatus complain(const std::string& what) {
  (void)std::fprintf(stderr, "fanctl standby: %s\n", what.c_str());
  return EXIT_ERRORS;
}

// Another process is a service that was started since, which begins in normal operation.
void recall(Standby& standby) {
  State memory = read_state(kMemory);
  const bool isSame = memory["process"] == join({standby.service.process}) &&
                      memory["started"] == join({standby.service.started});
  if (!isSame) return;
  standby.asleep = static_cast<int>(number_in(memory["asleep"], kRunsAsleep));
  standby.isStuck = memory["asking"] == "yes";
  for (std::size_t mode = 0; mode < kModeNames.size(); ++mode) {
    if (memory["mode"] == kModeNames[mode]) standby.mode = static_cast<Mode>(mode);
  }
}

bool remember(Standby& standby, Mode mode) {
  standby.mode = mode;
  if (standby.dryRun) return true;
  State memory;
  memory["process"] = join({standby.service.process});
  memory["started"] = join({standby.service.started});
  memory["asleep"] = join({standby.asleep});
  memory["mode"] = kModeNames[static_cast<std::size_t>(mode)];
  if (standby.isAsking) memory["asking"] = "yes";
  if (read_state(kMemory) == memory || write_state(kMemory, memory)) return true;
  std::perror((std::string("fanctl standby: ") + kMemory).c_str());
  return false;
}

// After a run that was killed half-way both signals may be noted: two cycles serve them, so that
// this one is the last.
bool serve(const Waiting& waiting, int number, bool unfinished) {
  for (int cycle = 0; unfinished && cycle < 2; ++cycle) {
    if (!end_wait(waiting, SIGSYS)) return false;
  }
  return end_wait(waiting, number);
}

ExitStatus leave(Standby& standby, const std::string& why) {
  const bool unfinished = is_unfinished(standby);
  say(standby, true,
      join({why, ": the service measures again, SIGUSR2 ", standby.dryRun ? "would go" : "goes",
            " to process ", standby.service.process}));
  if (standby.dryRun) return EXIT_FINE;
  const bool noted = remember(standby, Mode::kLeaving);
  const Waiting waiting = look_at_wait(standby.service, standby.configuration);
  if (waiting.pause != Pause::kNone && serve(waiting, SIGUSR2, unfinished)) {
    return remember(standby, Mode::kNormal) && noted ? EXIT_FINE : EXIT_ERRORS;
  }
  // Noted at least, and the next run sees to it.
  if (!send_signal(standby.service, SIGUSR2) && errno != ESRCH) {
    return complain("SIGUSR2 cannot be sent: run it as root");
  }
  return noted ? EXIT_FINE : EXIT_ERRORS;
}

// While the service waits for a file it sleeps second by second too, and serves nothing. It has
// read both when they are older than its process, or have been there for longer than its next look
// takes.
bool is_past_its_start(const Standby& standby) {
  constexpr double kLook = 330, kNanoseconds = 1e-9, kTick = 0.02;  // seconds
  const Configuration& configuration = standby.configuration;
  timespec now{};
  const auto age = age_of(standby.service);
  if (!age || ::clock_gettime(CLOCK_REALTIME, &now) != 0) return false;
  const auto isRead = [&](const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0) return false;
    const double fileAge = static_cast<double>(now.tv_sec - status.st_ctim.tv_sec) +
                           static_cast<double>(now.tv_nsec - status.st_ctim.tv_nsec) * kNanoseconds;
    return fileAge > *age - kTick || fileAge > kLook;
  };
  return isRead(configuration.settingsPath) && isRead(configuration.tablePath);
}

// A fan that is blocked, or was, is restarted or reported within the wait.
bool is_fan_in_trouble(const Driver& driver) {
  return read_attribute(driver.alarmPath) == "1" || exists(FAN_FAILED_FLAG);
}

ExitStatus enter(Standby& standby) {
  const bool unfinished = is_unfinished(standby);
  const bool isBusy =
      !is_past_its_start(standby) || is_fan_in_trouble(find_driver(standby.configuration.settings));
  const Waiting waiting = isBusy ? Waiting{} : look_at_wait(standby.service, standby.configuration);
  if (waiting.pause == Pause::kNone) {
    say(standby, false,
        "all disks sleep, but the service is busy or the fan is blocked: the next run tries again");
    return remember(standby, standby.mode) ? EXIT_FINE : EXIT_ERRORS;
  }
  say(standby, true,
      join({"all disks sleep: the service rests, SIGUSR1 ", standby.dryRun ? "would go" : "goes",
            " to process ", standby.service.process}));
  if (standby.dryRun) return EXIT_FINE;
  if (!remember(standby, Mode::kEntering)) return EXIT_ERRORS;
  if (!serve(waiting, SIGUSR1, unfinished)) return EXIT_FINE;  // the next run sees to it
  return remember(standby, Mode::kSpindown) ? EXIT_FINE : EXIT_ERRORS;
}

// Back to normal operation, if it is not in force.
ExitStatus stay_awake(Standby& standby, const std::string& why, Mode mode = Mode::kNormal) {
  standby.asleep = 0;
  if (!is_normal(standby)) return leave(standby, why);
  say(standby, mode == Mode::kSensor && standby.mode != mode, why + ": there is nothing to do");
  return remember(standby, mode) ? EXIT_FINE : EXIT_ERRORS;
}

ExitStatus let_sleep(Standby& standby) {
  standby.asleep = std::min(standby.asleep + 1, kRunsAsleep);
  if (standby.mode != Mode::kSpindown && standby.asleep == kRunsAsleep) return enter(standby);
  say(standby, false,
      standby.mode == Mode::kSpindown ? "all disks sleep, and the service rests"
                                      : "all disks sleep: the next run lets the service rest");
  return remember(standby, standby.mode) ? EXIT_FINE : EXIT_ERRORS;
}

// A service that is halted finds the signal when it goes on.
ExitStatus end(Standby& standby) {
  const bool rests = standby.service.process != 0 && !is_normal(standby);
  const ExitStatus status = rests ? leave(standby, "this is the end of standby") : EXIT_FINE;
  if (!rests) say(standby, false, "the service does not rest: there is nothing to end");
  if (standby.dryRun || ::unlink(kMemory) == 0 || errno == ENOENT) return status;
  return complain(join({kMemory, " cannot be removed"}));
}

const char* absence(ServiceState state) {
  if (state == ServiceState::kHalted) return "the service is halted and takes no signal";
  return state == ServiceState::kEnded ? "the service has ended" : "the service does not run";
}

ExitStatus run_alone(Standby& standby, bool isEnd) {
  standby.service = look_at_service();
  recall(standby);
  standby.configuration = read_configuration(standby.options.configDir);
  if (isEnd) return end(standby);
  if (standby.service.state != ServiceState::kRuns) {
    say(standby, false, absence(standby.service.state));
    return EXIT_FINE;
  }
  if (!standby.configuration.hasSettings) {
    (void)stay_awake(standby, "the configuration cannot be read");
    return complain(standby.configuration.settingsPath + " cannot be read");
  }
  if (!standby.configuration.settings.m_tempSensorPath.empty()) {
    return stay_awake(standby, "the service measures its sensor and touches no disk",
                      Mode::kSensor);
  }
  // A disk that hangs in the kernel may keep a run for ever, and the service must not rest so long.
  if (standby.isStuck) return stay_awake(standby, "a disk has not answered");
  if (standby.mode == Mode::kSpindown) {
    standby.isAsking = true;
    (void)remember(standby, standby.mode);
    standby.isAsking = false;
  }
  const std::string why = why_awake();
  return why.empty() ? let_sleep(standby) : stay_awake(standby, why);
}

// Another run is at work. When it is one that hangs, this one does not wait for it.
ExitStatus pass_by(Standby& standby) {
  struct stat status {};
  constexpr std::time_t kInterval = 30;
  standby.service = look_at_service();
  recall(standby);
  const bool isOld =
      ::stat(kMemory, &status) == 0 && std::time(nullptr) - status.st_mtime > kInterval;
  if (!standby.isStuck || !isOld || standby.service.state != ServiceState::kRuns) return EXIT_FINE;
  standby.configuration = read_configuration(standby.options.configDir);
  return stay_awake(standby, "a disk has not answered");
}

}  // namespace

ExitStatus run_standby(const Options& options, const StandbyOptions& wanted) {
  constexpr useconds_t kTenth = 100'000;
  constexpr int kTenths = 600;
  Standby standby{.options = options, .dryRun = wanted.dryRun, .service = {}, .configuration = {}};
  if (standby.dryRun) return run_alone(standby, wanted.end);
  for (int tenth = 0; tenth < kTenths; ++tenth) {
    const Descriptor lock = lock_file(kLock);
    if (lock || errno != EWOULDBLOCK) return run_alone(standby, wanted.end);
    if (!wanted.end) return pass_by(standby);
    (void)::usleep(kTenth);
  }
  return complain("another run has not ended for a minute");
}
