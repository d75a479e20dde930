// Makes one call of the program fail, or one allocation, or all from one on.
//
// In LD_PRELOAD before the simulated appliance. Only calls that come from the program's own code
// count, with the C++ runtime that is linked into it; those of the simulation and of other
// libraries pass. A file that the program opens as a stream is a stream over this library's read,
// write and close: its system calls count, and the program learns of their failure from the C
// library, as it would of a real one. An allocation counts when the program asks for it, or the C
// library for it.
//
//   FAULTS_LOG         a file that gets a line for each of these:
//                        open <descriptor> <path>    left open at the end of a process
//                        hit <function>              what was made to fail
//                        nothing <function>          SHORT, but there were not two bytes to halve,
//                                                    or no way back in the file
//                        set <seconds> <value>       a property that the management library took
//                        refused <seconds>           the last allocation that failed, of a process
//                                                    that has failed in one
//                      and, when nothing is to fail:
//                        call <number> <seconds> <function> <what it is about>
//                        allocation <number> <seconds> malloc <bytes>
//   FAULTS_CALL        the number of the call that fails; FAULTS_ERROR: how, as in calls.h
//   FAULTS_ALLOCATION  the number of the allocation that fails; FAULTS_FROM: all from this one on
//
// Numbers begin at 1 and go on from a process to its child; what a parent does after its fork() is
// not counted. APPLIANCE_EPOCH has to be 0 for the seconds. A process that ends with _exit or by a
// signal writes no lines `open` and `refused`: what it was about to give back is not lost.
#include <corvane.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#define FAULTS_INTERPOSED extern "C" __attribute__((visibility("default")))
#define FAULTS_CALLER __builtin_return_address(0)

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
}

namespace {

constexpr int kDescriptors = 64;
constexpr std::size_t kNameMax = 160;
constexpr std::size_t kTextMax = 4096;
constexpr mode_t kLogMode = 0644;
constexpr mode_t kEverybody = 0666;
constexpr int kDecimal = 10;

// Beside the numbers of errno.
constexpr int kShort = -1;
constexpr int kReject = -2;
constexpr int kLost = -3;
constexpr int kFails = -4;

struct Error {
  std::string_view name;
  int number;
};
constexpr Error kErrors[] = {
    {"EINTR", EINTR},   {"EMFILE", EMFILE},  {"EIO", EIO},     {"ENOSPC", ENOSPC},
    {"EAGAIN", EAGAIN}, {"ENOMEM", ENOMEM},  {"EPIPE", EPIPE}, {"EOVERFLOW", EOVERFLOW},
    {"SHORT", kShort},  {"REJECT", kReject}, {"LOST", kLost},  {"FAILS", kFails},
};

// Where code lies in memory.
struct Range {
  std::uintptr_t begin;
  std::uintptr_t end;

