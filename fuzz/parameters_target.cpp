// Reads the disk's parameters. An input is the text that the host supplies.
#include <cstring>
#include <string>
#include <vector>

#include "finding.h"
#include "operator.h"
#include "service.h"
#include "support/fake_host.h"
#include "support/requests.h"
#include "target.h"

namespace cpd::fuzz {

namespace {

void CheckAnnouncement(const test::SentPacket& packet, uint8_t read_only) {
  Expect(packet.cmd == kMountRemote, "the second packet announces the disk");
  uint16_t length = 0;
  Expect(packet.payload.size() >= sizeof length, "an announcement has a length");
  std::memcpy(&length, packet.payload.data(), sizeof length);
  Expect(length <= 255, "a name has 255 bytes at most");
  Expect(packet.payload.size() == sizeof length + length + 2,
         "the name, its NUL and a flag follow");
  const std::string name = packet.payload.substr(sizeof length, length);
  Expect(name.find('\0') == std::string::npos, "a name ends at its NUL");
  Expect(packet.payload[sizeof length + length] == '\0', "the name has its end");
  Expect(static_cast<uint8_t>(packet.payload.back()) == read_only, "the flag is the service's");
}

}  // namespace

void Run(Input in) {
  test::Log().Clear();
  test::FakeDevice device;
  device.base().SetParams(std::string(in.TakeRest()));
  UDiskOperator udisk(&device);
  UDiskService service(&device, &udisk);
  UDiskService::ServiceThread(&service);

  const std::vector<test::SentPacket> sent = device.Sent();
  Expect(sent.size() == 2, "any parameters lead to two packets");
  Expect(sent[0].cmd == kSmallFileNotice && sent[0].payload.empty(), "the first is the notice");
  CheckAnnouncement(sent[1], service.mReadOnly);
  Expect(udisk.GetLocalMountPoint().size() < sizeof udisk.mMountPoint, "the mount point ends");
}

}  // namespace cpd::fuzz
