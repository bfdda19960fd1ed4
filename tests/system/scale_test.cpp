// Directories and files that are much larger than usual.
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <sstream>
#include <string>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

// ---- Directories ----

/// What the host counted while a directory was listed.
struct Work {
  uint64_t requests = 0;
  uint64_t bytes = 0;  ///< of all packets
  uint64_t waits = 0;  ///< for the disk
};

class LargeDirectories : public MountTest {
 protected:
  static constexpr uint64_t kEntries = 10'000;
  static constexpr uint64_t kMostTimes = 11;  // the work, for ten times the entries

  void SetUp() override {
    MountTest::SetUp();
    if (IsSkipped()) return;
    // In memory, files are made and removed much faster; without the rights for that, it takes
    // long.
    is_in_memory_ = mount("none", disk.path().c_str(), "tmpfs", 0, nullptr) == 0;
    Make("small", kEntries);
    Make("large", 10 * kEntries);
  }
  ~LargeDirectories() override {
    if (is_in_memory_) umount2(disk.path().c_str(), MNT_DETACH);
  }
  void Make(const std::string& directory, uint64_t entries) {
    fs::create_directory(disk / directory);
    for (uint64_t i = 0; i < entries; ++i) {
      const auto name = disk / (directory + "/file" + std::to_string(1'000'000 + i));
      ASSERT_EQ(mknod(name.c_str(), S_IFREG | 0644, 0), 0) << name;
    }
  }
  /// Lists a directory by a command that prints a line for each entry.
  Work List(const std::string& command, const std::string& directory, uint64_t entries) {
    MountedDisk mounted(disk.path());
    EXPECT_EQ(Shell(command + " " + (mounted / directory) + " | grep -c file").output,
              std::to_string(entries) + "\n");
    const auto ending = mounted.Unmount();
    EXPECT_EQ(ending.Requests(107), 1) << ending.out;
    Work work{.waits = static_cast<uint64_t>(ending.Count("waits for the disk"))};
    std::istringstream table(ending.out);
    for (std::string line; std::getline(table, line);) {
      // A command's row: code, name, requests, replies, two times, bytes.
      std::istringstream row(line);
      unsigned code = 0;
      uint64_t requests = 0;
      uint64_t bytes = 0;
      std::string skipped;
      if (!(row >> code >> skipped >> requests >> skipped >> skipped >> skipped >> bytes)) continue;
      work.requests += requests;
      work.bytes += bytes;
    }
    EXPECT_GT(work.bytes, entries * 100) << ending.out;
    return work;
  }

 private:
  bool is_in_memory_ = false;
};

TEST_F(LargeDirectories, AreListedWithWorkInProportionToTheirEntries) {
  const auto small = List("ls -f", "small", kEntries);
  const auto large = List("ls -f", "large", 10 * kEntries);
  EXPECT_LE(large.requests, kMostTimes * small.requests);
  EXPECT_LE(large.waits, kMostTimes * small.waits);
  EXPECT_LE(large.bytes, kMostTimes * small.bytes);
  // The kernel knows an entry's attributes for a second, so a pause of a busy machine costs a
  // request for some of the entries that the program has just read.
  constexpr uint64_t kReadAtOnce = 2000;
  const auto with_attributes = List("ls -l", "large", 10 * kEntries);
  EXPECT_LE(with_attributes.requests, kMostTimes * small.requests + kReadAtOnce);
  EXPECT_LE(with_attributes.waits, kMostTimes * small.waits + kReadAtOnce);
  EXPECT_LE(with_attributes.bytes, kMostTimes * small.bytes);
}

// ---- Files ----

/// An open file, closed with the object.
class OpenFile {
 public:
  explicit OpenFile(const std::string& path) : mFile(open(path.c_str(), O_RDWR)) {
    EXPECT_GE(mFile, 0) << path;
  }
  ~OpenFile() { close(mFile); }
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;

  std::string Read(off_t offset, size_t size) const {
    std::string bytes(size, '?');
    const auto count = pread(mFile, bytes.data(), size, offset);
    EXPECT_GE(count, 0);
    bytes.resize(count < 0 ? 0 : static_cast<size_t>(count));
    return bytes;
  }
  void Write(off_t offset, const std::string& bytes) const {
    EXPECT_EQ(pwrite(mFile, bytes.data(), bytes.size(), offset),
              static_cast<ssize_t>(bytes.size()));
  }
  int Sync() const { return fsync(mFile); }

 private:
  int mFile;
};

class SparseFile : public MountTest {
 protected:
  static constexpr off_t kSize = off_t{8} << 30;
  static constexpr off_t kMostBlocks = 1 << 11;  // 1 MiB

  void SetUp() override {
    MountTest::SetUp();
    WriteFile(disk / "file", "");
    fs::resize_file(disk / "file", kSize);
  }
};

TEST_F(SparseFile, IsReadAndWrittenAtBothEnds) {
  {
    const OpenFile bare(disk / "file");
    bare.Write(0, "first");
    bare.Write(kSize - 4, "last");
  }
  MountedDisk mounted(disk.path());
  {
    const OpenFile file(mounted / "file");
    EXPECT_EQ(file.Read(0, 8), std::string("first\0\0\0", 8));
    EXPECT_EQ(file.Read(kSize - 6, 100), std::string("\0\0last", 6));
    EXPECT_EQ(file.Read(kSize, 100), "");
    file.Write(2, "ont");
    file.Write(kSize - 1, "ting");
    EXPECT_EQ(file.Sync(), 0);
    EXPECT_EQ(file.Read(kSize - 4, 100), "lasting");
  }
  EXPECT_EQ(Lstat(mounted / "file").st_size, kSize + 3);
  const OpenFile bare(disk / "file");
  EXPECT_EQ(bare.Read(0, 8), std::string("fiont\0\0\0", 8));
  EXPECT_EQ(bare.Read(kSize - 6, 100), std::string("\0\0lasting", 9));
  EXPECT_LE(Lstat(disk / "file").st_blocks, kMostBlocks);
}

TEST_F(SparseFile, IsMadeThroughTheMount) {
  MountedDisk mounted(disk.path());
  WriteFile(mounted / "new", "first");
  fs::resize_file(mounted / "new", kSize);
  EXPECT_EQ(Lstat(mounted / "new").st_size, kSize);
  const OpenFile bare(disk / "new");
  EXPECT_EQ(bare.Read(0, 8), std::string("first\0\0\0", 8));
  EXPECT_EQ(bare.Read(kSize - 2, 100), std::string("\0\0", 2));
  EXPECT_LE(Lstat(disk / "new").st_blocks, kMostBlocks);
}

}  // namespace
}  // namespace system_test
