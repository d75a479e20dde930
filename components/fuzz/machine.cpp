#include "machine.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <span>
#include <unordered_map>

namespace {

// --- Files ---

struct File {
  std::string text;
  bool isLink = false, isGone = false;
};
// Found by their hash, as the sanitizer looks at each comparison of texts.
struct Hash : std::hash<std::string_view> {
  using is_transparent = void;
};
template <typename Value>
using ByPath = std::unordered_map<std::string, Value, Hash, std::equal_to<>>;
ByPath<File> kept;
ByPath<std::vector<std::string>> folders;  // what is in each folder of these, sorted
std::vector<std::string> links;            // the paths of those that are links
ByPath<File> fresh;                        // the files of a run, which hide the kept ones

// Of the main thread: the fuzzer's own threads, and what it does between the runs, are real.
thread_local bool isRunning = false;

File* find(std::string_view path) {
  if (const auto file = fresh.find(path); file != fresh.end()) {
    return file->second.isGone ? nullptr : &file->second;
  }
  const auto file = kept.find(path);
  return file == kept.end() ? nullptr : &file->second;
}

const File* link_at(std::string_view path) {
  const File* const file = find(path);
  return file != nullptr && file->isLink ? file : nullptr;
}

bool lies_in(std::string_view path, std::string_view folder) {
  return path.size() > folder.size() && path[folder.size()] == '/' && path.starts_with(folder);
}

// The path without links, until the next call. Every process is number 1, whatever number it is
// asked by.
const std::string& resolved(std::string_view path, bool follow = true) {
  static std::string real;
  real = path.substr(0, path.find_last_not_of('/') + 1);
  constexpr std::string_view kProcesses = "/proc/";
  if (real.starts_with(kProcesses) && std::isdigit(static_cast<unsigned char>(real[6])) != 0) {
    real.replace(6, real.find_first_not_of("0123456789", 6) - 6, "1");
  }
  while (true) {
    if (const File* const link = follow ? link_at(real) : nullptr) {
      real = link->text;
      continue;
    }
    const auto above = std::ranges::find_if(links, [&](const std::string& path) {
      return lies_in(real, path) && link_at(path) != nullptr;
    });
    if (above == links.end()) return real;
    real.replace(0, above->size(), link_at(*above)->text);
  }
}

bool is_folder(std::string_view path) {
  if (fresh.contains(path)) return false;
  return folders.contains(path) || std::ranges::any_of(fresh, [&](const auto& file) {
           return lies_in(file.first, path) && !file.second.isGone;
         });
}

int wrong(int reason) {
  errno = reason;
  return -1;
}

// --- Descriptors ---

constexpr int kFirst = 1000;

struct Opened {
  bool isUsed = false, isWritten = false;
  std::string path;
  File* file = nullptr;  // null: a folder, or the disk
  std::size_t place = 0;
  std::FILE* stream = nullptr;
  std::array<char, 512> buffer;
};
std::array<Opened, 16> opened;

Opened* opened_as(int descriptor) {
  if (!isRunning || descriptor < kFirst) return nullptr;
  Opened& one = opened.at(static_cast<std::size_t>(descriptor - kFirst));
  machine::expect(one.isUsed);
  return &one;
}

int open_file(const char* name, int flags) {
  const std::string& path = resolved(name, (flags & O_NOFOLLOW) == 0);
  const bool writes = (flags & O_ACCMODE) != O_RDONLY;
  File* file = find(path);
  if (file != nullptr && file->isLink) return wrong(ELOOP);
  if (file != nullptr && (flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL)) return wrong(EEXIST);
  if (file == nullptr && (flags & O_CREAT) == 0 && (writes || !is_folder(path))) {
    return wrong(ENOENT);
  }
  if (writes) {
    if (!fresh.contains(path) || file == nullptr) {
      machine::put(path, file == nullptr ? "" : std::string(file->text));
    }
    file = find(path);
    if ((flags & O_TRUNC) != 0) file->text.clear();
  }
  const auto slot = std::ranges::find(opened, false, &Opened::isUsed);
  machine::expect(slot != opened.end());
  slot->isUsed = true;
  slot->isWritten = writes;
  slot->path = path;
  slot->file = file;
  slot->place = 0;
  slot->stream = nullptr;
  return kFirst + static_cast<int>(slot - opened.begin());
}

ssize_t read_file(Opened& one, char* buffer, std::size_t size) {
  constexpr std::size_t kPiece = 100;  // a read may give less than it was asked for
  if (one.file == nullptr) return wrong(EISDIR);
  const std::size_t place = std::min(one.place, one.file->text.size());
  const std::size_t count = one.file->text.copy(buffer, std::min(size, kPiece), place);
  one.place += count;
  return static_cast<ssize_t>(count);
}

ssize_t write_file(Opened& one, const char* buffer, std::size_t size) {
  if (!one.isWritten) return wrong(EBADF);
  one.file->text.resize(std::max(one.file->text.size(), one.place + size));
  one.file->text.replace(one.place, size, buffer, size);
  one.place += size;
  return static_cast<ssize_t>(size);
}

int close_file(Opened& one) {
  if (one.isWritten) machine::written.push_back(one.path);
  one.isUsed = false;
  return 0;
}

std::FILE* stream_of(int descriptor) {
  Opened& one = *opened_as(descriptor);
  constexpr cookie_io_functions_t kFunctions = {
      .read = [](void* to, char* text,
                 std::size_t size) { return read_file(*static_cast<Opened*>(to), text, size); },
      .write = [](void* to, const char* text,
                  std::size_t size) { return write_file(*static_cast<Opened*>(to), text, size); },
      .seek = nullptr,
      .close = [](void* to) { return close_file(*static_cast<Opened*>(to)); },
  };
  one.stream = ::fopencookie(&one, one.isWritten ? "w" : "r", kFunctions);
  (void)std::setvbuf(one.stream, one.buffer.data(), _IOFBF, one.buffer.size());
  return one.stream;
}

int fill(const std::string& path, struct stat& status) {
  File* const file = find(path);
  if (file == nullptr && !is_folder(path)) return wrong(ENOENT);
  status = {};
  status.st_mode = 0755U | (file == nullptr ? S_IFDIR : file->isLink ? S_IFLNK : S_IFREG);
  status.st_nlink = 1;
  status.st_ino = std::hash<std::string>()(path);
  status.st_mtime = std::time(nullptr);
  return 0;
}

// --- Folders ---

struct Folder {
  std::span<const std::string> left;
  std::vector<std::string> own;
  dirent entry{};
};

// --- Disks ---

int answer(sg_io_hdr& header) {
  constexpr unsigned char kIdentify = 0xEC;
  constexpr std::size_t kCommand = 14;
  const auto give = [](const std::string& text, void* to, std::size_t size) {
    std::memset(to, 0, size);
    std::memcpy(to, text.data(), std::min(text.size(), size));
  };
  const bool isIdentify = header.cmdp[kCommand] == kIdentify;
  give(machine::disk.sense, header.sbp, header.mx_sb_len);
  if (header.dxferp != nullptr) {
    give(isIdentify ? machine::disk.identity : machine::disk.smart, header.dxferp,
         header.dxfer_len);
  }
  return 0;
}

// Adds to a text what is written.
std::FILE* open_text(std::string& text) {
  constexpr cookie_io_functions_t kFunctions = {
      .read = nullptr,
      .write =
          [](void* to, const char* piece, std::size_t size) {
            static_cast<std::string*>(to)->append(piece, size);
            return static_cast<ssize_t>(size);
          },
      .seek = nullptr,
      .close = nullptr,
  };
  return ::fopencookie(&text, "w", kFunctions);
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

namespace machine {

void keep(const std::string& path, const std::string& text) {
  kept[path] = {text};
  for (std::size_t end = path.rfind('/'); end != 0; end = path.rfind('/', end - 1)) {
    auto& names = folders[path.substr(0, end)];
    const std::string name = path.substr(end + 1, path.find('/', end + 1) - end - 1);
    const auto place = std::ranges::lower_bound(names, name);
    if (place == names.end() || *place != name) names.insert(place, name);
  }
}

void keep_link(const std::string& path, const std::string& target) {
  keep(path, target);
  kept[path].isLink = true;
  links.push_back(path);
}

void put(const std::string& path, std::string_view text) { fresh[path] = {std::string(text)}; }

void leave_out(const std::string& path) { fresh[path] = {.text = {}, .isGone = true}; }

std::string text_of(const std::string& path) {
  const File* const file = find(resolved(path));
  return file == nullptr ? std::string() : file->text;
}

void run(const std::function<void()>& what) {
  static std::FILE* const output = open_text(shown);
  static std::FILE* const errors = open_text(complained);
  std::FILE* const before[] = {stdout, stderr};
  stdout = output;
  stderr = errors;
  shown.clear();
  complained.clear();
  written.clear();
  isRunning = true;
  what();
  isRunning = false;
  (void)std::fflush(output);
  (void)std::fflush(errors);
  stdout = before[0];
  stderr = before[1];
  expect(std::ranges::none_of(opened, &Opened::isUsed));
  fresh.clear();
}

void fail() {
  isRunning = false;
  std::abort();
}

}  // namespace machine

// --- In the C library's place ---

#define MACHINE_REAL(name, ...)                            \
  static auto* const real = next<decltype(::name)>(#name); \
  if (!isRunning) return real(__VA_ARGS__)
// What does nothing here, and succeeds.
#define MACHINE_IDLE(name, parameters, ...) \
  int name parameters {                     \
    MACHINE_REAL(name, __VA_ARGS__);        \
    return 0;                               \
  }

extern "C" {

int open(const char* path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
  va_end(arguments);
  MACHINE_REAL(open, path, flags, mode);
  return open_file(path, flags);
}

// A file that is opened for bytes is the fuzzer's own, of what it found.
FILE* fopen(const char* path, const char* mode) {
  static auto* const real = next<decltype(::fopen)>("fopen");
  if (!isRunning || std::strcmp(mode, "wb") == 0) return real(path, mode);
  const int descriptor = open_file(path, mode[0] == 'r' ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC);
  return descriptor < 0 ? nullptr : stream_of(descriptor);
}

FILE* fdopen(int descriptor, const char* mode) {
  MACHINE_REAL(fdopen, descriptor, mode);
  return stream_of(descriptor);
}

int fileno(FILE* stream) noexcept {
  const auto slot = std::ranges::find_if(
      opened, [&](const Opened& one) { return one.isUsed && one.stream == stream; });
  if (slot != opened.end()) return kFirst + static_cast<int>(slot - opened.begin());
  static auto* const real = next<decltype(::fileno)>("fileno");
  return real(stream);
}

ssize_t read(int descriptor, void* buffer, size_t size) {
  if (Opened* const one = opened_as(descriptor)) {
    return read_file(*one, static_cast<char*>(buffer), size);
  }
  static auto* const real = next<decltype(::read)>("read");
  return real(descriptor, buffer, size);
}

ssize_t write(int descriptor, const void* buffer, size_t size) {
  static auto* const real = next<decltype(::write)>("write");
  Opened* const one = opened_as(descriptor);
  if (one != nullptr) return write_file(*one, static_cast<const char*>(buffer), size);
  return isRunning && descriptor == STDOUT_FILENO ? static_cast<ssize_t>(size)
                                                  : real(descriptor, buffer, size);
}

int close(int descriptor) {
  Opened* const one = opened_as(descriptor);
  if (one != nullptr) return close_file(*one);
  static auto* const real = next<decltype(::close)>("close");
  return real(descriptor);
}

int stat(const char* path, struct stat* status) noexcept {
  MACHINE_REAL(stat, path, status);
  return fill(resolved(path), *status);
}

int lstat(const char* path, struct stat* status) noexcept {
  MACHINE_REAL(lstat, path, status);
  return fill(resolved(path, false), *status);
}

int fstat(int descriptor, struct stat* status) noexcept {
  if (const Opened* const one = opened_as(descriptor)) return fill(one->path, *status);
  static auto* const real = next<decltype(::fstat)>("fstat");
  return real(descriptor, status);
}

int statx(int place, const char* path, int flags, unsigned mask, struct statx* status) noexcept {
  MACHINE_REAL(statx, place, path, flags, mask, status);
  return wrong(ENOSYS);
}

char* realpath(const char* path, char* result) noexcept {
  MACHINE_REAL(realpath, path, result);
  const std::string& end = resolved(path);
  const bool isThere = end.size() < PATH_MAX && (find(end) != nullptr || is_folder(end));
  if (isThere) return std::strcpy(result, end.c_str());
  errno = ENOENT;
  return nullptr;
}

DIR* opendir(const char* path) {
  MACHINE_REAL(opendir, path);
  const std::string& place = resolved(path);
  if (!is_folder(place)) return errno = ENOENT, nullptr;
  const auto names = folders.find(place);
  auto* const folder = new Folder;
  if (names != folders.end()) folder->left = names->second;
  for (const auto& [name, file] : fresh) {
    if (!lies_in(name, place)) continue;
    if (folder->own.empty()) folder->own.assign(folder->left.begin(), folder->left.end());
    const std::string rest = name.substr(place.size() + 1);
    const std::string first = rest.substr(0, rest.find('/'));
    std::erase(folder->own, first);
    if (!file.isGone || first != rest) folder->own.push_back(first);
    folder->left = folder->own;
  }
  return reinterpret_cast<DIR*>(folder);
}

dirent* readdir(DIR* directory) {
  MACHINE_REAL(readdir, directory);
  auto* const folder = reinterpret_cast<Folder*>(directory);
  if (folder->left.empty()) return nullptr;
  const std::string& name = folder->left.front();
  folder->left = folder->left.subspan(1);
  folder->entry.d_name[name.copy(folder->entry.d_name, NAME_MAX)] = '\0';
  return &folder->entry;
}

int closedir(DIR* directory) {
  MACHINE_REAL(closedir, directory);
  delete reinterpret_cast<Folder*>(directory);
  return 0;
}

int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  MACHINE_REAL(ioctl, descriptor, request, argument);
  return request == SG_IO ? answer(*static_cast<sg_io_hdr*>(argument)) : wrong(ENOTTY);
}

int unlink(const char* path) noexcept {
  MACHINE_REAL(unlink, path);
  const std::string name = resolved(path, false);
  if (find(name) == nullptr) return wrong(ENOENT);
  machine::leave_out(name);
  return 0;
}

int remove(const char* path) noexcept {
  MACHINE_REAL(remove, path);
  return unlink(path);
}

int rename(const char* from, const char* to) noexcept {
  MACHINE_REAL(rename, from, to);
  const std::string text = machine::text_of(from);
  machine::put(resolved(to), text);
  return unlink(from);
}

int mkostemp(char* path, int flags) {
  MACHINE_REAL(mkostemp, path, flags);
  return open_file(path, O_RDWR | O_CREAT | O_EXCL);
}

char* mkdtemp(char* path) noexcept {
  MACHINE_REAL(mkdtemp, path);
  return nullptr;
}

// The answer to the only question that is asked this way, of systemctl.
FILE* popen(const char* command, const char* mode) {
  MACHINE_REAL(popen, command, mode);
  return fopen("/systemctl", "r");
}

int pclose(FILE* stream) {
  MACHINE_REAL(pclose, stream);
  return std::fclose(stream);
}

int pipe2(int ends[2], int flags) noexcept {
  MACHINE_REAL(pipe2, ends, flags);
  return wrong(EMFILE);  // no hook is started
}

unsigned int sleep(unsigned int seconds) {
  MACHINE_REAL(sleep, seconds);
  return 0;
}

void syslog(int, const char*, ...) {}

MACHINE_IDLE(rmdir, (const char* path) noexcept, path)
MACHINE_IDLE(mkdir, (const char* path, mode_t mode) noexcept, path, mode)
MACHINE_IDLE(fsync, (int descriptor), descriptor)
MACHINE_IDLE(fchmod, (int descriptor, mode_t mode) noexcept, descriptor, mode)
MACHINE_IDLE(ftruncate, (int descriptor, off_t size) noexcept, descriptor, size)
MACHINE_IDLE(flock, (int descriptor, int operation) noexcept, descriptor, operation)
MACHINE_IDLE(isatty, (int descriptor) noexcept, descriptor)
MACHINE_IDLE(usleep, (useconds_t length), length)
MACHINE_IDLE(kill, (pid_t process, int number) noexcept, process, number)
MACHINE_IDLE(sigaction,
             (int number, const struct sigaction* action, struct sigaction* old) noexcept, number,
             action, old)
MACHINE_IDLE(setitimer, (__itimer_which_t which, const itimerval* timer, itimerval* old) noexcept,
             which, timer, old)

// What programs with 64-bit file offsets call.
int open64(const char*, int, ...) __attribute__((alias("open")));
FILE* fopen64(const char*, const char*) __attribute__((alias("fopen")));
int stat64(const char*, struct stat64*) noexcept __attribute__((alias("stat")));
int lstat64(const char*, struct stat64*) noexcept __attribute__((alias("lstat")));
int fstat64(int, struct stat64*) noexcept __attribute__((alias("fstat")));
struct dirent64* readdir64(DIR*) __attribute__((alias("readdir")));
int mkostemp64(char*, int) __attribute__((alias("mkostemp")));
int ftruncate64(int, off64_t) noexcept __attribute__((alias("ftruncate")));

// --- The management library ---

int corvane_init(void*) { return 0; }
int corvane_get_config(void*, int) { return 0; }
int corvane_set_property_string(void*, const char*, const char*) { return 0; }
int corvane_set_config(void*, int) { return 0; }
int corvane_close(void*) { return 0; }
}
