// Directories that were listed before are only checked, and changes still show.
#include <filesystem>
#include <functional>
#include <thread>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

/// What programs see of a directory: names and all attributes that reading does not change.
std::string List(const std::string& directory) {
  return Shell("ls -lai --time-style=full-iso " + Quoted(directory)).output;
}

class ListingCache : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    for (int i = 0; i < 50; ++i) WriteFile(disk / Name(i), Bytes(100 + i));
    fs::create_directory(disk / "directory");
  }
  static std::string Name(int i) { return (i < 10 ? "file0" : "file") + std::to_string(i); }
  /// What the mount must show of the files. The dot entries are left out: the root's parent
  /// differs.
  static std::string Files(const std::string& directory) {
    return Shell("cd " + Quoted(directory) + " && stat -c '%n %i %s %a %h %u %g %y' *").output;
  }
};

TEST_F(ListingCache, AnUnchangedDirectoryIsCheckedAndNotSentAgain) {
  MountedDisk mounted(disk.path());
  const auto first = List(mounted.path());
  for (int i = 0; i < 5; ++i) EXPECT_EQ(List(mounted.path()), first);
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Requests(107), 1) << ending.out;
  EXPECT_EQ(ending.Requests(121), 5) << ending.out;
}

TEST_F(ListingCache, CanBeSwitchedOff) {
  MountedDisk mounted(disk.path(), {"--no-dir-cache"});
  const auto first = List(mounted.path());
  EXPECT_EQ(List(mounted.path()), first);
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Requests(107), 2) << ending.out;
  EXPECT_EQ(ending.Requests(121), 0) << ending.out;
}

TEST_F(ListingCache, AnEmptyDirectoryIsCheckedToo) {
  MountedDisk mounted(disk.path());
  for (int i = 0; i < 3; ++i) List(mounted / "directory");
  EXPECT_EQ(mounted.Unmount().Requests(107), 1);
}

TEST_F(ListingCache, HoldsManyDirectories) {
  for (int i = 0; i < 40; ++i) fs::create_directories((disk / "tree/") + std::to_string(i));
  MountedDisk mounted(disk.path());
  Shell("ls -R " + mounted.path());
  Shell("ls -R " + mounted.path());
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Requests(107), 43) << ending.out;
  EXPECT_EQ(ending.Requests(121), 43) << ending.out;
}

TEST_F(ListingCache, ListsTheOldestAnewWhenItIsFull) {
  constexpr int kDirectories = 300;
  for (int i = 0; i < kDirectories; ++i)
    fs::create_directories((disk / "tree/") + std::to_string(i));
  MountedDisk mounted(disk.path());
  Shell("ls -R " + mounted.path());  // lists the root, "directory", "tree", and those in it by name
  List(mounted / "tree/99");
  List(mounted / "tree/0");
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Requests(107), kDirectories + 3 + 1) << ending.out;
  EXPECT_EQ(ending.Requests(121), 1) << ending.out;
}

TEST_F(ListingCache, ADirectoryOfMoreEntriesThanACheckCountsIsListedEveryTime) {
  fs::create_directory(disk / "large");
  for (int i = 0; i < 65'540; ++i) WriteFile((disk / "large/") + std::to_string(i), "");
  MountedDisk mounted(disk.path());
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(Shell("ls -U " + (mounted / "large") + " | wc -l").output, "65540\n");
  }
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Requests(107), 2) << ending.out;
  EXPECT_EQ(ending.Requests(121), 0) << ending.out;
}

TEST_F(ListingCache, ADirectoryWithHardLinksIsListedEveryTime) {
  fs::create_hard_link(disk / Name(1), disk / "directory/other name");
  MountedDisk mounted(disk.path());
  for (int i = 0; i < 3; ++i) List(mounted / "directory");
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Requests(107), 3) << ending.out;
  EXPECT_EQ(ending.Requests(121), 0) << ending.out;
}

// ---- Changes ----

struct Change {
  const char* name;
  std::function<void(const std::string& root)> make;
};

void PrintTo(const Change& change, std::ostream* out) { *out << change.name; }

void Run(const std::string& command) {
  const auto result = Shell(command);
  ASSERT_EQ(result.status, 0) << result.output;
}

class KeptListing : public ListingCache, public testing::WithParamInterface<Change> {};

TEST_P(KeptListing, ShowsAChangeThroughTheMountAtOnce) {
  MountedDisk mounted(disk.path());
  List(mounted.path());
  EXPECT_EQ(Files(mounted.path()), Files(disk.path()));
  GetParam().make(mounted.path());
  EXPECT_EQ(Files(mounted.path()), Files(disk.path()));
  const auto names = Shell("ls -a " + mounted.path()).output;
  EXPECT_EQ(names, Shell("ls -a " + disk.path()).output);
  EXPECT_EQ(mounted.Unmount().status, 0);
}

const auto kNamesAndSizes = testing::Values(
    Change{"NewFile", [](const auto& root) { WriteFile(root + "/new", "content"); }},
    Change{"NewDirectory", [](const auto& root) { fs::create_directory(root + "/new"); }},
    Change{"Removed", [](const auto& root) { fs::remove(root + "/file07"); }},
    Change{"DirectoryRemoved", [](const auto& root) { fs::remove(root + "/directory"); }},
    Change{"Renamed", [](const auto& root) { fs::rename(root + "/file07", root + "/new"); }},
    Change{"Replaced", [](const auto& root) { fs::rename(root + "/file07", root + "/file08"); }},
    Change{"MovedDown",
           [](const auto& root) { fs::rename(root + "/file07", root + "/directory/file07"); }},
    Change{"Grown", [](const auto& root) { Run("printf more >> " + root + "/file07"); }},
    Change{"Shortened", [](const auto& root) { fs::resize_file(root + "/file07", 3); }},
    Change{"ReplacedByAnIdenticalCopy", [](const auto& root) {
             Run("cd " + root + " && cp -p file07 directory/new && mv directory/new file07");
           }});

INSTANTIATE_TEST_SUITE_P(NamesAndSizes, KeptListing, kNamesAndSizes,
                         [](const auto& test) { return test.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Attributes, KeptListing,
    testing::Values(
        Change{"Mode",
               [](const auto& root) { fs::permissions(root + "/file07", fs::perms::owner_all); }},
        Change{"LinkCount",
               [](const auto& root) { fs::create_hard_link(root + "/file07", root + "/new"); }},
        Change{"LinkCountFromAnotherDirectory",
               [](const auto& root) {
                 fs::create_hard_link(root + "/file07", root + "/directory/new");
               }},
        Change{"ContentOfTheSameSize",
               [](const auto& root) {
                 Run("printf xxx | dd conv=notrunc status=none of=" + root + "/file07");
               }}),
    [](const auto& test) { return test.param.name; });

class CheckedListing : public ListingCache, public testing::WithParamInterface<Change> {};

TEST_P(CheckedListing, ShowsAChangeOnTheDiskWithTheNextListing) {
  MountedDisk mounted(disk.path());
  List(mounted.path());
  // The change falls into another second, and the kernel's cached attributes have expired.
  std::this_thread::sleep_for(1100ms);
  GetParam().make(disk.path());
  EXPECT_EQ(Shell("ls -a " + mounted.path()).output, Shell("ls -a " + disk.path()).output);
  EXPECT_EQ(Files(mounted.path()), Files(disk.path()));
  EXPECT_EQ(mounted.Unmount().status, 0);
}

INSTANTIATE_TEST_SUITE_P(NamesAndSizes, CheckedListing, kNamesAndSizes,
                         [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace system_test
