// Runs a program on simulated appliances over and over, each time with another fault.
#ifndef FAULTS_SWEEP_H
#define FAULTS_SWEEP_H

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "layout.h"

// What is made to fail in a run.
struct Fault {
  std::string product;
  std::string kind;    // call, allocation, or from: an allocation and all that follow
  std::string number;  // of the call or the allocation, from 1 on
  std::string function;
  std::string about;  // a call's path or text, an allocation's bytes
  std::string error;  // of a call, as in calls.h

  std::string name() const;  // by which it is asked for
  bool isAllocation() const { return kind != "call"; }
};

// What a run has left.
struct Outcome {
  const Appliance& appliance;
  const Fault* fault;              // null: none
  int starter = -1;                // exit status of the command that starts it
  std::optional<int> status = {};  // of the daemon, if there is one
  std::vector<std::pair<long, std::string>> journal = {};  // second and entry
  std::vector<std::string> log = {};                       // what the library of faults wrote

  // Whether an entry that begins so was made from one second to before another.
  bool has(const std::string& entry, long from = 0, long to = 1'000'000) const;
};

enum class Output { kFile, kPipe, kClosedPipe };

struct Product {
  std::string name;
  std::vector<std::string> arguments;
  Output output = Output::kFile;
  long until = 0;    // calls and allocations fail up to this second
  std::string kept;  // a path that the daemon may leave open, as often as mayKeep says
  std::function<int(const Outcome&)> mayKeep;
  std::function<void(const Appliance&)> layOut;
  // The name of the state that the program has come to, by what it has left; "!" and what is wrong
  // with it if it must not come to that. Not asked after a signal's end or a lost descriptor.
  std::function<std::string(const Outcome&)> verdict;
};

// The program of a sweep: `every NUMBER`, every NUMBERth fault of all products, or `only NAME`, all
// of one product or a single one. Prints findings and a summary; the exit status, 1 with findings,
// 2 for a name that no fault has. What it starts ends with it, also by SIGHUP, SIGINT, SIGPIPE and
// SIGTERM.
// Fails too when the binary takes a function from a library that calls.h does not know, when no
// product makes a call that can fail, and when a product does not work without a fault.
int sweepMain(int argc, char** argv, const std::string& binary,
              const std::vector<Product>& products);

#endif
