#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "remote/attributes.h"
#include "remote/remote_files.h"

namespace cpd::host {

/// Makes a file readable and writable for its owner during the requests that are sent while this
/// object lives. A program may go on writing to a file that it has open, even if the file's mode
/// changes or was read-only from the start. But the module opens the file again for every request,
/// and then the mode applies.
class ModeGuard {
 public:
  /// @param files, path  must outlive this
  ModeGuard(RemoteFiles& files, const std::string& path, uint32_t mode)
      : files_(files), path_(path), mode_(mode & kPermissions) {
    if (IsLackingIn(mode_)) files_.ChangeMode(path_, mode_ | kOwner, [](Outcome) {});
  }
  ~ModeGuard() {
    if (IsLackingIn(mode_)) files_.ChangeMode(path_, mode_, [](Outcome) {});
  }
  static bool IsLackingIn(uint32_t mode) { return (mode & kOwner) != kOwner; }
  ModeGuard(const ModeGuard&) = delete;
  ModeGuard& operator=(const ModeGuard&) = delete;

 private:
  static constexpr uint32_t kOwner = S_IRUSR | S_IWUSR;

  RemoteFiles& files_;
  const std::string& path_;
  const uint32_t mode_;
};

}  // namespace cpd::host