  bool holds(const void* address) const {
    const auto number = reinterpret_cast<std::uintptr_t>(address);
    return number >= begin && number < end;
  }
};

// Plain data without a constructor: allocations come before constructors run.
struct State {
  Range program;
  Range library;  // the C library
  const char* log;
  bool lists;
  long calls;
  long allocations;
  long failingCall;
  int error;
  long failingAllocation;
  long failingFrom;
  long long refused;                   // second of the last allocation that failed, or -1
  char names[kDescriptors][kNameMax];  // what a descriptor was opened as
};
constinit State state{};

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

__attribute__((format(printf, 1, 2))) void tell(const char* format, ...) {
  if (state.log == nullptr) return;
  const int cause = errno;
  char text[kTextMax];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  const int file = openat(AT_FDCWD, state.log, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kLogMode);
  [[maybe_unused]] const ssize_t written =
      write(file, text, std::min(static_cast<std::size_t>(length), sizeof text - 1));
  close(file);
  errno = cause;
}

long long seconds() {
  static auto* const real = next<time_t(time_t*)>("time");
  return real(nullptr);
}

bool isProgram(const void* caller) { return state.program.holds(caller); }

// What becomes of the program's next call: 0 when it goes on.
int nextCall(const char* function, const char* about) {
  if (state.log == nullptr) return 0;
  ++state.calls;
  if (state.lists) tell("call %ld %lld %s %s\n", state.calls, seconds(), function, about);
  if (state.calls != state.failingCall) return 0;
  // Of a half, it is not known yet.
  if (state.error != kShort) tell("hit %s\n", function);
  return state.error;
}

// Whether the call fails; errno says why.
bool fails(const void* caller, const char* function, const char* about) {
  const int error = isProgram(caller) ? nextCall(function, about) : 0;
  if (error > 0) errno = error;
  return error != 0;
}

bool allocationFails(const void* caller, std::size_t size) {
  if (state.log == nullptr || !(isProgram(caller) || state.library.holds(caller))) return false;
  const long number = ++state.allocations;
  if (state.lists) tell("allocation %ld %lld malloc %zu\n", number, seconds(), size);
  const bool isFrom = state.failingFrom != 0 && number >= state.failingFrom;
  if (number != state.failingAllocation && !isFrom) return false;
  if (number == state.failingAllocation || number == state.failingFrom) tell("hit malloc\n");
  state.refused = seconds();
  errno = ENOMEM;
  return true;
}

const char* nameOf(int descriptor) {
  static constexpr const char* kStandard[] = {"stdin", "stdout", "stderr"};
  if (descriptor < 0 || descriptor >= kDescriptors) return "?";
  if (state.names[descriptor][0] != '\0') return state.names[descriptor];
  return descriptor < 3 ? kStandard[descriptor] : "?";
}

void setName(int descriptor, const char* name) {
  if (descriptor < 0 || descriptor >= kDescriptors) return;
  (void)std::snprintf(state.names[descriptor], kNameMax, "%s", name);
}

std::size_t half(std::size_t size) { return (size + 1) / 2; }

void tellShort(const char* function, bool is) { tell("%s %s\n", is ? "hit" : "nothing", function); }

ssize_t readCounted(int descriptor, void* buffer, std::size_t size) {
  static auto* const real = next<ssize_t(int, void*, std::size_t)>("read");
  const int error = nextCall("read", nameOf(descriptor));
  if (error > 0) errno = error;
  if (error > 0) return -1;
  if (error != kShort) return real(descriptor, buffer, size);
  // Half of what there is.
  const ssize_t count = real(descriptor, buffer, size);
  const auto taken =
      count < 2 ? count : static_cast<ssize_t>(half(static_cast<std::size_t>(count)));
  const bool is = taken != count && lseek(descriptor, taken - count, SEEK_CUR) >= 0;
  tellShort("read", is);
  return is ? taken : count;
}

ssize_t writeCounted(int descriptor, const void* buffer, std::size_t size) {
  static auto* const real = next<ssize_t(int, const void*, std::size_t)>("write");
  const int error = nextCall("write", nameOf(descriptor));
  if (error > 0) errno = error;
  if (error > 0) return -1;
  if (error == kShort) tellShort("write", size > 1);
  return real(descriptor, buffer, error == kShort ? half(size) : size);
}

// The descriptor is gone also when the call fails, as with Linux.
int closeCounted(int descriptor) {
  static auto* const real = next<int(int)>("close");
  const int error = nextCall("close", nameOf(descriptor));
  const int result = real(descriptor);
  setName(descriptor, "");
  if (error > 0) errno = error;
  return error == 0 ? result : -1;
}

// Streams

struct Stream {
  bool used;
  int descriptor;
};
constinit Stream streams[kDescriptors]{};

ssize_t readStream(void* cookie, char* buffer, std::size_t size) {
  return readCounted(static_cast<Stream*>(cookie)->descriptor, buffer, size);
}

// As the C library does it: until all is written or a write fails.
ssize_t writeStream(void* cookie, const char* buffer, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count =
        writeCounted(static_cast<Stream*>(cookie)->descriptor, buffer + done, size - done);
    if (count < 0) break;
    done += static_cast<std::size_t>(count);
  }
  return static_cast<ssize_t>(done);
}

