// Signals to the running service, which it looks at between two cycles.
#pragma once

#include <string>

#include "configuration.h"
#include "service-process.h"

/// What the service waits in for its next cycle.
enum class Pause {
  kNone,     ///< in nothing: it measures, reports or starts, and looks at a signal only later
  kAlarm,    ///< with the fan's alarm open: any signal ends the wait
  kCounted,  ///< in steps of a second: any signal ends a step
};

/// The service and how to end its wait.
struct Waiting {
  ServiceProcess service;
  Pause pause = Pause::kNone;
  std::string alarmPath;
  int steps = 1;  ///< so many signals end the wait
};

/// Looks how the service waits. Takes two seconds and more where no alarm is open.
Waiting look_at_wait(const ServiceProcess& service, const Configuration& configuration);

/// Sends a signal to this very process, never to another one that was given its number. False, with
/// errno, when it was not sent: ESRCH when the process has ended.
bool send_signal(const ServiceProcess& service, int number);

/// Sends a signal, and as many more that the service ignores as end its wait, so that the next
/// cycle begins. True when it surely began. Takes 10 seconds at most.
bool end_wait(const Waiting& waiting, int number);
