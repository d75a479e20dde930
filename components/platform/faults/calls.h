// What can fail: every function that the service's binary takes from shared libraries.
#ifndef FAULTS_CALLS_H
#define FAULTS_CALLS_H

#include <string_view>

struct CallRow {
  std::string_view function;
  // What it can fail with: names of errno, and
  //   SHORT   half of the bytes, without an error
  //   REJECT  the system call succeeds, but the disk refuses the command
  //   LOST    the log line does not arrive
  //   FAILS   the management library's result is -1
  std::string_view errors;
};

// In the order of their names. A function that cannot fail has a row as well: a new import without
// a row is noticed.
inline constexpr CallRow CALL_ROWS[] = {
    {"__open64_2", "EINTR EMFILE EIO EAGAIN ENOMEM"},
    {"__syslog_chk", "LOST"},
    {"close", "EINTR EIO ENOSPC"},
    {"closedir", "EINTR EIO"},
    {"corvane_close", "FAILS"},
    {"corvane_get_config", "FAILS"},
    {"corvane_init", "FAILS"},
    {"corvane_set_config", "FAILS"},
    {"corvane_set_property_string", "FAILS"},
    {"dup2", "EINTR EMFILE EIO"},
    {"fopen64", "EINTR EMFILE EIO ENOSPC EAGAIN ENOMEM"},
    {"fork", "EAGAIN ENOMEM"},
    {"fstat64", "EIO ENOMEM"},
    {"ftruncate64", "EINTR EIO"},
    {"ioctl", "EINTR EIO EAGAIN ENOMEM REJECT"},
    {"localtime", "EOVERFLOW"},
    {"lstat64", "EIO ENOMEM"},
    {"mkdtemp", "EIO ENOSPC ENOMEM"},
    {"open64", "EINTR EMFILE EIO ENOSPC EAGAIN ENOMEM"},
    {"opendir", "EINTR EMFILE EIO ENOMEM"},
    {"poll", "EINTR EAGAIN ENOMEM"},
    {"read", "EINTR EIO EAGAIN ENOMEM SHORT"},
    {"readdir64", "EINTR EIO ENOMEM"},
    {"remove", "EIO ENOMEM"},
    {"rename", "EIO ENOSPC ENOMEM"},
    {"rmdir", "EIO ENOMEM"},
    {"select", "EINTR ENOMEM"},
    {"sleep", "EINTR"},
    {"unlink", "EIO ENOMEM"},
    {"write", "EINTR EIO ENOSPC EAGAIN EPIPE SHORT"},

    // Memory: swept by itself, one allocation and all from there on.
    {"malloc", ""},
    {"realloc", ""},

    // The program's streams: their system calls are read, write and close, inside the C library.
    {"__fprintf_chk", ""},
    {"__uflow", ""},
    {"fclose", ""},
    {"ferror", ""},
    {"fgets", ""},
    {"fputc", ""},
    {"fputs", ""},
    {"fwrite", ""},

    // With the arguments that they get they cannot fail: numbers and sets of signals, the clock,
    // the process's own number, a lock that nobody else takes.
    {"clock_gettime", ""},
    {"geteuid", ""},
    {"getpid", ""},
    {"pthread_mutex_lock", ""},
    {"pthread_mutex_unlock", ""},
    {"pthread_once", ""},
    {"sigaddset", ""},
    {"sigemptyset", ""},
    {"sigfillset", ""},
    {"signal", ""},
    {"sigprocmask", ""},
    {"time", ""},
    // Called only after a write's EPIPE, and fails then, as there is no signal.
    {"sigtimedwait", ""},
    // They fail for a descriptor that is closed, or is no terminal: that is what they are asked.
    {"fcntl64", ""},
    {"isatty", ""},

    // Without a system call and without memory of their own, or the end of the program.
    {"_ITM_deregisterTMCloneTable", ""},
    {"_ITM_registerTMCloneTable", ""},
    {"__cxa_atexit", ""},
    {"__cxa_finalize", ""},
    {"__errno_location", ""},
    {"__fdelt_chk", ""},
    {"__gmon_start__", ""},
    {"__libc_single_threaded", ""},
    {"__libc_start_main", ""},
    {"__pthread_key_create", ""},
    {"__snprintf_chk", ""},
    {"__stack_chk_fail", ""},
    {"__tls_get_addr", ""},
    {"_dl_find_object", ""},
    {"_exit", ""},
    {"abort", ""},
    {"exit", ""},
    {"free", ""},
    {"getopt_long", ""},
    {"gettext", ""},
    {"memchr", ""},
    {"memcmp", ""},
    {"memcpy", ""},
    {"memmove", ""},
    {"sprintf", ""},
    {"strcmp", ""},
    {"strlen", ""},
    {"strncmp", ""},
    {"strstr", ""},
    {"strtol", ""},
};

#endif
