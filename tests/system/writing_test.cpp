// Programs change a mounted disk: contents, sizes, names and modes; some changes are refused.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <thread>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

using Contents = MountTest;
using SmallWrites = MountTest;
using LargeWrites = MountTest;
using Sizes = MountTest;
using Names = MountTest;
using OpenFiles = MountTest;
using HardLinks = MountTest;
using Modes = MountTest;
using Refusals = MountTest;
using Locks = MountTest;
using LocalChanges = MountTest;
using Ends = MountTest;

constexpr off_t kMiB = 1 << 20;

/// A disk that can be kept busy: one paced read takes more than a second, and requests that arrive
/// meanwhile wait for it.
class BusyDisk : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    WriteFile(disk / "paced", std::string(kMiB, '-'));
  }
  MountedDisk Mount() {
    return MountedDisk(disk.path(), {"--bandwidth", "4000"},
                       {{"TESSEL_CPD_CLIENT_THROTTLE_LEGACY", "0"}});
  }
  /// Returns when a read is under way. @return the thread that waits for it to end
  static std::jthread KeepBusy(const MountedDisk& mounted) {
    std::jthread reader([path = mounted / "paced"] {
      const int fd = open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
      const std::unique_ptr<void, decltype(&free)> buffer(aligned_alloc(4096, kMiB), &free);
      EXPECT_EQ(read(fd, buffer.get(), kMiB), kMiB) << strerror(errno);
      close(fd);
    });
    std::this_thread::sleep_for(100ms);
    return reader;
  }
};

class Fd {
 public:
  Fd(const std::string& path, int flags, mode_t mode = 0644)
      : mFd(open(path.c_str(), flags | O_CLOEXEC, mode)) {
    EXPECT_GE(mFd, 0) << path << ": " << strerror(errno);
  }
  ~Fd() { Close(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;

  /// @return 0, or the errno of close
  int Close() {
    if (mFd < 0) return 0;
    const int result = close(std::exchange(mFd, -1));
    return result == 0 ? 0 : errno;
  }
  int get() const { return mFd; }

  void Write(const std::string& bytes) {
    EXPECT_EQ(write(mFd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()))
        << strerror(errno);
  }
  void WriteAt(off_t offset, const std::string& bytes) {
    EXPECT_EQ(pwrite(mFd, bytes.data(), bytes.size(), offset), static_cast<ssize_t>(bytes.size()))
        << strerror(errno);
  }
  std::string ReadAt(off_t offset, size_t size) const {
    std::string bytes(size, '\0');
    const ssize_t n = pread(mFd, bytes.data(), size, offset);
    EXPECT_GE(n, 0) << strerror(errno);
    bytes.resize(std::max<ssize_t>(n, 0));
    return bytes;
  }
  struct stat Stat() const {
    struct stat status {};
    EXPECT_EQ(fstat(mFd, &status), 0) << strerror(errno);
    return status;
  }

 private:
  int mFd;
};

/// Lets the mount learn that its disk has room, so that small writes are acknowledged before they
/// are carried out. That holds for about a second.
void ShowThatThereIsRoom(const MountedDisk& mounted) {
  Fd file(mounted / "room", O_WRONLY | O_CREAT);
  file.Write("a first write is carried out before it is acknowledged");
  EXPECT_EQ(fsync(file.get()), 0) << strerror(errno);  // the disk's statistics have arrived by now
}

/// Every name in a directory, including hidden ones, without the dot entries.
std::set<std::string> List(const std::string& directory) {
  std::set<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory)) names.insert(entry.path().filename());
  return names;
}

using NameSet = std::set<std::string>;

/// The errno of a call that should fail; 0 if it succeeds.
int ErrorOf(const std::function<int()>& call) { return call() < 0 ? errno : 0; }

// ---- Contents ----

TEST_F(Contents, AreOnTheDiskAsTheyWereWritten) {
  MountedDisk mounted(disk.path());
  const auto bytes = Bytes(3'333'333);
  {
    Fd file(mounted / "file", O_WRONLY | O_CREAT | O_EXCL);
    for (size_t at = 0, size = 1; at < bytes.size(); at += size, size = size * 3 + 1) {
      file.Write(bytes.substr(at, size));
    }
    EXPECT_EQ(file.Close(), 0);
  }
  EXPECT_TRUE(ReadFile(disk / "file") == bytes);
  EXPECT_TRUE(ReadFile(mounted / "file") == bytes);
}

