#include "cpd/packet.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "support/requests.h"

namespace cpd::test {
namespace {

/// What `action` writes to standard output.
std::string OutputOf(const std::function<void()>& action) {
  ::testing::internal::CaptureStdout();
  action();
  return ::testing::internal::GetCapturedStdout();
}

int Append(CpdPacket* packet, const std::string& bytes) {
  return packet->AppendPayload(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

std::string BufferOf(const CpdPacket& packet) {
  return {reinterpret_cast<const char*>(packet.buffer->data), packet.buffer->capacity};
}

/// The image of a received packet.
std::string Image(uint16_t cmd, uint32_t request_id, uint32_t packet_len, uint8_t big_endian,
                  const std::string& payload) {
  CpdPacketHeader header = {};
  header.magic = CPD_PACKET_MAGIC;
  header.devId = 9;
  header.cmd = cmd;
  header.requestId = request_id;
  header.packetLen = packet_len;
  header.bigEndian = big_endian;
  return BytesOf(header) + payload;
}

int ParseCopy(CpdPacket* packet, std::string image) {
  return packet->Parse(reinterpret_cast<uint8_t*>(image.data()), static_cast<int>(image.size()),
                       true);
}

/// More than any machine can allocate.
size_t ImpossibleSize() {
  volatile size_t size = size_t{1} << 62;
  return size;
}

// ---- Packets for sending ----

TEST(Packet, OfSixteenBytesOrFewerHoldsOnlyAHeader) {
  for (const size_t size : {0, 5, 15, 16}) {
    const CpdPacket packet(size);
    ASSERT_NE(packet.header, nullptr);
    EXPECT_EQ(packet.buffer->capacity, 16U) << size;
    EXPECT_EQ(BufferOf(packet), std::string("\x27\0\0\0\0\0\0\0\x10\0\0\0\0\0\0\0", 16)) << size;
    EXPECT_TRUE(packet.headerReady);
    EXPECT_EQ(packet.readPos, 0U);
    EXPECT_EQ(packet.PayloadSize(), 0U);
  }
}

TEST(Packet, OfALargerSizeHasExactlyThatCapacity) {
  EXPECT_EQ(CpdPacket(17).buffer->capacity, 17U);
  EXPECT_EQ(CpdPacket(128).buffer->capacity, 128U);
}

TEST(Packet, InitHeaderSetsTheAddressAndKeepsTheLength) {
  CpdPacket packet(32);
  Append(&packet, "abcd");
  packet.header->magic = 1;
  packet.header->bigEndian = 1;
  packet.headerReady = false;

  packet.InitHeader(3, 0x0107, 0x01020304);
  EXPECT_EQ(BufferOf(packet).substr(0, 20),
            std::string("\x27\x03\x07\x01\x04\x03\x02\x01\x14\0\0\0\0\0\0\0abcd", 20));
  EXPECT_TRUE(packet.headerReady);
}

TEST(Packet, InitHeaderDoesNothingWithoutABuffer) {
  CpdPacket packet;
  packet.InitHeader(3, 105, 7);
  EXPECT_EQ(packet.header, nullptr);
  EXPECT_FALSE(packet.headerReady);
}

TEST(Packet, WithoutMemoryPrintsALineAndFailsInEveryOperation) {
  std::unique_ptr<CpdPacket> packet;
  const std::string output =
      OutputOf([&] { packet = std::make_unique<CpdPacket>(ImpossibleSize()); });
  EXPECT_EQ(output, "CpdPacket alloc failed, size[" + std::to_string(ImpossibleSize()) + "]\n");
  EXPECT_EQ(packet->header, nullptr);
  EXPECT_FALSE(packet->headerReady);
  ASSERT_NE(packet->buffer, nullptr);
  EXPECT_EQ(packet->buffer->data, nullptr);
  EXPECT_EQ(packet->buffer->capacity, 0U);

  const std::string later_output = OutputOf([&] {
    uint32_t word = 0;
    packet->InitHeader(1, 2, 3);
    EXPECT_FALSE(packet->headerReady);
    EXPECT_EQ(Append(packet.get(), "a"), -1);
    EXPECT_EQ(packet->AppendUint32(1), -1);
    EXPECT_EQ(packet->ReadUint32(&word), -1);
    EXPECT_EQ(packet->GetPayload(), nullptr);
    EXPECT_EQ(packet->Clone(), nullptr);
    EXPECT_EQ(packet->PayloadSize(), 0U);
  });
  EXPECT_EQ(later_output, "");
}

// ---- Appending ----

TEST(PacketAppend, OfZeroBytesSucceedsAndKeepsTheLength) {
  CpdPacket packet(16);
  EXPECT_EQ(packet.AppendPayload(nullptr, 0), 0);
  EXPECT_EQ(packet.AppendPayload("x", 0), 0);
  EXPECT_EQ(+packet.header->packetLen, 16U);
  EXPECT_EQ(packet.buffer->capacity, 16U);
}

TEST(PacketAppend, FillsAReplyOfExactSizeWithoutGrowing) {
  CpdPacket packet(5 + 16);
  EXPECT_EQ(Append(&packet, "hello"), 0);
  EXPECT_EQ(+packet.header->packetLen, 21U);
  EXPECT_EQ(packet.buffer->capacity, 21U);
  EXPECT_EQ(BufferOf(packet).substr(16), "hello");
}

TEST(PacketAppend, ASecondFullAppendIsAcceptedAndGrowsTheBufferBy128KiB) {
  CpdPacket packet(5 + 16);
  EXPECT_EQ(Append(&packet, "hello"), 0);
  EXPECT_EQ(Append(&packet, "world"), 0);
  EXPECT_EQ(packet.buffer->capacity, 21U + 0x20000);
  EXPECT_EQ(+packet.header->packetLen, 26U);
  EXPECT_EQ(reinterpret_cast<uint8_t*>(packet.header), packet.buffer->data);
  EXPECT_EQ(BufferOf(packet).substr(16, 10), "helloworld");
}

TEST(PacketAppend, LongerThanThePayloadCapacityIsRefused) {
  CpdPacket packet(5 + 16);
  const std::string output = OutputOf([&] { EXPECT_EQ(Append(&packet, "hello!"), -1); });
  EXPECT_EQ(output, "payload size larger than packet size\n");
  EXPECT_EQ(+packet.header->packetLen, 16U);
  EXPECT_EQ(packet.buffer->capacity, 21U);
}

TEST(PacketAppend, BeforeTheHeaderIsInitialisedIsRefused) {
  CpdPacket packet(32);
  packet.headerReady = false;
  const std::string output = OutputOf([&] {
    EXPECT_EQ(Append(&packet, "a"), -1);
    EXPECT_EQ(packet.AppendUint32(1), -1);
  });
  EXPECT_EQ(output, "please init header first\nplease init header first\n");
  EXPECT_EQ(+packet.header->packetLen, 16U);
}

TEST(PacketAppend, WithoutABufferFailsSilently) {
  CpdPacket packet;
  const std::string output = OutputOf([&] {
    EXPECT_EQ(Append(&packet, "a"), -1);
    EXPECT_EQ(packet.AppendUint32(1), -1);
  });
  EXPECT_EQ(output, "");
}

TEST(PacketAppend, ThatOneGrowthCannotHoldSucceedsButAddsNothing) {
  constexpr size_t kPayload = 0x40000;  // two growth steps
  CpdPacket packet(16 + kPayload);
  const std::string first(kPayload, 'a');
  ASSERT_EQ(Append(&packet, first), 0);
  EXPECT_EQ(Append(&packet, std::string(kPayload, 'b')), 0);
  EXPECT_EQ(+packet.header->packetLen, 16U + kPayload);
  EXPECT_EQ(BufferOf(packet).substr(16, kPayload), first);
  EXPECT_EQ(packet.buffer->capacity, 16U + kPayload + PACKET_GROW_STEP);
}

TEST(PacketAppend, AfterALengthPastTheBufferChangesNothing) {
  for (const uint32_t lie : {0x30000U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
    CpdPacket packet(32);
    packet.header->packetLen = lie;
    EXPECT_EQ(Append(&packet, "abcd"), 0);
    EXPECT_EQ(+packet.header->packetLen, lie);
    EXPECT_EQ(packet.Clone(), nullptr);
  }
}

TEST(PacketAppendUint32, AddsFourBytes) {
  CpdPacket packet(20);
  EXPECT_EQ(packet.AppendUint32(0x01020304), 0);
  EXPECT_EQ(BufferOf(packet).substr(16), "\x04\x03\x02\x01");
  EXPECT_EQ(+packet.header->packetLen, 20U);
}

TEST(PacketAppendUint32, GrowsAFullBuffer) {
  CpdPacket packet(20);
  EXPECT_EQ(packet.AppendUint32(1), 0);
  EXPECT_EQ(packet.AppendUint32(2), 0);
  EXPECT_EQ(+packet.header->packetLen, 24U);
  EXPECT_EQ(packet.buffer->capacity, 20U + PACKET_GROW_STEP);
}

TEST(PacketAppendUint32, RefusesABufferWithRoomForTheHeaderOnly) {
  for (const size_t size : {16, 17, 18, 19}) {
    CpdPacket packet(size);
    const std::string output = OutputOf([&] { EXPECT_EQ(packet.AppendUint32(1), -1); });
    EXPECT_EQ(output, "payload size larger than packet size\n") << size;
    EXPECT_EQ(+packet.header->packetLen, 16U) << size;
  }
}

// ---- The buffer ----

TEST(PacketBufferWrite, WithinTheCapacityCopies) {
  PacketBuffer buffer(8);
  std::memset(buffer.data, '.', 8);
  EXPECT_EQ(buffer.Write("abc", 5, 3), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer.data), 8), ".....abc");
  EXPECT_EQ(buffer.capacity, 8U);
}

TEST(PacketBufferWrite, PastTheCapacityGrowsByOneStepHoweverMuchIsMissing) {
  PacketBuffer buffer(8);
  EXPECT_EQ(buffer.Write("abc", 6, 3), 0);
  EXPECT_EQ(buffer.capacity, 8U + PACKET_GROW_STEP);

  PacketBuffer exact(8);
  EXPECT_EQ(exact.Write("abc", 8 + 0x20000 - 3, 3), 0);
  EXPECT_EQ(exact.capacity, 8U + PACKET_GROW_STEP);
  EXPECT_EQ(std::memcmp(exact.data + 8 + 0x20000 - 3, "abc", 3), 0);
}

TEST(PacketBufferWrite, ThatOneStepCannotHoldCopiesNothing) {
  PacketBuffer buffer(8);
  std::memset(buffer.data, '.', 8);
  EXPECT_EQ(buffer.Write("abc", 8 + 0x20000 - 2, 3), -1);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer.data), 8), "........");
}

