// A line's rules, over a socket pair whose other end the test plays.
#include "line/connection.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/child_process.h"
#include "support/line_peer.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;
using test::BytesOfPacket;
using test::BytesOfRecord;
using test::ControlBytes;
using test::Eventually;
using test::HelloOf;
using test::LinePeer;
using test::PacketOf;

constexpr uint64_t kWindow = 1 << 20;
constexpr size_t kQuarter = kWindow / 4 - 256;  // four packets of this length fill the window

constexpr LineTimes kShort{.ping_interval = 20ms, .dead_after = 200ms, .goodbye = 100ms};

class ConnectionTest : public testing::Test {
 protected:
  ~ConnectionTest() override { connection.reset(); }

  void Make(uint64_t window = kWindow, const LineTimes& times = {}) {
    connection.emplace(peer.TakeLine(), HelloOf(Role::kDisk, window), times);
  }
  /// Starts the connection with a peer that has said hello.
  void Start(uint64_t their_window = kWindow, uint64_t window = kWindow,
             const LineTimes& times = {}) {
    Make(window, times);
    peer.Send(BytesOfRecord(HelloOf(Role::kRemote, their_window)));
    EXPECT_EQ(connection->AwaitHello(10s).role, Role::kRemote);
    EXPECT_TRUE(peer.NextOf<Hello>());
    if (is_last_try) connection->EndSessionOnNonsense();
    connection->Start({.packet =
                           [this](std::unique_ptr<CpdPacket> packet) {
                             if (on_packet) on_packet(*packet);
                             const std::lock_guard lock(mutex);
                             received.push_back(BytesOfPacket(*packet));
                           },
                       .room = [this] { ++rooms; },
                       .notice = on_notice,
                       .ended = [this](const Ending& how) { ended.set_value(how); }});
  }
  size_t Received() {
    const std::lock_guard lock(mutex);
    return received.size();
  }
  Ending AwaitEnding() {
    auto future = ended.get_future();
    if (future.wait_for(10s) != std::future_status::ready) throw std::runtime_error("no ending");
    return future.get();
  }
  void ExpectNonsense(const std::string& why) {
    const auto how = AwaitEnding();
    EXPECT_EQ(how.kind, Ending::Kind::kNonsense);
    EXPECT_EQ(how.text, "the other side sent nonsense: " + why);
    EXPECT_TRUE(peer.IsClosed());
  }

  LinePeer peer;
  std::mutex mutex;
  std::vector<std::string> received;
  std::function<void(const CpdPacket&)> on_packet;
  std::function<void(const Notice&)> on_notice;
  bool is_last_try = false;
  std::atomic<int> rooms = 0;
  std::promise<Ending> ended;
  std::optional<Connection> connection;
};

// ---- Beginning ----

TEST_F(ConnectionTest, SaysHelloAtOnceAndReturnsTheOtherSidesHello) {
  Make();
  const auto own = peer.NextOf<Hello>();
  ASSERT_TRUE(own);
  EXPECT_EQ(BytesOfRecord(*own), BytesOfRecord(HelloOf(Role::kDisk, kWindow)));
  auto hello = HelloOf(Role::kRemote, 99);
  hello.largest = 1234;
  hello.session.fill(7);
  peer.Send(BytesOfRecord(hello));
  EXPECT_EQ(BytesOfRecord(connection->AwaitHello(10s)), BytesOfRecord(hello));
  EXPECT_EQ(connection->their_largest(), 1234U);
}

TEST_F(ConnectionTest, GivesUpOnAHelloThatDoesNotCome) {
  Make();
  EXPECT_THROW((void)connection->AwaitHello(20ms), StreamError);
}

TEST_F(ConnectionTest, GivesUpOnAHelloThatComesTooSlowly) {
  Make();
  const auto begin = std::chrono::steady_clock::now();
  const auto hello = BytesOfRecord(HelloOf(Role::kRemote));
  auto waiting = std::async(std::launch::async, [&] { return connection->AwaitHello(200ms); });
  for (size_t i = 0; i < 20 && waiting.wait_for(30ms) != std::future_status::ready; ++i) {
    peer.Send(hello.substr(i, 1));
  }
  EXPECT_THROW(waiting.get(), StreamError);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 5s);
}

