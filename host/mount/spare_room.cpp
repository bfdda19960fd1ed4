#include "mount/spare_room.h"

#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr auto kBelieved = 1s;
// Early enough that the new answer arrives before the old one expires.
constexpr auto kAskedAnewAfter = 500ms;
constexpr auto kDistrust = 10s;
// This much stays free: file systems reserve some of what they report as free, and need blocks for
// their own data.
constexpr uint64_t kMargin = 16 << 20;

bool IsOfTheDisk(int error) {
  return error == ENOSPC || error == EDQUOT || error == EROFS || error == EIO;
}

/// The counts are cut to 32 bits, which only makes a large disk look smaller. Blocks that are
/// reserved for root do not count, even if the host runs as root.
uint64_t RoomOf(const udisk_statvfs& disk) {
  if ((disk.f_flag & ST_RDONLY) != 0) return 0;
  const uint64_t free = disk.f_bavail * disk.f_frsize;
  return free > kMargin ? free - kMargin : 0;
}

}  // namespace

bool SpareRoom::IsSafe(const Write& write, Clock::time_point now) const {
  if (!known_ || now - known_->question.asked >= kBelieved || now < distrusted_until_) return false;
  const int64_t end = write.offset + static_cast<int64_t>(write.size);
  if (end > write.file_size && end > largest_file_) return false;
  return used_ - known_->question.used + MostUseOf(write) <= known_->room;
}

bool SpareRoom::WantsStatistics(Clock::time_point now) const {
  if (question_) return false;
  if (!known_ || now - known_->question.asked >= kAskedAnewAfter) return true;
  return known_->room > 0 && used_ - known_->question.used > known_->room / 4;
}

void SpareRoom::NoteAnswer(const std::optional<udisk_statvfs>& statistics) {
  known_.reset();
  if (statistics && question_) {
    known_ = {.question = *question_, .room = RoomOf(*statistics)};
    // Copies: max takes references, which cannot bind to packed fields.
    const uint64_t block = statistics->f_bsize;
    const uint64_t fragment = statistics->f_frsize;
    block_ = std::max(block, fragment);
  }
  question_.reset();
}

void SpareRoom::NoteFailure(int error, Clock::time_point now) {
  if (IsOfTheDisk(error)) distrusted_until_ = now + kDistrust;
}

/// The write may begin and end in the middle of a block, and FAT allocates the gap before it.
uint64_t SpareRoom::MostUseOf(const Write& write) const {
  const int64_t gap = std::max<int64_t>(write.offset - write.file_size, 0);
  return static_cast<uint64_t>(gap) + write.size + 2 * block_;
}

}  // namespace cpd::host
