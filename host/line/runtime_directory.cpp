#include "line/runtime_directory.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "line/pidfd.h"

namespace cpd::host {
namespace {

/// With sudo, XDG_RUNTIME_DIR may name the directory of another user.
bool IsOwnDirectory(const char* path) {
  struct stat status {};
  return path != nullptr && path[0] == '/' && stat(path, &status) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == geteuid();
}

std::string Place() {
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  return IsOwnDirectory(runtime) ? fmt::format("{}/cpd-host", runtime)
                                 : fmt::format("/tmp/cpd-host-{}", geteuid());
}

[[noreturn]] void Refuse(const std::string& path, const std::string& reason) {
  throw std::runtime_error(
      fmt::format("cannot use {}: {}; remove it, or set XDG_RUNTIME_DIR to a directory of your own",
                  path, reason));
}

struct flock WholeFile() {
  struct flock lock {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

/// The number of the process that holds the lock.
/// @return -1 when there is none any more
pid_t NumberOfHolder(int file) {
  struct flock lock = WholeFile();
  if (fcntl(file, F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return -1;
  return lock.l_pid;
}

LockHolder HolderOf(int file) {
  const pid_t number = NumberOfHolder(file);
  if (number <= 0) return {};
  Descriptor process(pidfd_open(number, 0));
  // It still has the lock, so the number has not come to mean another process.
  if (!process.ok() || NumberOfHolder(file) != number) return {};
  return {number, std::move(process)};
}

/// Whether the name still leads to the file. Its last holder may have removed it since it was
/// opened: then the lock is worth nothing, since the next process makes a new file.
bool IsStill(int file, int directory, const std::string& name) {
  struct stat opened {};
  struct stat named {};
  return fstat(file, &opened) == 0 &&
         fstatat(directory, name.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         opened.st_dev == named.st_dev && opened.st_ino == named.st_ino;
}

}  // namespace

RuntimeDirectory::RuntimeDirectory() : path_(Place()) {
  if (mkdir(path_.c_str(), 0700) != 0 && errno != EEXIST) Refuse(path_, std::strerror(errno));
  fd_ = Descriptor(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!fd_.ok()) {
    const bool strange = errno == ENOTDIR || errno == ELOOP;
    Refuse(path_, strange ? "it is not a directory" : std::strerror(errno));
  }
  struct stat status {};
  if (fstat(fd_.get(), &status) != 0) Refuse(path_, std::strerror(errno));
  if (status.st_uid != geteuid()) Refuse(path_, "it belongs to another user");
  if ((status.st_mode & 077) != 0) Refuse(path_, "other users have access to it");
  // systemd-tmpfiles removes old files from /tmp, but not from a directory that somebody locks.
  (void)flock(fd_.get(), LOCK_SH | LOCK_NB);
}

std::string RuntimeDirectory::PathOf(const std::string& name) const {
  return fmt::format("/proc/self/fd/{}/{}", fd_.get(), name);
}

std::optional<LockFile> LockFile::Try(const RuntimeDirectory& directory, const std::string& name,
                                      LockHolder* holder) {
  while (true) {
    Descriptor file(openat(directory.fd(), name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC,
                           S_IRUSR | S_IWUSR));
    if (!file.ok()) {
      throw std::runtime_error(fmt::format("cannot open lock {}: {}", name, std::strerror(errno)));
    }
    struct flock lock = WholeFile();
    if (fcntl(file.get(), F_SETLK, &lock) != 0) {
      if (errno != EACCES && errno != EAGAIN) {
        throw std::runtime_error(fmt::format("cannot lock {}: {}", name, std::strerror(errno)));
      }
      *holder = HolderOf(file.get());
      return std::nullopt;
    }
    if (IsStill(file.get(), directory.fd(), name)) {
      return LockFile(directory.fd(), name, std::move(file));
    }
  }
}

LockFile::~LockFile() {
  // Before it is unlocked: otherwise this could be the file of the next holder.
  if (file_.ok()) unlinkat(directory_, name_.c_str(), 0);
}

}  // namespace cpd::host
