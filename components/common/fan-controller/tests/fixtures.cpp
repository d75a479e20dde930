#include "fixtures.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <thread>
#include <utility>

#include "appliance.h"

namespace fs = std::filesystem;

Lines operator+(Lines left, const Lines& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

// Standard output is a file of the test program's: main() sees to that.
std::string traced(const std::function<void()>& body) {
  REQUIRE(::ftruncate(STDOUT_FILENO, 0) == 0);
  body();
  std::ifstream file("/proc/self/fd/1", std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool eventually(const std::function<bool()>& condition) {
  for (int poll = 0; poll < 5000; ++poll) {
    if (condition()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return false;
}

TestAppliance::~TestAppliance() { CHECK(read("/outside") == ""); }

Bench::Bench() : FanController(CONFIG) {
  corvaneInitResult = corvaneEmptyFetches = 0;
  CHECK(journal({"syslog"}) ==
        Lines{"syslog 6 Fan Controller service has been started - config dir " + CONFIG});
  m_curCmd = std::make_unique<CurCmd>();
  m_valueMap = {{30, 100}, {55, 255}};
  m_lastTempAlert = ALERT_TEMP_NORMAL;
  m_lastFanAlert = ALERT_FAN_WORKING;
}

// A last safety: a service that runs away, or one whose test was killed, does not do so for ever.
static void limit(__rlimit_resource resource, rlim_t most) {
  const rlimit both = {most, most};
  (void)::setrlimit(resource, &both);
}

// Runs the service's binary with the simulation before it up to its exit, and gives its exit
// status, or -1.
static int execute(const Appliance& appliance, const Lines& arguments, int output) {
  // The preloaded library stands before the sanitizers' own in the search order; that is harmless.
  ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
  // The path of the library itself may hold a blank or a colon, where LD_PRELOAD ends a name.
  const std::string library = appliance.at("/appliance.so");
  if (!fs::is_symlink(library)) fs::create_symlink(APPLIANCE_LIBRARY, library);
  // It is meant for the service alone, not for what runs it.
  const char* emulator = std::getenv("FAN_TEST_EMULATOR");
  const bool emulated = emulator != nullptr && *emulator != '\0';
  std::istringstream runner(emulated ? std::string(emulator) + " -E" : "env");
  Lines words(std::istream_iterator<std::string>(runner), {});
  words = words + Lines{"LD_PRELOAD=" + library, FAN_CONTROLLER_BINARY} + arguments;
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);

  const pid_t parent = ::fork();
  if (parent == 0) {
    limit(RLIMIT_FSIZE, 16 << 20);
    limit(RLIMIT_CPU, 30);
    ::dup2(output, STDOUT_FILENO);
    ::dup2(::creat(appliance.at("/err").c_str(), 0600), STDERR_FILENO);
    ::execvp(argv[0], argv.data());
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(parent, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Without arguments the binary does nothing, so that it is safe to run on the machine itself.
static bool simulation_answers(const Appliance& appliance) {
  return execute(appliance, {}, STDERR_FILENO) == 1 && !appliance.journal({"preload"}).empty();
}

Service::Service(const Appliance& appliance, Lines arguments, Reader reader) {
  static const bool answers = simulation_answers(appliance);
  REQUIRE_MESSAGE(answers, "the service would run on this machine itself");
  (void)::prctl(PR_SET_CHILD_SUBREAPER, 1);
  const std::string out = appliance.at("/out");
  if (reader != Reader::kFile) {
    REQUIRE(::mkfifo(out.c_str(), 0600) == 0);
    m_readEnd = ::open(out.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  }
  const int output = ::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (reader == Reader::kGone) ::close(std::exchange(m_readEnd, -1));
  parentStatus = execute(appliance, arguments, output);
  ::close(output);
  // The daemon is the only child left.
  std::ifstream("/proc/self/task/" + std::to_string(::getpid()) + "/children") >> daemon;
}

Service::~Service() {
  if (m_readEnd >= 0) ::close(m_readEnd);
  if (daemon == 0) return;
  ::kill(daemon, SIGKILL);
  ::waitpid(daemon, nullptr, 0);
}

int Service::wait_end(int signal) {
  int status = -1;
  const bool ended = eventually([&] {
    ::kill(daemon, signal);
    return ::waitpid(daemon, &status, WNOHANG) == daemon;
  });
  if (!ended) return -1;
  daemon = 0;
  return status;
}

// The management library's double, in place of the shared library's functions.

static int note(const std::string& call, int result = 0) {
  appliance_note("corvane", call.c_str());
  return result;
}

int corvane_init(corvane_handle*) { return note("init", corvaneInitResult); }

int corvane_get_config(corvane_handle*, int resource) {
  return note("get " + std::to_string(resource), corvaneEmptyFetches-- > 0 ? 1 : 0);
}

int corvane_set_property_string(corvane_handle*, const char* name, const char* value) {
  return note(std::string("property ") + name + "=" + value);
}

int corvane_set_config(corvane_handle*, int resource) {
  return note("write " + std::to_string(resource));
}

int corvane_close(corvane_handle*) { return note("close"); }
