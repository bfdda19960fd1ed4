// The directory where the processes of one user find each other.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "descriptor.h"

namespace cpd::host {

/// $XDG_RUNTIME_DIR/cpd-host, or /tmp/cpd-host-UID if the variable names no directory of the
/// user's. It is a real directory that belongs to the user and is closed to everybody else. In /tmp
/// another user can take the name first: then the constructor throws. That is all they can do.
class RuntimeDirectory {
 public:
  /// Makes the directory if it is missing.
  /// @throws std::runtime_error that names the directory when it cannot be used
  RuntimeDirectory();
  [[nodiscard]] int fd() const { return fd_.get(); }
  [[nodiscard]] const std::string& path() const { return path_; }
  /// A path to a file in it that is short enough for a socket's address, valid in this process.
  [[nodiscard]] std::string PathOf(const std::string& name) const;

 private:
  std::string path_;
  Descriptor fd_;
};

/// Another process that holds a lock.
struct LockHolder {
  pid_t number = 0;    ///< 0 = not visible from here
  Descriptor process;  ///< none if `number` is 0
};

/// A file in the runtime directory that is locked by this process until destruction; then it is
/// removed. A process that is killed leaves the file, but not the lock.
///
/// The lock belongs to the process, not to a thread or object: do not take the same one twice.
class LockFile {
 public:
  /// @param holder  set to the process that holds the lock; empty if that process is just letting
  ///                go of it
  /// @return nothing when another process holds the lock
  /// @throws std::runtime_error when the file cannot be opened
  static std::optional<LockFile> Try(const RuntimeDirectory& directory, const std::string& name,
                                     LockHolder* holder);
  LockFile(LockFile&&) = default;
  LockFile& operator=(LockFile&&) = delete;
  ~LockFile();

 private:
  LockFile(int directory, std::string name, Descriptor file)
      : directory_(directory), name_(std::move(name)), file_(std::move(file)) {}

  int directory_;  // the runtime directory's, which must outlive this
  std::string name_;
  Descriptor file_;
};

}  // namespace cpd::host
