// Signals that would end the process on account of a disk or a log, blocked on the module's
// threads.
#pragma once

#include <csignal>

namespace cpd {

/// Makes two things errors of the call, on the calling thread: a write past the process's limit of
/// file sizes (SIGXFSZ), and one to a pipe that nobody reads, such as standard output (SIGPIPE).
inline void BlockSignalsOfWrites() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGXFSZ);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace cpd
