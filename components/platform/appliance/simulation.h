// What the parts of the simulated appliance share.
#ifndef APPLIANCE_SIMULATION_H
#define APPLIANCE_SIMULATION_H

#include <dlfcn.h>
#include <linux/limits.h>

#include <cstddef>
#include <string>
#include <string_view>

// Marks a function that takes the place of the C library's.
#define APPLIANCE_INTERPOSED extern "C" __attribute__((visibility("default")))

namespace appliance {

// The function that this library hides: a sanitizer's or the C library's.
template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

using PathBuffer = char[PATH_MAX];

// APPLIANCE_ROOT, or nullptr when the appliance is not configured.
const char* root();

// A path of the appliance as a path below the root; one that lies there already stays. nullptr,
// with errno ENAMETOOLONG, when it does not fit. Only for a configured appliance.
const char* belowRoot(const char* path, PathBuffer& buffer);

// The start of a file, at most `limit` bytes; empty when it cannot be read.
std::string readFile(const std::string& path, std::size_t limit);

// Takes the text up to a delimiter, or all of it, off the front; the delimiter goes too.
std::string_view cut(std::string_view& text, char delimiter);

// Lets the enclosure live up to a second of the simulated clock, if there is one.
void liveUntil(double seconds);

// Something that happens to it, as the timeline says it. False for what it does not know.
bool changeEnclosure(std::string_view action, const std::string& object, const std::string& text);

// Another root may have another enclosure, or none.
void forgetEnclosure();

// Adds a formatted line to the journal; see appliance_note.
void record(const char* kind, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Adds the path of something that the program changes outside the root to <root>/outside.
void recordOutside(const char* path);

}  // namespace appliance

#endif
