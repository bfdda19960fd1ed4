// Limits how much work may wait for the disk.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <limits>
#include <utility>

namespace cpd::host {

/// Counts the work that was acknowledged but is not carried out yet. Every later request waits for
/// it, so it is limited to what the disk, and the line to it, do in about 100 ms at their measured
/// speed. Over a long line, what is on its way is added: nothing waits longer for that, and the
/// line would run dry without it.
///
/// Work is counted in bytes. Not synchronized: the owner's mutex guards it.
class Backlog {
 public:
  /// @param most  the limit in bytes, however fast the disk: any disk may suddenly become slow
  explicit Backlog(size_t most = kMostUnmeasured) : bound_(most) {}

  /// The work of writing pieces: their bytes, and 4 KiB more for each piece.
  static constexpr size_t WorkOf(size_t pieces, size_t bytes) { return pieces * kPiece + bytes; }

  [[nodiscard]] bool HasRoomFor(size_t work) const { return work_ + work <= most_; }
  void Add(size_t work) { work_ += work; }
  /// Removes work that has been carried out.
  void Remove(size_t work) { work_ -= work; }

  /// Learns how long the disk took for some work. A single slow answer is ignored, because a
  /// busy machine may have caused it; a second one in a row counts.
  /// @param transit  how long the work and its answer were on their way besides
  void Measure(size_t work, std::chrono::nanoseconds took, std::chrono::nanoseconds transit = {}) {
    const double latest = static_cast<double>(took.count()) / static_cast<double>(work);
    const double lately = std::min(latest, std::exchange(latest_, latest));
    cost_ = cost_ == 0 ? lately : (cost_ + lately) / 2;
    const double in_time =
        (kLongestWait + static_cast<double>(transit.count())) / std::max(cost_, kLeastCost);
    most_ = in_time < static_cast<double>(bound_) ? static_cast<size_t>(in_time) : bound_;
  }

 private:
  static constexpr size_t kPiece = 4 << 10;
  static constexpr size_t kMostUnmeasured = 2 << 20;
  static constexpr double kLongestWait = 100e6;  // ns
  static constexpr double kLeastCost = 1e-3;     // ns per byte

  size_t bound_;
  size_t work_ = 0;
  size_t most_ = kMostUnmeasured;
  double latest_ = std::numeric_limits<double>::max();  // ns per byte
  double cost_ = 0;                                     // ns per byte; 0 = never measured
};

}  // namespace cpd::host
