// Makes system calls of the test program fail, or transfer less than requested.
#pragma once

#include <climits>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

namespace cpd::test {

/// What happens to a call.
struct CallFault {
  std::string call;                    ///< a name that failing_calls.cpp defines
  int error = 0;                       ///< the errno that it fails with; 0 = readdir has no end
  std::optional<size_t> at_most = {};  ///< pread, pwrite: transfers this many bytes, and no error
  int after = 0;                       ///< how many calls pass before the first affected one
  int times = INT_MAX;                 ///< how many calls are affected
  std::function<void()> action = {};   ///< if set, it runs, and the call is then made as usual
};

/// While an instance exists, its fault strikes calls of the thread that made it. Several may
/// exist at once; they must be destroyed in the reverse order.
class FailingCalls {
 public:
  explicit FailingCalls(CallFault fault);
  ~FailingCalls();
  FailingCalls(const FailingCalls&) = delete;
  FailingCalls& operator=(const FailingCalls&) = delete;

  /// How many calls were affected.
  [[nodiscard]] int Affected() const { return affected_; }

  /// Used by the replaced calls. @return the fault that strikes this call, or null
  static const CallFault* Strike(const char* call);

 private:
  const CallFault fault_;
  int affected_ = 0;
  int seen_ = 0;
  FailingCalls* const outer_;
};

}  // namespace cpd::test
