#pragma once

#include <string>

#include "line/stream.h"

namespace cpd::host {

/// What a hello says of a disk.
struct DiskIdentity {
  Id128
      disk;  ///< the same for one directory of one file system, wherever and whenever it is mounted
  Id128 life;  ///< changes when the machine is booted or the file system is mounted anew: written
               ///< data that was not synced may then be lost
};

/// @param directory  an absolute path
/// @throws std::system_error when it cannot be looked at
DiskIdentity IdentityOf(const std::string& directory);

/// 16 bytes that nobody can guess.
Id128 RandomId();

}  // namespace cpd::host
