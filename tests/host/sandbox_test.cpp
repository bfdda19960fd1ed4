// The sandbox of the commands that work over a line. A process cannot leave it, so each test enters
// it in a child.
#include "line/sandbox.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <linux/filter.h>
#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/personality.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/reboot.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "descriptor.h"
#include "line/fence.h"
#include "line/runtime_directory.h"
#include "module/directory_watches.h"
#include "module/module.h"
#include "module/redirection.h"
#include "remote/session.h"
#include "support/own_runtime_directory.h"
#include "support/requests.h"
#include "support/temp_disk.h"
#include "support/watchable_place.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;
using test::OwnRuntimeDirectory;
using test::TempDisk;

constexpr uid_t kOtherUser = 65534;

/// Runs `action` in a child. @return its wait status: 0 unless an expectation in it failed
int StatusOf(const std::function<void()>& action) {
  (void)std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    try {
      action();
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
    }
    (void)std::fflush(nullptr);
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return status;
}

void InSandbox(const Sandbox& sandbox, const std::function<void()>& action) {
  const int status = StatusOf([&] {
    EnterSandbox(sandbox);
    action();
  });
  EXPECT_EQ(status, 0) << "in the child, see above";
}

int VersionOfLandlock() {
  return static_cast<int>(
      ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION));
}

/// The error of a call, or 0. A descriptor that it returned is closed.
int ErrorOf(long result) { return result < 0 ? errno : 0; }
int ErrorOfOpen(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC, 0600);
  if (fd < 0) return errno;
  ::close(fd);
  return 0;
}

class SandboxTest : public testing::Test {
 protected:
  SandboxTest() {
    disk.MakeFile(test::kKnownFile, "known content");
    disk.MakeDir(test::kKnownDir);
    elsewhere.MakeFile("/secret.txt", "secret");
  }
  [[nodiscard]] std::string secret() const { return elsewhere.Local("/secret.txt"); }
  /// Gives a disk like this one to the user that is not root.
  static void GiveAway(const TempDisk& disk) {
    for (const auto& path :
         {disk.letter(), disk.root(), disk.Local(test::kKnownFile), disk.Local(test::kKnownDir)}) {
      ASSERT_EQ(::chown(path.c_str(), kOtherUser, kOtherUser), 0);
    }
  }

  TempDisk disk;
  TempDisk elsewhere;
};

#define NEEDS_LANDLOCK(version) \
  if (VersionOfLandlock() < (version)) GTEST_SKIP() << "needs version " #version " of Landlock"
#define NEEDS_ROOT() \
  if (::geteuid() != 0) GTEST_SKIP() << "needs root"

// ---- Files ----

/// What the module does with a disk.
void ExpectUsable(const TempDisk& disk) {
  const std::string file = disk.Local("/new.txt");
  EXPECT_EQ(ErrorOfOpen(file, O_WRONLY | O_CREAT | O_TRUNC), 0);
  EXPECT_EQ(ErrorOfOpen(file, O_RDWR), 0);
  EXPECT_EQ(ErrorOfOpen(disk.root(), O_RDONLY | O_DIRECTORY), 0);
  EXPECT_EQ(ErrorOf(::truncate(file.c_str(), 3)), 0);
  EXPECT_EQ(ErrorOf(::chmod(file.c_str(), 0640)), 0);
  EXPECT_EQ(ErrorOf(::mkdir(disk.Local("/made").c_str(), 0755)), 0);
  EXPECT_EQ(ErrorOf(::link(file.c_str(), disk.Local("/linked.txt").c_str())), 0);
  EXPECT_EQ(ErrorOf(::rename(file.c_str(), disk.Local("/renamed.txt").c_str())), 0);
  EXPECT_EQ(ErrorOf(::unlink(disk.Local("/linked.txt").c_str())), 0);
  EXPECT_EQ(ErrorOf(::unlink(disk.Local("/renamed.txt").c_str())), 0);
  EXPECT_EQ(ErrorOf(::rmdir(disk.Local("/made").c_str())), 0);
}

