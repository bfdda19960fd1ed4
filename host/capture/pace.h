// When the requests of a capture are due when it is replayed.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace cpd::host {

/// Keeps the intervals between a capture's requests. The capture's times are not trusted: they may
/// go back, or be centuries apart.
class Pace {
 public:
  using Clock = std::chrono::steady_clock;

  /// Longer pauses are shortened to this.
  static constexpr std::chrono::nanoseconds kLongestPause = std::chrono::minutes(1);

  /// @param time  of the first request, in the capture: in nanoseconds since any moment
  /// @param now  when that request is due
  Pace(uint64_t time, Clock::time_point now) : latest_(time), due_(now) {}

  /// @param time  of the next request
  /// @return when it is due; not before the requests so far
  Clock::time_point DueAt(uint64_t time) {
    if (time > latest_) {
      constexpr auto kMost = static_cast<uint64_t>(kLongestPause.count());
      due_ += std::chrono::nanoseconds(std::min(time - latest_, kMost));
      latest_ = time;
    }
    return due_;
  }

 private:
  uint64_t latest_;
  Clock::time_point due_;
};

}  // namespace cpd::host
