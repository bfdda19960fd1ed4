// How much work an input caused, in a measure that is the same on every machine.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cpd::fuzz {

/// The steps of this process so far: the calls of functions of the driver and the packet class,
/// inlined ones included, plus the bytes that were logged.
uint64_t StepsSoFar();

/// Fails when more steps were made since `begin` than a linear algorithm needs.
/// @param bytes  total size of the requests, and of those that filled the disk before
void ExpectLinear(uint64_t begin, size_t bytes);

}  // namespace cpd::fuzz