TEST_F(SandboxTest, AllowsTheDiskAndNoFileElsewhere) {
  NEEDS_LANDLOCK(3);
  disk.MakeLink("/way-out", secret());
  InSandbox({.disk = disk.root()}, [this] {
    ExpectUsable(disk);
    EXPECT_EQ(ErrorOf(::link(disk.Local(test::kKnownFile).c_str(),
                             disk.Local("/known/linked.txt").c_str())),
              0)
        << "another directory of the disk";

    EXPECT_EQ(ErrorOfOpen("/dev/urandom", O_RDONLY), 0) << "for the ids of trace events";
    EXPECT_EQ(ErrorOfOpen("/dev/urandom", O_WRONLY), EACCES);
    EXPECT_EQ(ErrorOfOpen(secret(), O_RDONLY), EACCES);
    EXPECT_EQ(ErrorOfOpen(secret(), O_WRONLY), EACCES);
    EXPECT_EQ(ErrorOfOpen(disk.Local("/way-out"), O_RDONLY), EACCES);
    EXPECT_EQ(ErrorOfOpen(disk.Local("/../new.txt"), O_WRONLY | O_CREAT), EACCES);
    EXPECT_EQ(ErrorOfOpen("/", O_RDONLY | O_DIRECTORY), EACCES);
    EXPECT_EQ(ErrorOfOpen("/etc/passwd", O_RDONLY), EACCES);
    EXPECT_EQ(ErrorOfOpen("/proc/self/mem", O_RDWR), EACCES);
    EXPECT_EQ(ErrorOf(::truncate(secret().c_str(), 0)), EACCES);
    EXPECT_EQ(ErrorOf(::unlink(secret().c_str())), EACCES);
    EXPECT_EQ(ErrorOf(::mkdir(elsewhere.Local("/made").c_str(), 0755)), EACCES);
    EXPECT_NE(ErrorOf(::link(secret().c_str(), disk.Local("/stolen").c_str())), 0);
    EXPECT_NE(
        ErrorOf(::rename(disk.Local(test::kKnownFile).c_str(), elsewhere.Local("/moved").c_str())),
        0);
  });
  EXPECT_EQ(elsewhere.ReadBack("/secret.txt"), "secret");
}

TEST_F(SandboxTest, MovesSymbolicLinksAndFifosButMakesNone) {
  NEEDS_LANDLOCK(2);
  disk.MakeLink("/link", "known.txt");
  ASSERT_EQ(::mkfifo(disk.Local("/fifo").c_str(), 0600), 0);
  InSandbox({.disk = disk.root()}, [this] {
    EXPECT_EQ(ErrorOf(::rename(disk.Local("/link").c_str(), disk.Local("/known/link").c_str())), 0);
    EXPECT_EQ(ErrorOf(::rename(disk.Local("/fifo").c_str(), disk.Local("/known/fifo").c_str())), 0);
    EXPECT_EQ(ErrorOf(::symlink("known.txt", disk.Local("/new").c_str())), EPERM);
    EXPECT_EQ(ErrorOf(::mkfifo(disk.Local("/new").c_str(), 0600)), EPERM);
  });
}

TEST_F(SandboxTest, KeepsAReadOnlyDiskFromBeingChanged) {
  NEEDS_LANDLOCK(3);
  InSandbox({.disk = disk.root(), .read_only = true}, [this] {
    const std::string file = disk.Local(test::kKnownFile);
    EXPECT_EQ(ErrorOfOpen(file, O_RDONLY), 0);
    EXPECT_EQ(ErrorOfOpen(disk.root(), O_RDONLY | O_DIRECTORY), 0);
    EXPECT_EQ(ErrorOfOpen(file, O_WRONLY), EACCES);
    EXPECT_EQ(ErrorOfOpen(disk.Local("/new.txt"), O_WRONLY | O_CREAT), EACCES);
    EXPECT_EQ(ErrorOf(::truncate(file.c_str(), 0)), EACCES);
    EXPECT_EQ(ErrorOf(::unlink(file.c_str())), EACCES);
    EXPECT_EQ(ErrorOf(::rename(file.c_str(), disk.Local("/renamed").c_str())), EACCES);
    EXPECT_EQ(ErrorOf(::mkdir(disk.Local("/made").c_str(), 0755)), EACCES);
    EXPECT_EQ(ErrorOf(::chmod(file.c_str(), 0777)), EPERM);
    EXPECT_EQ(ErrorOf(::chown(file.c_str(), ::getuid(), ::getgid())), EPERM);
  });
}

TEST_F(SandboxTest, ReachesNoFileWithoutADisk) {
  NEEDS_LANDLOCK(1);
  InSandbox({}, [this] {
    EXPECT_EQ(ErrorOfOpen(disk.Local(test::kKnownFile), O_RDONLY), EACCES);
    EXPECT_EQ(ErrorOfOpen(disk.Local("/new.txt"), O_WRONLY | O_CREAT), EACCES);
    EXPECT_EQ(ErrorOf(::chmod(disk.Local(test::kKnownFile).c_str(), 0777)), EPERM);
  });
}

