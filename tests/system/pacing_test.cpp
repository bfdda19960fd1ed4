// Compares the time that reads take at an announced bandwidth with the time that each pacing method
// should give. Reads bypass the page cache, so that each one becomes one request of the same size.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {
namespace {

constexpr size_t kKbps = 8000;
constexpr size_t kRequest = 65536;
constexpr size_t kMegabyte = 1 << 20;

using Pacing = MountTest;

/// Reads a file of `size` bytes, one request at a time. @return how many seconds that took
double SecondsToRead(const std::string& path, size_t size) {
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
  EXPECT_GE(fd, 0) << path;
  const std::unique_ptr<void, decltype(&free)> buffer(aligned_alloc(4096, kRequest), &free);
  const auto start = std::chrono::steady_clock::now();
  size_t total = 0;
  for (ssize_t n = 1; total < size && n > 0; total += n) n = read(fd, buffer.get(), kRequest);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(total, size);
  close(fd);
  return took.count();
}

/// Each period of half a second has an allowance of 512 ms worth of data. The request that uses it
/// up sleeps for half a second and counts towards the next one.
double LegacySeconds(size_t size) {
  const size_t allowance = kKbps / 8 * 512;
  size_t counted = 0;
  double seconds = 0;
  for (size_t at = 0; at < size; at += kRequest) {
    counted += kRequest;
    if (counted < allowance) continue;
    seconds += 0.5;
    counted = kRequest;
  }
  return seconds;
}

/// The bucket starts full and is refilled at the announced bandwidth.
double TokenBucketSeconds(size_t size) {
  const double capacity = 256 * 1024;
  return (size - capacity) / (kKbps * 1000.0 / 8);
}

class PacedDisk {
 public:
  PacedDisk(const TempDir& disk, size_t size, const std::map<std::string, std::string>& environment)
      : mSize(size) {
    WriteFile(disk / "big", Bytes(size));
    mMounted.emplace(disk.path(), std::vector<std::string>{"--bandwidth", std::to_string(kKbps)},
                     environment);
  }
  double SecondsToRead() { return system_test::SecondsToRead(*mMounted / "big", mSize); }

 private:
  size_t mSize;
  std::optional<MountedDisk> mMounted;
};

void ExpectWithinATenth(double took, double computed) {
  EXPECT_GE(took, computed * 0.9);
  EXPECT_LE(took, computed * 1.1);
}

TEST_F(Pacing, ByPeriodsTakesAsLongAsTheAllowanceDemands) {
  PacedDisk paced(disk, 4 * kMegabyte, {});
  ExpectWithinATenth(paced.SecondsToRead(), LegacySeconds(4 * kMegabyte));
}

TEST_F(Pacing, ByTokenBucketTakesAsLongAsTheRateDemands) {
  PacedDisk paced(disk, 6 * kMegabyte, {{"TESSEL_CPD_CLIENT_THROTTLE_LEGACY", "0"}});
  ExpectWithinATenth(paced.SecondsToRead(), TokenBucketSeconds(6 * kMegabyte));
}

TEST_F(Pacing, OfTwentyMegabytesByPeriodsTakesAsLongAsTheAllowanceDemands) {
  PacedDisk paced(disk, 20 * kMegabyte, {});
  ExpectWithinATenth(paced.SecondsToRead(), LegacySeconds(20 * kMegabyte));
}

TEST_F(Pacing, OfTwentyMegabytesByTokenBucketTakesAsLongAsTheRateDemands) {
  PacedDisk paced(disk, 20 * kMegabyte, {{"TESSEL_CPD_CLIENT_THROTTLE_LEGACY", "0"}});
  ExpectWithinATenth(paced.SecondsToRead(), TokenBucketSeconds(20 * kMegabyte));
}

TEST_F(Pacing, IsOffWithoutABandwidth) {
  WriteFile(disk / "big", Bytes(20 * kMegabyte));
  MountedDisk mounted(disk.path());
  // With pacing it would take 20 s.
  EXPECT_LT(SecondsToRead(mounted / "big", 20 * kMegabyte), 5);
}

TEST_F(Pacing, AtAForcedBandwidthNeedsNoAnnouncement) {
  WriteFile(disk / "big", Bytes(2 * kMegabyte));
  MountedDisk mounted(disk.path(), {}, {{"TESSEL_CPD_CLIENT_FORCE_BW", std::to_string(kKbps)}});
  ExpectWithinATenth(SecondsToRead(mounted / "big", 2 * kMegabyte), LegacySeconds(2 * kMegabyte));
}

TEST_F(Pacing, StaysOnAfterFiveIdleSecondsBecauseTheHostRepeatsTheBandwidth) {
  PacedDisk paced(disk, 2 * kMegabyte, {});
  std::this_thread::sleep_for(6s);
  ExpectWithinATenth(paced.SecondsToRead(), LegacySeconds(2 * kMegabyte));
}

}  // namespace
}  // namespace system_test
