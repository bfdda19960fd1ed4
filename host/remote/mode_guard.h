#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>

#include "remote/attributes.h"
#include "remote/remote_files.h"

namespace cpd::host {

/// Lets the file's owner read and write it for the requests that are sent while this lives. Who has
/// opened a file may go on writing whatever its mode becomes, and a new file may be made read-only;
/// but the disk opens the file by its name for every request.
class ModeGuard {
 public:
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
