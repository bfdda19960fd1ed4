#pragma once

#include <sys/stat.h>

#include <string>

#include "line/stream.h"

namespace cpd::host {

/// What a hello says of a disk.
struct DiskIdentity {
  /// Identifies a directory of a file system, wherever and whenever that is mounted. On FAT, all
  /// directories of a file system have the same id.
  Id128 disk;
  /// Changes when the machine is booted or the file system is mounted anew: written data that was
  /// not synced may then be lost. Before Linux 6.8, a new mount may get the id of the old one; then
  /// only a boot changes it.
  Id128 life;
};

/// Finds out which disk is at a directory. What a sandbox hides is read when this is made.
class DiskIdentifier {
 public:
  /// @param directory  an absolute path
  /// @throws std::system_error when it cannot be looked at
  explicit DiskIdentifier(std::string directory);

  /// The disk that is there now.
  /// @throws std::system_error when the directory cannot be looked at
  [[nodiscard]] DiskIdentity Now() const;

 private:
  const std::string directory_;
  const std::string boot_;
  const std::string device_;  // where the directory was
  const std::string uuid_;    // of the file system there; empty if it has none
};

/// Notices when the disk at a directory is unmounted and mounted again.
class DiskWatch {
 public:
  enum class State {
    kThere,
    kGone,
    kMountedAnew,  ///< it, or another disk in its place
  };

  /// @param directory  an absolute path; what is there now is watched
  /// @throws std::system_error when it cannot be looked at
  explicit DiskWatch(std::string directory);

  /// Does not ask the disk, which may be gone. Once it was seen gone, it is never said to be there
  /// again, but mounted anew: kernels before 6.8 give a new mount the id of the old one. Not
  /// synchronized.
  [[nodiscard]] State Look();

 private:
  const std::string directory_;
  const struct statx first_;
  bool was_gone_ = false;
};

/// 16 bytes that nobody can guess.
Id128 RandomId();

}  // namespace cpd::host
