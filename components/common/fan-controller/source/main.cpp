#include <dirent.h>
#include <fcntl.h>
#include <getopt.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>
#include <string_view>

#include "FanController.h"
#include "utils.h"

int verbose_flag = 0;
std::string confFilePath;

// The signal handler's only way to the controller. Null while there is none.
SignalFlag* volatile g_IsSigTermDetected = nullptr;
SignalFlag* volatile g_SwitchToNormalMode = nullptr;
SignalFlag* volatile g_SwitchToSpindownMode = nullptr;

namespace {

void usage() {
  (void)std::fputs("usage: \n\t/sbin/fan_controller ", stderr);
  (void)std::fputs("[+--oneshot] [+--verbose] ", stderr);
  (void)std::fputs("--config-dir=path_to_config_dir\n\n", stderr);
  (void)std::fputs("example: /sbin/fan_controller --config-dir=/etc/fan_controller\n\t", stderr);
  (void)std::fputs("\n", stderr);
}

void brief() {
  (void)std::fputs("\nTarvo HDDs Temperature Sensor & Fan Control\n", stderr);
  (void)std::fputs("A daemon that use SMART attribute #194 to get max of ", stderr);
  (void)std::fputs("HDDs Celsius Temperature and control the system fan.\n\n", stderr);
  // The sentence stays whole, for grep.
  // clang-format off
  (void)std::fputs("For a complete spec, please refer to  the internal Tarvo products documentation (e.g. dorna_fan_spec.pdf) ", stderr);
  // clang-format on
  (void)std::fputs("\n", stderr);
}

// Finished lines, because the handler can neither allocate memory nor wait for a lock.
#define SIGNAL_TRACE(message) __FILE_NAME__ ":signal_handler " message "\n"

struct SignalAction {
  int number;
  std::string_view trace;
  SignalFlag* volatile* flag;
};

// In the order of installation.
constexpr SignalAction kSignalActions[] = {
    {SIGHUP, SIGNAL_TRACE("SIGHUP detected"), nullptr},
    {SIGUSR1, {}, &g_SwitchToSpindownMode},
    {SIGUSR2, {}, &g_SwitchToNormalMode},
    {SIGTERM, SIGNAL_TRACE("SIGTERM detected"), &g_IsSigTermDetected},
    {SIGALRM, SIGNAL_TRACE("SIGALARM detected"), nullptr},
    {SIGPIPE, SIGNAL_TRACE("SIGPIPE detected"), nullptr},
    {SIGSYS, {}, nullptr},
};

void signal_handler(int number) {
  const int savedErrno = errno;
  for (const SignalAction& action : kSignalActions) {
    if (action.number != number) continue;
    write_trace(action.trace);
    SignalFlag* flag = action.flag != nullptr ? *action.flag : nullptr;
    if (flag != nullptr) *flag = true;
  }
  errno = savedErrno;
}

void publish_flags(const FanController& controller) {
  g_IsSigTermDetected = controller.m_isSigTermDetected.get();
  g_SwitchToNormalMode = controller.m_switchToNormalMode.get();
  g_SwitchToSpindownMode = controller.m_switchToSpindownMode.get();
}

void withdraw_flags() {
  g_IsSigTermDetected = nullptr;
  g_SwitchToNormalMode = nullptr;
  g_SwitchToSpindownMode = nullptr;
}

/// Reads the command line into confFilePath and verbose_flag. The result tells whether one
/// temperature refresh is all that is wanted. Nothing on the command line stops the program.
bool parse_options(int argc, char* argv[]) {
  const option longOptions[] = {
      {"verbose", no_argument, &verbose_flag, 1},
      {"oneshot", no_argument, nullptr, 'o'},
      {"help", no_argument, nullptr, 'h'},
      {"config-dir", required_argument, nullptr, 'c'},
      {nullptr, 0, nullptr, 0},
  };
  bool oneshot = false;
  for (;;) {
    int longIndex = 0;
    switch (::getopt_long(argc, argv, "ohc:", longOptions, &longIndex)) {
      case -1:
        return oneshot;
      case 'h':
        brief();
        usage();
        break;
      case 'o':
        TRACE_AS("main", "option oneshot detected");
        oneshot = true;
        break;
      case 'c':
        confFilePath = optarg;
        TRACE_AS("main", "option config dir detected: ", confFilePath);
        break;
      case '?':
        usage();
        break;
      default:  // verbose: getopt_long has set the flag
        break;
    }
  }
}

void report_stray_arguments(int argc, char* argv[]) {
  if (optind >= argc) return;
  usage();
  (void)std::fputs("non-option ARGV-elements: ", stderr);
  for (int index = optind; index < argc; ++index) (void)std::fprintf(stderr, "%s ", argv[index]);
  (void)std::fputs("\n", stderr);
}

// Puts /dev/null in the place of a descriptor, which stays as it is when that cannot be opened.
bool redirect_to_null(int descriptor, int mode) {
  Descriptor null(::open("/dev/null", mode));
  if (null.get() == descriptor) return null.release() == descriptor;
  return null && ::dup2(null.get(), descriptor) >= 0;
}

// A descriptor that the caller has closed would be given to the next file opened, and trace lines
// would then go into that file.
void fill_closed_standard_descriptors() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(descriptor, F_GETFD) < 0) (void)redirect_to_null(descriptor, O_RDWR);
  }
}