TEST_F(ConnectionTest, RefusesAnotherVersionByItsNumber) {
  Make();
  auto hello = HelloOf(Role::kRemote);
  hello.version = 7;
  peer.Send(BytesOfRecord(hello));
  try {
    (void)connection->AwaitHello(10s);
    FAIL();
  } catch (const StreamError& error) {
    EXPECT_STREQ(error.what(),
                 "the other side has version 7 of the stream, and this side has version 2: install "
                 "the same cpd-host on both");
  }
}

TEST_F(ConnectionTest, NoticesThatTheLineClosesBeforeTheHello) {
  Make();
  peer.Send(
      "\x89"
      "cpd");
  peer.Close();
  EXPECT_THROW((void)connection->AwaitHello(10s), StreamError);
}

TEST_F(ConnectionTest, StopsWaitingForAHelloWhenItIsGivenUp) {
  Make();
  auto waiting = std::async(std::launch::async, [&] { return connection->AwaitHello(60s); });
  connection->GiveUp("enough");
  EXPECT_THROW(waiting.get(), StreamError);
}

TEST_F(ConnectionTest, ReportsTheGoodbyeThatComesInsteadOfAPacket) {
  Make();
  peer.Send(BytesOfRecord(HelloOf(Role::kRemote)) + ControlBytes(Control::kPing, 1) +
            ControlBytes(Control::kBye, 1, "no such disk"));
  (void)connection->AwaitHello(10s);
  try {
    (void)connection->AwaitPacket(10s);
    FAIL();
  } catch (const StreamError& error) {
    EXPECT_STREQ(error.what(), "the other side: no such disk");
  }
}

// A side that refuses has a window of zero, and starts no thread that could send the rest later.
TEST_F(ConnectionTest, DeliversARefusalThoughItIsNeverStarted) {
  Make(0);
  connection->SayGoodbye(Farewell::kFailed, "no such disk");
  connection.reset();
  EXPECT_TRUE(peer.NextOf<Hello>());
  const auto frame = peer.Next();
  ASSERT_TRUE(frame && std::holds_alternative<ControlFrame>(*frame));
  const auto& bye = std::get<ControlFrame>(*frame);
  EXPECT_EQ(bye.kind, Control::kBye);
  EXPECT_EQ(bye.value, 1U);
  EXPECT_EQ(bye.text, "no such disk");
  EXPECT_TRUE(peer.IsClosed());
}

TEST_F(ConnectionTest, EndsAWaitForRoomWhenItIsClosedBeforeItHasStarted) {
  Make();
  peer.Send(BytesOfRecord(HelloOf(Role::kRemote)));
  (void)connection->AwaitHello(10s);
  connection->Send(PacketOf(2 * kWindow));
  auto waiting =
      std::async(std::launch::async, [&] { return connection->SendWhenRoom(PacketOf(100)); });
  EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
  connection->Close();
  EXPECT_FALSE(waiting.get());
}

// ---- Credit ----

TEST_F(ConnectionTest, SendsUpToTheWindowAndGoesOnWhenThePacketsAreTaken) {
  Start();
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(connection->SendWhenRoom(PacketOf(kQuarter)));
  auto fifth =
      std::async(std::launch::async, [&] { return connection->SendWhenRoom(PacketOf(kQuarter)); });
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(peer.NextOf<std::unique_ptr<CpdPacket>>());
  EXPECT_FALSE(peer.NextOf<std::unique_ptr<CpdPacket>>(50ms));
  EXPECT_EQ(fifth.wait_for(0s), std::future_status::timeout);
  EXPECT_FALSE(connection->HasRoom(kQuarter));
  peer.Send(ControlBytes(Control::kTaken, kWindow / 4));
  EXPECT_TRUE(fifth.get());
  EXPECT_TRUE(peer.NextOf<std::unique_ptr<CpdPacket>>());
}

TEST_F(ConnectionTest, ReportsNewRoomOnlyToACallerThatFoundNone) {
  Start();
  for (int i = 0; i < 4; ++i) {
    EXPECT_TRUE(connection->HasRoom(kQuarter));
    connection->Send(PacketOf(kQuarter));
    EXPECT_TRUE(peer.NextOf<std::unique_ptr<CpdPacket>>());
  }
  peer.Send(ControlBytes(Control::kTaken, 1) + ControlBytes(Control::kPing, 5));
  EXPECT_TRUE(peer.NextControl(Control::kPong));
  EXPECT_EQ(rooms, 0);
  EXPECT_FALSE(connection->HasRoom(kQuarter));
  peer.Send(ControlBytes(Control::kTaken, 1) + ControlBytes(Control::kTaken, 1) +
            ControlBytes(Control::kPing, 6));
  EXPECT_TRUE(peer.NextControl(Control::kPong));
  EXPECT_EQ(rooms, 1);
}

