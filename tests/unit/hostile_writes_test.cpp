// Requests that change the disk, and small-file reads, from a remote side that lies about lengths;
// and what their handlers have in common.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <string>

#include "support/expectations.h"
#include "support/operator_fixture.h"
#include "support/peak_memory.h"
#include "support/write_requests.h"

namespace cpd::test {
namespace {

using Handler = int64_t (UDiskOperator::*)(unsigned char, CpdPacket*);

Handler HandlerOf(const std::string& name) {
  static const std::map<std::string, Handler> kHandlers = {
      {"file_create", &UDiskOperator::file_create},
      {"file_write", &UDiskOperator::file_write},
      {"file_truncate", &UDiskOperator::file_truncate},
      {"file_fsync", &UDiskOperator::file_fsync},
      {"file_chmod", &UDiskOperator::file_chmod},
      {"file_chown", &UDiskOperator::file_chown},
      {"make_dir", &UDiskOperator::make_dir},
      {"remove_dir", &UDiskOperator::remove_dir},
      {"set_link", &UDiskOperator::set_link},
      {"set_unlink", &UDiskOperator::set_unlink},
      {"set_rename", &UDiskOperator::set_rename},
      {"file_flush", &UDiskOperator::file_flush},
      {"file_release", &UDiskOperator::file_release},
      {"small_file_read", &UDiskOperator::small_file_read},
  };
  return kHandlers.at(name);
}

bool IsClosing(const NamedRequest& good) {
  return good.request.cmd == kFileFlush || good.request.cmd == kFileRelease;
}
bool IsSmallRead(const NamedRequest& good) { return good.request.cmd == kSmallFileRead; }

/// A length in a request's payload, as many bytes wide.
struct LengthField {
  size_t at;
  size_t width;
};

/// The lengths that a command's head carries.
std::vector<LengthField> LengthFieldsOf(uint16_t cmd) {
  switch (cmd) {
    case kFileCreate:
    case kFileFsync:
    case kFileChown:
    case kFileFlush:
    case kFileRelease:
      return {{0, 4}};
    case kFileWrite:
      return {{8, 4}, {20, 2}};
    case kFileTruncate:
      return {{8, 4}};
    case kFileChmod:
    case kMakeDir:
      return {{4, 2}};
    case kRemoveDir:
    case kSetUnlink:
      return {{0, 2}};
    case kSetLink:
    case kSetRename:
      return {{4, 2}, {6, 2}};
    default:
      return {};
  }
}

uint32_t Read(const std::string& payload, LengthField field) {
  uint32_t value = 0;
  std::memcpy(&value, payload.data() + field.at, field.width);
  return value;
}

std::string With(std::string payload, LengthField field, uint32_t value) {
  std::memcpy(payload.data() + field.at, &value, field.width);
  return payload;
}

class HostileWrites : public OperatorTest {
 protected:
  /// The disk on which each of the good requests does what it is for.
  void PutDiskInOrder() {
    for (const auto& entry : std::filesystem::directory_iterator(disk.root())) {
      std::filesystem::remove_all(entry.path());
    }
    disk.MakeFile(kKnownFile, "known content");
    disk.MakeDir(kKnownDir);
    disk.MakeDir("/made");
    disk.MakeFile("/made.txt", "made");
    udisk->modified = 0;
    udisk->lastWriteEnd = 4711;
    device.TakeSent();
    Log().Clear();
  }
  /// Names, kinds, modes and contents of all that is on the disk.
  [[nodiscard]] std::string Snapshot() const {
    std::map<std::string, std::string> entries;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(disk.root())) {
      const std::string path = entry.path().string().substr(disk.root().size());
      const auto mode = static_cast<unsigned>(entry.status().permissions());
      entries[path] = std::to_string(mode) + (entry.is_directory() ? "/" : disk.ReadBack(path));
    }
    return ::testing::PrintToString(entries);
  }
  int64_t Serve(const NamedRequest& request, CpdPacket* packet) {
    return (udisk.get()->*HandlerOf(request.name))(16, packet);
  }
  int64_t Serve(const NamedRequest& request) {
    return Serve(request, request.request.Packet().get());
  }

