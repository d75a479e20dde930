#include "program.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

namespace {

constexpr mode_t kFileMode = 0600;
constexpr std::chrono::seconds kPatience{30};  // of a machine that is busy
constexpr std::chrono::duration<int, std::milli> kPollPeriod{2};
constexpr std::chrono::microseconds kFirstPause{100};
constexpr std::size_t kPiece = 4096;
constexpr int kCannotExecute = 127;

void limit(__rlimit_resource resource, rlim_t most) {
  const rlimit both = {most, most};
  (void)::setrlimit(resource, &both);
}

// The emulator or env, the library, the binary and its arguments.
std::vector<std::string> commandLine(const Appliance& appliance, const Program::Start& start) {
  // The path of a library itself may hold a blank or a colon, where LD_PRELOAD ends a name.
  const auto linked = [&](const std::string& name, const std::string& library) {
    if (!fs::is_symlink(appliance.at(name))) fs::create_symlink(library, appliance.at(name));
    return appliance.at(name);
  };
  std::string libraries = linked("/appliance.so", APPLIANCE_LIBRARY);
  if (!start.preload.empty()) libraries = linked("/preload.so", start.preload) + ":" + libraries;
  // It is meant for the program alone, not for what runs it.
  const char* const emulator = std::getenv("APPLIANCE_EMULATOR");
  const bool emulated = emulator != nullptr && *emulator != '\0';
  std::istringstream runner(emulated ? std::string(emulator) + " -E" : "env");
  std::vector<std::string> words(std::istream_iterator<std::string>(runner), {});
  words.push_back("LD_PRELOAD=" + libraries);
  words.push_back(start.binary);
  words.insert(words.end(), start.arguments.begin(), start.arguments.end());
  return words;
}

// In the child.
[[noreturn]] void become(char** words, const Program::Start& start, int output, int errors) {
  limit(RLIMIT_FSIZE, start.limits.fileSize);
  limit(RLIMIT_CPU, start.limits.processorSeconds);
  (void)::dup2(output, STDOUT_FILENO);
  (void)::dup2(errors, STDERR_FILENO);
  if (start.terminal >= 0) {
    (void)::setsid();
    (void)::ioctl(start.terminal, TIOCSCTTY, 0);
  }
  (void)::alarm(start.seconds);
  (void)::execvp(words[0], words);
  ::_exit(kCannotExecute);
}

// Up to the end of the process that is started; its exit status, or -1.
int execute(const Appliance& appliance, const Program::Start& start) {
  // The preloaded library stands before the sanitizers' own in the search order; that is harmless.
  ::setenv("ASAN_OPTIONS", "verify_asan_link_order=0", 1);
  auto texts = commandLine(appliance, start);
  std::vector<char*> words;
  words.reserve(texts.size() + 1);
  for (auto& text : texts) words.push_back(text.data());
  words.push_back(nullptr);
  const Handle file(
      ::open(appliance.at("/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
  const Handle errors(
      ::open(appliance.at("/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));

  const pid_t parent = ::_Fork();  // not the simulation's
  if (parent == 0) {
    become(words.data(), start, start.output < 0 ? file.number : start.output, errors.number);
  }
  int status = 0;
  (void)::waitpid(parent, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::set<pid_t> children() {
  std::ifstream file("/proc/self/task/" + std::to_string(::getpid()) + "/children");
  return {std::istream_iterator<pid_t>(file), {}};
}

bool simulationAnswers(const Appliance& appliance, const std::string& binary) {
  (void)execute(appliance, {.binary = binary});
  return !appliance.journal({"preload"}).empty();
}

}  // namespace

Handle::~Handle() { (void)::close(number); }

Channel::Channel(Kind kind) {
  int ends[2] = {-1, -1};
  termios raw{};
  ::cfmakeraw(&raw);
  const int result = kind == kPipe     ? ::pipe(ends)
                     : kind == kSocket ? ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends)
                                       : ::openpty(&ends[0], &ends[1], nullptr, &raw, nullptr);
  if (result != 0) throw std::runtime_error("no pipe, socket or terminal");
  for (const int end : ends) (void)::fcntl(end, F_SETFD, FD_CLOEXEC);
  reader.emplace(ends[0]);
  writer.emplace(ends[1]);
}

bool eventually(const std::function<bool()>& condition) {
  // Most conditions hold within a millisecond.
  auto pause = kFirstPause;
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    if (condition()) return true;
    std::this_thread::sleep_for(pause);
    pause = std::min<std::chrono::microseconds>(2 * pause, kPollPeriod);
  }
  return condition();
}

std::string received(int descriptor, const std::function<bool(const std::string&)>& enough) {
  std::string text;
  char piece[kPiece];
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!enough(text) && std::chrono::steady_clock::now() < deadline) {
    pollfd readable = {.fd = descriptor, .events = POLLIN, .revents = 0};
    if (::poll(&readable, 1, kPollPeriod.count()) <= 0) continue;
    const ssize_t count = ::read(descriptor, piece, sizeof piece);
    if (count <= 0) break;
    text.append(piece, static_cast<std::size_t>(count));
  }
  return text;
}

Program::Program(const Appliance& appliance, const Start& start) {
  static std::set<std::string> answering;
  if (!answering.contains(start.binary) && !simulationAnswers(appliance, start.binary)) {
    throw std::runtime_error("the program would run on this machine itself");
  }
  answering.insert(start.binary);
  (void)::prctl(PR_SET_CHILD_SUBREAPER, 1);
  const std::set<pid_t> before = children();
  parentStatus = execute(appliance, start);
  for (const pid_t child : children()) {
    if (!before.contains(child)) daemon = child;
  }
}

Program::~Program() {
  if (daemon == 0) return;
  (void)::kill(daemon, SIGKILL);
  (void)::waitpid(daemon, nullptr, 0);
}

int Program::wait_end(int signal) {
  int status = -1;
  const bool ended = eventually([&] {
    (void)::kill(daemon, signal);
    return ::waitpid(daemon, &status, WNOHANG) == daemon;
  });
  if (!ended) return -1;
  daemon = 0;
  return status;
}
