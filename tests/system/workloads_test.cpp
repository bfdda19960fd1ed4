// How often common work waits for a disk that is far away, by the counts that the host prints at
// its end. A line with a short delay is enough: the counts are those of a long one.
#include <chrono>
#include <filesystem>
#include <string>

#include "support/mounted_disk.h"

namespace system_test {
namespace {

namespace fs = std::filesystem;

constexpr int kDirectories = 10;
constexpr int kFilesEach = 20;
constexpr int kFiles = kDirectories * kFilesEach;

/// What is known is trusted for a second. So each second in which the work goes on costs some waits
/// more: a few of them on an idle machine, many on a busy one.
constexpr int kWaitsEachSecond = 30;

/// A disk with a tree of small files, `kFilesEach` in each of `kDirectories`.
class Workloads : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    setenv("CPD_TEST_LINE", "exec " CUT_LINE " --delay 2 --", 1);
    for (const auto& top : {disk / "tree", source / "tree"}) {
      for (int d = 0; d < kDirectories; ++d) {
        const auto directory = top + "/d" + std::to_string(d);
        fs::create_directories(directory);
        for (int f = 0; f < kFilesEach; ++f) {
          WriteFile(directory + "/f" + std::to_string(f), Bytes(4096, d * kFilesEach + f));
        }
      }
    }
  }
  ~Workloads() override { unsetenv("CPD_TEST_LINE"); }

  /// Runs commands in the directory of the mount. @return what the host counted
  Ending Run(const std::string& commands) {
    MountedDisk mounted(disk.path());
    const auto start = std::chrono::steady_clock::now();
    const auto result = Shell("cd " + mounted.path() + " && " + commands);
    EXPECT_EQ(result.status, 0) << commands << '\n' << result.output;
    more_ = kWaitsEachSecond * static_cast<int>(std::chrono::ceil<std::chrono::seconds>(
                                                    std::chrono::steady_clock::now() - start)
                                                    .count());
    return mounted.Unmount();
  }
  void ExpectWaits(const Ending& ending, int most) const {
    EXPECT_LE(ending.Count("waits for the disk"), most + more_) << ending.out;
  }
  void ExpectPackets(const Ending& ending, int most) const {
    int packets = 0;
    for (int command = 100; command < 130; ++command) packets += ending.Requests(command);
    EXPECT_LE(packets, most + 2 * more_) << ending.out;
  }

  const TempDir source;
  int more_ = 0;  // waits that the time of the run may have cost
};

TEST_F(Workloads, ListATreeWithOneRequestForEachDirectoryAndNoneForAFile) {
  for (const char* command : {"ls -lR tree", "find tree -printf '%s %T@ %p\n'"}) {
    const auto ending = Run(command + std::string(" >/dev/null"));
    ExpectWaits(ending, kDirectories);
    ExpectPackets(ending, kDirectories + 10);
  }
}

TEST_F(Workloads, ReadATreeWithAFewRequestsForEachDirectory) {
  for (const char* command : {"tar -cf - tree | cat >/dev/null", "grep -rc '' tree >/dev/null"}) {
    const auto ending = Run(command);
    ExpectWaits(ending, 3 * kDirectories);
    ExpectPackets(ending, 6 * kDirectories);
  }
}

TEST_F(Workloads, RemoveATreeWithOneWaitForEachFile) {
  const auto ending = Run("rm -r tree");
  EXPECT_FALSE(fs::exists(disk / "tree"));
  ExpectWaits(ending, kFiles + 6 * kDirectories);
}

TEST_F(Workloads, LookUpEveryNameOfATreeWithAFewWaitsForEachDirectory) {
  std::string names;
  for (int d = 0; d < kDirectories; ++d) {
    for (int f = 0; f < kFilesEach; ++f) {
      names += " tree/d" + std::to_string(d) + "/f" + std::to_string(f);
    }
  }
  const auto ending = Run("stat" + names + " >/dev/null");
  ExpectWaits(ending, 2 * kDirectories);
  EXPECT_LE(ending.Requests(102), kDirectories + more_) << ending.out;
}

TEST_F(Workloads, MakeATreeWithTwoWaitsForEachFile) {
  const auto archive = source / "tree.tar";
  ASSERT_EQ(Shell("tar -C " + source.path() + " -cf " + archive + " tree").status, 0);
  for (
      const auto& command :
      {"cp -r " + source / "tree" + " copy",
       "mkdir copy && tar -C copy --strip-components=1 --no-same-owner --no-same-permissions -xf " +
           archive}) {
    const auto ending = Run(command);
    EXPECT_EQ(Shell("diff -r " + source / "tree" + " " + disk / "copy").output, "");
    ExpectWaits(ending, 2 * kFiles + 5 * kDirectories);
    ExpectPackets(ending, 6 * kFiles + 5 * kDirectories);
    fs::remove_all(disk / "copy");
  }
}

}  // namespace
}  // namespace system_test