  /// The packet gets no reply, changes nothing and leaves one Error line, which names the handler;
  /// the next good request is served.
  void ExpectDropped(const NamedRequest& request, CpdPacket* packet, const std::string& what) {
    SCOPED_TRACE(request.name + " " + what);
    PutDiskInOrder();
    const std::string before = Snapshot();
    EXPECT_LT(Serve(request, packet), 0);
    EXPECT_TRUE(device.TakeSent().empty()) << "a reply";
    EXPECT_EQ(Snapshot(), before);
    EXPECT_EQ(udisk->modified, 0);
    EXPECT_EQ(udisk->lastWriteEnd, 4711);
    EXPECT_TRUE(device.base().Traces().empty());
    const std::vector<std::string> errors = Log().Messages(kError);
    EXPECT_EQ(errors.size(), 1U) << ::testing::PrintToString(errors);
    for (const LogLine& line : Log().Lines()) {
      if (line.level == kError) {
        EXPECT_NE(line.raw.find(request.name), std::string::npos) << line.raw;
      }
    }
    EXPECT_TRUE(StillServes());
  }
  /// The packet gets a reply under its own command; the next good request is served.
  void ExpectAnswered(const NamedRequest& request, CpdPacket* packet, const std::string& what) {
    SCOPED_TRACE(request.name + " " + what);
    PutDiskInOrder();
    Serve(request, packet);
    const auto sent = device.TakeSent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].cmd, request.request.cmd);
    EXPECT_TRUE(StillServes());
  }
};

// ---- Truncated requests ----

TEST_F(HostileWrites, CutAtEveryByteAreDroppedWithOneErrorLine) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    for (size_t n = 0; n < good.request.payload.size(); ++n) {
      ExpectDropped(good, good.request.CutPacket(n).get(), "cut at " + std::to_string(n));
    }
  }
}

TEST_F(HostileWrites, CutAtEveryByteByAnHonestPacketLengthAreDroppedToo) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    if (IsSmallRead(good)) continue;  // has answers of its own to a short payload
    for (size_t n = 0; n < good.request.payload.size(); ++n) {
      NamedRequest cut = good;
      cut.request.payload.resize(n);
      ExpectDropped(cut, cut.request.Packet().get(), "of " + std::to_string(n) + " bytes");
    }
  }
}

TEST_F(HostileWrites, CutAtEveryByteAreSurvivedByTheDispatcher) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    for (size_t n = 0; n < good.request.payload.size(); ++n) {
      EXPECT_EQ(Deliver(good.request.CutPacket(n)), 0);
      EXPECT_TRUE(device.TakeSent().empty()) << good.name << " cut at " << n;
      EXPECT_TRUE(StillServes()) << good.name << " cut at " << n;
      device.TakeSent();
    }
  }
}

TEST_F(HostileWrites, WithAReadPositionPastTheBufferAreDropped) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    for (const uint32_t position : {0x1000U, 0x7fffffffU, 0xfffffff0U, 0xffffffffU}) {
      const auto packet = good.request.Packet();
      packet->readPos = position;
      ExpectDropped(good, packet.get(), "read from " + std::to_string(position));
    }
  }
}

TEST_F(HostileWrites, WithoutABufferAreDropped) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    CpdPacket packet;
    ExpectDropped(good, &packet, "without a buffer");
  }
}

// ---- Length fields ----

