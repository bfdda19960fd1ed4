// Why the disk refused a change. Answers carry no errno: a -1 says that it failed, not why. So what
// a change depends on is looked at afterwards - attributes, listings, free space, mount flags - and
// the likeliest reason is given. It is a guess by nature: the disk may have changed in between.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "remote/remote_files.h"

namespace cpd::host {

/// A change that was refused.
struct Attempt {
  enum class Kind {
    kMakeFile,
    kMakeDirectory,
    kLink,
    kRename,
    kUnlink,
    kRemoveDirectory,
    kWrite,  ///< and whatever else changes a file's content
    kSync,
    kChangeAttributes,
  };
  Kind kind;
  std::string path;           ///< what was to be changed or, for the first two, made
  std::string new_path = {};  ///< of a link or a rename
  int64_t end = 0;            ///< of a write: where it would have ended
};

/// Who asks the disk's file system: the module opens every file as this process.
struct User {
  uint32_t id = 0;
  std::vector<uint32_t> groups = {};
};

/// What the disk shows afterwards.
struct Facts {
  using Attributes = std::optional<udisk_stat>;
  Attributes file;       ///< at the path
  Attributes target;     ///< at the new path
  Attributes parent;     ///< the directory of the name that was to be made or taken away
  bool is_empty = true;  ///< the directory that was to be removed or replaced
  std::optional<udisk_statvfs> disk;
  uint64_t size_limit = UINT64_MAX;  ///< of files that this process writes, in bytes
  User user = {};
};

/// @return an errno, EIO where nothing explains the failure
int LikeliestReason(const Attempt& attempt, const Facts& facts);

/// Looks at the disk and calls `done` with the likeliest reason of a refusal; EIO at once where no
/// answer came.
void FindFailureReason(RemoteFiles& files, Outcome outcome, Attempt attempt,
                       std::function<void(int error)> done);

}  // namespace cpd::host
