#pragma once

#include <string>

#include "descriptor.h"

namespace cpd::host {

/// The two ends of a line that this side reads and writes.
struct Line {
  Descriptor in;
  Descriptor out;
  std::string received;  ///< bytes that were read from it already
};

/// Sets lines up, or waits for them.
class LineSource {
 public:
  virtual ~LineSource() = default;

  /// The next line. May take long; Stop ends the wait.
  /// @throws std::runtime_error when there is none, in words for the user
  virtual Line Next() = 0;
  /// Lets go of the line that Next gave, which has ended or did not begin.
  /// @return what is known of why, in words for the user; empty if nothing is
  virtual std::string Finish() = 0;
  /// Makes Next throw, now and from now on. Callable from any thread.
  virtual void Stop() = 0;
};

}  // namespace cpd::host