int closeStream(void* cookie) {
  auto* const stream = static_cast<Stream*>(cookie);
  stream->used = false;
  return stream->descriptor < 0 ? 0 : closeCounted(stream->descriptor);
}

int flagsOf(const char* mode) {
  const bool both = std::strchr(mode, '+') != nullptr;
  if (mode[0] == 'r') return both ? O_RDWR : O_RDONLY;
  return (both ? O_RDWR : O_WRONLY) | O_CREAT | (mode[0] == 'w' ? O_TRUNC : O_APPEND);
}

// Memory first, then the file, as the C library does it.
FILE* openStream(const char* path, const char* mode) {
  static auto* const real = next<int(const char*, int, ...)>("open64");
  Stream* const stream = std::find_if(std::begin(streams), std::end(streams),
                                      [](const Stream& one) { return !one.used; });
  if (stream == std::end(streams)) abort();
  *stream = {.used = true, .descriptor = -1};
  FILE* const file = fopencookie(
      stream, mode,
      {.read = readStream, .write = writeStream, .seek = nullptr, .close = closeStream});
  if (file == nullptr) {
    stream->used = false;
    return nullptr;
  }
  stream->descriptor = real(path, flagsOf(mode), kEverybody);
  if (stream->descriptor >= 0) {
    setName(stream->descriptor, path);
    return file;
  }
  const int cause = errno;
  (void)fclose(file);
  errno = cause;
  return nullptr;
}

long numberFrom(const char* variable) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? 0 : std::strtol(text, nullptr, kDecimal);
}

// The program comes first, under no name.
int findCode(dl_phdr_info* info, std::size_t, void*) {
  const bool isFirst = state.program.end == 0;
  const std::string_view path = info->dlpi_name;
  if (!isFirst && path.find("/libc.so") == std::string_view::npos) return 0;
  Range& range = isFirst ? state.program : state.library;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const auto& segment = info->dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_X) == 0) continue;
    range.begin = info->dlpi_addr + segment.p_vaddr;
    range.end = range.begin + segment.p_memsz;
  }
  return 0;
}

__attribute__((constructor)) void begin() {
  (void)dl_iterate_phdr(findCode, nullptr);
  state.failingCall = numberFrom("FAULTS_CALL");
  state.failingAllocation = numberFrom("FAULTS_ALLOCATION");
  state.failingFrom = numberFrom("FAULTS_FROM");
  state.lists = state.failingCall + state.failingAllocation + state.failingFrom == 0;
  state.refused = -1;
  const char* const name = std::getenv("FAULTS_ERROR");
  for (const Error& error : kErrors) {
    if (name != nullptr && error.name == name) state.error = error.number;
  }
  state.log = std::getenv("FAULTS_LOG");  // last: from now on it counts
}

__attribute__((destructor)) void end() {
  if (state.refused >= 0) tell("refused %lld\n", state.refused);
  for (int descriptor = STDERR_FILENO + 1; descriptor < kDescriptors; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) < 0) continue;
    char link[kNameMax];
    char path[kTextMax / 2];
    (void)std::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
    const ssize_t length = readlinkat(AT_FDCWD, link, path, sizeof path);
    tell("open %d %.*s\n", descriptor, static_cast<int>(std::max<ssize_t>(length, 0)), path);
  }
}

}  // namespace

// Memory

FAULTS_INTERPOSED void* malloc(std::size_t size) noexcept {
  return allocationFails(FAULTS_CALLER, size) ? nullptr : __libc_malloc(size);
}

