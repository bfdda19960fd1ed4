// The clock of the test program. It replaces gettimeofday and usleep, which follow real time unless
// a VirtualClock exists.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace cpd::test {

/// While an instance exists, only the test and usleep move the wall clock. usleep returns at
/// once. Threads share it. At most one at a time.
class VirtualClock {
 public:
  /// The default is a present date, far from the zero that means "never".
  explicit VirtualClock(int64_t now_ms = 1'700'000'000'000);
  ~VirtualClock();
  VirtualClock(const VirtualClock&) = delete;
  VirtualClock& operator=(const VirtualClock&) = delete;

  void Set(int64_t now_ms);
  void Advance(int64_t ms);
  [[nodiscard]] int64_t NowMs() const;
  /// Moves the clock after each reading, so that time passes within the tested code.
  void TickPerReading(int64_t ms);
  /// Makes each sleep take longer by `ms`; a negative value can make it move the clock back.
  void OversleepBy(int64_t ms);
  /// Called after each reading, on the reader's thread, without a lock held.
  void OnReading(std::function<void()> action);
  /// Called within each sleep, on the sleeper's thread, without a lock held.
  void OnSleep(std::function<void()> action);
  /// The sleeps since the last call of this, in milliseconds. Fails the test when a sleep was not a
  /// whole number of milliseconds.
  std::vector<int64_t> TakeSleepsMs();
  /// How often the clock was read.
  [[nodiscard]] int Readings() const;
};

}  // namespace cpd::test
