/* What the service does in a cycle, as a plain C loop: the system sensor, the status file, the
 * nearest step of the table, the alarm attribute. The same system calls in the same order and the
 * same texts, so that the difference in processor time is the service's own. scripts/bench checks
 * that the calls are the same.
 *
 *   bench_loop SENSOR STATUS_FILE ALARM   runs until SIGTERM, with a period of 0 seconds */
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

enum { LINE_MAX_BYTES = 1024, ATTRIBUTE_BYTES = 128, RECORD_BYTES = 32, PERIOD = 0, STEPS = 6 };
enum { FAN_FAILED = 0, FAN_WORKING = 1, TEMP_NORMAL = 3 };

struct step {
  int temperature;
  int command;
};

static const struct step table[STEPS] = {{30, 60},  {40, 100}, {45, 130},
                                         {50, 170}, {55, 210}, {60, 255}};

static volatile sig_atomic_t terminated;
static int current_command = -1;
static int last_fan_alert = FAN_WORKING;
static int last_temp_alert = TEMP_NORMAL;

static void on_sigterm(int number) {
  (void)number;
  terminated = 1;
}

/* One trace line, in one write. */
__attribute__((format(printf, 2, 3))) static void trace(const char *operation, const char *format,
                                                        ...) {
  char line[LINE_MAX_BYTES];
  size_t length = (size_t)snprintf(line, sizeof line, "fan-ctrl.cpp:%s ", operation);
  va_list arguments;
  va_start(arguments, format);
  length += (size_t)vsnprintf(line + length, sizeof line - length - 1, format, arguments);
  va_end(arguments);
  line[length++] = '\n';
  if (write(STDOUT_FILENO, line, length) < 0) terminated = 1;
}

/* Reads the first line of an attribute, without its line feed. */
static int read_attribute(const char *path, char *value, size_t size) {
  const int file = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (file < 0) return -1;
  char *end = NULL;
  size_t length = 0;
  while (end == NULL && length < size - 1) {
    const ssize_t count = read(file, value + length, size - 1 - length);
    if (count <= 0) break;
    end = memchr(value + length, '\n', (size_t)count);
    length += (size_t)count;
  }
  (void)close(file);
  if (length == 0) return -1;
  *(end != NULL ? end : value + length) = '\0';
  return 0;
}

static void write_status(const char *path, const char *sensor, int temperature, int alert_level) {
  FILE *file = fopen(path, "w+");
  if (file == NULL) return;
  time_t now = time(NULL);
  const struct tm *local = localtime(&now);
  char value[ATTRIBUTE_BYTES];
  if (local != NULL && read_attribute(sensor, value, sizeof value) == 0) {
    fprintf(file,
            "# Tarvo Fan Controller Service\n"
            "# Current state for HDD temperatures\n"
            "# %ddegC is considered as the alert level for HDD temperature\n"
            "# System time : %d:%d:%d\t%d-%d-%d\n"
            "System Temp is %s : %ddegC\n",
            alert_level, local->tm_hour, local->tm_min, local->tm_sec, local->tm_mday,
            local->tm_mon + 1, local->tm_year + 1900, temperature < alert_level ? "OK" : "HOT",
            temperature);
  }
  (void)fclose(file);
}

static void set_command(int command, const char *path) {
  syslog(LOG_INFO, "m_currentCmd %d", current_command);
  if (command == current_command) return;
  current_command = command;
  FILE *file = fopen(path, "w");
  if (file == NULL) return;
  char record[RECORD_BYTES] = {0};
  (void)snprintf(record, sizeof record, "%d", command);
  (void)fwrite(record, sizeof record, 1, file);
  (void)fclose(file);
}

/* The temperature lies inside the table: of the two steps beside it the nearer one. */
static void select_command(int temperature, const char *path) {
  trace("processCmd", "current temp = %d", temperature);
  trace("processCmd", "tHigh %d", table[STEPS - 1].temperature);
  int upper = 1;
  while (upper < STEPS - 1 && table[upper].temperature < temperature) ++upper;
  const int lower = upper - 1;
  const int below = temperature - table[lower].temperature;
  const int above = table[upper].temperature - temperature;
  trace("processCmd", "m_valueMapIt->first %d", table[upper].temperature);
  trace("processCmd", "m_currentTemp %d", temperature);
  trace("processCmd", "m_valueMapIt->first %d", table[lower].temperature);
  trace("processCmd", "diffInf %d", below);
  trace("processCmd", "diffSup %d", above);
  if (above < below) {
    set_command(table[upper].command, path);
    trace("processCmd", "%d choose upper limit %d", temperature, table[upper].temperature);
  } else {
    set_command(table[lower].command, path);
    trace("processCmd", "%d choose lower limit %d", temperature, table[lower].temperature);
  }
}

static void check_alarm(const char *path) {
  char value[ATTRIBUTE_BYTES];
  if (read_attribute(path, value, sizeof value) != 0) return;
  if (strcmp(value, "1") == 0) last_fan_alert = FAN_FAILED;
}

static void wait_period(const char *alarm_path) {
  const int alarm = open(alarm_path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (alarm < 0) return;
  fd_set attributes;
  FD_ZERO(&attributes);
  FD_SET(alarm, &attributes);
  struct timeval timeout = {.tv_sec = PERIOD};
  if (select(1, &attributes, NULL, NULL, &timeout) == 0) check_alarm(alarm_path);
  (void)close(alarm);
}

int main(int argc, char *argv[]) {
  if (argc != 4) {
    fprintf(stderr, "usage: bench_loop SENSOR STATUS_FILE ALARM\n");
    return EXIT_FAILURE;
  }
  const char *sensor = argv[1];
  const char *status_file = argv[2];
  const char *alarm = argv[3];
  (void)signal(SIGTERM, on_sigterm);

  while (!terminated) {
    trace("endlessWatcher", "4 : m_lastFanAlert %d", last_fan_alert);
    trace("endlessWatcher", "4 : m_lastTempAlert %d", last_temp_alert);
    char value[ATTRIBUTE_BYTES];
    if (read_attribute(sensor, value, sizeof value) == 0) {
      const int temperature = (int)(strtol(value, NULL, 10) / 1000);
      trace("updateSysTemp", "System Temp. = %d", temperature);
      write_status(status_file, sensor, temperature, table[STEPS - 1].temperature);
      select_command(temperature, "/dev/null");
    }
    wait_period(alarm);
  }
  return EXIT_SUCCESS;
}
