// The whole disks that the kernel lists.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

inline constexpr char PARTITIONS_FILE[] = "/proc/partitions";

/// Reads the open list of partitions and adds the path of each whole disk, "/dev/sd" and a letter,
/// in the list's order. The first "sd" of a line and the letter behind it are taken; a digit behind
/// that makes it a partition. So a 27th disk (sdaa) counts as the first one once more. False, and
/// no device, when the list cannot be read to its end: the hottest disk may be among the missing
/// ones.
bool list_disks(std::FILE* partitions, std::vector<std::string>& devices);
