#define DOCTEST_CONFIG_IMPLEMENT
#include <doctest.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

// Standard output is the service's own: it goes into a file that the cases may look at, from the
// file's end on, so that it can be emptied between them. The runner reports on standard error.
int main(int argc, char** argv) {
  doctest::Context context(argc, argv);
  context.setCout(&std::cerr);
  std::FILE* const traces = std::tmpfile();
  if (traces == nullptr || ::dup2(::fileno(traces), STDOUT_FILENO) < 0) return 1;
  ::fcntl(STDOUT_FILENO, F_SETFL, O_APPEND);
  return context.run();
}
