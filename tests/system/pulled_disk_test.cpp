// A disk is pulled out while programs read and write it, and then put back.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>

#include <memory>
#include <string>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {
namespace {

class PulledDisk : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (IsSkipped()) return;
    if (!loop.problem().empty()) GTEST_SKIP() << loop.problem();
    WriteFile(loop.path() + "/large", Bytes(8'000'000));
    WriteFile(loop.path() + "/small", "small\n");
    ASSERT_EQ(Shell("sync -f " + loop.path()).status, 0);
  }

  void PullOut() const {
    const std::string device = Shell("losetup -n -O NAME -j " + loop.image()).output;
    ASSERT_EQ(umount2(loop.path().c_str(), MNT_DETACH), 0);
    Shell("losetup -d " + device);  // fails if the device has already detached itself
    EXPECT_TRUE(Eventually([&] { return Shell("losetup -j " + loop.image()).output.empty(); }))
        << "a descriptor is left open on the disk";
  }
  void PutBack() const {
    const auto mounted = Shell("mount -o loop " + loop.image() + " " + loop.path());
    ASSERT_EQ(mounted.status, 0) << mounted.output;
  }

  /// Starts a program that repeats a command, whether it succeeds or not.
  std::unique_ptr<Process> Repeat(const std::string& command) {
    const std::string name = place / std::to_string(++programs);
    return std::make_unique<Process>(
        std::vector<std::string>{"/bin/sh", "-c", "while :; do " + command + "; done"},
        name + ".out", name + ".err");
  }

  LoopDisk loop;
  TempDir place;
  int programs = 0;
};

TEST_F(PulledDisk, HangsNoReaderOrWriterAndIsServedAgainWhenItIsBack) {
  MountedDisk mounted(loop.path());
  std::vector<std::unique_ptr<Process>> running;
  for (int i = 0; i < 3; ++i) {
    const std::string own = mounted / ("written" + std::to_string(i));
    running.push_back(Repeat("cat " + (mounted / "large") + " >/dev/null"));
    running.push_back(Repeat("head -c 1000000 " + (mounted / "large") + " >" + own));
  }
  running.push_back(Repeat("ls -l " + mounted.path()));
  ASSERT_EQ(Shell("cat " + (mounted / "small"), kHang).output, "small\n");
  usleep(500'000);  // in the middle of everything

  PullOut();
  // Requests are still answered: with failures, once no cached answer is left.
  EXPECT_TRUE(Eventually([&] { return Shell("cat " + (mounted / "small"), kHang).status == 1; }));
  PutBack();
  EXPECT_TRUE(Eventually([&] {
    return Shell("cat " + (mounted / "small"), kHang).output == "small\n";
  })) << "not served again";
  EXPECT_TRUE(Eventually([&] {
    return Shell("cmp " + (mounted / "large") + " " + loop.path() + "/large", kHang).status == 0;
  })) << "not served again";

  for (auto& program : running) {
    program->Signal(SIGTERM);
    EXPECT_TRUE(program->Wait()) << "a program hangs";
  }
  WriteFile(mounted / "new", "new\n");
  EXPECT_TRUE(Eventually([&] { return ReadFile(loop.path() + "/new") == "new\n"; }))
      << "the disk is not written to";
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.status, 0) << ending.err;
}

}  // namespace
}  // namespace system_test