FAULTS_INTERPOSED void* calloc(std::size_t count, std::size_t size) noexcept {
  return allocationFails(FAULTS_CALLER, count * size) ? nullptr : __libc_calloc(count, size);
}

FAULTS_INTERPOSED void* realloc(void* memory, std::size_t size) noexcept {
  return allocationFails(FAULTS_CALLER, size) ? nullptr : __libc_realloc(memory, size);
}

// Files

FAULTS_INTERPOSED FILE* fopen64(const char* path, const char* mode) {
  static auto* const real = next<FILE*(const char*, const char*)>("fopen64");
  if (!isProgram(FAULTS_CALLER)) return real(path, mode);
  return fails(FAULTS_CALLER, "fopen64", path) ? nullptr : openStream(path, mode);
}

FAULTS_INTERPOSED int open64(const char* path, int flags, ...) {
  static auto* const real = next<int(const char*, int, ...)>("open64");
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  if (fails(FAULTS_CALLER, "open64", path)) return -1;
  const int descriptor = real(path, flags, mode);
  if (isProgram(FAULTS_CALLER)) setName(descriptor, path);
  return descriptor;
}

FAULTS_INTERPOSED int __open64_2(const char* path, int flags) {
  static auto* const real = next<int(const char*, int)>("__open64_2");
  if (fails(FAULTS_CALLER, "__open64_2", path)) return -1;
  const int descriptor = real(path, flags);
  if (isProgram(FAULTS_CALLER)) setName(descriptor, path);
  return descriptor;
}

FAULTS_INTERPOSED int close(int descriptor) {
  static auto* const real = next<int(int)>("close");
  return isProgram(FAULTS_CALLER) ? closeCounted(descriptor) : real(descriptor);
}

FAULTS_INTERPOSED ssize_t read(int descriptor, void* buffer, std::size_t size) {
  static auto* const real = next<ssize_t(int, void*, std::size_t)>("read");
  return isProgram(FAULTS_CALLER) ? readCounted(descriptor, buffer, size)
                                  : real(descriptor, buffer, size);
}

FAULTS_INTERPOSED ssize_t write(int descriptor, const void* buffer, std::size_t size) {
  static auto* const real = next<ssize_t(int, const void*, std::size_t)>("write");
  return isProgram(FAULTS_CALLER) ? writeCounted(descriptor, buffer, size)
                                  : real(descriptor, buffer, size);
}

FAULTS_INTERPOSED int closedir(DIR* directory) {
  static auto* const real = next<int(DIR*)>("closedir");
  const bool failed = fails(FAULTS_CALLER, "closedir", "");
  const int cause = errno;
  const int result = real(directory);
  if (failed) errno = cause;
  return failed ? -1 : result;
}

