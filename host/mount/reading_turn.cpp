#include "mount/reading_turn.h"

namespace cpd::host {

thread_local ReadingTurn::Held ReadingTurn::held_;

ReadingTurn::ReadingTurn() {
  sem_init(&free_, 0, 1);
  watch_ = std::jthread([this](const std::stop_token& stop) { Watch(stop); });
}

ReadingTurn::~ReadingTurn() {
  if (held_.turn == this) held_ = {};
  watch_.request_stop();
  watch_.join();
  sem_destroy(&free_);
}

bool ReadingTurn::Take() {
  if (held_.turn == this) {
    if (!IsServing(held_.step)) return true;  // no call has come since
    if (EndCall(held_.step)) {
      ++held_.step;
      return true;
    }
    held_ = {};
  }
  if (sem_wait(&free_) != 0) return false;
  held_ = {.turn = this, .step = step_};
  return true;
}

void ReadingTurn::BeginCall() {
  step_ = ++held_.step;
  if (!is_idle_) return;
  {
    const std::lock_guard lock(mutex_);  // else the watch could miss the notification
  }
  called_.notify_one();
}

void ReadingTurn::PassOn() {
  const auto [turn, step] = held_;
  if (turn == nullptr || !IsServing(step)) return;
  held_ = {};
  if (turn->EndCall(step)) sem_post(&turn->free_);
}

/// @return false when the thread that serves this call has lost the turn
bool ReadingTurn::EndCall(uint64_t step) { return step_.compare_exchange_strong(step, step + 1); }

/// Takes the turn from a thread that serves one call for too long. Sleeps while no calls come.
void ReadingTurn::Watch(const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  uint64_t last = 0;
  while (!stop.stop_requested()) {
    called_.wait_for(lock, stop, kLongest, [] { return false; });
    const uint64_t now = step_;
    if (now == last && !IsServing(now)) {
      is_idle_ = true;
      called_.wait(lock, stop, [&] { return step_ != last; });
      is_idle_ = false;
    } else if (now == last && EndCall(now)) {
      sem_post(&free_);
    }
    last = now;
  }
}

}  // namespace cpd::host
