// When a disk is full, fails or turns read-only, and when the host dies, programs get an error, and
// data that they have synced stays.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

/// How far a program got in writing a file.
struct Progress {
  int error = 0;      ///< errno of the first failure; 0 when there was none
  size_t synced = 0;  ///< bytes whose fsync has returned
};

/// Writes the content in pieces, with an fsync after every tenth piece and at the end, and closes
/// the file.
Progress WriteInPieces(const std::string& path, const std::string& content, size_t piece) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return {.error = errno};
  Progress progress;
  size_t written = 0;
  for (int pieces = 1; written < content.size() && progress.error == 0; ++pieces) {
    const ssize_t n =
        write(fd, content.data() + written, std::min(piece, content.size() - written));
    if (n < 0) progress.error = errno;
    if (n > 0) written += static_cast<size_t>(n);
    if (n < 0 || (pieces % 10 != 0 && written < content.size())) continue;
    if (fsync(fd) == 0) {
      progress.synced = written;
    } else {
      progress.error = errno;
    }
  }
  if (close(fd) != 0 && progress.error == 0) progress.error = errno;
  return progress;
}

/// The file holds at least what was synced, and nothing that was not written.
void ExpectKept(const std::string& path, const std::string& content, const Progress& progress) {
  const auto kept = ReadFile(path);
  EXPECT_GE(kept.size(), progress.synced) << path;
  EXPECT_LE(kept.size(), content.size()) << path;
  EXPECT_TRUE(content.starts_with(kept)) << path << " holds other bytes than were written";
}

class LoopDiskTest : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (!IsSkipped() && !loop.problem().empty()) GTEST_SKIP() << loop.problem();
  }
  std::string OnDisk(const std::string& name) const { return loop.path() + "/" + name; }

  LoopDisk loop;
};

// ---- Full ----

class FullDisk : public LoopDiskTest {
 protected:
  /// Leaves `left` bytes free. Fills the disk first, because the file system reserves some of what
  /// it counts as free.
  void Fill(size_t left) {
    const auto filling = OnDisk("filling");
    EXPECT_NE(Shell("cat /dev/zero >" + filling).status, 0);
    fs::resize_file(filling, fs::file_size(filling) - left);
    Shell("sync -f " + loop.path());
  }

  void ExpectRightStatistics(const MountedDisk& mounted) {
    // Blocks that are promised but not yet allocated may or may not count as free: sync first.
    Shell("sync -f " + loop.path());
    const auto want = Statvfs(loop.path());
    const auto got = Statvfs(mounted.path());
    EXPECT_EQ(got.f_frsize, want.f_frsize);
    EXPECT_EQ(got.f_blocks, want.f_blocks);
    EXPECT_EQ(got.f_bfree, want.f_bfree);
    EXPECT_EQ(got.f_bavail, want.f_bavail);
    EXPECT_EQ(got.f_files, want.f_files);
    EXPECT_EQ(got.f_ffree, want.f_ffree);
  }

  /// Writes one file until the disk is full.
  void WriteUntilItIsFull(size_t left, size_t piece) {
    WriteFile(OnDisk("old"), old);
    Fill(left);
    const auto content = Bytes(left + (1 << 20), 7);
    MountedDisk mounted(loop.path());
    const auto progress = WriteInPieces(mounted / "new", content, piece);
    EXPECT_EQ(progress.error, ENOSPC) << strerror(progress.error);
    EXPECT_GT(progress.synced, 0U);
    EXPECT_LT(progress.synced, content.size());
    ExpectRightStatistics(mounted);
    ExpectKept(mounted / "new", content, progress);
    EXPECT_EQ(ReadFile(mounted / "old"), old);

    ASSERT_EQ(unlink((mounted / "filling").c_str()), 0);
    ExpectRightStatistics(mounted);
    const auto again = WriteInPieces(mounted / "again", content, piece);
    EXPECT_EQ(again.error, 0) << strerror(again.error);
    EXPECT_EQ(mounted.Unmount().status, 0);
    EXPECT_EQ(ReadFile(OnDisk("old")), old);
    ExpectKept(OnDisk("new"), content, progress);
    EXPECT_EQ(ReadFile(OnDisk("again")), content);
  }

