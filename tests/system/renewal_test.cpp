// A line that drops, and leads to a disk in another state, or to another disk, when it is set up
// anew.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/syscall.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {
namespace {

namespace fs = std::filesystem;

/// A file that the test holds open.
class OpenFile {
 public:
  OpenFile(const std::string& path, int flags) : mFd(open(path.c_str(), flags | O_CLOEXEC, 0644)) {
    EXPECT_GE(mFd, 0) << path << ": " << strerror(errno);
  }
  ~OpenFile() {
    if (mFd >= 0) close(mFd);
  }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  int Read() const {
    char byte = 0;
    return pread(mFd, &byte, 1, 0) < 0 ? errno : 0;
  }
  int Write(const std::string& data, off_t offset = 0) const {
    const ssize_t written = pwrite(mFd, data.data(), data.size(), offset);
    return written == static_cast<ssize_t>(data.size()) ? 0 : errno;
  }
  int Sync() const { return fsync(mFd) == 0 ? 0 : errno; }
  int Attributes() const {
    struct stat status {};
    return fstat(mFd, &status) == 0 ? 0 : errno;
  }
  int Names() const {
    std::vector<char> names(4096);
    return syscall(SYS_getdents64, mFd, names.data(), names.size()) < 0 ? errno : 0;
  }
  int Make(const std::string& name) const {
    return mkdirat(mFd, name.c_str(), 0755) == 0 ? 0 : errno;
  }
  int Close() { return close(std::exchange(mFd, -1)) == 0 ? 0 : errno; }

 private:
  int mFd;
};

/// A disk that is mounted through a line. The line leads to whatever `disk` links to when the line
/// is set up.
class Renewal : public testing::Test {
 protected:
  void SetUp() override {
    if (!WhyNoFuse().empty()) GTEST_SKIP() << WhyNoFuse();
    fs::create_directory(mnt);
  }

  void TearDown() override {
    if (host != nullptr) {
      host->Signal(SIGTERM);
      EXPECT_EQ(host->Wait(), 0) << ReadFile(place / "err");
    }
    if (IsMounted(mnt)) umount2(mnt.c_str(), MNT_DETACH);
  }

  void Lead(const std::string& directory) {
    fs::remove(place / "disk");
    fs::create_directory_symlink(directory, place / "disk");
  }

  void Mount(const std::string& directory) {
    Lead(directory);
    const std::string line = "while [ -e " + place / "hold" +
                             " ]; do sleep 0.02; done; echo $$ > " + place / "serving" +
                             ".new && mv " + place / "serving" + ".new " + place / "serving" +
                             " && exec " + CPD_HOST + " serve " + place / "disk";
    host =
        std::make_unique<Process>(std::vector<std::string>{CPD_HOST, "mount", "--via", line, mnt},
                                  place / "out", place / "err");
    ASSERT_TRUE(Eventually([&] { return IsMounted(mnt) || host->Wait(0ms); }));
    ASSERT_TRUE(IsMounted(mnt)) << ReadFile(place / "err");
  }

  /// From now on no new line is set up until LetLinesGo. The present one stays.
  void HoldLines() const { WriteFile(place / "hold", ""); }
  void LetLinesGo() const { fs::remove(place / "hold"); }
  /// Ends the serving process as a crash would.
  void Cut() const { ASSERT_EQ(kill(std::stoi(ReadFile(place / "serving")), SIGKILL), 0); }
  /// The same. The next line leads to `directory`; returns once it is being set up.
  void CutAndLeadTo(const std::string& directory) {
    const auto serving = ReadFile(place / "serving");
    Lead(directory);
    Cut();
    ASSERT_TRUE(Eventually([&] { return ReadFile(place / "serving") != serving; }));
  }

  std::string operator/(const std::string& name) const { return mnt + "/" + name; }

  TempDir place;
  const std::string mnt = place / "mnt";
  std::unique_ptr<Process> host;
};

/// One directory that is mounted twice, like a disk that was unmounted and mounted again.
class RemountedDisk : public Renewal {
 protected:
  void SetUp() override {
    Renewal::SetUp();
    if (IsSkipped()) return;
    fs::create_directory(place / "files");
    for (const auto& life : lives) {
      fs::create_directory(life);
      if (mount((place / "files").c_str(), life.c_str(), nullptr, MS_BIND, nullptr) != 0) {
        GTEST_SKIP() << "a bind mount needs root";
      }
    }
    Mount(lives[0]);
  }

  void TearDown() override {
    Renewal::TearDown();
    for (const auto& life : lives) {
      if (IsMounted(life)) umount2(life.c_str(), MNT_DETACH);
    }
  }