TEST_F(HostileWrites, WithALengthThatReachesPastTheBufferAreDropped) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    for (const LengthField field : LengthFieldsOf(good.request.cmd)) {
      const uint32_t honest = Read(good.request.payload, field);
      std::vector<uint32_t> values = {honest + 1, honest + 16};
      if (field.width == 2) {
        values.push_back(0xffff);
      } else {
        values.insert(values.end(), {0x7fffffff - 39, 0x7fffffff});
        // A write's size is signed: a negative one reaches nowhere.
        const bool is_signed = good.request.cmd == kFileWrite;
        if (!is_signed) values.insert(values.end(), {0x80000000, 0xffffffe0, 0xffffffff});
      }
      for (const uint32_t value : values) {
        NamedRequest hostile = good;
        hostile.request.payload = With(good.request.payload, field, value);
        ExpectDropped(hostile, hostile.request.Packet().get(),
                      std::to_string(value) + " at " + std::to_string(field.at));
      }
    }
  }
}

TEST_F(HostileWrites, WithALengthOfZeroOrOneAreAnswered) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    for (const LengthField field : LengthFieldsOf(good.request.cmd)) {
      for (const uint32_t value : {0U, 1U}) {
        NamedRequest hostile = good;
        hostile.request.payload = With(good.request.payload, field, value);
        ExpectAnswered(hostile, hostile.request.Packet().get(),
                       std::to_string(value) + " at " + std::to_string(field.at));
      }
    }
  }
}

TEST_F(HostileWrites, WithBothLengthsHugeAreDropped) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    const std::vector<LengthField> fields = LengthFieldsOf(good.request.cmd);
    if (fields.size() < 2) continue;
    NamedRequest hostile = good;
    for (const LengthField field : fields) {
      hostile.request.payload =
          With(hostile.request.payload, field, field.width == 2 ? 0xffff : 0x7fffffff);
    }
    ExpectDropped(hostile, hostile.request.Packet().get(), "with both lengths huge");
  }
}

TEST_F(HostileWrites, OfANegativeSizeAreAnsweredWithoutAByteWritten) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    if (good.request.cmd != kFileWrite) continue;
    for (const uint32_t size : {0x80000000U, 0xffffff00U, 0xffffffffU}) {
      NamedRequest hostile = good;
      hostile.request.payload = Patched(good.request.payload, 8, size);
      ExpectAnswered(hostile, hostile.request.Packet().get(), std::to_string(size));
      EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
    }
  }
}

TEST_F(HostileWrites, WithAnyLengthOfAPieceAreAnsweredAndWriteOnlyWhatTheyCarry) {
  const NamedRequest good = {
      "file_write",
      BatchWriteRequest{.path = kKnownFile,
                        .pieces = {{.offset = 0, .data = "KNOWN"}, {.offset = 6, .data = "CON"}}}};
  const size_t first = 24 + strlen(kKnownFile) + 8;
  const size_t second = first + 12 + 5;
  for (const size_t at : {first, second}) {
    for (const uint32_t value : {0U, 1U, 4U, 6U, 1000U, 0x7fffffffU, 0x80000000U, 0xfffffff3U,
                                 0xfffffff4U, 0xfffffff5U, 0xffffffffU}) {
      NamedRequest hostile = good;
      hostile.request.payload = Patched(good.request.payload, at, value);
      ExpectAnswered(hostile, hostile.request.Packet().get(),
                     "piece of " + std::to_string(value) + " at " + std::to_string(at));
      EXPECT_EQ(disk.ReadBack(kKnownFile).size(), 13U) << value << " at " << at;
    }
  }
}

TEST_F(HostileWrites, OfSmallFilesWithAnyFieldOutOfRangeAreSurvived) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    if (!IsSmallRead(good)) continue;
    const size_t second = 4 + 24 + strlen(kKnownFile);
    // The count, then size and path length of both records.
    for (const size_t at : {size_t{0}, size_t{4 + 12}, size_t{4 + 16}, second + 12, second + 16}) {
      const uint32_t honest = Read(good.request.payload, {at, 4});
      for (const uint32_t value : {0U, 1U, honest + 1, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        PutDiskInOrder();
        NamedRequest hostile = good;
        hostile.request.payload = Patched(good.request.payload, at, value);
        const int64_t result = Serve(hostile);
        EXPECT_EQ(device.TakeSent().size(), result == 0 ? 1U : 0U)
            << value << " at " << at << " returns " << result;
        EXPECT_TRUE(StillServes());
      }
    }
  }
}

