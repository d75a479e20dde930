#include "stop.h"

#include <csignal>
#include <initializer_list>

namespace {

volatile std::sig_atomic_t signalSeen = 0;

void remember(int signal) { signalSeen = signal; }

}  // namespace

void remember_signals() {
  for (const int signal : {SIGHUP, SIGINT, SIGTERM}) (void)std::signal(signal, remember);
}

void throw_when_stopped() {
  if (signalSeen != 0) throw Stopped{signalSeen};
}
