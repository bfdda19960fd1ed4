// Threads of the test program that fail to start, on request.
#pragma once

namespace cpd::test {

/// While one exists, one thread that is started, after `before` that are not affected, is refused
/// for lack of resources. At most one at a time.
class FailingThread {
 public:
  explicit FailingThread(int before);
  ~FailingThread();
  FailingThread(const FailingThread&) = delete;
  FailingThread& operator=(const FailingThread&) = delete;
};

}  // namespace cpd::test
