// The running service, as seen from outside.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

enum class ServiceState {
  kRuns,
  kHalted,  ///< its process is there, but a signal or a debugger holds it
  kEnded,   ///< it should run and does not: it crashed, was killed or gave up
  kOff,     ///< it does not run, and as far as can be seen nobody wants it to
};

struct ServiceProcess {
  ServiceState state = ServiceState::kOff;
  pid_t process = 0;               ///< 0: there is none
  unsigned long long started = 0;  ///< clock ticks since boot; tells processes of one number apart
};

/// The file with its process number, wherever the configuration wants it removed.
inline constexpr char PID_FILE_PATH[] = "/var/run/fan_controller.pid";

/// Looks for the service by its pid file and by what systemd says of its unit, where there is a
/// systemd. A pid file without its process shows that the service was not stopped; removedFile: the
/// one that a service removes when it is stopped. Where that is another one, the first tells
/// nothing.
ServiceProcess look_at_service(const std::string& removedFile = PID_FILE_PATH);

/// How long ago the process was started, in seconds, up to a hundredth more; nothing when that is
/// not known.
std::optional<double> age_of(const ServiceProcess& service);

/// Whether this very process is still there.
bool is_still_there(const ServiceProcess& service);
