// The client replaces, makes and removes files while programs use them on the mount.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

using ReplacedFiles = MountTest;

/// Repeats something on the client until destroyed.
class Client {
 public:
  explicit Client(std::function<void(int round)> act, std::chrono::milliseconds pause = 5ms)
      : mThread([this, act = std::move(act), pause] {
          for (int round = 0; !mStop; ++round) {
            act(round);
            ++mRounds;
            std::this_thread::sleep_for(pause);
          }
        }) {}
  ~Client() {
    mStop = true;
    mThread.join();
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  int rounds() const { return mRounds; }

 private:
  std::atomic<bool> mStop = false;
  std::atomic<int> mRounds = 0;
  std::thread mThread;
};

/// Saves a file as editors do: a temporary file takes the name.
void Save(const std::string& path, const std::string& content) {
  WriteFile(path + "~", content);
  fs::rename(path + "~", path);
}

/// A line of one repeated digit. Digit and length differ from those of the round before.
std::string Line(int round) {
  return std::string(100 + round * 37 % 3000, static_cast<char>('0' + round % 10)) + '\n';
}

bool IsLine(const std::string& text) {
  return text.size() > 100 && text.find_first_not_of(text[0]) == text.size() - 1;
}

/// Reads up to `size` bytes. @return an errno
int ReadOn(int fd, std::string* content, size_t size) {
  std::vector<char> buffer(64 << 10);
  for (size_t left = size; left > 0;) {
    const ssize_t n = read(fd, buffer.data(), std::min(left, buffer.size()));
    if (n < 0) return errno;
    if (n == 0) return 0;
    content->append(buffer.data(), n);
    left -= n;
  }
  return 0;
}

// ---- Looked up anew ----

TEST_F(ReplacedFiles, AreSeenByEveryProgramThatOpensThem) {
  Save(disk / "file", Line(0));
  MountedDisk mounted(disk.path());
  const auto file = mounted / "file";
  Client client([&](int round) { Save(disk / "file", Line(round)); });
  for (int i = 0; i < 60; ++i) {
    const auto cat = Shell("cat " + file);
    EXPECT_EQ(cat.status, 0) << cat.output;
    EXPECT_EQ(Shell("stat " + file + " >/dev/null").output, "");
    EXPECT_EQ(Shell("echo line >>" + file).output, "");
    EXPECT_EQ(Shell("ls -l " + file + " >/dev/null").output, "");
  }
  EXPECT_GE(client.rounds(), 60);
}

TEST_F(ReplacedFiles, AreReadWholeByManyAtOnce) {
  Save(disk / "file", Line(0));
  MountedDisk mounted(disk.path());
  const auto file = mounted / "file";
  Client client([&](int round) { Save(disk / "file", Line(round)); });
  std::vector<std::thread> programs;
  for (const char* program : {"cat", "cat", "stat", "ls -l"}) {
    programs.emplace_back([&file, program = std::string(program)] {
      for (int i = 0; i < 80; ++i) {
        const auto result = Shell(program + " " + file);
        EXPECT_EQ(result.status, 0) << result.output;
        EXPECT_TRUE(program != "cat" || IsLine(result.output)) << result.output;
      }
    });
  }
  for (auto& program : programs) program.join();
}

TEST_F(ReplacedFiles, ThatAreGoneAreReportedAsSuch) {
  MountedDisk mounted(disk.path());
  const auto file = mounted / "file";
  Client client([&](int round) {
    if (round % 2 == 0) Save(disk / "file", Line(round));
    if (round % 2 == 1) fs::remove(disk / "file");
  });
  std::map<int, int> errors;
  const auto end = std::chrono::steady_clock::now() + 2s;
  while (std::chrono::steady_clock::now() < end) {
    const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
      ++errors[errno];
      continue;
    }
    std::string content;
    const int error = ReadOn(fd, &content, 1 << 20);
    ++errors[error];
    EXPECT_TRUE(error != 0 || IsLine(content)) << content;
    close(fd);
  }
  EXPECT_GT(errors[0], 0);
  EXPECT_GT(errors[ENOENT], 0);
  for (const auto& [error, count] : errors) {
    EXPECT_TRUE(error == 0 || error == ENOENT) << error << ": " << count;
  }
}

