#pragma once

#include <pthread.h>
#include <sys/signalfd.h>

#include <csignal>

#include "descriptor.h"

namespace cpd::host {

/// Blocks SIGINT, SIGTERM and SIGHUP in this thread and all that it starts, so that each command
/// lets them in at a time of its own choice. Ignores SIGPIPE: a closed pipe must not end a command.
class StopSignals {
 public:
  StopSignals() {
    (void)std::signal(SIGPIPE, SIG_IGN);
    // A shell starts a script's background jobs with SIGINT ignored, but Ctrl-C on the script must
    // end the mount, too.
    (void)std::signal(SIGINT, SIG_DFL);
    sigemptyset(&set_);
    for (const int stop : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&set_, stop);
    pthread_sigmask(SIG_BLOCK, &set_, nullptr);
  }

  [[nodiscard]] const sigset_t& set() const { return set_; }
  /// Readable when one of the signals is pending.
  [[nodiscard]] Descriptor MakeDescriptor() const {
    return Descriptor(signalfd(-1, &set_, SFD_CLOEXEC | SFD_NONBLOCK));
  }

 private:
  sigset_t set_{};
};

/// While it lives, the stop signals end the process at once.
class MortalWhile {
 public:
  explicit MortalWhile(const StopSignals& signals) : signals_(signals) {
    pthread_sigmask(SIG_UNBLOCK, &signals_.set(), nullptr);
  }
  ~MortalWhile() { pthread_sigmask(SIG_BLOCK, &signals_.set(), nullptr); }
  MortalWhile(const MortalWhile&) = delete;
  MortalWhile& operator=(const MortalWhile&) = delete;

 private:
  const StopSignals& signals_;
};

}  // namespace cpd::host
