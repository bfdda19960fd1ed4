// Blocks, on the module's threads, the signals by which a failed write to a disk or a log would end
// the process.
#pragma once

#include <csignal>

namespace cpd {

/// On the calling thread, makes two kinds of writes fail with an errno instead of a signal: those
/// past the process's limit on file sizes (SIGXFSZ), and those to a pipe that nobody reads, which
/// standard output may be (SIGPIPE).
inline void BlockSignalsOfWrites() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGXFSZ);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace cpd