  const std::vector<std::string> lives{place / "first", place / "second"};
};

TEST_F(RemountedDisk, FailsTheNextSyncOfWhatWasNotSynced) {
  const OpenFile unsynced(*this / "unsynced", O_RDWR | O_CREAT);
  const OpenFile synced(*this / "synced", O_RDWR | O_CREAT);
  const OpenFile reader(*this / "synced", O_RDONLY);
  EXPECT_EQ(unsynced.Write("data"), 0);
  EXPECT_EQ(synced.Write("data"), 0);
  EXPECT_EQ(synced.Sync(), 0);
  CutAndLeadTo(lives[1]);
  EXPECT_EQ(synced.Sync(), 0);
  EXPECT_EQ(unsynced.Sync(), EIO);
  EXPECT_EQ(unsynced.Sync(), 0);
  EXPECT_EQ(unsynced.Write("more", 4), 0);
  EXPECT_EQ(unsynced.Sync(), 0);
  EXPECT_EQ(reader.Read(), 0);
  EXPECT_EQ(ReadFile(place / "files" + "/unsynced"), "datamore");
}

TEST_F(RemountedDisk, FailsTheCloseOfWhatWasNotSynced) {
  OpenFile unsynced(*this / "unsynced", O_RDWR | O_CREAT);
  OpenFile synced(*this / "synced", O_RDWR | O_CREAT);
  EXPECT_EQ(unsynced.Write("data"), 0);
  EXPECT_EQ(synced.Write("data"), 0);
  EXPECT_EQ(synced.Sync(), 0);
  CutAndLeadTo(lives[1]);
  EXPECT_EQ(unsynced.Close(), EIO);
  EXPECT_EQ(synced.Close(), 0);
}

TEST_F(RemountedDisk, FailsNothingWhenOnlyTheLineDropped) {
  OpenFile file(*this / "file", O_RDWR | O_CREAT);
  EXPECT_EQ(file.Write("data"), 0);
  CutAndLeadTo(lives[0]);
  EXPECT_EQ(file.Sync(), 0);
  EXPECT_EQ(file.Close(), 0);
}

/// A line that leads to another disk the second time.
class OtherDisk : public Renewal {
 protected:
  void SetUp() override {
    Renewal::SetUp();
    if (IsSkipped()) return;
    for (const auto& disk : {old_disk, new_disk}) {
      fs::create_directories(disk + "/directory");
      WriteFile(disk + "/removed", "something");
    }
    WriteFile(old_disk + "/which", "old");
    WriteFile(new_disk + "/which", "new");
    WriteFile(old_disk + "/directory/old", "");
    WriteFile(new_disk + "/directory/new", "");
    WriteFile(old_disk + "/file", "content of old");
    WriteFile(new_disk + "/file", "content of new");
    Mount(old_disk);
  }

  void AwaitNewDisk() const {
    ASSERT_TRUE(Eventually([&] { return ReadFile(*this / "which") == "new"; }));
  }
  void ChangeDisk() {
    CutAndLeadTo(new_disk);
    AwaitNewDisk();
  }