TEST(PacketBufferWrite, WhoseEndOverflowsIsRefused) {
  PacketBuffer buffer(8);
  EXPECT_EQ(buffer.Write("abc", INT32_MAX, 3), -1);
}

TEST(PacketBufferWrite, OfANegativeOffsetOrLengthIsRefusedWithoutGrowing) {
  PacketBuffer buffer(8);
  EXPECT_EQ(buffer.Write("abc", -1, 3), -1);
  EXPECT_EQ(buffer.Write("abc", 0, -1), -1);
  EXPECT_EQ(buffer.capacity, 8U);
}

TEST(PacketBufferShrink, GivesBackWhatIsBeyondTheSize) {
  PacketBuffer buffer(8);
  std::memcpy(buffer.data, "abcdefgh", 8);
  buffer.Shrink(3);
  EXPECT_EQ(buffer.capacity, 3U);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer.data), 3), "abc");
}

TEST(PacketBufferShrink, ToNothingOrToMoreChangesNothing) {
  PacketBuffer buffer(8);
  for (const size_t size : {0, 8, 9}) {
    buffer.Shrink(size);
    EXPECT_NE(buffer.data, nullptr);
    EXPECT_EQ(buffer.capacity, 8U);
  }
}

// ---- Received packets ----

TEST(PacketParse, RefusesFifteenBytes) {
  CpdPacket packet;
  std::string image = Image(105, 7, 16, 0, "");
  image.pop_back();
  const std::string output = OutputOf([&] { EXPECT_EQ(ParseCopy(&packet, image), -1); });
  EXPECT_EQ(output, "len is less than header\n");
  EXPECT_EQ(packet.header, nullptr);
  EXPECT_EQ(packet.buffer, nullptr);
}

