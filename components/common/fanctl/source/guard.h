// The fan's alarm on a folder that fanctl link has made, for chips that have none.
#pragma once

#include <string>

#include "configuration.h"

/// Whether such a folder has a tachometer, but only a plain file for the alarm.
bool lacks_alarm(const std::string& folder);

/// Keeps that file up to date: 1 while the fan stands still although its command is above 0, seen
/// twice with ten seconds between, else 0. While the fan stands still it goes on looking for three
/// quarters of a minute, so that the service soon learns that the fan turns again. Does nothing on
/// other folders.
void supply_alarm(const std::string& folder, const Driver& driver);
