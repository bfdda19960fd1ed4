// A fuzz target: one function. libFuzzer calls it with the inputs that it makes, and the replay
// calls it with those of the corpus.
#pragma once

#include <cstddef>
#include <cstdint>

#include "input.h"

namespace cpd::fuzz {

/// Each target defines it; it is called in the jail. Reports an error through Finding.
void Run(Input input);

}  // namespace cpd::fuzz

// Called by libFuzzer.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
