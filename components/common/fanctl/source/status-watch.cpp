// fanctl status --watch: the same on the terminal, again and again.
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/signalfd.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>

#include "disk-state.h"
#include "status.h"
#include "terminal.h"
#include "utils.h"

namespace {

constexpr long long kDiskSeconds = 30;  // some disks do not go to sleep when they are asked often
constexpr int kMilliseconds = 1000;

long long seconds_running() {
  timespec now{};
  (void)::clock_gettime(CLOCK_BOOTTIME, &now);
  return now.tv_sec;
}

// --- Signals, which wait until they are asked for ---

sigset_t watched_signals() {
  sigset_t set;
  (void)::sigemptyset(&set);
  for (const int each : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGCONT, SIGWINCH}) {
    (void)::sigaddset(&set, each);
  }
  return set;
}

// Stops as Ctrl-Z does, until the shell lets it go on.
void stop_here() {
  sigset_t stop;
  (void)::sigemptyset(&stop);
  (void)::sigaddset(&stop, SIGTSTP);
  (void)::raise(SIGTSTP);
  (void)::sigprocmask(SIG_UNBLOCK, &stop, nullptr);
  (void)::sigprocmask(SIG_BLOCK, &stop, nullptr);
}

// --- The screen ---

// Writes all of it. False when nobody reads it any more.
bool write_all(std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
    if (written <= 0) return false;
    text.remove_prefix(static_cast<std::size_t>(written));
  }
  return true;
}

// A second page of the terminal, without cursor and echo; the first one and all settings come back
// at the end.
class Screen {
 public:
  explicit Screen(int keyboard) : m_keyboard(keyboard) {
    m_hasSettings = ::tcgetattr(keyboard, &m_before) == 0;
  }
  ~Screen() { leave(); }
  Screen(const Screen&) = delete;
  Screen& operator=(const Screen&) = delete;

  void enter() {
    termios quiet = m_before;
    quiet.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    quiet.c_cc[VMIN] = 1;
    quiet.c_cc[VTIME] = 0;
    if (m_hasSettings) (void)::tcsetattr(m_keyboard, TCSANOW, &quiet);
    if (!m_isShown) (void)write_all("\x1b[?1049h\x1b[?25l");
    m_isShown = true;
  }
  void leave() {
    if (m_isShown) (void)write_all("\x1b[?25h\x1b[?1049l");
    m_isShown = false;
    if (m_hasSettings) (void)::tcsetattr(m_keyboard, TCSANOW, &m_before);
  }

 private:
  int m_keyboard;
  termios m_before{};
  bool m_hasSettings = false;
  bool m_isShown = false;
};

int terminal_lines() {
  constexpr int kUsualLines = 24;
  winsize size{};
  const bool known = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0;
  return known ? size.ws_row : kUsualLines;
}

// As much of a line as fits. Colours take no place, and all of them stay, so that they end.
std::string fitting(std::string_view line, std::size_t columns) {
  std::string text, shown;
  while (!line.empty()) {
    const bool isColour = line.starts_with('\x1b');
    const std::size_t end = line.find(isColour ? 'm' : '\x1b');
    std::string_view piece =
        line.substr(0, isColour && end != std::string_view::npos ? end + 1 : end);
    line.remove_prefix(piece.size());
    if (!isColour) {
      while (width_of(shown) + width_of(piece) > columns) piece.remove_suffix(1);
      shown += piece;
    }
    text += piece;
  }
  // What stood there before goes, but not the last column, on which the cursor waits.
  if (width_of(shown) < columns) text += "\x1b[K";
  return text;
}

// From the upper left corner over what is there, so that nothing flickers.
bool show(std::string_view text) {
  const auto columns = static_cast<std::size_t>(terminal_columns());
  const int lines = terminal_lines();
  std::string frame = "\x1b[H";
  int line = 0;
  for (; line < lines && !text.empty(); ++line) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    frame += join({line == 0 ? "" : "\r\n", fitting(text.substr(0, end), columns)});
    text.remove_prefix(std::min(end + 1, text.size()));
  }
  return write_all(frame + (line < lines ? "\r\n\x1b[J" : ""));
}

std::string heading(const Status& status, int seconds) {
  std::tm local{};
  char clock[16] = "";
  if (::localtime_r(&status.now, &local) != nullptr) {
    (void)std::strftime(clock, sizeof clock, "%H:%M:%S", &local);
  }
  return dim(join({"fanctl status at ", clock, ", every ", seconds,
                   seconds == 1 ? " second" : " seconds", "; q ends it"})) +
         "\n\n";
}

// --- Waiting ---

enum class Event { kTime, kResized, kStop, kContinued, kEnd };

// What a key or a signal asks for; kTime for those that ask for nothing.
Event next_event(int keyboard, int signals, long long until) {
  for (;;) {
    const long long rest = std::max(until - seconds_running(), 0LL);
    pollfd sources[] = {{.fd = signals, .events = POLLIN, .revents = 0},
                        {.fd = keyboard, .events = POLLIN, .revents = 0}};
    const int ready = ::poll(sources, 2, static_cast<int>(rest) * kMilliseconds);
    if (ready == 0) return Event::kTime;
    signalfd_siginfo signal{};
    if (sources[0].revents != 0 && ::read(signals, &signal, sizeof signal) == sizeof signal) {
      if (signal.ssi_signo == SIGWINCH) return Event::kResized;
      if (signal.ssi_signo == SIGCONT) return Event::kContinued;
      return signal.ssi_signo == SIGTSTP ? Event::kStop : Event::kEnd;
    }
    char key = 0;
    if (sources[1].revents != 0 && (::read(keyboard, &key, 1) != 1 || key == 'q' || key == 'Q')) {
      return Event::kEnd;  // the terminal may have gone away
    }
  }
}

}  // namespace

ExitStatus watch_status(const Options& options, int seconds) {
  const Descriptor keyboard(::open("/dev/tty", O_RDONLY | O_CLOEXEC));
  if (!keyboard) {
    (void)std::fputs("--watch needs a terminal with a keyboard\n", stderr);
    return EXIT_WRONG_USE;
  }
  const sigset_t awaited = watched_signals();
  (void)::sigprocmask(SIG_BLOCK, &awaited, nullptr);
  const Descriptor signals(::signalfd(-1, &awaited, SFD_CLOEXEC));
  Screen screen(keyboard.get());
  screen.enter();

  std::optional<DiskList> disks;
  long long asked = 0;
  for (;;) {
    const long long begin = seconds_running();
    if (begin - asked >= kDiskSeconds) disks.reset();
    if (!disks) asked = begin;
    const Status status = look_at_status(options, disks);
    disks = status.disks;
    const std::string text = heading(status, seconds) + status_as_text(status);
    Event event = Event::kResized;
    while (event != Event::kTime) {
      if (event == Event::kEnd || !show(text)) return exit_status(status);
      event = next_event(keyboard.get(), signals.get(), begin + seconds);
      if (event == Event::kStop) {
        screen.leave();
        stop_here();
      }
      if (event == Event::kStop || event == Event::kContinued) screen.enter();
    }
  }
}
