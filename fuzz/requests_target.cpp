// Runs sequences of requests, as a hostile remote side may send them, mixed with bus events and
// with a disk that comes and goes. An input is a byte of settings, then letters, each a step with
// its arguments; other bytes are skipped.
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "disk.h"
#include "exchange.h"
#include "finding.h"
#include "operator.h"
#include "settings.h"
#include "steps.h"
#include "target.h"

namespace cpd::fuzz {

namespace {

using test::SentPacket;

/// An operator and its host, on the disk.
class Session {
 public:
  explicit Session(uint8_t settings)
      : confined_((settings & kConfined) != 0), host_(settings), udisk_(&host_.device) {
    if ((settings & kNotNamed) == 0) Mount();
  }

  void Mount() { udisk_.SetRootPath("/", kLabel); }
  void PassTime(int64_t ms) { host_.clock.Advance(ms); }
  void DropDevice(int more) { host_.device.DropBase(more); }
  void Announce(const std::shared_ptr<CpdPacket>& event) { udisk_.BusEventHandle(event); }

  /// Delivers a packet and checks what comes back.
  void Deliver(std::unique_ptr<CpdPacket> packet) {
    const CpdPacketHeader asked = *packet->header;
    const size_t bytes = packet->buffer->capacity;
    const std::string before = confined_ ? StateBeside() : "";
    const uint64_t steps = StepsSoFar();
    udisk_.EventHandle(std::move(packet));
    ExpectLinear(steps, bytes + BytesOnDisk());
    test::Log().Clear();
    const std::vector<SentPacket> sent = host_.device.TakeSent();
    Expect(sent.size() <= 1, "one answer at most");
    if (!sent.empty()) CheckReply(asked, sent.front());
    if (confined_) {
      Expect(StateBeside() == before, "a confined request changes nothing beside the disk");
      Expect(sent.empty() || sent.front().payload.find(kSecret) == std::string::npos,
             "a confined request reads nothing beside the disk");
    }
    if (Changes(asked.cmd)) DiskChanged(bytes);
  }

  void ExpectToServe() {
    Mount();
    host_.device.TakeSent();
    udisk_.EventHandle(test::Request(test::AttrRequest{.path = "/"}).Packet());
    Expect(host_.device.Sent().size() == 1, "the next good request is answered");
  }

 private:
  const bool confined_;
  Host host_;
  UDiskOperator udisk_;
};

void Step(Session* session, Input* in) {
  const char kind = in->Take<char>();
  if (auto packet = TakePacket(kind, in)) return session->Deliver(std::move(packet));
  if (const auto event = TakeBusEvent(kind, in)) return session->Announce(event);
  switch (kind) {
    case 'T':
      return session->PassTime(in->Take<int16_t>());
    case 'M':
      return session->Mount();
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
    session.ExpectToServe();
  }
  Expect(OpenDescriptors() == descriptors, "no descriptor stays open");
}

}  // namespace cpd::fuzz
