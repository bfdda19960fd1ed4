// What tells disks apart, and the hello that a line begins with.
#include "line/disk_identity.h"

#include <gtest/gtest.h>
#include <sys/mount.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <utility>

#include "line/frame_reader.h"
#include "line/offered_lines.h"
#include "support/line_peer.h"
#include "support/temp_disk.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;
using test::BytesOfRecord;
using test::HelloOf;
using test::LinePeer;

TEST(DiskIdentity, IsThatOfADirectoryHoweverItIsReached) {
  const test::TempDisk disk;
  disk.MakeDir("/a");
  disk.MakeDir("/b");
  const auto a = DiskIdentifier(disk.Local("/a")).Now();
  EXPECT_EQ(DiskIdentifier(disk.Local("/b/../a/.")).Now().disk, a.disk);
  const auto b = DiskIdentifier(disk.Local("/b")).Now();
  EXPECT_NE(b.disk, a.disk);
  EXPECT_EQ(b.life, a.life) << "both are on one mount";
}

TEST(DiskIdentity, IsThatOfTheDirectoryThatIsThereNow) {
  const test::TempDisk disk;
  disk.MakeDir("/a");
  const DiskIdentifier identifier(disk.Local("/a"));
  const auto before = identifier.Now();
  std::filesystem::rename(disk.Local("/a"), disk.Local("/b"));
  EXPECT_THROW((void)identifier.Now(), std::system_error);
  disk.MakeDir("/a");
  EXPECT_NE(identifier.Now().disk, before.disk);
}

TEST(DiskIdentity, DiffersInItsLifeOnAnotherMount) {
  const test::TempDisk disk;
  EXPECT_NE(DiskIdentifier(disk.root()).Now().life, DiskIdentifier("/proc").Now().life);
}

/// A file system that is mounted on a directory for as long as the object lives.
class MountedHere {
 public:
  explicit MountedHere(std::string directory)
      : directory_(std::move(directory)),
        is_mounted_(mount("none", directory_.c_str(), "tmpfs", 0, "size=64k") == 0) {}
  ~MountedHere() { Unmount(); }
  MountedHere(const MountedHere&) = delete;
  MountedHere& operator=(const MountedHere&) = delete;

  void Unmount() {
    if (std::exchange(is_mounted_, false)) umount2(directory_.c_str(), MNT_DETACH);
  }
  [[nodiscard]] bool is_mounted() const { return is_mounted_; }

 private:
  const std::string directory_;
  bool is_mounted_;
};

using State = DiskWatch::State;

TEST(DiskWatch, NoticesThatTheDiskIsUnmountedAndMountedAnew) {
  const test::TempDisk disk;
  MountedHere first(disk.root());
  if (!first.is_mounted()) GTEST_SKIP() << "mounting needs root";
  DiskWatch watch(disk.root());
  EXPECT_EQ(watch.Look(), State::kThere);
  first.Unmount();
  EXPECT_EQ(watch.Look(), State::kGone);
  const MountedHere second(disk.root());
  EXPECT_EQ(watch.Look(), State::kMountedAnew);
}

TEST(DiskWatch, NoticesTheSameForADirectoryOfTheDisk) {
  const test::TempDisk disk;
  MountedHere first(disk.root());
  if (!first.is_mounted()) GTEST_SKIP() << "mounting needs root";
  disk.MakeDir("/shown");
  DiskWatch watch(disk.Local("/shown"));
  first.Unmount();
  EXPECT_EQ(watch.Look(), State::kGone);
  const MountedHere second(disk.root());
  EXPECT_EQ(watch.Look(), State::kGone);
  disk.MakeDir("/shown");
  EXPECT_EQ(watch.Look(), State::kMountedAnew);
}

// The mount's id is the same before and after. On kernels that reuse ids, that may also happen
// when a disk is mounted anew.
TEST(DiskWatch, TakesADiskThatWasGoneForOneThatIsMountedAnew) {
  const test::TempDisk disk;
  disk.MakeDir("/shown");
  DiskWatch watch(disk.Local("/shown"));
  EXPECT_EQ(watch.Look(), State::kThere);
  std::filesystem::rename(disk.Local("/shown"), disk.Local("/away"));
  EXPECT_EQ(watch.Look(), State::kGone);
  std::filesystem::rename(disk.Local("/away"), disk.Local("/shown"));
  EXPECT_EQ(watch.Look(), State::kMountedAnew);
}

TEST(RandomId, DiffersEachTime) { EXPECT_NE(RandomId(), RandomId()); }

TEST(ReadHello, ReadsAHelloAndNothingAfterIt) {
  LinePeer peer;
  const Line line = peer.TakeLine();
  const auto hello = BytesOfRecord(HelloOf(Role::kDisk));
  peer.Send(hello + "more");
  EXPECT_EQ(ReadHello(line.in.get(), 10s), hello);
  std::string rest(10, '\0');
  EXPECT_EQ(read(line.in.get(), rest.data(), rest.size()), 4);
}

TEST(ReadHello, RefusesNonsenseSilenceAndAnEarlyEnd) {
  LinePeer peer;
  const Line line = peer.TakeLine();
  EXPECT_THROW((void)ReadHello(line.in.get(), 20ms), StreamError);
  peer.Send("no");
  EXPECT_THROW((void)ReadHello(line.in.get(), 10s), StreamError);
  peer.Send(BytesOfRecord(HelloOf(Role::kDisk)).substr(0, 71));
  peer.Close();
  EXPECT_THROW((void)ReadHello(line.in.get(), 10s), StreamError);
}

}  // namespace
}  // namespace cpd::host
