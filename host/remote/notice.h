// What the side with the disk says of changes there, without being asked.
#pragma once

#include <cstdint>
#include <string>

namespace cpd::host {

/// That something may have changed on the disk, whoever has changed it, or whether that is told. If
/// it may have changed (kFile, kName, kAll), what the other side has learned of it from earlier
/// answers no longer holds; nor does what it learns from the next answer, which may have been made
/// before the change.
struct Notice {
  enum class What : uint64_t {
    kWatched = 1,    ///< from the next answer on, changes in this directory will be told
    kFile = 2,       ///< the content or the attributes of a file or directory
    kName = 3,       ///< whether there is such a name, or what has it
    kUnwatched = 4,  ///< no more changes in this directory will be told
    kAll = 5,        ///< changes may have gone unnoticed: no directory is watched any more
  };
  What what;
  std::string path = {};  ///< begins with '/', the disk's root; empty for kAll

  bool operator==(const Notice&) const = default;
};

}  // namespace cpd::host