TEST_F(SandboxTest, AllowsADirectoryForFilesOfTheProcess) {
  NEEDS_LANDLOCK(1);
  InSandbox({.writable = {elsewhere.root()}}, [this] {
    const std::string lock = elsewhere.Local("/lock");
    const int fd = ::open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    struct flock whole {};
    whole.l_type = F_WRLCK;
    EXPECT_EQ(ErrorOf(::fcntl(fd, F_SETLK, &whole)), 0);
    EXPECT_EQ(::write(fd, "1", 1), 1);
    EXPECT_EQ(ErrorOf(::unlink(lock.c_str())), 0);
    EXPECT_EQ(ErrorOfOpen(disk.Local(test::kKnownFile), O_RDONLY), EACCES);
  });
}

TEST_F(SandboxTest, LeavesDescriptorsThatAreOpenAlready) {
  const int file = ::open(secret().c_str(), O_RDWR | O_CLOEXEC);
  std::array<int, 2> pair{};
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
  InSandbox({}, [&] {
    char buffer[8];
    EXPECT_EQ(::pread(file, buffer, sizeof buffer, 0), 6);
    EXPECT_EQ(::pwrite(file, "S", 1, 0), 1);
    EXPECT_EQ(::write(pair[0], "text", 4), 4);
    EXPECT_EQ(::recv(pair[1], buffer, sizeof buffer, 0), 4);
  });
  EXPECT_EQ(elsewhere.ReadBack("/secret.txt"), "Secret");
  for (const int fd : {file, pair[0], pair[1]}) ::close(fd);
}

TEST_F(SandboxTest, KeepsUsersOtherThanRootInAsWell) {
  NEEDS_ROOT();
  NEEDS_LANDLOCK(3);
  GiveAway(disk);
  ASSERT_EQ(::chown(secret().c_str(), kOtherUser, kOtherUser), 0);
  ASSERT_EQ(::chmod(elsewhere.letter().c_str(), 0755), 0);
  const int status = StatusOf([this] {
    ASSERT_EQ(::setresgid(kOtherUser, kOtherUser, kOtherUser), 0);
    ASSERT_EQ(::setresuid(kOtherUser, kOtherUser, kOtherUser), 0);
    EXPECT_EQ(ErrorOfOpen(secret(), O_RDONLY), 0) << "before";
    EnterSandbox({.disk = disk.root()});
    ExpectUsable(disk);
    EXPECT_EQ(ErrorOfOpen(secret(), O_RDONLY), EACCES);
  });
  EXPECT_EQ(status, 0);
}

// ---- Capabilities ----

std::pair<uint64_t, uint64_t> PermittedAndInheritable() {
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  std::array<__user_cap_data_struct, 2> sets{};
  EXPECT_EQ(::syscall(SYS_capget, &header, sets.data()), 0);
  EXPECT_EQ(sets[0].effective, sets[0].permitted);
  EXPECT_EQ(sets[1].effective, sets[1].permitted);
  return {uint64_t{sets[1].permitted} << 32 | sets[0].permitted,
          uint64_t{sets[1].inheritable} << 32 | sets[0].inheritable};
}

uint64_t BoundingSet() {
  uint64_t set = 0;
  for (int i = 0; i < 64; ++i) {
    if (::prctl(PR_CAPBSET_READ, i, 0, 0, 0) == 1) set |= uint64_t{1} << i;
  }
  return set;
}

TEST_F(SandboxTest, RootKeepsOnlyTheCapabilitiesThatTheDiskNeeds) {
  NEEDS_ROOT();
  struct Row {
    Sandbox sandbox;
    uint64_t kept;
  };
  const Row rows[] = {
      {{.disk = disk.root()}, 1U << CAP_DAC_OVERRIDE | 1U << CAP_CHOWN | 1U << CAP_FOWNER},
      {{.disk = disk.root(), .read_only = true}, 1U << CAP_DAC_READ_SEARCH},
      {{}, 0},
  };
  for (const Row& row : rows) {
    InSandbox(row.sandbox, [&row] {
      EXPECT_EQ(PermittedAndInheritable(), std::pair(row.kept, uint64_t{0}));
      EXPECT_EQ(BoundingSet(), row.kept);
      EXPECT_EQ(::prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0), 1);
      EXPECT_EQ(ErrorOf(::syscall(SYS_setuid, kOtherUser)), EPERM);
    });
  }
}

