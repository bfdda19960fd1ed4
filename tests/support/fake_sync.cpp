#include "support/fake_sync.h"

#include <unistd.h>

#include <atomic>

namespace {
constinit std::atomic<int> g_sync_calls = 0;
}

int cpd::test::SyncCalls() { return g_sync_calls; }

extern "C" void sync() noexcept { ++g_sync_calls; }
