// How often programs wait for the disk, by the counts that the host prints at its end.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/mounted_disk.h"
#include "support/watchable_place.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

class RoundTrips : public MountTest {
 protected:
  static void Run(const std::string& commands) {
    const auto result = Shell(commands);
    EXPECT_EQ(result.status, 0) << commands << '\n' << result.output;
  }
  /// How many names and attributes the kernel asked for that the mount had to ask for.
  static int Unknown(const Ending& ending) {
    return ending.Count("names and attributes asked for") - ending.Count("known from before") -
           ending.Count("answered by one listing");
  }
  /// Makes the mount find out that the disk tells upper from lower case, from the first name in it.
  static void AwaitProbeOfCase(const MountedDisk& mounted) {
    EXPECT_NE(fs::directory_iterator(mounted.path()), fs::directory_iterator());
    EXPECT_FALSE(fs::exists(mounted / "missing"));  // answered later than the probe
  }
};

TEST_F(RoundTrips, AreCountedBelowTheTableOfRequests) {
  fs::create_directory(disk / "a");
  WriteFile(disk / "a/b", "content");
  MountedDisk mounted(disk.path());
  Run("stat " + (mounted / "a/b"));
  const auto ending = mounted.Unmount();
  // The root, where the kernel checks permissions, and the two names.
  EXPECT_EQ(ending.Count("names and attributes asked for"), 3) << ending.out;
  EXPECT_EQ(ending.Count("waits for the disk"), 3) << ending.out;
  EXPECT_EQ(ending.Count("directories listed"), 0) << ending.out;
}

// A listing answers for a second, so a pause of a busy machine may cost a few requests more.
TEST_F(RoundTrips, OfManyLookUpsInADirectoryAreThoseOfOneListing) {
  constexpr int kFiles = 50;
  const auto name = [](int i) { return "/file" + std::to_string(i); };
  for (int i = 0; i < kFiles; ++i) WriteFile(disk.path() + name(i), "content");
  MountedDisk mounted(disk.path());
  for (int i = 0; i < kFiles; ++i) EXPECT_TRUE(fs::exists(mounted.path() + name(i))) << i;
  const auto ending = mounted.Unmount();
  EXPECT_GE(ending.Requests(107), 1) << ending.out;
  EXPECT_LE(ending.Requests(107), 3) << ending.out;
  // The root, two files, and a name in lower and in upper case; then two files for each further
  // listing.
  EXPECT_LE(ending.Requests(102), 10) << ending.out;
  EXPECT_LE(ending.Count("waits for the disk"), 12) << ending.out;
}

TEST_F(RoundTrips, AreNotMadeForNamesInADirectoryJustMade) {
  WriteFile(disk / "file", "");
  MountedDisk mounted(disk.path());
  EXPECT_NE(fs::directory_iterator(mounted.path()), fs::directory_iterator());
  fs::create_directory(mounted / "new");
  for (int i = 0; i < 50; ++i) {
    EXPECT_FALSE(fs::exists((mounted / "new/missing") + std::to_string(i))) << i;
  }
  const auto ending = mounted.Unmount();
  EXPECT_LE(ending.Requests(102), 40) << ending.out;
}

// What is known is trusted for a second, so a pause of a busy machine may cost some requests more.
TEST_F(RoundTrips, AreNotMadeForTheDirectoryWhoseNamesChange) {
  constexpr int kFiles = 50;
  const auto name = [](int i) { return "/old/file" + std::to_string(i); };
  fs::create_directory(disk / "old");
  for (int i = 0; i < kFiles; ++i) WriteFile(disk.path() + name(i), "content");
  MountedDisk mounted(disk.path());
  AwaitProbeOfCase(mounted);
  for (int i = 0; i < kFiles; ++i) EXPECT_EQ(unlink((mounted.path() + name(i)).c_str()), 0) << i;
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Requests(117), kFiles) << ending.out;
  EXPECT_LE(Unknown(ending), kFiles / 2) << ending.out;
}

TEST_F(RoundTrips, AreNotMadeForNamesAndAttributesWhenFilesAreMade) {
  constexpr int kFiles = 50;
  fs::create_directory(disk / "old");
  MountedDisk mounted(disk.path());
  AwaitProbeOfCase(mounted);
  for (int i = 0; i < kFiles; ++i) {
    const auto directory = (mounted / "new") + std::to_string(i / 10);
    if (i % 10 == 0) fs::create_directory(directory);
    WriteFile(directory + "/file" + std::to_string(i), "content");
    EXPECT_TRUE(S_ISDIR(Lstat(directory).st_mode)) << i;
  }
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Requests(103), kFiles) << ending.out;
  EXPECT_LE(Unknown(ending), kFiles / 2) << ending.out;
}

