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
/// A driver answers in the order of the requests, and some it does not answer at all. So a reply
/// proves that every request before it gets none. Where no later request is under way, a probe,
/// which is always answered, takes its place after a second; a time limit ends the wait for a
/// driver that answers nothing any more.
class Session {
 public:
  using Clock = std::chrono::steady_clock;
  /// The device id of every packet: a session has one disk.
  static constexpr uint8_t kDeviceId = 1;
  /// Receives the reply, or null when there is none. Runs on the driver's worker thread, where it
  /// holds up every later request: it must not wait.
  using Done = std::function<void(std::unique_ptr<CpdPacket> reply)>;

  explicit Session(std::chrono::seconds time_limit);

  /// Names the driver, which must stay until Stop has returned.
  void Start(CpdDriver* driver);
  /// Gives all outstanding requests up and refuses new ones. No Done runs after it has returned.
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
  /// How long the driver took for the request whose Done runs, from the answer before it on.
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
  // In the order in which the driver got them, with successive ids, first_id_ at the front.
  std::deque<Outstanding> outstanding_;
  uint32_t first_id_ = 1;
  Clock::time_point waiting_since_;  // the front request's turn began
  bool probing_ = false;
  Statistics statistics_;
  std::atomic<Clock::duration> time_of_answer_{};
  std::atomic<int> delivering_ = 0;  // threads that run Done functions
  Periodic watch_;
};

}  // namespace cpd::host