TEST_F(SandboxTest, RootStillServesFilesOfOtherUsers) {
  NEEDS_ROOT();
  GiveAway(disk);
  const std::string file = disk.Local(test::kKnownFile);
  ASSERT_EQ(::chmod(file.c_str(), 0), 0);
  ASSERT_EQ(::chmod(disk.root().c_str(), 0), 0);
  InSandbox({.disk = disk.root(), .read_only = true},
            [&] { EXPECT_EQ(ErrorOfOpen(file, O_RDONLY), 0); });
  InSandbox({.disk = disk.root()}, [&] {
    EXPECT_EQ(ErrorOfOpen(file, O_RDWR), 0);
    EXPECT_EQ(ErrorOf(::chmod(file.c_str(), 0600)), 0);
    EXPECT_EQ(ErrorOf(::chown(file.c_str(), 1, 1)), 0);
    EXPECT_EQ(ErrorOfOpen(disk.Local("/new.txt"), O_WRONLY | O_CREAT), 0);
  });
}

// ---- System calls ----

TEST_F(SandboxTest, RefusesProgramsMountsSocketsAndOtherCallsThatADiskDoesNotNeed) {
  struct Row {
    const char* name;
    std::function<long()> call;
  };
  const std::string known = disk.Local(test::kKnownFile);
  char buffer[8] = "";
  const iovec own{.iov_base = buffer, .iov_len = sizeof buffer};
  const Row rows[] = {
      {"execve", [] { return ::execl("/no/such/program", "program", nullptr); }},
      {"execveat", [] { return ::syscall(SYS_execveat, -1, "", nullptr, nullptr, 0); }},
      {"ptrace", [] { return ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }},
      {"process_vm_readv",
       [&] { return ::syscall(SYS_process_vm_readv, ::getpid(), &own, 1, &own, 1, 0); }},
      {"kcmp", [] { return ::syscall(SYS_kcmp, ::getpid(), ::getpid(), 0, 0, 0); }},
      {"mount", [&] { return ::mount("none", disk.root().c_str(), "tmpfs", 0, nullptr); }},
      {"umount2", [&] { return ::umount2(disk.root().c_str(), MNT_DETACH); }},
      {"fsopen", [] { return ::syscall(SYS_fsopen, "tmpfs", 0); }},
      {"open_tree", [] { return ::syscall(SYS_open_tree, -1, "", 0); }},
      {"move_mount", [] { return ::syscall(SYS_move_mount, -1, "", -1, "", 0); }},
      {"chroot", [] { return ::chroot("/"); }},
      {"unshare", [] { return ::unshare(CLONE_FILES); }},
      {"setns", [] { return ::setns(-1, 0); }},
      {"socket", [] { return ::socket(AF_UNIX, SOCK_STREAM, 0); }},
      {"socketpair",
       [] {
         int pair[2];
         return ::socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
       }},
      {"connect", [] { return ::connect(-1, nullptr, 0); }},
      {"bind", [] { return ::bind(-1, nullptr, 0); }},
      {"listen", [] { return ::listen(-1, 1); }},
      {"bpf", [] { return ::syscall(SYS_bpf, -1, nullptr, 0); }},
      {"perf_event_open", [] { return ::syscall(SYS_perf_event_open, nullptr, 0, -1, -1, 0); }},
      {"userfaultfd", [] { return ::syscall(SYS_userfaultfd, -1); }},
      {"io_uring_setup", [] { return ::syscall(SYS_io_uring_setup, 1, nullptr); }},
      {"keyctl", [] { return ::syscall(SYS_keyctl, -1, 0, 0, 0, 0); }},
      {"init_module", [] { return ::syscall(SYS_init_module, nullptr, 0, ""); }},
      {"kexec_load", [] { return ::syscall(SYS_kexec_load, 0, 0, nullptr, -1); }},
      {"reboot", [] { return ::syscall(SYS_reboot, 0, 0, 0, nullptr); }},
      {"swapoff", [] { return ::syscall(SYS_swapoff, "/no/such/file"); }},
      {"settimeofday", [] { return ::syscall(SYS_settimeofday, nullptr, nullptr); }},
      {"personality", [] { return ::personality(0xffffffff); }},
      {"memfd_create", [] { return ::syscall(SYS_memfd_create, "", 0); }},
      {"inotify_init1", [] { return ::inotify_init1(0); }},
      {"open_by_handle_at", [] { return ::syscall(SYS_open_by_handle_at, -1, nullptr, 0); }},
      {"name_to_handle_at",
       [] { return ::syscall(SYS_name_to_handle_at, -1, "", nullptr, nullptr, 0); }},
      {"setxattr", [&] { return ::setxattr(known.c_str(), "user.x", "", 0, 0); }},
      {"utimensat", [&] { return ::utimensat(AT_FDCWD, known.c_str(), nullptr, 0); }},
      {"setpriority", [] { return ::syscall(SYS_setpriority, 0, 0, 0); }},
  };
  InSandbox({.disk = disk.root()}, [&] {
    for (const Row& row : rows) EXPECT_EQ(ErrorOf(row.call()), EPERM) << row.name;
  });
}

