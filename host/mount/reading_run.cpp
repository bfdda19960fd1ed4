#include "mount/reading_run.h"

#include <sys/stat.h>

#include <algorithm>
#include <numeric>
#include <utility>

namespace cpd::host {
namespace {

constexpr unsigned kStepsToAnOrder = 3;
constexpr size_t kReach = 16;  // how many entries a step may move
constexpr int64_t kLargestBatchBytes = 1 << 20;
constexpr size_t kEntriesAhead = 1024;  // looked at for one batch

/// Whether a file can be read ahead.
bool IsSmall(const ReadingRun::File& file) {
  const int64_t size = file.attributes.st_size;
  return S_ISREG(file.attributes.st_mode) && size > 0 && size <= ReadingRun::kLargestFile;
}

}  // namespace

void ReadingRun::Step(std::string_view name) {
  const auto& entries = listing_->entries;
  if (by_name_.empty()) {
    by_name_.resize(entries.size());
    std::iota(by_name_.begin(), by_name_.end(), 0U);
    std::sort(by_name_.begin(), by_name_.end(),
              [&](uint32_t a, uint32_t b) { return entries[a].name < entries[b].name; });
  }
  const auto found =
      std::lower_bound(by_name_.begin(), by_name_.end(), name,
                       [&](uint32_t entry, auto wanted) { return entries[entry].name < wanted; });
  if (found == by_name_.end() || entries[*found].name != name) return;
  StepTo(&listed_, *found);
  StepTo(&sorted_, static_cast<size_t>(found - by_name_.begin()));
}

/// A move forward by a few places is a step, a move back by a few places is ignored, and a longer
/// move starts over.
void ReadingRun::StepTo(Order* order, size_t place) {
  const size_t distance = std::max(place, order->place) - std::min(place, order->place);
  if (order->steps == 0 || distance > kReach) {
    const bool is_whole = order->steps == 0 && IsFirst(*order, place);
    *order = {.place = place, .steps = 1, .fetched_end = place + 1, .is_whole = is_whole};
  } else if (place > order->place) {
    ++order->steps;
    order->place = place;
    order->fetched_end = std::max(order->fetched_end, place + 1);
  }
}

const ReadingRun::File& ReadingRun::EntryAt(const Order& order, size_t place) const {
  return listing_->entries[&order == &listed_ ? place : by_name_[place]];
}

/// Whether no file before this place can be read ahead.
bool ReadingRun::IsFirst(const Order& order, size_t place) const {
  for (size_t i = 0; i < place; ++i) {
    if (i == kEntriesAhead || IsSmall(EntryAt(order, i))) return false;
  }
  return true;
}

std::optional<ReadingRun::Way> ReadingRun::way() const {
  if (listed_.steps >= kStepsToAnOrder) return Way::kListed;
  if (sorted_.steps >= kStepsToAnOrder) return Way::kSorted;
  if (expected_ == Way::kListed && listed_.is_whole) return Way::kListed;
  if (expected_ == Way::kSorted && sorted_.is_whole) return Way::kSorted;
  return std::nullopt;
}

std::vector<ReadingRun::File> ReadingRun::NextBatch() {
  const auto clear = way();
  if (batch_ == 0 || !clear) return {};
  return Advance(*clear == Way::kListed ? &listed_ : &sorted_);
}

std::vector<ReadingRun::File> ReadingRun::Advance(Order* order) {
  if (order->fetched_end - order->place > batch_ / 2) return {};
  std::vector<File> files;
  int64_t bytes = 0;
  const size_t end = std::min(listing_->entries.size(), order->fetched_end + kEntriesAhead);
  for (; order->fetched_end < end && files.size() < batch_; ++order->fetched_end) {
    const auto& file = EntryAt(*order, order->fetched_end);
    if (!IsSmall(file)) continue;
    bytes += file.attributes.st_size;
    if (bytes > kLargestBatchBytes) break;
    files.push_back(file);
  }
  if (!std::exchange(is_slow_, false)) batch_ = std::min(batch_ * 2, largest_batch_);
  return files;
}

void ReadingRun::SlowDown() {
  batch_ /= 2;
  is_slow_ = true;
  expected_.reset();
  for (auto* order : {&listed_, &sorted_}) order->fetched_end = order->place + 1;
}

}  // namespace cpd::host