TEST(PacketParse, RefusesANegativeLength) {
  CpdPacket packet;
  std::string image = Image(105, 7, 16, 0, "");
  const std::string output = OutputOf(
      [&] { EXPECT_EQ(packet.Parse(reinterpret_cast<uint8_t*>(image.data()), -1, true), -1); });
  EXPECT_EQ(output, "len is less than header\n");
}

TEST(PacketParse, AcceptsSixteenBytesAsAnEmptyPayload) {
  CpdPacket packet;
  EXPECT_EQ(ParseCopy(&packet, Image(105, 7, 16, 0, "")), 0);
  EXPECT_TRUE(packet.headerReady);
  EXPECT_EQ(+packet.header->cmd, 105);
  EXPECT_EQ(packet.PayloadSize(), 0U);
  EXPECT_EQ(packet.buffer->capacity, 16U);
  EXPECT_EQ(packet.GetPayload(), packet.buffer->data + 16);
}

TEST(PacketParse, RefusesAWrongFirstByteAndShowsTwo) {
  CpdPacket packet;
  ASSERT_EQ(ParseCopy(&packet, Image(105, 7, 16, 0, "")), 0);
  std::string image = Image(106, 8, 16, 0, "");
  image[0] = 0x28;
  image[1] = static_cast<char>(0xab);
  const std::string output = OutputOf([&] { EXPECT_EQ(ParseCopy(&packet, image), -1); });
  EXPECT_EQ(output, "error buffer format,magic[0x28 0xab]");
  EXPECT_EQ(+packet.header->cmd, 105) << "the packet is unchanged";
}

