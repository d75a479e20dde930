// The programs that tell somebody what has happened.
#pragma once

#include <string>
#include <vector>

/// What a hook is told, as FAN_EVENT, FAN_TEXT, FAN_TEMPERATURE and FAN_HOST in its environment.
struct Notice {
  std::string event;
  std::string text;         ///< one sentence
  std::string temperature;  ///< whole degrees Celsius; empty when it is not known
  std::string host;
};

/// The names of the hooks in a folder, in the order of their bytes: executable files, or links to
/// them. A name that begins with a dot, ends with ~ or has .dpkg- in it is none.
std::vector<std::string> list_hooks(const std::string& folder);

/// Runs a hook and waits for it, 35 seconds at most. Empty when it succeeded, otherwise why it did
/// not. One that others than root could have written is not run.
std::string run_hook(const std::string& path, const Notice& notice);
