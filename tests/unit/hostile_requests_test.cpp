// Requests whose fields lie, and properties that every command's handler must have. A packet's
// buffer ends with its last byte, so that a sanitizer detects every access beyond it.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "support/expectations.h"
#include "support/fake_user.h"
#include "support/local_records.h"
#include "support/operator_fixture.h"
#include "support/peak_memory.h"

namespace cpd::test {
namespace {

/// A field of a request's head: the length of a text or of data that follows the head.
struct LengthField {
  size_t offset;
  size_t width;
  bool is_signed = false;  ///< a negative length counts as 0 here

  [[nodiscard]] uint64_t Most() const {
    return (uint64_t{1} << (8 * width - (is_signed ? 1 : 0))) - 1;
  }
  [[nodiscard]] uint64_t In(const std::string& payload) const {
    uint64_t value = 0;
    std::memcpy(&value, payload.data() + offset, width);
    return is_signed && value > Most() ? 0 : value;
  }
  void Set(std::string* payload, uint64_t value) const {
    std::memcpy(payload->data() + offset, &value, width);
  }
};

enum class Answer {
  kReply,
  kCopy,  ///< the request itself, as many bytes of it as packetLen says
  kNone,
};

/// What a command's payload consists of, and how its handler answers.
struct Shape {
  uint16_t cmd;
  int64_t (UDiskOperator::*handler)(unsigned char, CpdPacket*);
  unsigned char header_length;
  size_t head;
  /// Empty for 123, whose head counts records instead; 123 has tests of its own.
  std::vector<LengthField> lengths;
  Answer answer = Answer::kReply;
  bool makes_room_for_header = true;  ///< reserves the header length that it is given

  /// How many bytes of a payload its fields claim.
  [[nodiscard]] uint64_t Reach(const std::string& payload) const {
    uint64_t reach = head;
    if (payload.size() < head) return reach;
    for (const LengthField& field : lengths) reach += field.In(payload);
    return reach;
  }
};

const std::vector<Shape>& Shapes() {
  using O = UDiskOperator;
  static const std::vector<Shape> shapes = {
      {100, &O::mount_remote, 16, 2, {{0, 2}}},
      {101, &O::umount_remote, 16, 2, {{0, 2}}},
      {102, &O::get_file_attr, 16, 4, {{0, 2}}},
      {103, &O::file_create, 16, 16, {{0, 4}}},
      {105, &O::file_read, 16, 24, {{16, 4}}, Answer::kReply, false},
      {106, &O::file_write, 16, 24, {{8, 4, true}, {20, 2}}, Answer::kReply, false},
      {107, &O::dir_read, 16, 16, {{12, 2}}},
      {108, &O::get_xattr, 16, 16, {{12, 2}, {14, 2}}},
      {109, &O::file_truncate, 16, 16, {{8, 4}}},
      {110, &O::file_fsync, 16, 12, {{0, 4}}},
      {111, &O::file_chmod, 16, 8, {{4, 2}}},
      {112, &O::file_chown, 16, 16, {{0, 4}}},
      {113, &O::get_statvfs, 16, 8, {{0, 4}}},
      {114, &O::make_dir, 16, 8, {{4, 2}}},
      {115, &O::remove_dir, 16, 4, {{0, 2}}},
      {116, &O::set_link, 16, 8, {{4, 2}, {6, 2}}},
      {117, &O::set_unlink, 16, 4, {{0, 2}}},
      {118, &O::set_rename, 16, 8, {{4, 2}, {6, 2}}},
      {119, &O::file_flush, 0, 8, {{0, 4}}, Answer::kCopy, false},
      {120, &O::file_release, 0, 8, {{0, 4}}, Answer::kCopy, false},
      {121, &O::check_dir, 16, 16, {{12, 2}, {8, 4}}},
      {123, &O::small_file_read, 16, 4, {}, Answer::kReply, false},
      {200, &O::mount_response, 0, 4, {{2, 2}, {0, 2}}, Answer::kNone, false},
  };
  return shapes;
}

/// A good request and the shape of its command.
struct Case : NamedRequest {
  Shape shape;

