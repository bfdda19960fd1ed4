#include "jail.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <semaphore>
#include <string>
#include <thread>

#include "finding.h"

namespace cpd::fuzz {

namespace {

namespace fs = std::filesystem;

constexpr rlim_t kMostFileBytes = 1 << 20;

/// Whether the calling thread is in the jail.
thread_local bool g_jailed = false;
/// Whether a task is running in the jail.
std::atomic<bool> g_task_runs = false;

void Check(bool worked, const char* what) {
  if (!worked) throw NoJail(std::string(what) + ": " + std::strerror(errno));
}

void Write(const char* path, const std::string& text) {
  std::ofstream file(path);
  Check(static_cast<bool>(file << text << std::flush), path);
}

/// Gives an unprivileged process privileges over its own mounts. Works only while the process has a
/// single thread.
void BecomeRootOfOwnNamespace() {
  if (geteuid() == 0) return;
  const std::string uid = std::to_string(geteuid());
  const std::string gid = std::to_string(getegid());
  Check(unshare(CLONE_NEWUSER) == 0, "no user namespace");
  Write("/proc/self/setgroups", "deny");
  Write("/proc/self/uid_map", "0 " + uid + " 1");
  Write("/proc/self/gid_map", "0 " + gid + " 1");
}

void Mount(const char* what, const char* where, const char* type, unsigned long flags,
           const char* options) {
  Check(mount(what, where, type, flags, options) == 0, where);
}

/// The way back to the machine: descriptors of its root, working directory and standard error. They
/// wait in a socket, where no path can reach them.
class WayBack {
 public:
  WayBack() {
    Check(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, ends_.data()) == 0, "no socket");
    constexpr int kFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
    const Descriptors descriptors{open("/", kFlags), open(".", kFlags), STDERR_FILENO};
    const Message message(descriptors);
    Check(sendmsg(ends_[0], &message.header, 0) == 1, "no way back");
    close(descriptors[0]);
    close(descriptors[1]);
  }
  ~WayBack() {
    close(ends_[0]);
    close(ends_[1]);
  }
  WayBack(const WayBack&) = delete;
  WayBack& operator=(const WayBack&) = delete;

  /// The descriptor that must stay open.
  [[nodiscard]] int socket() const { return ends_[1]; }

  void Take() const {
    Message message;
    if (recvmsg(socket(), &message.header, MSG_DONTWAIT) != 1) return;
    const Descriptors descriptors = message.descriptors();
    dup2(descriptors[2], STDERR_FILENO);
    if (fchdir(descriptors[0]) != 0 || chroot(".") != 0 || fchdir(descriptors[1]) != 0) {
      std::perror("jail");
    }
  }

 private:
  using Descriptors = std::array<int, 3>;
  /// Descriptors, and the one byte without which they are not sent.
  struct Message {
    explicit Message(const Descriptors& sent = {}) {
      cmsghdr head{};
      head.cmsg_len = CMSG_LEN(sizeof sent);
      head.cmsg_level = SOL_SOCKET;
      head.cmsg_type = SCM_RIGHTS;
      std::memcpy(control.data(), &head, sizeof head);
      std::memcpy(control.data() + CMSG_LEN(0), &sent, sizeof sent);
    }
    [[nodiscard]] Descriptors descriptors() const {
      Descriptors received{};
      std::memcpy(&received, control.data() + CMSG_LEN(0), sizeof received);
      return received;
    }

    char byte = 'x';
    iovec data{&byte, sizeof byte};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(Descriptors))> control{};
    msghdr header{nullptr, 0, &data, 1, control.data(), control.size(), 0};
  };

  std::array<int, 2> ends_{};
};

class Jail {
 public:
  Jail() {
    BecomeRootOfOwnNamespace();
    getrlimit(RLIMIT_FSIZE, &file_size_);
    thread_ = std::thread([this] { Main(); });
    done_.acquire();
    if (!error_) return;
    thread_.join();
    std::rethrow_exception(error_);
  }
  ~Jail() {
    task_ = nullptr;
    start_.release();
    thread_.join();
  }
  Jail(const Jail&) = delete;
  Jail& operator=(const Jail&) = delete;

