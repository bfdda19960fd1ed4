// An optimised build notices what these functions do wrong, and ends the program.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace cpd::test {
namespace {

/// The same number, which the compiler cannot know.
size_t Unknown(size_t number) {
  volatile size_t hidden = number;
  return hidden;
}

void Keep(const volatile void* data) { asm volatile("" : : "r"(data) : "memory"); }

void WritePastABlock() {
  void* const block = std::malloc(Unknown(16));
  Keep(block);
  std::memset(block, 1, Unknown(17));
  Keep(block);
  std::free(block);
}

void ReadPastAVector() {
  const std::vector<char> bytes(Unknown(16));
  Keep(&bytes[Unknown(16)]);
}

[[gnu::noinline]] void WritePastAnArray() {
  volatile char bytes[16];
  for (size_t i = 0; i < Unknown(64); ++i) bytes[i] = 1;
  Keep(bytes);
}

// Only _FORTIFY_SOURCE=3 knows the size of a block whose length is not a constant.
TEST(HardenedBuild, NoticesAWritePastABlockOfAnyLength) {
  EXPECT_DEATH(WritePastABlock(), "buffer overflow detected");
}

TEST(HardenedBuild, NoticesAnIndexPastAVector) {
  EXPECT_DEATH(ReadPastAVector(), "Assertion .* failed");
}

TEST(HardenedBuild, NoticesAWritePastAnArrayOnTheStack) {
  EXPECT_DEATH(WritePastAnArray(), "stack smashing detected");
}

}  // namespace
}  // namespace cpd::test
