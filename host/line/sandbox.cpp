#include "line/sandbox.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/landlock.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string_view>
#include <system_error>
#include <thread>

#include "descriptor.h"
#include "module/directory_watches.h"
#include "module/standard_error.h"

namespace cpd::host {
namespace {

[[maybe_unused]] bool g_shut_in = false;  // read by the leak checker, see below

[[noreturn]] void Fail(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), "cannot set up the sandbox: " + what);
}

/// @param result  of a system call: negative when it failed
int Check(long result, const std::string& what) {
  if (result < 0) Fail(errno, what);
  return static_cast<int>(result);
}

/// Fails if another thread runs. ThreadSanitizer has one of its own, which never leaves the
/// sanitizer's code.
void CheckForThreads() {
#ifndef __SANITIZE_THREAD__
  // unshare leaves a process with one thread unchanged. Some containers refuse it to every process.
  constexpr int kTries = 100;  // a thread that was joined may take a moment to disappear
  for (int i = 0; ::unshare(CLONE_THREAD) != 0 && errno == EINVAL; ++i) {
    if (i == kTries) Fail(EBUSY, "other threads are running");
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
#endif
}

// ---- Capabilities ----

constexpr uint64_t Bit(int number) { return uint64_t{1} << number; }

/// What a root process needs to serve files of any owner. Set-user-ID and set-group-ID bits are
/// deliberately left to the kernel, which removes them when such a file is changed (CAP_FSETID).
uint64_t NeededCapabilities(const Sandbox& sandbox) {
  if (sandbox.disk.empty()) return 0;
  if (sandbox.read_only) return Bit(CAP_DAC_READ_SEARCH);
  return Bit(CAP_DAC_OVERRIDE) | Bit(CAP_CHOWN) | Bit(CAP_FOWNER);
}

/// Drops capabilities for good, from every set. A user other than root has none to drop.
void KeepCapabilities(uint64_t kept) {
  __user_cap_header_struct header{.version = _LINUX_CAPABILITY_VERSION_3, .pid = 0};
  std::array<__user_cap_data_struct, 2> sets{};
  Check(::syscall(SYS_capget, &header, sets.data()), "reading capabilities");

  if ((sets[0].effective & Bit(CAP_SETPCAP)) != 0) {
    // The kernel may know more capabilities than the headers.
    for (int i = 0; ::prctl(PR_CAPBSET_READ, i, 0, 0, 0) >= 0; ++i) {
      if ((kept & Bit(i)) == 0) Check(::prctl(PR_CAPBSET_DROP, i, 0, 0, 0), "bounding set");
    }
  }
  Check(::prctl(PR_CAP_AMBIENT, PR_CAP_AMBIENT_CLEAR_ALL, 0, 0, 0), "ambient set");
  const auto keep = [](__user_cap_data_struct* set, uint64_t part) {
    const auto bits = static_cast<uint32_t>(part);
    *set = {
        .effective = set->effective & bits, .permitted = set->permitted & bits, .inheritable = 0};
  };
  keep(&sets[0], kept);
  keep(&sets[1], kept >> 32);
  Check(::syscall(SYS_capset, &header, sets.data()), "dropping capabilities");
}

// ---- Files: Landlock ----

// The rights that Debian 12's headers lack.
constexpr uint64_t kTruncate = Bit(14);
constexpr uint64_t kIoctlOfDevice = Bit(15);
constexpr uint64_t kBindTcp = Bit(0);
constexpr uint64_t kConnectTcp = Bit(1);
constexpr uint64_t kScopeAbstractSockets = Bit(0);
constexpr uint64_t kScopeSignals = Bit(1);

/// What the kernel is asked to refuse. The kernel takes a shorter or longer record, as long as the
/// fields that it does not know are 0.
struct Restrictions {
  uint64_t files;
  uint64_t network;
  uint64_t scopes;
};

struct Version {
  int number;
  Restrictions adds;
};

constexpr uint64_t kReading = LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
/// Moving or linking a file takes the right to make one of its type. Even so, no symbolic link,
/// device, socket or FIFO can be made: the system calls for that are refused.
constexpr uint64_t kChanging =
    LANDLOCK_ACCESS_FS_WRITE_FILE | LANDLOCK_ACCESS_FS_REMOVE_DIR | LANDLOCK_ACCESS_FS_REMOVE_FILE |
    LANDLOCK_ACCESS_FS_MAKE_CHAR | LANDLOCK_ACCESS_FS_MAKE_DIR | LANDLOCK_ACCESS_FS_MAKE_REG |
    LANDLOCK_ACCESS_FS_MAKE_SOCK | LANDLOCK_ACCESS_FS_MAKE_FIFO | LANDLOCK_ACCESS_FS_MAKE_BLOCK |
    LANDLOCK_ACCESS_FS_MAKE_SYM | LANDLOCK_ACCESS_FS_REFER | kTruncate;

constexpr int kFirstToMoveFiles = 2;
constexpr auto kVersions = std::to_array<Version>({
    {1,
     {LANDLOCK_ACCESS_FS_EXECUTE | kReading | (kChanging & ~(LANDLOCK_ACCESS_FS_REFER | kTruncate)),
      0, 0}},
    {kFirstToMoveFiles, {LANDLOCK_ACCESS_FS_REFER, 0, 0}},
    {3, {kTruncate, 0, 0}},
    {4, {0, kBindTcp | kConnectTcp, 0}},
    {5, {kIoctlOfDevice, 0, 0}},
    {6, {0, 0, kScopeAbstractSockets | kScopeSignals}},
});
static_assert(kVersions.back().number == kNewestLandlock);

/// 0 = none.
int VersionOfLandlock() {
  const long version =
      ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
  return static_cast<int>(std::max(version, 0L));
}

Restrictions RestrictionsOf(int version) {
  Restrictions all{};
  for (const auto& [number, adds] : kVersions) {
    if (number > version) break;
    all.files |= adds.files;
    all.network |= adds.network;
    all.scopes |= adds.scopes;
  }
  return all;
}

void AllowBeneath(const Descriptor& rules, const std::string& path, uint64_t rights) {
  const Descriptor place(Check(::open(path.c_str(), O_PATH | O_CLOEXEC), path));
  const landlock_path_beneath_attr rule{.allowed_access = rights, .parent_fd = place.get()};
  Check(::syscall(SYS_landlock_add_rule, rules.get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0), path);
}

void RestrictFiles(const Sandbox& sandbox, int newest) {
  const int version = std::min(VersionOfLandlock(), newest);
  if (version == 0) {
    PrintError(
        "cpd-host: this kernel has no Landlock: files are protected only by their permissions\n");
    return;
  }
  const bool changes = !sandbox.disk.empty() && !sandbox.read_only;
  if (version < kFirstToMoveFiles && changes) {
    PrintError(
        "cpd-host: the Landlock of this kernel keeps files from being moved or linked to another "
        "directory; Linux 5.19 and later do not\n");
  }
  Restrictions asked = RestrictionsOf(version);
  if (sandbox.ends_processes) asked.scopes &= ~kScopeSignals;
  const Descriptor rules(
      Check(::syscall(SYS_landlock_create_ruleset, &asked, sizeof asked, 0), "Landlock"));
  if (!sandbox.disk.empty()) {
    const uint64_t rights = changes ? kReading | kChanging : kReading;
    AllowBeneath(rules, sandbox.disk, rights & asked.files);
  }
  for (const std::string& path : sandbox.writable) {
    AllowBeneath(rules, path, (kReading | kChanging) & asked.files);
  }
  // The module seeds the ids of its trace events from it.
  AllowBeneath(rules, "/dev/urandom", LANDLOCK_ACCESS_FS_READ_FILE);
  Check(::syscall(SYS_landlock_restrict_self, rules.get(), 0), "Landlock");
}

// ---- System calls: seccomp ----

// Which of its many harmless system calls a process uses is up to the C library, GLib, libfuse and
// the sanitizers, and changes with their versions. A list of what is allowed would thus break on
// another machine, in the middle of somebody's work. Hence the list below says what is refused. A
// system call that is newer than the list is refused in any case, as by a kernel that lacks it.

constexpr int kNewestReviewed = 450;  // of Linux 5.17; the same on every architecture

constexpr auto kRefused = std::to_array<std::string_view>({
    // programs and other processes
    "execve",
    "execveat",
    "uselib",
    "fork",
    "vfork",
    "ptrace",
    "process_vm_readv",
    "process_vm_writev",
    "process_madvise",
    "process_mrelease",
    "kcmp",
    "pidfd_getfd",
    "move_pages",
    "migrate_pages",
    "setpriority",
    "ioprio_set",
    "tkill",
    "rt_sigqueueinfo",
    "rt_tgsigqueueinfo",
    "personality",
    // mounts, roots and namespaces
    "mount",
    "umount",
    "umount2",
    "fsopen",
    "fsconfig",
    "fsmount",
    "fspick",
    "open_tree",
    "move_mount",
    "mount_setattr",
    "pivot_root",
    "chroot",
    "unshare",
    "setns",
    "quotactl",
    "quotactl_fd",
    // sockets; those that are open already may accept, send and receive
    "socket",
    "socketpair",
    "connect",
    "bind",
    "listen",
    "socketcall",
    // files, in ways that Landlock does not restrict or the module does not need
    "open_by_handle_at",
    "name_to_handle_at",
    "mknod",
    "mknodat",
    "symlink",
    "symlinkat",
    "memfd_create",
    "memfd_secret",
    "fanotify_init",
    "fanotify_mark",
    "inotify_init",
    "inotify_init1",
    "inotify_add_watch",
    "setxattr",
    "lsetxattr",
    "fsetxattr",
    "removexattr",
    "lremovexattr",
    "fremovexattr",
    "utime",
    "utimes",
    "futimesat",
    "utimensat",
    "utimensat_time64",
    // parts of the kernel that have often had holes
    "bpf",
    "perf_event_open",
    "userfaultfd",
    "io_uring_setup",
    "io_uring_enter",
    "io_uring_register",
    "keyctl",
    "add_key",
    "request_key",
    "io_setup",
    "io_submit",
    "modify_ldt",
    "vm86",
    "vm86old",
    "lookup_dcookie",
    "nfsservctl",
    "remap_file_pages",
    // the machine
    "init_module",
    "finit_module",
    "delete_module",
    "create_module",
    "kexec_load",
    "kexec_file_load",
    "reboot",
    "swapon",
    "swapoff",
    "settimeofday",
    "stime",
    "clock_settime",
    "clock_settime64",
    "clock_adjtime",
    "clock_adjtime64",
    "adjtimex",
    "acct",
    "syslog",
    "sethostname",
    "setdomainname",
    "vhangup",
    "iopl",
    "ioperm",
});

/// Landlock does not restrict changes of modes and owners, so these calls are left only to a
/// process that may change its disk.
constexpr auto kChangingModes = std::to_array<std::string_view>({
    "chmod",
    "fchmod",
    "fchmodat",
    "chown",
    "chown32",
    "fchown",
    "fchown32",
    "fchownat",
    "lchown",
    "lchown32",
});

/// Takes its flags from memory, where the filter cannot look. Where this call does not exist, the C
/// library uses clone.
constexpr std::string_view kUnfilterable = "clone3";

/// A call that is allowed if its arguments meet all conditions of a row. Every other call of that
/// name fails with ENOSYS.
struct Conditional {
  std::string_view call;
  std::vector<scmp_arg_cmp> conditions;
};

/// Compares those bits of an argument that are in `mask`. The kernel ignores the upper half of a
/// register that holds an int, so a comparison must do the same.
scmp_arg_cmp Bits(unsigned argument, uint32_t mask, uint32_t value) {
  return {.arg = argument, .op = SCMP_CMP_MASKED_EQ, .datum_a = mask, .datum_b = value};
}
scmp_arg_cmp Int(unsigned argument, uint32_t value) { return Bits(argument, UINT32_MAX, value); }

std::vector<Conditional> ConditionalCalls(const Sandbox& sandbox) {
  constexpr uint32_t kNamespaces = CLONE_NEWNS | CLONE_NEWCGROUP | CLONE_NEWUTS | CLONE_NEWIPC |
                                   CLONE_NEWUSER | CLONE_NEWPID | CLONE_NEWNET;
  const auto self = static_cast<uint32_t>(::getpid());
  std::vector<Conditional> calls = {
      {"clone", {Bits(0, CLONE_THREAD | kNamespaces, CLONE_THREAD)}},  // threads, not processes
      // Those that ask a terminal or a pipe for something; none that types into a terminal.
      {"ioctl", {Int(1, TCGETS)}},
      {"ioctl", {Int(1, TIOCGWINSZ)}},
      {"ioctl", {Int(1, FIONREAD)}},
      {"prlimit64", {Int(0, 0)}},
      {"kill", {Int(0, self)}},
      {"tgkill", {Int(0, self)}},
      {"pidfd_send_signal", {Int(1, 0)}},
  };
  if (sandbox.ends_processes) calls.push_back({"pidfd_send_signal", {Int(1, SIGTERM)}});
  if (sandbox.inotify >= 0) {
    calls.push_back(
        {"inotify_add_watch",
         {Int(0, static_cast<uint32_t>(sandbox.inotify)), Int(2, DirectoryWatches::kEvents)}});
  }
  return calls;
}

void CheckFilter(int result) {
  if (result < 0) Fail(-result, "seccomp");
}

void RestrictSystemCalls(const Sandbox& sandbox) {
  const std::unique_ptr<void, void (*)(scmp_filter_ctx)> filter(
      seccomp_init(SCMP_ACT_ERRNO(ENOSYS)), &seccomp_release);
  if (filter == nullptr) Fail(ENOMEM, "seccomp");
  CheckFilter(seccomp_attr_set(filter.get(), SCMP_FLTATR_ACT_BADARCH, SCMP_ACT_KILL_PROCESS));
  CheckFilter(seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_TSYNC, 1));
  CheckFilter(seccomp_attr_set(filter.get(), SCMP_FLTATR_CTL_OPTIMIZE, 2));  // a tree, not a list

  const std::vector<Conditional> conditional = ConditionalCalls(sandbox);
  const bool changes = !sandbox.disk.empty() && !sandbox.read_only;
  for (int number = 0; number <= kNewestReviewed; ++number) {
    const std::unique_ptr<char, decltype(&std::free)> name(
        seccomp_syscall_resolve_num_arch(SCMP_ARCH_NATIVE, number), &std::free);
    if (name == nullptr) continue;
    const std::string_view call = name.get();
    if (call == kUnfilterable) continue;
    if (std::ranges::find(conditional, call, &Conditional::call) != conditional.end()) continue;
    const bool refused =
        std::ranges::find(kRefused, call) != kRefused.end() ||
        (!changes && std::ranges::find(kChangingModes, call) != kChangingModes.end());
    CheckFilter(seccomp_rule_add(filter.get(), refused ? SCMP_ACT_ERRNO(EPERM) : SCMP_ACT_ALLOW,
                                 number, 0));
  }
  for (const auto& [call, conditions] : conditional) {
    const int number = seccomp_syscall_resolve_name(std::string(call).c_str());
    CheckFilter(seccomp_rule_add_array(filter.get(), SCMP_ACT_ALLOW, number,
                                       static_cast<unsigned>(conditions.size()),
                                       conditions.data()));
  }
  CheckFilter(seccomp_load(filter.get()));
}

}  // namespace

void EnterSandbox(const Sandbox& sandbox, int landlock) {
  CheckForThreads();
  ::tzset();  // the log's times need the time zone, whose file cannot be read later
  Check(::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), "no new privileges");
  KeepCapabilities(NeededCapabilities(sandbox));
  RestrictFiles(sandbox, landlock);
  RestrictSystemCalls(sandbox);
  g_shut_in = true;
}

}  // namespace cpd::host

#ifdef __SANITIZE_ADDRESS__
// AddressSanitizer looks for leaks when a process ends. It does so with ptrace, which the sandbox
// refuses.
extern "C" __attribute__((visibility("default"))) int __lsan_is_turned_off();  // NOLINT
int __lsan_is_turned_off() { return cpd::host::g_shut_in ? 1 : 0; }
#endif
