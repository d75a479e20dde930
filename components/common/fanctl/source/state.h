// What the subcommands remember from one run to the next, in folders of root's.
#pragma once

#include <map>
#include <string>

#include "utils.h"

inline constexpr char STATE_FOLDER[] = "/var/lib/fan_controller";  ///< survives a restart
inline constexpr char RUN_FOLDER[] = "/run/fan_controller";        ///< does not

/// A file of key=value lines. Values have no line feed and no blank at their end.
using State = std::map<std::string, std::string>;

/// Empty when there is no such file.
State read_state(const std::string& path);

/// Replaces the file in one step, and makes its folder when that is missing. False, with errno,
/// when it cannot be written; it is then as it was.
bool write_state(const std::string& path, const State& state);

/// Locks a file of root's, and makes it and its folder, for as long as the result lives. An empty
/// one, with errno: EWOULDBLOCK when another run holds it.
Descriptor lock_file(const std::string& path);
