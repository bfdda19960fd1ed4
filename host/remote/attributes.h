// What several places ask of a file's attributes.
#pragma once

#include <cstdint>

#include "wire.h"

namespace cpd::host {

/// Of a mode: all but the type.
inline constexpr uint32_t kPermissions = 07777;

inline bool IsSameTime(const udisk_timespec& a, const udisk_timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace cpd::host
