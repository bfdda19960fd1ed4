#include "support/no_more_commands.h"

#include <dlfcn.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace {
constinit std::atomic<bool> g_refuse = false;
}  // namespace

cpd::test::NoMoreCommands::NoMoreCommands() { g_refuse = true; }
cpd::test::NoMoreCommands::~NoMoreCommands() { g_refuse = false; }

// The next definition, which is a sanitizer's, if there is one.

extern "C" int system(const char* command) {
  static const auto next = reinterpret_cast<decltype(&system)>(dlsym(RTLD_NEXT, "system"));
  if (!g_refuse) return next(command);
  errno = EAGAIN;
  return -1;
}

extern "C" FILE* popen(const char* command, const char* mode) {
  static const auto next = reinterpret_cast<decltype(&popen)>(dlsym(RTLD_NEXT, "popen"));
  if (!g_refuse) return next(command, mode);
  errno = EAGAIN;
  return nullptr;
}
