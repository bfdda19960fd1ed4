// The remote side's end of the packet channel: requests out, replies in.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "cpd/packet.h"
#include "remote/channel.h"
#include "remote/lowest_lately.h"
#include "remote/notice.h"
#include "remote/periodic.h"
#include "remote/statistics.h"
#include "wire.h"

namespace cpd::host {

/// Sends requests to a driver and matches its replies. Any number may be outstanding.
///
/// A driver replies in the order of the requests, and leaves some without a reply. So a reply
/// proves that the unanswered requests before it will never get one. If a request has waited for a
/// second, the session sends a probe, to which every driver replies. A time limit ends the wait for
/// a driver that has stopped replying.
///
/// The channel to the driver may break, and another one may take its place. Requests wait
/// meanwhile; what was unanswered is asked again, except requests that must not be carried out
/// twice and turn out to have been (see recovery.h). All operations are callable from any thread.
class Session {
 public:
  using Clock = std::chrono::steady_clock;
  /// The device id of every packet: a session has one disk.
  static constexpr uint8_t kDeviceId = 1;
  /// Receives the reply, or null if there is none. Usually runs on the thread that delivers replies
  /// (the driver's worker, or that of the connection), where it holds up every later one, so it
  /// must not wait.
  using Done = std::function<void(std::unique_ptr<CpdPacket> reply)>;

  /// A request for an empty extended attribute: every driver answers it without touching the disk.
  static std::unique_ptr<CpdPacket> Probe(uint32_t id);

  /// @param time_limit  for a driver that does not reply; 10 s are added, since it may pace reads
  /// @param patience    how long requests wait after a channel broke. Then they are given up; new
  ///                    ones are given up at once until there is a channel.
  explicit Session(std::chrono::seconds time_limit, std::chrono::seconds patience = {});

  /// Sets the channel, which must live until Break or Stop has returned. Requests that were asked
  /// before Start wait for it.
  void Start(Channel* channel);
  /// The channel is gone. Requests wait for the next Start.
  void Break();
  /// For a channel that will lead to another disk: gives up every request, then calls `change`.
  /// Requests that are asked while it runs are given up at once, by Ask; no other Done runs then.
  /// To be called between Break and Start, not from a Done; does not wait for the driver.
  void GiveUpWhile(const std::function<void()>& change);
  /// From now on, requests do not wait for another channel.
  void StopWaiting();
  /// There may be room in the channel again.
  void Proceed();
  /// Gives up all requests, and from now on new ones at once, in Ask. No other Done runs after it
  /// has returned. Not to be called from a Done.
  void Stop();

  /// Takes a packet from the driver.
  void Receive(std::unique_ptr<CpdPacket> packet);
  /// Takes a notice from the side that has the driver, in order with the packets.
  void Receive(const Notice& notice);

  /// Receives each notice when it comes. Receives all but kWatched again after the Done of the next
  /// answer has run, because that answer may be older than the change. Must not wait. Gets kAll
  /// when requests go to another channel.
  using Listener = std::function<void(const Notice& notice)>;
  /// Sets what receives the notices, until Stop has returned. To be called once.
  void Listen(Listener listener);
  /// All changes in watched directories until then have been told.
  [[nodiscard]] Clock::time_point told_until() const { return told_until_; }

  /// Sends a request; the session sets its id. `done` runs exactly once, possibly before Ask
  /// returns.
  /// @param before  attributes that the request's first path has, if they are known
  void Ask(std::unique_ptr<CpdPacket> request, Done done,
           const std::optional<udisk_stat>& before = std::nullopt);
  /// Sends a packet that has no reply; does nothing without a channel.
  void Tell(std::unique_ptr<CpdPacket> packet);

  /// Whether the channel broke and no other has taken its place.
  [[nodiscard]] bool IsCutOff() const;
  Statistics statistics() const;
  /// What the mechanisms that use this session count.
  Savings& savings() { return savings_; }
  /// How long the driver took for the request whose Done runs, measured from the previous answer,
  /// or from when this one could have come without any work if that is later.
  Clock::duration time_of_answer() const { return time_of_answer_; }
  /// How long a packet and its answer are on their way at least; 0 if that is not known.
  Clock::duration transit() const { return transit_; }
  /// How long an answer takes at least: the way to the driver and back, and its work. 0 before the
  /// first answer.
  Clock::duration round_trip() const { return round_trip_; }

 private:
  struct Request {
    uint16_t command = 0;
    std::shared_ptr<CpdPacket> packet;  // null once sent through a channel that cannot break
    Done done;
    std::optional<udisk_stat> before;
    Clock::time_point sent;
    bool is_question = false;  // of this session itself: not asked again after a break
  };
  using Requests = std::deque<Request>;
  /// An unrepeatable request without a reply, and what its paths lead to now.
  struct Doubt {
    std::vector<std::optional<udisk_stat>> found;
    size_t unanswered = 0;
    bool is_unknown = false;  // a question went without an answer
  };
  using Concluded = std::vector<std::pair<Done, std::unique_ptr<CpdPacket>>>;

  void SendWaitingLocked();
  void SendLocked(Request request);
  void TakeFrontLocked(size_t count, Requests* taken);
  Requests TakeAllLocked();
  void LookIntoLocked();
  void AskForLocked(const std::shared_ptr<Doubt>& doubt, size_t index, std::string_view path);
  Concluded SettleLocked();
  void SendProbeLocked();
  void GiveUp(const Requests& requests);
  void CountDelivered();
  void AwaitDelivery() const;
  void TellAgain();
  void Watch();

  const Clock::duration time_limit_;
  const Clock::duration patience_;
  mutable std::mutex mutex_;
  Channel* channel_ = nullptr;  // null before Start and after Break
  bool is_refusing_ = false;    // requests are given up at once
  bool is_stopped_ = false;
  std::optional<Clock::time_point> broken_;  // when, if requests wait for a channel
  bool waits_ = true;                        // whether requests wait for another channel
  // Sent, with consecutive ids that begin with first_id_.
  Requests outstanding_;
  Requests waiting_;                            // to be sent, after those in lost_
  Requests lost_;                               // sent through a channel that broke
  std::vector<std::shared_ptr<Doubt>> doubts_;  // about lost_, null where there is none
  uint32_t first_id_ = 1;
  Clock::time_point waiting_since_;  // when the front request became the oldest
  bool probing_ = false;
  Statistics statistics_;
  Savings savings_;
  std::atomic<Clock::duration> time_of_answer_{};
  std::atomic<Clock::duration> transit_{};
  LowestLately lowest_;                        // guarded by mutex_
  std::atomic<Clock::duration> round_trip_{};  // what lowest_ gives
  std::atomic<int> delivering_ = 0;  // threads that are running Done functions or the listener
  std::shared_ptr<const Listener> listener_;  // guarded by mutex_
  std::vector<Notice> notices_;               // guarded by mutex_; to be told again
  std::atomic<Clock::time_point> told_until_{};
  std::unique_ptr<Periodic> watch_;  // from the first Start on, so that making a session starts no
                                     // thread
};

}  // namespace cpd::host
