#include "hooks.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "files.h"
#include "utils.h"

namespace {

constexpr int kPatience = 30;        // seconds until a hook is asked to end
constexpr int kPatienceToEnd = 5;    // and until it is killed then
constexpr int kCannotExecute = 127;  // exit status of a child that could not become the hook

// --- Which files are hooks ---

bool is_hook_name(const std::string& name) {
  return !name.starts_with('.') && !name.ends_with('~') && name.find(".dpkg-") == std::string::npos;
}

bool is_executable(const std::string& path) {
  constexpr mode_t kAnyExecute = S_IXUSR | S_IXGRP | S_IXOTH;
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         (status.st_mode & kAnyExecute) != 0;
}

// The file, its folder, and the folder that a link leads to: who can write there decides what root
// runs. Empty when it is root alone.
std::string find_foreign(const std::string& path) {
  for (const auto& each : {path, parent_of(path), parent_of(real_path(path))}) {
    struct stat status {};
    if (::stat(each.c_str(), &status) != 0) return join({each, ": ", std::strerror(errno)});
    if (others_can_write(status)) return join({"others than root can write to ", each});
  }
  return {};
}

// --- In the child ---

// What a mailer needs to put a message into its queue, whoever that belongs to, and to become the
// user for whom it delivers. Everything else goes, above all what commands to disks, loading of
// modules and new device files need.
constexpr int kKeptCapabilities[] = {CAP_CHOWN,  CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH,
                                     CAP_FOWNER, CAP_SETGID,       CAP_SETUID};

// Root gets at execve() what it may inherit or what is in the bounding set. Without privileges
// there is nothing to give up, so failures do not count.
void give_up_capabilities() {
  for (int each = 0; ::prctl(PR_CAPBSET_READ, each) >= 0; ++each) {
    if (std::ranges::find(kKeptCapabilities, each) != std::end(kKeptCapabilities)) continue;
    (void)::prctl(PR_CAPBSET_DROP, each);
  }
  __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  if (::syscall(SYS_capget, &header, sets) != 0) return;
  for (auto& set : sets) set.inheritable = 0;
  (void)::syscall(SYS_capset, &header, sets);
}

void reset_signals() {
  for (int number = 1; number < NSIG; ++number) (void)::signal(number, SIG_DFL);
  sigset_t none;
  (void)::sigemptyset(&none);
  (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Nothing of whoever called fanctl reaches the hook but standard output and error. The error number
// of what failed goes to the parent; a hook that runs has closed that pipe.
[[noreturn]] void become(const std::string& path, const Notice& notice, int toParent) {
  std::string environment[] = {"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                               "HOME=/root",
                               "FAN_EVENT=" + notice.event,
                               "FAN_TEXT=" + notice.text,
                               "FAN_TEMPERATURE=" + notice.temperature,
                               "FAN_HOST=" + notice.host};
  char* variables[std::size(environment) + 1] = {};
  std::ranges::transform(environment, variables, [](std::string& text) { return text.data(); });
  std::string name = path;
  char* const words[] = {name.data(), nullptr};

  (void)::setpgid(0, 0);
  reset_signals();
  (void)::umask(S_IWGRP | S_IWOTH);
  const int input = ::open("/dev/null", O_RDONLY);
  if (input >= 0 && ::dup2(input, STDIN_FILENO) == STDIN_FILENO && ::chdir("/") == 0) {
    // Whatever was handed down to fanctl: a file that is open is a right.
    (void)::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    give_up_capabilities();
    (void)::execve(path.c_str(), words, variables);
  }
  const int reason = errno;
  [[maybe_unused]] const ssize_t written = ::write(toParent, &reason, sizeof reason);
  ::_exit(kCannotExecute);
}

// --- In the parent ---

// Without a handler the end of a child would not end a wait.
void hear_of_children() {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  action.sa_flags = SA_NOCLDSTOP | SA_RESTART;
  (void)::sigaction(SIGCHLD, &action, nullptr);
}

// Whether the child ends in so many seconds. It is not reaped, so that its number stays its own. An
// end between the look and the wait is seen a second later.
bool ends_within(pid_t child, int seconds) {
  for (int waited = 0;; ++waited) {
    siginfo_t end{};
    const int kind = WEXITED | WNOHANG | WNOWAIT;
    if (::waitid(P_PID, static_cast<id_t>(child), &end, kind) != 0 || end.si_pid == child) {
      return true;
    }
    if (waited == seconds) return false;
    (void)::sleep(1);
  }
}

// Ends the hook and everything that it has started in its process group.
void end_group(pid_t group) {
  (void)::kill(-group, SIGTERM);
  (void)::kill(-group, SIGCONT);
  (void)ends_within(group, kPatienceToEnd);
  (void)::kill(-group, SIGKILL);
  (void)ends_within(group, kPatienceToEnd);  // one that hangs in the kernel is not waited for
}

std::string reap(pid_t child) {
  int status = 0;
  if (::waitpid(child, &status, WNOHANG) != child) return "it cannot be ended";
  if (WIFSIGNALED(status)) return join({"it was ended by signal ", WTERMSIG(status)});
  if (WEXITSTATUS(status) != 0) return join({"it ended with status ", WEXITSTATUS(status)});
  return {};
}

}  // namespace

std::vector<std::string> list_hooks(const std::string& folder) {
  std::vector<std::string> names = names_in(folder);
  std::erase_if(names, [&](const std::string& name) {
    return !is_hook_name(name) || !is_executable(join({folder, "/", name}));
  });
  std::ranges::sort(names);
  return names;
}

std::string run_hook(const std::string& path, const Notice& notice) {
  std::string foreign = find_foreign(path);
  if (!foreign.empty()) return foreign;
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) return std::strerror(errno);
  const Descriptor fromChild(ends[0]);
  Descriptor toParent(ends[1]);
  hear_of_children();
  const pid_t child = ::fork();
  if (child < 0) return std::strerror(errno);
  if (child == 0) become(path, notice, toParent.get());
  (void)::setpgid(child, child);  // whichever of the two comes first
  (void)::close(toParent.release());

  int reason = 0;
  const bool refused = ::read(fromChild.get(), &reason, sizeof reason) == sizeof reason;
  const bool inTime = ends_within(child, kPatience);
  if (!inTime) end_group(child);
  const std::string problem = reap(child);
  if (refused) return join({"it cannot be executed: ", std::strerror(reason)});
  return inTime ? problem : join({"it did not end in ", kPatience, " seconds"});
}