TEST_F(HostileWrites, WithHugeLengthsAllocateNothingForThem) {
  const uint64_t before = PeakMemory();
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    for (const LengthField field : LengthFieldsOf(good.request.cmd)) {
      NamedRequest hostile = good;
      hostile.request.payload = With(good.request.payload, field, 0x7ffffff0);
      Serve(hostile);
    }
    if (IsSmallRead(good)) {
      NamedRequest hostile = good;
      hostile.request.payload = Patched(good.request.payload, 0, 0xffffffff);
      Serve(hostile);
    }
  }
  EXPECT_LT(PeakMemory() - before, 256U << 20);
}

// ---- Packet lengths that lie ----

TEST_F(HostileWrites, WithAnyPacketLengthAreAnsweredTheSame) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    if (IsClosing(good) || IsSmallRead(good)) continue;
    PutDiskInOrder();
    Serve(good);
    const auto honest = device.TakeSent();
    ASSERT_EQ(honest.size(), 1U);
    for (const uint32_t length : {0U, 15U, 16U, 17U, 4096U, 0x7fffffffU, 0xffffffffU}) {
      PutDiskInOrder();
      const auto packet = good.request.Packet();
      packet->header->packetLen = length;
      Serve(good, packet.get());
      const auto sent = device.TakeSent();
      ASSERT_EQ(sent.size(), 1U) << good.name << " of length " << length;
      ExpectReply(sent[0], good.request, honest[0].payload, honest[0].capacity);
    }
  }
}

TEST_F(HostileWrites,
       OfSmallFilesWithAPacketLengthPastTheBufferOrWrappedAreAnsweredWhenAllIsThere) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    if (!IsSmallRead(good)) continue;
    // Below 16, the length that remains for the payload wraps.
    for (const uint32_t length : {0U, 15U, 4096U, 0x7fffffffU, 0xffffffffU}) {
      const auto packet = good.request.Packet();
      packet->header->packetLen = length;
      ExpectAnswered(good, packet.get(), "of length " + std::to_string(length));
    }
  }
}

TEST_F(HostileWrites, OfSmallFilesWithAPathThatOnlyThePacketLengthHoldsAreDropped) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    if (!IsSmallRead(good)) continue;
    const size_t last = 4 + 24 + strlen(kKnownFile) + 16;
    for (const uint32_t length : {11U, 1000U, 0x7fffffffU}) {
      NamedRequest hostile = good;
      hostile.request.payload = Patched(good.request.payload, last, length);
      const auto packet = hostile.request.Packet();
      packet->header->packetLen = 0xffffffff;
      ExpectDropped(hostile, packet.get(), "with a path of " + std::to_string(length));
    }
  }
}

TEST_F(HostileWrites, OfSmallFilesThatOnlyThePacketLengthHoldsAreDropped) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    if (!IsSmallRead(good)) continue;
    for (const uint32_t count : {3U, 0xffffffffU}) {
      NamedRequest hostile = good;
      hostile.request.payload = Patched(good.request.payload, 0, count);
      const auto packet = hostile.request.Packet();
      packet->header->packetLen = 0xffffffff;
      ExpectDropped(hostile, packet.get(), "counting " + std::to_string(count));
    }
  }
}

// ---- What the handlers have in common ----

class WriteSideHandlers : public HostileWrites {};

TEST_F(WriteSideHandlers, AllSucceedInTheOrderOfTheGoodRequests) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    Log().Clear();
    EXPECT_TRUE(AskRaw(good.request)) << good.name;
    EXPECT_EQ(Log().Messages(kError), Texts{}) << good.name;
    EXPECT_TRUE(device.base().Traces().empty()) << good.name;
  }
  EXPECT_TRUE(disk.Exists("/renamed.txt"));
  EXPECT_FALSE(disk.Exists("/made"));
  EXPECT_FALSE(disk.Exists("/linked.txt"));
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
}

