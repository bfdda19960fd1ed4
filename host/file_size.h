#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace cpd::host {

class RemoteFiles;

/// Cuts or extends a file to any size, although the disk's side stops at 10 MiB for most names: it
/// is asked for more only where it gives it, so that no file ever ends up shorter than was wanted.
/// Larger files are extended by their last byte, and cut through a passing hard link whose name is
/// excepted from the limit; a disk without hard links cannot do the latter.
/// @param done  receives an errno, 0 for success and EFBIG where the limit is in the way
void SetFileSize(RemoteFiles& files, const std::string& path, int64_t size,
                 std::function<void(int error)> done);

}  // namespace cpd::host
