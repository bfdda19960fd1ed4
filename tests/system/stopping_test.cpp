// Whether the reader, the host or the disk ends first, nothing hangs. No mount is left, unless the
// host is killed.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "support/mounted_disk.h"

namespace system_test {
namespace {

class Stopping : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (IsSkipped()) return;
    WriteFile(disk / "small", "small\n");
    WriteFile(disk / "big", Bytes(20'000'000));
  }

  /// A program whose read takes many seconds.
  Process PacedReader(const MountedDisk& mounted) { return Reader(mounted, "cat "); }

  Process Reader(const MountedDisk& mounted, const std::string& program) {
    return Process({"/bin/sh", "-c", "exec " + program + (mounted / "big")}, mPlace / "out",
                   mPlace / "err");
  }

  void ExpectInTheMiddle(Process& reader) {
    EXPECT_FALSE(reader.Wait(1500ms)) << "the reader ended: " << ReadFile(mPlace / "err");
  }

  const std::vector<std::string> paced{"--bandwidth", "8000"};

 private:
  TempDir mPlace;
};

TEST_F(Stopping, AReaderKilledInTheMiddleOfAReadLeavesTheMountUsable) {
  MountedDisk mounted(disk.path(), paced);
  auto reader = PacedReader(mounted);
  ExpectInTheMiddle(reader);
  reader.Signal(SIGKILL);
  EXPECT_EQ(reader.Wait(), 128 + SIGKILL);
  EXPECT_EQ(Shell("cat " + (mounted / "small"), kHang).output, "small\n");
  EXPECT_EQ(mounted.Unmount().status, 0);
  EXPECT_FALSE(IsMounted(mounted.path()));
}

void StopInTheMiddleOfARead(MountedDisk& mounted, Process& reader, int signal) {
  mounted.Signal(signal);
  const auto ending = mounted.WaitForEnd();
  EXPECT_EQ(ending.status, 0) << ending.err;
  EXPECT_FALSE(IsMounted(mounted.path()));
  EXPECT_TRUE(reader.Wait()) << "the reader hangs";
}

TEST_F(Stopping, ByControlCInTheMiddleOfAReadUnmounts) {
  MountedDisk mounted(disk.path(), paced);
  auto reader = PacedReader(mounted);
  ExpectInTheMiddle(reader);
  StopInTheMiddleOfARead(mounted, reader, SIGINT);
}

TEST_F(Stopping, BySigtermInTheMiddleOfAReadUnmounts) {
  MountedDisk mounted(disk.path(), paced);
  auto reader = PacedReader(mounted);
  ExpectInTheMiddle(reader);
  StopInTheMiddleOfARead(mounted, reader, SIGTERM);
}

TEST_F(Stopping, ByControlCWhileIdleUnmounts) {
  MountedDisk mounted(disk.path());
  mounted.Signal(SIGINT);
  EXPECT_EQ(mounted.WaitForEnd().status, 0);
  EXPECT_FALSE(IsMounted(mounted.path()));
}

TEST_F(Stopping, ByFusermountEndsTheHost) {
  MountedDisk mounted(disk.path());
  ASSERT_EQ(Shell("cat " + (mounted / "small")).output, "small\n");
  const auto unmount = Shell("fusermount3 -u " + mounted.path());
  EXPECT_EQ(unmount.status, 0) << unmount.output;
  const auto ending = mounted.WaitForEnd();
  EXPECT_EQ(ending.status, 0) << ending.err;
  EXPECT_FALSE(IsMounted(mounted.path()));
}

TEST_F(Stopping, WithAnOpenFileStillUnmounts) {
  MountedDisk mounted(disk.path());
  const int fd = open((mounted / "big").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(mounted.Unmount().status, 0);
  EXPECT_FALSE(IsMounted(mounted.path()));
  close(fd);
}

TEST_F(Stopping, AKilledHostLetsItsReadersGo) {
  MountedDisk mounted(disk.path(), paced);
  auto reader = PacedReader(mounted);
  ExpectInTheMiddle(reader);
  mounted.Signal(SIGKILL);
  EXPECT_EQ(mounted.WaitForEnd().status, 128 + SIGKILL);
  EXPECT_TRUE(reader.Wait()) << "the reader hangs";
}

// ---- The host's output goes away ----

TEST_F(Stopping, ATerminalThatGoesAwayEndsNeitherHostNorMount) {
  const TempDir place;
  const std::string mount_point = place / "mnt";
  std::filesystem::create_directory(mount_point);
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0) {
    GTEST_SKIP() << "no terminal here: " << strerror(errno);
  }
  Process host({CPD_HOST, "mount", disk.path(), mount_point}, place / "out", ptsname(terminal));
  EXPECT_TRUE(Eventually([&] { return IsMounted(mount_point); }));
  close(terminal);
  EXPECT_FALSE(host.Wait(2500ms)) << "the status line ended the host";
  EXPECT_EQ(ReadFile(mount_point + "/small"), "small\n");
  host.Signal(SIGTERM);
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_FALSE(IsMounted(mount_point));
  umount2(mount_point.c_str(), MNT_DETACH);
}

TEST_F(Stopping, AClosedPipeForTheTableIsAnErrorButTheDiskIsUnmounted) {
  const TempDir place;
  const std::string mount_point = place / "mnt";
  std::filesystem::create_directory(mount_point);
  Process host({"/bin/sh", "-c",
                "{ " CPD_HOST " mount " + disk.path() + " " + mount_point + "; echo $? >" +
                    (place / "status") + "; } | true"},
               place / "out", place / "err");
  EXPECT_TRUE(Eventually([&] { return IsMounted(mount_point); }));
  EXPECT_EQ(Shell("fusermount3 -u " + mount_point).status, 0);
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_EQ(ReadFile(place / "status"), "1\n");
  EXPECT_EQ(ReadFile(place / "err"), "cpd-host: standard output: Broken pipe\n");
  EXPECT_FALSE(IsMounted(mount_point));
}

TEST_F(Stopping, ADiskThatGoesAwayDuringAReadHangsNoProgram) {
  LoopDisk loop;
  if (!loop.problem().empty()) GTEST_SKIP() << loop.problem();
  WriteFile(loop.path() + "/big", Bytes(20'000'000));
  {
    MountedDisk mounted(loop.path(), paced);
    auto reader = PacedReader(mounted);
    ExpectInTheMiddle(reader);
    ASSERT_EQ(umount2(loop.path().c_str(), MNT_DETACH), 0);
    EXPECT_NE(Shell("cat " + (mounted / "never seen"), kHang).status, 124);
    reader.Signal(SIGTERM);
    EXPECT_TRUE(reader.Wait()) << "the reader hangs";
    const auto ending = mounted.Unmount();
    EXPECT_EQ(ending.status, 0) << ending.err;
    EXPECT_FALSE(IsMounted(mounted.path()));
  }
  // A descriptor left open on the disk would keep its loop device attached.
  EXPECT_TRUE(Eventually([&] { return Shell("losetup -j " + loop.image()).output.empty(); }));
}

}  // namespace
}  // namespace system_test