  [[nodiscard]] std::string Image(const std::string& payload) const {
    Request edited = request;
    edited.payload = payload;
    return edited.Bytes();
  }
};

/// The cases of all commands, or of one.
std::vector<Case> Cases(std::optional<uint16_t> cmd = std::nullopt) {
  std::vector<Case> cases;
  for (const NamedRequest& good : OneRequestPerCommand()) {
    if (cmd && *cmd != good.request.cmd) continue;
    cases.push_back({good, *std::ranges::find(Shapes(), good.request.cmd, &Shape::cmd)});
  }
  return cases;
}

TEST(Commands, EachHasAShapeAndAGoodRequestOfThatShape) {
  std::set<uint16_t> served;
  for (const CommandRow& command : kCommandNames) served.insert(command.code);
  served.erase(kFileOpen);  // these two are ignored
  served.erase(kSmallFileNotice);
  std::set<uint16_t> shaped;
  for (const Shape& shape : Shapes()) shaped.insert(shape.cmd);
  ASSERT_EQ(shaped, served);
  std::set<uint16_t> good;
  for (const NamedRequest& request : OneRequestPerCommand()) good.insert(request.request.cmd);
  ASSERT_EQ(good, served);
  for (const Case& each : Cases()) {
    if (each.shape.lengths.empty()) continue;
    EXPECT_EQ(each.shape.Reach(each.request.payload), each.request.payload.size()) << each.name;
  }
}

class EveryCommand : public OperatorTest {
 protected:
  EveryCommand() { PutDiskInOrder(); }

  /// Restores the disk on which each of the good requests succeeds.
  void PutDiskInOrder() {
    if (in_order_.empty() || Snapshot() != in_order_) {
      for (const std::string& directory : {disk.root(), home_}) {
        std::filesystem::remove_all(directory);
        std::filesystem::create_directory(directory);
      }
      disk.MakeFile(kKnownFile, "known content");
      disk.MakeFile("/made.txt", "made");
      disk.MakeDir(kKnownDir);
      disk.MakeDir("/made");
      // Replies are compared, and they can contain access times.
      for (const auto& entry : std::filesystem::recursive_directory_iterator(disk.letter())) {
        SettleAccessTime(entry.path().string());
      }
      in_order_ = Snapshot();
    }
    if (udisk->GetLocalMountPoint() != disk.root()) Mount();
    udisk->mMountDrive = "X:";
    udisk->modified = 0;
    udisk->lastWriteEnd = 4711;
    device.TakeSent();
    Log().Clear();
  }
  /// Names, kinds, modes and contents of all that is on the disk and in the user's home.
  [[nodiscard]] std::string Snapshot() const {
    std::map<std::string, std::string> entries;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(disk.letter())) {
      const std::string path = entry.path().string().substr(disk.letter().size());
      const auto mode = static_cast<unsigned>(entry.status().permissions());
      entries[path] =
          std::to_string(mode) + (entry.is_directory() ? "/" : disk.ReadBack("/../" + path));
    }
    return ::testing::PrintToString(entries);
  }

  int64_t Serve(const Case& good, CpdPacket* packet) {
    return (udisk.get()->*good.shape.handler)(good.shape.header_length, packet);
  }
  int64_t Serve(const Case& good) { return Serve(good, good.request.Packet().get()); }

  /// The effects of a packet on the restored disk.
  struct Outcome {
    std::optional<SentPacket> reply;
    std::string disk;
    std::string drive;
  };
  Outcome OutcomeOf(const Case& good, CpdPacket* packet) {
    PutDiskInOrder();
    Serve(good, packet);
    const std::vector<SentPacket> sent = device.TakeSent();
    EXPECT_EQ(sent.size(), good.shape.answer == Answer::kNone ? 0U : 1U);
    return {.reply = sent.empty() ? std::nullopt : std::optional(sent.front()),
            .disk = Snapshot(),
            .drive = udisk->mMountDrive};
  }
  Outcome OutcomeOf(const Case& good) { return OutcomeOf(good, good.request.Packet().get()); }

  static void ExpectSame(const Case& good, const Outcome& actual, const Outcome& expected) {
    EXPECT_EQ(actual.disk, expected.disk);
    EXPECT_EQ(actual.drive, expected.drive);
    ASSERT_EQ(actual.reply.has_value(), expected.reply.has_value());
    if (!expected.reply) return;
    ExpectReply(actual.reply, good.request, expected.reply->payload, expected.reply->capacity);
  }

 private:
  const std::string home_ = disk.letter() + "home";
  const FakeUser user_{1000, home_};  // 100 makes its directories in this home

