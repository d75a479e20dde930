// Ctrl-C and the like: nothing is left behind.
#pragma once

// Thrown once a signal has asked the lab to end.
struct Stopped {
  int signal;
};

// From now on SIGHUP, SIGINT and SIGTERM are remembered instead of ending the lab at once.
void remember_signals();
// Throws Stopped when one has come.
void throw_when_stopped();
