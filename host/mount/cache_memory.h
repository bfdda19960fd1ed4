// How much memory the caches of a mount may take.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cpd::host {

/// The memory that all caches of a mount may take together, shared out among them. Each cache keeps
/// to its share, in bytes: it drops older content, or keeps nothing new until some is released.
/// Small tables with a fixed number of places are not counted, nor is what programs need: nodes
/// that the kernel knows, directories that they read, writes and replies on their way.
struct CacheMemory {
  static constexpr uint32_t kMostMib = 1U << 20;

  constexpr explicit CacheMemory(uint32_t mib) : all(size_t{mib} << 20) {}

  size_t all;
  size_t listings = all / 8 * 3;  ///< ListingCache
  size_t prefetch = all / 4;      ///< Prefetch: small files, and the listings of their directories
  size_t contents = all / 8;      ///< CheckedReads: small files that programs have open
  size_t walks = all / 8;         ///< WalkAhead
  size_t pieces = all / 8;        ///< SequentialReads
};

}  // namespace cpd::host
