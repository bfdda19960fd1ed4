// Counts comparisons of texts: a measure of work that does not depend on the machine's load.
#pragma once

#include <cstdint>

namespace cpd::test {

/// How often this thread has called memcmp. Needs a program linked with --wrap=memcmp.
uint64_t ComparedRuns();

}  // namespace cpd::test
