// Which of libfuse's threads reads the kernel's next call.
#pragma once

#include <semaphore.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <stop_token>
#include <thread>

namespace cpd::host {

/// Lets one thread at a time read the kernel's calls. That thread serves a call itself and then
/// reads the next one, so as long as calls keep coming, none of them wakes another thread. If all
/// idle threads read, the kernel would wake another one for each call.
///
/// A thread must not keep the turn while it waits, because the calls that come meanwhile may be
/// what it waits for. So it passes the turn on before it waits. If it does not, because it waits in
/// an unexpected place, another thread may read after kLongest.
class ReadingTurn {
 public:
  /// How long a thread may serve a call before it loses the turn. It may keep it for up to twice as
  /// long, because the calls are looked at once in this time.
  static constexpr std::chrono::milliseconds kLongest{10};

  ReadingTurn();
  ~ReadingTurn();
  ReadingTurn(const ReadingTurn&) = delete;
  ReadingTurn& operator=(const ReadingTurn&) = delete;

  /// Waits for the turn, unless the calling thread still has it. The wait is a cancellation point,
  /// since libfuse cancels its threads at the end.
  /// @return false when a signal interrupted the wait; errno is EINTR then
  [[nodiscard]] bool Take();
  /// The calling thread, which has the turn, has read a call and serves it.
  void BeginCall();
  /// To be called before the calling thread waits for anything but a lock that is held briefly:
  /// lets another thread read. Does nothing in a thread without a turn.
  static void PassOn();

 private:
  struct Held {
    ReadingTurn* turn = nullptr;
    uint64_t step = 0;  // the value of step_ if the thread still has the turn
  };

  static bool IsServing(uint64_t step) { return step % 2 != 0; }
  bool EndCall(uint64_t step);
  void Watch(const std::stop_token& stop);

  static thread_local Held held_;

  sem_t free_{};  // 1 while no thread has the turn
  // Odd while the thread that has the turn serves a call. Increases when a call begins, and when it
  // ends or the turn does.
  std::atomic<uint64_t> step_ = 0;
  std::atomic<bool> is_idle_ = false;  // whether the watch waits for a call
  std::mutex mutex_;
  std::condition_variable_any called_;
  std::jthread watch_;  // last: joined before what it uses is destroyed
};

}  // namespace cpd::host