  const std::string old_disk = place / "old";
  const std::string new_disk = place / "new";
};

TEST_F(OtherDisk, MakesOpenFilesStale) {
  const OpenFile writer(*this / "file", O_RDWR);
  const OpenFile reader(*this / "file", O_RDONLY);
  const OpenFile directory(*this / "directory", O_RDONLY | O_DIRECTORY);
  EXPECT_EQ(reader.Read(), 0);
  ChangeDisk();
  EXPECT_EQ(reader.Read(), ESTALE);
  EXPECT_EQ(reader.Attributes(), ESTALE);
  EXPECT_EQ(writer.Read(), ESTALE);
  EXPECT_EQ(writer.Write("X"), ESTALE);
  EXPECT_EQ(writer.Sync(), ESTALE);
  EXPECT_EQ(directory.Names(), ESTALE);
  EXPECT_EQ(directory.Make("made"), ESTALE);
  EXPECT_EQ(ReadFile(new_disk + "/file"), "content of new");
  EXPECT_FALSE(fs::exists(new_disk + "/directory/made"));
}

TEST_F(OtherDisk, FailsTheNextSyncOfWhatWasNotSynced) {
  const OpenFile file(*this / "file", O_RDWR);
  EXPECT_EQ(file.Write("X"), 0);
  ChangeDisk();
  EXPECT_EQ(file.Write("X"), ESTALE);
  EXPECT_EQ(file.Sync(), EIO);
  EXPECT_EQ(file.Sync(), ESTALE);
  EXPECT_EQ(ReadFile(new_disk + "/file"), "content of new");
}

TEST_F(OtherDisk, FailsTheCloseOfWhatWasNotSynced) {
  OpenFile unsynced(*this / "file", O_RDWR);
  OpenFile synced(*this / "removed", O_RDWR);
  EXPECT_EQ(unsynced.Write("X"), 0);
  EXPECT_EQ(synced.Write("X"), 0);
  EXPECT_EQ(synced.Sync(), 0);
  ChangeDisk();
  EXPECT_EQ(unsynced.Close(), EIO);
  EXPECT_EQ(synced.Close(), 0);
}

TEST_F(OtherDisk, ShowsItsNamesAndContentAtOnce) {
  EXPECT_EQ(ReadFile(*this / "file"), "content of old");
  EXPECT_EQ(Shell("ls " + *this / "directory").output, "old\n");
  ChangeDisk();
  EXPECT_EQ(ReadFile(*this / "file"), "content of new");
  EXPECT_EQ(Shell("ls " + *this / "directory").output, "new\n");
  EXPECT_EQ(Shell("rm " + *this / "file").status, 0);
  EXPECT_FALSE(fs::exists(new_disk + "/file"));
  EXPECT_TRUE(fs::exists(old_disk + "/file"));
}

TEST_F(OtherDisk, GetsNothingThatWasMeantForTheFirst) {
  const OpenFile file(*this / "file", O_RDWR);
  const OpenFile hidden(*this / "hidden", O_RDWR | O_CREAT);
  EXPECT_EQ(unlink((*this / "hidden").c_str()), 0);
  EXPECT_EQ(file.Write("Y"), 0);
  EXPECT_EQ(file.Sync(), 0);
  HoldLines();
  Cut();
  Lead(new_disk);
  std::atomic<int> removal = -1;
  std::thread remover([&] { removal = unlink((*this / "removed").c_str()) == 0 ? 0 : errno; });
  std::atomic<int> writing = -1;
  // The write may count as done before the mount notices that the line is cut; then the sync fails.
  std::thread writer([&] {
    const int error = file.Write(std::string(100'000, 'X'));
    writing = error != 0 ? error : file.Sync();
  });
  EXPECT_FALSE(Eventually([&] { return removal != -1 || writing != -1; }, 300ms));
  LetLinesGo();
  remover.join();
  writer.join();
  EXPECT_EQ(removal, EIO);
  EXPECT_EQ(writing, EIO);
  AwaitNewDisk();
  EXPECT_EQ(ReadFile(new_disk + "/removed"), "something");
  EXPECT_EQ(ReadFile(new_disk + "/file"), "content of new");
  EXPECT_EQ(ReadFile(old_disk + "/file"), "Yontent of old");
}

TEST_F(OtherDisk, GetsNoSmallWritesThatWereMeantForTheFirst) {
  OpenFile file(*this / "file", O_RDWR);
  EXPECT_EQ(file.Write("Y"), 0);
  EXPECT_EQ(file.Sync(), 0);
  HoldLines();
  Cut();
  Lead(new_disk);
  std::thread writer([&] {
    for (int i = 0; i < 100; ++i) file.Write("X", i);
  });
  usleep(100'000);
  LetLinesGo();
  writer.join();
  AwaitNewDisk();
  EXPECT_EQ(ReadFile(new_disk + "/file"), "content of new");
}

/// A disk whose line is cut while a request is on its way.
class RequestOnItsWay : public Renewal {
 protected:
  void SetUp() override {
    Renewal::SetUp();
    if (IsSkipped()) return;
    fs::create_directory(files);
    WriteFile(files + "/file", "ours");
    Mount(files);
    Lstat(*this / "file");
  }

  /// Cuts the line after `request` was sent and before anything reads it, and then lets `meanwhile`
  /// happen before the next line. @return the request's error
  template <class Request, class Meanwhile>
  int CutDuring(Request request, Meanwhile meanwhile) {
    const int serving = std::stoi(ReadFile(place / "serving"));
    kill(serving, SIGSTOP);
    EXPECT_TRUE(Eventually([&] { return IsStopped(serving); }));
    HoldLines();
    std::atomic<int> error = -1;
    std::thread program([&] { error = request() == 0 ? 0 : errno; });
    EXPECT_FALSE(Eventually([&] { return error != -1; }, 300ms));
    kill(serving, SIGKILL);
    meanwhile();
    LetLinesGo();
    program.join();
    return error;
  }
  /// Whether all threads of a process are stopped. They stop one after another.
  static bool IsStopped(int process) {
    const auto threads = fs::directory_iterator("/proc/" + std::to_string(process) + "/task");
    return std::all_of(begin(threads), end(threads), [](const auto& thread) {
      const auto stat = ReadFile(thread.path() / "stat");
      return stat.find(") T ") != std::string::npos;
    });
  }
  void MakeAnotherFile() const {
    WriteFile(files + "/new", "somebody else's");
    fs::rename(files + "/new", files + "/file");
  }

  const std::string files = place / "files";
};

TEST_F(RequestOnItsWay, RemovesNoFileThatTheClientMadeMeanwhile) {
  EXPECT_EQ(CutDuring([&] { return unlink((*this / "file").c_str()); }, [&] { MakeAnotherFile(); }),
            0);
  EXPECT_EQ(ReadFile(files + "/file"), "somebody else's");
  EXPECT_EQ(ReadFile(*this / "file"), "somebody else's");
}

TEST_F(RequestOnItsWay, IsCarriedOutOverTheNextLine) {
  EXPECT_EQ(CutDuring([&] { return unlink((*this / "file").c_str()); }, [] {}), 0);
  EXPECT_FALSE(fs::exists(files + "/file"));
}

}  // namespace
}  // namespace system_test
