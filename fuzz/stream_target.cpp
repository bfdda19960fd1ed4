// Cuts the stream of a line into frames, in pieces of the input's choice, and reads what both sides
// read from them. An input is a text whose bytes are the sizes of the pieces, then the stream.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

#include "cpd/packet.h"
#include "finding.h"
#include "line/asked_data.h"
#include "line/frame_reader.h"
#include "remote/announcement.h"
#include "target.h"

namespace cpd::fuzz {
namespace {

using host::ControlFrame;
using host::ControlHead;
using host::FrameReader;
using host::Hello;

constexpr size_t kFirstBlock = 1280 << 10;
constexpr uint32_t kLargest = 2 << 20;

std::string BytesOf(const ControlFrame& control) {
  const ControlHead head{.magic = host::kControlMagic,
                         .kind = control.kind,
                         .length = static_cast<uint16_t>(control.text.size()),
                         .reserved = 0,
                         .value = control.value};
  return std::string(reinterpret_cast<const char*>(&head), sizeof head) + control.text;
}

/// Reads a packet as both sides do.
std::string BytesOf(const CpdPacket& packet) {
  Expect(packet.header->magic == CPD_PACKET_MAGIC && packet.header->bigEndian == 0,
         "a packet has its magic, and is little-endian");
  Expect(
      packet.buffer->capacity == packet.header->packetLen && packet.header->packetLen <= kLargest,
      "a packet's buffer is as long as the packet says, and within the limit");
  (void)host::DataAskedFor(packet);
  if (const auto disk = host::ReadAnnouncement(packet)) {
    Expect(disk->name.size() < packet.header->packetLen, "a disk's name lies within its packet");
  }
  return {reinterpret_cast<const char*>(packet.buffer->data), packet.buffer->capacity};
}

/// Checks a frame against the bytes that it was made of, which lie at the beginning of `rest`.
void Check(const FrameReader::Frame& frame, std::string_view* rest) {
  std::string bytes;
  if (const auto* hello = std::get_if<Hello>(&frame)) {
    bytes.assign(reinterpret_cast<const char*>(hello), sizeof *hello);
  } else if (const auto* packet = std::get_if<std::unique_ptr<CpdPacket>>(&frame)) {
    bytes = BytesOf(**packet);
  } else {
    bytes = BytesOf(std::get<ControlFrame>(frame));
    // The reserved word is not kept.
    const size_t reserved = offsetof(ControlHead, reserved);
    bytes.replace(reserved, 4, rest->substr(reserved, 4));
  }
  Expect(rest->starts_with(bytes), "a frame consists of the stream's next bytes");
  rest->remove_prefix(bytes.size());
}

/// How far a reader came.
struct Outcome {
  size_t frames = 0;
  std::string error;
  bool operator==(const Outcome&) const = default;
};

Outcome Read(std::string_view stream, std::string_view pieces) {
  FrameReader reader(kLargest);
  Outcome outcome;
  std::string_view rest = stream;
  size_t arrived = 0;
  size_t turn = 0;
  try {
    while (arrived < stream.size()) {
      const size_t piece = pieces.empty()
                               ? stream.size()
                               : static_cast<uint8_t>(pieces[turn++ % pieces.size()]) + 1U;
      size_t count = 0;
      const auto spaces = reader.Space();
      Expect(spaces[0].iov_len <= std::max(kFirstBlock, 2 * arrived),
             "memory grows with what has arrived, not with what is claimed");
      for (const auto& space : spaces) {
        const size_t part =
            std::min({space.iov_len, piece - count, stream.size() - arrived - count});
        if (part > 0) std::memcpy(space.iov_base, stream.data() + arrived + count, part);
        count += part;
      }
      Expect(count > 0, "there is always space");
      reader.Arrived(count);
      arrived += count;
      while (const auto frame = reader.Next()) {
        ++outcome.frames;
        Check(*frame, &rest);
      }
    }
  } catch (const host::StreamError& error) {
    outcome.error = error.what();
  }
  return outcome;
}

}  // namespace

void Run(Input in) {
  const auto pieces = in.TakeText();
  const auto stream = in.TakeRest();
  Expect(Read(stream, pieces) == Read(stream, {}), "frames do not depend on the pieces");
}

}  // namespace cpd::fuzz
