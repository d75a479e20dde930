// The shipped fanctl on a simulated board.
#pragma once

#include <fcntl.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

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

/// While it lives, this process counts as the service.
struct AsService {
  explicit AsService(const Appliance& board) {
    board.write(PID_FILE, std::to_string(::getpid()) + "\n");
    ::prctl(PR_GET_NAME, m_name);
    ::prctl(PR_SET_NAME, "fan_controller");
  }
  ~AsService() { ::prctl(PR_SET_NAME, m_name); }
  AsService(const AsService&) = delete;
  AsService& operator=(const AsService&) = delete;

 private:
  char m_name[16] = {};
};

/// A lock file of the board, held as another run holds it.
struct HeldLock : Handle {
  HeldLock(const Appliance& board, const std::string& path)
      : Handle(::open(board.at(path).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600)) {
    REQUIRE(::flock(number, LOCK_EX) == 0);
  }
};
