// docs/protocol.md is true: it has the commands of the command table, and its examples work as
// written.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "service.h"
#include "support/expectations.h"
#include "support/fake_user.h"
#include "support/operator_fixture.h"

namespace cpd::test {
namespace {

/// A heading and the lines under it.
struct Section {
  std::string heading;
  Texts lines;

  [[nodiscard]] bool IsCommand() const {
    return std::isdigit(static_cast<unsigned char>(heading.front())) != 0;
  }
  [[nodiscard]] uint16_t Code() const { return static_cast<uint16_t>(std::stoi(heading)); }
};

std::vector<Section> ReadSections() {
  std::ifstream document(PROTOCOL_DOCUMENT);
  if (!document) throw std::runtime_error("cannot read " PROTOCOL_DOCUMENT);
  std::vector<Section> sections;
  for (std::string line; std::getline(document, line);) {
    if (line.starts_with("## ")) {
      sections.push_back({.heading = line.substr(3), .lines = {}});
    } else if (!sections.empty()) {
      sections.back().lines.push_back(line);
    }
  }
  return sections;
}

/// The cells of a table row.
Texts Cells(const std::string& row) {
  Texts cells;
  size_t begin = 2;
  for (size_t bar = row.find(" |", 1); bar != row.npos; bar = row.find(" |", begin - 1)) {
    cells.push_back(row.substr(begin, std::max(bar, begin) - begin));
    begin = bar + 3;
  }
  return cells;
}

std::string WithoutTicks(const std::string& cell) { return cell.substr(1, cell.size() - 2); }

// ---- Examples ----

using Bytes = std::vector<std::optional<uint8_t>>;  // empty: any byte

struct Exchange {
  Bytes request;
  bool silence = false;
  Bytes reply;
};

/// `2e` or `..`, alone or repeated as in `2e*8`.
Bytes ParseWord(const std::string& word) {
  const std::string byte = word.substr(0, 2);
  const std::string times = word.substr(byte.size());
  const bool any = byte == "..";
  const bool hex = byte.size() == 2 && byte.find_first_not_of("0123456789abcdef") == byte.npos;
  if ((!any && !hex) || (!times.empty() && times[0] != '*')) {
    throw std::runtime_error("no byte: " + word);
  }
  std::optional<uint8_t> value;
  if (hex) value = static_cast<uint8_t>(std::stoi(byte, nullptr, 16));
  return Bytes(times.empty() ? 1 : std::stoul(times.substr(1)), value);
}

/// The bytes after a line's marker. A bar and a remark may follow them.
Bytes ParseBytes(const std::string& line) {
  const size_t bar = std::min(line.find('|'), line.size());
  std::istringstream words(line.substr(1, bar - 1));
  Bytes bytes;
  for (std::string word; words >> word;) {
    const Bytes more = ParseWord(word);
    bytes.insert(bytes.end(), more.begin(), more.end());
  }
  if (line.substr(bar).starts_with("| \"") && line.back() == '"') {
    const std::string text = line.substr(bar + 3, line.size() - bar - 4);
    if (bytes != Bytes(text.begin(), text.end())) {
      throw std::runtime_error("bytes and text differ: " + line);
    }
  }
  return bytes;
}

/// Adjacent lines of one direction are one message. An empty line ends an exchange.
std::vector<Exchange> ParseExample(const Section& section) {
  std::vector<Exchange> exchanges;
  bool in_code = false;
  bool begins = true;
  for (const std::string& line : section.lines) {
    if (line == "```") in_code = !in_code;
    if (!in_code) continue;
    if (line.empty() || line == "```") {
      begins = true;
      continue;
    }
    if (std::exchange(begins, false)) exchanges.emplace_back();
    Exchange& exchange = exchanges.back();
    if (line == "< (silence)") {
      exchange.silence = true;
    } else {
      const Bytes bytes = ParseBytes(line);
      Bytes& message = line.front() == '>' ? exchange.request : exchange.reply;
      message.insert(message.end(), bytes.begin(), bytes.end());
    }
  }
  return exchanges;
}

/// A request's payload, in which every byte must be given.
std::string PayloadOf(const Bytes& request) {
  std::string payload;
  for (const auto byte : request) payload += static_cast<char>(byte.value());
  return payload;
}

std::string ToHex(const std::string& bytes) {
  std::string hex;
  for (const char byte : bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    const auto value = static_cast<uint8_t>(byte);
    hex += {kDigits[value >> 4], kDigits[value & 15], ' '};
  }
  return hex;
}

void ExpectBytes(const Bytes& expected, const std::string& actual) {
  EXPECT_EQ(expected.size(), actual.size());
  const bool same = std::equal(expected.begin(), expected.end(), actual.begin(), actual.end(),
                               [](std::optional<uint8_t> byte, char sent) {
                                 return !byte || *byte == static_cast<uint8_t>(sent);
                               });
  EXPECT_TRUE(same) << "sent was " << ToHex(actual);
}

class ProtocolDocument : public OperatorTest {
 protected:
  [[nodiscard]] const Section& Find(const std::string& begin_of_heading) const {
    const auto found = std::ranges::find_if(sections, [&](const Section& section) {
      return section.heading.starts_with(begin_of_heading);
    });
    if (found == sections.end()) throw std::runtime_error("no heading " + begin_of_heading);
    return *found;
  }
  /// The sections of the commands and of the other messages after them.
  [[nodiscard]] std::vector<Section> MessageSections() const {
    return {std::ranges::find_if(sections, &Section::IsCommand), sections.end()};
  }