TEST_F(SandboxTest, WatchesDirectoriesOnlyThroughTheInstanceThatItIsGiven) {
  const TempDisk watched(test::WatchablePlace());
  watched.MakeDir("/a");
  DirectoryWatches watches(watched.root());
  const Descriptor other(::inotify_init1(IN_CLOEXEC));
  InSandbox({.disk = watched.root(), .inotify = watches.descriptor()}, [&] {
    DirectoryWatches::Notices notices;
    watches.Watch("/a", &notices);
    watched.MakeFile("/a/file", "");
    watches.Collect(&notices);
    EXPECT_GE(notices.size(), 2U);
    EXPECT_EQ(std::ranges::count(notices, Notice{.what = Notice::What::kAll}), 0);
    const auto add = [&](int inotify, uint32_t mask) {
      return ErrorOf(::inotify_add_watch(inotify, watched.root().c_str(), mask));
    };
    EXPECT_EQ(add(watches.descriptor(), DirectoryWatches::kEvents), 0);
    EXPECT_EQ(add(watches.descriptor(), IN_ALL_EVENTS), ENOSYS);
    EXPECT_EQ(add(other.get(), DirectoryWatches::kEvents), ENOSYS);
    EXPECT_EQ(ErrorOf(::inotify_init1(0)), EPERM);
  });
  InSandbox({.disk = watched.root()}, [&] {
    EXPECT_EQ(ErrorOf(::inotify_add_watch(watches.descriptor(), watched.root().c_str(),
                                          DirectoryWatches::kEvents)),
              EPERM);
  });
}

TEST_F(SandboxTest, StartsThreadsButNoProcesses) {
  InSandbox({}, [] {
    bool ran = false;
    std::thread([&ran] { ran = true; }).join();
    EXPECT_TRUE(ran);
    // Without the C library, which would run the sanitizers' own preparations.
    const long child = ::syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
    if (child == 0) ::_exit(0);
    EXPECT_EQ(child, -1);
    const long other = ::syscall(SYS_clone3, nullptr, 0);
    EXPECT_EQ(other, -1);
    EXPECT_EQ(errno, ENOSYS);
  });
}

/// A process in a group of its own, which waits to be killed.
class Sleeper {
 public:
  /// @param before  what it does first; the process ends when this throws
  explicit Sleeper(const std::function<void()>& before = [] {}) noexcept : pid_(::fork()) {
    if (pid_ == 0) {
      ::setpgid(0, 0);
      before();
      for (;;) ::pause();
    }
    ::setpgid(pid_, pid_);  // in both, because either may run first
  }
  ~Sleeper() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  Sleeper(const Sleeper&) = delete;
  Sleeper& operator=(const Sleeper&) = delete;
  [[nodiscard]] pid_t pid() const { return pid_; }

 private:
  const pid_t pid_;
};

TEST_F(SandboxTest, SendsSignalsToItselfOnly) {
  const Sleeper other;
  InSandbox({}, [&other] {
    EXPECT_EQ(ErrorOf(::kill(::getpid(), 0)), 0);
    EXPECT_EQ(ErrorOf(::pthread_kill(::pthread_self(), 0)), 0);
    for (const int signal : {0, SIGTERM}) {
      EXPECT_NE(ErrorOf(::kill(other.pid(), signal)), 0);
      EXPECT_NE(ErrorOf(::kill(-other.pid(), signal)), 0);
      EXPECT_NE(ErrorOf(::syscall(SYS_tgkill, other.pid(), other.pid(), signal)), 0);
      EXPECT_NE(ErrorOf(::syscall(SYS_tkill, other.pid(), signal)), 0);
    }
  });
  EXPECT_EQ(::waitpid(other.pid(), nullptr, WNOHANG), 0) << "it is alive";
}

