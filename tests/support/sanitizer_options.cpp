// Read by the sanitizers, where the tests are built with one: an allocation that fails is for the
// code under test to deal with.
extern "C" const char* __asan_default_options();  // NOLINT(bugprone-reserved-identifier)
extern "C" const char* __tsan_default_options();  // NOLINT(bugprone-reserved-identifier)

const char* __asan_default_options() { return "allocator_may_return_null=1"; }
const char* __tsan_default_options() { return "allocator_may_return_null=1"; }
