#include "support/failing_allocations.h"

#include <malloc.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <new>
#include <utility>

namespace {

constinit thread_local bool t_counting = false;
constinit thread_local int t_count = 0;
constinit thread_local size_t t_largest = 0;
constinit thread_local int t_live = 0;
constinit thread_local int t_more = -1;  ///< allocations left before one fails; negative = none

bool Refused(size_t size) {
  if (!t_counting) return false;
  ++t_count;
  t_largest = std::max(t_largest, size);
  if (t_more < 0 || t_more-- > 0) return false;
  errno = ENOMEM;
  return true;
}

void* Made(void* block) {
  if (t_counting && block != nullptr) ++t_live;
  return block;
}

}  // namespace

namespace cpd::test {

Allocations::Allocations() {
  t_count = t_live = 0;
  t_largest = 0;
  t_more = -1;
  t_counting = true;
}
Allocations::~Allocations() { t_counting = false; }

void Allocations::RefuseOneAfter(int more) { t_more = more; }
bool Allocations::StopRefusing() { return std::exchange(t_more, -1) < 0; }
int Allocations::Count() const { return t_count; }
size_t Allocations::Largest() const { return t_largest; }
int Allocations::Live() const { return t_live; }

}  // namespace cpd::test

// The linker replaces the calls of the program's own code by these. Calls from shared libraries do
// not pass through here, except those of operator new.

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real_realloc(void* block, size_t size);
char* __real_strdup(const char* text);
void* __real_g_try_malloc0(size_t size);
void __real_free(void* block);

void* __wrap_malloc(size_t size) { return Refused(size) ? nullptr : Made(__real_malloc(size)); }
void* __wrap_calloc(size_t count, size_t size) {
  return Refused(count * size) ? nullptr : Made(__real_calloc(count, size));
}
void* __wrap_realloc(void* block, size_t size) {
  if (Refused(size)) return nullptr;
  if (!t_counting) return __real_realloc(block, size);
  if (block == nullptr) return Made(__real_malloc(size));
  // Always moves the block, as realloc may, so that a pointer into the old one shows.
  void* const moved = __real_malloc(size);
  std::memcpy(moved, block, std::min(size, malloc_usable_size(block)));
  __real_free(block);
  return moved;
}
char* __wrap_strdup(const char* text) {
  return Refused(std::strlen(text) + 1) ? nullptr : static_cast<char*>(Made(__real_strdup(text)));
}
void* __wrap_g_try_malloc0(size_t size) {
  return Refused(size) ? nullptr : Made(__real_g_try_malloc0(size));
}
void __wrap_free(void* block) {
  if (t_counting && block != nullptr) --t_live;
  __real_free(block);
}
// NOLINTEND(bugprone-reserved-identifier)

}  // extern "C"

void* operator new(size_t size) {
  void* const block = __wrap_malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}
void* operator new(size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return __wrap_malloc(size);
}
void operator delete(void* block) noexcept { __wrap_free(block); }
void operator delete(void* block, size_t /*size*/) noexcept { __wrap_free(block); }
