// What a target does when the code under test breaks a promise.
#pragma once

#include <string>

namespace cpd::fuzz {

/// Ends the process; the fuzzer keeps the input.
[[noreturn]] void Finding(const std::string& what);

inline void Expect(bool holds, const char* what) {
  if (!holds) Finding(what);
}

}  // namespace cpd::fuzz
