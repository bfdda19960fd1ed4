#include "support/failing_calls.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <utility>

namespace cpd::test {
namespace {
constinit thread_local FailingCalls* t_innermost = nullptr;
}  // namespace

FailingCalls::FailingCalls(CallFault fault)
    : fault_(std::move(fault)), outer_(std::exchange(t_innermost, this)) {}

FailingCalls::~FailingCalls() { t_innermost = outer_; }

const CallFault* FailingCalls::Strike(const char* call) {
  for (FailingCalls* one = t_innermost; one != nullptr; one = one->outer_) {
    const CallFault& fault = one->fault_;
    if (fault.call != call || one->seen_++ < fault.after || one->affected_ == fault.times) continue;
    ++one->affected_;
    if (!fault.action) return &fault;
    fault.action();
    return nullptr;
  }
  return nullptr;
}

namespace {

bool Fails(const char* call) {
  const CallFault* const fault = FailingCalls::Strike(call);
  if (fault == nullptr) return false;
  errno = fault->error;
  return true;
}

/// Transfers as many bytes as the fault allows.
template <class Transfer>
ssize_t Transferred(const char* call, size_t count, Transfer transfer) {
  const CallFault* const fault = FailingCalls::Strike(call);
  if (fault == nullptr) return transfer(count);
  if (fault->at_most) return transfer(std::min(count, *fault->at_most));
  errno = fault->error;
  return -1;
}

}  // namespace
}  // namespace cpd::test

// The program's own definitions take precedence over libc's. Each forwards to the next definition,
// which is a sanitizer's, if there is one.

#define NEXT(call) \
  static const auto next = reinterpret_cast<decltype(&(call))>(dlsym(RTLD_NEXT, #call))

/// A call that returns 0 or -1: its name, its parameters, and the arguments that it forwards.
#define FAILING(call, parameters, arguments)              \
  extern "C" int call parameters noexcept {               \
    NEXT(call);                                           \
    return cpd::test::Fails(#call) ? -1 : next arguments; \
  }

FAILING(chmod, (const char* path, mode_t mode), (path, mode))
FAILING(chown, (const char* path, uid_t uid, gid_t gid), (path, uid, gid))
FAILING(fstat, (int fd, struct stat* out), (fd, out))
FAILING(link, (const char* from, const char* to), (from, to))
FAILING(lstat, (const char* path, struct stat* out), (path, out))
FAILING(mkdir, (const char* path, mode_t mode), (path, mode))
FAILING(rename, (const char* from, const char* to), (from, to))
FAILING(rmdir, (const char* path), (path))
FAILING(stat, (const char* path, struct stat* out), (path, out))
FAILING(statfs, (const char* path, struct statfs* out), (path, out))
FAILING(statvfs, (const char* path, struct statvfs* out), (path, out))
FAILING(truncate, (const char* path, off_t length), (path, length))
FAILING(unlink, (const char* path), (path))

// This program has file offsets of 64 bits, so its own calls go to open64. Libraries call open:
// libstdc++ does for its source of random numbers.
#define FAILING_OPEN(function, name)                                                          \
  extern "C" __attribute__((visibility("default"))) int function(const char* path, int flags, \
                                                                 ...) __asm__(name);          \
  int function(const char* path, int flags, ...) {                                            \
    static const auto next = reinterpret_cast<decltype(&function)>(dlsym(RTLD_NEXT, name));   \
    va_list more;                                                                             \
    va_start(more, flags);                                                                    \
    const bool has_mode = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;         \
    const mode_t mode = has_mode ? va_arg(more, mode_t) : 0;                                  \
    va_end(more);                                                                             \
    return cpd::test::Fails("open") ? -1 : next(path, flags, mode);                           \
  }

FAILING_OPEN(OwnOpen, "open64")
FAILING_OPEN(OpenOfLibraries, "open")
// A fortified call without a mode, whose flags are no constant.
FAILING_OPEN(CheckedOpen, "__open64_2")

// For the calls that have no function in libc; a fault can strike only openat2. Like libc's, this
// always reads the greatest number of arguments.
extern "C" __attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept {
  NEXT(syscall);
  va_list more;
  va_start(more, number);
  long arguments[6];
  for (long& argument : arguments) argument = va_arg(more, long);
  va_end(more);
  if (number == SYS_openat2 && cpd::test::Fails("openat2")) return -1;
  return next(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4],
              arguments[5]);
}

extern "C" int close(int fd) {
  NEXT(close);
  const int result = next(fd);  // a close that fails closes the descriptor nevertheless
  return cpd::test::Fails("close") ? -1 : result;
}

extern "C" ssize_t pread(int fd, void* data, size_t count, off_t offset) {
  NEXT(pread);
  return cpd::test::Transferred("pread", count,
                                [&](size_t most) { return next(fd, data, most, offset); });
}

// A fortified call that knows how long the buffer is.
extern "C" ssize_t CheckedPread(int fd, void* data, size_t count, off_t offset,
                                size_t room) __asm__("__pread64_chk");
ssize_t CheckedPread(int fd, void* data, size_t count, off_t offset, size_t /*room*/) {
  return pread(fd, data, count, offset);
}

extern "C" ssize_t pwrite(int fd, const void* data, size_t count, off_t offset) {
  NEXT(pwrite);
  return cpd::test::Transferred("pwrite", count,
                                [&](size_t most) { return next(fd, data, most, offset); });
}

extern "C" ssize_t getxattr(const char* path, const char* name, void* value, size_t size) noexcept {
  NEXT(getxattr);
  return cpd::test::Fails("getxattr") ? -1 : next(path, name, value, size);
}

extern "C" ssize_t lgetxattr(const char* path, const char* name, void* value,
                             size_t size) noexcept {
  NEXT(lgetxattr);
  return cpd::test::Fails("lgetxattr") ? -1 : next(path, name, value, size);
}

extern "C" int fsync(int fd) {
  NEXT(fsync);
  return cpd::test::Fails("fsync") ? -1 : next(fd);
}

extern "C" DIR* opendir(const char* path) {
  NEXT(opendir);
  return cpd::test::Fails("opendir") ? nullptr : next(path);
}

extern "C" dirent* readdir(DIR* dir) {
  NEXT(readdir);
  const cpd::test::CallFault* const fault = cpd::test::FailingCalls::Strike("readdir");
  if (fault == nullptr) return next(dir);
  static thread_local dirent again = {};
  std::memset(again.d_name, 'x', sizeof again.d_name - 1);
  errno = fault->error;
  return fault->error == 0 ? &again : nullptr;
}
