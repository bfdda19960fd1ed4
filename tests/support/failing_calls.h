// System calls of the test program that fail, or move less than they were asked to, on request.
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
  std::optional<size_t> at_most = {};  ///< pread and pwrite: does not fail, moves so many bytes
  int after = 0;                       ///< so many calls go through before
  int times = INT_MAX;                 ///< so many calls are affected
  std::function<void()> action = {};   ///< where there is one, it runs and the call goes through
};

/// While one exists, what its fault names happens to calls of the thread that made it. Several may
/// exist at once; they end in the opposite order of their making.
class FailingCalls {
 public:
  explicit FailingCalls(CallFault fault);
  ~FailingCalls();
  FailingCalls(const FailingCalls&) = delete;
  FailingCalls& operator=(const FailingCalls&) = delete;

  /// How many calls were affected.
  [[nodiscard]] int Affected() const { return affected_; }

  /// For the calls: the fault that strikes this one, or null.
  static const CallFault* Strike(const char* call);

 private:
  const CallFault fault_;
  int affected_ = 0;
  int seen_ = 0;
  FailingCalls* const outer_;
};

}  // namespace cpd::test