TEST_F(SandboxTest, AsksAProcessToEndWhereThatIsAllowed) {
  const Sleeper other;
  InSandbox({.ends_processes = true}, [&other] {
    EXPECT_NE(ErrorOf(::kill(other.pid(), SIGTERM)), 0) << "-1 would mean all processes";
    const Descriptor process(static_cast<int>(::syscall(SYS_pidfd_open, other.pid(), 0)));
    const auto send = [&process](int signal) {
      return ErrorOf(::syscall(SYS_pidfd_send_signal, process.get(), signal, nullptr, 0));
    };
    EXPECT_NE(send(SIGSTOP), 0);
    EXPECT_NE(send(SIGKILL), 0);
    EXPECT_EQ(send(SIGTERM), 0);
  });
  if (HasFailure()) return;  // the process may still run
  siginfo_t ended{};
  EXPECT_EQ(::waitid(P_PID, static_cast<id_t>(other.pid()), &ended, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(ended.si_status, SIGTERM);
}

TEST_F(SandboxTest, LetsANewerProcessTakeASessionFromAnOlderOne) {
  const OwnRuntimeDirectory own;
  const RuntimeDirectory directory;
  const Sandbox sandbox{
      .disk = disk.root(), .writable = {directory.PathOf(".")}, .ends_processes = true};
  std::array<int, 2> entered{};
  ASSERT_EQ(::pipe2(entered.data(), O_CLOEXEC), 0);
  const Sleeper older([&] {
    EnterSandbox(sandbox);
    Fence fence(directory);
    if (!fence.Enter({}, 10s) || ::write(entered[1], "", 1) != 1) ::_exit(1);
    for (;;) ::pause();
  });
  ::close(entered[1]);
  char byte = 0;
  ASSERT_EQ(::read(entered[0], &byte, 1), 1);
  ::close(entered[0]);
  InSandbox(sandbox, [&directory] {
    Fence fence(directory);
    EXPECT_TRUE(fence.Enter({}, 10s));
  });
}

TEST_F(SandboxTest, TypesNothingIntoATerminal) {
  const int terminal = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (terminal < 0) GTEST_SKIP() << "needs a pseudoterminal";
  InSandbox({}, [terminal] {
    EXPECT_EQ(::isatty(terminal), 1);
    EXPECT_EQ(ErrorOf(::ioctl(terminal, TIOCSTI, "x")), ENOSYS);
    // The kernel ignores the upper half of the number.
    EXPECT_EQ(ErrorOf(::syscall(SYS_ioctl, terminal, 0x100000000UL | TIOCSTI, "x")), ENOSYS);
  });
  ::close(terminal);
}

TEST_F(SandboxTest, RefusesSystemCallsThatAreNewerThanItsList) {
  InSandbox({.disk = disk.root()}, [] {
    constexpr int kCachestat = 451;
    EXPECT_EQ(ErrorOf(::syscall(kCachestat, -1, nullptr, nullptr, 0)), ENOSYS);
    constexpr int kFchmodat2 = 452;
    EXPECT_EQ(ErrorOf(::syscall(kFchmodat2, -1, "", 0, 0)), ENOSYS);
  });
}

#if defined(__x86_64__)
void ExpectKilled(int status) {
  ASSERT_TRUE(WIFSIGNALED(status)) << status;
  EXPECT_EQ(WTERMSIG(status), SIGSYS);
}

TEST_F(SandboxTest, KillsAProcessThatCallsTheKernelAsX32Does) {
  constexpr long kX32 = 0x40000000;
  ExpectKilled(StatusOf([] {
    EnterSandbox({});
    ::syscall(kX32 + SYS_getpid);
  }));
}

TEST_F(SandboxTest, KillsAProcessThatCallsTheKernelAsI386Does) {
  constexpr int kGetpid = 20;
  const auto call = [] {
    long result = kGetpid;
    asm volatile("int $0x80" : "+a"(result) : : "memory", "r8", "r9", "r10", "r11");
    EXPECT_GT(result, 0);
  };
  if (StatusOf(call) != 0) GTEST_SKIP() << "this kernel has no system calls of i386";
  ExpectKilled(StatusOf([&call] {
    EnterSandbox({});
    call();
  }));
}
#endif

// ---- Other kernels ----

/// Redirects standard error to a file, so that a test can read it.
class StandardError {
 public:
  StandardError() : file_(std::tmpfile()), before_(::dup(STDERR_FILENO)) {
    ::dup2(::fileno(file_), STDERR_FILENO);
  }
  /// @return what was written
  std::string Restore() {
    ::dup2(before_, STDERR_FILENO);
    std::string text(1024, '\0');
    const auto size = ::pread(::fileno(file_), text.data(), text.size(), 0);
    text.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
    return text;
  }

 private:
  FILE* const file_;  // until the process ends
  const int before_;
};

/// Makes the kernel look like one without Landlock.
void HideLandlock() {
  std::array program{
      sock_filter BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      sock_filter BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_landlock_create_ruleset, 0, 1),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      sock_filter BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter{.len = program.size(), .filter = program.data()};
  ASSERT_EQ(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter, 0, 0), 0);
}

TEST_F(SandboxTest, SaysInOneLineThatTheKernelHasNoLandlockAndDoesTheRest) {
  const int status = StatusOf([this] {
    HideLandlock();
    StandardError standard_error;
    EnterSandbox({.disk = disk.root()});
    EXPECT_EQ(standard_error.Restore(),
              "cpd-host: this kernel has no Landlock: files are protected only by their "
              "permissions\n");
    ExpectUsable(disk);
    EXPECT_EQ(ErrorOfOpen(secret(), O_RDONLY), 0);
    EXPECT_EQ(ErrorOf(::socket(AF_UNIX, SOCK_STREAM, 0)), EPERM);
  });
  EXPECT_EQ(status, 0);
}

TEST_F(SandboxTest, UsesWhatOlderKernelsHave) {
  NEEDS_LANDLOCK(1);
  for (int version = 1; version <= std::min(VersionOfLandlock(), kNewestLandlock); ++version) {
    const int status = StatusOf([&] {
      StandardError standard_error;
      EnterSandbox({.disk = disk.root()}, version);
      EXPECT_EQ(standard_error.Restore().empty(), version >= 2);
      ExpectUsable(disk);
      EXPECT_EQ(ErrorOfOpen(secret(), O_RDONLY), EACCES);
      const int moved = ErrorOf(
          ::link(disk.Local(test::kKnownFile).c_str(), disk.Local("/known/linked").c_str()));
      EXPECT_EQ(moved, version >= 2 ? 0 : EXDEV);
      const int truncated = ErrorOf(::truncate(secret().c_str(), 6));
      EXPECT_EQ(truncated, version >= 3 ? EACCES : 0);
    });
    EXPECT_EQ(status, 0) << "version " << version;
    disk.Remove("/known/linked");
  }
}

// ---- Errors ----

TEST_F(SandboxTest, ThrowsWhereTheDiskIsGone) {
  NEEDS_LANDLOCK(1);
  const int status = StatusOf([this] {
    EXPECT_THROW(EnterSandbox({.disk = disk.Local("/no-such-directory")}), std::system_error);
  });
  EXPECT_EQ(status, 0);
}

TEST_F(SandboxTest, ThrowsWhereAnotherThreadRuns) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "ThreadSanitizer has a thread of its own";
#endif
  const int status = StatusOf([] {
    std::promise<void> end;
    std::thread other([&end] { end.get_future().wait(); });
    EXPECT_THROW(EnterSandbox({}), std::system_error);
    end.set_value();
    other.join();
    EnterSandbox({});
  });
  EXPECT_EQ(status, 0);
}

