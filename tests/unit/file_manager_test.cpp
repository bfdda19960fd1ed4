#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "file_manager_linux.h"
#include "support/between_passes.h"
#include "support/fake_host.h"
#include "support/fake_sync.h"
#include "support/requests.h"
#include "support/temp_disk.h"

namespace {

/// What statfs reports, if set.
std::optional<struct statfs> g_statfs;

}  // namespace

extern "C" __attribute__((visibility("default"))) int statfs(const char* path,
                                                             struct statfs* out) noexcept {
  if (!g_statfs) return static_cast<int>(syscall(SYS_statfs, path, out));
  *out = *g_statfs;
  return 0;
}

namespace cpd::test {
namespace {

constexpr uint32_t kUntouched = 0xdeadbeef;

class FileManagerTest : public ::testing::Test {
 protected:
  FileManagerTest() : umask_(umask(0)) { Log().Clear(); }
  ~FileManagerTest() override {
    umask(umask_);
    g_statfs.reset();
  }

  /// Permission bits of a file on the disk.
  mode_t Mode(const std::string& path) { return Lstat(path).st_mode & 07777; }
  struct stat Lstat(const std::string& path) {
    struct stat attributes = {};
    EXPECT_EQ(lstat(disk.Local(path).c_str(), &attributes), 0) << path;
    return attributes;
  }
  void MakeFifo(const std::string& path) { ASSERT_EQ(mkfifo(disk.Local(path).c_str(), 0600), 0); }
  int MakeDirs(const std::string& path, int mode, short make_last) {
    return files.UdiskMakeDir(disk.Local(path).c_str(), mode, make_last);
  }
  std::string Read(const std::string& path, int64_t offset, int count) {
    std::string buffer(static_cast<size_t>(std::max(count, 1)), '.');
    result = files.UdiskReadFile(disk.Local(path).c_str(), buffer.data(), offset, count, &err);
    buffer.resize(static_cast<size_t>(std::max(result, 0)));
    return buffer;
  }
  int Write(const std::string& path, const std::string& data, int64_t offset) {
    return files.UdiskWriteFile(disk.Local(path).c_str(), data.data(), offset,
                                static_cast<int>(data.size()), &err);
  }
  /// The directories below the disk that UdiskMakeDir logged.
  std::vector<std::string> LoggedPrefixes() {
    std::vector<std::string> prefixes;
    for (const LogLine& line : Log().Lines()) {
      const std::string start = "pszDir:" + disk.root() + "/";
      if (line.message.rfind(start, 0) != 0) continue;
      EXPECT_EQ(line.function, "UdiskMakeDir");
      EXPECT_EQ(line.level, kDebug);
      prefixes.push_back(line.message.substr(start.size()));
    }
    return prefixes;
  }
  bool MakeDirWasCalled() {
    for (const LogLine& line : Log().Lines()) {
      if (line.function == "UdiskMakeDir") return true;
    }
    return false;
  }

  DescriptorCheck descriptors;
  TempDisk disk;
  FileManagerLinux files;
  uint32_t err = kUntouched;
  int result = 0;

