#include "support/compared_runs.h"

#include <cstddef>

namespace {
constinit thread_local uint64_t t_compared = 0;
}

uint64_t cpd::test::ComparedRuns() { return t_compared; }

// The linker replaces calls of memcmp by __wrap_memcmp; __real_memcmp is libc's.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {
int __real_memcmp(const void* one, const void* other, size_t size);
int __wrap_memcmp(const void* one, const void* other, size_t size) {
  ++t_compared;
  return __real_memcmp(one, other, size);
}
}
// NOLINTEND(bugprone-reserved-identifier)