TEST_F(ConnectionTest, SendsAPacketLargerThanTheWindowWhenHalfOfItIsFree) {
  Start();
  EXPECT_TRUE(connection->HasRoom(3 * kWindow));
  connection->Send(PacketOf(kQuarter));
  connection->Send(PacketOf(kQuarter));
  EXPECT_TRUE(connection->HasRoom(3 * kWindow));
  connection->Send(PacketOf(CPD_PACKET_HEADER_SIZE));
  EXPECT_FALSE(connection->HasRoom(3 * kWindow));
  EXPECT_TRUE(connection->HasRoom(100));
}

TEST_F(ConnectionTest, ReportsWhatIsTakenOnceItIsAQuarterOfTheWindow) {
  Start();
  peer.Send(BytesOfPacket(*PacketOf(kQuarter)));
  EXPECT_TRUE(Eventually([&] { return Received() == 1; }));
  connection->Taken(kWindow / 4 - 1);
  peer.Send(ControlBytes(Control::kPing, 5));
  auto frame = peer.NextOf<ControlFrame>();
  while (frame && frame->kind == Control::kPing) frame = peer.NextOf<ControlFrame>();
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->kind, Control::kPong);
  connection->Taken(1);
  frame = peer.NextControl(Control::kTaken);
  ASSERT_TRUE(frame);
  EXPECT_EQ(frame->value, kWindow / 4);
}

// Otherwise a side would report only after a quarter of its own, larger window. The other side,
// which may not send that much, would wait for ever.
TEST_F(ConnectionTest, GoesByTheSmallerOfTheTwoWindows) {
  Start(kWindow, 16 * kWindow);
  for (int i = 0; i < 4; ++i) connection->Send(PacketOf(kQuarter));
  EXPECT_FALSE(connection->HasRoom(kQuarter));
  peer.Send(BytesOfPacket(*PacketOf(kQuarter)));
  EXPECT_TRUE(Eventually([&] { return Received() == 1; }));
  connection->Taken(kWindow / 4);
  EXPECT_TRUE(peer.NextControl(Control::kTaken));
}

TEST_F(ConnectionTest, SendsOnePacketAtATimeToASideWithoutAWindow) {
  Start(0);
  EXPECT_TRUE(connection->SendWhenRoom(PacketOf(100)));
  EXPECT_FALSE(connection->HasRoom(100));
  EXPECT_TRUE(peer.NextOf<std::unique_ptr<CpdPacket>>());
  peer.Send(ControlBytes(Control::kTaken, ChargeOf(100)));
  EXPECT_TRUE(connection->SendWhenRoom(PacketOf(100)));
  EXPECT_TRUE(peer.NextOf<std::unique_ptr<CpdPacket>>());
}

TEST_F(ConnectionTest, ReceivesWhileThePeerDoesNotReadAndSendsTheRestInOrderLater) {
  Start();
  for (int i = 0; i < 4; ++i) {
    ASSERT_TRUE(connection->SendWhenRoom(PacketOf(kQuarter, 105, i)));
  }
  peer.Send(BytesOfPacket(*PacketOf(100)));
  EXPECT_TRUE(Eventually([&] { return Received() == 1; }));
  for (uint32_t i = 0; i < 4; ++i) {
    const auto packet = peer.NextOf<std::unique_ptr<CpdPacket>>();
    ASSERT_TRUE(packet);
    EXPECT_EQ((*packet)->header->requestId, i);
    EXPECT_EQ(BytesOfPacket(**packet), BytesOfPacket(*PacketOf(kQuarter, 105, i)));
  }
}

