// Writes the packets of a session to a file that Wireshark opens.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "capture/pcapng.h"
#include "cpd/packet.h"
#include "options.h"

namespace cpd::host {

/// Whoever notes a packet never waits for the file: a thread writes it. If the file is slower than
/// the packets, some are left out, and the next one that is written says how many. If it cannot be
/// written any more, the log says why, and nothing more is recorded.
class Recording {
 public:
  /// Enough for what a fast disk delivers while a busy machine keeps the writer waiting.
  static constexpr size_t kMostWaiting = 64 << 20;

  /// Opens the file, without starting a thread. It is appended to, as a section of its own, since
  /// several processes may use it one after the other.
  /// @param options  the file (empty = nothing is recorded), how much of each packet's data is
  ///                 kept, and what the section says of the disk
  /// @param most_waiting  how many bytes wait for the file at most, apart from one longer packet
  /// @throws std::runtime_error when the file cannot be opened, or holds something else
  explicit Recording(const DiskOptions& options, size_t most_waiting = kMostWaiting);
  /// Writes what is left.
  ~Recording();
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;

  /// Starts to write what has been noted, on a thread where all signals are blocked. To be called
  /// in the sandbox, if there is one; further calls do nothing. If this is never called, only
  /// the destructor writes.
  void Start();
  /// Callable from any thread.
  void Note(const CpdPacket& packet, Way way);

  /// How much memory this takes at most, in bytes; 0 when nothing is recorded.
  [[nodiscard]] uint64_t memory() const;

 private:
  using Clock = std::chrono::steady_clock;
  using Blocks = std::vector<std::string>;

  void AddLocked(const CpdPacket& packet, Way way);
  void Run();
  void Begin();
  void Write(const Blocks& blocks);
  void GiveUp(int error);

  const std::string path_;
  const std::string section_;  // what begins it
  const std::optional<uint32_t> data_bytes_;
  const size_t most_waiting_;
  const uint64_t began_;  // in nanoseconds since 1970
  // What follows is steady, so that the capture's times go on if the system's clock is set.
  const Clock::time_point steady_began_ = Clock::now();
  std::unique_ptr<FILE, int (*)(FILE*)> file_;  // null if nothing is recorded
  bool has_begun_ = false;                      // used by whoever writes
  int64_t whole_ = 0;                           // likewise; file size up to which blocks are whole

  std::mutex mutex_;
  std::condition_variable changed_;
  Blocks blocks_;             // guarded by mutex_, like all that follows; not yet taken
  size_t waiting_ = 0;        // bytes of them, and of those that are being written
  uint64_t missing_ = 0;      // packets that were left out since the last one
  uint64_t missing_all_ = 0;  // and since the beginning
  bool is_over_ = false;
  bool is_ending_ = false;
  std::thread writer_;
};

}  // namespace cpd::host
