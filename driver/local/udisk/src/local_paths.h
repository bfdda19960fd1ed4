// How the path of a request becomes a local file: the one place where that happens.
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
    const int error = errno;  // that of the call that the descriptor was for
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

/// A path that a system call can be given, for as long as this lives. One that leads out of the
/// disk is empty, so that every call on it fails as on a missing file.
class LocalPath {
 public:
  explicit LocalPath(const char* plain) : plain_(plain) {}
  /// @param holder  what `held`, a path through /proc, begins at
  LocalPath(Descriptor holder, std::string held)
      : holder_(std::move(holder)), held_(std::move(held)) {}
  [[nodiscard]] const char* c_str() const { return plain_ != nullptr ? plain_ : held_.c_str(); }

 private:
  const char* plain_ = nullptr;
  Descriptor holder_;
  std::string held_;
};

/// Plain, paths are used as they stand: ".." and symbolic links lead where they lead. Confined, the
/// kernel resolves each beneath the mount point, in one step that no renaming can race with, and
/// a FIFO or device is closed again before anything is read or written. What leads out fails with
/// ENOENT, and so does everything while the mount point is empty, or no longer the root of a mount
/// though it was one when it was named. A path of PATH_MAX bytes or more fails with ENAMETOOLONG. A
/// kernel without openat2 fails all; /proc is needed. Callable from any thread.
class LocalPaths {
 public:
  /// The present mount point: what every path has to begin with.
  using Root = std::function<DiskRoot()>;

  /// @param confine_to  empty for plain paths
  explicit LocalPaths(Root confine_to) : confine_to_(std::move(confine_to)) {}

  [[nodiscard]] bool confined() const { return confine_to_ != nullptr; }
  /// A mount point as it is now, for `Root` to give.
  [[nodiscard]] DiskRoot RootAt(const std::string& path) const;
  /// As open; O_NONBLOCK does not keep it from waiting for another process's lease on a regular
  /// file. errno tells why there is no descriptor.
  [[nodiscard]] Descriptor Open(const char* path, int flags, mode_t mode = 0);
  /// For calls on the file itself: a symbolic link at the end is followed.
  [[nodiscard]] LocalPath Target(const char* path);
  /// For calls on the entry in its directory: nothing at the end is followed.
  [[nodiscard]] LocalPath Entry(const char* path);
  /// For the entry that a call puts there: a slash at the end stays, as it asks for a directory.
  [[nodiscard]] LocalPath NewEntry(const char* path);
  /// How many bytes at the front of `path` no request has a say in.
  [[nodiscard]] size_t TrustedLength(const char* path) const;
  /// Closes what is kept open between calls and would keep the disk from being unmounted.
  void LetGo();

 private:
  using OpenRoot = std::shared_ptr<const Descriptor>;
  /// The mount point, open, and what a path says below it.
  struct Beneath {
    OpenRoot root;
    std::string below;
  };
  /// A mount point that is kept open between calls.
  struct KeptRoot {
    std::string path;
    OpenRoot root;  ///< null when let go
    std::chrono::steady_clock::time_point opened;
  };
  enum Freshness { kKept, kFresh };
  /// Whether the kernel gets the path as it is.
  [[nodiscard]] bool PassesUnchanged(const char* path) const;
  Beneath Split(const char* path, Freshness freshness);
  OpenRoot FindKept(const std::string& path);
  void Keep(KeptRoot root);

  const Root confine_to_;
  std::mutex mutex_;  // never held while the disk is touched
  KeptRoot kept_;     // guarded by mutex_
};

}  // namespace cpd
