// How much may wait for the disk.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <limits>
#include <utility>

namespace cpd::host {

/// The work that was acknowledged and is not carried out yet. Everything that a program asks of the
/// disk waits for it, so it is bounded: to what the disk does in about 100 ms, by its own measured
/// speed.
///
/// Work is counted in bytes. Not synchronized: the owner's mutex guards it.
class Backlog {
 public:
  /// What writing pieces costs the disk: for each as much as 4 KiB, and its bytes.
  static constexpr size_t WorkOf(size_t pieces, size_t bytes) { return pieces * kPiece + bytes; }

  [[nodiscard]] bool HasRoomFor(size_t work) const { return work_ + work <= most_; }
  void Add(size_t work) { work_ += work; }
  /// Takes back work that is carried out.
  void Remove(size_t work) { work_ -= work; }

  /// Learns how long the disk took for some work. A single slow answer may be a busy machine's
  /// doing and does not count; a second one in a row does.
  void Measure(size_t work, std::chrono::nanoseconds took) {
    const double latest = static_cast<double>(took.count()) / static_cast<double>(work);
    const double lately = std::min(latest, std::exchange(latest_, latest));
    cost_ = cost_ == 0 ? lately : (cost_ + lately) / 2;
    const double in_time = kLongestWait / std::max(cost_, kLeastCost);
    most_ = in_time < kMost ? static_cast<size_t>(in_time) : kMost;
  }

 private:
  static constexpr size_t kPiece = 4 << 10;
  static constexpr size_t kMost = 2 << 20;       // how slow the disk may become is never known
  static constexpr double kLongestWait = 100e6;  // ns
  static constexpr double kLeastCost = 1e-3;     // ns a byte

  size_t work_ = 0;
  size_t most_ = kMost;
  double latest_ = std::numeric_limits<double>::max();  // measured
  double cost_ = 0;                                     // ns a byte; 0 = never measured
};

}  // namespace cpd::host
