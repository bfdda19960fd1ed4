// A disk loses files while it is listed. No file must show the attributes of another.
#include <filesystem>

#include "support/mounted_disk.h"

namespace system_test {
namespace {

/// Mounts the losing disk while the test runs.
class LosingDisk : public testing::Test {
 protected:
  void SetUp() override {
    if (!WhyNoFuse().empty()) GTEST_SKIP() << WhyNoFuse();
    std::filesystem::create_directory(path());
    program_.emplace(std::vector<std::string>{LOSING_DISK, path()}, place_ / "out", place_ / "err");
    ASSERT_TRUE(Eventually([&] { return IsMounted(path()); })) << ReadFile(place_ / "err");
  }
  ~LosingDisk() override {
    if (!program_) return;
    program_->Signal(SIGTERM);
    program_->Wait();
  }
  std::string path() const { return place_ / "disk"; }

 private:
  TempDir place_;
  std::optional<Process> program_;
};

TEST_F(LosingDisk, IsListedWithEachFilesOwnAttributes) {
  MountedDisk mounted(path());
  const auto listed = Shell("cd " + Quoted(mounted.path()) + " && stat -c '%n %s' $(ls)");
  EXPECT_EQ(listed.output, "early.txt 4\nlate.txt 5000\n");
}

TEST_F(LosingDisk, IsReadInFull) {
  MountedDisk mounted(path());
  const auto read = Shell("cd " + Quoted(mounted.path()) + " && ls >/dev/null && wc -c late.txt");
  EXPECT_EQ(read.output, "5000 late.txt\n");
}

TEST_F(LosingDisk, IsListedAnewEveryTime) {
  MountedDisk mounted(path());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(Shell("ls " + mounted.path()).status, 0);
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Requests(107), 3) << ending.out;
  EXPECT_EQ(ending.Requests(121), 0) << ending.out;
}

TEST_F(LosingDisk, IsListedByPacketsWithoutAttributesOfALostFile) {
  const auto listed = Shell(std::string(CPD_HOST) + " ls " + path());
  EXPECT_NE(listed.output.find("? late.txt\n"), std::string::npos) << listed.output;
  EXPECT_NE(listed.output.find(" 4 "), std::string::npos) << listed.output;
}

}  // namespace
}  // namespace system_test
