// A line that drops, and leads to a disk in another state, or to another disk, when it is set up
// anew.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>

#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
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
    const std::string line = "echo $$ > " + place / "serving" + ".new && mv " + place / "serving" +
                             ".new " + place / "serving" + " && exec " + CPD_HOST + " serve " +
                             place / "disk";
    host =
        std::make_unique<Process>(std::vector<std::string>{CPD_HOST, "mount", "--via", line, mnt},
                                  place / "out", place / "err");
    ASSERT_TRUE(Eventually([&] { return IsMounted(mnt) || host->Wait(0ms); }));
    ASSERT_TRUE(IsMounted(mnt)) << ReadFile(place / "err");
  }

  /// Ends the serving process as a crash would. The next line leads to `directory`.
  void CutAndLeadTo(const std::string& directory) {
    const auto serving = ReadFile(place / "serving");
    Lead(directory);
    ASSERT_EQ(kill(std::stoi(serving), SIGKILL), 0);
    ASSERT_TRUE(Eventually([&] { return ReadFile(place / "serving") != serving; }));
  }

  std::string operator/(const std::string& name) const { return mnt + "/" + name; }

  TempDir place;
  const std::string mnt = place / "mnt";
  std::unique_ptr<Process> host;
};

/// One directory that is mounted twice, as a disk is that was unmounted and mounted again.
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

}  // namespace
}  // namespace system_test
