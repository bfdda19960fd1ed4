// Counts the test program's allocations, and makes one of them fail on request.
#pragma once

#include <cstddef>

namespace cpd::test {

/// While an instance exists, counts what the thread that made it allocates and frees. One at a
/// time.
class Allocations {
 public:
  Allocations();
  ~Allocations();
  Allocations(const Allocations&) = delete;
  Allocations& operator=(const Allocations&) = delete;

  /// Makes one allocation of this thread fail: the one after the next `more`.
  void RefuseOneAfter(int more);
  /// Lets all allocations succeed again. @return whether one has failed
  bool StopRefusing();

  /// The number of allocations so far, the failed one included.
  [[nodiscard]] int Count() const;
  /// The size of the largest block requested so far.
  [[nodiscard]] size_t Largest() const;
  /// The number of blocks that are allocated and not freed.
  [[nodiscard]] int Live() const;
};

}  // namespace cpd::test
