#include "line/memory_limit.h"

#include <fcntl.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <system_error>

namespace cpd::host {
namespace {

// The sanitizers reserve a thousand times the memory that a process uses.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsPossible = false;
#else
constexpr bool kIsPossible = true;
#endif

/// Longer blocks go back to the system when they are freed. Without this, malloc would learn from
/// the first listing to keep blocks of that length, and the limit would count them.
constexpr int kLongestKeptBlock = 2 << 20;

[[noreturn]] void Fail() {
  throw std::system_error(errno, std::generic_category(), "cannot limit the memory");
}

/// What RLIMIT_DATA counts, in bytes.
uint64_t Allocated(int counts) {
  std::array<char, 256> text{};
  if (pread(counts, text.data(), text.size() - 1, 0) <= 0) Fail();
  unsigned long pages = 0;
  // size, resident, shared, text, lib, data
  if (std::sscanf(text.data(), "%*u %*u %*u %*u %*u %lu", &pages) != 1) Fail();
  return uint64_t{pages} * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

MemoryLimit::MemoryLimit() : counts_(open("/proc/self/statm", O_RDONLY | O_CLOEXEC)) {
  if (!counts_.ok()) Fail();
}

void MemoryLimit::Set(uint64_t more) {
  if (!kIsPossible || is_set_) return;
  is_set_ = true;
  mallopt(M_MMAP_THRESHOLD, kLongestKeptBlock);
  mallopt(M_TRIM_THRESHOLD, 2 * kLongestKeptBlock);
  rlimit limit{};
  if (getrlimit(RLIMIT_DATA, &limit) != 0) Fail();
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_cur, Allocated(counts_.get()) + more);
  if (setrlimit(RLIMIT_DATA, &limit) != 0) Fail();
}

}  // namespace cpd::host
