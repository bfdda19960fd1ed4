// The bits of the first byte of an input of the requests target and of the driver target.
#pragma once

#include <cstdint>

namespace cpd::fuzz {

enum Setting : uint8_t {
  kTokenBucket = 1,
  kForcedBandwidth = 2,
  kPathFilter = 4,  ///< reads and writes of some files are traced
  kDeafHost = 8,    ///< SendPacket fails
  kConfined = 16,
  kNotNamed = 32,  ///< requests arrive before the service has set the disk
};

}  // namespace cpd::fuzz