TEST_F(ReplacedFiles, ThatWereJustLookedUpAreOpenedWithoutARequest) {
  const auto content = Bytes(300'000);
  WriteFile(disk / "large", content);
  WriteFile(disk / "small", "content");
  MountedDisk mounted(disk.path(), {"--no-prefetch"});
  const int fd = open((mounted / "large").c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(ReadFile(mounted / "small"), "content");
  close(fd);
  const auto ending = mounted.Unmount();
  // The directory and the two files, each of which a slow machine may look at once more.
  EXPECT_LE(ending.Requests(102), 6) << ending.out;
  EXPECT_EQ(ending.Requests(105), 1) << ending.out;
}

// ---- Read and appended to at once ----

/// A line whose length follows from its digit.
std::string LineOfDigit(int round) {
  return std::string(500 * (round % 10 + 1), static_cast<char>('0' + round % 10)) + '\n';
}

/// Whether a file that began as a line of LineOfDigit, and was appended to, is complete and is not
/// mixed with another. An append that was on its way when the file was replaced is at another
/// place.
bool IsLineWithAppends(const std::string& text) {
  const auto line = LineOfDigit(text.empty() ? 0 : text[0] - '0');
  const std::string allowed = {line[0], 'x', '\n', '\0'};
  return text.size() >= line.size() && text.find_first_not_of(allowed) == std::string::npos;
}

TEST_F(ReplacedFiles, AreReadAndAppendedToAtOnceWithoutAnError) {
  Save(disk / "file", LineOfDigit(0));
  MountedDisk mounted(disk.path());
  const auto file = mounted / "file";
  Client client([&](int round) { Save(disk / "file", LineOfDigit(round)); }, 300ms);
  std::atomic<bool> stop = false;
  std::thread reader([&] {
    while (!stop) {
      const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
      EXPECT_GE(fd, 0) << errno;
      std::string content;
      EXPECT_EQ(ReadOn(fd, &content, 1 << 20), 0);
      EXPECT_TRUE(IsLineWithAppends(content)) << content;
      close(fd);
    }
  });
  int appends = 0;
  while (client.rounds() < 20) {
    const int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    EXPECT_GE(fd, 0) << errno;
    EXPECT_EQ(write(fd, "x\n", 2), 2) << errno;
    EXPECT_EQ(close(fd), 0) << errno;
    ++appends;
  }
  stop = true;
  reader.join();
  EXPECT_GT(appends, 20);
}

TEST_F(ReplacedFiles, AreAppendedToAtTheirOwnEnd) {
  MountedDisk mounted(disk.path());
  const auto file = mounted / "file";
  for (const auto& content : {Bytes(5000, 1), Bytes(3000, 2), Bytes(9000, 3)}) {
    Save(disk / "file", content);
    EXPECT_EQ(Shell("echo line >>" + file).output, "");
    EXPECT_EQ(ReadFile(disk / "file"), content + "line\n");
    EXPECT_EQ(ReadFile(file), content + "line\n");
  }
}

class ReplacedWhileOpen : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (IsSkipped()) return;
    Save(disk / "file", "old\n");
    WriteFile(disk / "file~", "new content\n");
    mounted.emplace(disk.path());
  }
  int Open(int flags) const { return open((*mounted / "file").c_str(), flags | O_CLOEXEC); }
  void Replace() const {
    std::this_thread::sleep_for(50ms);  // longer than a tick of the file system's clock
    fs::rename(disk / "file~", disk / "file");
  }
  std::optional<MountedDisk> mounted;
};

TEST_F(ReplacedWhileOpen, MakesAFirstAppendGoToTheNewFile) {
  const int fd = Open(O_WRONLY | O_APPEND);
  Replace();
  EXPECT_EQ(write(fd, "one\n", 4), 4) << errno;
  EXPECT_EQ(write(fd, "two\n", 4), 4) << errno;
  EXPECT_EQ(fsync(fd), 0) << errno;
  EXPECT_EQ(ReadFile(disk / "file"), "new content\none\ntwo\n");
  EXPECT_EQ(ReadFile(*mounted / "file"), "new content\none\ntwo\n");
  EXPECT_EQ(Shell("echo three >>" + (*mounted / "file")).output, "");
  EXPECT_EQ(write(fd, "four\n", 5), 5) << errno;
  EXPECT_EQ(close(fd), 0) << errno;
  EXPECT_EQ(ReadFile(disk / "file"), "new content\none\ntwo\nthree\nfour\n");
}

