#include "alerts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>

#include "state.h"
#include "utils.h"

std::optional<std::time_t> flag_since(const char* flag) {
  struct stat status {};
  if (::lstat(flag, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink != 1 ||
      (status.st_uid != 0 && status.st_uid != ::geteuid())) {
    return std::nullopt;
  }
  // A critical temperature is reported, and the file emptied, again and again: its birth tells.
  struct statx birth {};
  if (::statx(AT_FDCWD, flag, AT_SYMLINK_NOFOLLOW, STATX_BTIME, &birth) == 0 &&
      (birth.stx_mask & STATX_BTIME) != 0) {
    return static_cast<std::time_t>(birth.stx_btime.tv_sec);
  }
  return status.st_mtime;
}

GuardRecord read_guard_record() {
  State state = read_state(GUARD_RECORD);
  return {static_cast<int>(number_in(state["number"], INT_MAX - 1)),
          state["stands"] == "yes",
          state["failed"] == "yes",
          static_cast<std::time_t>(number_in(state["since"], LATEST_MOMENT)),
          state["reasons"],
          state["temperature"],
          state["text"]};
}

bool write_guard_record(const GuardRecord& record) {
  return write_state(GUARD_RECORD, {{"number", std::to_string(record.number)},
                                    {"stands", record.stands ? "yes" : "no"},
                                    {"failed", record.failed ? "yes" : "no"},
                                    {"since", std::to_string(record.since)},
                                    {"reasons", record.reasons},
                                    {"temperature", record.temperature},
                                    {"text", record.text}});
}