  /// Makes the files that the document's table lists.
  void MakeSampleDisk() const {
    for (const std::string& line : Find("Sample disk").lines) {
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

  const std::vector<Section> sections = ReadSections();
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

TEST_F(ProtocolDocument, DescribesEachInTheSameFivePartsInTheSameOrder) {
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

TEST_F(ProtocolDocument, HasFieldsWithoutGaps) {
  for (const Section& section : sections) {
    std::optional<int> next;  // where a field must begin; empty outside tables of fields
    for (const std::string& line : section.lines) {
      const bool head = line.starts_with("| offset |");
      if (!line.starts_with("|")) next.reset();
      if (head) next = 0;
      if (!next || head || line.starts_with("|---")) continue;
      const Texts row = Cells(line);
      ASSERT_GE(row.size(), 2U) << line;
      EXPECT_EQ(std::stoi(row[0]), *next) << section.heading << ": " << line;
      const std::string& width = row[1];
      if (width.starts_with("u") || width.starts_with("s")) {
        *next += std::stoi(width.substr(1)) / 8;
      } else {
        ASSERT_TRUE(width.ends_with(" bytes")) << section.heading << ": " << line;
        if (std::isdigit(static_cast<unsigned char>(width[0])) != 0) *next += std::stoi(width);
      }
    }
  }
}

TEST_F(ProtocolDocument, HasExamplesThatWorkAsWritten) {
  MakeSampleDisk();
  const FakeUser user(1000, disk.letter());  // so that 100 finds its directory: the disk's own
  for (const Section& section : sections) {
    if (!section.IsCommand()) continue;
    MountAnew();
    int number = 0;
    for (const Exchange& exchange : ParseExample(section)) {
      SCOPED_TRACE(section.heading + ", exchange " + std::to_string(++number));
      const auto sent =
          AskRaw(Request{.cmd = section.Code(), .payload = PayloadOf(exchange.request)});
      EXPECT_NE(sent.has_value(), exchange.silence);
      if (sent) ExpectBytes(exchange.reply, sent->payload);
    }
  }
}

TEST_F(ProtocolDocument, HasABusEventThatSetsTheBandwidthAndGetsNoAnswer) {
  const std::vector<Exchange> exchanges = ParseExample(Find("Bus event 513"));
  ASSERT_EQ(exchanges.size(), 1U);
  EXPECT_TRUE(exchanges.front().silence);
  const Request event{.cmd = kBusReadBandwidth, .payload = PayloadOf(exchanges.front().request)};
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

  const std::vector<Exchange> exchanges = ParseExample(Find("Announcement"));
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
