#define _GNU_SOURCE /* secure_getenv */
#include "corvane.h"

#include <errno.h>
#include <fcntl.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

enum { SUCCESS = 0, FAILURE = -1, CLOSED = -1, FILE_NAME_MAX = 64 };
enum { FOLDER_MODE = 0755, RESOURCE_MODE = 0644 };

static const char DEFAULT_FOLDER[] = "/run/corvane";

static bool is_open(const corvane_handle *handle) {
  return handle != NULL && handle->folder != CLOSED;
}

int corvane_init(corvane_handle *handle) {
  if (handle == NULL) return FAILURE;
  handle->folder = CLOSED;
  handle->used = 0;

  const char *folder = secure_getenv("CORVANE_DIR");
  if (folder == NULL || folder[0] == '\0') folder = DEFAULT_FOLDER;
  if (mkdir(folder, FOLDER_MODE) != 0 && errno != EEXIST) return FAILURE;
  const int descriptor = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (descriptor < 0) return FAILURE;
  if (faccessat(descriptor, ".", R_OK | W_OK | X_OK, AT_EACCESS) != 0) {
    (void)close(descriptor);
    return FAILURE;
  }
  handle->folder = descriptor;
  return SUCCESS;
}

/* Fills the buffer as far as the file goes; the number of bytes, or -1. */
static ssize_t read_whole(int descriptor, char *buffer, size_t size) {
  size_t used = 0;
  while (used < size) {
    const ssize_t count = read(descriptor, buffer + used, size - used);
    if (count == 0) break;
    if (count > 0) {
      used += (size_t)count;
    } else if (errno != EINTR) {
      return -1;
    }
  }
  return (ssize_t)used;
}

int corvane_get_config(corvane_handle *handle, int resource) {
  if (!is_open(handle) || resource < 0) return FAILURE;
  char name[FILE_NAME_MAX];
  (void)snprintf(name, sizeof name, "resource-%d", resource);
  const int descriptor = openat(handle->folder, name, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (descriptor < 0) {
    if (errno != ENOENT) return FAILURE;
    handle->used = 0;
    return SUCCESS;
  }

  char text[CORVANE_PROPERTIES_MAX + 1]; /* one more, to notice a file that is too large */
  const ssize_t count = read_whole(descriptor, text, sizeof text);
  (void)close(descriptor);
  if (count < 0) return FAILURE;
  size_t used = (size_t)count;
  /* A file edited by hand may lack its last line feed; appended lines need it. */
  if (used > 0 && used < sizeof text && text[used - 1] != '\n') text[used++] = '\n';
  if (used > CORVANE_PROPERTIES_MAX) return FAILURE;
  memcpy(handle->properties, text, used);
  handle->used = used;
  return SUCCESS;
}

/* Where the property's line begins and where the next one does; both the end when there is none. */
static void find_line(const corvane_handle *handle, const char *name, size_t *first, size_t *next) {
  const size_t length = strlen(name);
  for (size_t at = 0; at < handle->used; at = *next) {
    const char *line = handle->properties + at;
    const size_t rest = handle->used - at;
    const char *end = memchr(line, '\n', rest);
    *next = end == NULL ? handle->used : at + (size_t)(end - line) + 1;
    *first = at;
    if (rest > length && memcmp(line, name, length) == 0 && line[length] == '=') return;
  }
  *first = *next = handle->used;
}

int corvane_set_property_string(corvane_handle *handle, const char *name, const char *value) {
  if (!is_open(handle) || name == NULL || value == NULL) return FAILURE;
  if (name[0] == '\0' || strpbrk(name, "=\n") != NULL || strchr(value, '\n') != NULL) {
    return FAILURE;
  }
  char line[CORVANE_PROPERTIES_MAX + 1];
  const int printed = snprintf(line, sizeof line, "%s=%s\n", name, value);
  if (printed < 0 || (size_t)printed >= sizeof line) return FAILURE;
  const size_t length = (size_t)printed;

  size_t first;
  size_t next;
  find_line(handle, name, &first, &next);
  const size_t tail = handle->used - next;
  if (first + length + tail > CORVANE_PROPERTIES_MAX) return FAILURE;
  memmove(handle->properties + first + length, handle->properties + next, tail);
  memcpy(handle->properties + first, line, length);
  handle->used = first + length + tail;
  return SUCCESS;
}

static bool write_whole(int descriptor, const char *text, size_t size) {
  while (size > 0) {
    const ssize_t count = write(descriptor, text, size);
    if (count >= 0) {
      text += count;
      size -= (size_t)count;
    } else if (errno != EINTR) {
      return false;
    }
  }
  return true;
}

int corvane_set_config(corvane_handle *handle, int resource) {
  if (!is_open(handle) || resource < 0) return FAILURE;
  char name[FILE_NAME_MAX];
  char temporary[FILE_NAME_MAX];
  (void)snprintf(name, sizeof name, "resource-%d", resource);
  (void)snprintf(temporary, sizeof temporary, ".resource-%d.%ld", resource, (long)getpid());

  /* A killed process may have left a file under the same process number. */
  (void)unlinkat(handle->folder, temporary, 0);
  const int descriptor =
      openat(handle->folder, temporary, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, RESOURCE_MODE);
  if (descriptor < 0) return FAILURE;
  const bool written = write_whole(descriptor, handle->properties, handle->used);
  const bool closed = close(descriptor) == 0;
  if (written && closed && renameat(handle->folder, temporary, handle->folder, name) == 0) {
    return SUCCESS;
  }
  (void)unlinkat(handle->folder, temporary, 0);
  return FAILURE;
}

int corvane_close(corvane_handle *handle) {
  if (handle == NULL) return FAILURE;
  if (handle->folder != CLOSED) (void)close(handle->folder);
  handle->folder = CLOSED;
  handle->used = 0;
  return SUCCESS;
}
