// The disk that requests are sent to, in the jail.
#pragma once

#include <cstddef>
#include <string>

namespace cpd::fuzz {

/// The disk is mounted on this label of the directory "/".
inline constexpr const char* kLabel = "DISK";
/// What no answer may hold while paths are confined.
inline constexpr const char* kSecret = "beside the disk, not on it";

/// Makes a disk with some of everything and a file beside it, unless it is still as it was made.
void MakeDisk();
/// The disk may have changed, by a request of `bytes`.
void DiskChanged(size_t bytes);
/// The bytes of all requests that may have changed the disk since it was made: no directory has
/// more entries, no file more pieces.
size_t BytesOnDisk();

/// A text that differs once something beside the disk was changed, the disk's own entry included.
std::string StateBeside();
/// How many descriptors this thread's table holds.
size_t OpenDescriptors();

}  // namespace cpd::fuzz
