#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace cpd::host {

class RemoteFiles;

/// In bytes; FAT keeps a file's size in 32 bits.
inline constexpr int64_t kLargestFatFile = (int64_t{4} << 30) - 1;

/// This process's limit of file sizes in bytes; all ones when there is none. It also applies to the
/// writes of a module in this process. The limit at the other end of a line is not known here.
uint64_t SizeLimitOfThisProcess();

/// The size in bytes that any disk lets a file of this process reach.
int64_t LargestSureSize();

/// Whether a truncate request can set a file to this size. The module stops at 10 MiB for most
/// names, and a file must not end up shorter than the program asked for.
bool TakesSize(std::string_view path, int64_t size);

/// Sets a size that a truncate request cannot set. A shorter file is extended by writing its last
/// byte. A longer one is cut through a temporary hard link whose name is exempt from the limit,
/// which needs a disk with hard links.
/// @param done  receives an errno: 0 for success, EFBIG when a longer file could not be cut
void SetLargeSize(RemoteFiles& files, const std::string& path, int64_t size,
                  std::function<void(int error)> done);

}  // namespace cpd::host
