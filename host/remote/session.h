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
#include <vector>

#include "cpd/driver.h"
#include "cpd/packet.h"
#include "remote/periodic.h"
#include "remote/statistics.h"

namespace cpd::host {

/// Sends requests to a driver and matches its replies. Any number may be outstanding.
///
/// A driver replies in the order of the requests, and leaves some without a reply. So a reply
/// proves that the unanswered requests before it will never get one. If a request has waited for a
/// second, the session sends a probe, to which every driver replies. A time limit ends the wait for
/// a driver that has stopped replying.
class Session {
 public:
  using Clock = std::chrono::steady_clock;
  /// The device id of every packet: a session has one disk.
  static constexpr uint8_t kDeviceId = 1;
  /// Receives the reply, or null if there is none. Usually runs on the driver's worker thread,
  /// where it holds up every later request, so it must not wait.
  using Done = std::function<void(std::unique_ptr<CpdPacket> reply)>;

  explicit Session(std::chrono::seconds time_limit);

  /// Sets the driver, which must live until Stop has returned.
  void Start(CpdDriver* driver);
  /// Gives up all outstanding requests and refuses new ones. No Done runs after it has returned.
  void Stop();

  /// Takes a packet from the driver.
  void Receive(std::unique_ptr<CpdPacket> packet);
  /// Waits until the driver has announced its disk. @return false when it did not in time
  bool WaitForAnnouncement(std::chrono::seconds limit);

  /// Sends a request; the session sets its id. `done` runs exactly once, possibly before Ask
  /// returns.
  void Ask(std::unique_ptr<CpdPacket> request, Done done);
  /// Sends a packet that has no reply.
  void Tell(std::unique_ptr<CpdPacket> packet);

  Statistics statistics() const;
  /// How long the driver took for the request whose Done runs, measured from the previous answer.
  Clock::duration time_of_answer() const { return time_of_answer_; }

 private:
  struct Outstanding {
    uint16_t command;
    Clock::time_point sent;
    Done done;
  };

  void Send(std::unique_ptr<CpdPacket> packet);
  void AskLocked(std::unique_ptr<CpdPacket> request, Done done);
  void TakeFront(size_t count, std::vector<Outstanding>* taken);
  void Watch();

  const Clock::duration time_limit_;
  mutable std::mutex mutex_;
  CpdDriver* driver_ = nullptr;
  bool announced_ = false;
  std::condition_variable announcement_;
  // In the order in which they were sent, with consecutive ids that begin with first_id_.
  std::deque<Outstanding> outstanding_;
  uint32_t first_id_ = 1;
  Clock::time_point waiting_since_;  // when the front request became the oldest
  bool probing_ = false;
  Statistics statistics_;
  std::atomic<Clock::duration> time_of_answer_{};
  std::atomic<int> delivering_ = 0;  // threads that are running Done functions
  Periodic watch_;
};

}  // namespace cpd::host