TEST_F(WriteSideHandlers, ReturnWhatSendPacketReturned) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    if (IsSmallRead(good)) continue;
    for (const int result : {7, -1, -5}) {
      PutDiskInOrder();
      device.SetSendResult(result);
      EXPECT_EQ(Serve(good), result) << good.name;
    }
  }
}

TEST_F(WriteSideHandlers, HandTheirRepliesOver) {
  device.KeepPackets(true);
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    PutDiskInOrder();
    Serve(good);
    EXPECT_EQ(device.TakeSent().size(), 1U) << good.name;
  }
}

TEST_F(WriteSideHandlers, ReadTheirFieldsAsStoredWhateverTheHeaderSaysOfByteOrder) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    if (IsClosing(good)) continue;  // copying such a packet swaps its header
    PutDiskInOrder();
    Serve(good);
    const auto plain = device.TakeSent();
    ASSERT_EQ(plain.size(), 1U) << good.name;
    PutDiskInOrder();
    const auto packet = good.request.Packet();
    packet->header->bigEndian = 1;
    Serve(good, packet.get());
    const auto sent = device.TakeSent();
    ASSERT_EQ(sent.size(), 1U) << good.name;
    ExpectReply(sent[0], good.request, plain[0].payload, plain[0].capacity);
  }
}

TEST_F(WriteSideHandlers, FindTheirFieldsAtThePacketsReadPosition) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    if (IsClosing(good)) continue;  // they reply with all of the packet
    PutDiskInOrder();
    Serve(good);
    const auto plain = device.TakeSent();
    ASSERT_EQ(plain.size(), 1U) << good.name;
    PutDiskInOrder();
    Request shifted = good.request;
    shifted.payload.insert(0, "word");
    const auto packet = shifted.Packet();
    packet->readPos = 4;
    Serve(good, packet.get());
    const auto sent = device.TakeSent();
    ASSERT_EQ(sent.size(), 1U) << good.name;
    ExpectReply(sent[0], good.request, plain[0].payload, plain[0].capacity);
  }
}

TEST_F(WriteSideHandlers, MakeRoomForTheHeaderLengthThatTheyAreGiven) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    if (IsClosing(good)) continue;  // they reply with all of the packet
    // These take no part of their replies' sizes from it.
    const bool of_fixed_header = IsSmallRead(good) || good.request.cmd == kFileWrite;
    PutDiskInOrder();
    Serve(good);
    const auto plain = device.TakeSent();
    ASSERT_EQ(plain.size(), 1U) << good.name;
    for (const unsigned char length : {20, 0}) {
      PutDiskInOrder();
      (udisk.get()->*HandlerOf(good.name))(length, good.request.Packet().get());
      const auto sent = device.TakeSent();
      ASSERT_EQ(sent.size(), 1U) << good.name;
      const int more = of_fixed_header || length < 16 ? 0 : 4;
      EXPECT_EQ(sent[0].capacity, plain[0].capacity + more) << good.name;
      EXPECT_EQ(sent[0].payload, plain[0].payload) << good.name;
    }
  }
}

TEST_F(WriteSideHandlers, JoinPathsToTheEmptyMountPointOnceItIsCleared) {
  udisk->SetRootPath(nullptr, nullptr);
  Log().Clear();
  Deliver(CreateRequest{.path = disk.Local("/absolute")});
  EXPECT_TRUE(disk.Exists("/absolute"));
  EXPECT_EQ(Log().Messages()[0],
            "file_create full path: " + disk.Local("/absolute") + ", flag:0, mode: 1a4\\n");
}

TEST_F(WriteSideHandlers, AnswerUnderTheAddressOfTheRequest) {
  for (const NamedRequest& good : OneWriteRequestPerCommand()) {
    PutDiskInOrder();
    Request request = good.request;
    request.dev_id = 200;
    request.request_id = 0xfedcba98;
    const auto reply = AskRaw(request);
    ASSERT_TRUE(reply) << good.name;
    ExpectReply(reply, request, reply->payload, reply->capacity);
  }
}

}  // namespace
}  // namespace cpd::test
