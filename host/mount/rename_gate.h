#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>

#include "mount/reading_turn.h"

namespace cpd::host {

/// Holds requests back while a name moves. Requests name files by path: one sent after a rename
/// with the old path would miss its file or, worse, hit the one that took its place.
///
/// Must not be used on the thread that delivers replies, since a move ends with a reply.
class RenameGate {
 public:
  using Pass = std::unique_lock<std::mutex>;
  /// A move lasts until its last copy is gone.
  using Move = std::shared_ptr<void>;

  /// Waits for the end of a move. No move begins while the pass is held: hold it from the lookup of
  /// a path until the request with that path is sent.
  [[nodiscard]] Pass Enter() {
    Pass pass(mutex_);
    if (moving_) ReadingTurn::PassOn();
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
