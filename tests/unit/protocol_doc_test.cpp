// docs/protocol.md is true: it has the commands of the command table, and its examples work as
// written.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "service.h"
#include "support/expectations.h"
#include "support/fake_user.h"
#include "support/operator_fixture.h"
#include "support/protocol_document.h"

namespace cpd::test {
namespace {

class ProtocolDocument : public OperatorTest {
 protected:
  /// The sections of the commands and of the other messages after them.
  [[nodiscard]] std::vector<Section> MessageSections() const {
    return {std::ranges::find_if(sections, &Section::IsCommand), sections.end()};
  }

  /// Makes the files that the document's table lists.
  void MakeSampleDisk() const {
    for (const std::string& line : Find(sections, "Sample disk").lines) {
      if (!line.starts_with("| `/")) continue;
      const Texts row = Cells(line);
      const std::string path = WithoutTicks(row.at(0));
      if (row.at(2) == "a directory") {
        disk.MakeDir(path);
      } else {
        disk.MakeFile(path, WithoutTicks(row.at(2)));
      }
      std::filesystem::permissions(disk.Local(path),
                                   std::filesystem::perms(std::stoi(row.at(1), nullptr, 8)));
    }
  }
  void MountAnew() {
    udisk->SetRootPath(nullptr, nullptr);
    Mount();
  }

  const std::vector<Section> sections = ReadSections("Protocol");
};

TEST_F(ProtocolDocument, HasTheCommandsOfTheCommandTableInTheOrderOfTheirCodes) {
  Texts commands;
  for (const CommandRow& command : kCommandNames) {
    commands.push_back(std::to_string(command.code) + " " + command.name);
  }
  Texts headings;
  for (const Section& section : sections) {
    if (section.IsCommand()) headings.push_back(section.heading);
  }
  EXPECT_EQ(headings, commands);
}

TEST_F(ProtocolDocument, DescribesEachMessageInTheSameFivePartsInTheSameOrder) {
  for (const Section& section : MessageSections()) {
    Texts things;
    for (const std::string& line : section.lines) {
      if (line.starts_with("| offset |") || line.starts_with("No head")) things.push_back("Head");
      for (const std::string thing : {"Called", "Reply", "Odd"}) {
        const std::string label = "**" + thing + ".** ";
        if (line.starts_with(label) && line.size() > label.size()) things.push_back(thing);
      }
      if (line.starts_with("**Example.**")) things.push_back("Example");
    }
    things.erase(std::unique(things.begin(), things.end()), things.end());  // a head in two tables
    EXPECT_EQ(things, (Texts{"Head", "Called", "Reply", "Odd", "Example"})) << section.heading;
    EXPECT_FALSE(ParseExample(section).empty()) << section.heading;
  }
}

TEST_F(ProtocolDocument, HasFieldsWithoutGaps) { ExpectFieldsWithoutGaps(sections); }

TEST_F(ProtocolDocument, HasExamplesThatWorkAsWritten) {
  MakeSampleDisk();
  const FakeUser user(1000, disk.letter());  // so that 100 finds its directory: the disk's own
  for (const Section& section : sections) {
    if (!section.IsCommand()) continue;
    MountAnew();
    int number = 0;
    for (const Exchange& exchange : ParseExample(section)) {
      SCOPED_TRACE(section.heading + ", exchange " + std::to_string(++number));
      const auto sent = AskRaw(Request{.cmd = section.Code(), .payload = Given(exchange.request)});
      EXPECT_NE(sent.has_value(), exchange.silence);
      if (sent) ExpectBytes(exchange.reply, sent->payload);
    }
  }
}

TEST_F(ProtocolDocument, HasABusEventThatSetsTheBandwidthAndGetsNoAnswer) {
  const std::vector<Exchange> exchanges = ParseExample(Find(sections, "Bus event 513"));
  ASSERT_EQ(exchanges.size(), 1U);
  EXPECT_TRUE(exchanges.front().silence);
  const Request event{.cmd = kBusReadBandwidth, .payload = Given(exchanges.front().request)};
  uint32_t announced = 0;
  ASSERT_EQ(event.payload.size(), sizeof announced);
  std::memcpy(&announced, event.payload.data(), sizeof announced);
  udisk->BusEventHandle(event.Packet());
  EXPECT_EQ(udisk->readBwKbps, announced);
  EXPECT_TRUE(device.Sent().empty());
}

TEST_F(ProtocolDocument, HasTheAnnouncementAsTheServiceSendsIt) {
  device.base().SetParams(DeviceParams(disk.root(), disk.label()));
  UDiskService service(&device, udisk.get());
  UDiskService::ServiceThread(&service);

  const std::vector<Exchange> exchanges = ParseExample(Find(sections, "Announcement"));
  const std::vector<SentPacket> sent = device.TakeSent();
  ASSERT_EQ(sent.size(), exchanges.size());
  for (size_t i = 0; i < sent.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(sent[i].big_endian, 0);
    const Request packet{.cmd = sent[i].cmd,
                         .payload = sent[i].payload,
                         .request_id = sent[i].request_id,
                         .dev_id = sent[i].dev_id};
    ExpectBytes(exchanges[i].reply, packet.Bytes());
  }
}

}  // namespace
}  // namespace cpd::test
