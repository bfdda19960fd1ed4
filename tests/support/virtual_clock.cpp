#include "support/virtual_clock.h"

#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace cpd::test {
namespace {

// Constant-initialised: the clock may be read before main.
constinit std::atomic<bool> g_virtual = false;
constinit std::atomic<int64_t> g_now_us = 0;
constinit std::atomic<int64_t> g_tick_us = 0;
constinit std::atomic<int64_t> g_oversleep_us = 0;
constinit std::atomic<int> g_readings = 0;
constinit std::mutex g_mutex;
constinit std::vector<int64_t> g_sleeps_us;  // guarded by g_mutex
std::function<void()> g_on_sleep;            // guarded by g_mutex
std::function<void()> g_on_reading;          // guarded by g_mutex

}  // namespace

VirtualClock::VirtualClock(int64_t now_ms) {
  Set(now_ms);
  g_tick_us = 0;
  g_oversleep_us = 0;
  g_readings = 0;
  {
    const std::lock_guard lock(g_mutex);
    g_sleeps_us.clear();
    g_on_sleep = nullptr;
    g_on_reading = nullptr;
  }
  if (g_virtual.exchange(true)) throw std::logic_error("a virtual clock exists already");
}

VirtualClock::~VirtualClock() { g_virtual = false; }

void VirtualClock::Set(int64_t now_ms) { g_now_us = now_ms * 1000; }

void VirtualClock::Advance(int64_t ms) { g_now_us += ms * 1000; }

int64_t VirtualClock::NowMs() const { return g_now_us / 1000; }

void VirtualClock::TickPerReading(int64_t ms) { g_tick_us = ms * 1000; }

void VirtualClock::OversleepBy(int64_t ms) { g_oversleep_us = ms * 1000; }

void VirtualClock::OnSleep(std::function<void()> action) {
  const std::lock_guard lock(g_mutex);
  g_on_sleep = std::move(action);
}

void VirtualClock::OnReading(std::function<void()> action) {
  const std::lock_guard lock(g_mutex);
  g_on_reading = std::move(action);
}

std::vector<int64_t> VirtualClock::TakeSleepsMs() {
  const std::lock_guard lock(g_mutex);
  std::vector<int64_t> sleeps = std::exchange(g_sleeps_us, {});
  for (int64_t& sleep : sleeps) {
    if (sleep % 1000 != 0) throw std::runtime_error("a sleep of odd microseconds");
    sleep /= 1000;
  }
  return sleeps;
}

int VirtualClock::Readings() const { return g_readings; }

}  // namespace cpd::test

// The program's own definitions take precedence over those of libc and of the sanitizers.

extern "C" int gettimeofday(struct timeval* tv, void* /*tz*/) noexcept {
  using namespace cpd::test;
  if (g_virtual) {
    ++g_readings;
    const int64_t now = g_now_us.fetch_add(g_tick_us);
    *tv = {.tv_sec = now / 1'000'000, .tv_usec = now % 1'000'000};
    const auto on_reading = [] {
      const std::lock_guard lock(g_mutex);
      return g_on_reading;
    }();
    if (on_reading) on_reading();
    return 0;
  }
  timespec now = {};
  if (clock_gettime(CLOCK_REALTIME, &now) != 0) return -1;
  *tv = {.tv_sec = now.tv_sec, .tv_usec = now.tv_nsec / 1000};
  return 0;
}

extern "C" int usleep(useconds_t microseconds) {
  using namespace cpd::test;
  if (g_virtual) {
    std::function<void()> on_sleep;
    {
      const std::lock_guard lock(g_mutex);
      g_sleeps_us.push_back(microseconds);
      g_now_us += microseconds + g_oversleep_us;
      on_sleep = g_on_sleep;
    }
    if (on_sleep) on_sleep();
    return 0;
  }
  const timespec span = {.tv_sec = microseconds / 1'000'000,
                         .tv_nsec = static_cast<long>(microseconds % 1'000'000) * 1000};
  return nanosleep(&span, nullptr);
}