 protected:
  std::string in_order_;  // the snapshot of the restored disk
};

class HostileRequests : public EveryCommand {
 protected:
  using MakePacket = std::function<std::unique_ptr<CpdPacket>()>;

  /// Expects the packet to be dropped by its handler, called directly and through EventHandle.
  void ExpectDropped(const Case& good, const MakePacket& make) {
    ExpectDroppedBy(good, [&] { EXPECT_EQ(Serve(good, make().get()), -1); });
    ExpectDroppedBy(good, [&] { EXPECT_EQ(Deliver(make()), 0); });
  }
  void ExpectDropped(const Case& good, const std::string& image) {
    ExpectDropped(good, [&] { return PacketOf(image); });
  }
  /// Expects one Error line that names the handler, no reply and no change; and then the next good
  /// request to be served.
  void ExpectDroppedBy(const Case& good, const std::function<void()>& deliver) {
    PutDiskInOrder();
    const size_t traces = device.base().Traces().size();
    deliver();
    EXPECT_TRUE(device.TakeSent().empty()) << "a reply";
    EXPECT_EQ(Snapshot(), in_order_);
    EXPECT_EQ(udisk->mMountDrive, "X:");
    EXPECT_EQ(udisk->modified, 0);
    EXPECT_EQ(udisk->lastWriteEnd, 4711);
    EXPECT_EQ(device.base().Traces().size(), traces);
    ExpectOneErrorNaming(good.name);
    EXPECT_TRUE(StillServes());
  }

  /// Expects the packet to be served under its own command, and then the next request, too.
  void ExpectServed(const Case& good, const std::string& image) {
    PutDiskInOrder();
    const size_t traces = device.base().Traces().size();
    Serve(good, PacketOf(image).get());
    const std::vector<SentPacket> sent = device.TakeSent();
    if (good.shape.answer == Answer::kNone) {
      EXPECT_TRUE(sent.empty());
      EXPECT_EQ(device.base().Traces().size(), traces + 1);
    } else {
      ASSERT_EQ(sent.size(), 1U);
      EXPECT_EQ(sent[0].cmd, good.request.cmd);
      if (good.check_reply != nullptr) {
        EXPECT_NO_THROW(good.check_reply(sent[0]));
      }
    }
    PutDiskInOrder();  // some requests clear the mount point
    EXPECT_TRUE(StillServes());
  }

 private:
  static void ExpectOneErrorNaming(const std::string& handler) {
    Texts errors;
    for (const LogLine& line : Log().Lines()) {
      if (line.level == kError) errors.push_back(line.raw);
    }
    ASSERT_EQ(errors.size(), 1U) << ::testing::PrintToString(errors);
    EXPECT_NE(errors[0].find(handler), std::string::npos) << errors[0];
  }
};

// ---- Packets that end too early ----

TEST_F(HostileRequests, EveryRequestCutAtEveryByteIsDroppedAndTheNextServed) {
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    const std::string& payload = good.request.payload;
    for (size_t length = 0; length < payload.size(); ++length) {
      SCOPED_TRACE(length);
      // packetLen counts the whole payload, or only what is left of it.
      ExpectDropped(good, [&] { return good.request.CutPacket(length); });
      if (good.request.cmd == kSmallFileRead) continue;  // treats a short payload in its own way
      ExpectDropped(good, good.Image(payload.substr(0, length)));
    }
    ExpectServed(good, good.request.Bytes());
  }
}

TEST_F(HostileRequests, SmallFileReadsCutByAnHonestPacketLengthGetNoReply) {
  for (const Case& good : Cases(kSmallFileRead)) {
    for (size_t length = 0; length < good.request.payload.size(); ++length) {
      PutDiskInOrder();
      EXPECT_LT(Serve(good, PacketOf(good.Image(good.request.payload.substr(0, length))).get()), 0);
      EXPECT_TRUE(device.TakeSent().empty()) << length;
      EXPECT_TRUE(StillServes()) << length;
    }
  }
}

TEST_F(HostileRequests, AReadPositionPastTheBufferIsDropped) {
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    const auto room = static_cast<uint32_t>(good.request.payload.size());
    for (const uint32_t position : {room, room + 1, 0x1000U, 0x7fffffffU, 0xfffffff0U, ~0U}) {
      SCOPED_TRACE(position);
      ExpectDropped(good, [&] {
        auto packet = good.request.Packet();
        packet->readPos = position;
        return packet;
      });
    }
  }
}

