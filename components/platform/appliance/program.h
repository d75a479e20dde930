// A program that is started on a simulated appliance, for programs that watch it.
#ifndef APPLIANCE_PROGRAM_H
#define APPLIANCE_PROGRAM_H

#include <sys/types.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "layout.h"

// Closes a descriptor at its end.
struct Handle {
  explicit Handle(int descriptor) : number(descriptor) {}
  ~Handle();
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const int number;
};

// Two connected descriptors: what is written to the one is read from the other. A terminal is raw.
struct Channel {
  enum Kind { kPipe, kSocket, kTerminal };
  explicit Channel(Kind kind);

  std::optional<Handle> reader;
  std::optional<Handle> writer;
};

// Polls until the condition holds; false after half a minute.
bool eventually(const std::function<bool()>& condition);

// What comes from a pipe, a terminal or a socket until the text is enough, its end, or half a
// minute.
std::string received(int descriptor, const std::function<bool(const std::string&)>& enough);

// Runs a shipped binary, which may become a daemon, with the simulation preloaded. Throws, and
// starts nothing, where the simulation does not answer: each binary is run once without arguments
// to find out, which has to be harmless. The calling process adopts the daemon, so its end can be
// seen; no other child may be made meanwhile. A daemon that runs away is stopped by its limits of
// file size and processor time. APPLIANCE_EMULATOR in the environment: what runs a binary of
// another processor.
class Program {
 public:
  struct Limits {
    unsigned long processorSeconds = 30;
    unsigned long fileSize = 16UL << 20;  // bytes
  };
  struct Start {
    std::string binary;
    std::vector<std::string> arguments = {};
    int output = -1;    // standard output; the appliance's file /out by default
    int terminal = -1;  // a terminal: the program leads a session on it
    Limits limits = {};
    std::string preload = {};  // a library that stands before the simulation
    unsigned seconds = 0;  // SIGALRM ends what is started, not its children, after them; 0: never
  };

  // Returns when the process that was started has ended, and has left a daemon or not. Standard
  // error is the appliance's file /err.
  Program(const Appliance& appliance, const Start& start);
  // Kills the daemon.
  ~Program();
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  // The daemon's wait status, as waitpid gives it, once it has ended; -1 after half a minute. A
  // signal is sent until then: one that comes just before a wait does not end it.
  int wait_end(int signal = 0);

  int parentStatus = -1;
  pid_t daemon = 0;  // 0 when there is none
};

#endif
