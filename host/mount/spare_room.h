// Whether the disk is known to take what is acknowledged before it is carried out.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "wire.h"

namespace cpd::host {

/// Judges from the disk's statistics whether a write may be acknowledged before it is carried out.
/// Many programs never look at the result of close: what they were promised must not fail. So a
/// write is safe only while the disk is known to be writable and to have far more room than
/// everything that was sent since could use.
///
/// What it cannot know is what the client's own programs write meanwhile; hence the short time that
/// statistics are believed, and the margin.
///
/// Not synchronized: the owner's mutex guards it. Times are handed in, none is asked for.
class SpareRoom {
 public:
  using Clock = std::chrono::steady_clock;

  /// The place of a write in its file. All in bytes.
  struct Write {
    int64_t offset;
    size_t size;
    int64_t file_size;  ///< before the write, as far as it is known
  };

  /// @param largest_file  size in bytes that the disk lets every file reach
  explicit SpareRoom(int64_t largest_file) : largest_file_(largest_file) {}

  /// Whether the write may be acknowledged before it is carried out.
  [[nodiscard]] bool IsSafe(const Write& write, Clock::time_point now) const;
  /// Counts a write, acknowledged early or not, that is about to be sent.
  void Count(const Write& write) { used_ += MostUseOf(write); }

  /// Whether it is time to ask for the disk's statistics.
  [[nodiscard]] bool WantsStatistics(Clock::time_point now) const;
  /// Notes that the question is sent, after all writes that were counted.
  void NoteQuestion(Clock::time_point now) { question_ = {.asked = now, .used = used_}; }
  /// Takes the answer to it.
  /// @param statistics  empty when there is none
  void NoteAnswer(const std::optional<udisk_statvfs>& statistics);
  /// Notes why a change failed. After a failure that is the disk's own, and not one file's, no
  /// write is safe for some seconds.
  /// @param error  an errno
  void NoteFailure(int error, Clock::time_point now);

 private:
  struct Question {
    Clock::time_point asked;
    uint64_t used;  // counted before the question was sent
  };
  struct Known {
    Question question;
    uint64_t room;  // beyond the margin; 0 when the disk is read-only
  };

  /// More than the write can use up, in bytes.
  [[nodiscard]] uint64_t MostUseOf(const Write& write) const;

  const int64_t largest_file_;
  uint64_t used_ = 0;  // by all that was counted
  uint64_t block_ = 0;
  std::optional<Question> question_;  // unanswered
  std::optional<Known> known_;
  Clock::time_point distrusted_until_ = Clock::time_point::min();
};

}  // namespace cpd::host
