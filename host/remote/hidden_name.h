#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <random>
#include <string>

namespace cpd::host {

/// A random new name for a file that programs still have open but must no longer see.
inline std::string HiddenName() {
  std::random_device random;
  return fmt::format(".fuse_hidden{:08x}{:08x}", random(), random());
}

}  // namespace cpd::host
