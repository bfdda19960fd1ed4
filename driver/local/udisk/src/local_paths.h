// The one place where the path of a request becomes a local file.
#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

#include "file_manager_linux.h"

namespace cpd {

/// Owns an open descriptor; negative when the open failed.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.Release()) {}
  ~Descriptor() {
    if (fd_ < 0) return;
    const int error = errno;  // set by the last call on the descriptor; close must not change it
    ::close(fd_);
    errno = error;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  Descriptor& operator=(Descriptor&&) = delete;
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool ok() const { return fd_ >= 0; }
  int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

/// A path for system calls, valid while this object lives. It is empty when it would lead out of
/// the disk, so that every call on it fails as on a missing file.
class LocalPath {
 public:
  explicit LocalPath(const char* plain) : plain_(plain) {}
  /// @param holder  the open file at which `held`, a path through /proc, starts
  LocalPath(Descriptor holder, std::string held)
      : holder_(std::move(holder)), held_(std::move(held)) {}
  [[nodiscard]] const char* c_str() const { return plain_ != nullptr ? plain_ : held_.c_str(); }

 private:
  const char* plain_ = nullptr;
  Descriptor holder_;
  std::string held_;
};

/// In plain mode paths are used unchanged: ".." and symbolic links may lead anywhere. In confined
/// mode the kernel resolves each path beneath the mount point in one step, so no rename can race
/// with it, and a FIFO or device is closed again before anything is read or written. A path that
/// leads out fails with ENOENT. So does every path while the mount point is empty, or if it was
/// the root of a mount when the disk was set and no longer is. A path of PATH_MAX bytes or more
/// fails with ENAMETOOLONG. Confined mode needs openat2, without which every call fails, and /proc,
/// without which only Open works. Callable from any thread.
class LocalPaths {
 public:
  /// Returns the current mount point, with which every path must begin.
  using Root = std::function<DiskRoot()>;

  /// @param confine_to  empty for plain paths
  explicit LocalPaths(Root confine_to) : confine_to_(std::move(confine_to)) {}

  [[nodiscard]] bool confined() const { return confine_to_ != nullptr; }
  /// Examines a mount point, for `Root` to return later.
  [[nodiscard]] DiskRoot RootAt(const std::string& path) const;
  /// As open, but waits for another process's lease on a regular file even with O_NONBLOCK. On
  /// failure errno says why.
  [[nodiscard]] Descriptor Open(const char* path, int flags, mode_t mode = 0);
  /// For calls that act on the file itself: follows a symbolic link at the end of the path.
  [[nodiscard]] LocalPath Target(const char* path);
  /// For calls that act on the directory entry: does not follow a symbolic link at the end.
  [[nodiscard]] LocalPath Entry(const char* path);
  /// For the entry that a call makes: keeps a slash at the end, which demands a directory.
  [[nodiscard]] LocalPath NewEntry(const char* path);
  /// Length of the mount point at the front of `path`; 0 in plain mode.
  [[nodiscard]] size_t TrustedLength(const char* path) const;
  /// Closes the mount point that is kept open for later reads, so that the disk can be unmounted.
  void LetGo();

 private:
  using OpenRoot = std::shared_ptr<const Descriptor>;
  /// The open mount point, and the rest of a path below it.
  struct Beneath {
    OpenRoot root;
    std::string below;
  };
  /// A mount point that is kept open between calls.
  struct KeptRoot {
    std::string path;
    OpenRoot root;  ///< null after LetGo
    std::chrono::steady_clock::time_point opened;
  };
  enum Freshness { kKept, kFresh };
  /// Whether the path is passed to the kernel unchanged.
  [[nodiscard]] bool PassesUnchanged(const char* path) const;
  Beneath Split(const char* path, Freshness freshness);
  OpenRoot FindKept(const std::string& path);
  void Keep(KeptRoot root);

  const Root confine_to_;
  std::mutex mutex_;  // never held while the disk is touched
  KeptRoot kept_;     // guarded by mutex_
};

}  // namespace cpd
