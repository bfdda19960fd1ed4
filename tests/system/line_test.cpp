// A disk over a line that drops, stalls or spoils what it carries.
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

/// Runs a function in a process of its own. The destructor kills it.
class ForkedProgram {
 public:
  /// @param run  returns the exit status
  explicit ForkedProgram(const std::function<int()>& run) : pid_(fork()) {
    if (pid_ == 0) _exit(run());
  }
  ~ForkedProgram() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  ForkedProgram(const ForkedProgram&) = delete;
  ForkedProgram& operator=(const ForkedProgram&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  [[nodiscard]] bool HasEnded() const {
    siginfo_t info{};
    return waitid(P_PID, pid_, &info, WEXITED | WNOHANG | WNOWAIT) == 0 && info.si_pid == pid_;
  }
  /// To be called once it has ended. @return 128 and more if a signal ended it
  [[nodiscard]] int status() const {
    siginfo_t info{};
    waitid(P_PID, pid_, &info, WEXITED | WNOWAIT);
    return info.si_code == CLD_EXITED ? info.si_status : 128 + info.si_status;
  }

 private:
  const pid_t pid_;
};

/// A disk over a line that does what the test says; see cut_line.cpp.
class BadLine : public MountTest {
 protected:
  ~BadLine() override { unsetenv("CPD_TEST_LINE"); }

  MountedDisk Mount(const std::string& line_options = "",
                    std::vector<std::string> options = {}) const {
    const auto prefix = "exec " CUT_LINE " --control " + control + " " + line_options + " --";
    setenv("CPD_TEST_LINE", prefix.c_str(), 1);
    return MountedDisk(disk.path(), options);
  }
  /// Tells the line to do this: at once, or when the next request with that code comes by.
  void Order(const std::string& word, int request = 0) const {
    const auto next = place / "next";
    WriteFile(next, word + (request == 0 ? "" : " " + std::to_string(request)));
    fs::rename(next, control);
  }
  /// How often the line has done what it was told to.
  size_t Done() const {
    const auto done = ReadFile(control + ".done");
    return static_cast<size_t>(std::ranges::count(done, '\n'));
  }

  const TempDir place;
  const std::string control = place / "control";
};

// ---- Copies ----

TEST_F(BadLine, ACopyOverTenDroppedLinesEndsWithEqualFilesAndNoError) {
  const TempDir source;
  for (int i = 0; i < 300; ++i) {
    const auto directory = source / ("directory" + std::to_string(i % 10));
    fs::create_directory(directory);
    WriteFile(directory + "/" + std::to_string(i), Bytes(i % 20 == 0 ? 3'000'000 : 300 * i, i));
  }
  const auto mounted = Mount();
  auto copy = std::async(std::launch::async, [&] {
    return Shell("for i in 1 2 3 4 5; do cp -r " + source.path() + " " + (mounted / "copy$i") +
                 " || exit 1; done");
  });
  for (size_t i = 1; i <= 12 && copy.wait_for(100ms) != std::future_status::ready; ++i) {
    Order("cut");
    EXPECT_TRUE(Eventually([&] { return Done() >= i; }));
  }
  const auto result = copy.get();
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(result.output, "");
  EXPECT_GE(Done(), 10U) << "the copy was too fast to be disturbed";
  for (int i = 1; i <= 5; ++i) {
    const auto diff = Shell("diff -r " + source.path() + " " + (disk / "copy") + std::to_string(i));
    EXPECT_EQ(diff.output, "");
  }
}

// ---- Listings that come ahead ----

TEST_F(BadLine, AFileThatWasRemovedWhileOpenIsNotInAListingThatCameAhead) {
  for (const char* name : {"a", "b", "c"}) {
    fs::create_directories(disk / "tree/" + name);
    WriteFile(disk / "tree/" + name + "/file", "content");
  }
  auto mounted = Mount("--delay 10");
  const auto list = [&](const std::string& directory) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(mounted / directory)) {
      names.push_back(entry.path().filename());
    }
    return names;
  };
  const auto order = list("tree");
  ASSERT_EQ(order.size(), 3U);
  const auto next = "tree/" + order[1];
  const int file = open((mounted / next + "/file").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(file, 0) << strerror(errno);
  fs::remove(mounted / next + "/file");
  EXPECT_EQ(list("tree"), order);
  EXPECT_EQ(list("tree/" + order[0]).size(), 1U);
  std::this_thread::sleep_for(50ms);  // the others come
  close(file);
  EXPECT_TRUE(Eventually([&] { return fs::is_empty(disk / next); }));
  std::this_thread::sleep_for(100ms);  // the kernel forgets the file
  EXPECT_EQ(list(next), std::vector<std::string>{});
  EXPECT_GE(mounted.Unmount().Count("directories listed ahead"), 1);
}

