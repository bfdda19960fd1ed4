#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace cpd::host {

class RemoteFiles;

/// In bytes; FAT keeps a file's size in 32 bits.
inline constexpr int64_t kLargestFatFile = (int64_t{4} << 30) - 1;

/// This process's limit of file sizes in bytes, under which the module writes, too. All ones when
/// there is none.
uint64_t SizeLimitOfThisProcess();

/// The size in bytes that any disk lets a file of this process reach.
int64_t LargestSureSize();

/// Whether the disk's side sets a file to this size when it is asked to. It stops at 10 MiB for
/// most names; a file must not end up shorter than was wanted.
bool TakesSize(std::string_view path, int64_t size);

/// Sets a size that the disk's side does not take. A smaller file is extended by its last byte; a
/// larger one is cut through a passing hard link whose name is excepted from the limit, which needs
/// a disk that has hard links.
/// @param done  receives an errno, 0 for success and EFBIG where the limit is in the way
void SetLargeSize(RemoteFiles& files, const std::string& path, int64_t size,
                  std::function<void(int error)> done);

}  // namespace cpd::host