TEST_F(HostileRequests, ARequestReadFromWithinItsHeadIsDroppedIfItsLengthsPassTheBuffer) {
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    PutDiskInOrder();
    Request promising = good.request;  // its lengths exceed the buffer
    promising.payload.assign(good.request.payload.size(), '\xff');
    const auto packet = promising.Packet();
    packet->readPos = 1;
    // 123 has a result of its own for a path that is too long.
    EXPECT_EQ(Serve(good, packet.get()), good.request.cmd == kSmallFileRead ? -3 : -1);
    EXPECT_TRUE(device.TakeSent().empty());
    EXPECT_TRUE(StillServes());
  }
}

TEST_F(HostileRequests, APacketWithoutABufferIsDropped) {
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    CpdPacket packet;
    ExpectDroppedBy(good, [&] { EXPECT_EQ(Serve(good, &packet), -1); });
  }
}

// ---- Length fields ----

TEST_F(HostileRequests, EveryLengthAtItsLimitsIsServedIfItFitsAndDroppedIfNot) {
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    for (const LengthField& field : good.shape.lengths) {
      SCOPED_TRACE(field.offset);
      const std::string& payload = good.request.payload;
      const uint64_t exact = field.In(payload);
      const uint64_t most = field.Most();
      const uint64_t half = most / 2;
      const uint64_t wraps = most + 1 - (payload.size() - exact);  // the sum wraps to 0
      for (const uint64_t value :
           std::set<uint64_t>{0, 1, exact - 1, exact, exact + 1, exact + 16, half - 39, half,
                              half + 1, wraps, wraps + 1, most - 39, most - 31, most}) {
        SCOPED_TRACE(value);
        std::string edited = payload;
        field.Set(&edited, value);
        if (good.shape.Reach(edited) <= edited.size()) {
          ExpectServed(good, good.Image(edited));
        } else {
          ExpectDropped(good, good.Image(edited));
        }
      }
    }
  }
}

TEST_F(HostileRequests, ARequestWithAllLengthsAtTheirMaximumIsDropped) {
  for (const Case& good : Cases()) {
    if (good.shape.lengths.empty()) continue;
    SCOPED_TRACE(good.name);
    std::string payload = good.request.payload;
    for (const LengthField& field : good.shape.lengths) field.Set(&payload, field.Most());
    ExpectDropped(good, good.Image(payload));
    ExpectDropped(good, good.Image(payload + std::string(1000, 'x')));
  }
}

TEST_F(HostileRequests, HugeLengthsAreNotAllocated) {
  const uint64_t before = PeakMemory();
  for (const Case& good : Cases()) {
    std::vector<LengthField> fields = good.shape.lengths;
    if (fields.empty()) fields = {{0, 4}};  // a count
    for (const LengthField& field : fields) {
      for (const uint64_t value : {uint64_t{0x7ffffff0}, uint64_t{0xffffffff}}) {
        std::string edited = good.request.payload;
        field.Set(&edited, value);
        PutDiskInOrder();
        Serve(good, PacketOf(good.Image(edited)).get());
      }
    }
  }
  EXPECT_LT(PeakMemory() - before, 256U << 20);
}

TEST_F(HostileRequests, BytesAfterTheLastFieldChangeNothing) {
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    const std::string more(100, '\xff');
    Outcome expected = OutcomeOf(good);
    if (good.shape.answer == Answer::kCopy) {  // the copy includes these bytes
      expected.reply->payload += more;
      expected.reply->capacity += more.size();
    }
    const auto packet = PacketOf(good.Image(good.request.payload + more));
    ExpectSame(good, OutcomeOf(good, packet.get()), expected);
  }
}

TEST_F(HostileRequests, WritesOfANegativeSizeAreAnsweredWithoutAByteWritten) {
  for (const Case& good : Cases(kFileWrite)) {
    for (const uint32_t size : {0x80000000U, 0xffffff00U, 0xffffffffU}) {
      SCOPED_TRACE(size);
      const auto packet = PacketOf(good.Image(Patched(good.request.payload, 8, size)));
      EXPECT_EQ(OutcomeOf(good, packet.get()).disk, in_order_);
      ExpectServed(good, good.Image(Patched(good.request.payload, 8, size)));
    }
  }
}