// ---- Large files ----

TEST_F(BadLine, ALargeFileIsReadAheadAndAChangeShowsAtOnce) {
  auto bytes = Bytes(6 << 20);
  WriteFile(disk / "file", bytes);
  auto mounted = Mount("--delay 10");
  const auto file = mounted / "file";
  EXPECT_TRUE(ReadFile(file) == bytes);
  const int fd = open(file.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(fd, 0) << strerror(errno);
  std::string seen(bytes.size(), '\0');
  constexpr size_t kStep = 128 << 10;
  for (size_t at = 0; at < bytes.size(); at += kStep) {
    // Past what was read, and within what was read ahead.
    if (at % (16 * kStep) == 0) {
      const size_t changed = std::min(at + 10 * kStep, bytes.size() - 3);
      EXPECT_EQ(pwrite(fd, "new", 3, static_cast<off_t>(changed)), 3);
      bytes.replace(changed, 3, "new");
    }
    ASSERT_EQ(pread(fd, seen.data() + at, kStep, static_cast<off_t>(at)), kStep);
  }
  close(fd);
  EXPECT_TRUE(seen == bytes);
  const auto ending = mounted.Unmount();
  EXPECT_GE(ending.Count("used pieces"), 1) << ending.out;
}

TEST_F(BadLine, ALargeFileIsReadAheadOverLinesThatDrop) {
  const auto bytes = Bytes(24 << 20);
  WriteFile(disk / "file", bytes);
  const auto mounted = Mount("--delay 10");
  auto read = std::async(std::launch::async, [&] { return ReadFile(mounted / "file"); });
  for (size_t i = 1; i <= 3 && read.wait_for(50ms) != std::future_status::ready; ++i) {
    Order("cut");
    EXPECT_TRUE(Eventually([&] { return Done() >= i; }));
  }
  EXPECT_TRUE(read.get() == bytes);
}

// ---- Replaced files ----

// The append looks at the old file, and then waits for the rename to end before it writes. In the
// meantime another open of the file shows the mount that the client has replaced it.
TEST_F(BadLine, AFirstAppendFollowsAFileThatIsReplacedWhileItWaitsForARename) {
  WriteFile(disk / "file", "old\n");
  WriteFile(disk / "other", "");
  const auto mounted = Mount("--delay 30");
  const auto file = mounted / "file";
  const int fd = open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  ASSERT_GE(fd, 0) << strerror(errno);
  EXPECT_TRUE(fs::exists(mounted / "other"));
  auto renamed = std::async(std::launch::async, [&] {
    fs::rename(mounted / "other", mounted / "another");  // looks the new name up first
  });
  usleep(10'000);
  auto appended =
      std::async(std::launch::async, [&] { return write(fd, "line\n", 5) == 5 ? 0 : errno; });
  usleep(40'000);
  WriteFile(disk / "file~", std::string(100, 'n') + '\n');
  fs::rename(disk / "file~", disk / "file");
  close(open(file.c_str(), O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(appended.get(), 0);
  renamed.get();
  close(fd);
}

// ---- Each kind of request ----

struct Request {
  const char* name;
  int code;
  /// Makes the request. @return 0, or errno
  std::function<int(const MountedDisk& mounted)> ask;
  /// Shell commands on the disk: this one succeeds until the request is carried out, the next one
  /// afterwards.
  const char* before;
  const char* after;
};

int ErrorOf(int64_t result) { return result < 0 ? errno : 0; }

int WithOpenFile(const std::string& path, int flags, const std::function<int(int fd)>& use) {
  const int fd = open(path.c_str(), flags | O_CLOEXEC, 0644);
  if (fd < 0) return errno;
  const int error = use(fd);
  close(fd);
  return error;
}

const std::vector<Request>& Requests() {
  static const std::vector<Request> requests{
      {"Attributes", 102,
       [](const auto& mounted) {
         struct stat status {};
         return ErrorOf(stat((mounted / "file").c_str(), &status));
       },
       "true", "true"},
      {"Create", 103,
       [](const auto& mounted) {
         return WithOpenFile(mounted / "new", O_WRONLY | O_CREAT | O_EXCL, [](int) { return 0; });
       },
       "test ! -e new", "test -f new -a ! -s new"},
      {"Read", 105,
       [](const auto& mounted) {
         return WithOpenFile(mounted / "file", O_RDONLY, [](int fd) {
           std::string bytes(100'000, '\0');
           const int error = ErrorOf(read(fd, bytes.data(), bytes.size()));
           return error != 0 || bytes == Bytes(100'000) ? error : EILSEQ;
         });
       },
       "true", "true"},
      {"Write", 106,
       [](const auto& mounted) {
         return WithOpenFile(mounted / "file", O_WRONLY, [](int fd) {
           return ErrorOf(pwrite(fd, std::string(20'000, 'x').data(), 20'000, 100'000));
         });
       },
       "test $(wc -c <file) = 100000", "test $(tail -c +100001 file | tr -d -c x | wc -c) = 20000"},
      {"Append", 106,
       [](const auto& mounted) {
         return WithOpenFile(mounted / "empty", O_WRONLY | O_APPEND, [](int fd) {
           return ErrorOf(write(fd, std::string(20'000, 'x').data(), 20'000));
         });
       },
       "test ! -s empty", "test $(wc -c <empty) = 20000"},
      {"List", 107,
       [](const auto& mounted) {
         std::error_code error;
         const auto names = std::distance(fs::directory_iterator(mounted / "full", error), {});
         return error ? error.value() : names == 2 ? 0 : EILSEQ;
       },
       "true", "true"},
      {"Truncate", 109,
       [](const auto& mounted) { return ErrorOf(truncate((mounted / "file").c_str(), 1000)); },
       "test $(wc -c <file) = 100000", "test $(wc -c <file) = 1000"},
      {"Sync", 110,
       [](const auto& mounted) {
         return WithOpenFile(mounted / "empty", O_WRONLY, [](int fd) {
           const int error = ErrorOf(write(fd, "synced\n", 7));
           return error != 0 ? error : ErrorOf(fsync(fd));
         });
       },
       "true", "grep -q synced empty"},
      {"ChangeMode", 111,
       [](const auto& mounted) { return ErrorOf(chmod((mounted / "file").c_str(), 0600)); },
       "test $(stat -c %a file) = 644", "test $(stat -c %a file) = 600"},
      {"ChangeOwner", 112,
       [](const auto& mounted) {
         return ErrorOf(chown((mounted / "file").c_str(), geteuid(), getegid()));
       },
       "true", "true"},
      {"Statistics", 113,
       [](const auto& mounted) {
         struct statvfs statistics {};
         return ErrorOf(statvfs(mounted.path().c_str(), &statistics));
       },
       "true", "true"},
      {"MakeDirectory", 114,
       [](const auto& mounted) { return ErrorOf(mkdir((mounted / "new").c_str(), 0755)); },
       "test ! -e new", "test -d new"},
      {"RemoveDirectory", 115,
       [](const auto& mounted) { return ErrorOf(rmdir((mounted / "directory").c_str())); },
       "test -d directory", "test ! -e directory"},
      {"Link", 116,
       [](const auto& mounted) {
         return ErrorOf(link((mounted / "file").c_str(), (mounted / "new").c_str()));
       },
       "test ! -e new", "test file -ef new"},
      {"Unlink", 117,
       [](const auto& mounted) { return ErrorOf(unlink((mounted / "file").c_str())); },
       "test -e file", "test ! -e file"},
      {"Rename", 118,
       [](const auto& mounted) {
         return ErrorOf(rename((mounted / "file").c_str(), (mounted / "empty").c_str()));
       },
       "test -s file -a ! -s empty", "test ! -e file -a -s empty"},
  };
  return requests;
}

class EachRequest : public BadLine, public testing::WithParamInterface<Request> {
 protected:
  void SetUp() override {
    BadLine::SetUp();
    for (const char* name : {"directory", "full"}) fs::create_directory(disk / name);
    for (const char* name : {"full/one", "full/two", "empty"}) WriteFile(disk / name, "");
    WriteFile(disk / "file", Bytes(100'000));
    fs::permissions(disk / "file", fs::perms(0644));
  }
  bool IsSo(const std::string& condition) const {
    return Shell("cd " + disk.path() + " && " + condition).status == 0;
  }
  bool WasDone() const { return IsSo(GetParam().after); }
  bool WasNotDone() const { return IsSo(GetParam().before); }
};

TEST_P(EachRequest, IsCarriedOutAfterTheLineHasDropped) {
  const auto mounted = Mount();
  Order("cut");
  ASSERT_TRUE(Eventually([&] { return Done() == 1; }));
  EXPECT_EQ(GetParam().ask(mounted), 0);
  EXPECT_TRUE(WasDone());
}

TEST_P(EachRequest, IsAskedAgainWhenItGetsLostOnItsWay) {
  const auto mounted = Mount();
  Order("mute", GetParam().code);
  EXPECT_EQ(GetParam().ask(mounted), 0);
  EXPECT_EQ(Done(), 1U) << "there was no such request";
  EXPECT_TRUE(WasDone());
}

TEST_P(EachRequest, SucceedsOnceWhenItsAnswerGetsLost) {
  const auto mounted = Mount();
  Order("deaf", GetParam().code);
  EXPECT_EQ(GetParam().ask(mounted), 0);
  EXPECT_EQ(Done(), 1U) << "there was no such request";
  EXPECT_TRUE(WasDone());
}

TEST_P(EachRequest, FailsWhileTheLineStaysDownAndSucceedsOnceItIsBack) {
  const auto mounted = Mount("", {"--reconnect", "2"});
  Order("down");
  ASSERT_TRUE(Eventually([&] { return Done() == 1; }));
  const auto start = Clock::now();
  EXPECT_EQ(GetParam().ask(mounted), EIO);
  EXPECT_LT(Clock::now() - start, 10s);
  EXPECT_TRUE(WasNotDone());
  Order("");
  EXPECT_TRUE(Eventually([&] { return GetParam().ask(mounted) == 0; })) << "is still failing";
  EXPECT_TRUE(WasDone());
}

TEST_P(EachRequest, LetsItsProgramBeInterruptedWhileTheLineIsDownAndIsCarriedOutLater) {
  auto mounted = Mount();
  Order("down", GetParam().code);
  {
    const ForkedProgram program([&] { return GetParam().ask(mounted); });
    ASSERT_TRUE(Eventually([&] { return Done() == 1; }));
    std::this_thread::sleep_for(300ms);
    kill(program.pid(), SIGINT);
    EXPECT_TRUE(Eventually([&] { return program.HasEnded(); }, 2s));
  }
  Order("");
  // The kernel may have cut a write into several requests, of which one was under way.
  EXPECT_TRUE(Eventually([&] { return WasDone() || !WasNotDone(); }))
      << "what was under way is not carried out";
  EXPECT_TRUE(Eventually([&] { return ReadFile(mounted / "full/one").empty(); }));
  EXPECT_EQ(mounted.Unmount().status, 0);
}

INSTANTIATE_TEST_SUITE_P(Over, EachRequest, testing::ValuesIn(Requests()),
                         [](const auto& request) { return std::string(request.param.name); });

// ---- Interrupted programs ----

/// Makes signals interrupt this program's system calls all the time.
void InterruptAllTheTime() {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  sigaction(SIGALRM, &action, nullptr);
  const itimerval every{.it_interval = {.tv_sec = 0, .tv_usec = 3000},
                        .it_value = {.tv_sec = 0, .tv_usec = 3000}};
  setitimer(ITIMER_REAL, &every, nullptr);
}

/// What an interrupted program sees in the end.
struct Seen {
  int error = 0;             // the first one other than EINTR
  unsigned interrupted = 0;  // calls
};

/// Reads one file and writes another until an error, or until the time has passed.
Seen ReadAndWrite(const std::string& read_file, const std::string& written_file) {
  InterruptAllTheTime();
  Seen seen;
  const auto note = [&seen](int error) {
    if (error == EINTR) ++seen.interrupted;
    if (error != EINTR && seen.error == 0) seen.error = error;
  };
  const auto end = Clock::now() + 6s;
  while (Clock::now() < end && seen.error == 0) {
    note(WithOpenFile(read_file, O_RDONLY, [](int fd) {
      std::string bytes(100'000, '\0');
      const auto count = read(fd, bytes.data(), bytes.size());
      if (count < 0) return errno;
      return Bytes(100'000).starts_with(bytes.substr(0, count)) ? 0 : EILSEQ;
    }));
    note(WithOpenFile(written_file, O_WRONLY | O_CREAT, [](int fd) {
      const int error = ErrorOf(write(fd, std::string(20'000, 'x').data(), 20'000));
      return error != 0 ? error : ErrorOf(fsync(fd));
    }));
    struct stat status {};
    note(ErrorOf(stat(read_file.c_str(), &status)));
    note(ErrorOf(rename(written_file.c_str(), (written_file + "2").c_str())));
    note(ErrorOf(rename((written_file + "2").c_str(), written_file.c_str())));
    if (seen.error == ENOENT) seen.error = 0;  // an interrupted rename may still be carried out
  }
  return seen;
}

TEST_F(BadLine, ManyProgramsThatWaitBehindARenameCanBeInterrupted) {
  constexpr int kPrograms = 30;
  WriteFile(disk / "file", "");
  for (int i = 0; i < kPrograms; ++i) WriteFile(disk / std::to_string(i), "");
  auto mounted = Mount();
  Order("down", 118);  // a rename
  {
    std::vector<std::unique_ptr<ForkedProgram>> programs;
    const auto start = [&programs](const std::function<int()>& work) {
      programs.push_back(std::make_unique<ForkedProgram>(work));
    };
    start(
        [&] { return ErrorOf(rename((mounted / "file").c_str(), (mounted / "renamed").c_str())); });
    ASSERT_TRUE(Eventually([&] { return Done() == 1; }));
    for (int i = 0; i < kPrograms; ++i) {
      start([&, i] { return ErrorOf(access((mounted / std::to_string(i)).c_str(), F_OK)); });
    }
    std::this_thread::sleep_for(500ms);
    for (const auto& program : programs) kill(program->pid(), SIGINT);
    for (const auto& program : programs) {
      EXPECT_TRUE(Eventually([&] { return program->HasEnded(); }, 5s));
    }
  }
  Order("");
  EXPECT_TRUE(Eventually([&] { return fs::exists(mounted / "renamed"); }));
  EXPECT_EQ(mounted.Unmount().status, 0);
}

// A file that is open when its last name goes stays on the disk under a hidden name. A program that
// was interrupted while it opened the file never closes it.
TEST_F(BadLine, AFileRemovedAfterItsOpeningWasInterruptedDoesNotStayOnTheDisk) {
  WriteFile(disk / "file", Bytes(100'000));
  const auto mounted = Mount();
  const auto file = mounted / "file";
  // The kernel trusts the name for a second, so that programs open and remove the file at once.
  ASSERT_EQ(access(file.c_str(), F_OK), 0);
  std::this_thread::sleep_for(50ms);
  Order("down", 102);
  const ForkedProgram opening([&] { return WithOpenFile(file, O_RDONLY, [](int) { return 0; }); });
  ASSERT_TRUE(Eventually([&] { return Done() == 1; }));
  kill(opening.pid(), SIGTERM);
  ASSERT_TRUE(Eventually([&] { return opening.HasEnded(); }, 5s));
  const ForkedProgram removing([&] { return ErrorOf(unlink(file.c_str())); });
  std::this_thread::sleep_for(200ms);
  Order("");
  ASSERT_TRUE(Eventually([&] { return removing.HasEnded(); }));
  EXPECT_EQ(removing.status(), 0) << strerror(removing.status());
  EXPECT_TRUE(Eventually([&] { return fs::is_empty(disk.path()); }, 5s)) << "a hidden file stays";
}

TEST_F(BadLine, InterruptedProgramsSeeNoErrorOfTheLineWhileItDrops) {
  WriteFile(disk / "file", Bytes(100'000));
  auto mounted = Mount();
  std::vector<std::unique_ptr<ForkedProgram>> programs;
  for (int i = 0; i < 4; ++i) {
    programs.push_back(std::make_unique<ForkedProgram>([&, i] {
      const auto seen = ReadAndWrite(mounted / "file", (mounted / "written") + std::to_string(i));
      if (seen.error != 0) return seen.error;
      return seen.interrupted > 0 ? 0 : ENOMSG;
    }));
  }
  const auto end = Clock::now() + 5s;
  while (Clock::now() < end) {
    const auto before = Done();
    Order("down");
    EXPECT_TRUE(Eventually([&] { return Done() > before; }));
    std::this_thread::sleep_for(200ms);
    Order("");
    std::this_thread::sleep_for(700ms);
  }
  for (const auto& program : programs) {
    EXPECT_TRUE(Eventually([&] { return program->HasEnded(); }));
    EXPECT_EQ(program->status(), 0) << strerror(program->status());
  }
  EXPECT_EQ(Shell("cmp " + (mounted / "file") + " " + (disk / "file"), kHang).output, "");
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.status, 0) << ending.err;
}

TEST_F(BadLine, AMountCanBeEndedWhileProgramsWaitForTheLine) {
  for (const char* name : {"read", "written", "renamed", "removed"}) WriteFile(disk / name, "old");
  auto mounted = Mount();
  const int fd = open((mounted / "written").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(write(fd, "new", 3), 3);
  Order("down");
  ASSERT_TRUE(Eventually([&] { return Done() == 1; }));
  const std::vector<std::function<int()>> calls{
      [&] { return ErrorOf(write(fd, "newer", 5)); },
      [&] { return ErrorOf(fsync(fd)); },
      [&] { return ErrorOf(rename((mounted / "renamed").c_str(), (mounted / "other").c_str())); },
      [&] { return ErrorOf(unlink((mounted / "removed").c_str())); },
      [&] { return ReadFile(mounted / "read") == "old" ? 0 : EIO; },
  };
  std::vector<std::unique_ptr<ForkedProgram>> programs;
  for (const auto& call : calls) {
    programs.push_back(std::make_unique<ForkedProgram>(call));
    std::this_thread::sleep_for(50ms);
  }
  std::this_thread::sleep_for(500ms);
  const auto start = Clock::now();
  EXPECT_EQ(mounted.Unmount().status, 0);
  EXPECT_LT(Clock::now() - start, 4s);
  for (const auto& program : programs) {
    EXPECT_TRUE(Eventually([&] { return program->HasEnded(); }, 2s)) << "a program hangs";
  }
  close(fd);
}

// ---- Silence and nonsense ----

class StalledLine : public BadLine {
 protected:
  void StallFor(std::chrono::milliseconds idle) {
    WriteFile(disk / "file", "content");
    const auto mounted = Mount();
    Order("stall");
    ASSERT_TRUE(Eventually([&] { return Done() == 1; }));
    const auto start = Clock::now();
    std::this_thread::sleep_for(idle);
    EXPECT_EQ(ReadFile(mounted / "file"), "content");
    EXPECT_LT(Clock::now() - start, std::max<Clock::duration>(15s, idle + 1s));
  }
};

TEST_F(StalledLine, IsReplacedWhileAProgramWaits) { StallFor(0ms); }

TEST_F(StalledLine, IsReplacedWhileNothingIsAsked) { StallFor(15s); }

TEST_F(BadLine, AGarbledLineIsReplacedAndShowsNoWrongData) {
  WriteFile(disk / "file", Bytes(2'000'000));
  auto mounted = Mount();
  Order("garble");
  const auto compared = Shell("cmp " + (mounted / "file") + " " + (disk / "file"), kHang);
  EXPECT_EQ(compared.status, 0) << compared.output;
  EXPECT_EQ(Done(), 1U);
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.status, 0);
  EXPECT_NE(ending.err.find("the line dropped: the other side sent nonsense"), std::string::npos)
      << ending.err;
}

}  // namespace
}  // namespace system_test
