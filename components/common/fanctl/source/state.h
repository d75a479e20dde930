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

/// The latest moment that a file can tell: the end of the year 9999.
inline constexpr long long LATEST_MOMENT = 253402300799;

/// The whole number that a value begins with; 0 when there is none, and for one that is not between
/// 0 and most, which this program has not written.
long long number_in(const std::string& value, long long most);

/// Replaces the file in one step, and makes its folder when that is missing. False, with errno,
/// when it cannot be written; it is then as it was.
bool write_state(const std::string& path, const State& state);

/// Locks a file of root's, and makes it and its folder, for as long as the result lives. An empty
/// one, with errno: EWOULDBLOCK when another run holds it.
Descriptor lock_file(const std::string& path);
