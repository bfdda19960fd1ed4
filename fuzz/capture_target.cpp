// Reads a capture, and compares what it holds as answers. An input is a file.
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "capture/answers.h"
#include "capture/capture_reader.h"
#include "capture/heads.h"
#include "cpd/packet.h"
#include "finding.h"
#include "target.h"

namespace cpd::fuzz {
namespace {

using host::RecordedPacket;

void CheckPacket(const RecordedPacket& packet, const std::optional<RecordedPacket>& before) {
  const std::string_view bytes = packet.bytes;
  Expect(bytes.size() >= CPD_PACKET_HEADER_SIZE && bytes.size() <= packet.original,
         "a packet has a header, and no more bytes than it says");
  Expect(host::LengthWithoutData(bytes, packet.way) <= bytes.size(), "heads lie within the packet");
  Expect(bytes.find(host::PathOf(bytes)) != std::string_view::npos, "a path lies in the packet");
  (void)host::ResultOf(bytes);
  Expect(host::DifferenceOf(bytes, bytes).empty(), "no answer differs from itself");
  if (before) (void)host::DifferenceOf(before->bytes, bytes);
}

/// A packet that was read is written and read again.
void CheckAgain(const RecordedPacket& packet) {
  std::istringstream file(host::SectionStart("", "") +
                          host::PacketBlocks({.time = packet.time,
                                              .way = packet.way,
                                              .bytes = packet.bytes,
                                              .original = packet.original,
                                              .missing = packet.missing}));
  host::CaptureReader reader(file);
  const auto again = reader.Next();
  Expect(again && again->time == packet.time && again->way == packet.way &&
             again->bytes == packet.bytes && again->original == packet.original &&
             again->missing == packet.missing,
         "what is written is read again");
  Expect(!reader.Next(), "one packet is written");
}

}  // namespace

void Run(Input in) {
  const auto input = in.TakeRest();
  std::istringstream file{std::string(input)};
  host::CaptureReader reader(file);
  std::optional<RecordedPacket> before;
  uint64_t number = 0;
  size_t total = 0;
  try {
    while (auto packet = reader.Next()) {
      Expect(packet->number == ++number, "packets are numbered");
      total += packet->bytes.size();
      Expect(total <= input.size(), "packets hold no more than the file");
      CheckPacket(*packet, before);
      CheckAgain(*packet);
      before = std::move(packet);
    }
  } catch (const host::CaptureError& error) {
    Expect(*error.what() != '\0', "a broken capture has a reason");
  }
}

}  // namespace cpd::fuzz
