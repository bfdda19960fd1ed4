// Tests of the test support, in places where a mistake would make other tests pass wrongly.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>

#include "cpd/log.h"
#include "support/fake_host.h"
#include "support/fake_sync.h"
#include "support/virtual_clock.h"

namespace cpd::test {
namespace {

int64_t WallClockMs() {
  timeval now = {};
  gettimeofday(&now, nullptr);
  return now.tv_sec * 1000 + now.tv_usec / 1000;
}

TEST(VirtualClock, StandsStillUntilItIsMoved) {
  VirtualClock clock(5000);
  EXPECT_EQ(WallClockMs(), 5000);
  clock.Advance(250);
  EXPECT_EQ(WallClockMs(), 5250);
  clock.TickPerReading(10);
  EXPECT_EQ(WallClockMs(), 5250);
  EXPECT_EQ(WallClockMs(), 5260);
  EXPECT_EQ(clock.Readings(), 4);
}

TEST(VirtualClock, SleepReturnsAtOnceAndMovesTheClock) {
  VirtualClock clock(5000);
  usleep(3'000'000);
  EXPECT_EQ(WallClockMs(), 8000);
  clock.OversleepBy(20);
  usleep(100'000);
  EXPECT_EQ(WallClockMs(), 8120);
  EXPECT_EQ(clock.TakeSleepsMs(), (std::vector<int64_t>{3000, 100}));
  EXPECT_TRUE(clock.TakeSleepsMs().empty());
}

TEST(VirtualClock, RestoresRealTimeWhenItEnds) {
  { VirtualClock clock(5000); }
  const int64_t before = static_cast<int64_t>(std::time(nullptr)) * 1000;
  EXPECT_GE(WallClockMs(), before - 1000);
  const int64_t begin = WallClockMs();
  usleep(20'000);
  EXPECT_GE(WallClockMs() - begin, 19);
}

TEST(LogRecorder, SplitsALineIntoItsParts) {
  Log().Clear();
  tesselLogPrint(0, kError, "CPD_LOG", "%s %s(%d): \"Error:\" \"took (%d) \\n\"", "a.cpp", "run",
                 12, 7);
  const std::vector<LogLine> lines = Log().Lines();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].raw, R"(a.cpp run(12): "Error:" "took (7) \n")");
  EXPECT_EQ(lines[0].file, "a.cpp");
  EXPECT_EQ(lines[0].function, "run");
  EXPECT_EQ(lines[0].line, 12);
  EXPECT_EQ(lines[0].word, "Error:");
  EXPECT_EQ(lines[0].message, R"(took (7) \n)");
  EXPECT_TRUE(Log().Has(kError, R"(took (7) \n)"));
  EXPECT_FALSE(Log().Has(kDebug, R"(took (7) \n)"));
}

TEST(FakeSync, CountsItsCalls) {
  const int before = SyncCalls();
  sync();
  EXPECT_EQ(SyncCalls(), before + 1);
}

}  // namespace
}  // namespace cpd::test