TEST_F(SandboxTest, EndsWithTheStatusThatTheProcessAsksFor) {
  const int status = StatusOf([] {
    EnterSandbox({});
    std::exit(3);  // NOLINT(concurrency-mt-unsafe): runs what the sanitizers do at the end
  });
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 3);
}

// ---- The module ----

/// A disk whose module was loaded before the sandbox was entered, as serve does it.
class ServedDisk {
 public:
  explicit ServedDisk(const std::string& root) : redirection_(OptionsOf(root)) {}

  /// @return the answer, or null if there is none
  std::future<std::unique_ptr<CpdPacket>> Ask(test::Request request) {
    request.dev_id = Session::kDeviceId;
    auto answer = std::make_shared<std::promise<std::unique_ptr<CpdPacket>>>();
    redirection_.session().Ask(request.Packet(), [answer](std::unique_ptr<CpdPacket> reply) {
      answer->set_value(std::move(reply));
    });
    return answer->get_future();
  }

 private:
  static DiskOptions OptionsOf(const std::string& root) {
    DiskOptions options;
    options.disk = root;
    options.module = UDISK_MODULE;
    options.trace_reads = true;
    return options;
  }

  Redirection redirection_;
};

struct Answer {
  std::string name;
  std::string payload;
};

/// The answers to a request of each kind. Those with descriptors, times, inodes and free space are
/// represented by their lengths.
std::vector<Answer> AnswersTo(const TempDisk& disk) {
  ServedDisk served(disk.root());
  auto requests = test::OneRequestPerCommand();
  // The first two make the module forget where its disk is.
  std::rotate(requests.begin(), requests.begin() + 2, requests.end());
  // All are sent before the first answer is awaited: only a later answer shows that some have none.
  std::vector<std::future<std::unique_ptr<CpdPacket>>> replies;
  replies.reserve(requests.size());
  for (const auto& named : requests) replies.push_back(served.Ask(named.request));
  std::vector<Answer> answers;
  for (size_t i = 0; i < requests.size(); ++i) {
    const auto& [name, request, check_reply] = requests[i];
    const std::unique_ptr<CpdPacket> reply = replies[i].get();
    if (reply == nullptr) {
      answers.push_back({name, "none"});
      continue;
    }
    const test::SentPacket packet(*reply);
    if (check_reply != nullptr) check_reply(packet);
    constexpr uint16_t kVarying[] = {kFileCreate, kGetFileAttr, kDirRead, kGetStatvfs, kCheckDir};
    const bool varies = std::ranges::find(kVarying, packet.cmd) != std::end(kVarying);
    answers.push_back({name, varies ? std::to_string(packet.payload.size()) : packet.payload});
  }
  return answers;
}