TEST(PacketParse, WithCopyKeepsItsOwnBytes) {
  CpdPacket packet;
  std::string image = Image(105, 7, 19, 0, "abc");
  ASSERT_EQ(packet.Parse(reinterpret_cast<uint8_t*>(image.data()), 19, true), 0);
  image.assign(image.size(), 'x');
  EXPECT_EQ(BufferOf(packet).substr(16), "abc");
  EXPECT_EQ(packet.PayloadSize(), 3U);
}

TEST(PacketParse, WithoutCopyAdoptsTheBlock) {
  CpdPacket packet;
  const std::string image = Image(105, 7, 19, 0, "abc");
  auto* block = static_cast<uint8_t*>(std::malloc(image.size()));
  std::memcpy(block, image.data(), image.size());
  ASSERT_EQ(packet.Parse(block, static_cast<int>(image.size()), false), 0);
  EXPECT_EQ(packet.buffer->data, block);
  EXPECT_EQ(packet.buffer->capacity, 19U);
}

TEST(PacketParse, ReplacesTheOldBuffer) {
  CpdPacket packet(64);
  ASSERT_EQ(ParseCopy(&packet, Image(105, 7, 19, 0, "abc")), 0);
  EXPECT_EQ(packet.buffer->capacity, 19U);
  EXPECT_EQ(reinterpret_cast<uint8_t*>(packet.header), packet.buffer->data);
}

TEST(PacketParse, DoesNotCompareTheLengthFieldWithTheImage) {
  CpdPacket packet;
  EXPECT_EQ(ParseCopy(&packet, Image(105, 7, 4711, 0, "abc")), 0);
  EXPECT_EQ(+packet.header->packetLen, 4711U);
  EXPECT_EQ(packet.PayloadSize(), 4695U);
}

TEST(PacketParse, OfABigEndianImageSwapsIdAndLengthAndClearsTheCommand) {
  CpdPacket packet;
  ASSERT_EQ(ParseCopy(&packet, Image(105, 0x01020304, 0x18000000, 1,
                                     std::string("\x00\x00\x01\xf4\x11\x22\x33\x44", 8))),
            0);
  EXPECT_EQ(+packet.header->requestId, 0x04030201U);
  EXPECT_EQ(+packet.header->packetLen, 24U);
  EXPECT_EQ(+packet.header->cmd, 0);
  EXPECT_EQ(packet.header->bigEndian, 1);
  EXPECT_EQ(packet.header->devId, 9);

  uint32_t word = 0;
  EXPECT_EQ(packet.ReadUint32(&word), 0);
  EXPECT_EQ(word, 500U);
  EXPECT_EQ(packet.ReadUint32(&word), 0);
  EXPECT_EQ(word, 0x11223344U);
}

TEST(PacketParse, TreatsAnyNonZeroByteAsBigEndian) {
  CpdPacket packet;
  ASSERT_EQ(ParseCopy(&packet, Image(105, 0x01000000, 0x10000000, 0x80, "")), 0);
  EXPECT_EQ(+packet.header->requestId, 1U);
  EXPECT_EQ(+packet.header->cmd, 0);
}

// ---- Reading ----

