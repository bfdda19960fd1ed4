#pragma once

#include <pthread.h>

#include <csignal>

namespace cpd::host {

/// While it lives, no signal arrives on this thread, nor ever on a thread that is started
/// meanwhile. While a line is set up, the stop signals are let through, to end the process at once.
/// A thread that is started then must not inherit that: later, only the thread that waits for these
/// signals may get them.
class SignalsBlocked {
 public:
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t before_{};
};

}  // namespace cpd::host