  void Run(const std::function<void()>& task) {
    task_ = &task;
    // The limit holds for the whole process, so it is lifted between tasks, when a log may grow.
    const rlimit small{.rlim_cur = kMostFileBytes, .rlim_max = file_size_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    start_.release();
    done_.acquire();
    setrlimit(RLIMIT_FSIZE, &file_size_);
  }

  void Leave() const {
    setrlimit(RLIMIT_FSIZE, &file_size_);
    way_back_.Take();
  }

 private:
  void Main() {
    try {
      Enter();
    } catch (const NoJail&) {
      error_ = std::current_exception();
    }
    done_.release();
    if (error_) return;
    g_jailed = true;
    for (start_.acquire(); task_ != nullptr; start_.acquire()) {
      g_task_runs = true;
      (*task_)();
      g_task_runs = false;
      done_.release();
    }
  }

  /// Gives the calling thread a root, mounts and descriptors of its own.
  void Enter() const {
    Check(unshare(CLONE_FS | CLONE_FILES | CLONE_NEWNS) == 0, "no namespace of its own");
    Mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    Mount("jail", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "size=16m,nr_inodes=16k,mode=755");
    // Confined paths need /proc/self/fd. The jail has no more of /proc, and only this thread's.
    Check(mkdir("/tmp/proc", 0755) == 0, "no directory");
    Mount("proc", "/tmp/proc", "tmpfs", MS_NOSUID | MS_NODEV, "size=64k,mode=755");
    Check(fs::create_directories("/tmp/proc/self/fd"), "no directory");
    Mount("/proc/thread-self/fd", "/tmp/proc/self/fd", nullptr, MS_BIND, nullptr);
    Mount(nullptr, "/tmp/proc", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY | MS_NOSUID | MS_NODEV,
          nullptr);
    Check(chdir("/tmp") == 0 && chroot(".") == 0, "no root of its own");
    KeepOnly(way_back_.socket());
    // A write beyond the limit on file sizes fails instead of ending the process.
    sigset_t too_large;
    sigemptyset(&too_large);
    sigaddset(&too_large, SIGXFSZ);
    pthread_sigmask(SIG_BLOCK, &too_large, nullptr);
    umask(0);
  }

  /// Closes all descriptors except one, and redirects the standard ones to a file in the jail.
  static void KeepOnly(int descriptor) {
    const int nothing = open("/", O_TMPFILE | O_RDWR, 0600);
    Check(nothing >= 0, "no temporary file");
    constexpr int kStandard = 3;
    for (int fd = 0; fd < kStandard; ++fd) Check(dup2(nothing, fd) == fd, "no standard stream");
    const auto kept = static_cast<unsigned>(descriptor);
    Check(close_range(kStandard, kept - 1, 0) == 0 && close_range(kept + 1, ~0U, 0) == 0,
          "cannot close descriptors");
  }

  const WayBack way_back_;
  rlimit file_size_{};  // the limit that the process started with
  std::binary_semaphore start_{0};
  std::binary_semaphore done_{0};
  const std::function<void()>* task_ = nullptr;
  std::exception_ptr error_;
  std::thread thread_;
};

Jail& TheJail() {
  static Jail jail;
  return jail;
}

/// For the jail's thread, and for those that a task has started, which share its root and
/// descriptors. Does nothing on the main thread.
void LeaveJail() {
  if (gettid() == getpid() || !g_task_runs.exchange(false)) return;
  TheJail().Leave();
}

}  // namespace

void RunInJail(const std::function<void()>& task) {
  TheJail().Run([&task] {
    try {
      task();
    } catch (const std::exception& error) {
      Finding(std::string("uncaught: ") + error.what());
    }
  });
}

void EmptyJail() {
  Expect(g_jailed, "this is the machine's own root");
  for (const auto& entry : fs::directory_iterator("/")) {
    if (entry.path() != "/proc") fs::remove_all(entry.path());
  }
}

void Finding(const std::string& what) {
  LeaveJail();
  std::cerr << "FINDING: " << what << std::endl;
  std::abort();
}

}  // namespace cpd::fuzz

// Called by the sanitizers, if there are any, before they report and before libFuzzer saves the
// input.
extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
void __asan_on_error();
void __ubsan_on_report();
void __sanitizer_malloc_hook(const volatile void* block, size_t size);
// NOLINTEND(bugprone-reserved-identifier)

void __asan_on_error() { cpd::fuzz::LeaveJail(); }
void __ubsan_on_report() { cpd::fuzz::LeaveJail(); }

/// Reports an allocation of more than 512 MiB, which no input is large enough to justify.
void __sanitizer_malloc_hook(const volatile void* /*block*/, size_t size) {
  constexpr size_t kMostBytes = size_t{1} << 29;
  if (size > kMostBytes) cpd::fuzz::Finding("allocates " + std::to_string(size) + " bytes at once");
}
}
