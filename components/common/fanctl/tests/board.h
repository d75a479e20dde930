// The shipped fanctl on a simulated board.
#pragma once

#include <sys/stat.h>

#include <filesystem>

#include "fixtures.h"

namespace fs = std::filesystem;

/// A board with hwmon chips. Its folders are root's own, as on a real one.
struct Board : TestAppliance {
  explicit Board(const std::vector<Chip>& chips = {}) {
    ::umask(S_IWGRP | S_IWOTH);
    write("/proc/partitions", "");
    for (const Chip& each : chips) chip(each);
  }
  void allow(const std::string& path, int mode) const {
    fs::permissions(at(path), static_cast<fs::perms>(mode));
  }
};

/// A run of fanctl.
struct Fanctl {
  Fanctl(const Appliance& board, const Lines& arguments, int shownOn = -1)
      : status(Program(board, {FANCTL_BINARY, arguments, shownOn}).parentStatus),
        output(board.read("/out")),
        errors(board.read("/err")) {}
  int status;
  std::string output, errors;
};
