// Requests whose fields do not tell the truth. Each packet's buffer is as long as its bytes, so
// that a sanitizer sees every look past it.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <limits>
#include <set>
#include <string>
#include <vector>

#include "support/expectations.h"
#include "support/fake_user.h"
#include "support/local_records.h"
#include "support/operator_fixture.h"

namespace cpd::test {
namespace {

/// A length in a request's payload, of the text or data that follows the head.
struct LengthField {
  size_t offset;
  size_t width;

  [[nodiscard]] uint64_t Most() const { return (uint64_t{1} << (8 * width)) - 1; }
  [[nodiscard]] uint64_t In(const std::string& payload) const {
    uint64_t value = 0;
    std::memcpy(&value, payload.data() + offset, width);
    return value;
  }
  void Set(std::string* payload, uint64_t value) const {
    std::memcpy(payload->data() + offset, &value, width);
  }
};

/// What a command's payload consists of.
struct Shape {
  uint16_t cmd;
  int64_t (UDiskOperator::*handler)(unsigned char, CpdPacket*);
  unsigned char header_length;
  size_t head;
  std::vector<LengthField> lengths;

  /// How far the fields of a payload reach.
  [[nodiscard]] uint64_t Reach(const std::string& payload) const {
    uint64_t reach = head;
    if (payload.size() < head) return reach;
    for (const LengthField& field : lengths) reach += field.In(payload);
    return reach;
  }
};

const std::vector<Shape>& Shapes() {
  static const std::vector<Shape> shapes = {
      {100, &UDiskOperator::mount_remote, 16, 2, {{0, 2}}},
      {101, &UDiskOperator::umount_remote, 16, 2, {{0, 2}}},
      {102, &UDiskOperator::get_file_attr, 16, 4, {{0, 2}}},
      {105, &UDiskOperator::file_read, 16, 24, {{16, 4}}},
      {107, &UDiskOperator::dir_read, 16, 16, {{12, 2}}},
      {108, &UDiskOperator::get_xattr, 16, 16, {{12, 2}, {14, 2}}},
      {113, &UDiskOperator::get_statvfs, 16, 8, {{0, 4}}},
      {121, &UDiskOperator::check_dir, 16, 16, {{12, 2}, {8, 4}}},
      {200, &UDiskOperator::mount_response, 0, 4, {{2, 2}, {0, 2}}},
  };
  return shapes;
}

class HostileRequests : public OperatorTest {
 protected:
  HostileRequests() {
    std::filesystem::create_directory(home_);
    SettleAccessTime(disk.Local(kKnownDir));
  }

  /// Calls `test` with each good request and its shape.
  template <class Test>
  static void ForEachCommand(const Test& test) {
    size_t known = 0;
    for (const NamedRequest& good : OneRequestPerCommand()) {
      for (const Shape& shape : Shapes()) {
        if (shape.cmd != good.request.cmd) continue;
        SCOPED_TRACE(good.name);
        ++known;
        test(good, shape);
      }
    }
    EXPECT_EQ(known, Shapes().size());
  }

  /// The packet is dropped: one Error line that names the handler, nothing sent, nothing changed.
  void ExpectDropped(const NamedRequest& good, const Shape& shape, const std::string& image) {
    const size_t traces = device.base().Traces().size();
    Log().Clear();
    const auto packet = PacketOf(image);
    EXPECT_EQ((udisk.get()->*shape.handler)(shape.header_length, packet.get()), -1);
    ExpectOneErrorNaming(good.name);
    Log().Clear();
    EXPECT_EQ(AskRaw(PacketOf(image)), std::nullopt);
    ExpectOneErrorNaming(good.name);
    EXPECT_EQ(device.base().Traces().size(), traces);
    EXPECT_TRUE(StillServes());
  }

  /// The packet is served.
  void ExpectServed(const NamedRequest& good, const std::string& image) {
    Log().Clear();
    const size_t traces = device.base().Traces().size();
    const auto sent = AskRaw(PacketOf(image));
    if (good.request.cmd == kMountResponse) {
      EXPECT_EQ(device.base().Traces().size(), traces + 1);
    } else {
      EXPECT_TRUE(sent);
    }
    Mount();  // some requests clear the mount point
    EXPECT_TRUE(StillServes());
  }

  static std::string Image(const NamedRequest& good, const std::string& payload) {
    Request request = good.request;
    request.payload = payload;
    return request.Bytes();
  }

 private:
  static void ExpectOneErrorNaming(const std::string& handler) {
    std::vector<std::string> errors;
    for (const LogLine& line : Log().Lines()) {
      if (line.level == kError) errors.push_back(line.raw);
    }
    ASSERT_EQ(errors.size(), 1U) << ::testing::PrintToString(errors);
    EXPECT_NE(errors[0].find(handler), std::string::npos) << errors[0];
  }

