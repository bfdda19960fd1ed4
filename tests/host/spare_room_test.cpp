// Which writes may be acknowledged before they are carried out.
#include "mount/spare_room.h"

#include <gtest/gtest.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <chrono>

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr uint64_t kMiB = 1 << 20;
constexpr int64_t kLargestFile = 1000 * kMiB;

class SpareRoomTest : public testing::Test {
 protected:
  static udisk_statvfs Free(uint64_t bytes) {
    udisk_statvfs disk{};
    disk.f_bsize = disk.f_frsize = 4096;
    disk.f_bfree = 1 << 30;  // of which most is reserved
    disk.f_bavail = bytes / 4096;
    return disk;
  }
  void Learn(const udisk_statvfs& disk) {
    room.NoteQuestion(now);
    room.NoteAnswer(disk);
  }
  [[nodiscard]] bool IsSafe(int64_t offset, size_t size = 10, int64_t file_size = 0) const {
    return room.IsSafe({.offset = offset, .size = size, .file_size = file_size}, now);
  }

  SpareRoom room{kLargestFile};
  SpareRoom::Clock::time_point now = SpareRoom::Clock::now();
};

TEST_F(SpareRoomTest, IsNoneBeforeAnythingIsKnown) {
  EXPECT_FALSE(IsSafe(0));
  EXPECT_TRUE(room.WantsStatistics(now));
  room.NoteQuestion(now);
  EXPECT_FALSE(IsSafe(0));
  EXPECT_FALSE(room.WantsStatistics(now)) << "a second question before the answer to the first";
  room.NoteAnswer(std::nullopt);
  EXPECT_FALSE(IsSafe(0));
  EXPECT_TRUE(room.WantsStatistics(now));
}

TEST_F(SpareRoomTest, IsBelievedForASecondFromTheQuestionOn) {
  room.NoteQuestion(now);
  now += 900ms;
  room.NoteAnswer(Free(100 * kMiB));
  EXPECT_TRUE(IsSafe(0));
  now += 99ms;
  EXPECT_TRUE(IsSafe(0));
  now += 1ms;
  EXPECT_FALSE(IsSafe(0));
}

TEST_F(SpareRoomTest, IsAskedForAnewAfterHalfASecond) {
  Learn(Free(100 * kMiB));
  now += 499ms;
  EXPECT_FALSE(room.WantsStatistics(now));
  now += 1ms;
  EXPECT_TRUE(room.WantsStatistics(now));
  EXPECT_TRUE(IsSafe(0)) << "while the new answer is awaited, the old one holds";
}

TEST_F(SpareRoomTest, IsWhatGoesBeyondSixteenMebibytes) {
  Learn(Free(16 * kMiB));
  EXPECT_FALSE(IsSafe(0));
  Learn(Free(17 * kMiB));
  EXPECT_TRUE(IsSafe(0));
}

TEST_F(SpareRoomTest, IsNoneOnAReadOnlyDisk) {
  auto disk = Free(100 * kMiB);
  disk.f_flag = ST_RDONLY;
  Learn(disk);
  EXPECT_FALSE(IsSafe(0));
}

TEST_F(SpareRoomTest, IsUsedUpByWhatWasSentSinceItWasAskedFor) {
  Learn(Free(17 * kMiB));
  room.Count({.offset = 0, .size = kMiB / 2, .file_size = 0});
  EXPECT_TRUE(IsSafe(0));
  EXPECT_TRUE(room.WantsStatistics(now)) << "a quarter is used up";
  room.Count({.offset = 0, .size = kMiB / 2, .file_size = 0});
  EXPECT_FALSE(IsSafe(0));
}

TEST_F(SpareRoomTest, CountsWhatWasSentAfterTheQuestion) {
  room.Count({.offset = 0, .size = 500 * kMiB, .file_size = 0});  // the answer includes it
  room.NoteQuestion(now);
  room.Count({.offset = 0, .size = 2 * kMiB, .file_size = 0});
  room.NoteAnswer(Free(18 * kMiB));
  EXPECT_FALSE(IsSafe(0));
}

TEST_F(SpareRoomTest, CountsWholeBlocks) {
  Learn(Free(17 * kMiB));
  for (int i = 0; i < 200; ++i) room.Count({.offset = 0, .size = 1, .file_size = 0});
  EXPECT_FALSE(IsSafe(0));
}

TEST_F(SpareRoomTest, CountsTheGapThatAWriteLeavesBeforeIt) {
  Learn(Free(20 * kMiB));
  EXPECT_FALSE(IsSafe(5 * kMiB, 10, 0));
  EXPECT_TRUE(IsSafe(5 * kMiB, 10, 5 * kMiB));
  room.Count({.offset = 5 * kMiB, .size = 0, .file_size = 0});
  EXPECT_FALSE(IsSafe(0));
}

TEST_F(SpareRoomTest, IsNoneForAFileThatGrowsBeyondWhatEveryDiskTakes) {
  Learn(Free(2000 * kMiB));
  EXPECT_TRUE(IsSafe(kLargestFile - 10, 10, kLargestFile - 10));
  EXPECT_FALSE(IsSafe(kLargestFile - 9, 10, kLargestFile - 9));
  EXPECT_TRUE(IsSafe(kLargestFile, 10, 2 * kLargestFile)) << "the file is larger already";
}

TEST_F(SpareRoomTest, IsNoneForTenSecondsAfterTheDiskHasFailed) {
  for (const int error : {ENOSPC, EDQUOT, EROFS, EIO}) {
    room.NoteFailure(error, now);
    Learn(Free(100 * kMiB));
    EXPECT_FALSE(IsSafe(0)) << error;
    now += 10s;
    Learn(Free(100 * kMiB));
    EXPECT_TRUE(IsSafe(0)) << error;
  }
}

TEST_F(SpareRoomTest, StaysWhenAFailureConcernsOnlyOneFile) {
  Learn(Free(100 * kMiB));
  for (const int error : {ENOENT, ESTALE, EACCES, EFBIG}) room.NoteFailure(error, now);
  EXPECT_TRUE(IsSafe(0));
}

}  // namespace
}  // namespace cpd::host
