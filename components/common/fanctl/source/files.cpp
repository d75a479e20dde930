#include "files.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "utils.h"

namespace {

constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;

}  // namespace

bool others_can_write(const struct stat& status) {
  return (status.st_mode & OTHERS_WRITE) != 0 ||
         (status.st_uid != 0 && status.st_uid != ::geteuid());
}

bool exists(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

bool is_readable(const std::string& path) {
  return !path.empty() && Descriptor(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
}

std::string real_path(const std::string& path) {
  char buffer[PATH_MAX];
  return ::realpath(path.c_str(), buffer) != nullptr ? buffer : std::string();
}

std::string in_real_folder(const std::string& path) {
  if (path.empty()) return {};
  return join({real_path(parent_of(path)), "/", path.substr(path.rfind('/') + 1)});
}

std::string parent_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, std::max<std::size_t>(slash, 1));
}

std::vector<std::string> names_in(const std::string& folder) {
  std::vector<std::string> names;
  const DirPtr directory(::opendir(folder.c_str()));
  while (directory) {
    const dirent* entry = ::readdir(directory.get());
    if (entry == nullptr) break;
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  return names;
}

int write_text(const std::string& path, const std::string& text, int flags) {
  Descriptor file(::open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, kFileMode));
  if (!file) return errno;
  const ssize_t written = ::write(file.get(), text.data(), text.size());
  const int error = written < 0 || ((flags & O_CREAT) != 0 && ::fsync(file.get()) != 0) ? errno : 0;
  if (::close(file.release()) != 0 && error == 0) return errno;
  return error != 0 || written == static_cast<ssize_t>(text.size()) ? error : EIO;
}

bool is_special(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode);
}

bool replace_file(const std::string& path, const std::string& text) {
  std::string beside = path + ".XXXXXX";
  Descriptor made(::mkostemp(beside.data(), O_CLOEXEC));
  if (!made) return false;
  const mode_t mask = ::umask(0);
  (void)::umask(mask);
  const bool allowed = ::fchmod(made.get(), 0666 & ~mask) == 0;
  FilePtr file(::fdopen(made.get(), "w"));
  if (file) (void)made.release();
  const bool whole = allowed && file && std::fputs(text.c_str(), file.get()) >= 0 &&
                     std::fflush(file.get()) == 0 && ::fsync(::fileno(file.get())) == 0;
  if (whole && ::rename(beside.c_str(), path.c_str()) == 0) return true;
  const int reason = errno;
  (void)::unlink(beside.c_str());
  errno = reason;
  return false;
}

int make_own_folder(const std::string& folder) {
  (void)::mkdir(folder.c_str(), kFolderMode);
  struct stat status {};
  if (::stat(folder.c_str(), &status) != 0) return errno;
  errno = others_can_write(status) ? EPERM : 0;
  return errno;
}