 private:
  mode_t umask_;
};

/// The message of the log's only line, which must be an Error of this function.
std::string OnlyError(const std::string& function) {
  const std::vector<LogLine> lines = Log().Lines();
  EXPECT_EQ(lines.size(), 1U);
  if (lines.size() != 1) return "";
  EXPECT_EQ(lines[0].level, kError);
  EXPECT_EQ(lines[0].word, "Error:");
  EXPECT_EQ(lines[0].file, "file_manager_linux.cpp");
  EXPECT_EQ(lines[0].function, function);
  return lines[0].message;
}

/// Replaces the digits after "fd = ".
std::string WithoutDescriptor(std::string message) {
  const size_t begin = message.find("fd = ") + 5;
  size_t end = begin;
  while (end < message.size() && std::isdigit(static_cast<unsigned char>(message[end]))) ++end;
  EXPECT_GT(end, begin) << message;
  return message.replace(begin, end - begin, "N");
}

// ---- Create ----

TEST_F(FileManagerTest, CreateMakesAFileWithTheModeGiven) {
  EXPECT_GE(files.UdiskCreateFile(disk.Local("/a").c_str(), 0, 0640), 0);
  EXPECT_EQ(Mode("/a"), 0640U);
  EXPECT_EQ(disk.ReadBack("/a"), "");
  EXPECT_FALSE(MakeDirWasCalled());
}

TEST_F(FileManagerTest, CreateEmptiesAnExistingFile) {
  disk.MakeFile("/a", "content");
  EXPECT_GE(files.UdiskCreateFile(disk.Local("/a").c_str(), 0, 0640), 0);
  EXPECT_EQ(disk.ReadBack("/a"), "");
}

TEST_F(FileManagerTest, CreateIgnoresItsFlagsAndCutsTheModeTo16Bits) {
  disk.MakeFile("/a", "content");
  EXPECT_GE(files.UdiskCreateFile(disk.Local("/a").c_str(), O_EXCL | O_RDONLY, 0), 0);
  EXPECT_GE(files.UdiskCreateFile(disk.Local("/b").c_str(), 0, 0x10000 | 0600), 0);
  EXPECT_EQ(Mode("/b"), 0600U);
}

TEST_F(FileManagerTest, CreateMakesMissingParentsWithMode0777ThenTheFile) {
  const int fd = files.UdiskCreateFile(disk.Local("/x/y/file").c_str(), 0, 0600);
  EXPECT_GE(fd, 0);
  EXPECT_EQ(Mode("/x"), 0777U);
  EXPECT_EQ(Mode("/x/y"), 0777U);
  EXPECT_EQ(Mode("/x/y/file"), 0600U);
  EXPECT_FALSE(disk.IsDir("/x/y/file"));
  EXPECT_EQ(LoggedPrefixes(), (std::vector<std::string>{R"(x\n)", R"(x/y\n)"}));
  close(fd);
}

TEST_F(FileManagerTest, CreateLeavesTheDescriptorOfItsSecondTryOpen) {
  const int fd = files.UdiskCreateFile(disk.Local("/x/file").c_str(), 0, 0600);
  EXPECT_GE(fcntl(fd, F_GETFD), 0);
  close(fd);
}

TEST_F(FileManagerTest, CreateThatFailsTwiceIsMinusOneWithAnErrorLine) {
  disk.MakeDir("/dir");
  EXPECT_EQ(files.UdiskCreateFile(disk.Local("/dir").c_str(), 0, 0600), -1);
  EXPECT_EQ(Log().Messages(kError),
            (std::vector<std::string>{R"(file_create failed errno: Is a directory\n)"}));
  EXPECT_EQ(Log().Lines().back().function, "UdiskCreateFile");
}

TEST_F(FileManagerTest, CreateBelowAFileFails) {
  disk.MakeFile("/file", "content");
  EXPECT_EQ(files.UdiskCreateFile(disk.Local("/file/a").c_str(), 0, 0600), -1);
  EXPECT_TRUE(Log().Has(kError, R"(file_create failed errno: Not a directory\n)"));
  EXPECT_EQ(disk.ReadBack("/file"), "content");
}

// ---- Directories ----

TEST_F(FileManagerTest, MakeDirTreatsBackslashesAsSeparators) {
  const std::string path = disk.Local("/a\\b\\c");
  std::string given = path;
  EXPECT_EQ(files.UdiskMakeDir(given.c_str(), 0750, 1), 0);
  EXPECT_TRUE(disk.IsDir("/a/b/c"));
  EXPECT_EQ(Mode("/a"), 0750U);
  EXPECT_EQ(Mode("/a/b/c"), 0750U);
  EXPECT_EQ(given, path) << "the caller's text keeps its backslashes";
  EXPECT_EQ(LoggedPrefixes(), (std::vector<std::string>{R"(a\n)", R"(a/b\n)"}));
}

TEST_F(FileManagerTest, MakeDirWithoutTheLastMakesTheParentsOnly) {
  EXPECT_EQ(MakeDirs("/a\\b\\c", 0750, 0), 0);
  EXPECT_TRUE(disk.IsDir("/a/b"));
  EXPECT_FALSE(disk.Exists("/a/b/c"));
}

TEST_F(FileManagerTest, MakeDirNeverTreatsTheFirstCharacterAsASeparator) {
  EXPECT_EQ(files.UdiskMakeDir("/", 0777, 1), 0);
  EXPECT_EQ(files.UdiskMakeDir("\\", 0777, 0), 0);
  EXPECT_EQ(files.UdiskMakeDir("/nothing-is-made-of-this", 0777, 0), 0);
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(FileManagerTest, MakeDirFailsWhenAFileIsInTheWay) {
  disk.MakeFile("/file", "content");
  EXPECT_EQ(MakeDirs("/file/a/b", 0777, 1), -1);
  EXPECT_EQ(MakeDirs("/file", 0777, 1), -1) << "also as the last component";
  EXPECT_EQ(disk.ReadBack("/file"), "content");
}

TEST_F(FileManagerTest, MakeDirOfAnExistingDirectorySucceedsAndDoesNotChangeIt) {
  disk.MakeDir("/a/b");
  const mode_t before = Mode("/a/b");
  EXPECT_EQ(MakeDirs("/a/b", 0700, 1), 0);
  EXPECT_EQ(Mode("/a/b"), before);
}

TEST_F(FileManagerTest, MakeDirFollowsALinkToADirectory) {
  disk.MakeDir("/real");
  disk.MakeLink("/link", "real");
  EXPECT_EQ(MakeDirs("/link/a", 0777, 1), 0);
  EXPECT_TRUE(disk.IsDir("/real/a"));
}

TEST_F(FileManagerTest, MakeDirWithATrailingSeparatorMakesTheWholePath) {
  EXPECT_EQ(MakeDirs("/a/b/", 0777, 1), 0);
  EXPECT_EQ(MakeDirs("/c\\", 0777, 0), 0);
  EXPECT_TRUE(disk.IsDir("/a/b"));
  EXPECT_TRUE(disk.IsDir("/c"));
}

TEST_F(FileManagerTest, MakeDirCutsTheModeTo16Bits) {
  EXPECT_EQ(MakeDirs("/a/b", 0x10000 | 0700, 0), 0);
  EXPECT_EQ(Mode("/a"), 0700U);
}

TEST_F(FileManagerTest, MakeDirOfNullIsZero) { EXPECT_EQ(files.UdiskMakeDir(nullptr, 0777, 1), 0); }

TEST_F(FileManagerTest, DeleteDirectoryRemovesAnEmptyOneOnly) {
  disk.MakeDir("/empty");
  disk.MakeFile("/file", "");
  disk.MakeDir("/full/inside");
  EXPECT_EQ(files.UdiskDeleteDirectory(disk.Local("/empty").c_str()), 0);
  EXPECT_FALSE(disk.Exists("/empty"));
  EXPECT_EQ(files.UdiskDeleteDirectory(disk.Local("/full").c_str()), -1);
  EXPECT_EQ(files.UdiskDeleteDirectory(disk.Local("/file").c_str()), -1);
  EXPECT_TRUE(disk.Exists("/full/inside"));
}

// ---- Read ----

TEST_F(FileManagerTest, ReadGivesTheBytesAtTheOffset) {
  disk.MakeFile("/a", "0123456789");
  EXPECT_EQ(Read("/a", 3, 4), "3456");
  EXPECT_EQ(result, 4);
  EXPECT_EQ(err, kUntouched);
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(FileManagerTest, ReadReturnsTheSizeOfAShortRead) {
  disk.MakeFile("/a", "0123456789");
  EXPECT_EQ(Read("/a", 8, 100), "89");
  EXPECT_EQ(result, 2);
}

TEST_F(FileManagerTest, ReadBeyondTheEndIsZeroAndLeavesErrAlone) {
  disk.MakeFile("/a", "0123456789");
  Read("/a", 10, 4);
  EXPECT_EQ(result, 0);
  Read("/a", int64_t{1} << 40, 4);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(err, kUntouched);
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(FileManagerTest, ReadOfAMissingFileIsZeroWithErrNoEnt) {
  Read("/missing", 0, 4);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(err, static_cast<uint32_t>(ENOENT));
  EXPECT_EQ(OnlyError("UdiskReadFile"),
            R"(file_read failed res:0 errno: No such file or directory\n)");
}

TEST_F(FileManagerTest, ReadThatFailsIsZeroWithErr) {
  disk.MakeDir("/dir");
  Read("/dir", 0, 4);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(err, static_cast<uint32_t>(EISDIR));
  EXPECT_EQ(WithoutDescriptor(OnlyError("UdiskReadFile")),
            R"(file_read failed res: -1, fd = N errno: Is a directory\n)");
}

TEST_F(FileManagerTest, ReadOfANegativeCountOrOffsetIsRefusedByTheSystem) {
  disk.MakeFile("/a", "0123456789");
  Read("/a", 0, -1);
  EXPECT_EQ(result, 0);
  EXPECT_NE(err, kUntouched);
  Log().Clear();
  err = kUntouched;
  Read("/a", -1, 4);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(err, static_cast<uint32_t>(EINVAL));
  EXPECT_EQ(WithoutDescriptor(OnlyError("UdiskReadFile")),
            R"(file_read failed res: -1, fd = N errno: Invalid argument\n)");
}

TEST_F(FileManagerTest, ReadAsksForItsBufferOnceTheFileIsOpen) {
  disk.MakeFile("/a", "0123456789");
  char room[4];
  int calls = 0;
  const int got = files.UdiskReadFile(disk.Local("/a").c_str(), 2, &err, [&](int fd) {
    ++calls;
    EXPECT_GE(fcntl(fd, F_GETFD), 0);
    return ReadRoom{.data = room, .count = 4};
  });
  EXPECT_EQ(got, 4);
  EXPECT_EQ(std::string(room, 4), "2345");
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(files.UdiskReadFile(disk.Local("/missing").c_str(), 2, &err,
                                [&](int) {
                                  ++calls;
                                  return ReadRoom{.data = room, .count = 4};
                                }),
            0);
  EXPECT_EQ(calls, 1) << "no buffer for a file that does not open";
}

TEST_F(FileManagerTest, DeliverableIsWhatTheFileHoldsFromTheOffset) {
  disk.MakeFile("/a", "0123456789");
  const int fd = open(disk.Local("/a").c_str(), O_RDONLY);
  EXPECT_EQ(FileManagerLinux::Deliverable(fd, 0, 4), 4);
  EXPECT_EQ(FileManagerLinux::Deliverable(fd, 0, INT32_MAX), 10);
  EXPECT_EQ(FileManagerLinux::Deliverable(fd, 7, 4), 3);
  EXPECT_EQ(FileManagerLinux::Deliverable(fd, 10, 4), 0);
  EXPECT_EQ(FileManagerLinux::Deliverable(fd, INT64_MAX, 4), 0);
  EXPECT_EQ(FileManagerLinux::Deliverable(fd, 0, -1), -1);
  EXPECT_EQ(FileManagerLinux::Deliverable(fd, -1, 4), 0);
  close(fd);
}

TEST_F(FileManagerTest, DeliverableOfAPathThatLeadsNowhereIsZero) {
  disk.MakeFile("/a", "0123456789");
  disk.MakeLink("/loop", "loop");
  for (const std::string& path : {std::string("/missing"), std::string("/a/below"),
                                  std::string("/loop"), "/" + std::string(NAME_MAX + 1, 'n')}) {
    EXPECT_EQ(files.Deliverable(disk.Local(path).c_str(), 0, 4), 0) << path;
  }
}

TEST_F(FileManagerTest, DeliverableOfAFileOfUnknownSizeIsUpToOneMebibyte) {
  const int fd = open("/proc/self/status", O_RDONLY);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(FileManagerLinux::Deliverable(fd, 0, 4096), 4096);
  EXPECT_EQ(FileManagerLinux::Deliverable(fd, 0, INT32_MAX), 1 << 20);
  close(fd);
}

TEST_F(FileManagerTest, DeliverableOfADirectoryIsZero) {
  disk.MakeDir("/d");
  const int fd = open(disk.Local("/d").c_str(), O_RDONLY);
  EXPECT_EQ(FileManagerLinux::Deliverable(fd, 0, 4096), 0);
  EXPECT_EQ(files.Deliverable(disk.Local("/d").c_str(), 0, 4096), 0);
  close(fd);
}

// ---- Side effects that an open must not have ----

TEST_F(FileManagerTest, AnOpenFileIsNotPassedToOtherPrograms) {
  const int fd = files.UdiskCreateFile(disk.Local("/x/file").c_str(), 0, 0600);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
  close(fd);
}

TEST_F(FileManagerTest, ATerminalDoesNotBecomeTheControllingTerminal) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  if (terminal < 0 || grantpt(terminal) != 0 || unlockpt(terminal) != 0) {
    close(terminal);
    GTEST_SKIP() << "no terminals here: " << strerror(errno);
  }
  const std::string path = ptsname(terminal);
  const pid_t child = fork();
  if (child == 0) {
    setsid();  // now the first terminal that is opened without O_NOCTTY becomes the controlling one
    files.UdiskFsync(path.c_str());
    _exit(open("/dev/tty", O_RDWR | O_NOCTTY) < 0 ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0) << "the child has a controlling terminal";
  close(terminal);
}

// ---- Write ----

TEST_F(FileManagerTest, WriteReplacesTheBytesAtTheOffset) {
  disk.MakeFile("/a", "0123456789");
  EXPECT_EQ(Write("/a", "xyz", 4), 3);
  EXPECT_EQ(disk.ReadBack("/a"), "0123xyz789");
  EXPECT_EQ(Write("/a", "END", 12), 3);
  EXPECT_EQ(disk.ReadBack("/a"), std::string("0123xyz789\0\0END", 15));
  EXPECT_EQ(err, kUntouched);
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(FileManagerTest, WriteToAMissingFileIsZeroAndDoesNotCreateIt) {
  EXPECT_EQ(Write("/missing", "x", 0), 0);
  EXPECT_EQ(err, static_cast<uint32_t>(ENOENT));
  EXPECT_FALSE(disk.Exists("/missing"));
  EXPECT_EQ(OnlyError("UdiskWriteFile"), R"(write file fail errno:No such file or directory \n)");
}

TEST_F(FileManagerTest, WriteThatFailsIsMinusOneWithErr) {
  disk.MakeFile("/a", "0123456789");
  EXPECT_EQ(Write("/a", "x", -1), -1);
  EXPECT_EQ(err, static_cast<uint32_t>(EINVAL));
  EXPECT_EQ(WithoutDescriptor(OnlyError("UdiskWriteFile")),
            R"(pwrite failed res: -1, fd = N errno: Invalid argument\n)");
}

TEST_F(FileManagerTest, WriteOfANegativeCountIsRefusedByTheSystem) {
  disk.MakeFile("/a", "0123456789");
  EXPECT_EQ(files.UdiskWriteFile(disk.Local("/a").c_str(), "x", 0, -1, &err), -1);
  EXPECT_NE(err, kUntouched);
  EXPECT_EQ(disk.ReadBack("/a"), "0123456789");
}

// ---- Special files ----

TEST_F(FileManagerTest, AFifoBlocksNoOperation) {
  MakeFifo("/fifo");
  const std::string path = disk.Local("/fifo");
  Read("/fifo", 0, 4);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(err, static_cast<uint32_t>(ESPIPE));
  EXPECT_EQ(Write("/fifo", "x", 0), 0);
  EXPECT_EQ(err, static_cast<uint32_t>(ENXIO));
  EXPECT_EQ(files.UdiskCreateFile(path.c_str(), 0, 0600), -1);
  EXPECT_TRUE(Log().Has(kError, R"(file_create failed errno: No such device or address\n)"));
  EXPECT_EQ(files.UdiskFsync(path.c_str()), -1);
  EXPECT_EQ(files.UdiskRelease(path.c_str()), 0);
}

// ---- Attributes ----

TEST_F(FileManagerTest, FileInformationCarriesWhatLstatReports) {
  disk.MakeFile("/a", std::string(5000, 'x'));
  ASSERT_EQ(chmod(disk.Local("/a").c_str(), 0741), 0);
  ASSERT_EQ(link(disk.Local("/a").c_str(), disk.Local("/b").c_str()), 0);
  const timespec times[2] = {{1234567890, 123}, {987654321, 456}};
  ASSERT_EQ(utimensat(AT_FDCWD, disk.Local("/a").c_str(), times, 0), 0);
  udisk_stat out;
  std::memset(&out, 0xff, sizeof out);
  EXPECT_EQ(files.UdiskGetFileInformation(disk.Local("/a").c_str(), &out), 0);

  const struct stat expected = Lstat("/a");
  EXPECT_EQ(+out.st_dev, static_cast<int32_t>(expected.st_dev));
  EXPECT_EQ(+out.st_ino, expected.st_ino);
  EXPECT_EQ(+out.st_nlink, 2U);
  EXPECT_EQ(+out.st_size, 5000);
  EXPECT_EQ(+out.st_rdev, 0);
  EXPECT_EQ(+out.st_blocks, expected.st_blocks);
  EXPECT_EQ(+out.st_blksize, expected.st_blksize);
  EXPECT_EQ(+out.st_atim.tv_sec, 1234567890);
  EXPECT_EQ(+out.st_atim.tv_nsec, 123);
  EXPECT_EQ(+out.st_mtim.tv_sec, 987654321);
  EXPECT_EQ(+out.st_mtim.tv_nsec, 456);
  EXPECT_EQ(+out.st_ctim.tv_sec, expected.st_ctim.tv_sec);
  EXPECT_EQ(+out.st_ctim.tv_nsec, expected.st_ctim.tv_nsec);
  EXPECT_EQ(+out.st_mode, static_cast<uint32_t>(S_IFREG | 0741));
  EXPECT_EQ(+out.st_uid, getuid());
  EXPECT_EQ(+out.st_gid, expected.st_gid);
  EXPECT_EQ(+out.st_reserved, 0U);
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(FileManagerTest, FileInformationDescribesALinkNotItsTarget) {
  disk.MakeFile("/target", std::string(5000, 'x'));
  disk.MakeLink("/link", "target");
  disk.MakeLink("/dangling", "nowhere at all");
  udisk_stat out = {};
  EXPECT_EQ(files.UdiskGetFileInformation(disk.Local("/link").c_str(), &out), 0);
  EXPECT_EQ(out.st_mode & S_IFMT, static_cast<uint32_t>(S_IFLNK));
  EXPECT_EQ(+out.st_size, 6);
  EXPECT_EQ(files.UdiskGetFileInformation(disk.Local("/dangling").c_str(), &out), 0);
  EXPECT_EQ(+out.st_size, 14);
}

TEST_F(FileManagerTest, FileInformationOfAMissingFileLeavesTheRecordAlone) {
  udisk_stat out;
  std::memset(&out, 0xab, sizeof out);
  EXPECT_EQ(files.UdiskGetFileInformation(disk.Local("/missing").c_str(), &out), -1);
  EXPECT_EQ(BytesOf(out), std::string(120, '\xab'));
  EXPECT_EQ(OnlyError("UdiskGetFileInformation"), " lstat failed errno: No such file or directory");
}

TEST_F(FileManagerTest, SetStatNarrowsAndWidensAsTheRecordRequires) {
  struct stat from = {};
  from.st_dev = 0x180000001;
  from.st_ino = 0x1122334455667788;
  from.st_nlink = 0x12345;
  from.st_size = int64_t{1} << 40;
  from.st_rdev = 0x1fffffffe;
  from.st_blocks = int64_t{1} << 33;
  from.st_blksize = 0x80000000;
  from.st_mode = 0x000f81a4;
  from.st_uid = 0xfffffffe;
  from.st_gid = 0xfffffffd;
  udisk_stat out;
  std::memset(&out, 0xff, sizeof out);
  EXPECT_EQ(files.set_stat(&from, &out), 0);
  EXPECT_EQ(+out.st_dev, int64_t{-2147483647});
  EXPECT_EQ(+out.st_ino, 0x1122334455667788U);
  EXPECT_EQ(+out.st_nlink, 0x2345U);
  EXPECT_EQ(+out.st_size, int64_t{1} << 40);
  EXPECT_EQ(+out.st_rdev, -2);
  EXPECT_EQ(+out.st_blocks, int64_t{1} << 33);
  EXPECT_EQ(+out.st_blksize, int64_t{INT32_MIN});
  EXPECT_EQ(+out.st_mode, 0x81a4U);
  EXPECT_EQ(+out.st_uid, 0xfffffffeU);
  EXPECT_EQ(+out.st_gid, 0xfffffffdU);
  EXPECT_EQ(+out.st_reserved, 0U);
}

// ---- Listings ----

/// A listing that frees its buffer. It holds a pattern until UdiskReadDir fills it.
struct Listing {
  Listing() { std::memset(&attr, 0xab, sizeof attr); }
  ~Listing() {
    if (owned) std::free(attr.buf);
  }
  int Read(FileManagerLinux* files, const std::string& path) {
    const int result = files->UdiskReadDir(path.c_str(), &attr);
    owned = result == 0;
    return result;
  }
  [[nodiscard]] std::string Bytes() const {
    return {reinterpret_cast<const char*>(attr.buf), attr.buf_len};
  }
  [[nodiscard]] std::vector<DirEntry> Entries() const {
    return DecodeEntries(Bytes(), attr.entry_count);
  }

  _UDISK_DIR_ATTR attr;
  bool owned = false;
};

/// A directory's names in its own order.
std::vector<std::string> NamesInOrder(const std::string& path) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
  while (const dirent* entry = readdir(directory.get())) names.emplace_back(entry->d_name);
  return names;
}

TEST_F(FileManagerTest, ReadDirOfAnEmptyDirectoryListsItselfAndItsParent) {
  disk.MakeDir("/empty");
  Listing listing;
  ASSERT_EQ(listing.Read(&files, disk.Local("/empty")), 0);
  EXPECT_EQ(listing.attr.entry_count, 2U);
  EXPECT_EQ(listing.attr.buf_len, 250U);
  const std::vector<DirEntry> entries = listing.Entries();
  const std::vector<std::string> names = {entries[0].name, entries[1].name};
  EXPECT_EQ(names, NamesInOrder(disk.Local("/empty")));
  for (const DirEntry& entry : entries) {
    EXPECT_EQ(+entry.stat.st_ino, Lstat("/empty/" + entry.name).st_ino) << entry.name;
  }
}

TEST_F(FileManagerTest, ReadDirListsEveryEntryWithItsAttributesInTheDirectorysOrder) {
  disk.MakeFile("/a.txt", "12345");
  disk.MakeDir("/folder");
  disk.MakeLink("/link", "a.txt");
  disk.MakeFile("/" + std::string(255, 'n'), "long");
  MakeFifo("/fifo");
  Listing listing;
  ASSERT_EQ(listing.Read(&files, disk.root()), 0);
  const std::vector<DirEntry> entries = listing.Entries();
  const std::vector<std::string> names = NamesInOrder(disk.root());
  ASSERT_EQ(entries.size(), names.size());
  size_t length = 1;
  for (size_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(entries[i].name, names[i]);
    udisk_stat expected = {};
    files.UdiskGetFileInformation(disk.Local("/" + names[i]).c_str(), &expected);
    EXPECT_EQ(BytesOf(entries[i].stat), BytesOf(expected)) << names[i];
    length += 122 + names[i].size() + 1;
  }
  EXPECT_EQ(listing.attr.buf_len, length);
}

TEST_F(FileManagerTest, ReadDirOfAMissingDirectoryLeavesTheRecordAlone) {
  Listing listing;
  EXPECT_EQ(listing.Read(&files, disk.Local("/missing")), -1);
  EXPECT_EQ(BytesOf(listing.attr), std::string(sizeof listing.attr, '\xab'));
  EXPECT_EQ(OnlyError("UdiskReadDir"), "dir_read opendir failed errno: No such file or directory");
}

TEST_F(FileManagerTest, ReadDirOfAFileFails) {
  disk.MakeFile("/a", "");
  Listing listing;
  EXPECT_EQ(listing.Read(&files, disk.Local("/a")), -1);
  EXPECT_EQ(OnlyError("UdiskReadDir"), "dir_read opendir failed errno: Not a directory");
}

/// The directory's path, with slashes repeated until it has `length` characters.
std::string Stretched(const std::string& parent, const std::string& name, size_t length) {
  return parent + std::string(length - parent.size() - name.size(), '/') + name;
}

TEST_F(FileManagerTest, ReadDirGivesTheAttributesOfTheEntryBeforeToOneWhoseLstatFails) {
  disk.MakeDir("/deep");
  for (const char* name : {"a", "b", "c", "too-long-1", "too-long-2", "too-long-3"}) {
    disk.MakeFile(std::string("/deep/") + name, name);
  }
  // With "/x" added, the path has the greatest length that lstat takes; it fails on longer names.
  const std::string path = Stretched(disk.root(), "deep", PATH_MAX - 1 - 2);
  Listing listing;
  ASSERT_EQ(listing.Read(&files, path), 0);
  udisk_stat before = {};
  size_t unseen = 0;
  for (const DirEntry& entry : listing.Entries()) {
    if (entry.name.size() == 1) {
      files.UdiskGetFileInformation(disk.Local("/deep/" + entry.name).c_str(), &before);
    } else {
      ++unseen;
    }
    EXPECT_EQ(BytesOf(entry.stat), BytesOf(before)) << entry.name;
  }
  EXPECT_EQ(unseen, 4U);
}

TEST_F(FileManagerTest, ReadDirGivesZerosToAFirstEntryWhoseLstatFails) {
  disk.MakeDir("/deep");
  Listing listing;
  ASSERT_EQ(listing.Read(&files, Stretched(disk.root(), "deep", PATH_MAX - 1)), 0);
  for (const DirEntry& entry : listing.Entries()) {
    EXPECT_EQ(BytesOf(entry.stat), std::string(120, '\0')) << entry.name;
  }
}

TEST_F(FileManagerTest, ReadDirOfADirectoryThatGrowsStaysWithinItsBuffer) {
  disk.MakeDir("/dir");
  disk.MakeFile("/dir/a", "");
  const BetweenPasses grows([&] {
    for (int i = 0; i < 50; ++i) {
      disk.MakeFile("/dir/" + std::string(200, 'x') + std::to_string(i), "");
    }
  });
  Listing listing;
  ASSERT_EQ(listing.Read(&files, disk.Local("/dir")), 0);
  EXPECT_EQ(listing.attr.entry_count, 3U);
  EXPECT_EQ(listing.attr.buf_len, 3U * 122 + 2 + 3 + 2 + 1);
  EXPECT_EQ(listing.attr.buf[listing.attr.buf_len - 1], 0);
}

TEST_F(FileManagerTest, ReadDirLeavesOutALastEntryThatIsAByteTooLong) {
  disk.MakeDir("/dir");
  disk.MakeFile("/dir/a", "");
  const BetweenPasses grows([&] {
    disk.Remove("/dir/a");
    disk.MakeFile("/dir/bc", "");
  });
  Listing listing;
  ASSERT_EQ(listing.Read(&files, disk.Local("/dir")), 0);
  EXPECT_EQ(listing.attr.entry_count, 3U);
  const size_t last = 122 + NamesInOrder(disk.Local("/dir")).back().size() + 1;
  EXPECT_EQ(listing.Bytes().substr(listing.attr.buf_len - last), std::string(last, '\0'));
}

TEST_F(FileManagerTest, ReadDirThatSucceedsLeavesErrnoAlone) {
  Listing listing;
  errno = EXDEV;
  ASSERT_EQ(listing.Read(&files, disk.root()), 0);
  EXPECT_EQ(errno, EXDEV);
}

TEST_F(FileManagerTest, ReadDirOfADirectoryThatShrinksLeavesTheRestZero) {
  disk.MakeDir("/dir");
  disk.MakeFile("/dir/a", "");
  disk.MakeFile("/dir/b", "");
  const BetweenPasses shrinks([&] {
    disk.Remove("/dir/a");
    disk.Remove("/dir/b");
  });
  Listing listing;
  ASSERT_EQ(listing.Read(&files, disk.Local("/dir")), 0);
  EXPECT_EQ(listing.attr.entry_count, 4U);
  const std::string bytes = listing.Bytes();
  ASSERT_EQ(bytes.size(), 4U * 122 + 2 + 3 + 2 + 2 + 1);
  EXPECT_EQ(DecodeEntries(bytes.substr(0, 2 * 122 + 2 + 3) + '\0', 2).size(), 2U);
  EXPECT_EQ(bytes.substr(2 * 122 + 2 + 3), std::string(2 * 122 + 2 + 2 + 1, '\0'));
}

// ---- File-system statistics ----

TEST_F(FileManagerTest, GetStatvfsMixesTwoCalls) {
  struct statvfs expected = {};
  ASSERT_EQ(statvfs(disk.root().c_str(), &expected), 0);
  struct statfs counts = {};
  counts.f_bsize = 12345;
  counts.f_blocks = 0x1122334455667788;
  counts.f_bfree = 0x100000002;
  counts.f_bavail = 0x3fffffffe;
  counts.f_files = 1;
  g_statfs = counts;
  udisk_statvfs out;
  std::memset(&out, 0xff, sizeof out);
  EXPECT_EQ(files.UdiskGetStatvfs(disk.root().c_str(), &out), 0);
  EXPECT_EQ(+out.f_bsize, 12345U);
  EXPECT_EQ(+out.f_frsize, expected.f_frsize);
  EXPECT_EQ(+out.f_blocks, 0x55667788U) << "the low 32 bits";
  EXPECT_EQ(+out.f_bfree, 2U);
  EXPECT_EQ(+out.f_bavail, 0xfffffffeU);
  EXPECT_EQ(+out.f_files, expected.f_files);
  EXPECT_EQ(+out.f_fsid, expected.f_fsid);
  EXPECT_EQ(+out.f_flag, expected.f_flag);
  EXPECT_EQ(+out.f_namemax, expected.f_namemax);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(out.f_spare), 24), std::string(24, '\0'));
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(FileManagerTest, GetStatvfsOfAMissingPathIsZeroWithZeros) {
  udisk_statvfs out;
  std::memset(&out, 0xff, sizeof out);
  EXPECT_EQ(files.UdiskGetStatvfs(disk.Local("/missing").c_str(), &out), 0);
  EXPECT_EQ(BytesOf(out), std::string(112, '\0'));
}

TEST_F(FileManagerTest, SetStatvfsCopiesElevenFieldsInOrder) {
  struct statvfs from = {};
  from.f_bsize = 1;
  from.f_frsize = 2;
  from.f_blocks = 0x300000000;
  from.f_bfree = 4;
  from.f_bavail = 5;
  from.f_files = 6;
  from.f_ffree = 7;
  from.f_favail = 8;
  from.f_fsid = 9;
  from.f_flag = 10;
  from.f_namemax = 11;
  udisk_statvfs out;
  std::memset(&out, 0xff, sizeof out);
  EXPECT_EQ(files.set_statvfs(&from, &out), 0);
  std::string expected;
  for (const uint64_t field : {1UL, 2UL, 0x300000000UL, 4UL, 5UL, 6UL, 7UL, 8UL, 9UL, 10UL, 11UL}) {
    expected += BytesOf(field);
  }
  EXPECT_EQ(BytesOf(out), expected + std::string(24, '\0'));
}

// ---- Names, modes, owners ----

TEST_F(FileManagerTest, LinkGivesAFileASecondName) {
  disk.MakeFile("/a", "content");
  EXPECT_EQ(files.UdiskLink(disk.Local("/a").c_str(), disk.Local("/b").c_str()), 0);
  EXPECT_EQ(disk.ReadBack("/b"), "content");
  EXPECT_EQ(files.UdiskLink(disk.Local("/missing").c_str(), disk.Local("/c").c_str()), -1);
}

TEST_F(FileManagerTest, UnlinkRemovesAFileNotADirectory) {
  disk.MakeFile("/a", "");
  disk.MakeDir("/dir");
  EXPECT_EQ(files.UdiskUnlink(disk.Local("/a").c_str()), 0);
  EXPECT_FALSE(disk.Exists("/a"));
  EXPECT_EQ(files.UdiskUnlink(disk.Local("/dir").c_str()), -1);
}

TEST_F(FileManagerTest, RenameLogsItsResultEitherWay) {
  disk.MakeFile("/a", "content");
  EXPECT_EQ(files.UdiskRename(disk.Local("/a").c_str(), disk.Local("/b").c_str()), 0);
  EXPECT_EQ(disk.ReadBack("/b"), "content");
  EXPECT_EQ(files.UdiskRename(disk.Local("/a").c_str(), disk.Local("/b").c_str()), -1);
  EXPECT_EQ(Log().Messages(kDebug),
            (std::vector<std::string>{R"(rename return res:0\n)", R"(rename return res:-1\n)"}));
  EXPECT_TRUE(Log().Messages(kError).empty());
}

TEST_F(FileManagerTest, TruncateCutsAndExtends) {
  disk.MakeFile("/a", "0123456789");
  EXPECT_EQ(files.UdiskTruncate(disk.Local("/a").c_str(), 3), 0);
  EXPECT_EQ(disk.ReadBack("/a"), "012");
  EXPECT_EQ(files.UdiskTruncate(disk.Local("/a").c_str(), 5), 0);
  EXPECT_EQ(disk.ReadBack("/a"), std::string("012\0\0", 5));
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(FileManagerTest, TruncateThatFailsLogsTheLength) {
  EXPECT_EQ(files.UdiskTruncate(disk.Local("/missing").c_str(), int64_t{5} << 32), -1);
  EXPECT_EQ(OnlyError("UdiskTruncate"),
            R"(truncate failed offset:21474836480 errno: No such file or directory\n)");
}

TEST_F(FileManagerTest, FsyncOfAMissingFileFailsAndReleaseDoesNot) {
  disk.MakeFile("/a", "");
  EXPECT_EQ(files.UdiskFsync(disk.Local("/a").c_str()), 0);
  EXPECT_EQ(files.UdiskRelease(disk.Local("/a").c_str()), 0);
  EXPECT_EQ(files.UdiskFsync(disk.Local("/missing").c_str()), -1);
  EXPECT_EQ(files.UdiskRelease(disk.Local("/missing").c_str()), 0);
  EXPECT_FALSE(disk.Exists("/missing"));
}

TEST_F(FileManagerTest, FsyncNeedsAFileThatOpensReadWrite) {
  disk.MakeDir("/dir");
  EXPECT_EQ(files.UdiskFsync(disk.Local("/dir").c_str()), -1);
  EXPECT_EQ(files.UdiskRelease(disk.Local("/dir").c_str()), 0);
}

TEST_F(FileManagerTest, ChmodCutsTheModeTo16Bits) {
  disk.MakeFile("/a", "");
  EXPECT_EQ(files.UdiskFileChmod(disk.Local("/a").c_str(), 0x10000 | 0604), 0);
  EXPECT_EQ(Mode("/a"), 0604U);
  EXPECT_EQ(files.UdiskFileChmod(disk.Local("/missing").c_str(), 0600), -1);
}

TEST_F(FileManagerTest, ChownFollowsLinks) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can give files away";
  disk.MakeFile("/a", "");
  disk.MakeLink("/link", "a");
  EXPECT_EQ(files.UdiskFileChown(disk.Local("/link").c_str(), 1234, 5678), 0);
  EXPECT_EQ(Lstat("/a").st_uid, 1234U);
  EXPECT_EQ(Lstat("/a").st_gid, 5678U);
  EXPECT_EQ(Lstat("/link").st_uid, 0U);
  EXPECT_EQ(files.UdiskFileChown(disk.Local("/missing").c_str(), 0, 0), -1);
}

// ---- Operations that do nothing ----

TEST_F(FileManagerTest, OperationsThatDoNothingReturnTheirConstant) {
  disk.MakeFile("/a", "content");
  const std::string path = disk.Local("/a");
  EXPECT_EQ(files.UdiskFileOpen(path.c_str()), -1);
  EXPECT_EQ(files.UdiskCloseFile(path.c_str(), 0), 0);
  EXPECT_EQ(files.UdiskCleanUp(path.c_str(), 0), 0);
  EXPECT_EQ(files.UdiskFlushFile(path.c_str()), -1);
  EXPECT_EQ(files.UdiskGetXattr(path.c_str()), -1);
  EXPECT_EQ(files.UdiskFlush(path.c_str()), 0);
  EXPECT_GE(fcntl(0, F_GETFD), 0) << "descriptor 0 was not closed";
  EXPECT_EQ(disk.ReadBack("/a"), "content");
}

TEST(FileManagerLife, EndsWithOneSync) {
  auto files = std::make_unique<FileManagerLinux>();
  const int before = SyncCalls();
  files.reset();
  EXPECT_EQ(SyncCalls(), before + 1);
}

}  // namespace
}  // namespace cpd::test
