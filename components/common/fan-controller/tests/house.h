// The tests' household: a controller and the shipped binary on a simulated appliance, and the
// management library's double.
#pragma once

#include <doctest.h>
#include <sys/types.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "FanController.h"
#include "alert-mgr.h"
#include "drivers.h"
#include "layout.h"

using Lines = std::vector<std::string>;

inline const std::string FAN = "/sys/fan";
inline const std::string SENSOR = "/sys/temp";
inline const std::string CONFIG = "/etc/fan_controller";
inline const std::string PID_FILE = "/var/run/fan_controller.pid";
inline const std::string STATUS = "/var/run/status";
inline const std::string TABLE = "30=100\n40=150\n50=200\n55=255\n";

inline bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}
inline bool contains(const Lines& lines, const std::string& line) {
  return std::ranges::find(lines, line) != lines.end();
}
Lines operator+(Lines left, const Lines& right);
/// Everything that body writes to standard output.
std::string traced(const std::function<void()>& body);
/// Polls until the condition holds; false after ten seconds.
bool eventually(const std::function<bool()>& condition);

/// A controller on an appliance of its own, to be driven operation by operation: fanless, with a
/// short table and nothing to report.
struct Bench : Appliance, FanController {
  Bench();
};

/// The management library as the linked service sees it; every call is journalled as "corvane".
inline int corvaneInitResult, corvaneEmptyFetches;  ///< the latter fail before one delivers

/// Who reads the service's standard output: a file, nobody, or somebody who has stopped reading.
enum class Reader { kFile, kGone, kStalled };

/// The shipped binary on an appliance. The test process adopts the daemon, so its end can be seen.
class Service {
 public:
  /// Runs the binary up to the exit of the parent.
  explicit Service(const Appliance& appliance, Lines arguments = {"--verbose", "-c", CONFIG},
                   Reader reader = Reader::kFile);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  /// The daemon's wait status, as waitpid gives it, once it has ended; -1 after ten seconds. A
  /// signal is sent until then: one that comes just before a wait does not end it.
  int wait_end(int signal = 0);

  int parentStatus = -1;
  pid_t daemon = 0;  ///< 0 when there is none

 private:
  int m_readEnd = -1;
};