  const std::string old = Bytes(2'000'000, 3);
};

TEST_F(FullDisk, RefusesLargeWritesAndKeepsItsFiles) { WriteUntilItIsFull(20 << 20, 1 << 20); }

TEST_F(FullDisk, RefusesSmallWritesAndKeepsItsFiles) { WriteUntilItIsFull(1 << 20, 1000); }

TEST_F(FullDisk, RefusesFilesAndDirectoriesWithoutFreeInodes) {
  MountedDisk mounted(loop.path());
  const auto free = Statvfs(loop.path()).f_ffree;
  fs::create_directory(OnDisk("many"));
  for (uint64_t i = 1; i < free; ++i) {
    ASSERT_EQ(mknod(OnDisk("many/" + std::to_string(i)).c_str(), S_IFREG | 0600, 0), 0);
  }
  EXPECT_EQ(open((mounted / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644), -1);
  EXPECT_EQ(errno, ENOSPC) << strerror(errno);
  EXPECT_EQ(mkdir((mounted / "directory").c_str(), 0755), -1);
  EXPECT_EQ(errno, ENOSPC) << strerror(errno);
  ASSERT_EQ(unlink((mounted / "many/1").c_str()), 0);
  ExpectRightStatistics(mounted);
  EXPECT_EQ(mkdir((mounted / "directory").c_str(), 0755), 0) << strerror(errno);
}

// ---- Failing ----

/// A file system on a device that takes a few mebibytes and then fails every write, although the
/// file system still has free blocks.
class FailingDisk : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (IsSkipped()) return;
    if (geteuid() != 0) GTEST_SKIP() << "a loop device needs root";
    fs::create_directory(backing());
    fs::create_directory(path());
    const auto made = Shell("mount -t tmpfs -o size=6m none " + backing() + " && truncate -s 64M " +
                            backing() + "/image && mkfs.ext2 -q " + backing() +
                            "/image && mount -o loop " + backing() + "/image " + path());
    if (made.status != 0) GTEST_SKIP() << "no loop device here: " + made.output;
  }
  void TearDown() override {
    for (const auto& directory : {path(), backing()}) {
      if (IsMounted(directory)) umount2(directory.c_str(), MNT_DETACH);
    }
  }
  std::string path() const { return place / "disk"; }

 private:
  std::string backing() const { return place / "backing"; }

  TempDir place;
};

