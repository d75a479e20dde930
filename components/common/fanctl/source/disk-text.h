// A disk in words and as JSON, for the subcommands that list disks.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "disk-state.h"

/// What is known of the disk, without its path: temperature, model and serial number, or why there
/// is no temperature. Safe to be shown.
std::string describe_disk(const DiskState& disk);

/// The same with its path and a word for its state. Model and serial may hold bytes that are no
/// UTF-8: such JSON is written with the error handler that replaces them.
nlohmann::ordered_json disk_as_json(const DiskState& disk);
