// A process beside this one that starts the line's command, and cleans up if this one is killed.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "descriptor.h"
#include "line/passed_message.h"

namespace cpd::host {

/// A command that was started. Not for several threads at once.
class StartedLine {
 public:
  StartedLine(uint32_t id, Descriptor output, Descriptor input, Descriptor ended)
      : in(std::move(output)), out(std::move(input)), id_(id), ended_(std::move(ended)) {}

  Descriptor in;   ///< reads the command's standard output; blocking
  Descriptor out;  ///< writes to its standard input; blocking

  /// How the command ended: its exit status, or 128 plus the number of the signal that ended it.
  /// @return nothing when it still runs after `limit`
  std::optional<int> Ended(std::chrono::milliseconds limit);

 private:
  friend class Starter;
  uint32_t id_;
  Descriptor ended_;  // carries the status
  std::optional<int> status_;
};

/// Owns the process "cpd-starter". A process in its sandbox can start no program; this one is
/// forked before the sandbox and can. It runs a single command, which is fixed when it is forked: a
/// process that was taken over in its sandbox cannot make it run another. Its own parent, of the
/// same name, replaces it when it is killed, and a few times when it fails, and says how it ended.
///
/// After the construction no call here needs a new socket, process or program; sendmsg, recvmsg,
/// poll, read, close, pidfd_open and wait4 suffice.
class Starter {
 public:
  /// The longest text of SayOnDeath, in bytes. It fits a stream that nobody reads yet.
  static constexpr size_t kLongestLastWords = 4096;

  /// Forks. Call it before any other thread exists, so that the new process inherits no lock that
  /// another thread holds.
  /// @param command  the line, for /bin/sh -c
  /// @param mount_point  absolute path, for Unmount and UnmountOnDeath; empty if neither is called
  /// @param answer_limit  how long a call waits for the process, which may be killed or stopped
  ///                      meanwhile. Start and Unmount ask it twice. The messages of the other
  ///                      calls are lost if the process takes none for that long
  /// @throws std::system_error when there is no further process or descriptor
  Starter(const std::string& command, const std::string& mount_point,
          std::chrono::milliseconds answer_limit = std::chrono::seconds(5));
  /// Releases, unless ActAtEnd was called. Ends the commands that still run, and waits for the
  /// process: up to a second if a command ignores SIGTERM, and for what ActAtEnd lets happen. A
  /// process that does not end in time, because it is stuck, is left to end by itself.
  ~Starter();
  Starter(const Starter&) = delete;
  Starter& operator=(const Starter&) = delete;

  /// Starts the command once more. Standard error is this process's. Callable from any thread.
  /// @throws std::runtime_error when it cannot be started
  StartedLine Start();

  /// Asks the command to end (SIGTERM), and kills it after a second. That holds for the processes
  /// that it has started as well, except those that have detached themselves. Returns at once; the
  /// line's Ended waits. Callable from any thread.
  void End(const StartedLine& line);

  /// Unmounts the mount point, on behalf of a process that may not. Waits for it. Callable from any
  /// thread.
  void Unmount();

  // ---- What happens if this process ends without having called Release ----
  // Callable from any thread. A running command is ended in any case.

  /// Lets the mount point be unmounted.
  void UnmountOnDeath();
  /// Lets the command be started once more, be sent this text, and be waited for, 10 s at most.
  /// @param text  up to kLongestLastWords bytes; replaces the one before
  void SayOnDeath(std::string_view text);
  /// Takes both back.
  void Release();
  /// Lets both happen when this is destroyed. The destructor waits for them.
  void ActAtEnd() { acts_at_end_ = true; }

 private:
  std::optional<PassedMessage> Ask(std::string_view request, uint32_t id,
                                   std::chrono::milliseconds limit, int* error);

  const std::chrono::milliseconds answer_limit_;
  pid_t process_ = -1;
  bool acts_at_end_ = false;
  Descriptor socket_;
  std::mutex starting_;    // held while a request waits for its answer
  bool is_stuck_ = false;  // the last request got no answer in time
  uint32_t last_id_ = 0;
};

}  // namespace cpd::host