TEST_F(Contents, OfAFileThatIsOpenedWithTruncationAreReplaced) {
  WriteFile(disk / "file", Bytes(100'000));
  MountedDisk mounted(disk.path());
  {
    Fd file(mounted / "file", O_WRONLY | O_TRUNC);
    EXPECT_EQ(Lstat(disk / "file").st_size, 0);
    file.Write("short");
  }
  EXPECT_EQ(ReadFile(disk / "file"), "short");
}

TEST_F(Contents, OfTwoAppendersFollowEachOther) {
  MountedDisk mounted(disk.path());
  Fd one(mounted / "log", O_WRONLY | O_CREAT | O_APPEND);
  Fd two(mounted / "log", O_WRONLY | O_APPEND);
  std::string expected;
  for (int i = 0; i < 100; ++i) {
    one.Write("one " + std::to_string(i) + "\n");
    two.Write("two " + std::to_string(i) + "\n");
    expected += "one " + std::to_string(i) + "\ntwo " + std::to_string(i) + "\n";
  }
  EXPECT_EQ(ReadFile(mounted / "log"), expected);
}

TEST_F(Contents, BetweenTwoWrittenRangesAreZero) {
  MountedDisk mounted(disk.path());
  {
    Fd file(mounted / "file", O_WRONLY | O_CREAT);
    file.WriteAt(5000, "end");
    file.WriteAt(0, "start");
  }
  EXPECT_EQ(ReadFile(disk / "file"), "start" + std::string(4995, '\0') + "end");
}

TEST_F(Contents, CanBeWrittenThroughTheHandleThatMadeAReadOnlyFile) {
  if (geteuid() == 0) GTEST_SKIP() << "root may write to any file";
  MountedDisk mounted(disk.path());
  Fd file(mounted / "file", O_RDWR | O_CREAT, 0400);
  file.Write("content");
  EXPECT_EQ(fsync(file.get()), 0) << strerror(errno);
  EXPECT_EQ(ftruncate(file.get(), 12 * kMiB), 0) << strerror(errno);
  EXPECT_EQ(ftruncate(file.get(), 11 * kMiB), 0) << strerror(errno);
  EXPECT_EQ(ftruncate(file.get(), 4), 0) << strerror(errno);
  EXPECT_EQ(ReadFile(disk / "file"), "cont");
  EXPECT_EQ(Lstat(disk / "file").st_mode & 07777U, 0400U);
}

// ---- Small writes, which are sent together ----

TEST_F(SmallWrites, AreSentInFewPackets) {
  WriteFile(disk / "file", std::string(kMiB, '-'));
  MountedDisk mounted(disk.path());
  auto expected = ReadFile(disk / "file");
  ShowThatThereIsRoom(mounted);
  const auto begin = std::chrono::steady_clock::now();
  {
    Fd file(mounted / "file", O_WRONLY);
    for (int i = 0; i < 256; ++i) {
      const auto piece = Bytes(100, i);
      const off_t offset = (i * 97 % 256) * 4096 + i;
      file.WriteAt(offset, piece);
      expected.replace(offset, piece.size(), piece);
    }
  }
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_TRUE(ReadFile(disk / "file") == expected);
  // Each packet leaves 3 ms after its first write, the last at the close. One was sent before, for
  // the file "room". If the kernel releases that file only now, one packet leaves earlier.
  EXPECT_LE(mounted.Unmount().Requests(106), 1 + took / 3ms + 1 + 1);
}

TEST_F(SmallWrites, AreSentOneByOneWithoutBatches) {
  MountedDisk mounted(disk.path(), {"--no-batch"});
  {
    Fd file(mounted / "file", O_WRONLY | O_CREAT);
    for (int i = 0; i < 256; ++i) file.WriteAt(i * 200, "piece");
  }
  EXPECT_EQ(mounted.Unmount().Requests(106), 256);
}

TEST_F(SmallWrites, AreVisibleAtOnceToEveryProgram) {
  MountedDisk mounted(disk.path());
  Fd writer(mounted / "file", O_WRONLY | O_CREAT);
  Fd reader(mounted / "file", O_RDONLY);
  for (int i = 1; i <= 200; ++i) {
    writer.Write("0123456789");
    const off_t size = i * 10;
    // Look in a different way each time, so that one look does not help the next.
    switch (i % 5) {
      case 0:
        EXPECT_EQ(reader.ReadAt(size - 5, 100), "56789");
        break;
      case 1:
        EXPECT_EQ(Lstat(mounted / "file").st_size, size);
        break;
      case 2:
        EXPECT_EQ(writer.Stat().st_size, size);
        break;
      case 3:
        EXPECT_EQ(ReadFile(mounted / "file").size(), static_cast<size_t>(size));
        break;
      default:
        EXPECT_EQ(Shell("ls -l " + mounted.path() + " | tail -1 | awk '{print $5}'").output,
                  std::to_string(size) + "\n");
    }
  }
}

TEST_F(SmallWrites, OfTwoHandlesKeepTheirOrder) {
  MountedDisk mounted(disk.path());
  Fd one(mounted / "file", O_WRONLY | O_CREAT);
  Fd two(mounted / "file", O_WRONLY);
  const std::string large(100'000, 'L');
  for (int i = 0; i < 100; ++i) {
    one.WriteAt(0, "first");
    two.WriteAt(0, large);
    one.WriteAt(0, "last " + std::to_string(i));
    two.WriteAt(50'000, "middle");
  }
  EXPECT_EQ(two.Close(), 0);
  auto expected = large;
  expected.replace(0, 7, "last 99").replace(50'000, 6, "middle");
  EXPECT_TRUE(ReadFile(disk / "file") == expected);
}

TEST_F(SmallWrites, AreOnTheDiskSoonWithoutAnyFurtherCall) {
  MountedDisk mounted(disk.path());
  Fd file(mounted / "file", O_WRONLY | O_CREAT);
  file.Write("content");
  EXPECT_TRUE(Eventually([&] { return ReadFile(disk / "file") == "content"; }));
}

TEST_F(SmallWrites, AreOnTheDiskWhenTheFileIsClosed) {
  MountedDisk mounted(disk.path());
  for (int i = 0; i < 200; ++i) {
    const auto name = "file" + std::to_string(i);
    Fd file(mounted / name, O_WRONLY | O_CREAT);
    file.Write("content");
    ASSERT_EQ(file.Close(), 0);
    ASSERT_EQ(ReadFile(disk / name), "content");
  }
}

TEST_F(SmallWrites, FollowTheFileToItsNewName) {
  MountedDisk mounted(disk.path());
  Fd file(mounted / "a", O_WRONLY | O_CREAT);
  std::string expected;
  for (int i = 0; i < 200; ++i) {
    file.Write("0123456789");
    expected += "0123456789";
    const char* names[] = {"a", "b"};
    ASSERT_EQ(rename((mounted / names[i % 2]).c_str(), (mounted / names[(i + 1) % 2]).c_str()), 0);
  }
  EXPECT_EQ(file.Close(), 0);
  EXPECT_EQ(ReadFile(disk / "a"), expected);
}

TEST_F(SmallWrites, ThatFailAreReportedOnceToEachHandle) {
  MountedDisk mounted(disk.path());
  Fd one(mounted / "file", O_WRONLY | O_CREAT);
  Fd two(mounted / "file", O_WRONLY);
  ASSERT_TRUE(fs::remove(disk / "file"));
  ShowThatThereIsRoom(mounted);
  one.Write("lost");
  EXPECT_EQ(ErrorOf([&] { return fsync(two.get()); }), ENOENT);
  EXPECT_EQ(ErrorOf([&] { return static_cast<int>(write(one.get(), "more", 4)); }), ENOENT);
  EXPECT_EQ(two.Close(), 0);
  EXPECT_EQ(one.Close(), 0);
}

TEST_F(SmallWrites, ThatFailAreReportedByClose) {
  MountedDisk mounted(disk.path());
  Fd file(mounted / "file", O_WRONLY | O_CREAT);
  ASSERT_TRUE(fs::remove(disk / "file"));
  ShowThatThereIsRoom(mounted);
  file.Write("lost");
  EXPECT_EQ(file.Close(), ENOENT);
}

TEST_F(SmallWrites, AreNotAcknowledgedEarlyBeforeTheDiskIsKnownToHaveRoom) {
  MountedDisk mounted(disk.path());
  Fd file(mounted / "file", O_WRONLY | O_CREAT);
  ASSERT_TRUE(fs::remove(disk / "file"));
  EXPECT_EQ(ErrorOf([&] { return static_cast<int>(write(file.get(), "lost", 4)); }), ENOENT);
  EXPECT_EQ(file.Close(), 0);
}

TEST_F(LargeWrites, AreAnsweredEarlyAndOnTheDiskWhenTheFileIsClosed) {
  MountedDisk mounted(disk.path());
  ShowThatThereIsRoom(mounted);
  const auto content = Bytes(8 * kMiB);
  Fd file(mounted / "file", O_WRONLY | O_CREAT);
  for (size_t at = 0; at < content.size(); at += 65536) file.Write(content.substr(at, 65536));
  EXPECT_EQ(file.Close(), 0);
  EXPECT_TRUE(ReadFile(disk / "file") == content);
  const auto ending = mounted.Unmount();
  EXPECT_GT(ending.Count("writes answered early"), 0);
  EXPECT_EQ(ending.Count("failed later"), 0);
  EXPECT_EQ(ending.Requests(119), 0)
      << "closing a file asks for what the writes' answers have already shown";
}

TEST_F(LargeWrites, BetweenSmallOnesKeepTheirOrder) {
  MountedDisk mounted(disk.path());
  ShowThatThereIsRoom(mounted);
  std::string expected;
  Fd file(mounted / "file", O_RDWR | O_CREAT);
  for (int i = 0; i < 200; ++i) {
    const auto offset = static_cast<size_t>(i * 7919 % 60'000);
    const auto bytes = Bytes(i % 3 == 0 ? 50'000 : 100, i);
    file.WriteAt(static_cast<off_t>(offset), bytes);
    if (expected.size() < offset + bytes.size()) expected.resize(offset + bytes.size());
    expected.replace(offset, bytes.size(), bytes);
  }
  EXPECT_TRUE(file.ReadAt(0, 1 << 20) == expected);
  EXPECT_EQ(fsync(file.get()), 0);
  EXPECT_TRUE(ReadFile(disk / "file") == expected);
}

TEST_F(LargeWrites, ThatFailAreReportedOnceToEachHandleAndOnceInTheLog) {
  MountedDisk mounted(disk.path());
  Fd one(mounted / "file", O_WRONLY | O_CREAT);
  Fd two(mounted / "file", O_WRONLY);
  Fd three(mounted / "file", O_WRONLY);
  ASSERT_TRUE(fs::remove(disk / "file"));
  ShowThatThereIsRoom(mounted);
  one.Write(std::string(100'000, 'x'));
  EXPECT_EQ(ErrorOf([&] { return fsync(two.get()); }), ENOENT);
  EXPECT_EQ(ErrorOf([&] { return static_cast<int>(write(one.get(), "more", 4)); }), ENOENT);
  EXPECT_EQ(three.Close(), ENOENT);
  EXPECT_EQ(two.Close(), 0);
  EXPECT_EQ(one.Close(), 0);
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Count("failed later"), 1);
  const std::string line = "a write to /file failed after a program was told it was done";
  const auto first = ending.err.find(line);
  EXPECT_NE(first, std::string::npos) << ending.err;
  EXPECT_EQ(ending.err.find(line, first + 1), std::string::npos) << ending.err;
}

TEST_F(LargeWrites, ThatFailAreReportedByTheCallItselfWithSync) {
  MountedDisk mounted(disk.path(), {"--sync"});
  Fd file(mounted / "file", O_WRONLY | O_CREAT);
  ASSERT_TRUE(fs::remove(disk / "file"));
  ShowThatThereIsRoom(mounted);
  for (const size_t size : {100, 100'000}) {
    const std::string bytes(size, 'x');
    EXPECT_EQ(ErrorOf([&] { return static_cast<int>(write(file.get(), bytes.data(), size)); }),
              ENOENT);
  }
  EXPECT_EQ(file.Close(), 0);
  EXPECT_EQ(mounted.Unmount().Count("writes answered early"), 0);
}

TEST_F(SmallWrites, ThatFailAreNotWrittenIntoAFileThatTookTheName) {
  MountedDisk mounted(disk.path());
  ShowThatThereIsRoom(mounted);
  for (int i = 0; i < 100; ++i) {
    const auto number = std::to_string(i);
    const auto name = "name" + number;
    WriteFile(disk / name, "old content");
    fs::create_hard_link(disk / name, disk / "link" + number);
    WriteFile(disk / "new" + number, "new content");
    Lstat(mounted / "link" + number);
    Fd file(mounted / name, O_WRONLY);
    ASSERT_TRUE(fs::remove(disk / name));
    std::atomic<bool> is_renamed = false;
    std::jthread writer([&] {
      // Every other call fails, because it reports the failures before it.
      while (!is_renamed) (void)!pwrite(file.get(), "lost", 4, 0);
    });
    EXPECT_EQ(rename((mounted / "new" + number).c_str(), (mounted / name).c_str()), 0)
        << strerror(errno);
    is_renamed = true;
    writer.join();
    file.Close();
    ASSERT_EQ(ReadFile(disk / name), "new content") << i;
  }
}

// ---- Requests that meet in a busy disk's queue ----

TEST_F(BusyDisk, LosesNoAppendBecauseOfAnEarlierListing) {
  fs::create_directory(disk / "dir");
  for (int i = 0; i < 1500; ++i) WriteFile(disk / "dir/file" + std::to_string(i), "content");
  std::string last;  // the last name in listing order
  for (const auto& entry : fs::directory_iterator(disk / "dir")) last = entry.path().filename();
  const auto mounted = Mount();
  Fd file((mounted / "dir/") + last, O_WRONLY | O_APPEND);
  ShowThatThereIsRoom(mounted);
  const auto busy = KeepBusy(mounted);
  std::jthread lister([&] { EXPECT_EQ(List(mounted / "dir").size(), 1500U); });
  std::this_thread::sleep_for(100ms);
  file.Write(" before");
  lister.join();
  file.Write(" after");
  EXPECT_EQ(file.Close(), 0);
  EXPECT_EQ(ReadFile((disk / "dir/") + last), "content before after");
}

TEST_F(BusyDisk, KeepsTheModeThatIsSetWhileAFileIsClosed) {
  auto mounted = Mount();
  Fd writer(mounted / "file", O_WRONLY | O_CREAT, 0444);
  writer.Write("content");
  Fd reader(mounted / "file", O_RDONLY);
  const auto busy = KeepBusy(mounted);
  std::jthread changer(
      [&] { EXPECT_EQ(chmod((mounted / "file").c_str(), 0644), 0) << strerror(errno); });
  std::this_thread::sleep_for(100ms);
  reader.Close();
  changer.join();
  EXPECT_EQ(writer.Close(), 0);
  EXPECT_EQ(mounted.Unmount().status, 0);
  EXPECT_EQ(Lstat(disk / "file").st_mode & 07777U, 0644U);
}

// ---- Sizes ----

void ExpectSize(const MountedDisk& mounted, const TempDir& disk, const std::string& name,
                off_t size) {
  EXPECT_EQ(truncate((mounted / name).c_str(), size), 0)
      << name << ", " << size << ": " << strerror(errno);
  EXPECT_EQ(Lstat(disk / name).st_size, size) << name;
  EXPECT_EQ(Lstat(mounted / name).st_size, size) << name;
}

TEST_F(Sizes, CanBeSetOnBothSidesOfTenMebibytes) {
  const auto start = Bytes(12 * kMiB);
  MountedDisk mounted(disk.path());
  for (const std::string name : {"file.bin", "file", "dir.tmp/file", "file.doc"}) {
    fs::create_directory(disk / "dir.tmp");
    WriteFile(disk / name, start);
    for (const off_t size : {11 * kMiB, 11 * kMiB - 1, 10 * kMiB + 1, 10 * kMiB, 10 * kMiB - 1,
                             10 * kMiB + 1, 20 * kMiB, off_t{12345}, off_t{0}, off_t{1}}) {
      ExpectSize(mounted, disk, name, size);
    }
    fs::remove(disk / name);
  }
  EXPECT_EQ(List(disk.path()), NameSet{"dir.tmp"});
}

TEST_F(Sizes, BeyondTenMebibytesAreSetWithoutChangingTheRest) {
  const auto start = Bytes(12 * kMiB);
  WriteFile(disk / "file", start);
  MountedDisk mounted(disk.path());
  ExpectSize(mounted, disk, "file", 11 * kMiB);
  EXPECT_TRUE(ReadFile(disk / "file") == start.substr(0, 11 * kMiB));
  ExpectSize(mounted, disk, "file", 13 * kMiB);
  EXPECT_TRUE(ReadFile(mounted / "file") ==
              start.substr(0, 11 * kMiB) + std::string(2 * kMiB, '\0'));
}

TEST_F(Sizes, BeyondWhatTheDisksFilesCanHaveAreTooLarge) {
  const Fd bare(disk / "file", O_WRONLY | O_CREAT);
  const off_t far = off_t{1} << 58;
  if (ErrorOf([&] { return static_cast<int>(pwrite(bare.get(), "x", 1, far)); }) != EFBIG) {
    GTEST_SKIP() << "this disk takes files of any size";
  }
  MountedDisk mounted(disk.path());
  Fd file(mounted / "file", O_WRONLY);
  ShowThatThereIsRoom(mounted);
  EXPECT_EQ(ErrorOf([&] { return static_cast<int>(pwrite(file.get(), "x", 1, far)); }), EFBIG);
  EXPECT_EQ(ErrorOf([&] { return ftruncate(file.get(), far); }), EFBIG);
  EXPECT_EQ(file.Close(), 0);
}

TEST_F(Sizes, BeyondTheLimitOfTheHostAreTooLarge) {
  constexpr rlim_t kLimit = 100'000;
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  rlimit limited = before;
  limited.rlim_cur = kLimit;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
  const MountedDisk mounted(disk.path());
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  Fd file(mounted / "file", O_WRONLY | O_CREAT);
  ShowThatThereIsRoom(mounted);
  file.WriteAt(kLimit - 4, "last");
  EXPECT_EQ(ErrorOf([&] { return static_cast<int>(pwrite(file.get(), "x", 1, kLimit)); }), EFBIG);
  EXPECT_EQ(ErrorOf([&] { return ftruncate(file.get(), kLimit + 1); }), EFBIG);
  EXPECT_EQ(file.Close(), 0);
  EXPECT_EQ(Lstat(disk / "file").st_size, static_cast<off_t>(kLimit));
}

TEST_F(Sizes, OfAnOpenFileIncludeEarlierWrites) {
  MountedDisk mounted(disk.path());
  Fd file(mounted / "file", O_WRONLY | O_CREAT);
  for (int i = 0; i < 100; ++i) {
    file.WriteAt(0, "0123456789");
    ASSERT_EQ(ftruncate(file.get(), 3), 0) << strerror(errno);
    ASSERT_EQ(Lstat(disk / "file").st_size, 3);
  }
}

// ---- Names ----

TEST_F(Names, OfFilesAndDirectoriesAreMadeMovedAndRemoved) {
  MountedDisk mounted(disk.path());
  EXPECT_EQ(mkdir((mounted / "dir").c_str(), 0755), 0);
  WriteFile(mounted / "dir/file", "content");
  EXPECT_EQ(rename((mounted / "dir").c_str(), (mounted / "moved").c_str()), 0);
  EXPECT_EQ(ReadFile(mounted / "moved/file"), "content");
  EXPECT_EQ(rename((mounted / "moved/file").c_str(), (mounted / "file").c_str()), 0);
  EXPECT_EQ(List(disk / "moved"), NameSet{});
  EXPECT_EQ(rmdir((mounted / "moved").c_str()), 0);
  EXPECT_EQ(List(disk.path()), NameSet{"file"});
  EXPECT_EQ(List(mounted.path()), NameSet{"file"});
  EXPECT_EQ(unlink((mounted / "file").c_str()), 0);
  EXPECT_EQ(List(disk.path()), NameSet{});
}

TEST_F(Names, OfRegularFilesCanBeMadeWithoutOpeningThem) {
  MountedDisk mounted(disk.path());
  const auto make = [&] { return mknod((mounted / "file").c_str(), S_IFREG | 0640, 0); };
  EXPECT_EQ(ErrorOf(make), 0);
  EXPECT_EQ(Lstat(disk / "file").st_mode, S_IFREG | 0640U);
  EXPECT_EQ(ErrorOf(make), EEXIST);
}

TEST_F(Names, MayContainABackslash) {
  MountedDisk mounted(disk.path());
  EXPECT_EQ(mkdir((mounted / "a\\b").c_str(), 0755), 0) << strerror(errno);
  EXPECT_EQ(mkdir((mounted / "a\\b/c").c_str(), 0755), 0) << strerror(errno);
  WriteFile(mounted / "a\\b/c/d\\e", "content");
  EXPECT_EQ(List(disk.path()), NameSet{"a\\b"});
  EXPECT_EQ(ReadFile(disk / "a\\b/c/d\\e"), "content");
}

TEST_F(Names, ThatAreReplacedByARenameReferToTheNewFile) {
  MountedDisk mounted(disk.path());
  WriteFile(mounted / "old", "old content");
  WriteFile(mounted / "new", "new");
  EXPECT_EQ(rename((mounted / "new").c_str(), (mounted / "old").c_str()), 0);
  EXPECT_EQ(ReadFile(mounted / "old"), "new");
  EXPECT_EQ(List(mounted.path()), NameSet{"old"});
}

TEST_F(Names, OfADirectoryThatIsBeingReadLeadToContentThatWasJustWritten) {
  for (int i = 0; i < 2000; ++i) WriteFile(disk / "file" + std::to_string(i), "x");
  MountedDisk mounted(disk.path());
  DIR* directory = opendir(mounted.path().c_str());
  ASSERT_NE(directory, nullptr);
  ASSERT_NE(readdir(directory), nullptr);  // fetches the whole listing
  WriteFile(mounted / "file1999", "longer content");
  WriteFile(mounted / "file7", "longer content");
  while (readdir(directory) != nullptr) {
  }
  closedir(directory);
  EXPECT_EQ(ReadFile(mounted / "file7"), "longer content");
  EXPECT_EQ(ReadFile(mounted / "file1999"), "longer content");
  EXPECT_EQ(Lstat(mounted / "file1999").st_size, 14);
}

// ---- Open files that lose their name ----

TEST_F(OpenFiles, StayReadableAndWritableWhenUnlinked) {
  MountedDisk mounted(disk.path());
  Fd file(mounted / "file", O_RDWR | O_CREAT);
  file.Write("before");
  ASSERT_EQ(unlink((mounted / "file").c_str()), 0);
  file.Write(", after");
  EXPECT_EQ(file.ReadAt(0, 100), "before, after");
  EXPECT_EQ(file.Stat().st_nlink, 0U);
  EXPECT_EQ(fsync(file.get()), 0) << strerror(errno);
  EXPECT_EQ(List(mounted.path()), NameSet{});
  EXPECT_EQ(ErrorOf([&] { return access((mounted / "file").c_str(), F_OK); }), ENOENT);

  WriteFile(mounted / "file", "another");
  EXPECT_EQ(file.ReadAt(0, 100), "before, after");
  EXPECT_EQ(file.Close(), 0);
  EXPECT_TRUE(Eventually([&] { return List(disk.path()) == NameSet{"file"}; }));
}

TEST_F(OpenFiles, StayReadableAndWritableWhenAnotherTakesTheirName) {
  MountedDisk mounted(disk.path());
  WriteFile(mounted / "file", "old");
  WriteFile(mounted / "new", "new content");
  Fd file(mounted / "file", O_RDWR);
  ASSERT_EQ(rename((mounted / "new").c_str(), (mounted / "file").c_str()), 0);
  file.WriteAt(3, "er");
  EXPECT_EQ(file.ReadAt(0, 100), "older");
  EXPECT_EQ(ReadFile(mounted / "file"), "new content");
  EXPECT_EQ(List(mounted.path()), NameSet{"file"});
  EXPECT_EQ(file.Close(), 0);
  EXPECT_TRUE(Eventually([&] { return List(disk.path()) == NameSet{"file"}; }));
  EXPECT_EQ(ReadFile(disk / "file"), "new content");
}

TEST_F(OpenFiles, StayInTheirPlaceWhenARenameOntoThemFails) {
  fs::create_directory(disk / "other");
  if (mount("none", (disk / "other").c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "mounting needs root";
  }
  WriteFile(disk / "other/file", "new");  // on another file system, which only the disk knows
  WriteFile(disk / "file", "old");
  {
    MountedDisk mounted(disk.path());
    Fd file(mounted / "file", O_RDWR);
    const auto move = [&] {
      return rename((mounted / "other/file").c_str(), (mounted / "file").c_str());
    };
    EXPECT_EQ(ErrorOf(move), EXDEV);
    EXPECT_EQ(pwrite(file.get(), "O", 1, 0), 1);
    file.Close();
    EXPECT_EQ(ReadFile(mounted / "file"), "Old");
    EXPECT_EQ(ReadFile(mounted / "other/file"), "new");
    const auto left = fs::directory_iterator(disk.path());
    EXPECT_EQ(std::distance(begin(left), end(left)), 2) << "the hidden name is gone";
  }
  EXPECT_EQ(umount2((disk / "other").c_str(), MNT_DETACH), 0);
}

TEST_F(OpenFiles, DoNotPreventTheRemovalOfTheirDirectory) {
  MountedDisk mounted(disk.path());
  ASSERT_EQ(mkdir((mounted / "dir").c_str(), 0755), 0);
  Fd file(mounted / "dir/file", O_RDWR | O_CREAT);
  file.Write("content");
  ASSERT_EQ(unlink((mounted / "dir/file").c_str()), 0);
  EXPECT_EQ(rmdir((mounted / "dir").c_str()), 0) << strerror(errno);
  EXPECT_EQ(file.ReadAt(0, 100), "content");
  EXPECT_EQ(file.Close(), 0);
  EXPECT_TRUE(Eventually([&] { return List(disk.path()).empty(); }));
}

TEST_F(OpenFiles, ThatWereUnlinkedAreGoneFromTheDiskAfterTheMount) {
  MountedDisk mounted(disk.path());
  Fd file(mounted / "file", O_RDWR | O_CREAT);
  file.Write("content");
  ASSERT_EQ(unlink((mounted / "file").c_str()), 0);
  EXPECT_EQ(mounted.Unmount().status, 0);
  EXPECT_EQ(List(disk.path()), NameSet{});
}

// ---- Hard links ----

TEST_F(HardLinks, ShareTheirContent) {
  MountedDisk mounted(disk.path());
  WriteFile(mounted / "one", "content");
  ASSERT_EQ(link((mounted / "one").c_str(), (mounted / "two").c_str()), 0) << strerror(errno);
  EXPECT_EQ(Lstat(mounted / "one").st_ino, Lstat(mounted / "two").st_ino);
  EXPECT_EQ(Lstat(mounted / "one").st_nlink, 2U);
  Fd one(mounted / "one", O_RDWR);
  Fd two(mounted / "two", O_RDWR);
  for (int i = 0; i < 50; ++i) {
    const auto text = std::to_string(i);
    (i % 2 == 0 ? one : two).WriteAt(i, text);
    EXPECT_EQ((i % 2 == 0 ? two : one).ReadAt(i, text.size()), text);
  }
  EXPECT_EQ(unlink((mounted / "one").c_str()), 0);
  EXPECT_EQ(Lstat(mounted / "two").st_nlink, 1U);
  one.WriteAt(0, "still here");
  EXPECT_EQ(ReadFile(mounted / "two").substr(0, 10), "still here");
}

TEST_F(HardLinks, MadeOnTheClientShareTheirContent) {
  WriteFile(disk / "one", "content");
  fs::create_hard_link(disk / "one", disk / "two");
  MountedDisk mounted(disk.path());
  Fd one(mounted / "one", O_RDWR);
  Fd two(mounted / "two", O_RDWR);
  EXPECT_EQ(two.ReadAt(0, 100), "content");
  one.WriteAt(0, "CONTENT");
  EXPECT_EQ(two.ReadAt(0, 100), "CONTENT");
}

// ---- Modes, owners, times ----

TEST_F(Modes, OfNewFilesAreAsRequested) {
  const mode_t before = umask(022);
  MountedDisk mounted(disk.path());
  umask(0);
  for (const mode_t mode : {0777U, 0666U, 0640U, 0600U, 0444U, 0U}) {
    const auto name = "file" + std::to_string(mode);
    Fd(mounted / name, O_WRONLY | O_CREAT, mode);
    EXPECT_EQ(Lstat(disk / name).st_mode & 07777U, mode);
    EXPECT_EQ(Lstat(mounted / name).st_mode & 07777U, mode);
    EXPECT_EQ(mkdir((mounted / "dir" + std::to_string(mode)).c_str(), mode), 0);
    EXPECT_EQ(Lstat(disk / "dir" + std::to_string(mode)).st_mode & 07777U, mode);
  }
  umask(027);
  Fd(mounted / "masked", O_WRONLY | O_CREAT, 0666);
  EXPECT_EQ(Lstat(disk / "masked").st_mode & 07777U, 0640U);
  umask(before);
}

TEST_F(Modes, HaveNoSetIdBitsOnTheDisk) {
  MountedDisk mounted(disk.path());
  Fd(mounted / "file", O_WRONLY | O_CREAT, 06755);
  EXPECT_EQ(Lstat(disk / "file").st_mode & 06777U, 0755U);
  EXPECT_EQ(chmod((mounted / "file").c_str(), 06711), 0) << strerror(errno);
  EXPECT_EQ(Lstat(disk / "file").st_mode & 07777U, 0711U);
  EXPECT_EQ(Lstat(mounted / "file").st_mode & 07777U, 0711U);
  EXPECT_EQ(mkdir((mounted / "directory").c_str(), 02755), 0);
  EXPECT_EQ(chmod((mounted / "directory").c_str(), 03711), 0) << strerror(errno);
  EXPECT_EQ(Lstat(disk / "directory").st_mode & 07777U, 01711U);
}

TEST_F(Modes, AndOwnersCanBeChanged) {
  MountedDisk mounted(disk.path());
  WriteFile(mounted / "file", "content");
  EXPECT_EQ(chmod((mounted / "file").c_str(), 0751), 0) << strerror(errno);
  EXPECT_EQ(Lstat(mounted / "file").st_mode & 07777U, 0751U);
  EXPECT_EQ(Lstat(disk / "file").st_mode & 07777U, 0751U);
  if (geteuid() != 0) return;
  EXPECT_EQ(chown((mounted / "file").c_str(), 12, 34), 0) << strerror(errno);
  EXPECT_EQ(Lstat(disk / "file").st_uid, 12U);
  EXPECT_EQ(Lstat(mounted / "file").st_gid, 34U);
  EXPECT_EQ(chown((mounted / "file").c_str(), 56, -1), 0) << strerror(errno);
  EXPECT_EQ(Lstat(disk / "file").st_uid, 56U);
  EXPECT_EQ(Lstat(disk / "file").st_gid, 34U);
}

TEST_F(Modes, TheOwnerOfALinksTargetIsNotChangedThroughTheLink) {
  if (geteuid() != 0) GTEST_SKIP() << "only root may change owners";
  WriteFile(disk / "file", "content");
  fs::create_symlink("file", disk / "link");
  MountedDisk mounted(disk.path());
  EXPECT_EQ(ErrorOf([&] { return lchown((mounted / "link").c_str(), 12, 34); }), ENOTSUP);
  EXPECT_EQ(Lstat(disk / "file").st_uid, geteuid());
}

TEST_F(Modes, AnOwnerShowsAfterTheFileWasWrittenAndRead) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  WriteFile(disk / "file", Bytes(10'000));
  usleep(20'000);  // the write changes the file's time
  MountedDisk mounted(disk.path());
  const int writer = open((mounted / "file").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(writer, 0);
  ASSERT_EQ(pwrite(writer, Bytes(10'000, 2).data(), 10'000, 0), 10'000);
  EXPECT_EQ(ReadFile(mounted / "file"), Bytes(10'000, 2));
  ASSERT_EQ(chown((mounted / "file").c_str(), 1234, 1234), 0);
  EXPECT_EQ(Lstat(mounted / "file").st_uid, 1234U);
  close(writer);
}

TEST_F(Modes, TimesAreAcceptedButNotSet) {
  MountedDisk mounted(disk.path());
  WriteFile(mounted / "file", "content");
  const auto before = Lstat(disk / "file").st_mtim;
  const timespec times[] = {{.tv_sec = 1000, .tv_nsec = 0}, {.tv_sec = 1000, .tv_nsec = 0}};
  EXPECT_EQ(utimensat(AT_FDCWD, (mounted / "file").c_str(), times, 0), 0) << strerror(errno);
  EXPECT_EQ(Lstat(mounted / "file").st_mtim.tv_sec, before.tv_sec);
  EXPECT_EQ(Lstat(disk / "file").st_mtim.tv_sec, before.tv_sec);
}

// ---- Refusals ----

TEST_F(Refusals, HaveTheRightErrno) {
  MountedDisk mounted(disk.path());
  WriteFile(mounted / "file", "content");
  fs::create_directories(disk / "full/inner");
  fs::create_directory(disk / "empty");
  const auto path = [&](const char* name) { return mounted / name; };
  const auto error_of_create = [&](const std::string& name) {
    return ErrorOf([&] { return open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644); });
  };
  const auto error_of_rename = [&](const char* from, const char* to) {
    return ErrorOf([&] { return rename(path(from).c_str(), path(to).c_str()); });
  };
  EXPECT_EQ(error_of_create(path("none/file")), ENOENT);
  EXPECT_EQ(error_of_create(path("file/file")), ENOTDIR);
  EXPECT_EQ(error_of_create(path("file")), EEXIST);
  EXPECT_EQ(error_of_create(path("") + std::string(256, 'x')), ENAMETOOLONG);
  EXPECT_EQ(ErrorOf([&] { return mkdir(path("empty").c_str(), 0755); }), EEXIST);
  EXPECT_EQ(ErrorOf([&] { return rmdir(path("full").c_str()); }), ENOTEMPTY);
  EXPECT_EQ(ErrorOf([&] { return rmdir(path("file").c_str()); }), ENOTDIR);
  EXPECT_EQ(ErrorOf([&] { return unlink(path("empty").c_str()); }), EISDIR);
  EXPECT_EQ(ErrorOf([&] { return unlink(path("none").c_str()); }), ENOENT);
  EXPECT_EQ(error_of_rename("empty", "full"), ENOTEMPTY);
  EXPECT_EQ(error_of_rename("empty", "file"), ENOTDIR);
  EXPECT_EQ(error_of_rename("file", "empty"), EISDIR);
  EXPECT_EQ(error_of_rename("empty", "empty/inner"), EINVAL);
  EXPECT_EQ(error_of_rename("none", "other"), ENOENT);
  EXPECT_EQ(ErrorOf([&] { return link(path("file").c_str(), path("empty").c_str()); }), EEXIST);
  EXPECT_EQ(ErrorOf([&] { return truncate(path("empty").c_str(), 1); }), EISDIR);
}

TEST_F(Refusals, HaveTheRightErrnoWhenTheKernelsCacheIsStale) {
  fs::create_directories(disk / "dir/inner");
  for (const char* name : {"one", "two", "three"}) WriteFile(disk / name, "content");
  MountedDisk mounted(disk.path());
  // The kernel trusts what it has seen for a second. The client removes the files within it.
  for (const char* name : {"one", "two", "three", "dir/inner"}) Lstat(mounted / name);
  for (const char* name : {"one", "two", "three", "dir/inner"}) fs::remove(disk / name);
  EXPECT_EQ(ErrorOf([&] { return unlink((mounted / "one").c_str()); }), ENOENT);
  EXPECT_EQ(ErrorOf([&] { return rename((mounted / "two").c_str(), (mounted / "x").c_str()); }),
            ENOENT);
  EXPECT_EQ(ErrorOf([&] { return chmod((mounted / "three").c_str(), 0600); }), ENOENT);
  EXPECT_EQ(ErrorOf([&] { return rmdir((mounted / "dir/inner").c_str()); }), ENOENT);
}

TEST_F(Refusals, AreEnotsupOrEinvalForWhatTheProtocolLacks) {
  MountedDisk mounted(disk.path());
  WriteFile(mounted / "file", "content");
  WriteFile(mounted / "other", "other");
  EXPECT_EQ(ErrorOf([&] { return symlink("file", (mounted / "link").c_str()); }), ENOTSUP);
  EXPECT_EQ(ErrorOf([&] { return mkfifo((mounted / "fifo").c_str(), 0644); }), ENOTSUP);
  EXPECT_EQ(ErrorOf([&] { return setxattr((mounted / "file").c_str(), "user.x", "1", 1, 0); }),
            ENOTSUP);
  EXPECT_EQ(ErrorOf([&] { return removexattr((mounted / "file").c_str(), "user.x"); }), ENOTSUP);
  const Fd file(mounted / "file", O_RDWR);
  EXPECT_EQ(ErrorOf([&] { return fallocate(file.get(), 0, 0, 4096); }), ENOTSUP);
  EXPECT_EQ(ErrorOf([&] {
              return renameat2(AT_FDCWD, (mounted / "file").c_str(), AT_FDCWD,
                               (mounted / "other").c_str(), RENAME_EXCHANGE);
            }),
            EINVAL);
  EXPECT_EQ(List(disk.path()), (NameSet{"file", "other"}));
}

void ExpectEverythingRefused(const MountedDisk& mounted) {
  const auto file = mounted / "file";
  const auto other = mounted / "other";
  const std::vector<std::pair<const char*, std::function<int()>>> changes{
      {"create", [&] { return open(other.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644); }},
      {"truncate", [&] { return truncate(file.c_str(), 1); }},
      {"chmod", [&] { return chmod(file.c_str(), 0600); }},
      {"chown", [&] { return chown(file.c_str(), 1, 1); }},
      {"mkdir", [&] { return mkdir(other.c_str(), 0755); }},
      {"rmdir", [&] { return rmdir((mounted / "dir").c_str()); }},
      {"link", [&] { return link(file.c_str(), other.c_str()); }},
      {"symlink", [&] { return symlink("file", other.c_str()); }},
      {"unlink", [&] { return unlink(file.c_str()); }},
      {"rename", [&] { return rename(file.c_str(), other.c_str()); }},
      {"utimensat", [&] { return utimensat(AT_FDCWD, file.c_str(), nullptr, 0); }},
  };
  for (const auto& [name, change] : changes) EXPECT_EQ(ErrorOf(change), EROFS) << name;
}

TEST_F(Refusals, OfAReadOnlyMountCoverEveryChange) {
  WriteFile(disk / "file", "content");
  fs::create_directory(disk / "dir");
  MountedDisk mounted(disk.path(), {"--read-only"});
  ExpectEverythingRefused(mounted);
  EXPECT_EQ(ErrorOf([&] { return open((mounted / "file").c_str(), O_WRONLY); }), EROFS);
  EXPECT_EQ(ReadFile(mounted / "file"), "content");
  EXPECT_EQ(List(disk.path()), (NameSet{"dir", "file"}));
}

TEST_F(Refusals, OfAReadOnlyMountSurviveARemount) {
  WriteFile(disk / "file", "content");
  fs::create_directory(disk / "dir");
  MountedDisk mounted(disk.path(), {"--read-only"});
  if (mount(nullptr, mounted.path().c_str(), nullptr, MS_REMOUNT, nullptr) != 0) {
    GTEST_SKIP() << "cannot remount: " << strerror(errno);
  }
  ExpectEverythingRefused(mounted);
  {
    const Fd file(mounted / "file", O_WRONLY);
    EXPECT_EQ(ErrorOf([&] { return static_cast<int>(pwrite(file.get(), "x", 1, 0)); }), EROFS);
    EXPECT_EQ(ErrorOf([&] { return fsync(file.get()); }), EROFS);
  }
  EXPECT_EQ(ReadFile(disk / "file"), "content");
}

// ---- Locks ----

TEST_F(Locks, HoldWithinTheMount) {
  MountedDisk mounted(disk.path());
  const Fd one(mounted / "file", O_RDWR | O_CREAT);
  const Fd two(mounted / "file", O_RDWR);
  EXPECT_EQ(flock(one.get(), LOCK_EX | LOCK_NB), 0) << strerror(errno);
  EXPECT_EQ(ErrorOf([&] { return flock(two.get(), LOCK_EX | LOCK_NB); }), EWOULDBLOCK);
}

// ---- Changes made on the client ----

TEST_F(LocalChanges, ShowWithinSeconds) {
  MountedDisk mounted(disk.path());
  WriteFile(mounted / "rewritten", "content");
  WriteFile(mounted / "replaced", "content");
  WriteFile(mounted / "removed", "content");
  WriteFile(disk / "rewritten", "rewritten here");
  WriteFile(disk / "new", "a new file");
  fs::rename(disk / "new", disk / "replaced");
  fs::remove(disk / "removed");
  EXPECT_TRUE(Eventually([&] { return ReadFile(mounted / "rewritten") == "rewritten here"; }));
  EXPECT_TRUE(Eventually([&] { return ReadFile(mounted / "replaced") == "a new file"; }));
  EXPECT_TRUE(Eventually([&] { return !fs::exists(mounted / "removed"); }));
}

TEST_F(LocalChanges, ThatTurnAFileIntoADirectoryShow) {
  MountedDisk mounted(disk.path());
  WriteFile(mounted / "name", "content");
  fs::remove(disk / "name");
  fs::create_directory(disk / "name");
  EXPECT_TRUE(Eventually([&] { return fs::is_directory(mounted / "name"); }));
}

// ---- Ends ----

/// Writes piece after piece until the mount is gone. All bytes that writes accepted must then be on
/// the disk.
void StopUnderAWriter(const TempDir& disk, const std::vector<std::string>& options, size_t piece) {
  MountedDisk mounted(disk.path(), options);
  const auto content = Bytes(40 * kMiB);
  std::atomic<size_t> taken = 0;
  std::thread writer([&] {
    Fd file(mounted / "file", O_WRONLY | O_CREAT);
    while (taken + piece <= content.size()) {
      const auto n = pwrite(file.get(), content.data() + taken, piece, static_cast<off_t>(taken));
      if (n < 0) return;
      taken += static_cast<size_t>(n);
    }
  });
  EXPECT_TRUE(Eventually([&] { return taken > 20 * piece; }));
  const auto ending = mounted.Unmount();
  writer.join();
  EXPECT_EQ(ending.status, 0) << ending.err;
  EXPECT_FALSE(IsMounted(mounted.path()));
  const auto written = ReadFile(disk / "file");
  EXPECT_GE(written.size(), taken);
  EXPECT_TRUE(written.substr(0, taken) == content.substr(0, taken));
}

TEST_F(Ends, ByASignalLoseNoSmallWriteThatWasAccepted) { StopUnderAWriter(disk, {}, 100); }

TEST_F(Ends, ByASignalLoseNoLargeWriteThatWasAccepted) { StopUnderAWriter(disk, {}, 300'000); }

TEST_F(Ends, ByASignalLeaveTheModeThatAFileWasGiven) {
  for (int round = 0; round < 10; ++round) {
    MountedDisk mounted(disk.path());
    const auto name = "file" + std::to_string(round);
    {
      Fd file(mounted / name, O_RDWR | O_CREAT | O_EXCL, 0444);
      EXPECT_EQ(ftruncate(file.get(), 10), 0) << strerror(errno);
      EXPECT_EQ(file.Stat().st_mode & 07777U, 0444U);
    }
    EXPECT_EQ(mounted.Unmount().status, 0);
    EXPECT_EQ(Lstat(disk / name).st_mode & 07777U, 0444U);
  }
}

}  // namespace
}  // namespace system_test