TEST_F(HostileRequests, AnyLengthOfAPieceIsAnsweredAndWritesOnlyDataOfTheRequest) {
  Case good = Cases(kFileWrite).back();
  good.request = BatchWriteRequest{
      .path = kKnownFile, .pieces = {{.offset = 0, .data = "KNOWN"}, {.offset = 6, .data = "CON"}}};
  const size_t first = 24 + strlen(kKnownFile) + 8;
  const size_t second = first + 12 + 5;
  for (const size_t at : {first, second}) {
    for (const uint32_t value : {0U, 1U, 4U, 6U, 1000U, 0x7fffffffU, 0x80000000U, 0xfffffff3U,
                                 0xfffffff4U, 0xfffffff5U, 0xffffffffU}) {
      SCOPED_TRACE(std::to_string(value) + " at " + std::to_string(at));
      const std::string image = good.Image(Patched(good.request.payload, at, value));
      OutcomeOf(good, PacketOf(image).get());
      EXPECT_EQ(disk.ReadBack(kKnownFile).size(), 13U);
      ExpectServed(good, image);
    }
  }
}

TEST_F(HostileRequests, SmallFileReadsWithAnyFieldOutOfRangeDoNoHarm) {
  for (const Case& good : Cases(kSmallFileRead)) {
    const size_t second = 4 + 24 + strlen(kKnownFile);
    // The count, then size and path length of both records.
    for (const size_t at : {size_t{0}, size_t{4 + 12}, size_t{4 + 16}, second + 12, second + 16}) {
      const auto honest =
          static_cast<uint32_t>(LengthField{.offset = at, .width = 4}.In(good.request.payload));
      for (const uint32_t value : {0U, 1U, honest + 1, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
        PutDiskInOrder();
        const auto packet = PacketOf(good.Image(Patched(good.request.payload, at, value)));
        const int64_t result = Serve(good, packet.get());
        EXPECT_EQ(device.TakeSent().size(), result == 0 ? 1U : 0U)
            << value << " at " << at << " returns " << result;
        EXPECT_TRUE(StillServes());
      }
    }
  }
}

TEST_F(HostileRequests, EveryReadSizeIsAnsweredFastWithNoMoreThanTheFileHolds) {
  const auto begin = std::chrono::steady_clock::now();
  const std::string content = disk.ReadBack(kKnownFile);
  for (const uint32_t size :
       {0U, 1U, 0x10000000U, 0x7fffffffU, 0x80000000U, 0x80000001U, 0xfffffffeU, 0xffffffffU}) {
    SCOPED_TRACE(size);
    const auto sent = AskRaw(ReadRequest{.path = kKnownFile, .size = size});
    ASSERT_TRUE(sent);
    const bool negative = size >= 0x80000000U;
    const size_t expected = negative ? 0 : std::min<size_t>(size, content.size());
    EXPECT_EQ(ReadReply::Decode(*sent).data, content.substr(0, expected));
    EXPECT_EQ(sent->capacity, 16 + 24 + strlen(kKnownFile) + expected);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kPatience);
}

TEST_F(HostileRequests, EveryReadOffsetIsAnswered) {
  constexpr int64_t kLast = std::numeric_limits<int64_t>::max();
  for (const int64_t offset : {int64_t{-1}, int64_t{-4096}, -kLast, -kLast - 1, kLast, kLast - 1,
                               int64_t{0x7fffffff}, int64_t{0x80000000}, int64_t{0xffffffff}}) {
    for (const uint32_t size : {0U, 1U, 0x7fffffffU, 0xffffffffU}) {
      SCOPED_TRACE(std::to_string(offset) + " " + std::to_string(size));
      const auto reply = Ask(ReadRequest{.path = kKnownFile, .offset = offset, .size = size});
      ASSERT_TRUE(reply);
      EXPECT_EQ(reply->result, 0U);
      EXPECT_EQ(reply->offset, offset);
    }
  }
}

TEST_F(HostileRequests, ACacheCountThatLiesGetsTheListing) {
  const auto listed = Ask(DirReadRequest{.path = kKnownDir});
  ASSERT_TRUE(listed);
  ASSERT_EQ(listed->entry_count, 2);
  for (const uint16_t count : {0, 1, 3, 0x7fff, 0x8000, 0xffff}) {
    const auto reply =
        Ask(CheckDirRequest{.path = kKnownDir, .cached = listed->listing, .cached_count = count});
    ASSERT_TRUE(reply) << count;
    EXPECT_EQ(reply->entry_count, 2);
  }
}

// ---- Packet lengths that lie ----

TEST_F(HostileRequests, APacketLengthThatLiesChangesNothingButACopysLength) {
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    const Outcome truthful = OutcomeOf(good);
    const size_t size = good.request.Bytes().size();
    for (const uint32_t length : {0U, 1U, 15U, 16U, 17U, 4096U, 0x7fffffffU, 0x80000000U, ~0U}) {
      SCOPED_TRACE(length);
      const std::string lying = Patched(good.request.Bytes(), 8, length);
      if (good.shape.answer == Answer::kCopy) {  // as many bytes as packetLen says
        if (length < CPD_PACKET_HEADER_SIZE || length > size) {
          ExpectDropped(good, lying);
        } else {
          EXPECT_EQ(OutcomeOf(good, PacketOf(lying).get()).reply->capacity, length);
        }
      } else if (good.request.cmd != kSmallFileRead) {  // 123 reads no further than packetLen
        ExpectSame(good, OutcomeOf(good, PacketOf(lying).get()), truthful);
      }
      std::string cut = good.request.Bytes();
      cut.pop_back();
      ExpectDropped(good, Patched(cut, 8, length));
    }
  }
}

