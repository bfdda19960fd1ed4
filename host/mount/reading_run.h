// Which file of a directory a program will read next.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "remote/remote_files.h"

namespace cpd::host {

/// Follows a program that reads small files of a directory it has listed. Programs take them as
/// they were listed, or sorted by name; or nearly so, with some left out.
class ReadingRun {
 public:
  using File = Listing::Entry;
  static constexpr int64_t kLargestFile = 64 << 10;

  explicit ReadingRun(SharedListing listing) : listing_(std::move(listing)) {}

  /// Of the listing.
  [[nodiscard]] size_t entries() const { return listing_->entries.size(); }
  /// A file is read.
  void Step(std::string_view name);
  /// The files to get ahead of the program: none until its order shows, none while half of the last
  /// batch is still to be read. Batches grow as they are used.
  std::vector<File> NextBatch();
  /// The last batch was not used: the next ones are smaller, and in the end there are none.
  void SlowDown();

 private:
  /// An order of the listing's entries.
  struct Order {
    size_t place = 0;        // of the file read last
    unsigned steps = 0;      // how many in this order
    size_t fetched_end = 0;  // the entries before this one were fetched or passed over
  };

  void StepTo(Order* order, size_t place);
  std::vector<File> Advance(Order* order);

  SharedListing listing_;
  std::vector<uint32_t> by_name_;  // made with the first step
  Order listed_;
  Order sorted_;
  size_t batch_ = 16;
  bool is_slow_ = false;  // the last batch came to nothing
};

}  // namespace cpd::host
