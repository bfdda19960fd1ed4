#pragma once

#include <utility>

namespace cpd::host {

/// Runs an action at the end of a scope, whether or not an exception ends it.
template <class Action>
class AtEnd {
 public:
  explicit AtEnd(Action action) : action_(std::move(action)) {}
  ~AtEnd() { action_(); }
  AtEnd(const AtEnd&) = delete;
  AtEnd& operator=(const AtEnd&) = delete;

 private:
  const Action action_;
};

}  // namespace cpd::host