TEST_F(HostileRequests, SmallFileReadsOfAPacketLengthPastTheBufferOrWrappedAreAnswered) {
  for (const Case& good : Cases(kSmallFileRead)) {
    // Below 16, the length that remains for the payload wraps.
    for (const uint32_t length : {0U, 15U, 4096U, 0x7fffffffU, 0xffffffffU}) {
      SCOPED_TRACE(length);
      ExpectServed(good, Patched(good.request.Bytes(), 8, length));
    }
  }
}

TEST_F(HostileRequests, SmallFileReadsWithAPathWithinThePacketLengthButPastTheBufferAreDropped) {
  for (const Case& good : Cases(kSmallFileRead)) {
    const size_t last = 4 + 24 + strlen(kKnownFile) + 16;
    for (const uint32_t length : {11U, 1000U, 0x7fffffffU}) {
      SCOPED_TRACE(length);
      const std::string image = good.Image(Patched(good.request.payload, last, length));
      ExpectDropped(good, Patched(image, 8, 0xffffffff));
    }
  }
}

TEST_F(HostileRequests, SmallFileReadsWithRecordsWithinThePacketLengthButPastTheBufferAreDropped) {
  for (const Case& good : Cases(kSmallFileRead)) {
    for (const uint32_t count : {3U, 0xffffffffU}) {
      SCOPED_TRACE(count);
      const std::string image = good.Image(Patched(good.request.payload, 0, count));
      ExpectDropped(good, Patched(image, 8, 0xffffffff));
    }
  }
}

// ---- Properties of every handler ----

class EveryHandler : public EveryCommand {};

TEST_F(EveryHandler, SucceedsWhenTheGoodRequestsComeInOrder) {
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    if (udisk->GetLocalMountPoint().empty()) Mount();
    Log().Clear();
    const bool replies = good.shape.answer != Answer::kNone;
    EXPECT_EQ(AskRaw(good.request).has_value(), replies);
    EXPECT_EQ(Log().Messages(kError), Texts{});
    EXPECT_EQ(device.base().Traces().size(), replies ? 0U : 1U);
  }
  EXPECT_TRUE(disk.Exists("/renamed.txt"));
  EXPECT_FALSE(disk.Exists("/made"));
  EXPECT_FALSE(disk.Exists("/linked.txt"));
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
  EXPECT_EQ(udisk->mMountDrive, "U:");
}

TEST_F(EveryHandler, ReturnsWhatSendPacketReturnedAndServesTheNextRequest) {
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    for (const int result : {7, -1, -5}) {
      PutDiskInOrder();
      device.SetSendResult(result);
      const bool sends = good.shape.answer != Answer::kNone;
      const bool returns_it = good.request.cmd != kSmallFileRead;  // 123 returns 0 in any case
      EXPECT_EQ(Serve(good), !sends ? -1 : returns_it ? result : 0);
      device.SetSendResult(0);
      PutDiskInOrder();
      EXPECT_TRUE(StillServes());
    }
  }
}

