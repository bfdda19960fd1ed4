#pragma once

#include <algorithm>
#include <chrono>

namespace cpd::host {

/// The lowest of the latest durations. The lowest one leaves out the time that a request waited for
/// others; the latest ones follow a line that changes.
class LowestLately {
 public:
  using Duration = std::chrono::nanoseconds;

  void Add(Duration duration) {
    if (count_ % kPeriod == 0) {
      before_ = now_;
      now_ = Duration::max();
    }
    ++count_;
    now_ = std::min(now_, duration);
  }
  /// @return 0 when nothing was added
  [[nodiscard]] Duration value() const {
    return count_ == 0 ? Duration::zero() : std::min(before_, now_);
  }

 private:
  static constexpr unsigned kPeriod = 64;  // durations

  unsigned count_ = 0;
  Duration before_ = Duration::max();  // of the period before this one
  Duration now_ = Duration::max();
};

}  // namespace cpd::host