TEST_F(ConnectionTest, CarriesNoticesInOrderWithPackets) {
  std::vector<Notice> notices;
  on_notice = [&](const Notice& notice) {
    EXPECT_EQ(Received(), notices.size());
    notices.push_back(notice);
  };
  Start();
  const std::vector<Notice> sent{{Notice::What::kWatched, "/a"}, {Notice::What::kAll}};
  for (const auto& notice : sent) {
    EXPECT_TRUE(connection->Send(notice));
    connection->Send(PacketOf(100));
  }
  for (const auto& notice : sent) {
    const auto frame = peer.Next();
    ASSERT_TRUE(frame && std::holds_alternative<ControlFrame>(*frame));
    const auto& control = std::get<ControlFrame>(*frame);
    EXPECT_EQ(control.kind, Control::kNotice);
    EXPECT_EQ(control.value, static_cast<uint64_t>(notice.what));
    EXPECT_EQ(control.text, notice.path);
    EXPECT_TRUE(peer.NextOf<std::unique_ptr<CpdPacket>>());
    peer.Send(ControlBytes(control.kind, control.value, control.text));
    peer.Send(BytesOfPacket(*PacketOf(100)));
  }
  EXPECT_TRUE(Eventually([&] { return Received() == 2; }));
  connection->Close();
  EXPECT_EQ(notices, sent);
}

