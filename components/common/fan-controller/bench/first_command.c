/* Starts a program and prints after how many microseconds a file was written: first opened for
 * writing, written and closed again. Counted from before the fork, so a little too much rather than
 * too little.
 *
 *   bench_first_command FILE PROGRAM ARGUMENT... */
#define _GNU_SOURCE /* clock_gettime, whatever the dialect */
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/inotify.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

enum { PATIENCE_MS = 5000 };

extern char **environ;

static long long microseconds(void) {
  struct timespec now = {0};
  (void)clock_gettime(CLOCK_MONOTONIC, &now);
  return (long long)now.tv_sec * 1000000 + now.tv_nsec / 1000;
}

int main(int argc, char *argv[]) {
  if (argc < 3) {
    fprintf(stderr, "usage: bench_first_command FILE PROGRAM ARGUMENT...\n");
    return EXIT_FAILURE;
  }
  const int changes = inotify_init1(IN_CLOEXEC);
  if (changes < 0 || inotify_add_watch(changes, argv[1], IN_CLOSE_WRITE) < 0) {
    perror(argv[1]);
    return EXIT_FAILURE;
  }
  posix_spawn_file_actions_t actions;
  if (posix_spawn_file_actions_init(&actions) != 0 ||
      posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0) != 0) {
    return EXIT_FAILURE;
  }

  pid_t child;
  const long long start = microseconds();
  if (posix_spawn(&child, argv[2], &actions, NULL, argv + 2, environ) != 0) return EXIT_FAILURE;
  struct pollfd change = {.fd = changes, .events = POLLIN};
  const int changed = poll(&change, 1, PATIENCE_MS);
  const long long time = microseconds() - start;

  (void)waitpid(child, NULL, 0);
  if (changed != 1) return EXIT_FAILURE;
  printf("%lld\n", time);
  return EXIT_SUCCESS;
}
