// Tells of changes on the disk that a driver serves, in order with the driver's answers.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <stop_token>
#include <string>
#include <thread>

#include "cpd/driver.h"
#include "cpd/packet.h"
#include "descriptor.h"
#include "module/directory_watches.h"
#include "remote/notice.h"

namespace cpd::host {

/// Watches the directories that are listed, and tells of their changes.
///
/// A directory is watched from before it is listed: a probe goes to the driver ahead of the
/// request, and the driver's thread sets the watch when it has answered the probe. What has changed
/// by the time of an answer is told before that answer. Without requests, a change is told within
/// kPause.
///
/// It makes no difference who has made a change. Somebody who makes one through the driver knows
/// nothing certain of the file until the driver answers the next question about it. By then the
/// change was told.
class ChangeWatch {
 public:
  /// How long changes are gathered, so that a busy disk does not wake a thread for each of them.
  static constexpr std::chrono::milliseconds kPause{20};
  /// Most directories whose listing is due. Those that are listed beyond that are not watched.
  static constexpr size_t kMostListed = 256;

  /// Passes on a notice. Runs on any thread; must not wait, nor call this object.
  /// @return false when there is no room for it: then kAll follows, for which there must be room
  using Tell = std::function<bool(const Notice& notice)>;

  /// To be made before the process enters its sandbox.
  explicit ChangeWatch(const std::string& disk) : watches_(disk) {}
  ~ChangeWatch() { Stop(); }
  ChangeWatch(const ChangeWatch&) = delete;
  ChangeWatch& operator=(const ChangeWatch&) = delete;

  /// What the sandbox must let this add watches to; negative = nothing.
  [[nodiscard]] int descriptor() const { return watches_.descriptor(); }

  /// Begins with no directory watched. Starts a thread. If descriptors run out, nothing is watched.
  /// @throws std::system_error when it cannot start the thread
  void Start(Tell tell);
  /// Does not tell anything any more. Waits for the disk if a watch is being set.
  void Stop();
  /// To be called with each request right before the driver gets it, and not by two threads at
  /// once. Does not access the disk.
  void Precede(const CpdPacket& request, CpdDriver& driver);
  /// To be called with each packet of the driver before it is passed on, on the driver's thread.
  /// @return false when it answers a probe of this object, and is for nobody else
  /// @throws what Tell throws, or std::bad_alloc. The packet must not be passed on then, because
  ///         not all that has changed was told. kAll comes before the next one.
  bool NoteReply(const CpdPacket& reply);

 private:
  void Run(const std::stop_token& stop);
  void TellLocked(const std::optional<std::string>& listed);

  std::mutex mutex_;          // held while the disk is accessed
  DirectoryWatches watches_;  // guarded by mutex_
  Tell tell_;                 // guarded by mutex_; empty while stopped
  bool is_all_due_ = false;   // guarded by mutex_; kAll could not be told yet
  std::mutex queue_mutex_;
  bool is_started_ = false;         // guarded by queue_mutex_
  std::deque<std::string> listed_;  // guarded by queue_mutex_; one for each probe under way
  Descriptor wake_;
  std::jthread thread_;
};

}  // namespace cpd::host
