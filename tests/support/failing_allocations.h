// Allocations of the test program: counted, and one of them refused on request.
#pragma once

#include <cstddef>

namespace cpd::test {

/// Counts what the calling thread allocates and frees while it exists. One at a time.
class Allocations {
 public:
  Allocations();
  ~Allocations();
  Allocations(const Allocations&) = delete;
  Allocations& operator=(const Allocations&) = delete;

  /// From now on one allocation of this thread is refused, after `more` that are not.
  void RefuseOneAfter(int more);
  /// Whether it was. Nothing is refused from now on.
  bool StopRefusing();

  /// Allocations asked for so far.
  [[nodiscard]] int Count() const;
  /// The size of the largest block asked for so far.
  [[nodiscard]] size_t Largest() const;
  /// Blocks allocated less blocks freed.
  [[nodiscard]] int Live() const;
};

}  // namespace cpd::test
