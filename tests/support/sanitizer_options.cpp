// Options for a sanitizer, if the tests are built with one: an allocation that fails returns null,
// so that the code under test handles it.
extern "C" const char* __asan_default_options();  // NOLINT(bugprone-reserved-identifier)
extern "C" const char* __tsan_default_options();  // NOLINT(bugprone-reserved-identifier)

const char* __asan_default_options() { return "allocator_may_return_null=1"; }
const char* __tsan_default_options() { return "allocator_may_return_null=1"; }
