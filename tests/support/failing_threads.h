// Makes a thread of the test program fail to start.
#pragma once

namespace cpd::test {

/// While an instance exists, the thread after the next `before` fails to start, for lack of
/// resources. At most one at a time.
class FailingThread {
 public:
  explicit FailingThread(int before);
  ~FailingThread();
  FailingThread(const FailingThread&) = delete;
  FailingThread& operator=(const FailingThread&) = delete;
};

}  // namespace cpd::test
