// The stream from the other side of a line is cut into frames, whatever it contains.
#include "line/frame_reader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "support/line_peer.h"

namespace cpd::host {
namespace {

using test::BytesOfPacket;
using test::BytesOfRecord;
using test::ControlBytes;
using test::HelloOf;
using test::PacketOf;

constexpr size_t kBuffer = 64 << 10;

/// Gives a reader as many of the bytes as it has space for, at most `most`.
void Feed(FrameReader* reader, std::string_view* bytes, size_t most) {
  size_t count = 0;
  for (const auto& space : reader->Space()) {
    const size_t part = std::min({space.iov_len, bytes->size(), most - count});
    std::ranges::copy(bytes->substr(0, part), static_cast<char*>(space.iov_base));
    bytes->remove_prefix(part);
    count += part;
  }
  reader->Arrived(count);
}

std::string Describe(const FrameReader::Frame& frame) {
  if (const auto* hello = std::get_if<Hello>(&frame)) return BytesOfRecord(*hello);
  if (const auto* packet = std::get_if<std::unique_ptr<CpdPacket>>(&frame)) {
    EXPECT_EQ((*packet)->buffer->capacity, (*packet)->header->packetLen);
    return BytesOfPacket(**packet);
  }
  const auto& control = std::get<ControlFrame>(frame);
  return ControlBytes(control.kind, control.value, control.text);
}

/// The frames of a stream that arrives in pieces.
std::vector<std::string> Frames(std::string_view stream, size_t piece,
                                uint32_t largest = kLargestPacket) {
  FrameReader reader(largest);
  std::vector<std::string> frames;
  while (!stream.empty()) {
    Feed(&reader, &stream, piece);
    while (const auto frame = reader.Next()) frames.push_back(Describe(*frame));
  }
  return frames;
}

std::string HelloBytes() { return BytesOfRecord(HelloOf(Role::kDisk)); }

std::string WhyRefused(const std::string& stream, uint32_t largest = kLargestPacket) {
  try {
    Frames(stream, stream.size(), largest);
  } catch (const StreamError& error) {
    return error.what();
  }
  return {};
}

/// The header of a packet that claims a length.
std::string HeaderOf(uint32_t length) {
  CpdPacketHeader header{};
  header.magic = CPD_PACKET_MAGIC;
  header.packetLen = length;
  return BytesOfRecord(header);
}

TEST(FrameReader, FindsTheSameFramesWhateverPiecesTheyComeIn) {
  const std::vector<std::string> frames{
      HelloBytes(),
      ControlBytes(Control::kPing, 7),
      BytesOfPacket(*PacketOf(CPD_PACKET_HEADER_SIZE)),
      BytesOfPacket(*PacketOf(100)),
      ControlBytes(Control::kBye, 1, "the disk is gone"),
      ControlBytes(static_cast<Control>(200), ~uint64_t{0}, std::string(kLongestText, '\0')),
      BytesOfPacket(*PacketOf(kBuffer + 5)),
      ControlBytes(Control::kTaken, 3)};
  std::string stream;
  for (const auto& frame : frames) stream += frame;
  for (const size_t piece : {size_t{1}, size_t{2}, size_t{15}, size_t{16}, size_t{17}, size_t{71},
                             size_t{72}, size_t{73}, size_t{4095}, stream.size()}) {
    EXPECT_EQ(Frames(stream, piece), frames) << "in pieces of " << piece;
  }
}

TEST(FrameReader, FindsAPacketThatIsSplitAnywhere) {
  const auto packet = BytesOfPacket(*PacketOf(60));
  const auto stream = HelloBytes() + packet + packet;
  for (size_t split = 1; split < stream.size(); ++split) {
    FrameReader reader(kLargestPacket);
    std::vector<std::string> frames;
    for (std::string_view part :
         {std::string_view(stream).substr(0, split), std::string_view(stream).substr(split)}) {
      while (!part.empty()) Feed(&reader, &part, part.size());
      while (const auto frame = reader.Next()) frames.push_back(Describe(*frame));
    }
    EXPECT_EQ(frames, (std::vector{HelloBytes(), packet, packet})) << "split at " << split;
  }
}

// A control frame that begins at the end of the buffer must be moved to its beginning.
TEST(FrameReader, FindsAControlFrameThatLiesAcrossTheEndOfItsBuffer) {
  const auto ping = ControlBytes(Control::kPing, 1);
  const auto bye = ControlBytes(Control::kBye, 2, std::string(kLongestText, 'b'));
  for (size_t before = kBuffer - 40; before <= kBuffer + 2; ++before) {
    std::string stream = HelloBytes();
    while (stream.size() + ping.size() * 2 < before) stream += ping;
    stream += ControlBytes(Control::kPong, 3, std::string(before - stream.size() - 16, 'p'));
    stream += bye;
    EXPECT_EQ(Frames(stream, stream.size()).back(), bye) << "begins at " << before;
  }
}

TEST(FrameReader, TakesBytesThatWereReadBefore) {
  const auto ping = ControlBytes(Control::kPing, 1);
  FrameReader reader(kLargestPacket);
  reader.Put(HelloBytes() + ping.substr(0, 3));
  EXPECT_EQ(Describe(*reader.Next()), HelloBytes());
  EXPECT_FALSE(reader.Next());
  std::string_view rest = std::string_view(ping).substr(3);
  Feed(&reader, &rest, rest.size());
  EXPECT_EQ(Describe(*reader.Next()), ping);
}

TEST(FrameReader, RefusesAnythingButAHelloAtItsFirstWrongByte) {
  EXPECT_EQ(WhyRefused("s"), kNoHello);
  EXPECT_EQ(WhyRefused("sh: cpd-host: not found\n"), kNoHello);
  EXPECT_EQ(WhyRefused(BytesOfPacket(*PacketOf(20))), kNoHello);
  for (size_t i = 0; i < kHelloMagic.size(); ++i) {
    auto hello = HelloBytes().substr(0, i + 1);
    EXPECT_EQ(WhyRefused(hello), "") << i;
    hello[i] ^= 1;
    EXPECT_NE(WhyRefused(hello), "") << i;
  }
}

TEST(FrameReader, RefusesAFrameThatIsNeitherAPacketNorAControlFrame) {
  for (int first = 0; first < 256; ++first) {
    const std::string frame(CPD_PACKET_HEADER_SIZE, static_cast<char>(first));
    if (first == kControlMagic || first == CPD_PACKET_MAGIC) continue;
    EXPECT_TRUE(WhyRefused(HelloBytes() + frame).starts_with("a frame begins with 0x")) << first;
  }
  EXPECT_NE(WhyRefused(HelloBytes() + HelloBytes()), "") << "a second hello";
}

TEST(FrameReader, TakesPacketsUpToItsLimitAndNoLongerOnes) {
  const auto longest = BytesOfPacket(*PacketOf(1000));
  EXPECT_EQ(Frames(HelloBytes() + longest, 2000, 1000).back(), longest);
  EXPECT_EQ(WhyRefused(HelloBytes() + HeaderOf(1001), 1000),
            "a packet claims to be 1001 bytes long");
  EXPECT_EQ(WhyRefused(HelloBytes() + HeaderOf(0xffffffff)),
            "a packet claims to be 4294967295 bytes long");
  EXPECT_EQ(WhyRefused(HelloBytes() + HeaderOf(15)), "a packet claims to be 15 bytes long");
  EXPECT_EQ(WhyRefused(HelloBytes() + HeaderOf(0)), "a packet claims to be 0 bytes long");
}

TEST(FrameReader, RefusesABigEndianPacket) {
  auto packet = BytesOfPacket(*PacketOf(20));
  packet[offsetof(CpdPacketHeader, bigEndian)] = 1;
  EXPECT_EQ(WhyRefused(HelloBytes() + packet), "a packet is big-endian");
}

TEST(FrameReader, RefusesAControlFrameWithTooLongAText) {
  const auto frame = ControlBytes(Control::kBye, 0, std::string(kLongestText + 1, 'b'));
  EXPECT_EQ(WhyRefused(HelloBytes() + frame.substr(0, sizeof(ControlHead))),
            "a control frame is too long");
}

TEST(FrameReader, WaitsForTheRestOfATruncatedFrame) {
  EXPECT_TRUE(Frames(HelloBytes().substr(0, 71), 71).empty());
  for (const auto& frame : {BytesOfPacket(*PacketOf(40)), ControlBytes(Control::kBye, 0, "text")}) {
    for (size_t length = 0; length < frame.size(); ++length) {
      EXPECT_EQ(Frames(HelloBytes() + frame.substr(0, length), 200).size(), 1U) << length;
    }
  }
}

TEST(FrameReader, ReportsTheLengthOfAPacketThatHasBegun) {
  FrameReader reader(kLargestPacket);
  reader.Put(HelloBytes() + BytesOfPacket(*PacketOf(500)).substr(0, 20));
  EXPECT_EQ(reader.begun(), 0U);
  (void)reader.Next();
  EXPECT_FALSE(reader.Next());
  EXPECT_EQ(reader.begun(), 500U);
  const std::string payload(480, 'x');
  std::string_view rest = payload;
  Feed(&reader, &rest, rest.size());
  EXPECT_TRUE(reader.Next());
  EXPECT_EQ(reader.begun(), 0U);
}

TEST(FrameReader, MakesRoomForAPacketOnlyAsItsBytesArrive) {
  constexpr size_t kFirst = 1280 << 10;
  constexpr size_t kPiece = 10000;
  FrameReader reader(kLargestPacket);
  reader.Put(HelloBytes() + HeaderOf(kLargestPacket));
  (void)reader.Next();
  EXPECT_FALSE(reader.Next());
  const std::string piece(kPiece, 'x');
  size_t arrived = CPD_PACKET_HEADER_SIZE;
  while (arrived < kLargestPacket) {
    const auto space = reader.Space();
    EXPECT_LE(arrived + space[0].iov_len, std::max(kFirst, 2 * arrived));
    EXPECT_LE(space[1].iov_len, kBuffer);
    std::string_view bytes = std::string_view(piece).substr(0, kLargestPacket - arrived);
    const size_t before = bytes.size();
    Feed(&reader, &bytes, before);
    arrived += before - bytes.size();
  }
  const auto frame = reader.Next();
  ASSERT_TRUE(frame);
  EXPECT_EQ(std::get<std::unique_ptr<CpdPacket>>(*frame)->header->packetLen, kLargestPacket);
}

}  // namespace
}  // namespace cpd::host
