#include "target.h"

#include <cstdio>
#include <cstdlib>

#include "jail.h"

namespace {
constexpr int kSkipped = 77;
}

// Makes the jail before libFuzzer starts threads: an unprivileged process can make one only while
// it has a single thread.
int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  try {
    cpd::fuzz::RunInJail([] {});
  } catch (const cpd::fuzz::NoJail& error) {
    std::printf("%s:%d: Skipped\nno jail on this machine: %s\n", __FILE__, __LINE__, error.what());
    std::exit(kSkipped);
  }
  return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  cpd::fuzz::RunInJail([=] { cpd::fuzz::Run(cpd::fuzz::Input(data, size)); });
  return 0;
}