FAULTS_INTERPOSED int ioctl(int descriptor, unsigned long request, ...) noexcept {
  static auto* const real = next<int(int, unsigned long, ...)>("ioctl");
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  const int error = isProgram(FAULTS_CALLER) ? nextCall("ioctl", nameOf(descriptor)) : 0;
  if (error == 0) return real(descriptor, request, argument);
  if (error > 0) {
    errno = error;
    return -1;
  }
  // The disk refuses: a check condition with an aborted command, and no data.
  constexpr unsigned char kSense[] = {0x70, 0, 0x0b, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
  auto& header = *static_cast<sg_io_hdr*>(argument);
  header.status = 0x02;
  header.masked_status = 0x01;
  header.driver_status = 0x08;
  header.host_status = 0;
  header.info = SG_INFO_CHECK;
  header.resid = static_cast<int>(header.dxfer_len);
  header.sb_len_wr = std::min<unsigned char>(header.mx_sb_len, sizeof kSense);
  std::memcpy(header.sbp, kSense, header.sb_len_wr);
  return 0;
}

// Those that only fail or go on: what they give when they fail, what they are about, their
// parameters and the arguments to hand on.
#define FAULTS_CALL(Result, failure, name, about, parameters, ...) \
  FAULTS_INTERPOSED Result name parameters {                       \
    static auto* const real = next<Result parameters>(#name);      \
    if (fails(FAULTS_CALLER, #name, about)) return failure;        \
    return real(__VA_ARGS__);                                      \
  }
#define FAULTS_PATH(name) FAULTS_CALL(int, -1, name, path, (const char* path) noexcept, path)

FAULTS_PATH(unlink)
FAULTS_PATH(remove)
FAULTS_PATH(rmdir)
FAULTS_CALL(int, -1, rename, from, (const char* from, const char* to) noexcept, from, to)
FAULTS_CALL(char*, nullptr, mkdtemp, path, (char* path) noexcept, path)
FAULTS_CALL(int, -1, lstat64, path, (const char* path, struct stat64* status) noexcept, path,
            status)
FAULTS_CALL(int, -1, fstat64, nameOf(file), (int file, struct stat64* status) noexcept, file,
            status)
FAULTS_CALL(int, -1, ftruncate64, nameOf(file), (int file, off64_t size) noexcept, file, size)
FAULTS_CALL(int, -1, dup2, nameOf(to), (int from, int to) noexcept, from, to)
FAULTS_CALL(DIR*, nullptr, opendir, path, (const char* path), path)
FAULTS_CALL(dirent64*, nullptr, readdir64, "", (DIR * directory), directory)
FAULTS_CALL(int, -1, poll, "", (pollfd * files, nfds_t count, int timeout), files, count, timeout)
FAULTS_CALL(int, -1, select, "",
            (int count, fd_set* readable, fd_set* writable, fd_set* exceptional, timeval* timeout),
            count, readable, writable, exceptional, timeout)
FAULTS_CALL(unsigned int, seconds, sleep, "", (unsigned int seconds), seconds)
FAULTS_CALL(tm*, nullptr, localtime, "", (const time_t* seconds) noexcept, seconds)

// The parent is not counted any more.
FAULTS_INTERPOSED pid_t fork() noexcept {
  static auto* const real = next<pid_t()>("fork");
  if (fails(FAULTS_CALLER, "fork", "")) return -1;
  const pid_t child = real();
  if (child > 0 && isProgram(FAULTS_CALLER)) state.lists = false;
  if (child > 0 && isProgram(FAULTS_CALLER)) state.program = state.library = {};
  return child;
}

FAULTS_INTERPOSED __attribute__((format(printf, 3, 4))) void __syslog_chk(int priority, int flag,
                                                                          const char* format, ...) {
  static auto* const real = next<void(int, int, const char*, ...)>("__syslog_chk");
  char text[kTextMax];
  va_list arguments;
  va_start(arguments, format);
  (void)std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  if (!fails(FAULTS_CALLER, "__syslog_chk", format)) real(priority, flag, "%s", text);
}

// The management library

FAULTS_CALL(int, -1, corvane_init, "", (corvane_handle * handle), handle)
FAULTS_CALL(int, -1, corvane_get_config, "", (corvane_handle * handle, int resource), handle,
            resource)
FAULTS_CALL(int, -1, corvane_set_config, "", (corvane_handle * handle, int resource), handle,
            resource)

FAULTS_INTERPOSED int corvane_set_property_string(corvane_handle* handle, const char* name,
                                                  const char* value) {
  static auto* const real =
      next<int(corvane_handle*, const char*, const char*)>("corvane_set_property_string");
  if (fails(FAULTS_CALLER, "corvane_set_property_string", value)) return -1;
  const int result = real(handle, name, value);
  if (result == 0) tell("set %lld %s\n", seconds(), value);
  return result;
}

FAULTS_INTERPOSED int corvane_close(corvane_handle* handle) {
  static auto* const real = next<int(corvane_handle*)>("corvane_close");
  const bool failed = fails(FAULTS_CALLER, "corvane_close", "");
  const int result = real(handle);
  return failed ? -1 : result;
}
