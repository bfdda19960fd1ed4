#include "steps.h"

#include <linux/limits.h>

#include <atomic>
#include <memory>
#include <string>

#include "finding.h"
#include "support/fake_host.h"

namespace {
constinit std::atomic<uint64_t> g_calls = 0;
}  // namespace

// Counting calls makes clang take the addresses of this class's functions. The library has them
// only inlined, so they are instantiated here.
template class std::allocator<char>;

// Called where a function begins, by code that is compiled with -finstrument-functions.
extern "C" {
void __cyg_profile_func_enter(void* function,
                              void* caller);                 // NOLINT(bugprone-reserved-identifier)
void __cyg_profile_func_exit(void* function, void* caller);  // NOLINT(bugprone-reserved-identifier)

void __cyg_profile_func_enter(void* /*function*/, void* /*caller*/) {
  g_calls.fetch_add(1, std::memory_order_relaxed);
}
void __cyg_profile_func_exit(void* /*function*/, void* /*caller*/) {}
}

namespace cpd::fuzz {

uint64_t StepsSoFar() { return g_calls + test::Log().BytesEver(); }

void ExpectLinear(uint64_t begin, size_t bytes) {
  // What a request of any size may cost, such as a long sleep in pieces.
  constexpr uint64_t kBase = 1 << 20;
  // A path is cut at PATH_MAX, and each of its components may log everything before it.
  constexpr uint64_t kPerByte = 2 * PATH_MAX;
  const uint64_t steps = StepsSoFar() - begin;
  if (steps > kBase + kPerByte * bytes) {
    Finding(std::to_string(steps) + " steps for " + std::to_string(bytes) + " bytes");
  }
}

}  // namespace cpd::fuzz
