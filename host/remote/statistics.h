// What a session counts, by command.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>

namespace cpd::host {

/// Counts durations in buckets of at most 6 % of their value; its size does not depend on how many.
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
  uint64_t bytes = 0;  ///< whole packets, both ways
  Durations durations;
};

/// By command code.
using Statistics = std::map<uint16_t, CommandStatistics>;

}  // namespace cpd::host
