// The largest size that the test program's address space has had.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <string>

namespace cpd::test {

/// The largest size that this process's address space has had, in bytes.
inline uint64_t PeakMemory() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.starts_with("VmPeak:")) return std::stoull(line.substr(7)) * 1024;
  }
  ADD_FAILURE() << "no VmPeak in /proc/self/status";
  return 0;
}

}  // namespace cpd::test