  const std::string home_ = disk.letter() + "home";
  const FakeUser user_{1000, home_};  // whose home takes the directories that 100 makes
};

TEST_F(HostileRequests, EveryRequestCutAtEveryByteIsDroppedAndTheNextServed) {
  ForEachCommand([&](const NamedRequest& good, const Shape& shape) {
    const std::string& payload = good.request.payload;
    ASSERT_EQ(shape.Reach(payload), payload.size());
    for (size_t length = 0; length < payload.size(); ++length) {
      SCOPED_TRACE(length);
      // packetLen goes on promising all of the payload, or tells how much there is.
      ExpectDropped(good, shape, good.request.Bytes().substr(0, 16 + length));
      ExpectDropped(good, shape, Image(good, payload.substr(0, length)));
    }
    ExpectServed(good, good.request.Bytes());
  });
}

TEST_F(HostileRequests, EveryLengthAtItsEdgesIsServedWhenItFitsAndDroppedWhenNot) {
  ForEachCommand([&](const NamedRequest& good, const Shape& shape) {
    for (const LengthField& field : shape.lengths) {
      SCOPED_TRACE(field.offset);
      const std::string& payload = good.request.payload;
      const uint64_t exact = field.In(payload);
      const uint64_t half = field.Most() / 2;
      const uint64_t wraps = field.Most() + 1 - (payload.size() - exact);  // the sum comes to 0
      for (const uint64_t value : std::set<uint64_t>{0, 1, exact - 1, exact, exact + 1, half,
                                                     half + 1, wraps, wraps + 1, field.Most()}) {
        SCOPED_TRACE(value);
        std::string edited = payload;
        field.Set(&edited, value);
        if (shape.Reach(edited) <= edited.size()) {
          ExpectServed(good, Image(good, edited));
        } else {
          ExpectDropped(good, shape, Image(good, edited));
        }
      }
    }
  });
}

TEST_F(HostileRequests, EveryLengthAtItsMaximumAtOnceIsDropped) {
  ForEachCommand([&](const NamedRequest& good, const Shape& shape) {
    std::string payload = good.request.payload;
    for (const LengthField& field : shape.lengths) field.Set(&payload, field.Most());
    ExpectDropped(good, shape, Image(good, payload));
    ExpectDropped(good, shape, Image(good, payload + std::string(1000, 'x')));
  });
}

TEST_F(HostileRequests, BytesBehindTheLastFieldChangeNothing) {
  ForEachCommand([&](const NamedRequest& good, const Shape& /*shape*/) {
    const auto without = AskRaw(good.request);
    Mount();
    Request longer = good.request;
    longer.payload += std::string(100, '\xff');
    const auto with = AskRaw(longer);
    Mount();
    ASSERT_EQ(without.has_value(), with.has_value());
    if (with) {
      EXPECT_EQ(with->payload, without->payload);
    }
  });
}

TEST_F(HostileRequests, APacketLengthThatLiesChangesNothing) {
  ForEachCommand([&](const NamedRequest& good, const Shape& shape) {
    const auto truthful = AskRaw(good.request);
    Mount();
    for (const uint32_t length : {0U, 1U, 15U, 16U, 17U, 0x7fffffffU, 0x80000000U, 0xffffffffU}) {
      SCOPED_TRACE(length);
      auto packet = good.request.Packet();
      packet->header->packetLen = length;
      const auto lying = AskRaw(std::move(packet));
      Mount();
      ASSERT_EQ(lying.has_value(), truthful.has_value());
      if (lying) {
        EXPECT_EQ(lying->payload, truthful->payload);
        EXPECT_EQ(lying->packet_len, truthful->packet_len);
      }

      std::string cut = good.request.Bytes();
      cut.pop_back();
      std::memcpy(cut.data() + 8, &length, sizeof length);
      ExpectDropped(good, shape, cut);
    }
  });
}

TEST_F(HostileRequests, AReadPositionPastTheBufferIsDropped) {
  ForEachCommand([&](const NamedRequest& good, const Shape& shape) {
    const auto room = static_cast<uint32_t>(good.request.payload.size());
    for (const uint32_t position : {1U, room, room + 1, 0x7fffffffU, 0xffffffffU}) {
      SCOPED_TRACE(position);
      Request request = good.request;
      // What stands at the position, if anything, promises more than there is.
      request.payload.assign(room, '\xff');
      const auto packet = request.Packet();
      packet->readPos = position;
      device.TakeSent();
      EXPECT_EQ((udisk.get()->*shape.handler)(shape.header_length, packet.get()), -1);
      EXPECT_TRUE(device.TakeSent().empty());
      EXPECT_TRUE(StillServes());
    }
  });
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

TEST_F(HostileRequests, AReplyThatTheHostRefusesDisturbsNothing) {
  ForEachCommand([&](const NamedRequest& good, const Shape& /*shape*/) {
    device.SetSendResult(-1);
    Deliver(good.request);
    Mount();
    device.SetSendResult(0);
    EXPECT_TRUE(StillServes());
  });
}

}  // namespace
}  // namespace cpd::test
