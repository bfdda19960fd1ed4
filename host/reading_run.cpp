#include "reading_run.h"

#include <sys/stat.h>

#include <algorithm>
#include <numeric>
#include <utility>

namespace cpd::host {
namespace {

constexpr unsigned kStepsToAnOrder = 3;
constexpr size_t kReach = 16;  // entries between two steps of one order
constexpr size_t kLargestBatch = 64;
constexpr int64_t kLargestBatchBytes = 1 << 20;
constexpr size_t kEntriesAhead = 1024;  // looked at for one batch

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

/// A few places forward are a step, a few back are none; any others begin anew.
void ReadingRun::StepTo(Way* way, size_t place) {
  const size_t distance = std::max(place, way->place) - std::min(place, way->place);
  if (way->steps == 0 || distance > kReach) {
    *way = {.place = place, .steps = 1, .got = place + 1};
  } else if (place > way->place) {
    ++way->steps;
    way->place = place;
    way->got = std::max(way->got, place + 1);
  }
}

std::vector<ReadingRun::File> ReadingRun::NextBatch() {
  if (batch_ == 0) return {};
  for (auto* way : {&listed_, &sorted_}) {
    if (way->steps >= kStepsToAnOrder) return Advance(way);
  }
  return {};
}

std::vector<ReadingRun::File> ReadingRun::Advance(Way* way) {
  if (way->got - way->place > batch_ / 2) return {};
  std::vector<File> files;
  int64_t bytes = 0;
  const auto& entries = listing_->entries;
  const size_t end = std::min(entries.size(), way->got + kEntriesAhead);
  for (; way->got < end && files.size() < batch_; ++way->got) {
    const auto& file = entries[way == &listed_ ? way->got : by_name_[way->got]];
    const int64_t size = file.attributes.st_size;
    if (!S_ISREG(file.attributes.st_mode) || size <= 0 || size > kLargestFile) continue;
    bytes += size;
    if (bytes > kLargestBatchBytes) break;
    files.push_back(file);
  }
  if (!std::exchange(is_slow_, false)) batch_ = std::min(batch_ * 2, kLargestBatch);
  return files;
}

void ReadingRun::SlowDown() {
  batch_ /= 2;
  is_slow_ = true;
  for (auto* way : {&listed_, &sorted_}) way->got = way->place + 1;
}

}  // namespace cpd::host
