// What a session measures of its driver, the probe that it sends to one that does not reply, and
// the end of its patience.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include "remote/session.h"
#include "support/idle_driver.h"
#include "support/line_peer.h"
#include "wire.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// Keeps the headers of requests, and replies to none by itself.
class SilentDriver : public test::IdleDriver {
 public:
  int onEvent(std::unique_ptr<CpdPacket> packet, int /*flags*/) override {
    const std::lock_guard lock(mutex_);
    requests_.push_back(*packet->header);
    changed_.notify_all();
    return 0;
  }
  /// Waits until there are that many requests. @return whether there are
  bool Await(size_t count, std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, limit, [&] { return requests_.size() >= count; });
  }
  CpdPacketHeader Request(size_t index) {
    const std::lock_guard lock(mutex_);
    return requests_.at(index);
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<CpdPacketHeader> requests_;
};

class SessionLimits : public testing::Test {
 protected:
  SessionLimits() { session.Start(&channel); }
  ~SessionLimits() override { session.Stop(); }

  void Ask() {
    session.Ask(std::make_unique<CpdPacket>(std::move(*test::PacketOf(40, kGetFileAttr))),
                [this](std::unique_ptr<CpdPacket> reply) {
                  const std::lock_guard lock(mutex);
                  ++answers;
                  replies += reply == nullptr ? 0 : 1;
                  answered.notify_all();
                });
  }
  bool AwaitAnswer(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex);
    return answered.wait_for(lock, limit, [this] { return answers > 0; });
  }
  void Reply(const CpdPacketHeader& request) {
    session.Receive(std::make_unique<CpdPacket>(
        std::move(*test::PacketOf(40, request.cmd, request.requestId))));
  }

  SilentDriver driver;
  DriverChannel channel{driver};
  Session session{0s};
  std::mutex mutex;
  std::condition_variable answered;
  int answers = 0;
  int replies = 0;
};

/// The way to the driver and back takes longer than the driver's work.
class LongChannel : public DriverChannel {
 public:
  using DriverChannel::DriverChannel;
  [[nodiscard]] std::chrono::nanoseconds transit() const override { return 20ms; }
};

TEST(SessionTimes, LeaveOutTheWayOfARequestThatWaitedForNoOther) {
  for (const bool is_long : {false, true}) {
    SilentDriver driver;
    DriverChannel direct(driver);
    LongChannel longer(driver);
    Session session(0s);
    session.Start(is_long ? &longer : &direct);
    Clock::duration took{};
    const auto asked = Clock::now();
    session.Ask(std::make_unique<CpdPacket>(std::move(*test::PacketOf(40, kGetFileAttr))),
                [&](const std::unique_ptr<CpdPacket>&) { took = session.time_of_answer(); });
    std::this_thread::sleep_for(30ms);
    session.Receive(std::make_unique<CpdPacket>(std::move(*test::PacketOf(40, kGetFileAttr, 1))));
    const auto elapsed = Clock::now() - asked;
    EXPECT_GE(took, is_long ? 10ms : 30ms);
    EXPECT_LE(took, is_long ? elapsed - 20ms : elapsed);
    session.Stop();
  }
}

TEST_F(SessionLimits, SendNoProbeForARequestThatIsAnsweredInTime) {
  Ask();
  Reply(driver.Request(0));
  EXPECT_TRUE(AwaitAnswer(1s));
  EXPECT_EQ(replies, 1);
  EXPECT_FALSE(driver.Await(2, 1500ms));
}

TEST_F(SessionLimits, SendAProbeAfterASecondAndTakeItsReplyAsProofThatNoEarlierOneComes) {
  const auto start = Clock::now();
  Ask();
  ASSERT_TRUE(driver.Await(2, 5s));
  EXPECT_GE(Clock::now() - start, 1s);
  EXPECT_FALSE(AwaitAnswer(0ms));
  EXPECT_EQ(driver.Request(1).cmd, kGetXattr);
  Reply(driver.Request(1));
  EXPECT_TRUE(AwaitAnswer(1s));
  EXPECT_EQ(replies, 0);
}

TEST_F(SessionLimits, EndTheWaitForADriverThatRepliesToNothing) {
  const auto start = Clock::now();
  Ask();
  EXPECT_TRUE(AwaitAnswer(30s));
  EXPECT_EQ(replies, 0);
  EXPECT_GE(Clock::now() - start, 10s) << "the module may pace a read for that long";
  EXPECT_FALSE(driver.Await(3, 0ms)) << "more than one probe is under way";
}

}  // namespace
}  // namespace cpd::host
