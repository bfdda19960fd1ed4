// What a session counts, by command.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>

namespace cpd::host {

/// A histogram of durations. A bucket is at most 6 % of its value wide, so that memory stays
/// constant and a quantile is nearly exact.
class Durations {
 public:
  void Add(std::chrono::nanoseconds duration);
  /// @param share  0.5 = the median
  /// @return 0 when nothing was added
  [[nodiscard]] std::chrono::nanoseconds Quantile(double share) const;

 private:
  static constexpr unsigned kBits = 4;  // 16 buckets for each power of two
  std::array<uint64_t, (64 - kBits) << kBits> counts_{};
  uint64_t total_ = 0;
};

struct CommandStatistics {
  uint64_t requests = 0;
  uint64_t replies = 0;
  uint64_t bytes = 0;  ///< of whole packets, in both directions
  Durations durations;
};

/// By command code.
using Statistics = std::map<uint16_t, CommandStatistics>;

}  // namespace cpd::host
