#include "support/failing_threads.h"

#include <dlfcn.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

namespace {
/// Threads until the one that fails; negative = none fails.
constinit std::atomic<int> g_before = -1;
}  // namespace

cpd::test::FailingThread::FailingThread(int before) { g_before = before; }
cpd::test::FailingThread::~FailingThread() { g_before = -1; }

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                              void* (*body)(void*), void* argument) noexcept {
  // The next definition, which is a sanitizer's, if there is one.
  static const auto next =
      reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
  if (g_before >= 0 && g_before-- == 0) return EAGAIN;
  return next(thread, attributes, body, argument);
}
