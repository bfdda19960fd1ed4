#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

namespace cpd::host {

/// Holds requests back while a name moves. Requests name files by paths, and those sent behind a
/// rename with the old path would miss their file or, worse, hit the one that took its place.
///
/// Whoever waits here must not be who delivers replies: a move ends with one.
class RenameGate {
 public:
  using Pass = std::unique_lock<std::mutex>;
  /// A move lasts until its last copy is gone.
  using Move = std::shared_ptr<void>;

  /// Waits for the end of a move; none begins while the pass is held. To be held from looking a
  /// path up until the request with it is sent.
  [[nodiscard]] Pass Enter() {
    Pass pass(mutex_);
    ended_.wait(pass, [this] { return !moving_; });
    return pass;
  }

  [[nodiscard]] Move BeginMove() {
    const Pass pass = Enter();
    moving_ = true;
    return {this, [](RenameGate* gate) { gate->EndMove(); }};
  }

 private:
  void EndMove() {
    const std::lock_guard lock(mutex_);
    moving_ = false;
    ended_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable ended_;
  bool moving_ = false;
};

}  // namespace cpd::host
