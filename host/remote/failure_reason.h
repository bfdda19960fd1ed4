// Finds out why the disk refused a change. Replies carry no errno: -1 says that a change failed,
// not why. So the host looks at what the change depends on afterwards (attributes, listings, free
// space, mount flags) and reports the likeliest reason. It is a guess: the disk may have changed
// since.
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
    kWrite,  ///< or any other change of a file's content
    kSync,
    kChangeAttributes,
  };
  Kind kind;
  std::string path;           ///< of the file to change; for the first two kinds, to make
  std::string new_path = {};  ///< of a link or a rename
  int64_t end = 0;            ///< of a write: the offset where it would have ended
};

/// The user whose permissions count. A module in this process opens files with its rights. Over a
/// line, the other process may have other rights, which are not known here: then the reason for a
/// refusal may stay unexplained.
struct User {
  uint32_t id = 0;
  std::vector<uint32_t> groups = {};
};

/// What the disk looks like after the refusal.
struct Facts {
  using Attributes = std::optional<udisk_stat>;
  Attributes file;       ///< at the path
  Attributes target;     ///< at the new path
  Attributes parent;     ///< the directory where a name was to be made or removed
  bool is_empty = true;  ///< whether the directory to remove or replace is
  std::optional<udisk_statvfs> disk;
  uint64_t size_limit = UINT64_MAX;  ///< of files that this process writes, in bytes
  User user = {};
};

/// @return an errno; EIO if nothing explains the failure
int LikeliestReason(const Attempt& attempt, const Facts& facts);

/// Looks at the disk and calls `done` with the likeliest reason for the refusal. Calls it at once,
/// with EIO, if the change got no reply.
void FindFailureReason(RemoteFiles& files, Outcome outcome, Attempt attempt,
                       std::function<void(int error)> done);

}  // namespace cpd::host
