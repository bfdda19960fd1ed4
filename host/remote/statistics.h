// What a session counts: requests by command, and how often a mount got by without one.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <utility>

namespace cpd::host {

/// A histogram of durations. A bucket is at most a sixteenth of its value wide, so that memory
/// stays constant and a quantile is nearly exact.
class Durations {
 public:
  void Add(std::chrono::nanoseconds duration);
  /// @param share  0.5 = the median
  /// @return 0 when nothing was added
  [[nodiscard]] std::chrono::nanoseconds Quantile(double share) const;

 private:
  static constexpr unsigned kBits = 4;  // 16 buckets for each power of two
  std::array<uint64_t, (64 - kBits) << kBits> counts_{};
  uint64_t total_ = 0;
};

struct CommandStatistics {
  uint64_t requests = 0;
  uint64_t replies = 0;
  uint64_t bytes = 0;  ///< of whole packets, in both directions
  Durations durations;
};

/// What has been sent and received so far.
struct Traffic {
  uint64_t requests = 0;
  uint64_t bytes = 0;       ///< of whole packets
  uint64_t read_bytes = 0;  ///< of those packets that the module paces

  void Count(uint16_t command, uint64_t packet_bytes);
};

/// By command code.
using Statistics = std::map<uint16_t, CommandStatistics>;

Traffic TrafficOf(const Statistics& statistics);

/// What the mechanisms of a mount that save round trips have done so far. Each one counts for
/// itself, on any thread. A count that no mechanism adds to stays 0, and is not printed.
struct Savings {
  using Count = std::atomic<uint64_t>;

  Count waits;  ///< calls of the kernel that were answered only after the disk had answered

  Count questions;  ///< of the kernel: for a name, or for a file's attributes
  Count known;      ///< of these, those that were answered from what the disk was asked before
  Count shared;     ///< of these, those that one listing answered together
  Count listings;   ///< directories that programs listed
  Count told;       ///< changes that the side with the disk told of, this mount's included

  Count written_early;  ///< writes that were answered before the disk had carried them out
  Count failed_later;   ///< of these, those that failed after that

  Count files_ahead;  ///< small files that were read before a program asked
  Count files_ahead_used;
  Count files_ahead_unused;
  Count pieces_ahead;  ///< parts of large files that were read before a program asked
  Count pieces_ahead_used;
  Count pieces_ahead_unused;
  Count listings_ahead;  ///< directories that were listed before a program asked
  Count listings_ahead_used;
  Count listings_ahead_unused;

  /// What each count is called in the table at the end.
  static constexpr std::array kNames{
      std::pair{&Savings::waits, "waits for the disk"},
      std::pair{&Savings::questions, "names and attributes asked for"},
      std::pair{&Savings::known, "known from before"},
      std::pair{&Savings::shared, "answered by one listing"},
      std::pair{&Savings::listings, "directories listed"},
      std::pair{&Savings::told, "changes told"},
      std::pair{&Savings::written_early, "writes answered early"},
      std::pair{&Savings::failed_later, "failed later"},
      std::pair{&Savings::files_ahead, "files read ahead"},
      std::pair{&Savings::files_ahead_used, "used files"},
      std::pair{&Savings::files_ahead_unused, "unused files"},
      std::pair{&Savings::pieces_ahead, "pieces read ahead"},
      std::pair{&Savings::pieces_ahead_used, "used pieces"},
      std::pair{&Savings::pieces_ahead_unused, "unused pieces"},
      std::pair{&Savings::listings_ahead, "directories listed ahead"},
      std::pair{&Savings::listings_ahead_used, "used listings"},
      std::pair{&Savings::listings_ahead_unused, "unused listings"},
  };
};

}  // namespace cpd::host
