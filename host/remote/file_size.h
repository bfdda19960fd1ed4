#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace cpd::host {

class RemoteFiles;

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
