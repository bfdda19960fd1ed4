#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stop_token>
#include <thread>

namespace cpd::host {

/// Calls a function at once and then at intervals, on a thread of its own, until destroyed.
class Periodic {
 public:
  Periodic(std::chrono::milliseconds interval, std::function<void()> work)
      : thread_([this, interval, work = std::move(work)](const std::stop_token& stop) {
          std::unique_lock lock(mutex_);
          do {
            work();
          } while (!wake_.wait_for(lock, stop, interval, [&] { return stop.stop_requested(); }));
        }) {}

 private:
  std::mutex mutex_;
  std::condition_variable_any wake_;
  std::jthread thread_;  // last: joined before what it uses is destroyed
};

}  // namespace cpd::host
