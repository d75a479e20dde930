// A machine in memory: while one of its runs lasts, the C library's functions find the files that
// were put here and nothing else, and whatever reaches out (waits, signals, programs) does nothing.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace machine {

// What every run begins with. A link's target is a whole path.
void keep(const std::string& path, const std::string& text);
void keep_link(const std::string& path, const std::string& target);

// A file of this run. Between the runs nothing is left of it.
void put(const std::string& path, std::string_view text);
// Neither file nor folder of this run. The files of a folder are still found by their paths.
void leave_out(const std::string& path);
// What a file holds now; empty without one.
std::string text_of(const std::string& path);

// What a disk answers: its SMART data, who it is, its sense data. Shorter ones end with zeros.
struct Disk {
  std::string smart, identity, sense;
};
inline Disk disk;

// What the last run wrote, in the order of the closing, and its standard output and error.
inline std::vector<std::string> written;
inline std::string shown, complained;

// Runs it on the machine. Aborts when it lost a descriptor.
void run(const std::function<void()>& what);

// Ends this program, as something that was found.
[[noreturn]] void fail();
inline void expect(bool promise) {
  if (!promise) fail();
}

}  // namespace machine
