// Where a test puts a disk that is to be watched for changes.
#pragma once

#include <unistd.h>

#include <filesystem>

namespace cpd::test {

/// A directory for temporary files. In a container, the usual one often lies on an overlay, which
/// cannot be watched.
inline std::filesystem::path WatchablePlace() {
  return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : std::filesystem::temp_directory_path();
}

}  // namespace cpd::test
