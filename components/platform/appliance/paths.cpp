// The appliance's paths, sent below the root folder, and their permissions.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "simulation.h"

namespace appliance {
namespace {

constexpr std::string_view kPrefixes[] = {
    "/var/run/",    "/run/", "/var/tmp/",           "/proc/partitions",        "/dev/sd",
    "/proc/uptime", "/sys/", "/etc/fan_controller", "/var/lib/fan_controller",
};

bool isOfAppliance(std::string_view path) {
  for (const auto prefix : kPrefixes) {
    if (path.starts_with(prefix)) return true;
    if (prefix.ends_with('/') && path == prefix.substr(0, prefix.size() - 1)) return true;
  }
  return false;
}

bool liesBelow(std::string_view path, std::string_view folder) {
  return path.starts_with(folder) && (path.size() == folder.size() || path[folder.size()] == '/');
}

std::string_view rootWithoutSlash() {
  std::string_view folder = root();
  while (folder.ends_with('/')) folder.remove_suffix(1);
  return folder;
}

// Whether a program may change what the path names without leaving a trace outside the root.
bool isHarmless(std::string_view path) {
  return path.empty() || liesBelow(path, rootWithoutSlash()) || path == "/dev/null";
}

enum class Use { kLook, kChange };

// A caller's path and where it leads: `real` is the caller's own pointer when the path is not the
// appliance's. A path outside the root that is to be changed is noted.
struct Route {
  explicit Route(const char* path, Use use) : real(path) {
    if (path == nullptr || root() == nullptr) return;
    if (isOfAppliance(path)) {
      real = belowRoot(path, buffer);
      redirected = real == buffer;
      tooLong = real == nullptr;  // errno says so
    } else if (use == Use::kChange && !isHarmless(path)) {
      recordOutside(path);
    }
  }

  // Whether the owner's permission bits allow the access. The kernel does not ask them for root,
  // and an attribute without them must be unreadable for root too. What does not exist is left to
  // the kernel. False comes with errno EACCES.
  bool permits(mode_t needed, bool followLink) const {
    struct stat64 status;
    const int flags = followLink ? 0 : AT_SYMLINK_NOFOLLOW;
    if (!redirected || needed == 0) return true;
    if (fstatat64(AT_FDCWD, real, &status, flags) != 0) return true;
    if ((status.st_mode & needed) == needed) return true;
    errno = EACCES;
    return false;
  }

  const char* real;
  bool redirected = false;
  bool tooLong = false;
  PathBuffer buffer;
};

mode_t neededBits(int flags) {
  switch (flags & O_ACCMODE) {
    case O_RDONLY:
      return S_IRUSR;
    case O_WRONLY:
      return S_IWUSR;
    default:
      return S_IRUSR | S_IWUSR;
  }
}

mode_t neededBits(const char* mode) {
  if (std::strchr(mode, '+') != nullptr) return S_IRUSR | S_IWUSR;
  return mode[0] == 'r' ? S_IRUSR : S_IWUSR;
}

mode_t bitsAskedFor(int access) {
  mode_t bits = 0;
  if ((access & R_OK) != 0) bits |= S_IRUSR;
  if ((access & W_OK) != 0) bits |= S_IWUSR;
  if ((access & X_OK) != 0) bits |= S_IXUSR;
  return bits;
}

bool takesMode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

using Open = int(const char*, int, ...);
using Fopen = FILE*(const char*, const char*);

int openRouted(Open* real, const char* path, int flags, mode_t mode) {
  const bool changes = (flags & (O_ACCMODE | O_CREAT | O_TRUNC)) != O_RDONLY;
  const Route route(path, changes ? Use::kChange : Use::kLook);
  if (route.tooLong) return -1;
  // An existing file is no matter of permission for who insists on a new one, nor for O_PATH.
  const bool insistsOnNew = (flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL);
  if (!insistsOnNew && (flags & O_PATH) == 0 &&
      !route.permits(neededBits(flags), (flags & O_NOFOLLOW) == 0)) {
    return -1;
  }
  return real(route.real, flags, mode);
}

FILE* fopenRouted(Fopen* real, const char* path, const char* mode) {
  const Route route(path, (neededBits(mode) & S_IWUSR) != 0 ? Use::kChange : Use::kLook);
  if (route.tooLong) return nullptr;
  if (std::strchr(mode, 'x') == nullptr && !route.permits(neededBits(mode), true)) return nullptr;
  return real(route.real, mode);
}

}  // namespace

const char* root() {
  const char* const folder = std::getenv("APPLIANCE_ROOT");
  return folder == nullptr || folder[0] == '\0' ? nullptr : folder;
}

const char* belowRoot(const char* path, PathBuffer& buffer) {
  const std::string_view folder = rootWithoutSlash();
  const std::string_view tail = path;
  if (liesBelow(tail, folder)) return path;
  if (folder.size() + tail.size() >= sizeof buffer) {
    errno = ENAMETOOLONG;
    return nullptr;
  }
  std::memcpy(buffer, folder.data(), folder.size());
  std::memcpy(buffer + folder.size(), path, tail.size() + 1);
  return buffer;
}

std::string readFile(const std::string& path, std::size_t limit) {
  std::string text;
  const int file = openat(AT_FDCWD, path.c_str(), O_RDONLY | O_CLOEXEC);
  if (file < 0) return text;
  text.resize(limit);
  const ssize_t count = read(file, text.data(), limit);
  close(file);
  text.resize(count < 0 ? 0 : static_cast<std::size_t>(count));
  return text;
}

std::string_view cut(std::string_view& text, char delimiter) {
  const auto length = std::min(text.find(delimiter), text.size());
  const auto front = text.substr(0, length);
  text.remove_prefix(std::min(length + 1, text.size()));
  return front;
}

}  // namespace appliance

