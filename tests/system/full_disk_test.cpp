// Programs that check nothing after a write still learn of a full disk.
#include <sys/mount.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

/// A disk of 64 MiB with a file system of its own.
class SmallDisk : public MountTest, public testing::WithParamInterface<const char*> {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (IsSkipped()) return;
    if (geteuid() != 0) GTEST_SKIP() << "only root may mount a disk";
    const std::string type = GetParam();
    fs::create_directory(path());
    const auto image = place / "image";
    const auto made =
        Shell(type == "tmpfs"
                  ? "mount -t tmpfs -o size=64m none " + path()
                  : "PATH=$PATH:/usr/sbin:/sbin; truncate -s 64M " + image + " && mkfs." + type +
                        " " + image + " && mount -t " + type + " -o loop " + image + " " + path());
    if (made.status != 0) GTEST_SKIP() << "no " << type << " here: " << made.output;
  }
  void TearDown() override {
    if (IsMounted(path())) umount2(path().c_str(), MNT_DETACH);
  }
  std::string path() const { return place / "disk"; }

  /// Fills the disk to its last block, from the disk's own side. A file system may find more
  /// room when it has synced.
  void Fill() const {
    const std::string fill = "cd " + path() +
                             "; cat /dev/zero >>filling; i=0; while echo x >last$$.$i; do "
                             "i=$((i + 1)); done; sync -f .";
    do {
      Shell(fill);
    } while (Shell("echo x >" + path() + "/probe").status == 0);
  }

 private:
  TempDir place;
};

INSTANTIATE_TEST_SUITE_P(Full, SmallDisk, testing::Values("ext4", "vfat", "tmpfs"),
                         [](const auto& type) { return std::string(type.param); });

/// Each writes to the file "$1" and checks nothing afterwards.
constexpr const char* kPrograms[] = {
    R"(bash -c 'echo data >"$1"' bash "$1")",
    R"(bash -c 'echo data >>"$1"' bash "$1")",
    R"(dash -c 'echo data >"$1"' dash "$1")",
    R"(dash -c 'echo data >>"$1"' dash "$1")",
    R"(python3 -c 'import sys; print("data", file=open(sys.argv[1], "a"), flush=True)' "$1")",
};

Result RunProgram(const std::string& program, const std::string& path) {
  return Shell("set -- " + Quoted(path) + "; cd /; " + program);
}

TEST_P(SmallDisk, ThatIsFullShowsInEveryProgram) {
  const MountedDisk mounted(path());
  Fill();
  int count = 0;
  for (const std::string program : kPrograms) {
    if (Shell("command -v " + program.substr(0, program.find(' '))).status != 0) continue;
    for (const bool exists : {false, true}) {
      SCOPED_TRACE(program + (exists ? ", the file exists" : ""));
      const auto name = std::to_string(++count);
      if (exists) {
        WriteFile(path() + "/bare" + name, "");
        WriteFile(path() + "/seen" + name, "");
      }
      const auto bare = RunProgram(program, path() + "/bare" + name);
      const auto seen = RunProgram(program, mounted / ("seen" + name));
      EXPECT_NE(bare.output, "") << "the disk is not full";
      EXPECT_EQ(seen.output.substr(0, 1000), bare.output.substr(0, 1000));
      EXPECT_EQ(seen.status, bare.status);
    }
  }
}

/// Small writes are acknowledged early at first, because there is room.
TEST_P(SmallDisk, ThatProgramsFillUpLosesNoLineThatWasTaken) {
  const MountedDisk mounted(path());
  const auto ended =
      Shell("cd " + mounted.path() + "; line=$(printf %0999d 0); n=0; while echo $line >>lines" +
            "; do n=$((n + 1)); if [ $n -eq 100 ]; then cat /dev/zero >filling & fi; done 2>&-" +
            "; wait; echo $n");
  const auto lines = std::stoul(ended.output);
  EXPECT_GE(lines, 100U);
  const auto kept = fs::file_size(path() + "/lines");
  EXPECT_GE(kept, lines * 1000);
  EXPECT_LT(kept, (lines + 1) * 1000);
}

}  // namespace
}  // namespace system_test