TEST_F(ConnectionTest, KeepsFewNoticesForAPeerThatDoesNotRead) {
  Start();
  const Notice notice{.what = Notice::What::kFile, .path = '/' + std::string(1000, 'x')};
  int sent = 0;
  while (sent < 100'000 && connection->Send(notice)) ++sent;
  EXPECT_LT(sent, 100'000);
  EXPECT_TRUE(connection->Send(Notice{.what = Notice::What::kAll})) << "which must not be lost";
}

// ---- A peer that breaks the rules ----

TEST_F(ConnectionTest, EndsAtANoticeThatItDoesNotExpect) {
  Start();
  peer.Send(ControlBytes(Control::kNotice, 2, "/a"));
  ExpectNonsense("a control frame of kind 5");
}

TEST_F(ConnectionTest, EndsAtANoticeOfAnUnknownKind) {
  on_notice = [](const Notice&) { ADD_FAILURE(); };
  Start();
  peer.Send(ControlBytes(Control::kNotice, 6, "/a"));
  ExpectNonsense("a notice of kind 6");
}

TEST_F(ConnectionTest, EndsAtANoticeWithoutAPath) {
  on_notice = [](const Notice&) { ADD_FAILURE(); };
  Start();
  peer.Send(ControlBytes(Control::kNotice, 2, "a"));
  ExpectNonsense("a notice with a wrong path");
}

TEST_F(ConnectionTest, EndsWhenThePeerSendsMoreThanTheWindow) {
  Start();
  for (int i = 0; i < 4; ++i) peer.Send(BytesOfPacket(*PacketOf(kQuarter)));
  EXPECT_TRUE(Eventually([&] { return Received() == 4; }));
  peer.Send(BytesOfPacket(*PacketOf(CPD_PACKET_HEADER_SIZE)));
  ExpectNonsense("more than its window");
  EXPECT_EQ(Received(), 4U);
}

TEST_F(ConnectionTest, EndsAtTheHeaderOfAPacketThatExceedsTheWindow) {
  Start();
  for (int i = 0; i < 3; ++i) peer.Send(BytesOfPacket(*PacketOf(kQuarter)));
  peer.Send(BytesOfPacket(*PacketOf(kWindow)).substr(0, CPD_PACKET_HEADER_SIZE));
  ExpectNonsense("more than its window");
}

TEST_F(ConnectionTest, TakesAPacketLargerThanTheWindowWhenHalfOfItIsFree) {
  Start();
  peer.Send(BytesOfPacket(*PacketOf(kWindow / 2 - 256)));
  peer.Send(BytesOfPacket(*PacketOf(2 * kWindow)));
  EXPECT_TRUE(Eventually([&] { return Received() == 2; }));
}

TEST_F(ConnectionTest, EndsWhenThePeerReportsMoreTakenThanWasSent) {
  Start();
  connection->Send(PacketOf(100));
  EXPECT_TRUE(peer.NextOf<std::unique_ptr<CpdPacket>>());
  peer.Send(ControlBytes(Control::kTaken, ChargeOf(100) + 1));
  ExpectNonsense("it reports more taken than it was sent");
}

TEST_F(ConnectionTest, EndsWhenThePeerReportsMoreTakenThanHasBeenWritten) {
  Start();
  for (int i = 0; i < 4; ++i) connection->Send(PacketOf(kQuarter));  // more than a socket takes
  peer.Send(ControlBytes(Control::kTaken, kWindow));
  ExpectNonsense("it reports more taken than it was sent");
}

TEST_F(ConnectionTest, EndsAtAControlFrameOfAnUnknownKind) {
  Start();
  peer.Send(ControlBytes(static_cast<Control>(9), 0));
  ExpectNonsense("a control frame of kind 9");
}

TEST_F(ConnectionTest, EndsWhenAHandlerRefusesAPacket) {
  on_packet = [](const CpdPacket&) { throw StreamError("a request for too much"); };
  Start();
  peer.Send(BytesOfPacket(*PacketOf(100)));
  ExpectNonsense("a request for too much");
  EXPECT_FALSE(connection->SendWhenRoom(PacketOf(100)));
}

// A line that was up for long is followed by another, so the session goes on.
TEST_F(ConnectionTest, SaysNoGoodbyeOnNonsenseIfItWasUpForLongThoughItIsTheLastTry) {
  is_last_try = true;
  Start(kWindow, kWindow, {.useful = 0ms});
  peer.Send(ControlBytes(static_cast<Control>(9), 0));
  EXPECT_FALSE(peer.NextControl(Control::kBye));
  EXPECT_EQ(AwaitEnding().kind, Ending::Kind::kNonsense);
  EXPECT_TRUE(connection->was_useful());
}

TEST_F(ConnectionTest, AnswersOnlyTheLastPingOfAPeerThatDoesNotRead) {
  Start();
  for (int i = 0; i < 4; ++i) connection->Send(PacketOf(kQuarter));  // more than a socket takes
  constexpr uint64_t kPings = 20000;
  std::string pings;
  for (uint64_t i = 1; i <= kPings; ++i) pings += ControlBytes(Control::kPing, i);
  peer.Send(pings);
  peer.Send(BytesOfPacket(*PacketOf(100)));
  EXPECT_TRUE(Eventually([&] { return Received() == 1; })) << "it no longer reads";
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(peer.NextOf<std::unique_ptr<CpdPacket>>());
  const auto pong = peer.NextControl(Control::kPong);
  ASSERT_TRUE(pong);
  EXPECT_EQ(pong->value, kPings);
}

TEST_F(ConnectionTest, DoesNotBelieveAPongToAPingThatItNeverSent) {
  Start();
  for (const uint64_t value : {~uint64_t{0}, uint64_t{1} << 63, (uint64_t{1} << 63) - 1}) {
    peer.Send(ControlBytes(Control::kPong, value));
  }
  peer.Send(ControlBytes(Control::kPing, 1));
  EXPECT_TRUE(peer.NextControl(Control::kPong));
  EXPECT_EQ(connection->round_trip(), 0ns);
}

// ---- Pings ----

TEST_F(ConnectionTest, MeasuresTheRoundTripWithItsFirstPing) {
  Start();
  const auto ping = peer.NextControl(Control::kPing);
  ASSERT_TRUE(ping);
  peer.Send(ControlBytes(Control::kPong, ping->value));
  EXPECT_TRUE(Eventually([&] { return connection->round_trip() > 0ns; }));
  EXPECT_LT(connection->round_trip(), 10s);
}

TEST_F(ConnectionTest, KeepsTheShortestRoundTripWhenALaterPingWaitsForOthers) {
  Start();
  const auto ping = peer.NextControl(Control::kPing);
  ASSERT_TRUE(ping);
  EXPECT_EQ(connection->shortest_round_trip(), 0ns);
  peer.Send(ControlBytes(Control::kPong, ping->value));
  ASSERT_TRUE(Eventually([&] { return connection->round_trip() > 0ns; }));
  const auto first = connection->round_trip();
  peer.Send(ControlBytes(Control::kPong, ping->value - 1'000'000'000));
  ASSERT_TRUE(Eventually([&] { return connection->round_trip() > first; }));
  EXPECT_EQ(connection->shortest_round_trip(), first);
}

TEST_F(ConnectionTest, GivesUpALineOnWhichNothingArrives) {
  Start(kWindow, kWindow, kShort);
  const auto how = AwaitEnding();
  EXPECT_EQ(how.kind, Ending::Kind::kDropped);
  EXPECT_EQ(how.text, "the line is dead");
  int pings = 0;
  while (peer.NextControl(Control::kPing, 0ms)) ++pings;
  EXPECT_GE(pings, 3);
}

TEST_F(ConnectionTest, KeepsALineOnWhichPongsArrive) {
  // A busy machine may hold a pong up for half a second.
  constexpr LineTimes kTimes{.ping_interval = 20ms, .dead_after = 1s, .goodbye = 100ms};
  Start(kWindow, kWindow, kTimes);
  for (const auto end = std::chrono::steady_clock::now() + 1500ms;
       std::chrono::steady_clock::now() < end;) {
    const auto ping = peer.NextControl(Control::kPing);
    ASSERT_TRUE(ping);
    peer.Send(ControlBytes(Control::kPong, ping->value));
  }
  EXPECT_TRUE(connection->SendWhenRoom(PacketOf(100)));
  EXPECT_TRUE(peer.NextOf<std::unique_ptr<CpdPacket>>());
}

// ---- Ends ----

TEST_F(ConnectionTest, ReportsTheOtherSidesGoodbye) {
  Start();
  peer.Send(ControlBytes(Control::kBye, 0, "the user ended it \x1b[2J"));
  const auto how = AwaitEnding();
  EXPECT_EQ(how.kind, Ending::Kind::kFarewell);
  EXPECT_EQ(how.farewell, Farewell::kDone);
  EXPECT_EQ(how.text, "the other side: the user ended it ?[2J");
}

TEST_F(ConnectionTest, SaysGoodbyeAfterAllThatWasSent) {
  Start();
  for (int i = 0; i < 4; ++i) connection->Send(PacketOf(kQuarter));
  connection->SayGoodbye(Farewell::kDone, std::string(kLongestText + 10, 'b'));
  connection->SayGoodbye(Farewell::kFailed, "a second one");
  auto closed = std::async(std::launch::async, [&] { connection->Close(); });
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(peer.NextOf<std::unique_ptr<CpdPacket>>());
  const auto bye = peer.NextControl(Control::kBye);
  ASSERT_TRUE(bye);
  EXPECT_EQ(bye->value, 0U);
  EXPECT_EQ(bye->text, std::string(kLongestText, 'b'));
  closed.get();
  EXPECT_EQ(AwaitEnding().kind, Ending::Kind::kClosed);
  EXPECT_TRUE(peer.IsClosed());
}

TEST_F(ConnectionTest, ClosesEvenIfThePeerDoesNotReadTheGoodbye) {
  Start(kWindow, kWindow, {.goodbye = 50ms});
  for (int i = 0; i < 4; ++i) connection->Send(PacketOf(kQuarter));
  connection->SayGoodbye(Farewell::kDone, "");
  EXPECT_EQ(AwaitEnding().kind, Ending::Kind::kClosed);
}

TEST_F(ConnectionTest, DropsTheLineWhenItIsGivenUp) {
  Start();
  connection->GiveUp("enough");
  EXPECT_EQ(AwaitEnding().kind, Ending::Kind::kDropped);
  EXPECT_TRUE(peer.IsClosed());
}

TEST_F(ConnectionTest, NoticesThatTheLineCloses) {
  Start();
  peer.Send(BytesOfPacket(*PacketOf(100)).substr(0, 50));
  peer.Close();
  const auto how = AwaitEnding();
  EXPECT_EQ(how.kind, Ending::Kind::kDropped);
  EXPECT_EQ(how.text, "the line closed");
  EXPECT_EQ(Received(), 0U);
}

TEST_F(ConnectionTest, EndsAWaitForRoomWhenItIsClosed) {
  Start();
  connection->Send(PacketOf(2 * kWindow));
  auto waiting =
      std::async(std::launch::async, [&] { return connection->SendWhenRoom(PacketOf(100)); });
  EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
  connection->Close();
  EXPECT_FALSE(waiting.get());
  EXPECT_EQ(AwaitEnding().kind, Ending::Kind::kClosed);
}

TEST_F(ConnectionTest, IgnoresCallsAfterItsEnd) {
  Start();
  peer.Close();
  AwaitEnding();
  connection->Send(PacketOf(100));
  connection->Taken(kWindow);
  connection->SayGoodbye(Farewell::kDone, "");
  connection->GiveUp("enough");
  EXPECT_FALSE(connection->SendWhenRoom(PacketOf(100)));
}

}  // namespace
}  // namespace cpd::host
