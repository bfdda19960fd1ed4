// One process per session, and the directory where processes of one user meet.
#include "line/fence.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>

#include "line/sandbox.h"
#include "support/child_process.h"
#include "support/own_runtime_directory.h"

namespace cpd::host {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::ChildProcess;
using test::Eventually;

constexpr Fence::SessionId kSession{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef,
                                    0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
constexpr const char* kName = "serve-0123456789abcdef0011223344556677";

class RuntimeDirectoryTest : public testing::Test {
 protected:
  [[nodiscard]] fs::path place() const { return runtime / "cpd-host"; }

  static std::string Refusal() {
    try {
      const RuntimeDirectory directory;
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "";
  }

  const test::OwnRuntimeDirectory own;
  const fs::path runtime = own.path();
};

TEST_F(RuntimeDirectoryTest, IsMadeForItsUserAlone) {
  const mode_t mask = umask(0);
  const RuntimeDirectory directory;
  umask(mask);
  struct stat status {};
  ASSERT_EQ(stat(place().c_str(), &status), 0);
  EXPECT_TRUE(S_ISDIR(status.st_mode));
  EXPECT_EQ(status.st_mode & 07777, 0700U);
  std::ofstream(place() / "file") << "content";
  EXPECT_EQ(fs::file_size(directory.PathOf("file")), 7U);
}

TEST_F(RuntimeDirectoryTest, IsUsedAgain) {
  { const RuntimeDirectory directory; }
  EXPECT_EQ(Refusal(), "");
}

TEST_F(RuntimeDirectoryTest, MustNotBeALink) {
  fs::create_directory(runtime / "elsewhere");
  fs::permissions(runtime / "elsewhere", fs::perms::owner_all);
  fs::create_directory_symlink("elsewhere", place());
  EXPECT_NE(Refusal().find("not a directory"), std::string::npos) << Refusal();
}

TEST_F(RuntimeDirectoryTest, MustNotBeAFile) {
  std::ofstream(place()) << "file";
  EXPECT_NE(Refusal().find("not a directory"), std::string::npos) << Refusal();
}

TEST_F(RuntimeDirectoryTest, MustBeClosedToOthers) {
  fs::create_directory(place());
  fs::permissions(place(), fs::perms(0710));
  EXPECT_NE(Refusal().find("other users have access"), std::string::npos) << Refusal();
}

TEST_F(RuntimeDirectoryTest, MustBelongToTheUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to give the directory away";
  fs::create_directory(place());
  fs::permissions(place(), fs::perms::owner_all);
  ASSERT_EQ(chown(place().c_str(), 65534, 65534), 0);
  EXPECT_NE(Refusal().find("belongs to another user"), std::string::npos) << Refusal();
  EXPECT_NE(Refusal().find(place().string()), std::string::npos) << Refusal();
}

TEST_F(RuntimeDirectoryTest, IsInTmpWhenTheVariableNamesNoDirectoryOfTheUser) {
  const fs::path other = "/tmp/cpd-host-" + std::to_string(geteuid());
  const bool was_there = fs::exists(other);
  for (const char* value : {"", "relative", "/no/such/directory", "/dev/null"}) {
    setenv("XDG_RUNTIME_DIR", value, 1);
    const RuntimeDirectory directory;
    EXPECT_TRUE(fs::equivalent(directory.PathOf("."), other)) << value;
  }
  if (!was_there) fs::remove(other);
}

// systemd-tmpfiles takes this lock before it removes old files.
TEST_F(RuntimeDirectoryTest, IsLockedAgainstBeingCleanedUp) {
  const auto can_be_cleaned = [&] {
    const Descriptor opened(open(place().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return flock(opened.get(), LOCK_EX | LOCK_NB) == 0;
  };
  {
    const RuntimeDirectory directory;
    const RuntimeDirectory second;
    EXPECT_FALSE(can_be_cleaned());
  }
  EXPECT_TRUE(can_be_cleaned());
}

class FenceTest : public RuntimeDirectoryTest {
 protected:
  [[nodiscard]] fs::path file() const { return place() / kName; }
  RuntimeDirectory directory;
};

TEST_F(FenceTest, LetsTheFirstProcessInAtOnceAndLeavesNoFile) {
  {
    Fence fence(directory);
    EXPECT_TRUE(fence.Enter(kSession, 0s));
    EXPECT_TRUE(fs::exists(file()));
  }
  EXPECT_TRUE(fs::is_empty(place()));
}

TEST_F(FenceTest, EndsTheOlderProcess) {
  ChildProcess older([&] {
    static Fence fence(directory);
    ASSERT_TRUE(fence.Enter(kSession, 0s));
  });
  Fence fence(directory);
  std::thread reaper([&] { EXPECT_EQ(WTERMSIG(older.End(0)), SIGTERM); });
  EXPECT_TRUE(fence.Enter(kSession, 10s));
  reaper.join();
}

TEST_F(FenceTest, WaitsUntilTheOlderProcessHasFinishedItsRequest) {
  const fs::path log = runtime / "log";
  ChildProcess older([&] {
    static std::atomic<bool> told = false;
    (void)std::signal(SIGTERM, [](int) { told = true; });
    static Fence fence(directory);
    ASSERT_TRUE(fence.Enter(kSession, 0s));
    std::thread([log] {
      while (!told) std::this_thread::sleep_for(1ms);
      std::this_thread::sleep_for(300ms);
      std::ofstream(log) << "finished";
      _exit(0);
    }).detach();
  });
  Fence fence(directory);
  EXPECT_TRUE(fence.Enter(kSession, 10s));
  EXPECT_TRUE(fs::exists(log));
}

TEST_F(FenceTest, GivesUpAfterItsLimitAndKillsNobody) {
  ChildProcess older([&] {
    (void)std::signal(SIGTERM, SIG_IGN);
    static Fence fence(directory);
    ASSERT_TRUE(fence.Enter(kSession, 0s));
  });
  Fence fence(directory);
  const auto begin = Clock::now();
  EXPECT_FALSE(fence.Enter(kSession, 200ms));
  EXPECT_GE(Clock::now() - begin, 200ms);
  EXPECT_EQ(waitpid(older.pid(), nullptr, WNOHANG), 0) << "the older process has ended";
}

TEST_F(FenceTest, IgnoresAFileThatAKilledProcessHasLeft) {
  ChildProcess older([&] {
    static Fence fence(directory);
    ASSERT_TRUE(fence.Enter(kSession, 0s));
  });
  older.End(SIGKILL);
  EXPECT_TRUE(fs::exists(file()));
  Fence fence(directory);
  EXPECT_TRUE(fence.Enter(kSession, 0s));
}

TEST_F(FenceTest, KeepsSessionsApart) {
  ChildProcess older([&] {
    static Fence fence(directory);
    ASSERT_TRUE(fence.Enter(kSession, 0s));
  });
  auto other = kSession;
  other.back() = 0;
  Fence fence(directory);
  EXPECT_TRUE(fence.Enter(other, 0s));
  EXPECT_EQ(waitpid(older.pid(), nullptr, WNOHANG), 0) << "the older process has ended";
}

TEST_F(FenceTest, FollowsNoLink) {
  std::ofstream(runtime / "target") << "";
  fs::create_symlink(runtime / "target", file());
  Fence fence(directory);
  EXPECT_THROW((void)fence.Enter(kSession, 0s), std::runtime_error);
}

TEST_F(FenceTest, WorksForAProcessInItsSandbox) {
  ChildProcess older([&] {
    static Fence fence(directory);
    ASSERT_TRUE(fence.Enter(kSession, 0s));
  });
  std::thread reaper([&] { EXPECT_EQ(WTERMSIG(older.End(0)), SIGTERM); });
  EXPECT_TRUE(ChildProcess::Succeeds([&] {
    Fence fence(directory);
    EnterSandbox({.writable = {directory.path()}, .ends_processes = true});
    EXPECT_TRUE(fence.Enter(kSession, 10s));
  }));
  reaper.join();
  EXPECT_TRUE(fs::is_empty(place()));
}

using LockFileTest = FenceTest;

// A lock on a file that its holder has removed meanwhile would let two processes in.
TEST_F(LockFileTest, NeverLetsTwoInHoweverManyComeAndGo) {
  const fs::path inside = runtime / "inside";
  EXPECT_TRUE(ChildProcess::Succeeds(
      [&] {
        for (int entered = 0; entered < 300;) {
          LockHolder holder;
          const auto lock = LockFile::Try(directory, kName, &holder);
          if (!lock) {
            std::this_thread::yield();
            continue;
          }
          ++entered;
          const Descriptor made(open(inside.c_str(), O_CREAT | O_EXCL | O_CLOEXEC, 0600));
          ASSERT_TRUE(made.ok()) << "two are inside";
          ASSERT_EQ(unlink(inside.c_str()), 0);
        }
      },
      4));
  EXPECT_TRUE(fs::is_empty(place()));
}

}  // namespace
}  // namespace cpd::host
