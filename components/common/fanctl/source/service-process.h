// The running service, as seen from outside.
#pragma once

#include <sys/types.h>

/// The process number of the service by its pid file, once the process of that number is seen to be
/// the service; 0 when it does not run.
pid_t find_service();
