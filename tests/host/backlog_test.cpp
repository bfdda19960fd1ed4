// The limit of the work that may wait for a disk.
#include "mount/backlog.h"

#include <gtest/gtest.h>

#include <chrono>

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr size_t kPiece = Backlog::WorkOf(1, 10);

/// Adds pieces of 10 bytes until there is no room for more. @return how many there are
int Fill(Backlog* backlog) {
  int taken = 0;
  for (; backlog->HasRoomFor(kPiece); ++taken) backlog->Add(kPiece);
  return taken;
}

TEST(Backlog, IsBoundedInBytesHoweverFastTheDisk) {
  for (const bool is_measured : {false, true}) {
    Backlog backlog;
    if (is_measured) backlog.Measure(kPiece, 0ns);
    EXPECT_FALSE(backlog.HasRoomFor((2 << 20) + 1));
    const int taken = Fill(&backlog);
    EXPECT_GT(taken, 400);
    EXPECT_LT(taken, 600);
  }
}

TEST(Backlog, GrowsToItsOwnBoundOnceTheDiskIsKnownToBeFast) {
  Backlog backlog(8 << 20);
  EXPECT_FALSE(backlog.HasRoomFor((2 << 20) + 1));
  backlog.Measure(1 << 20, 1ms);
  EXPECT_TRUE(backlog.HasRoomFor(8 << 20));
  EXPECT_FALSE(backlog.HasRoomFor((8 << 20) + 1));
}

TEST(Backlog, IsWhatTheDiskDoesInATenthOfASecond) {
  Backlog backlog;
  backlog.Measure(kPiece, 5ms);
  EXPECT_EQ(Fill(&backlog), 20);
  backlog.Remove(3 * kPiece);
  EXPECT_EQ(Fill(&backlog), 3);
}

TEST(Backlog, OverALongLineHasRoomForWhatIsOnItsWayAsWell) {
  Backlog backlog;
  backlog.Measure(kPiece, 5ms, 50ms);
  EXPECT_EQ(Fill(&backlog), 30);
}

TEST(Backlog, OfADiskThatTakesMoreThanATenthOfASecondForAPieceHasRoomForNone) {
  Backlog backlog;
  backlog.Measure(kPiece, 101ms);
  EXPECT_FALSE(backlog.HasRoomFor(kPiece));
}

TEST(Backlog, FollowsADiskThatBecomesSlowerOrFaster) {
  Backlog backlog;
  for (int i = 0; i < 100; ++i) backlog.Measure(kPiece, 5us);
  for (int i = 0; i < 3; ++i) backlog.Measure(kPiece, 5ms);
  EXPECT_FALSE(backlog.HasRoomFor(30 * kPiece));
  for (int i = 0; i < 20; ++i) backlog.Measure(kPiece, 5us);
  EXPECT_TRUE(backlog.HasRoomFor(400 * kPiece));
}

TEST(Backlog, IgnoresASingleSlowAnswer) {
  Backlog backlog;
  backlog.Measure(kPiece, 5us);
  backlog.Measure(kPiece, 50ms);
  backlog.Measure(kPiece, 5us);
  EXPECT_TRUE(backlog.HasRoomFor(400 * kPiece));
}

}  // namespace
}  // namespace cpd::host