void detach_standard_streams() {
  (void)redirect_to_null(STDIN_FILENO, O_RDONLY);
  if (redirect_to_null(STDOUT_FILENO, O_WRONLY)) trace_into_null();
}

bool is_directory(const std::string& path) {
  return !path.empty() && DirPtr(::opendir(path.c_str())) != nullptr;
}

// The signals that have a handler.
sigset_t handled_signals() {
  sigset_t signals;
  (void)::sigemptyset(&signals);
  for (const SignalAction& action : kSignalActions) (void)::sigaddset(&signals, action.number);
  return signals;
}

// The signals are held back when it is called, until the handler can reach the controller: a
// request to stop must not get lost. To let them in undoes a mask that was handed down as well.
int run_service(bool oneshot, const sigset_t& signals) {
  for (const SignalAction& action : kSignalActions) {
    (void)std::signal(action.number, signal_handler);
  }
  std::unique_ptr<FanController> controller;
  try {
    controller = std::make_unique<FanController>(confFilePath);
    publish_flags(*controller);
    (void)::sigprocmask(SIG_UNBLOCK, &signals, nullptr);
    controller->endlessWatcher(oneshot);
  } catch (const std::exception& error) {
    withdraw_flags();
    controller.reset();
    TRACE_AS("main", "### ", error.what());
    return EXIT_FAILURE;
  }
  // A normal stop ends the process as it stands: the controller is not torn down.
  std::exit(EXIT_SUCCESS);
}

}  // namespace

int main(int argc, char* argv[]) {
  // What nobody can handle, such as memory that runs out before there is a service or for the
  // exception itself, has the same status and is no crash.
  std::set_terminate([] { ::_exit(EXIT_FAILURE); });
  // Ignore SIGPIPE until the handler stands: option traces may go to a closed pipe.
  (void)std::signal(SIGPIPE, SIG_IGN);
  verbose_flag = 0;
  const bool oneshot = parse_options(argc, argv);
  report_stray_arguments(argc, argv);
  fill_closed_standard_descriptors();
  if (verbose_flag == 0) detach_standard_streams();
  if (!is_directory(confFilePath)) return EXIT_FAILURE;

  // Held back before the fork: the end of a terminal's session leader sends SIGHUP to the new
  // process at once, which has no handler yet.
  const sigset_t signals = handled_signals();
  sigset_t inherited;
  (void)::sigprocmask(SIG_BLOCK, &signals, &inherited);
  const pid_t service = ::fork();
  if (service == 0) return run_service(oneshot, signals);
  (void)::sigprocmask(SIG_SETMASK, &inherited, nullptr);
  if (service > 0) return EXIT_SUCCESS;
  TRACE("fork has failed!!");
  return EXIT_FAILURE;
}