TEST_F(EveryHandler, HandsItsReplyToTheDevice) {
  device.KeepPackets(true);
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    OutcomeOf(good);
  }
}

TEST_F(EveryHandler, ReadsItsFieldsAsStoredWhateverByteOrderTheHeaderSays) {
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    if (good.shape.answer == Answer::kCopy) continue;  // copying such a packet swaps its header
    const Outcome plain = OutcomeOf(good);
    const auto packet = good.request.Packet();
    packet->header->bigEndian = 1;
    ExpectSame(good, OutcomeOf(good, packet.get()), plain);
  }
}

TEST_F(EveryHandler, FindsItsFieldsAtThePacketsReadPosition) {
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    if (good.shape.answer == Answer::kCopy) continue;  // copies the whole packet
    const Outcome plain = OutcomeOf(good);
    const auto packet = PacketOf(good.Image("word" + good.request.payload));
    packet->readPos = 4;
    ExpectSame(good, OutcomeOf(good, packet.get()), plain);
  }
}

TEST_F(EveryHandler, MakesRoomForTheHeaderLengthThatItIsGiven) {
  for (const Case& good : Cases()) {
    SCOPED_TRACE(good.name);
    const Outcome plain = OutcomeOf(good);
    for (const unsigned char length : {20, 0}) {
      Case other = good;
      other.shape.header_length = length;
      Outcome expected = plain;
      if (good.shape.makes_room_for_header && length > 16) expected.reply->capacity += 4;
      ExpectSame(good, OutcomeOf(other), expected);
    }
  }
}

TEST_F(EveryHandler, JoinsPathsToTheEmptyMountPointOnceItIsCleared) {
  udisk->SetRootPath(nullptr, nullptr);
  Log().Clear();
  const std::string file = disk.Local("/absolute");
  EXPECT_GE(Ask(CreateRequest{.path = file})->result(), 0);
  EXPECT_TRUE(disk.Exists("/absolute"));
  EXPECT_EQ(Log().Messages()[0], "file_create full path: " + file + ", flag:0, mode: 1a4\\n");
  EXPECT_EQ(Ask(WriteRequest{.path = file, .data = "data"})->head.size, 4);
  EXPECT_EQ(Ask(ReadRequest{.path = file})->data, "data");
  EXPECT_EQ(Ask(SmallReadRequest{.records = {{.path = file}}})->records.at(0).data, "data");
  EXPECT_EQ(Ask(TruncateRequest{.path = file, .length = 2})->result(), 0);
  EXPECT_EQ(Ask(FsyncRequest{.path = file})->result(), 0);
  EXPECT_EQ(Ask(ChmodRequest{.path = file, .mode = 0600})->result(), 0);
  EXPECT_EQ(Ask(ChownRequest{.path = file})->result(), 0);
  EXPECT_EQ(+Ask(AttrRequest{.path = file})->stat.st_size, 2);
  EXPECT_EQ(Ask(LinkRequest{.path = file, .new_path = file + "-linked"})->result, 0);
  EXPECT_EQ(Ask(RenameRequest{.path = file, .new_path = file + "-moved"})->result, 0);
  EXPECT_EQ(Ask(UnlinkRequest{.path = file + "-moved"})->result(), 0);
  EXPECT_TRUE(disk.Exists("/absolute-linked"));
  const std::string directory = disk.Local("/absolute-directory");
  EXPECT_EQ(Ask(MakeDirRequest{.path = directory})->result(), 0);
  EXPECT_EQ(Ask(DirReadRequest{.path = directory})->entry_count, 2);
  EXPECT_TRUE(Ask(CheckDirRequest{.path = directory}));
  EXPECT_EQ(Ask(RemoveDirRequest{.path = directory})->result(), 0);
  EXPECT_FALSE(disk.Exists("/absolute-directory"));
}

TEST_F(EveryHandler, AnswersUnderTheAddressOfTheRequest) {
  for (const Case& good : Cases()) {
    if (good.shape.answer == Answer::kNone) continue;
    SCOPED_TRACE(good.name);
    PutDiskInOrder();
    Request request = good.request;
    request.dev_id = 200;
    request.request_id = 0xfedcba98;
    const auto reply = AskRaw(request);
    ASSERT_TRUE(reply);
    ExpectReply(reply, request, reply->payload, reply->capacity);
  }
}

}  // namespace
}  // namespace cpd::test
