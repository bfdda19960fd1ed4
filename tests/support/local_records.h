// The records of a local path, filled field by field from what the system calls return.
#pragma once

#include <string>
#include <vector>

#include "support/requests.h"
#include "wire.h"

namespace cpd::test {

/// The result of lstat for a path, which must exist.
udisk_stat StatOf(const std::string& local_path);
/// The results of statvfs and statfs for a path, which must exist.
udisk_statvfs StatvfsOf(const std::string& local_path);
/// A directory's entries in the order of its stream, "." and ".." included.
std::vector<DirEntry> EntriesOf(const std::string& local_path);
/// Makes a directory's access time the newest of its times, so that listing it does not change it.
void SettleAccessTime(const std::string& local_path);

}  // namespace cpd::test