TEST_F(FailingDisk, FailsTheSyncWithAnInputOutputError) {
  MountedDisk mounted(path());
  const int fd = open((mounted / "file").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0) << strerror(errno);
  const auto content = Bytes(20 << 20);
  EXPECT_EQ(write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
  EXPECT_EQ(fsync(fd), -1);
  EXPECT_EQ(errno, EIO) << strerror(errno);
  close(fd);
}

// ---- Read-only ----

class DiskTurningReadOnly : public LoopDiskTest {
 protected:
  void Remount(const std::string& option) const {
    // The disk is busy while a request has a file open on it.
    EXPECT_TRUE(Eventually([&] {
      return Shell("mount -o remount," + option + " " + loop.path()).status == 0;
    })) << "cannot be remounted";
  }

  /// Turns the disk read-only while a program writes one file after the other.
  void RemountUnderAWriter(size_t piece) {
    const TempDir place;
    const auto content = Bytes(50 * piece, 5);
    MountedDisk mounted(loop.path(), {"--trace", place / "trace", "--trace-reads"});
    std::atomic<int> files = 0;  // files that were written completely
    Progress last;
    std::thread writer([&] {
      while (last.error == 0) {
        last = WriteInPieces(mounted / std::to_string(files), content, piece);
        if (last.error == 0) ++files;
      }
    });
    EXPECT_TRUE(Eventually([&] { return files >= 3; }));
    Remount("ro");
    writer.join();
    EXPECT_TRUE(last.error == EROFS || last.error == EACCES) << strerror(last.error);
    for (int i = 0; i < files; ++i) {
      EXPECT_EQ(ReadFile(mounted / std::to_string(i)), content) << i;
      EXPECT_EQ(ReadFile(OnDisk(std::to_string(i))), content) << i;
    }
    if (fs::exists(OnDisk(std::to_string(files)))) {
      ExpectKept(OnDisk(std::to_string(files)), content, last);
    }

    const auto refused = WriteInPieces(mounted / "0", content, piece);
    EXPECT_TRUE(refused.error == EROFS || refused.error == EACCES) << strerror(refused.error);
    EXPECT_NE(ReadFile(place / "trace").find("LOCAL_UDISK_WRITE_FILE_DISK_ACCESS_DENIED"),
              std::string::npos);
    Remount("rw");
    EXPECT_EQ(WriteInPieces(mounted / "after", content, piece).error, 0);
    EXPECT_EQ(ReadFile(OnDisk("after")), content);
  }
};

TEST_F(DiskTurningReadOnly, RefusesAndTracesLargeWrites) { RemountUnderAWriter(100'000); }

TEST_F(DiskTurningReadOnly, RefusesAndTracesSmallWrites) { RemountUnderAWriter(500); }

TEST_F(DiskTurningReadOnly, RefusesOtherChanges) {
  MountedDisk mounted(loop.path());
  WriteFile(mounted / "file", "content");
  Remount("ro");
  const std::string file = mounted / "file";
  const std::string other = mounted / "other";
  const auto expect_refused = [](int result, const char* call) {
    const int error = errno;
    EXPECT_EQ(result, -1) << call;
    EXPECT_TRUE(error == EROFS || error == EACCES) << call << ": " << strerror(error);
  };
  expect_refused(open(other.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644), "open");
  expect_refused(mkdir(other.c_str(), 0755), "mkdir");
  expect_refused(link(file.c_str(), other.c_str()), "link");
  expect_refused(rename(file.c_str(), other.c_str()), "rename");
  expect_refused(unlink(file.c_str()), "unlink");
  expect_refused(truncate(file.c_str(), 1), "truncate");
  expect_refused(chmod(file.c_str(), 0600), "chmod");
  EXPECT_EQ(ReadFile(file), "content");
}

// ---- A killed host ----

using KilledHost = MountTest;

/// Writes file after file, each in ever smaller pieces, until a call fails. Keeps all files open
/// until then, because closing one would sync it, too.
void WriteFiles(const std::string& directory, std::atomic<int>& synced) {
  std::vector<int> open_files;
  for (bool is_fine = true; is_fine;) {
    const auto content = Bytes(60'000, synced + 1);
    const std::string path = directory + '/' + std::to_string(synced);
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) break;
    open_files.push_back(fd);
    for (size_t at = 0, piece = 0; at < content.size() && is_fine; at += piece) {
      piece = (content.size() - at + 1) / 2;
      is_fine = write(fd, content.data() + at, piece) == static_cast<ssize_t>(piece);
    }
    is_fine = is_fine && fsync(fd) == 0;
    if (is_fine) ++synced;
  }
  for (const int fd : open_files) close(fd);
}

TEST_F(KilledHost, LosesNoByteOfAFileWhoseSyncHasReturned) {
  for (int round = 0; round < 5; ++round) {
    const std::string directory = "round" + std::to_string(round);
    fs::create_directory(disk / directory);
    std::atomic<int> synced = 0;
    {
      MountedDisk mounted(disk.path());
      std::thread writer(WriteFiles, mounted / directory, std::ref(synced));
      EXPECT_TRUE(Eventually([&] { return synced >= 10 * (round + 1); }));
      mounted.Signal(SIGKILL);
      EXPECT_EQ(mounted.WaitForEnd().status, 128 + SIGKILL);
      writer.join();
    }
    for (int i = 0; i < synced; ++i) {
      ASSERT_EQ(ReadFile(disk / directory + '/' + std::to_string(i)), Bytes(60'000, i + 1))
          << "file " << i << " of " << synced;
    }
  }
}

}  // namespace
}  // namespace system_test
