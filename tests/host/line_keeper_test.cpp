// The keeper of a line, given lines that drop, bring nonsense or say nothing.
#include "line/line_keeper.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
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

/// No frame begins like this.
constexpr const char* kNonsense = "nonsense that is longer than a header";

/// Gives the lines that the test has put in; throws when there is none.
class ScriptedLines : public LineSource {
 public:
  Line Next() override {
    const std::lock_guard lock(mutex_);
    if (is_stopped_ || lines_.empty()) throw std::runtime_error("no line");
    Line line = std::move(lines_.front());
    lines_.pop_front();
    return line;
  }
  std::string Finish() override {
    const std::lock_guard lock(mutex_);
    ++finished_;
    return "the command ended";
  }
  void Stop() override {
    const std::lock_guard lock(mutex_);
    is_stopped_ = true;
  }
  void Put(LinePeer& peer) {
    const std::lock_guard lock(mutex_);
    lines_.push_back(peer.TakeLine());
  }
  int finished() {
    const std::lock_guard lock(mutex_);
    return finished_;
  }

 private:
  std::mutex mutex_;
  std::deque<Line> lines_;
  bool is_stopped_ = false;
  int finished_ = 0;
};

/// Starts connections, and does nothing with them.
class IdleUser : public LineUser {
 public:
  [[nodiscard]] Hello OwnHello() const override { return HelloOf(Role::kDisk); }
  void Begin(Connection& connection, const Hello& /*theirs*/,
             std::function<void(const Ending&)> on_end) override {
    if (is_unable) throw std::runtime_error("the disk cannot be opened");
    connection.Start(
        {.packet = [](std::unique_ptr<CpdPacket>) {}, .room = [] {}, .ended = std::move(on_end)});
    ++begun;
  }
  void End(Connection& /*connection*/) override { ++ended; }

  bool is_unable = false;
  std::atomic<int> begun = 0;
  std::atomic<int> ended = 0;
};

class LineKeeperTest : public testing::Test {
 protected:
  LineKeeperTest() {
    for (LinePeer* peer : {&first, &second}) {
      source.Put(*peer);
      peer->Send(BytesOfRecord(HelloOf(Role::kRemote)));
    }
  }

  std::string WhyNotConnected(std::chrono::seconds limit = 10s) {
    LineKeeper keeper(source, user, limit, true);
    try {
      keeper.Connect();
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return {};
  }

  LinePeer first;
  LinePeer second;
  ScriptedLines source;
  IdleUser user;
  std::promise<Ending> ended;
};

TEST_F(LineKeeperTest, SetsUpAnotherLineWhenOneDrops) {
  LineKeeper keeper(source, user, 10s, true);
  keeper.Connect();
  keeper.Keep([this](const Ending& how) { ended.set_value(how); });
  EXPECT_TRUE(keeper.state().is_up);
  first.Close();
  EXPECT_TRUE(Eventually([&] { return user.begun == 2 && keeper.state().is_up; }));
  EXPECT_EQ(keeper.state().drops, 1U);
  EXPECT_EQ(user.ended, 1);
  EXPECT_EQ(source.finished(), 1);
  keeper.Finish(Farewell::kDone, "enough");
  const auto bye = second.NextControl(Control::kBye);
  ASSERT_TRUE(bye);
  EXPECT_EQ(bye->text, "enough");
  EXPECT_EQ(user.ended, 2);
  EXPECT_FALSE(keeper.state().is_up);
}

TEST_F(LineKeeperTest, KeepsTryingWhileThereIsNoLine) {
  LineKeeper keeper(source, user, 10s, true);
  keeper.Connect();
  keeper.Keep([](const Ending&) {});
  second.Close();  // the second line drops as soon as it begins, and there is no third one yet
  first.Close();
  EXPECT_TRUE(Eventually([&] { return source.finished() >= 2; }));
  LinePeer third;
  third.Send(BytesOfRecord(HelloOf(Role::kRemote)));
  source.Put(third);
  EXPECT_TRUE(third.NextControl(Control::kPing));
  EXPECT_TRUE(Eventually([&] { return keeper.state().is_up; }));
}

TEST_F(LineKeeperTest, GivesALineUpForANewerOne) {
  LineKeeper keeper(source, user, 10s, true);
  keeper.Connect();
  keeper.Keep([](const Ending&) {});
  keeper.GiveUpLine();
  EXPECT_TRUE(first.IsClosed());
  EXPECT_TRUE(second.NextControl(Control::kPing));
}

TEST_F(LineKeeperTest, EndsWhenTheOtherSideSaysGoodbye) {
  LineKeeper keeper(source, user, 10s, true);
  keeper.Connect();
  keeper.Keep([this](const Ending& how) { ended.set_value(how); });
  first.Send(ControlBytes(Control::kBye, 0, "unmounted"));
  const auto how = ended.get_future().get();
  EXPECT_EQ(how.kind, Ending::Kind::kFarewell);
  EXPECT_EQ(how.text, "the other side: unmounted");
  EXPECT_EQ(user.begun, 1);
}

TEST_F(LineKeeperTest, SetsUpAnotherLineWhenOneBringsNonsense) {
  LineKeeper keeper(source, user, 10s, true);
  keeper.Connect();
  keeper.Keep([](const Ending&) {});
  first.Send(kNonsense);
  EXPECT_TRUE(first.IsClosed());
  EXPECT_TRUE(Eventually([&] { return user.begun == 2; }));
  EXPECT_EQ(keeper.state().drops, 1U);
}

TEST_F(LineKeeperTest, GivesUpWhenEveryLineBringsNonsenseAndSaysSoOnTheLastOne) {
  LinePeer third;
  LinePeer fourth;
  for (LinePeer* peer : {&third, &fourth}) {
    source.Put(*peer);
    peer->Send(BytesOfRecord(HelloOf(Role::kRemote)));
  }
  for (LinePeer* peer : {&first, &second, &third, &fourth}) peer->Send(kNonsense);
  LineKeeper keeper(source, user, 10s, true);
  const auto begin = std::chrono::steady_clock::now();
  keeper.Connect();
  keeper.Keep([this](const Ending& how) { ended.set_value(how); });
  const auto how = ended.get_future().get();
  EXPECT_EQ(how.kind, Ending::Kind::kNonsense);
  EXPECT_TRUE(how.text.starts_with("the other side sent nonsense: ")) << how.text;
  EXPECT_EQ(user.begun, 4);
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 3s) << "it tried without pauses";
  EXPECT_FALSE(third.NextControl(Control::kBye));
  const auto bye = fourth.NextControl(Control::kBye);
  ASSERT_TRUE(bye);
  EXPECT_EQ(bye->value, static_cast<uint64_t>(Farewell::kFailed));
}

