// The disk that requests are sent to, in the jail.
#pragma once

#include <cstddef>
#include <string>

namespace cpd::fuzz {

/// The disk's label. The letter is "/", so the disk is this directory in the jail's root.
inline constexpr const char* kLabel = "DISK";
/// What no answer may hold while paths are confined.
inline constexpr const char* kSecret = "beside the disk, not on it";

/// Makes a disk with every kind of file, and a file beside it. Does nothing while the disk made
/// last is unchanged.
void MakeDisk();
/// Records that a request of `bytes` bytes may have changed the disk.
void DiskChanged(size_t bytes);
/// The total size of the requests that may have changed the disk since it was made. No directory
/// can have more entries than that, and no file more pieces.
size_t BytesOnDisk();

/// A text that changes when anything beside the disk changes, including the disk's own entry.
std::string StateBeside();
/// The number of open descriptors in this thread's table.
size_t OpenDescriptors();

}  // namespace cpd::fuzz
