// What a session makes of notices that changes were made on the disk.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "remote/notice.h"
#include "remote/session.h"
#include "support/idle_driver.h"
#include "support/line_peer.h"
#include "wire.h"

namespace cpd::host {
namespace {

using What = Notice::What;

/// Keeps the headers of requests until the test has them answered.
class HeldDriver : public test::IdleDriver {
 public:
  int onEvent(std::unique_ptr<CpdPacket> packet, int /*flags*/) override {
    requests.push_back(*packet->header);
    return 0;
  }
  std::vector<CpdPacketHeader> requests;
};

class SessionNotices : public testing::Test {
 protected:
  SessionNotices() {
    session.Start(&channel);
    session.Listen([this](const Notice& notice) {
      events.push_back(notice.what == What::kAll ? "all" : notice.path);
    });
  }
  ~SessionNotices() override { session.Stop(); }

  void Ask() {
    session.Ask(
        std::make_unique<CpdPacket>(std::move(*test::PacketOf(40, kGetFileAttr))),
        [this](const auto& reply) { events.emplace_back(reply == nullptr ? "none" : "answer"); });
  }
  void Answer() {
    const auto request = driver.requests.front();
    driver.requests.erase(driver.requests.begin());
    session.Receive(std::make_unique<CpdPacket>(
        std::move(*test::PacketOf(40, request.cmd, request.requestId))));
  }
  void Tell(const std::string& path) { session.Receive(Notice{.what = What::kFile, .path = path}); }

  HeldDriver driver;
  DriverChannel channel{driver};
  Session session{std::chrono::seconds(60)};
  std::vector<std::string> events;
};

TEST_F(SessionNotices, AreToldAtOnceAndAgainAfterTheNextAnswerOnly) {
  Ask();
  Ask();
  Tell("/a");
  Tell("/b");
  Answer();
  Answer();
  EXPECT_EQ(events, (std::vector<std::string>{"/a", "/b", "answer", "/a", "/b", "answer"}));
  EXPECT_EQ(session.savings().told, 2U);
}

TEST_F(SessionNotices, TellOfAllChangesUntilTheLastAnsweredRequestWasSent) {
  Ask();
  const auto between = Session::Clock::now();
  Ask();
  Answer();
  EXPECT_LE(session.told_until(), between);
  Answer();
  EXPECT_GE(session.told_until(), between);
  EXPECT_LE(session.told_until(), Session::Clock::now());
}

TEST_F(SessionNotices, BecomeOneOfEverythingWhenTooManyComeBetweenTwoAnswers) {
  Ask();
  for (int i = 0; i < 10'000; ++i) Tell("/a");
  events.clear();
  Answer();
  ASSERT_GE(events.size(), 2U);
  EXPECT_EQ(events[0], "answer");
  EXPECT_EQ(events[1], "all");
  EXPECT_LT(events.size(), 2'000U);
}

TEST_F(SessionNotices, SayOnAnotherChannelThatChangesMayHaveGoneUnnoticed) {
  Tell("/a");
  session.Break();
  session.Start(&channel);
  Ask();
  Answer();
  EXPECT_EQ(events, (std::vector<std::string>{"/a", "all", "answer"}));
}

TEST_F(SessionNotices, AreOverOnceTheSessionHasStopped) {
  Ask();
  Tell("/a");
  session.Stop();
  Tell("/b");
  Answer();
  EXPECT_EQ(events, (std::vector<std::string>{"/a", "none"}));
}

}  // namespace
}  // namespace cpd::host
