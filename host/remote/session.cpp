#include "remote/session.h"

#include <utility>

#include "wire.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr auto kProbeAfter = 1s;
// A module that paces reads may sleep this long before it replies: for the largest read at the
// lowest rate.
constexpr auto kPacingAllowance = 10s;

/// A request for an empty extended attribute: every driver answers it without touching the disk.
std::unique_ptr<CpdPacket> Probe() {
  const XattrHead head{};
  auto probe = std::make_unique<CpdPacket>(CPD_PACKET_HEADER_SIZE + sizeof head);
  probe->InitHeader(Session::kDeviceId, kGetXattr, 0);
  probe->AppendPayload(&head, sizeof head);
  return probe;
}

}  // namespace

Session::Session(std::chrono::seconds time_limit)
    : time_limit_(time_limit + kPacingAllowance), watch_(100ms, [this] { Watch(); }) {}

void Session::Start(CpdDriver* driver) {
  const std::lock_guard lock(mutex_);
  driver_ = driver;
}

void Session::Stop() {
  std::vector<Outstanding> given_up;
  {
    const std::lock_guard lock(mutex_);
    driver_ = nullptr;
    TakeFront(outstanding_.size(), &given_up);
  }
  for (auto& request : given_up) request.done(nullptr);
  for (int others = delivering_; others != 0; others = delivering_) delivering_.wait(others);
}

void Session::Receive(std::unique_ptr<CpdPacket> packet) {
  if (packet == nullptr || packet->header == nullptr) return;
  const CpdPacketHeader header = *packet->header;
  std::vector<Outstanding> silent;
  Done done;
  {
    const std::lock_guard lock(mutex_);
    if (header.cmd == kMountRemote) {
      announced_ = true;
      announcement_.notify_all();
      return;
    }
    // An id out of range belongs to a request that was given up, or that this session never sent.
    const uint32_t place = header.requestId - first_id_;
    if (place >= outstanding_.size() || outstanding_[place].command != header.cmd) return;

    const auto now = Clock::now();
    TakeFront(place, &silent);
    auto& answered = outstanding_.front();
    auto& counters = statistics_[header.cmd];
    ++counters.replies;
    counters.bytes += header.packetLen;
    counters.durations.Add(now - answered.sent);
    done = std::move(answered.done);
    outstanding_.pop_front();
    ++first_id_;
    time_of_answer_ = now - waiting_since_;
    waiting_since_ = now;
    ++delivering_;
  }
  for (auto& request : silent) request.done(nullptr);
  done(std::move(packet));
  --delivering_;
  delivering_.notify_all();
}

bool Session::WaitForAnnouncement(std::chrono::seconds limit) {
  std::unique_lock lock(mutex_);
  return announcement_.wait_for(lock, limit, [this] { return announced_; });
}

void Session::Ask(std::unique_ptr<CpdPacket> request, Done done) {
  {
    const std::lock_guard lock(mutex_);
    if (driver_ != nullptr && request->header != nullptr) {
      AskLocked(std::move(request), std::move(done));
      return;
    }
  }
  done(nullptr);
}

void Session::Tell(std::unique_ptr<CpdPacket> packet) {
  const std::lock_guard lock(mutex_);
  if (driver_ != nullptr && packet->header != nullptr) Send(std::move(packet));
}

Statistics Session::statistics() const {
  const std::lock_guard lock(mutex_);
  return statistics_;
}

void Session::Send(std::unique_ptr<CpdPacket> packet) {
  auto& counters = statistics_[packet->header->cmd];
  ++counters.requests;
  counters.bytes += packet->header->packetLen;
  driver_->onEvent(std::move(packet), 0);
}

// The request goes to the driver under the lock, so that outstanding_ has the driver's order.
void Session::AskLocked(std::unique_ptr<CpdPacket> request, Done done) {
  const auto now = Clock::now();
  if (outstanding_.empty()) waiting_since_ = now;
  request->header->requestId = first_id_ + static_cast<uint32_t>(outstanding_.size());
  outstanding_.push_back({request->header->cmd, now, std::move(done)});
  Send(std::move(request));
}

void Session::TakeFront(size_t count, std::vector<Outstanding>* taken) {
  for (; count > 0; --count) {
    taken->push_back(std::move(outstanding_.front()));
    outstanding_.pop_front();
    ++first_id_;
  }
}

void Session::Watch() {
  std::vector<Outstanding> given_up;
  {
    const std::lock_guard lock(mutex_);
    if (driver_ == nullptr || outstanding_.empty()) return;
    const auto waited = Clock::now() - waiting_since_;
    if (waited >= time_limit_) {
      TakeFront(outstanding_.size(), &given_up);
      ++delivering_;
    } else if (waited >= kProbeAfter && !probing_) {
      probing_ = true;
      AskLocked(Probe(), [this](const std::unique_ptr<CpdPacket>&) {
        const std::lock_guard relock(mutex_);
        probing_ = false;
      });
    }
  }
  if (given_up.empty()) return;
  for (auto& request : given_up) request.done(nullptr);
  --delivering_;
  delivering_.notify_all();
}

}  // namespace cpd::host
