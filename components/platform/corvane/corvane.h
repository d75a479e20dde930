/*
 * Stand-in for the appliance's management library.
 *
 * A resource is a text file `resource-<id>` of name=value lines in /run/corvane, or in the folder
 * named by the environment variable CORVANE_DIR. Every function returns 0 for success and anything
 * else for failure.
 */
#ifndef CORVANE_H
#define CORVANE_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif
#pragma GCC visibility push(default)

/* Bytes that the properties of one resource may take, each line's line feed included. */
#define CORVANE_PROPERTIES_MAX 1024

/* A connection. The caller gives the storage; its contents belong to the library. */
typedef struct corvane_handle {
  int folder;
  size_t used;
  char properties[CORVANE_PROPERTIES_MAX];
} corvane_handle;

/* Opens a connection with no properties. Makes the folder when only its last component is missing.
 * Fails when the folder cannot be used; the handle may then still be closed. */
int corvane_init(corvane_handle *handle);

/* Fetches a resource into the handle; one that nobody has written yet is empty. Fails, and keeps
 * the properties held so far, when it cannot be read or does not fit. */
int corvane_get_config(corvane_handle *handle, int resource);

/* Replaces or adds one property in the handle only. Fails, and changes nothing, when the name is
 * empty or holds '=', when name or value holds a line feed, and when the handle is full. */
int corvane_set_property_string(corvane_handle *handle, const char *name, const char *value);

/* Writes the handle's properties as the resource, in one step for every reader. Fails, and leaves
 * the resource as it was, when the folder refuses the file. */
int corvane_set_config(corvane_handle *handle, int resource);

/* Ends the connection; ending it again does nothing. Fails only without a handle. */
int corvane_close(corvane_handle *handle);

#pragma GCC visibility pop
#ifdef __cplusplus
}
#endif

#endif
