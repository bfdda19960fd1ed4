// Predicts which files of a directory a program will read next.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "remote/remote_files.h"

namespace cpd::host {

/// Follows a program that reads small files of a directory that it has listed. Programs read them
/// in the order of the listing or sorted by name, and may leave some out.
class ReadingRun {
 public:
  using File = Listing::Entry;
  static constexpr int64_t kLargestFile = 64 << 10;

  explicit ReadingRun(SharedListing listing) : listing_(std::move(listing)) {}

  /// The number of entries in the listing.
  [[nodiscard]] size_t entries() const { return listing_->entries.size(); }
  /// Notes that a file is read.
  void Step(std::string_view name);
  /// The files to fetch next. There are none until the program's order is clear, and none while
  /// more than half of the last batch is unread. Batches grow as they are used.
  std::vector<File> NextBatch();
  /// Notes that the last batch was not used. The next ones are smaller, and finally there are none.
  void SlowDown();

 private:
  /// An order of the listing's entries, and the program's progress in it.
  struct Order {
    size_t place = 0;        // of the file read last
    unsigned steps = 0;      // made in this order so far
    size_t fetched_end = 0;  // the entries before this one were fetched or passed over
  };

  void StepTo(Order* order, size_t place);
  std::vector<File> Advance(Order* order);

  SharedListing listing_;
  std::vector<uint32_t> by_name_;  // indexes of the entries; built at the first step
  Order listed_;
  Order sorted_;
  size_t batch_ = 16;
  bool is_slow_ = false;  // the last batch was not used
};

}  // namespace cpd::host
