#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "support/operator_fixture.h"
#include "support/virtual_clock.h"

namespace cpd::test {
namespace {

using Sleeps = std::vector<int64_t>;

constexpr char kMode[] = "TESSEL_CPD_CLIENT_THROTTLE_LEGACY";
constexpr char kForce[] = "TESSEL_CPD_CLIENT_FORCE_BW";

class ThrottleTest : public OperatorTest {
 protected:
  ~ThrottleTest() override {
    unsetenv(kMode);
    unsetenv(kForce);
  }

  void Announce(uint32_t kbps) {
    udisk->BusEventHandle(Request{.cmd = kBusReadBandwidth, .payload = BytesOf(kbps)}.Packet());
  }
  /// Paces one read. @return its sleeps
  Sleeps Read(uint32_t bytes) { return Pace(bytes, BulkRead::kFile); }
  Sleeps ReadSmallFiles(uint32_t bytes) { return Pace(bytes, BulkRead::kSmallFiles); }

  VirtualClock clock;

 private:
  Sleeps Pace(uint32_t bytes, BulkRead kind) {
    udisk->throttleRead(bytes, kind);
    return clock.TakeSleepsMs();
  }
};

// ---- Throttle mode ----

class ThrottleModeTest : public ThrottleTest {
 protected:
  /// The line that an operator made with these variables logs; null = unset.
  std::string ModeLine(const char* mode, const char* force) {
    unsetenv(kMode);
    unsetenv(kForce);
    if (mode != nullptr) setenv(kMode, mode, 1);
    if (force != nullptr) setenv(kForce, force, 1);
    Log().Clear();
    MakeOperator();
    const std::vector<std::string> messages = Log().Messages(kDebug);
    EXPECT_EQ(messages.size(), 2U) << "the mode, and whether paths are confined";
    return messages.empty() ? "" : messages[0];
  }
};

TEST_F(ThrottleModeTest, WithoutVariablesIsLegacy) {
  EXPECT_EQ(ModeLine(nullptr, nullptr), "[UDisk] throttle mode=LEGACY, FORCE_BW=not set");
  EXPECT_TRUE(udisk->legacyThrottle);
  EXPECT_EQ(udisk->forceBw, 0);
}

TEST_F(ThrottleModeTest, ZeroOrAnythingButANumberChoosesTheTokenBucket) {
  for (const char* text : {"0", "no", "", "0x1"}) {
    EXPECT_EQ(ModeLine(text, nullptr), "[UDisk] throttle mode=TOKEN_BUCKET, FORCE_BW=not set")
        << text;
    EXPECT_FALSE(udisk->legacyThrottle) << text;
  }
}

TEST_F(ThrottleModeTest, AnotherNumberKeepsLegacy) {
  for (const char* text : {"1", "2", "-1", "7up"}) {
    EXPECT_EQ(ModeLine(text, nullptr), "[UDisk] throttle mode=LEGACY, FORCE_BW=not set") << text;
    EXPECT_TRUE(udisk->legacyThrottle) << text;
  }
}

TEST_F(ThrottleModeTest, ForcedBandwidthIsLoggedUnchanged) {
  const std::vector<std::pair<std::string, int32_t>> forced = {
      {"2000", 2000}, {"12 kbps", 12}, {"fast", 0}, {"0", 0}, {"", 0}};
  for (const auto& [text, kbps] : forced) {
    EXPECT_EQ(ModeLine(nullptr, text.c_str()), "[UDisk] throttle mode=LEGACY, FORCE_BW=" + text);
    EXPECT_EQ(udisk->forceBw, kbps) << text;
  }
}

TEST_F(ThrottleModeTest, IsFixedForTheOperatorsLife) {
  ModeLine("0", "2000");
  setenv(kMode, "1", 1);
  setenv(kForce, "3000", 1);
  Read(1);
  EXPECT_FALSE(udisk->legacyThrottle);
  EXPECT_EQ(udisk->readBwKbps, 2000U);
}

// ---- Freshness ----

class FreshnessTest : public ThrottleTest {};

TEST_F(FreshnessTest, WithoutABandwidthNothingIsPaced) {
  EXPECT_EQ(Read(UINT32_MAX), Sleeps{});
  EXPECT_EQ(udisk->legacyBytes, 0U);
}

TEST_F(FreshnessTest, AnUnpacedReadReadsTheClockOnce) {
  Read(1);
  EXPECT_EQ(clock.Readings(), 1);
}

TEST_F(FreshnessTest, AReadRecordsItsTime) {
  Read(1);
  EXPECT_EQ(udisk->lastReadMs, clock.NowMs());
}

TEST_F(FreshnessTest, ABandwidthHoldsFor5000Milliseconds) {
  Announce(8000);
  clock.Advance(5000);
  EXPECT_EQ(Read(512'000), Sleeps{500});
  EXPECT_EQ(udisk->readBwKbps, 8000U);
}

TEST_F(FreshnessTest, ABandwidthIsDroppedAfter5001Milliseconds) {
  Announce(8000);
  clock.Advance(5001);
  EXPECT_EQ(Read(512'000), Sleeps{});
  EXPECT_EQ(udisk->readBwKbps, 0U);
  EXPECT_EQ(udisk->legacyBytes, 0U);
}

TEST_F(FreshnessTest, ABandwidthHoldsAsLongForSmallFiles) {
  Announce(8000);
  clock.Advance(5000);
  EXPECT_EQ(ReadSmallFiles(512'000), Sleeps{500});
  Announce(8000);
  clock.Advance(5001);
  EXPECT_EQ(ReadSmallFiles(512'000), Sleeps{});
  EXPECT_EQ(udisk->readBwKbps, 0U);
}

TEST_F(FreshnessTest, AnnouncingZeroTurnsPacingOff) {
  Announce(8000);
  Announce(0);
  EXPECT_EQ(Read(512'000), Sleeps{});
}

TEST_F(FreshnessTest, ABandwidthSurvivesAClockThatIsSetBack) {
  Announce(8000);
  clock.Advance(-1'000'000);
  EXPECT_EQ(Read(512'000), Sleeps{500});
}

TEST_F(FreshnessTest, AForcedBandwidthHoldsWhateverIsAnnounced) {
  udisk->forceBw = 8000;
  Announce(20'000);
  clock.Advance(60'000);
  EXPECT_EQ(Read(512'000), Sleeps{500});
  EXPECT_EQ(udisk->readBwKbps, 8000U);
  Announce(0);
  udisk->legacyBytes = 0;
  EXPECT_EQ(Read(512'000), Sleeps{500});
}

TEST_F(FreshnessTest, AFileReadForcesTheBandwidthAtItsOwnTime) {
  udisk->forceBw = 8000;
  clock.TickPerReading(1);
  Read(1);
  EXPECT_EQ(udisk->lastBwUpdateMs, udisk->lastReadMs);
}

TEST_F(FreshnessTest, SmallFilesDropAStaleBandwidthAndThenForceOneAtAFreshTime) {
  udisk->forceBw = 8000;
  udisk->readBwKbps = 20'000;  // stale: nothing was ever announced
  const int64_t begin = clock.NowMs();
  clock.TickPerReading(1);
  EXPECT_EQ(ReadSmallFiles(512'000), Sleeps{500});
  EXPECT_EQ(udisk->readBwKbps, 8000U);
  EXPECT_EQ(udisk->lastBwUpdateMs, begin + 1) << "the second reading";
  EXPECT_EQ(udisk->lastReadMs, 0) << "only file reads record it";
}

// ---- Legacy ----

class LegacyThrottleTest : public ThrottleTest {
 protected:
  /// Expects `allowance` to be the smallest read that sleeps in a new period, and the sleep to be
  /// `period_ms`.
  void ExpectPeriod(uint32_t kbps, uint32_t allowance, int64_t period_ms) {
    Announce(kbps);
    udisk->legacyBytes = 0;
    EXPECT_EQ(Read(allowance - 1), Sleeps{}) << kbps;
    EXPECT_EQ(udisk->legacyBytes, allowance - 1) << kbps;
    udisk->legacyBytes = 0;
    EXPECT_EQ(Read(allowance), Sleeps{period_ms}) << kbps;
  }
};

TEST_F(LegacyThrottleTest, SleepsOnceTheAllowanceOfThePeriodIsUsedUpAtEachBandwidth) {
  ExpectPeriod(1000, 64'000, 500);
  ExpectPeriod(8000, 512'000, 500);
  ExpectPeriod(16'000, 102'400, 50);
  ExpectPeriod(100'000, 640'000, 50);
}

TEST_F(LegacyThrottleTest, ShortensThePeriodAbove10240Kbps) {
  ExpectPeriod(10'240, 655'360, 500);
  ExpectPeriod(10'241, 65'536, 50);
}

TEST_F(LegacyThrottleTest, CalculatesTheAllowanceIn32Bits) {
  ExpectPeriod(0x02000008, 51, 50);
  ExpectPeriod(0xffffffff, 0xfffffc00U / 20, 50);
}

TEST_F(LegacyThrottleTest, CountsBytesIn32Bits) {
  Announce(8000);
  udisk->legacyBytes = 10;
  EXPECT_EQ(Read(UINT32_MAX), Sleeps{});
  EXPECT_EQ(udisk->legacyBytes, 9U);
}

TEST_F(LegacyThrottleTest, AFileReadThatSleptCountsTowardsTheNextPeriod) {
  Announce(8000);
  Read(500'000);
  EXPECT_EQ(Read(20'000), Sleeps{500});
  EXPECT_EQ(udisk->legacyBytes, 20'000U);
}

TEST_F(LegacyThrottleTest, SmallFilesThatSleptDoNotCountTowardsTheNextPeriod) {
  Announce(8000);
  ReadSmallFiles(500'000);
  EXPECT_EQ(ReadSmallFiles(20'000), Sleeps{500});
  EXPECT_EQ(udisk->legacyBytes, 0U);
}

TEST_F(LegacyThrottleTest, ARunOfReadsSleepsOnTheEighthThenOnEverySeventh) {
  std::vector<int> slept;
  for (int i = 1; i <= 30; ++i) {
    Announce(8000);
    if (!Read(65'536).empty()) slept.push_back(i);
  }
  EXPECT_EQ(slept, (std::vector<int>{8, 15, 22, 29}));
}

TEST_F(LegacyThrottleTest, ARunOfSmallFilesSleepsOnEveryEighth) {
  std::vector<int> slept;
  for (int i = 1; i <= 30; ++i) {
    Announce(8000);
    if (!ReadSmallFiles(65'536).empty()) slept.push_back(i);
  }
  EXPECT_EQ(slept, (std::vector<int>{8, 16, 24}));
}

TEST_F(LegacyThrottleTest, TheOverrunOfASleepShortensTheNext) {
  Announce(8000);
  clock.OversleepBy(30);
  EXPECT_EQ(Read(512'000), Sleeps{500});
  EXPECT_EQ(udisk->legacyOverrunMs, 30);
  clock.OversleepBy(0);
  EXPECT_EQ(Read(512'000), Sleeps{470});
  EXPECT_EQ(udisk->legacyOverrunMs, 0);
}

TEST_F(LegacyThrottleTest, AnOverrunOfAPeriodOrMoreSkipsTheSleepButStartsANewPeriod) {
  Announce(8000);
  udisk->legacyOverrunMs = 499;
  EXPECT_EQ(Read(512'000), Sleeps{1});
  udisk->legacyOverrunMs = 500;
  udisk->legacyBytes = 500'000;
  EXPECT_EQ(Read(12'000), Sleeps{});
  EXPECT_EQ(udisk->legacyBytes, 12'000U);
  EXPECT_EQ(udisk->legacyOverrunMs, 0);

  Announce(16'000);
  udisk->legacyBytes = 0;
  udisk->legacyOverrunMs = 49;
  EXPECT_EQ(Read(102'400), Sleeps{1});
  udisk->legacyOverrunMs = 50;
  EXPECT_EQ(Read(102'400), Sleeps{});
}

TEST_F(LegacyThrottleTest, AnOverrunBeginsOneMillisecondPastThePeriod) {
  Announce(8000);
  EXPECT_EQ(Read(512'000), Sleeps{500});
  EXPECT_EQ(udisk->legacyOverrunMs, 0);
  clock.OversleepBy(1);
  EXPECT_EQ(Read(512'000), Sleeps{500});
  EXPECT_EQ(udisk->legacyOverrunMs, 1);

  Announce(16'000);
  udisk->legacyOverrunMs = 0;
  EXPECT_EQ(Read(102'400), Sleeps{50});
  EXPECT_EQ(udisk->legacyOverrunMs, 1);
}

TEST_F(LegacyThrottleTest, ACallThatTakesLongWithoutASleepIsAnOverrunToo) {
  Announce(8000);
  clock.TickPerReading(600);
  EXPECT_EQ(Read(1), Sleeps{});
  EXPECT_EQ(udisk->legacyOverrunMs, 100);
  clock.TickPerReading(0);
  EXPECT_EQ(Read(1), Sleeps{});
  EXPECT_EQ(udisk->legacyOverrunMs, 0) << "and a quick one clears it";
}

TEST_F(LegacyThrottleTest, AClockThatIsSetBackDuringASleepIsNotAnOverrun) {
  Announce(8000);
  udisk->legacyOverrunMs = 7;
  clock.OversleepBy(-3'600'000);
  EXPECT_EQ(Read(512'000), Sleeps{493});
  EXPECT_EQ(udisk->legacyOverrunMs, 0);
}

TEST_F(LegacyThrottleTest, ABandwidthThatIsWithdrawnInTheMiddleOfAReadHoldsForAllOfIt) {
  for (const BulkRead kind : {BulkRead::kFile, BulkRead::kSmallFiles}) {
    // Small files read the clock once more before they look at the bandwidth.
    const int looked_at_after = kind == BulkRead::kFile ? 1 : 2;
    for (int withdrawn_at = 1; withdrawn_at <= looked_at_after + 2; ++withdrawn_at) {
      for (const uint32_t bytes : {1U, 102'400U}) {  // below the allowance, and all of it
        SCOPED_TRACE(withdrawn_at);
        MakeOperator();
        Announce(16'000);
        int reading = 0;
        clock.OnReading([&] {
          if (++reading == withdrawn_at) udisk->readBwKbps = 0;
        });
        const Sleeps slept = kind == BulkRead::kFile ? Read(bytes) : ReadSmallFiles(bytes);
        clock.OnReading(nullptr);
        EXPECT_GE(reading, withdrawn_at);
        const bool paced = withdrawn_at > looked_at_after && bytes > 1;
        EXPECT_EQ(slept, paced ? Sleeps{50} : Sleeps{});
      }
    }
  }
}

TEST_F(LegacyThrottleTest, KeepsItsCountWhileThereIsNoBandwidth) {
  Announce(8000);
  Read(500'000);
  Announce(0);
  Read(500'000);
  EXPECT_EQ(udisk->legacyBytes, 500'000U);
  Announce(8000);
  EXPECT_EQ(Read(12'000), Sleeps{500});
}

// ---- Token bucket: the rate ----

TEST(TokenBucketRate, IsAnEighthOfTheBandwidthAndTheBurst200MillisecondsButAtLeast256KiB) {
  struct Rate {
    uint32_t kbps;
    int64_t refill_per_ms;
    int64_t capacity;
  };
  for (const Rate& rate :
       {Rate{4000, 500, 262'144}, Rate{20'000, 2500, 500'000}, Rate{7, 1, 262'144},
        Rate{8, 1, 262'144}, Rate{10'480, 1310, 262'144}, Rate{10'488, 1311, 262'200},
        Rate{UINT32_MAX, 536'870'911, 107'374'182'200}}) {
    TokenBucket bucket;
    bucket.updateRate(rate.kbps);
    EXPECT_EQ(bucket.refillPerMs, rate.refill_per_ms) << rate.kbps;
    EXPECT_EQ(bucket.capacity, rate.capacity) << rate.kbps;
    EXPECT_EQ(bucket.bw, rate.kbps);
  }
}

TEST(TokenBucketRate, IsLoggedBeforeItIsRaisedToOne) {
  TokenBucket bucket;
  Log().Clear();
  bucket.updateRate(4000);
  bucket.updateRate(7);
  EXPECT_EQ(
      Log().Messages(),
      (std::vector<std::string>{"[TokenBucket] updateRate: 4000 kbps -> refillPerMs=500, oldBw=0",
                                "[TokenBucket] updateRate: 7 kbps -> refillPerMs=0, oldBw=4000"}));
  const LogLine line = Log().Lines().at(0);
  EXPECT_EQ(line.level, kDebug);
  EXPECT_EQ(line.file, "operator.h");
  EXPECT_EQ(line.function, "updateRate");
}

TEST(TokenBucketRate, IsNotDerivedAgainForTheSameBandwidth) {
  TokenBucket bucket;
  bucket.updateRate(4000);
  bucket.refillPerMs = 17;
  Log().Clear();
  bucket.updateRate(4000);
  EXPECT_EQ(bucket.refillPerMs, 17);
  EXPECT_TRUE(Log().Lines().empty());
}

TEST(TokenBucketRate, KeepsTokensAndTheTimeOfTheLastRefill) {
  TokenBucket bucket;
  bucket.tokens = 123'456'789;
  bucket.lastRefillMs = 42;
  bucket.updateRate(4000);
  EXPECT_EQ(bucket.tokens, 123'456'789);
  EXPECT_EQ(bucket.lastRefillMs, 42);
}

// ---- Token bucket: consuming ----

class TokenBucketTest : public ::testing::Test {
 protected:
  TokenBucketTest() { bucket.updateRate(4000); }

  Sleeps Consume(uint32_t bytes) {
    bucket.consume(bytes);
    return clock.TakeSleepsMs();
  }
  /// Makes the bucket full and starts the summary period now.
  void Open() {
    Consume(0);
    Log().Clear();
  }

  VirtualClock clock;
  TokenBucket bucket;
};

TEST_F(TokenBucketTest, UnconfiguredDoesNothing) {
  TokenBucket fresh;
  fresh.consume(1'000'000);
  EXPECT_EQ(clock.TakeSleepsMs(), Sleeps{});
  EXPECT_EQ(fresh.tokens, 0);
  EXPECT_EQ(fresh.totalBytes, 0);
  EXPECT_EQ(fresh.calls, 0);
  EXPECT_EQ(fresh.lastRefillMs, 0);
}

TEST_F(TokenBucketTest, StartsFull) {
  EXPECT_EQ(Consume(262'144), Sleeps{});
  EXPECT_EQ(bucket.tokens, 0);
  EXPECT_EQ(bucket.lastRefillMs, clock.NowMs());
  EXPECT_EQ(bucket.totalBytes, 262'144);
}

TEST_F(TokenBucketTest, ADeficitOf37856BytesSleeps76Milliseconds) {
  EXPECT_EQ(Consume(300'000), Sleeps{76});
  EXPECT_EQ(bucket.tokens, -37'856 + 76 * 500);
  EXPECT_EQ(bucket.lastRefillMs, clock.NowMs());
}

TEST_F(TokenBucketTest, ADeficitAtTheLowestRateSleepsAMillisecondForEachByte) {
  bucket.updateRate(1);
  EXPECT_EQ(Consume(262'144 + 50), Sleeps{50});
  EXPECT_EQ(bucket.tokens, 0);
}

TEST_F(TokenBucketTest, ADeficitOf15000BytesIsCarried) {
  EXPECT_EQ(Consume(262'144 + 15'000), Sleeps{});
  EXPECT_EQ(bucket.tokens, -15'000);
  EXPECT_EQ(bucket.carries, 1);
  EXPECT_EQ(bucket.sleeps, 0);
}

TEST_F(TokenBucketTest, SleepsWhenTheDebtIs32MillisecondsOrMore) {
  EXPECT_EQ(Consume(262'144 + 31 * 500), Sleeps{});
  EXPECT_EQ(Consume(1), Sleeps{32});
}

TEST_F(TokenBucketTest, ACarriedDeficitIsPaidOffByLaterRefills) {
  Consume(262'144 + 15'000);
  clock.Advance(20);
  Consume(0);
  EXPECT_EQ(bucket.tokens, -5000);
  clock.Advance(20);
  Consume(0);
  EXPECT_EQ(bucket.tokens, 5000);
}

TEST_F(TokenBucketTest, ACarriedDeficitIsSleptOffByALaterCall) {
  Consume(262'144 + 15'000);
  EXPECT_EQ(Consume(15'000), Sleeps{60});
}

TEST_F(TokenBucketTest, IsRefilledUpToItsCapacity) {
  Consume(200'000);
  clock.Advance(1);
  Consume(0);
  EXPECT_EQ(bucket.tokens, 62'144 + 500);
  clock.Advance(1'000'000);
  Consume(0);
  EXPECT_EQ(bucket.tokens, 262'144);
}

TEST_F(TokenBucketTest, IsNotRefilledWithinAMillisecondOrWhenTheClockIsSetBack) {
  Consume(200'000);
  Consume(0);
  EXPECT_EQ(bucket.tokens, 62'144);
  clock.Advance(-1000);
  Consume(0);
  EXPECT_EQ(bucket.tokens, 62'144);
  EXPECT_EQ(bucket.lastRefillMs, clock.NowMs());
}

TEST_F(TokenBucketTest, ARefillCapsTokensThatALargerBucketLeft) {
  bucket.updateRate(20'000);
  Consume(0);
  bucket.updateRate(4000);
  Consume(0);
  EXPECT_EQ(bucket.tokens, 500'000) << "until the next refill";
  clock.Advance(1);
  Consume(0);
  EXPECT_EQ(bucket.tokens, 262'144);
}

TEST_F(TokenBucketTest, RefillsByTheTimeThatItReallySlept) {
  clock.OversleepBy(4);
  Consume(300'000);
  EXPECT_EQ(bucket.tokens, -37'856 + 80 * 500);
}

TEST_F(TokenBucketTest, AClockThatIsSetBackDuringASleepTakesTokensAway) {
  clock.OversleepBy(-176);
  EXPECT_EQ(Consume(300'000), Sleeps{76});
  EXPECT_EQ(bucket.tokens, -37'856 - 100 * 500);
}

TEST_F(TokenBucketTest, CountsCallsSleepsCarriesAndSleptTime) {
  Open();
  Consume(100);
  Consume(262'044 + 15'000);
  clock.OversleepBy(5);
  Consume(15'000);
  EXPECT_EQ(bucket.calls, 3);
  EXPECT_EQ(bucket.carries, 1);
  EXPECT_EQ(bucket.sleeps, 1);
  EXPECT_EQ(bucket.totalSlept, 65);
  EXPECT_EQ(bucket.totalBytes, 262'144 + 30'000);
}

TEST_F(TokenBucketTest, SurvivesAClockThatJumpsFarInEitherDirection) {
  constexpr int64_t kFarMs = INT64_MAX / 2000;
  bucket.updateRate(UINT32_MAX);
  for (const int64_t now : {int64_t{1}, kFarMs, -kFarMs, kFarMs, int64_t{0}, -kFarMs}) {
    clock.Set(now);
    bucket.consume(UINT32_MAX);
    EXPECT_LE(bucket.tokens, bucket.capacity) << now;
  }
  clock.Set(0);
  clock.OversleepBy(-kFarMs);
  bucket.tokens = -100 * bucket.refillPerMs;
  bucket.lastRefillMs = 1;
  bucket.consume(UINT32_MAX);
  clock.OversleepBy(kFarMs);
  bucket.consume(UINT32_MAX);
  EXPECT_LE(bucket.tokens, bucket.capacity);
}

// ---- Token bucket: the summary ----

TEST_F(TokenBucketTest, SummaryByteForByte) {
  Open();
  clock.Advance(1000);
  EXPECT_EQ(Consume(300'000), Sleeps{76});
  clock.Advance(1);
  EXPECT_EQ(Consume(15'144), Sleeps{});
  clock.Advance(3923);
  EXPECT_EQ(Consume(100'000), Sleeps{});
  EXPECT_EQ(Log().Messages(),
            std::vector<std::string>{
                "[TokenBucket] SUMMARY: throughput=81KB/s calls=3 sleeps=1 carries=1 "
                "totalSlept=76ms bw=4000kbps tokens=162144 refillPerMs=500"});
  EXPECT_EQ(Log().Lines().at(0).level, kDebug);
}

TEST_F(TokenBucketTest, SummaryOfTheMostThatCanBeCountedIsRight) {
  Open();
  bucket.totalBytes = INT64_MAX - 1;
  bucket.summaryStartBytes = 0;
  clock.Advance(5000);
  Consume(1);
  // (2^63 - 1) * 1000 / 5000 / 1024
  EXPECT_EQ(Log().Messages(),
            std::vector<std::string>{
                "[TokenBucket] SUMMARY: throughput=1801439850948198KB/s calls=1 sleeps=0 carries=0 "
                "totalSlept=0ms bw=4000kbps tokens=262143 refillPerMs=500"});
  Log().Clear();
  bucket.totalBytes = INT64_MIN;
  bucket.summaryStartBytes = INT64_MAX;
  clock.Advance(5000);
  Consume(0);
  ASSERT_EQ(Log().Messages().size(), 1U);
  EXPECT_TRUE(Log().Messages()[0].starts_with(
      "[TokenBucket] SUMMARY: throughput=-3602879701896396KB/s calls=1 "))
      << Log().Messages()[0];
}

TEST_F(TokenBucketTest, SummaryStartsANewPeriod) {
  Open();
  Consume(300'000);
  EXPECT_GT(bucket.totalSlept, 0);
  clock.Advance(5000);
  Consume(1000);
  EXPECT_EQ(bucket.lastSummaryMs, clock.NowMs());
  EXPECT_EQ(bucket.summaryStartBytes, 301'000);
  EXPECT_EQ(bucket.calls, 0);
  EXPECT_EQ(bucket.sleeps, 0);
  EXPECT_EQ(bucket.carries, 0);
  EXPECT_EQ(bucket.totalSlept, 0);
}

TEST_F(TokenBucketTest, FirstCallStartsAPeriodWithoutASummary) {
  Log().Clear();
  Consume(1000);
  EXPECT_TRUE(Log().Lines().empty());
  EXPECT_EQ(bucket.lastSummaryMs, clock.NowMs());
  EXPECT_EQ(bucket.calls, 0);
}

TEST_F(TokenBucketTest, SummaryIsLoggedAfter5000MillisecondsNotBefore) {
  Open();
  clock.Advance(4999);
  Consume(1);
  EXPECT_TRUE(Log().Lines().empty());
  clock.Advance(1);
  Consume(1);
  EXPECT_EQ(Log().Lines().size(), 1U);
}

TEST_F(TokenBucketTest, SummaryUsesTheTimeBeforeTheSleep) {
  Open();
  clock.Advance(4990);
  EXPECT_EQ(Consume(300'000), Sleeps{76});
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(TokenBucketTest, ACarriedDeficitDoesNotEndThePeriod) {
  Open();
  clock.Advance(5000);
  Consume(262'144 + 15'000);
  EXPECT_TRUE(Log().Lines().empty());
  EXPECT_EQ(bucket.calls, 1);
  EXPECT_EQ(bucket.lastSummaryMs, clock.NowMs() - 5000);
}

// ---- Token bucket in the operator ----

class TokenBucketReadTest : public ThrottleTest {
 protected:
  TokenBucketReadTest() { udisk->legacyThrottle = false; }
};

TEST_F(TokenBucketReadTest, UsesTheCurrentBandwidthAsItsRate) {
  Announce(4000);
  EXPECT_EQ(Read(300'000), Sleeps{76});
  EXPECT_EQ(udisk->tokenBucket.bw, 4000U);
  Announce(20'000);
  Read(1);
  EXPECT_EQ(udisk->tokenBucket.bw, 20'000U);
  EXPECT_EQ(udisk->legacyBytes, 0U);
}

TEST_F(TokenBucketReadTest, PacesSmallFilesInTheSameWay) {
  Announce(4000);
  EXPECT_EQ(ReadSmallFiles(300'000), Sleeps{76});
}

TEST_F(TokenBucketReadTest, ALongSleepEndsWithinASecondOnceTheDiskIsClosed) {
  Announce(1000);
  EXPECT_EQ(Read(262'144 + 125 * 2'500), (Sleeps{1000, 1000, 500}));
  clock.OnSleep([&] { udisk->tokenBucket.stopping = true; });
  EXPECT_EQ(Read(125 * 2'500), Sleeps{1000}) << "it was closed during the first second";
  EXPECT_EQ(Read(500'000'000), Sleeps{});
}

TEST_F(TokenBucketReadTest, KeepsItsDebtWhileThereIsNoBandwidth) {
  Announce(4000);
  Read(262'144 + 15'000);
  Announce(0);
  EXPECT_EQ(Read(1'000'000), Sleeps{});
  EXPECT_EQ(udisk->tokenBucket.tokens, -15'000);
  clock.Advance(1000);
  Announce(4000);
  Read(0);
  EXPECT_EQ(udisk->tokenBucket.tokens, 262'144) << "all the idle time, up to the capacity";
}

TEST_F(TokenBucketReadTest, IsNotConfiguredByAnUnpacedRead) {
  Read(1'000'000);
  EXPECT_EQ(udisk->tokenBucket.refillPerMs, 0);
  EXPECT_EQ(udisk->tokenBucket.totalBytes, 0);
}

}  // namespace
}  // namespace cpd::test