using namespace appliance;

#define APPLIANCE_OPEN(name)                                        \
  APPLIANCE_INTERPOSED int name(const char* path, int flags, ...) { \
    static auto* const real = next<Open>(#name);                    \
    mode_t mode = 0;                                                \
    if (takesMode(flags)) {                                         \
      va_list arguments;                                            \
      va_start(arguments, flags);                                   \
      mode = va_arg(arguments, mode_t);                             \
      va_end(arguments);                                            \
    }                                                               \
    return openRouted(real, path, flags, mode);                     \
  }

APPLIANCE_OPEN(open)
APPLIANCE_OPEN(open64)

// What the fortified headers call for an open without a mode.
APPLIANCE_INTERPOSED int __open_2(const char* path, int flags) { return open(path, flags); }
APPLIANCE_INTERPOSED int __open64_2(const char* path, int flags) { return open64(path, flags); }

APPLIANCE_INTERPOSED FILE* fopen(const char* path, const char* mode) {
  static auto* const real = next<Fopen>("fopen");
  return fopenRouted(real, path, mode);
}

APPLIANCE_INTERPOSED FILE* fopen64(const char* path, const char* mode) {
  static auto* const real = next<Fopen>("fopen64");
  return fopenRouted(real, path, mode);
}

APPLIANCE_INTERPOSED DIR* opendir(const char* path) {
  static auto* const real = next<DIR*(const char*)>("opendir");
  const Route route(path, Use::kLook);
  if (route.tooLong) return nullptr;
  return route.permits(S_IRUSR, true) ? real(route.real) : nullptr;
}

// A function that takes a `path`: the permission bits that it asks for, its parameters, and the
// arguments to hand on.
#define APPLIANCE_PATH(name, use, bits, parameters, ...)        \
  APPLIANCE_INTERPOSED int name parameters noexcept {           \
    static auto* const real = next<int parameters>(#name);      \
    const Route route(path, Use::use);                          \
    if (route.tooLong || !route.permits(bits, true)) return -1; \
    return real(__VA_ARGS__);                                   \
  }

APPLIANCE_PATH(unlink, kChange, 0, (const char* path), route.real)
APPLIANCE_PATH(remove, kChange, 0, (const char* path), route.real)
APPLIANCE_PATH(rmdir, kChange, 0, (const char* path), route.real)
APPLIANCE_PATH(mkdir, kChange, 0, (const char* path, mode_t mode), route.real, mode)
APPLIANCE_PATH(access, kLook, bitsAskedFor(mode), (const char* path, int mode), route.real, mode)
APPLIANCE_PATH(faccessat, kLook, bitsAskedFor(mode),
               (int folder, const char* path, int mode, int flags), folder, route.real, mode, flags)

#define APPLIANCE_STAT(name, Status) \
  APPLIANCE_PATH(name, kLook, 0, (const char* path, Status status), route.real, status)
#define APPLIANCE_STATAT(name, Status)                                                             \
  APPLIANCE_PATH(name, kLook, 0, (int folder, const char* path, Status status, int flags), folder, \
                 route.real, status, flags)

APPLIANCE_STAT(stat, struct stat*)
APPLIANCE_STAT(lstat, struct stat*)
APPLIANCE_STATAT(fstatat, struct stat*)
APPLIANCE_STAT(stat64, struct stat64*)
APPLIANCE_STAT(lstat64, struct stat64*)
APPLIANCE_STATAT(fstatat64, struct stat64*)

APPLIANCE_PATH(statx, kLook, 0,
               (int folder, const char* path, int flags, unsigned int mask, struct statx* status),
               folder, route.real, flags, mask, status)

// What programs with 64-bit time call on a 32-bit machine.
#if __TIMESIZE == 32
APPLIANCE_STAT(__stat64_time64, void*)
APPLIANCE_STAT(__lstat64_time64, void*)
APPLIANCE_STATAT(__fstatat64_time64, void*)
#endif

APPLIANCE_INTERPOSED int rename(const char* from, const char* to) noexcept {
  static auto* const real = next<int(const char*, const char*)>("rename");
  const Route source(from, Use::kChange);
  const Route target(to, Use::kChange);
  return source.tooLong || target.tooLong ? -1 : real(source.real, target.real);
}

// The appliance loses no power, and the disk below it may be busy.
APPLIANCE_INTERPOSED int fsync(int descriptor) {
  static auto* const real = next<int(int)>("fsync");
  return root() == nullptr ? real(descriptor) : 0;
}

APPLIANCE_INTERPOSED char* mkdtemp(char* path) noexcept {
  static auto* const real = next<char*(char*)>("mkdtemp");
  Route route(path, Use::kChange);
  if (route.tooLong) return nullptr;
  if (!route.redirected) return real(path);
  if (real(route.buffer) == nullptr) return nullptr;
  const std::size_t length = std::strlen(path);
  std::memcpy(path, route.buffer + std::strlen(route.buffer) - length, length);
  return path;
}

// Handed back as the caller knows it: with the appliance's path.
static int makeFile(int (*real)(char*, int), char* path, int flags) {
  Route route(path, Use::kChange);
  if (route.tooLong) return -1;
  if (!route.redirected) return real(path, flags);
  const int file = real(route.buffer, flags);
  const std::size_t length = std::strlen(path);
  std::memcpy(path, route.buffer + std::strlen(route.buffer) - length, length);
  return file;
}

APPLIANCE_INTERPOSED int mkostemp(char* path, int flags) {
  return makeFile(next<int(char*, int)>("mkostemp"), path, flags);
}
APPLIANCE_INTERPOSED int mkostemp64(char* path, int flags) {
  return makeFile(next<int(char*, int)>("mkostemp64"), path, flags);
}

// A program of the appliance. The other functions of the family do not come by here.
APPLIANCE_INTERPOSED int execve(const char* path, char* const words[],
                                char* const environment[]) noexcept {
  static auto* const real = next<int(const char*, char* const[], char* const[])>("execve");
  const Route route(path, Use::kLook);
  return route.tooLong ? -1 : real(route.real, words, environment);
}

// --- Links ---

namespace {

// A path below the root as the appliance knows it; every other path as it is.
std::string_view withoutRoot(std::string_view path) {
  const std::string_view folder = rootWithoutSlash();
  if (folder.empty() || !liesBelow(path, folder)) return path;
  return path.substr(folder.size());
}

// What a link or a resolved path says, told as the appliance knows it.
ssize_t tell(std::string_view path, char* buffer, std::size_t size) {
  const std::string_view told = withoutRoot(path);
  const std::size_t length = std::min(told.size(), size);
  std::memmove(buffer, told.data(), length);
  return static_cast<ssize_t>(length);
}

}  // namespace

// An absolute target leads to the appliance's file, whoever follows the link.
APPLIANCE_INTERPOSED int symlink(const char* target, const char* path) noexcept {
  static auto* const real = next<int(const char*, const char*)>("symlink");
  const Route link(path, Use::kChange);
  const Route end(target, Use::kLook);
  return link.tooLong || end.tooLong ? -1 : real(end.real, link.real);
}

APPLIANCE_INTERPOSED ssize_t readlink(const char* path, char* buffer, std::size_t size) noexcept {
  static auto* const real = next<ssize_t(const char*, char*, std::size_t)>("readlink");
  const Route route(path, Use::kLook);
  PathBuffer target;
  if (route.tooLong) return -1;
  if (!route.redirected) return real(path, buffer, size);
  const ssize_t length = real(route.real, target, sizeof target);
  return length < 0 ? -1 : tell({target, static_cast<std::size_t>(length)}, buffer, size);
}

APPLIANCE_INTERPOSED char* realpath(const char* path, char* resolved) noexcept {
  static auto* const real = next<char*(const char*, char*)>("realpath");
  const Route route(path, Use::kLook);
  if (route.tooLong) return nullptr;
  char* const result = real(route.real, resolved);
  if (result == nullptr || !route.redirected) return result;
  result[tell(result, result, std::strlen(result))] = '\0';
  return result;
}

APPLIANCE_INTERPOSED int renameat2(int fromFolder, const char* from, int toFolder, const char* to,
                                   unsigned int flags) noexcept {
  static auto* const real =
      next<int(int, const char*, int, const char*, unsigned int)>("renameat2");
  const Route source(from, Use::kChange);
  const Route target(to, Use::kChange);
  if (source.tooLong || target.tooLong) return -1;
  return real(fromFolder, source.real, toFolder, target.real, flags);
}

// What the fortified headers call.
APPLIANCE_INTERPOSED char* __realpath_chk(const char* path, char* resolved, std::size_t) noexcept {
  return realpath(path, resolved);
}
APPLIANCE_INTERPOSED ssize_t __readlink_chk(const char* path, char* buffer, std::size_t size,
                                            std::size_t) noexcept {
  return readlink(path, buffer, size);
}
