// The records of a local path, filled field by field from the system's own answers.
#pragma once

#include <string>
#include <vector>

#include "support/requests.h"
#include "wire.h"

namespace cpd::test {

/// What lstat says about a path, which must exist.
udisk_stat StatOf(const std::string& local_path);
/// What statvfs and statfs say about a path, which must exist.
udisk_statvfs StatvfsOf(const std::string& local_path);
/// A directory's entries in the order of its stream, "." and ".." included.
std::vector<DirEntry> EntriesOf(const std::string& local_path);
/// Puts a directory's access time ahead of all others, so that listing it leaves it as it is.
void SettleAccessTime(const std::string& local_path);

}  // namespace cpd::test
