// A disk and its operator, without a driver: requests are served on the test's own thread.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "operator.h"
#include "support/fake_host.h"
#include "support/requests.h"
#include "support/temp_disk.h"

namespace cpd::test {

class OperatorTest : public ::testing::Test {
 protected:
  OperatorTest() {
    unsetenv("TESSEL_CPD_CLIENT_THROTTLE_LEGACY");
    unsetenv("TESSEL_CPD_CLIENT_FORCE_BW");
    unsetenv("TESSEL_CPD_CLIENT_CONFINE");
    disk.MakeFile(kKnownFile, "known content");
    disk.MakeDir(kKnownDir);
    MakeOperator();
    Mount();
    Log().Clear();
  }

  /// Makes a new operator, which reads its settings from the environment.
  void MakeOperator() { udisk = std::make_unique<UDiskOperator>(&device); }
  /// Puts the operator back on the disk.
  void Mount() { udisk->SetRootPath(disk.letter().c_str(), disk.label().c_str()); }

  /// Delivers a packet as the worker thread would. @return EventHandle's result
  int Deliver(std::unique_ptr<CpdPacket> packet) { return udisk->EventHandle(std::move(packet)); }
  int Deliver(const Request& request) { return Deliver(request.Packet()); }

  /// Delivers a request and takes what was sent. More than one packet fails the test.
  std::optional<SentPacket> AskRaw(std::unique_ptr<CpdPacket> packet) {
    device.TakeSent();
    Deliver(std::move(packet));
    const std::vector<SentPacket> sent = device.TakeSent();
    EXPECT_LE(sent.size(), 1U) << "more than one reply";
    if (sent.empty()) return std::nullopt;
    return sent.front();
  }
  std::optional<SentPacket> AskRaw(const Request& request) { return AskRaw(request.Packet()); }
  /// Delivers a request and decodes its reply.
  template <class Typed>
  std::optional<typename Typed::Reply> Ask(const Typed& request) {
    const std::optional<SentPacket> sent = AskRaw(static_cast<Request>(request));
    if (!sent) return std::nullopt;
    return Typed::Reply::Decode(*sent);
  }

  /// Whether the next good request still gets its reply.
  bool StillServes() {
    const auto reply = Ask(AttrRequest{.path = kKnownFile});
    return reply && reply->path == kKnownFile;
  }

  DescriptorCheck descriptors;  // destroyed last: all that may open a descriptor is gone by then
  TempDisk disk;
  FakeDevice device;
  std::unique_ptr<UDiskOperator> udisk;
};

}  // namespace cpd::test
