#include "state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "files.h"
#include "settings.h"

State read_state(const std::string& path) {
  State state;
  const FilePtr file(std::fopen(path.c_str(), "r"));
  Setting line;
  while (file && next_setting(file.get(), line)) state[line.key] = line.value;
  return state;
}

long long number_in(const std::string& value, long long most) {
  const long long number = std::strtoll(value.c_str(), nullptr, 10);
  return number >= 0 && number <= most ? number : 0;
}

bool write_state(const std::string& path, const State& state) {
  if (make_own_folder(parent_of(path)) != 0) return false;
  std::string text = "# Written by fanctl.\n";
  for (const auto& [key, value] : state) text += join({key, "=", value, "\n"});
  return replace_file(path, text);
}

Descriptor lock_file(const std::string& path) {
  if (make_own_folder(parent_of(path)) != 0) return Descriptor(-1);
  constexpr mode_t kOwnerOnly = 0600;
  Descriptor file(
      ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kOwnerOnly));
  if (!file || ::flock(file.get(), LOCK_EX | LOCK_NB) == 0) return Descriptor(file.release());
  return Descriptor(-1);
}
