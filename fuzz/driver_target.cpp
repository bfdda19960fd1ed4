// The driver with its queue, worker and service, as its host calls it. An input is a byte of
// settings, then letters, each a step with its arguments; other bytes are skipped. The worker
// serves requests meanwhile, so the timing differs from run to run; the checks do not depend on it.
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <semaphore>
#include <string>
#include <utility>
#include <vector>

#include "cpd/driver_obj.h"
#include "disk.h"
#include "exchange.h"
#include "finding.h"
#include "settings.h"
#include "steps.h"
#include "target.h"
#include "udisk.h"

namespace cpd::fuzz {

namespace {

using test::SentPacket;

/// The first request id. The packets that the service sends on its own have lower ones.
constexpr uint32_t kFirstId = 1 << 16;

/// A driver and its host, on the disk.
class Session {
 public:
  explicit Session(uint8_t settings) : host_(settings), driver_(&host_.device, "policy") {
    host_.device.base().SetParams(R"({"letter":"/","label":"DISK","name":"Stick","readOnly":0})");
    host_.device.OnSend([this](const SentPacket& packet) { Take(packet); });
    Expect(driver_.Init() == 0, "the driver starts");
  }
  ~Session() { Close(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void Deliver(std::unique_ptr<CpdPacket> packet) {
    packet->header->requestId = kFirstId + static_cast<uint32_t>(asked_.size());
    const CpdPacketHeader asked = *packet->header;
    bytes_ += packet->buffer->capacity;
    if (Changes(asked.cmd)) DiskChanged(packet->buffer->capacity);
    {
      const std::lock_guard lock(mutex_);
      asked_.push_back(asked);
    }
    const bool own = asked.devId == host_.device.GetDevId();
    Expect(driver_.onEvent(std::move(packet), 0) == (own ? 0 : -1), "its own packets are taken");
  }
  void Announce(const std::shared_ptr<CpdPacket>& event) {
    Expect(driver_.onBusEvent(event) == 0, "bus events are taken");
  }
  void ChangePolicy(const std::string& policy) {
    Expect(driver_.onPolicyChange(policy) == 0, "policies are taken");
  }
  void PassTime(int64_t ms) { host_.clock.Advance(ms); }
  void DropDevice(int more) { host_.device.DropBase(more); }

  /// Holds the driver's operator, which then outlives Close.
  void HoldOperator() { held_.push_back(driver_.GetDriverObj()); }

  /// Waits until all requests so far have been served. Does nothing after Close.
  void Settle() {
    if (closed_) return;
    marker_ = kFirstId + static_cast<uint32_t>(asked_.size());
    Deliver(test::Request(test::AttrRequest{.path = "/"}).Packet());
    Expect(served_.try_acquire_for(test::kPatience), "a good request is answered");
    ExpectLinear(steps_, bytes_ + BytesOnDisk());
    test::Log().Clear();
  }

  void Close() {
    Expect(driver_.Close(0) == 0, "the driver closes");
    closed_ = true;
  }

  void AskHeldOperators() const {
    for (const auto& held : held_) {
      if (held == nullptr) continue;
      held->GetDrvName();
      held->GetDeviceId();
    }
  }

 private:
  /// Runs on the worker's or the service's thread.
  void Take(const SentPacket& packet) {
    Expect(!closed_, "nothing is sent after Close");
    if (packet.request_id < kFirstId) return;  // unsolicited
    CpdPacketHeader asked{};
    {
      const std::lock_guard lock(mutex_);
      const size_t number = packet.request_id - kFirstId;
      Expect(number >= next_ && number < asked_.size(),
             "one answer each, in the order of requests");
      next_ = number + 1;
      asked = asked_[number];
    }
    CheckReply(asked, packet);
    if (packet.request_id == marker_) served_.release();
  }

  Host host_;
  UDiskDriver driver_;
  std::mutex mutex_;
  std::vector<CpdPacketHeader> asked_;  // guarded by mutex_; only the jail's thread adds to it
  size_t next_ = 0;                     // guarded by mutex_; least number of the next reply
  std::atomic<uint32_t> marker_ = 0;
  std::binary_semaphore served_{0};
  std::atomic<bool> closed_ = false;
  std::vector<std::shared_ptr<DriverObj>> held_;
  const uint64_t steps_ = StepsSoFar();
  size_t bytes_ = 0;
};

void Step(Session* session, Input* in) {
  const char kind = in->Take<char>();
  if (auto packet = TakePacket(kind, in)) return session->Deliver(std::move(packet));
  if (const auto event = TakeBusEvent(kind, in)) return session->Announce(event);
  switch (kind) {
    case 'S':
      return session->Settle();
    case 'X':
      return session->Close();
    case 'O':
      return session->HoldOperator();
    case 'Y':
      return session->ChangePolicy(std::string(in->TakeText()));
    case 'T':
      return session->PassTime(in->Take<int16_t>());
    case 'D':
      return session->DropDevice(in->Take<uint8_t>());
    default:
      return;
  }
}

}  // namespace

void Run(Input in) {
  test::Log().Clear();
  MakeDisk();
  const size_t descriptors = OpenDescriptors();
  {
    Session session(in.Take<uint8_t>());
    while (!in.AtEnd()) Step(&session, &in);
    session.Close();
    session.AskHeldOperators();
  }
  Expect(OpenDescriptors() == descriptors, "no descriptor stays open");
}

}  // namespace cpd::fuzz
