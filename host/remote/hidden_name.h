#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <random>
#include <string>

namespace cpd::host {

/// A name that nobody has used, for a file that its users are not to see any more.
inline std::string HiddenName() {
  std::random_device random;
  return fmt::format(".fuse_hidden{:08x}{:08x}", random(), random());
}

}  // namespace cpd::host
