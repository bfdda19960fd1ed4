#pragma once

#include <pthread.h>

#include <csignal>

namespace cpd::host {

/// While it lives, no signal arrives on this thread, nor ever on a thread that is started
/// meanwhile. A line is set up while the stop signals may end the process at once; later they must
/// reach the thread that waits for them, and no other.
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
