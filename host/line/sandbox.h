// Shuts a process in before it listens to another machine.
#pragma once

#include <string>
#include <vector>

namespace cpd::host {

/// What a process may still do in the sandbox. Descriptors that it has open stay usable.
struct Sandbox {
  /// The only directory whose files it may open. Empty = none.
  std::string disk = {};
  /// The files of the disk may be read and nothing more. A sync of a file opens it for writing, and
  /// thus fails.
  bool read_only = false;
  /// Directories for files of its own, such as locks.
  std::vector<std::string> writable = {};
  /// The inotify instance to which it may add watches for changes in directories: in any that its
  /// user may read, because nothing restricts that. Negative = none.
  int inotify = -1;
  /// It may send SIGTERM to other processes of its user, by pidfd_send_signal. Otherwise it can
  /// send signals only to itself.
  bool ends_processes = false;
};

/// The newest version of Landlock whose restrictions EnterSandbox knows.
inline constexpr int kNewestLandlock = 6;

/// Shuts the process in until it ends. It can then open nothing but what the sandbox leaves, start
/// threads but no processes, make no sockets, and call nothing that administers the machine. As
/// root it keeps only the capabilities that access to the disk's files takes.
///
/// Prints a line to standard error if the kernel has no Landlock, or one so old that files of the
/// disk cannot be moved to another directory. The rest of the sandbox holds nevertheless.
///
/// What is needed from other places must be loaded before: modules, the log file, sockets that
/// listen. If the disk is unmounted and mounted again, it cannot be reached any more.
///
/// Must be called while the process has a single thread, because Landlock and capabilities belong
/// to the thread that calls, and to those that it starts later.
/// @param landlock  use no newer version of Landlock than this; tests use it to imitate older
///                  kernels
/// @throws std::system_error  when a part of the sandbox cannot be set up; others may hold already,
///                            so all that the process can do is end
void EnterSandbox(const Sandbox& sandbox, int landlock = kNewestLandlock);

}  // namespace cpd::host
