// The chapter of docs/protocol.md on the stream is true: a connection sends and understands its
// examples.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "line/connection.h"
#include "support/line_peer.h"
#include "support/protocol_document.h"

namespace cpd::test {
namespace {

using namespace std::chrono_literals;
using namespace host;  // NOLINT(google-build-using-namespace): the code under test

Hello FilledHello(Role role) {
  Hello hello = HelloOf(role);
  if (role == Role::kRemote) {
    hello.session.fill(0x11);
  } else {
    hello.disk.fill(0x22);
    hello.life.fill(0x33);
  }
  return hello;
}

/// The disk's side of a line whose other side sends what the document says.
class StreamDocument : public testing::Test {
 protected:
  StreamDocument()
      : connection(peer.TakeLine(), FilledHello(Role::kDisk),
                   {.ping_interval = std::chrono::hours(24 * 365 * 100)}) {}

  std::vector<Exchange> Examples(const std::string& heading) const {
    return ParseExample(Find(sections, heading));
  }
  void ExpectSent(const Exchange& exchange) {
    ExpectBytes(exchange.reply, peer.TakeBytes(exchange.reply.size()));
  }
  void Greet() {
    peer.Send(BytesOfRecord(FilledHello(Role::kRemote)));
    (void)connection.AwaitHello(10s);
    (void)peer.TakeBytes(sizeof(Hello));
    connection.Start({.packet =
                          [this](std::unique_ptr<CpdPacket> packet) {
                            packets.set_value(BytesOfPacket(*packet));
                          },
                      .room = [] {},
                      .ended = [this](const Ending& how) { ended.set_value(how); }});
  }

  const std::vector<Section> sections = ReadSections("The stream between two machines");
  LinePeer peer;
  std::promise<std::string> packets;
  std::promise<Ending> ended;
  Connection connection;  // last: its handlers use the others
};

TEST_F(StreamDocument, HasFieldsWithoutGaps) {
  EXPECT_FALSE(sections.empty());
  ExpectFieldsWithoutGaps(sections);
}

TEST_F(StreamDocument, HasTheHellosOfBothSides) {
  const auto examples = Examples("Hello");
  ASSERT_EQ(examples.size(), 1U);
  ExpectSent(examples[0]);
  peer.Send(Given(examples[0].request));
  EXPECT_EQ(BytesOfRecord(connection.AwaitHello(10s)), BytesOfRecord(FilledHello(Role::kRemote)));
}

TEST_F(StreamDocument, HasAPacketThatArrivesUnchanged) {
  const auto examples = Examples("Frames");
  ASSERT_EQ(examples.size(), 1U);
  Greet();
  const auto packet = Given(examples[0].request);
  peer.Send(packet);
  EXPECT_EQ(packets.get_future().get(), packet);
}

TEST_F(StreamDocument, HasTheControlFrames) {
  const auto examples = Examples("Control frames");
  ASSERT_EQ(examples.size(), 5U);
  Greet();
  peer.Send(Given(examples[0].request));
  ExpectSent(examples[0]);

  const auto packet = PacketOf(kDefaultWindow / 4 - 256);
  peer.Send(BytesOfPacket(*packet));
  EXPECT_EQ(packets.get_future().get().size(), packet->header->packetLen);
  connection.Taken(ChargeOf(packet->header->packetLen));
  ExpectSent(examples[1]);

  EXPECT_TRUE(connection.Send(Notice{.what = Notice::What::kWatched, .path = "/a"}));
  EXPECT_TRUE(connection.Send(Notice{.what = Notice::What::kFile, .path = "/a/b"}));
  ExpectSent(examples[2]);

  connection.SayGoodbye(Farewell::kFailed, "no such disk");
  ExpectSent(examples[3]);
}

TEST_F(StreamDocument, HasTheGoodbyeOfTheOtherSide) {
  const auto examples = Examples("Control frames");
  Greet();
  peer.Send(Given(examples.back().request));
  const auto how = ended.get_future().get();
  EXPECT_EQ(how.kind, Ending::Kind::kFarewell);
  EXPECT_EQ(how.farewell, Farewell::kDone);
  EXPECT_EQ(how.text, "the other side has ended the session");
}

}  // namespace
}  // namespace cpd::test
