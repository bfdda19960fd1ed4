// A capture's pace is kept, whatever times a forged one has.
#include "capture/pace.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <limits>

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr uint64_t kFirst = 1'700'000'000'000'000'000;
constexpr uint64_t kSecond = 1'000'000'000;
constexpr uint64_t kEnd = std::numeric_limits<uint64_t>::max();

TEST(Pace, KeepsTheIntervalsOfTheCapture) {
  const Pace::Clock::time_point begin{};
  Pace pace(kFirst, begin);
  EXPECT_EQ(pace.DueAt(kFirst), begin);
  EXPECT_EQ(pace.DueAt(kFirst + kSecond), begin + 1s);
  EXPECT_EQ(pace.DueAt(kFirst + 60 * kSecond), begin + 60s);
}

TEST(Pace, ShortensLongPausesAndKeepsTheIntervalsAfterThem) {
  const Pace::Clock::time_point begin{};
  Pace pace(kFirst, begin);
  EXPECT_EQ(pace.DueAt(kFirst + 3600 * kSecond), begin + 1min);
  EXPECT_EQ(pace.DueAt(kFirst + 3601 * kSecond), begin + 1min + 1s);
}

TEST(Pace, IsNoFasterAndNoSlowerForTimesThatGoBackAndForth) {
  const Pace::Clock::time_point begin{};
  Pace pace(kFirst, begin);
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(pace.DueAt(0), begin + (i == 0 ? 0s : 1s));
    EXPECT_EQ(pace.DueAt(kFirst + kSecond), begin + 1s);
  }
}

TEST(Pace, NeverWaitsLongEvenForTheGreatestTime) {
  const Pace::Clock::time_point begin{};
  Pace pace(0, begin);
  EXPECT_EQ(pace.DueAt(kEnd), begin + 1min);
  EXPECT_EQ(pace.DueAt(kEnd), begin + 1min);
  EXPECT_EQ(pace.DueAt(1), begin + 1min);
}

}  // namespace
}  // namespace cpd::host
