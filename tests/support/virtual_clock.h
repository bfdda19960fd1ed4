// The clock of the test program: gettimeofday and usleep are defined here, and follow real time
// until a test makes a VirtualClock.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace cpd::test {

/// While one exists, the wall clock stands still but for what moves it: the test, and usleep, which
/// returns at once. Threads share it. At most one at a time.
class VirtualClock {
 public:
  /// The default is some day of the present, far from any zero that means "never".
  explicit VirtualClock(int64_t now_ms = 1'700'000'000'000);
  ~VirtualClock();
  VirtualClock(const VirtualClock&) = delete;
  VirtualClock& operator=(const VirtualClock&) = delete;

  void Set(int64_t now_ms);
  void Advance(int64_t ms);
  [[nodiscard]] int64_t NowMs() const;
  /// Moves the clock after each reading: time that passes within what is tested.
  void TickPerReading(int64_t ms);
  /// By how much a sleep takes longer (or, negative, moves the clock back).
  void OversleepBy(int64_t ms);
  /// Called after each reading, on the reader's thread, without a lock held.
  void OnReading(std::function<void()> action);
  /// Called within each sleep, on the sleeper's thread, without a lock held.
  void OnSleep(std::function<void()> action);
  /// usleep's arguments in milliseconds, since the last call of this. Fails on odd microseconds.
  std::vector<int64_t> TakeSleepsMs();
  /// How often the clock was read.
  [[nodiscard]] int Readings() const;
};

}  // namespace cpd::test
