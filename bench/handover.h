// The least that two threads need to hand blocks to each other, one by one and in order.
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <utility>

namespace cpd::bench {

template <class T>
class Handover {
 public:
  void Put(T item) {
    {
      const std::lock_guard lock(mutex_);
      items_.push_back(std::move(item));
    }
    wake_.notify_one();
  }

  T Take() {
    std::unique_lock lock(mutex_);
    wake_.wait(lock, [this] { return !items_.empty(); });
    T item = std::move(items_.front());
    items_.pop_front();
    return item;
  }

 private:
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<T> items_;
};

}  // namespace cpd::bench
