// Converts the protocol's records to the kernel's.
#pragma once

#include <fuse_lowlevel.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <optional>

#include "mount/node_table.h"
#include "mount/prefetch.h"
#include "wire.h"

namespace cpd::host {

// How long the kernel may cache names and attributes: long enough for a program that lists a
// directory and then asks for each file, short enough that changes on the client show soon.
inline constexpr double kTrusted =  // in seconds
    std::chrono::duration<double>(Prefetch::kTrusted).count();

/// The rest of that time, in seconds.
/// @param asked  when the disk was asked, if not just now
inline double TrustedFor(std::optional<NodeTable::Clock::time_point> asked) {
  if (!asked) return kTrusted;
  const std::chrono::duration<double> age = NodeTable::Clock::now() - *asked;
  return std::max(kTrusted - age.count(), 0.0);
}

inline struct stat ToStat(const udisk_stat& from) {
  struct stat to {};
  to.st_ino = from.st_ino;
  to.st_mode = from.st_mode;
  to.st_nlink = from.st_nlink;
  to.st_uid = from.st_uid;
  to.st_gid = from.st_gid;
  to.st_rdev = static_cast<dev_t>(from.st_rdev);
  to.st_size = from.st_size;
  to.st_blksize = from.st_blksize;
  to.st_blocks = from.st_blocks;
  to.st_atim = {.tv_sec = from.st_atim.tv_sec, .tv_nsec = from.st_atim.tv_nsec};
  to.st_mtim = {.tv_sec = from.st_mtim.tv_sec, .tv_nsec = from.st_mtim.tv_nsec};
  to.st_ctim = {.tv_sec = from.st_ctim.tv_sec, .tv_nsec = from.st_ctim.tv_nsec};
  return to;
}

/// @param asked  when the disk was asked, if not just now
inline fuse_entry_param ToEntry(NodeTable::Id node, const udisk_stat& attributes,
                                std::optional<NodeTable::Clock::time_point> asked = std::nullopt) {
  const double trusted = TrustedFor(asked);
  return {.ino = node,
          .generation = 0,
          .attr = ToStat(attributes),
          .attr_timeout = trusted,
          .entry_timeout = trusted};
}

}  // namespace cpd::host
