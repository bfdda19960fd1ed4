// Changes a directory between the two passes of UdiskReadDir.
#pragma once

#include <functional>

namespace cpd::test {

/// While an instance exists, rewinddir first runs an action. At most one at a time.
class BetweenPasses {
 public:
  explicit BetweenPasses(std::function<void()> action);
  ~BetweenPasses();
  BetweenPasses(const BetweenPasses&) = delete;
  BetweenPasses& operator=(const BetweenPasses&) = delete;
};

}  // namespace cpd::test