TEST_F(LineKeeperTest, GoesOnWhileEachLineBringsAPacketBeforeTheNonsense) {
  std::deque<LinePeer> others(4);
  std::vector<LinePeer*> peers{&first, &second};
  for (auto& other : others) {
    source.Put(other);
    other.Send(BytesOfRecord(HelloOf(Role::kRemote)));
    peers.push_back(&other);
  }
  for (const auto* peer : peers) {
    peer->Send(BytesOfPacket(*PacketOf(100)));
    peer->Send(kNonsense);
  }
  LineKeeper keeper(source, user, 10s, true);
  keeper.Connect();
  keeper.Keep([](const Ending&) {});
  EXPECT_TRUE(Eventually([&] { return user.begun == 6; }));
}

TEST_F(LineKeeperTest, PausesAfterTwoLinesThatDropWithoutAPacket) {
  LinePeer third;
  source.Put(third);
  third.Send(BytesOfRecord(HelloOf(Role::kRemote)));
  LineKeeper keeper(source, user, 10s, true);
  keeper.Connect();
  keeper.Keep([](const Ending&) {});
  const auto begin = std::chrono::steady_clock::now();
  first.Close();
  EXPECT_TRUE(Eventually([&] { return user.begun == 2; }));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 400ms);
  second.Close();
  EXPECT_TRUE(Eventually([&] { return user.begun == 3; }));
  EXPECT_GE(std::chrono::steady_clock::now() - begin, 500ms);
}

TEST_F(LineKeeperTest, EndsAtTheFirstDropWhenItDoesNotReconnect) {
  LineKeeper keeper(source, user, 10s, false);
  keeper.Connect();
  keeper.Keep([this](const Ending& how) { ended.set_value(how); });
  first.Close();
  EXPECT_EQ(ended.get_future().get().kind, Ending::Kind::kDropped);
  EXPECT_EQ(user.begun, 1);
}

TEST_F(LineKeeperTest, ExplainsWhyThereIsNoFirstLine) {
  LinePeer silent;
  ScriptedLines lines;
  lines.Put(silent);
  LineKeeper keeper(lines, user, 0s, true);
  try {
    keeper.Connect();
    FAIL();
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "the other side does not answer");
  }
}

TEST_F(LineKeeperTest, TellsTheOtherSideWhyItCannotBegin) {
  user.is_unable = true;
  EXPECT_EQ(WhyNotConnected(), "the disk cannot be opened");
  const auto bye = first.NextControl(Control::kBye);
  ASSERT_TRUE(bye);
  EXPECT_EQ(bye->value, static_cast<uint64_t>(Farewell::kFailed));
  EXPECT_EQ(bye->text, "the disk cannot be opened");
  EXPECT_TRUE(first.IsClosed());
}

TEST_F(LineKeeperTest, RefusesASideOfItsOwnRole) {
  ScriptedLines lines;
  LinePeer peer;
  lines.Put(peer);
  peer.Send(BytesOfRecord(HelloOf(Role::kDisk)));
  LineKeeper keeper(lines, user, 10s, true);
  EXPECT_THROW(keeper.Connect(), std::runtime_error);
  const auto bye = peer.NextControl(Control::kBye);
  ASSERT_TRUE(bye);
  EXPECT_EQ(bye->text, "both sides have the same role");
}

TEST_F(LineKeeperTest, FinishesAtOnceWhileItWaitsForAHello) {
  LinePeer silent;
  LinePeer up;
  ScriptedLines few;
  few.Put(up);
  few.Put(silent);
  up.Send(BytesOfRecord(HelloOf(Role::kRemote)));
  LineKeeper keeper(few, user, 10s, true);
  keeper.Connect();
  keeper.Keep([](const Ending&) {});
  up.Close();
  EXPECT_TRUE(silent.NextOf<Hello>());
  const auto begin = std::chrono::steady_clock::now();
  keeper.Finish(Farewell::kDone, "");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s);
}

}  // namespace
}  // namespace cpd::host
