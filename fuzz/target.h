// A fuzz target: one function, which libFuzzer feeds with inputs of its own making and the replay
// with those of the corpus.
#pragma once

#include <cstddef>
#include <cstdint>

#include "input.h"

namespace cpd::fuzz {

/// Each target's own; called in the jail. Reports what is wrong by Finding.
void Run(Input input);

}  // namespace cpd::fuzz

// What libFuzzer calls.
extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