// The kernel asks for a file's attributes before it changes the owner.
TEST_F(RoundTrips, AreNotMadeForAttributesThatWereJustChanged) {
  constexpr int kTimes = 50;
  WriteFile(disk / "file", "content");
  MountedDisk mounted(disk.path());
  const auto path = mounted / "file";
  for (int i = 0; i < kTimes; ++i) {
    const mode_t mode = i % 2 == 0 ? 0600 : 0640;
    EXPECT_EQ(chmod(path.c_str(), mode), 0) << i;
    EXPECT_EQ(chown(path.c_str(), getuid(), getgid()), 0) << i;
    EXPECT_EQ(Lstat(path).st_mode & 0777, mode) << i;
  }
  const auto ending = mounted.Unmount();
  EXPECT_LE(Unknown(ending), kTimes / 2) << ending.out;
}

TEST_F(RoundTrips, AreNotMadeForTimesButToShowThem) {
  constexpr int kTimes = 50;
  WriteFile(disk / "file", "");
  MountedDisk mounted(disk.path());
  const auto path = mounted / "file";
  const int file = open(path.c_str(), O_WRONLY);
  ASSERT_GE(file, 0);
  for (int i = 0; i < kTimes; ++i) {
    EXPECT_EQ(write(file, "x", 1), 1) << i;
    EXPECT_EQ(futimens(file, nullptr), 0) << i;
  }
  const auto shown = Lstat(path);
  const auto there = Lstat(disk / "file");
  EXPECT_EQ(shown.st_size, kTimes);
  EXPECT_EQ(shown.st_mtim.tv_sec, there.st_mtim.tv_sec);
  EXPECT_EQ(shown.st_mtim.tv_nsec, there.st_mtim.tv_nsec);
  EXPECT_EQ(close(file), 0);
  const auto ending = mounted.Unmount();
  EXPECT_LE(ending.Requests(102), kTimes / 2) << ending.out;
}

TEST_F(RoundTrips, AreMadeForTimesWhenNothingMayBeAnsweredEarly) {
  constexpr int kTimes = 20;
  WriteFile(disk / "file", "");
  MountedDisk mounted(disk.path(), {"--sync"});
  const auto path = mounted / "file";
  for (int i = 0; i < kTimes; ++i) {
    EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), nullptr, 0), 0) << i;
  }
  const auto ending = mounted.Unmount();
  EXPECT_GE(ending.Requests(102), kTimes) << ending.out;
}

TEST_F(RoundTrips, AreNotMadeForNamesOfAListedDirectoryUntilAChangeIsTold) {
  constexpr int kFiles = 30;
  const auto name = [](int i) { return "/file" + std::to_string(i); };
  const TempDir watched(cpd::test::WatchablePlace());
  for (int i = 0; i < kFiles; ++i) WriteFile(watched.path() + name(i), "content");
  MountedDisk mounted(watched.path());
  EXPECT_NE(fs::directory_iterator(mounted.path()), fs::directory_iterator());
  WriteFile(mounted / "new", "of this mount");
  usleep(1'100'000);  // neither the kernel nor a listing is trusted for that long
  for (int i = 0; i < kFiles; ++i) EXPECT_TRUE(fs::exists(mounted.path() + name(i))) << i;
  WriteFile(watched.path() + name(7), "of the client");
  EXPECT_TRUE(Eventually([&] { return fs::file_size(mounted.path() + name(7)) == 13; }));
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Requests(107), 1) << ending.out;
  EXPECT_GE(ending.Count("known from before"), kFiles - 3) << ending.out;
  EXPECT_GE(ending.Count("changes told"), 2) << ending.out;
}

TEST_F(RoundTrips, AreNotMadeForExtendedAttributesAndNoProgramComplains) {
  fs::create_directory(disk / "from");
  for (int i = 0; i < 5; ++i) WriteFile((disk / "from/file") + std::to_string(i), Bytes(5000));
  MountedDisk mounted(disk.path());
  const auto result = Shell("set -e; cd " + mounted.path() +
                            "; ls -lR >/dev/null; cp -a from to; tar -cf ball from; mkdir in; "
                            "tar -xf ball -C in; mv in there; echo more >>from/file1");
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.output, "");
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Requests(108), 0) << ending.out;
}

}  // namespace
}  // namespace system_test