/// Appends through a handle while another program asks for the file's size all the time.
/// @return what was written
std::string AppendWhileAskedFor(const std::string& path, int fd, bool sets_times) {
  std::atomic<bool> stop = false;
  std::thread asking([&] {
    struct stat attributes {};
    while (!stop) stat(path.c_str(), &attributes);
  });
  std::string written;
  for (int i = 0; i < 500; ++i) {
    const auto line = std::to_string(i) + '\n';
    EXPECT_EQ(write(fd, line.data(), line.size()), static_cast<ssize_t>(line.size())) << errno;
    if (sets_times) {
      EXPECT_EQ(futimens(fd, nullptr), 0) << errno;
    }
    written += line;
  }
  stop = true;
  asking.join();
  return written;
}

TEST_F(ReplacedWhileOpen, LeavesAppendsOneAfterTheOtherWhileAnotherProgramAsksForTheSize) {
  const int fd = Open(O_WRONLY | O_APPEND);
  Replace();
  const auto written = AppendWhileAskedFor(*mounted / "file", fd, false);
  EXPECT_EQ(close(fd), 0) << errno;
  EXPECT_EQ(ReadFile(disk / "file"), "new content\n" + written);
}

TEST_F(ReplacedFiles, AreAppendedToWhileTimesAreSetAndAnotherProgramAsksForTheSize) {
  WriteFile(disk / "file", "old\n");
  MountedDisk mounted(disk.path());
  const int fd = open((mounted / "file").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  const auto written = AppendWhileAskedFor(mounted / "file", fd, true);
  EXPECT_EQ(close(fd), 0) << errno;
  EXPECT_EQ(ReadFile(disk / "file"), "old\n" + written);
}

TEST_F(ReplacedWhileOpen, MakesAnAppendGoToTheEndAtWhichTheClientHasCutTheNewFile) {
  const int fd = Open(O_WRONLY | O_APPEND);
  Replace();
  EXPECT_EQ(write(fd, "one\n", 4), 4) << errno;
  EXPECT_EQ(fsync(fd), 0) << errno;
  fs::resize_file(disk / "file", 4);
  ASSERT_EQ(Shell("cat " + (*mounted / "file")).status, 0);  // shows the mount the new size
  EXPECT_EQ(write(fd, "two\n", 4), 4) << errno;
  EXPECT_EQ(truncate((*mounted / "file").c_str(), 6), 0) << errno;
  EXPECT_EQ(write(fd, "three\n", 6), 6) << errno;
  EXPECT_EQ(close(fd), 0) << errno;
  EXPECT_EQ(ReadFile(disk / "file"), "new twthree\n");
}

TEST_F(ReplacedWhileOpen, MakesAFirstAppendFailIfTheNewFileHasOtherPermissions) {
  const int fd = Open(O_WRONLY | O_APPEND);
  chmod((disk / "file~").c_str(), 0400);
  Replace();
  EXPECT_EQ(write(fd, "one\n", 4), -1);
  EXPECT_EQ(errno, ESTALE);
  close(fd);
  EXPECT_EQ(ReadFile(disk / "file"), "new content\n");
}

TEST_F(ReplacedWhileOpen, MakesOtherWritesFail) {
  const int appending = Open(O_WRONLY | O_APPEND);
  const int writing = Open(O_WRONLY);
  ASSERT_EQ(write(appending, "line\n", 5), 5);
  Replace();
  EXPECT_EQ(Shell("cat " + (*mounted / "file")).output, "new content\n");
  for (const int fd : {appending, writing}) {
    EXPECT_EQ(write(fd, "more\n", 5), -1);
    EXPECT_EQ(errno, ESTALE);
    close(fd);
  }
  EXPECT_EQ(ReadFile(disk / "file"), "new content\n");
}

/// Has the kernel ask the mount for an open file's attributes.
void AskFor(int fd) {
  struct statx attributes {};
  EXPECT_EQ(statx(fd, "", AT_EMPTY_PATH | AT_STATX_FORCE_SYNC, STATX_SIZE, &attributes), 0);
}

class WhatTheClientAppends : public ReplacedWhileOpen {
 protected:
  void SetUp() override {
    ReplacedWhileOpen::SetUp();
    if (!IsSkipped()) WriteFile(disk / "log", "mine\n");
  }
  /// The client appends to a file whose size the kernel knows, and then this thread does.
  void ExpectToStay() const {
    const auto path = *mounted / "log";
    struct stat attributes {};
    EXPECT_EQ(stat(path.c_str(), &attributes), 0) << errno;
    // For 20 ms, an open call relies on what a look-up has shown. Wait until that is over.
    std::this_thread::sleep_for(50ms);
    WriteFile(disk / "log", "mine\nthe client's\n");
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    EXPECT_EQ(write(fd, "mine\n", 5), 5) << errno;
    EXPECT_EQ(close(fd), 0) << errno;
    EXPECT_EQ(ReadFile(disk / "log"), "mine\nthe client's\nmine\n");
  }
};

TEST_F(WhatTheClientAppends, StaysAfterACallOnAHandleWhoseFileWasReplaced) {
  const int fd = Open(O_WRONLY);
  Replace();
  AskFor(fd);
  EXPECT_EQ(ftruncate(fd, 1), -1);
  EXPECT_EQ(errno, ESTALE);
  ExpectToStay();
  close(fd);
}

TEST_F(WhatTheClientAppends, StaysAfterACallThatTheKernelHasTriedAgain) {
  const int fd = Open(O_WRONLY);
  Replace();
  AskFor(fd);
  EXPECT_EQ(chmod((*mounted / "file").c_str(), 0600), 0) << errno;
  ExpectToStay();
  close(fd);
}

TEST_F(ReplacedWhileOpen, LeavesAReaderTheOldFileEvenIfItWasAppendedTo) {
  const int fd = Open(O_RDONLY);
  EXPECT_EQ(Shell("echo line >>" + (*mounted / "file")).output, "");
  Replace();
  EXPECT_EQ(Shell("echo line >>" + (*mounted / "file")).output, "");
  std::string content;
  EXPECT_EQ(ReadOn(fd, &content, 100), 0);
  EXPECT_EQ(content.substr(0, 4), "old\n");
  close(fd);
}

// ---- Never a mixture ----

constexpr size_t kLarge = 24 << 20;

struct Replacing {
  const char* name;
  int times;  // how often the client replaces the file
};
class ReplacedUnderAReader : public MountTest, public testing::WithParamInterface<Replacing> {};

TEST_P(ReplacedUnderAReader, EndsInAnErrorAndAFreshOpenReadsTheNewFile) {
  const auto before = Bytes(kLarge, 1);
  Save(disk / "file", before);
  MountedDisk mounted(disk.path());
  const int fd = open((mounted / "file").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  std::string content;
  ASSERT_EQ(ReadOn(fd, &content, 1 << 20), 0);
  auto after = before;
  for (int i = 1; i <= GetParam().times; ++i) {
    after = Bytes(kLarge, 10 + i);
    WriteFile(disk / "file~", after);
    std::this_thread::sleep_for(50ms);  // longer than a tick of the file system's clock
    fs::rename(disk / "file~", disk / "file");
  }
  EXPECT_EQ(ReadOn(fd, &content, kLarge), ESTALE);
  EXPECT_EQ(content, before.substr(0, content.size()));
  char byte = 0;
  EXPECT_EQ(pread(fd, &byte, 1, kLarge - 1), -1);
  EXPECT_EQ(errno, ESTALE);
  struct stat attributes {};
  EXPECT_EQ(fstat(fd, &attributes), 0);
  EXPECT_EQ(attributes.st_nlink, 0U);
  EXPECT_EQ(ReadFile(mounted / "file"), after);
  close(fd);
}

// At the second replacement, the file system gives the third file the inode of the first.
INSTANTIATE_TEST_SUITE_P(, ReplacedUnderAReader,
                         testing::Values(Replacing{"Once", 1}, Replacing{"Twice", 2},
                                         Replacing{"ThreeTimes", 3}),
                         [](const auto& test) { return test.param.name; });

TEST_F(ReplacedFiles, AreNeverReadAsAMixture) {
  constexpr size_t kSize = 8 << 20;
  Save(disk / "file", std::string(kSize, '0'));
  MountedDisk mounted(disk.path());
  Client client([&](int round) {
    Save(disk / "file", std::string(kSize, static_cast<char>('0' + round % 10)));
    std::this_thread::sleep_for(20ms);
  });
  int whole = 0;
  const auto end = std::chrono::steady_clock::now() + kHang;
  for (int i = 0; (i < 40 || whole == 0) && std::chrono::steady_clock::now() < end; ++i) {
    const int fd = open((mounted / "file").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0) << errno;
    std::string content;
    const int error = ReadOn(fd, &content, kSize);
    close(fd);
    EXPECT_TRUE(error == 0 || error == ESTALE) << error;
    EXPECT_EQ(content.find_first_not_of(content[0]), std::string::npos);
    if (error == 0) {
      EXPECT_EQ(content.size(), kSize);
      ++whole;
    }
  }
  EXPECT_GT(whole, 0);
}

TEST_F(ReplacedFiles, AreDistinguishedFromThoseThatGrowOrAreWrittenInPlace) {
  auto content = Bytes(kLarge);
  WriteFile(disk / "file", content);
  MountedDisk mounted(disk.path());
  const int fd = open((mounted / "file").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  std::string start;
  ASSERT_EQ(ReadOn(fd, &start, 1 << 20), 0);
  // By the client: in place, and at the end.
  const int there = open((disk / "file").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(pwrite(there, "in place", 8, 10 << 20), 8);
  ASSERT_EQ(pwrite(there, "at the end", 10, kLarge), 10);
  close(there);
  std::string piece(8, '\0');
  EXPECT_EQ(pread(fd, piece.data(), 8, 10 << 20), 8);
  EXPECT_EQ(piece, "in place");
  // By this mount, and with another mode afterwards.
  ASSERT_EQ(pwrite(fd, "through the mount", 17, 14 << 20), 17);
  ASSERT_EQ(fchmod(fd, 0600), 0);
  std::string rest;
  ASSERT_EQ(lseek(fd, 20 << 20, SEEK_SET), 20 << 20);
  EXPECT_EQ(ReadOn(fd, &rest, kLarge), 0);
  EXPECT_EQ(rest, content.substr(20 << 20) + "at the end");
  close(fd);
}

TEST_F(ReplacedFiles, AreNoticedWithAtMostOneQuestionPerRead) {
  WriteFile(disk / "file", Bytes(kLarge));
  MountedDisk mounted(disk.path());
  const auto dd = Shell("dd if=" + (mounted / "file") + " of=/dev/null bs=1M 2>&1");
  EXPECT_EQ(dd.status, 0) << dd.output;
  const auto ending = mounted.Unmount();
  EXPECT_LE(ending.Requests(102), ending.Requests(105) + 6) << ending.out;
}

// ---- Open, and without a name ----

TEST_F(ReplacedFiles, AndDirectoriesThatAreStillOpenHaveNoLink) {
  MountedDisk mounted(disk.path());
  WriteFile(mounted / "file", "old");
  WriteFile(mounted / "new file", "new");
  fs::create_directory(mounted / "directory");
  fs::create_directory(mounted / "new directory");
  const int file = open((mounted / "file").c_str(), O_RDONLY | O_CLOEXEC);
  const int directory = open((mounted / "directory").c_str(), O_RDONLY | O_CLOEXEC);
  fs::rename(mounted / "new file", mounted / "file");
  fs::rename(mounted / "new directory", mounted / "directory");
  for (const int fd : {file, directory}) {
    struct stat attributes {};
    EXPECT_EQ(fstat(fd, &attributes), 0) << errno;
    EXPECT_EQ(attributes.st_nlink, 0U);
    close(fd);
  }
}

}  // namespace
}  // namespace system_test
