#include "support/between_passes.h"

#include <dirent.h>
#include <dlfcn.h>

#include <utility>

namespace {

std::function<void()> g_action;

}  // namespace

extern "C" void rewinddir(DIR* directory) noexcept {
  static const auto real = reinterpret_cast<void (*)(DIR*)>(dlsym(RTLD_NEXT, "rewinddir"));
  if (g_action) g_action();
  real(directory);
}

namespace cpd::test {

BetweenPasses::BetweenPasses(std::function<void()> action) { g_action = std::move(action); }
BetweenPasses::~BetweenPasses() { g_action = nullptr; }

}  // namespace cpd::test
