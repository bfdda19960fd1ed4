// Helpers for file attributes that several parts use.
#pragma once

#include <cstdint>

#include "wire.h"

namespace cpd::host {

/// The bits of a mode that are not the file type.
inline constexpr uint32_t kPermissions = 07777;

/// Whether two records describe the same file.
inline bool IsSameInode(const udisk_stat& a, const udisk_stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

inline bool IsSameTime(const udisk_timespec& a, const udisk_timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

/// Whether two looks saw one file with nothing written in between.
inline bool IsSameContent(const udisk_stat& a, const udisk_stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
         IsSameTime(a.st_mtim, b.st_mtim);
}

}  // namespace cpd::host
