// The byte that an input of the requests target begins with.
#pragma once

#include <cstdint>

namespace cpd::fuzz {

enum Setting : uint8_t {
  kTokenBucket = 1,
  kForcedBandwidth = 2,
  kPathFilter = 4,  ///< reads and writes of some files are traced
  kDeafHost = 8,    ///< SendPacket fails
  kConfined = 16,
  kNotNamed = 32,  ///< requests come before the service has named the disk
};

}  // namespace cpd::fuzz
