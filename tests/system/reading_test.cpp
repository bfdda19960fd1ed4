// Real programs list and read a mounted disk.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <set>
#include <string>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

using Listing = MountTest;
using Attributes = MountTest;
using Statistics = MountTest;
using Reading = MountTest;

std::set<std::string> Names(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

void ExpectSameTime(const timespec& a, const timespec& b, const std::string& what) {
  EXPECT_EQ(a.tv_sec, b.tv_sec) << what;
  EXPECT_EQ(a.tv_nsec, b.tv_nsec) << what;
}

void ExpectSameAttributes(const std::string& original, const std::string& shown) {
  const auto want = Lstat(original);
  const auto got = Lstat(shown);
  EXPECT_EQ(got.st_size, want.st_size) << shown;
  EXPECT_EQ(got.st_mode, want.st_mode) << shown;
  EXPECT_EQ(got.st_nlink, want.st_nlink) << shown;
  EXPECT_EQ(got.st_ino, want.st_ino) << shown;
  EXPECT_EQ(got.st_uid, want.st_uid) << shown;
  EXPECT_EQ(got.st_gid, want.st_gid) << shown;
  EXPECT_EQ(got.st_blocks, want.st_blocks) << shown;
  ExpectSameTime(got.st_atim, want.st_atim, shown + " atime");
  ExpectSameTime(got.st_mtim, want.st_mtim, shown + " mtime");
  ExpectSameTime(got.st_ctim, want.st_ctim, shown + " ctime");
}

/// Copies `source` and compares the copy with its mount. Links are followed, because their targets
/// cannot be read through the mount.
void ExpectTheMountEqualsItsDisk(const std::string& source, const std::string& copy) {
  // The copy lacks dangling links and anything else that cp cannot follow.
  Shell("cp -rL " + source + " " + copy + " 2>/dev/null", 600s);
  const auto files = Shell("find " + copy + " -type f | wc -l").output;
  ASSERT_GT(std::stoi(files), 0) << source << " holds no file";
  MountedDisk mounted(copy);
  const auto diff = Shell("diff -r " + copy + " " + mounted.path(), 600s);
  EXPECT_EQ(diff.status, 0);
  EXPECT_EQ(diff.output, "");
  EXPECT_EQ(Shell("find " + mounted.path() + " -type f | wc -l").output, files);
}

TEST_F(Reading, WholeTreeOfHeadersIsTheSameThroughTheMount) {
  ExpectTheMountEqualsItsDisk("/usr/include", disk / "copy");
}

TEST_F(Reading, WholeTreeOfDocumentsIsTheSameThroughTheMount) {
  ExpectTheMountEqualsItsDisk("/usr/share/doc", disk / "copy");
}

TEST_F(Reading, SmallTreeIsTheSameThroughTheMount) {
  ASSERT_EQ(Shell("mkdir -p " + (disk / "a/b/c") + " " + (disk / "empty")).status, 0);
  for (const size_t size : {0, 1, 4095, 4096, 4097, 131072, 1000003}) {
    WriteFile(disk / "a/b/size " + std::to_string(size), Bytes(size, size));
  }
  WriteFile(disk / "a/b/c/Grüße \"und\" \\ 'mehr'\n", "odd name");
  WriteFile(disk / "a/" + std::string(255, 'n'), "long name");
  MountedDisk mounted(disk.path());
  const auto diff = Shell("diff -r " + disk.path() + " " + mounted.path());
  EXPECT_EQ(diff.status, 0);
  EXPECT_EQ(diff.output, "");
  EXPECT_EQ(ReadFile(mounted / "a/b/size 1000003"), Bytes(1000003, 1000003));
}

TEST_F(Reading, EightReadersAtOnceAllGetTheRightBytes) {
  for (int i = 0; i < 8; ++i) {
    WriteFile(disk / "file" + std::to_string(i), Bytes(3'000'000 + i * 777, i + 1));
  }
  MountedDisk mounted(disk.path());
  // Each reader starts with another file and reads them all.
  const auto readers = Shell(
      "for r in 0 1 2 3 4 5 6 7; do ( for i in 0 1 2 3 4 5 6 7; do f=file$(( (r + i) % 8 )); "
      "cmp " +
      disk.path() + "/$f " + mounted.path() +
      "/$f || echo broken; done; echo done ) & "
      "done; wait");
  EXPECT_EQ(readers.status, 0);
  EXPECT_EQ(readers.output, "done\ndone\ndone\ndone\ndone\ndone\ndone\ndone\n");
}

TEST_F(Reading, PiecesOfAFileAreReadAtTheirPlaces) {
  const auto content = Bytes(700'001, 5);
  WriteFile(disk / "file", content);
  MountedDisk mounted(disk.path());
  const int fd = open((mounted / "file").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  for (const off_t offset : {0, 1, 4095, 131071, 699'000, 700'000, 700'001, 800'000}) {
    std::string piece(3000, '\0');
    const ssize_t n = pread(fd, piece.data(), piece.size(), offset);
    ASSERT_GE(n, 0) << "at " << offset;
    piece.resize(n);
    const size_t start = std::min<size_t>(offset, content.size());
    EXPECT_EQ(piece, content.substr(start, 3000)) << "at " << offset;
  }
  close(fd);
}

TEST_F(Reading, LeavesNoDescriptorOpenInTheHost) {
  for (int i = 0; i < 100; ++i) WriteFile(disk / "file" + std::to_string(i), Bytes(10'000));
  MountedDisk mounted(disk.path());
  EXPECT_EQ(Shell("cat " + (mounted / "file0 ") + (mounted / "missing")).status, 1);
  const size_t before = mounted.OpenDescriptors();
  EXPECT_EQ(Shell("cat " + (mounted / "file* ") + "| wc -c; df " + mounted.path()).status, 0);
  EXPECT_TRUE(Eventually([&] { return mounted.OpenDescriptors() <= before; }));
}

TEST_F(Reading, AMissingFileIsReportedAsMissing) {
  MountedDisk mounted(disk.path());
  EXPECT_EQ(open((mounted / "missing").c_str(), O_RDONLY | O_CLOEXEC), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(Listing, OfTenThousandFilesCostsOneRequestForTheDirectoryAndNonePerFile) {
  for (int i = 0; i < 10'000; ++i) WriteFile(disk / "file" + std::to_string(i), "");
  MountedDisk mounted(disk.path());
  const auto begin = std::chrono::steady_clock::now();
  const auto lines = Shell("ls -l " + mounted.path() + " | wc -l");
  EXPECT_EQ(lines.output, "10001\n");  // one more for the line with the total
  const auto seconds =
      std::chrono::floor<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.status, 0);
  // What the kernel knows of the directory and of the files expires after a second. On a machine
  // that is slower than that, a part of the names is asked for until the directory is listed again.
  EXPECT_LE(ending.Requests(107), 1 + seconds) << ending.out;
  EXPECT_LE(ending.Requests(102), 4 + seconds * 200) << ending.out;
}

TEST_F(Listing, ShowsEveryNameOnce) {
  std::set<std::string> names;
  for (int i = 0; i < 3000; ++i) names.insert(std::string(i % 200 + 1, 'x') + std::to_string(i));
  for (const auto& name : names) WriteFile(disk / name, "");
  MountedDisk mounted(disk.path());
  EXPECT_EQ(Names(mounted.path()), names);
  EXPECT_EQ(Shell("ls " + mounted.path() + " | wc -l").output, "3000\n");
}

TEST_F(Listing, OfAnEmptyDirectoryShowsOnlyTheDotEntries) {
  MountedDisk mounted(disk.path());
  EXPECT_EQ(Shell("ls -a " + mounted.path()).output, ".\n..\n");
}

TEST_F(Attributes, OfFilesAndDirectoriesAreThoseOfTheDisk) {
  WriteFile(disk / "file", Bytes(12345));
  fs::create_hard_link(disk / "file", disk / "second name");
  fs::create_directories(disk / "directory/sub");
  ASSERT_EQ(Shell("chmod 4751 " + (disk / "file") + "; chmod 1770 " + (disk / "directory") +
                  "; mkfifo -m 640 " + (disk / "fifo") +
                  "; touch -d '1969-07-20 20:17:40.123456789' " + (disk / "directory/sub"))
                .status,
            0);
  MountedDisk mounted(disk.path());
  for (const char* name : {"file", "second name", "directory", "directory/sub", "fifo"}) {
    ExpectSameAttributes(disk / name, mounted / name);
  }
}

TEST_F(Attributes, SeenThroughAListingAreThoseOfTheDisk) {
  for (int i = 0; i < 100; ++i)
    WriteFile(disk / "file" + std::to_string(i), Bytes(size_t{100} * i));
  MountedDisk mounted(disk.path());
  for (const auto& name : Names(mounted.path())) {
    ExpectSameAttributes(disk / name, mounted / name);
  }
}

TEST_F(Attributes, OfASymbolicLinkAreItsOwn) {
  WriteFile(disk / "file", "content");
  fs::create_symlink("file", disk / "link");
  fs::create_symlink("nowhere", disk / "dangling");
  MountedDisk mounted(disk.path());
  for (const char* name : {"link", "dangling"}) {
    EXPECT_TRUE(S_ISLNK(Lstat(mounted / name).st_mode)) << name;
    ExpectSameAttributes(disk / name, mounted / name);
  }
}

TEST_F(Attributes, ASymbolicLinksTargetCannotBeRead) {
  fs::create_symlink("file", disk / "link");
  MountedDisk mounted(disk.path());
  char target[16];
  EXPECT_EQ(readlink((mounted / "link").c_str(), target, sizeof target), -1);
  EXPECT_EQ(errno, ENOTSUP);
}

TEST_F(Attributes, ExtendedOnesAreNotSupported) {
  WriteFile(disk / "file", "content");
  if (setxattr((disk / "file").c_str(), "user.colour", "blue", 4, 0) != 0) {
    GTEST_SKIP() << "the temporary directory carries no extended attributes: " << strerror(errno);
  }
  MountedDisk mounted(disk.path());
  char value[16];
  EXPECT_EQ(getxattr((mounted / "file").c_str(), "user.colour", value, sizeof value), -1);
  EXPECT_EQ(errno, ENOTSUP);
  EXPECT_EQ(listxattr((mounted / "file").c_str(), value, sizeof value), -1);
  EXPECT_EQ(errno, ENOTSUP);
}

TEST_F(Statistics, HaveTheSizeOfTheDiskThatHoldsTheDirectory) {
  MountedDisk mounted(disk.path());
  const auto want = Statvfs(disk.path());
  const auto got = Statvfs(mounted.path());
  EXPECT_EQ(got.f_blocks * got.f_frsize, want.f_blocks * want.f_frsize);
  EXPECT_EQ(got.f_files, want.f_files);
  EXPECT_EQ(got.f_namemax, want.f_namemax);
}

TEST_F(Statistics, OfAWholeFileSystemAreShownByDf) {
  const LoopDisk loop;
  if (!loop.problem().empty()) GTEST_SKIP() << loop.problem();
  WriteFile(loop.path() + "/file", Bytes(5'000'000));
  sync();
  MountedDisk mounted(loop.path());
  const std::string df = "df -B1 --output=size,used,avail,itotal,iused,iavail ";
  const auto want = Shell(df + loop.path());
  ASSERT_EQ(want.status, 0) << want.output;
  EXPECT_EQ(Shell(df + mounted.path()).output, want.output);
}

}  // namespace
}  // namespace system_test
