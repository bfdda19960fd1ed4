// Counts the comparisons of texts: a measure of work that no busy machine changes.
#pragma once

#include <cstdint>

namespace cpd::test {

/// How often this thread has called memcmp. Needs a program linked with --wrap=memcmp.
uint64_t ComparedRuns();

}  // namespace cpd::test