TEST(PacketRead, ReadsWordAfterWordUntilTheBufferEnds) {
  CpdPacket packet;
  ASSERT_EQ(ParseCopy(&packet, Image(513, 7, 27, 0, "\x01\x02\x03\x04\x05\x06\x07\x08xyz")), 0);
  uint32_t word = 0;
  EXPECT_EQ(packet.ReadUint32(&word), 0);
  EXPECT_EQ(word, 0x04030201U);
  EXPECT_EQ(packet.PayloadSize(), 7U);
  EXPECT_EQ(packet.GetPayload(), packet.buffer->data + 20);
  EXPECT_EQ(packet.ReadUint32(&word), 0);
  EXPECT_EQ(word, 0x08070605U);

  EXPECT_EQ(packet.ReadUint32(&word), -1) << "three bytes are not a word";
  EXPECT_EQ(word, 0x08070605U);
  EXPECT_EQ(packet.readPos, 8U);
}

TEST(PacketRead, IsLimitedByTheCapacityNotByTheLengthField) {
  CpdPacket packet;
  ASSERT_EQ(ParseCopy(&packet, Image(513, 7, 16, 0, "\x01\x02\x03\x04")), 0);
  uint32_t word = 0;
  EXPECT_EQ(packet.ReadUint32(&word), 0);
  EXPECT_EQ(word, 0x04030201U);
}

TEST(PacketRead, WithAPositionPastTheBufferFails) {
  CpdPacket packet(20);
  uint32_t word = 0;
  for (const uint32_t position : {1U, 5U, 0x7fffffffU, 0xfffffff0U, 0xfffffffcU, 0xffffffffU}) {
    packet.readPos = position;
    EXPECT_EQ(packet.ReadUint32(&word), -1) << position;
  }
}

TEST(PacketRead, WithoutABufferFails) {
  CpdPacket packet;
  uint32_t word = 0;
  EXPECT_EQ(packet.ReadUint32(&word), -1);
  EXPECT_EQ(packet.GetPayload(), nullptr);
  EXPECT_EQ(packet.PayloadSize(), 0U);
}

TEST(PacketGetPayload, IsNullOnlyPastTheCapacity) {
  CpdPacket packet(20);
  packet.readPos = 4;
  EXPECT_EQ(packet.GetPayload(), packet.buffer->data + 20);
  packet.readPos = 5;
  EXPECT_EQ(packet.GetPayload(), nullptr);
  packet.readPos = 0xffffffff;
  EXPECT_EQ(packet.GetPayload(), nullptr);
}

// ---- Cloning ----

TEST(PacketClone, IsADeepCopyWhoseReadPositionIsItsBeginning) {
  CpdPacket packet;
  ASSERT_EQ(ParseCopy(&packet, Image(105, 7, 22, 0, "abcdefgh")), 0);
  packet.readPos = 4;
  const std::unique_ptr<CpdPacket> clone(packet.Clone());
  ASSERT_NE(clone, nullptr);
  packet.buffer->data[16] = 'x';
  EXPECT_EQ(BufferOf(*clone), Image(105, 7, 22, 0, "abcdef")) << "the first packetLen bytes";
  EXPECT_EQ(clone->readPos, 0U);
  EXPECT_TRUE(clone->headerReady);
}

TEST(PacketClone, OfABigEndianPacketIsParsedAgain) {
  CpdPacket packet;
  ASSERT_EQ(ParseCopy(&packet, Image(105, 0x01020304, 0x10000000, 1, "")), 0);
  const std::unique_ptr<CpdPacket> clone(packet.Clone());
  ASSERT_NE(clone, nullptr);
  EXPECT_EQ(+clone->header->requestId, 0x01020304U);
  EXPECT_EQ(+clone->header->cmd, 0);
  EXPECT_EQ(clone->buffer->capacity, 16U);
}

TEST(PacketClone, OfALengthPastTheCapacityIsNull) {
  for (const uint32_t lie : {23U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
    CpdPacket packet;
    ASSERT_EQ(ParseCopy(&packet, Image(105, 7, lie, 0, "abcdef")), 0);
    EXPECT_EQ(packet.Clone(), nullptr) << lie;
  }
}

TEST(PacketClone, OfALengthBelowTheHeaderIsNull) {
  for (const uint32_t lie : {0U, 15U}) {
    CpdPacket packet;
    ASSERT_EQ(ParseCopy(&packet, Image(105, 7, lie, 0, "")), 0);
    const std::string output = OutputOf([&] { EXPECT_EQ(packet.Clone(), nullptr); });
    EXPECT_EQ(output, "len is less than header\n") << lie;
  }
}

TEST(PacketClone, WithoutABufferIsNull) { EXPECT_EQ(CpdPacket().Clone(), nullptr); }

}  // namespace
}  // namespace cpd::test
