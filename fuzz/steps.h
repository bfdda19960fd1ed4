// How much work an input made, in a measure that is the same on every machine.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cpd::fuzz {

/// The steps of this process so far: functions of driver and packet class that were called, inlined
/// ones included, and bytes that were logged.
uint64_t StepsSoFar();

/// Fails when more steps were made since `begin` than a linear algorithm needs.
/// @param bytes  of the requests, and of those that filled the disk
void ExpectLinear(uint64_t begin, size_t bytes);

}  // namespace cpd::fuzz
