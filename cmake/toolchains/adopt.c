// Runs a program that adopts orphans. Built for the machine that builds: qemu-arm does not know the
// call, but the setting survives into the emulator that is executed here.
#include <sys/prctl.h>
#include <unistd.h>

int main(int argc, char *argv[]) {
  if (argc < 2 || prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) return 1;
  execvp(argv[1], argv + 1);
  return 127;
}
