// Decides whether the disk is sure to take a write that is acknowledged before it is carried out.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "wire.h"

namespace cpd::host {

/// Judges from the disk's statistics whether a write may be acknowledged before it is carried out.
/// Many programs never look at the result of close, so a write that was acknowledged must not fail.
/// Therefore a write is safe only while the disk is known to be writable, and while the room that
/// it last reported is more than everything sent since then can use.
///
/// It cannot know what the client's own programs write in the meantime. That is why statistics
/// expire soon, and why some room stays free.
///
/// Not synchronized: the owner's mutex guards it. The caller passes the time; this class reads no
/// clock.
class SpareRoom {
 public:
  using Clock = std::chrono::steady_clock;

  /// The place of a write in its file. All fields are in bytes.
  struct Write {
    int64_t offset;
    size_t size;
    int64_t file_size;  ///< before the write, as far as it is known
  };

  /// @param largest_file  the size in bytes that a file can reach on every disk
  explicit SpareRoom(int64_t largest_file) : largest_file_(largest_file) {}

  /// Whether the write may be acknowledged before it is carried out.
  [[nodiscard]] bool IsSafe(const Write& write, Clock::time_point now) const;
  /// Counts a write, acknowledged early or not, that is about to be sent.
  void Count(const Write& write) { used_ += MostUseOf(write); }

  /// Whether it is time to ask for the disk's statistics.
  [[nodiscard]] bool WantsStatistics(Clock::time_point now) const;
  /// Notes that the question is sent, after all writes that were counted.
  void NoteQuestion(Clock::time_point now) { question_ = {.asked = now, .used = used_}; }
  /// Takes the answer to that question.
  /// @param statistics  empty when there is none
  void NoteAnswer(const std::optional<udisk_statvfs>& statistics);
  /// Notes why a change failed. After a failure of the disk itself, rather than of one file, no
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