class ServingTest : public SandboxTest {
 protected:
  ServingTest() {
    twin.MakeFile(test::kKnownFile, "known content");
    twin.MakeDir(test::kKnownDir);
  }
  /// Expects the module to answer in the sandbox as it does outside.
  void ServesAs(uid_t user) {
    const int status = StatusOf([&] {
      ::setenv("TESSEL_CPD_CLIENT_CONFINE", "1", 1);
      const Module module(UDISK_MODULE);
      ASSERT_EQ(::setresuid(user, user, user), 0);
      const std::vector<Answer> outside = AnswersTo(twin);
      EnterSandbox({.disk = disk.root()});
      const std::vector<Answer> inside = AnswersTo(disk);
      ASSERT_EQ(inside.size(), outside.size());
      for (size_t i = 0; i < inside.size(); ++i) {
        EXPECT_EQ(inside[i].payload, outside[i].payload) << inside[i].name;
      }
    });
    EXPECT_EQ(status, 0);
    for (const TempDisk* served : {&disk, &twin}) {
      EXPECT_EQ(served->ReadBack(test::kKnownFile), "known content");
      EXPECT_TRUE(served->Exists("/renamed.txt"));
    }
  }

  TempDisk twin;
};

TEST_F(ServingTest, TheModuleAnswersEveryKindOfRequest) {
  NEEDS_LANDLOCK(3);
  ServesAs(::geteuid());
}

TEST_F(ServingTest, TheModuleAnswersEveryKindOfRequestWhenItIsNotRoot) {
  NEEDS_ROOT();
  NEEDS_LANDLOCK(3);
  GiveAway(disk);
  GiveAway(twin);
  ServesAs(kOtherUser);
}

TEST_F(ServingTest, KeepsEvenAnUnconfinedModuleOnTheDisk) {
  NEEDS_LANDLOCK(1);
  const std::string way_out = "/../../" + elsewhere.letter().substr(5) + "DISK/secret.txt";
  const int status = StatusOf([&] {
    ::unsetenv("TESSEL_CPD_CLIENT_CONFINE");
    const Module module(UDISK_MODULE);
    const auto read = [&] {
      const auto reply = ServedDisk(disk.root()).Ask(test::ReadRequest{.path = way_out}).get();
      return test::ReadReply::Decode(test::SentPacket(*reply)).data;
    };
    EXPECT_EQ(read(), "secret");
    EnterSandbox({.disk = disk.root()});
    EXPECT_EQ(read(), "");
  });
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace cpd::host
