// Predicts which files of a directory a program will read next.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "remote/remote_files.h"

namespace cpd::host {

/// Follows a program that reads small files of a directory that it has listed. Programs read them
/// in the order of the listing or sorted by name, and may leave some out.
class ReadingRun {
 public:
  using File = Listing::Entry;
  /// An order in which programs read.
  enum class Way { kListed, kSorted };
  static constexpr int64_t kLargestFile = 64 << 10;

  /// @param expected  the order in which programs read other directories, if any
  /// @param is_far    whether an answer takes long: then batches have more files, so that a
  ///                  directory takes few of them
  explicit ReadingRun(SharedListing listing, std::optional<Way> expected = std::nullopt,
                      bool is_far = false)
      : listing_(std::move(listing)),
        expected_(expected),
        batch_(is_far ? kFirstFarBatch : kFirstBatch),
        largest_batch_(is_far ? kLargestFarBatch : kLargestBatch) {}

  /// How much memory it takes, in bytes.
  [[nodiscard]] size_t memory() const { return listing_->memory(); }
  /// Notes that a file is read.
  void Step(std::string_view name);
  /// The order in which the program reads; empty until it is clear.
  [[nodiscard]] std::optional<Way> way() const;
  /// The files to fetch next. There are none until the program's order is clear, and none while
  /// what was fetched and is still unread exceeds half of the next batch. The order is clear at
  /// once when the program begins with the first file of the expected one. Batches grow as they are
  /// used.
  std::vector<File> NextBatch();
  /// Notes that the last batch was not used. The next ones are smaller, and finally there are none.
  void SlowDown();

 private:
  /// An order of the listing's entries, and the program's progress in it.
  struct Order {
    size_t place = 0;        // of the file read last
    unsigned steps = 0;      // made in this order so far
    size_t fetched_end = 0;  // the entries before this one were fetched or passed over
    bool is_whole = false;   // began with the first file
  };
  static constexpr size_t kFirstBatch = 16;
  static constexpr size_t kLargestBatch = 64;
  static constexpr size_t kFirstFarBatch = 256;
  static constexpr size_t kLargestFarBatch = 1024;

  [[nodiscard]] const File& EntryAt(const Order& order, size_t place) const;
  [[nodiscard]] bool IsFirst(const Order& order, size_t place) const;
  void StepTo(Order* order, size_t place);
  std::vector<File> Advance(Order* order);

  SharedListing listing_;
  std::vector<uint32_t> by_name_;  // indexes of the entries; built at the first step
  Order listed_;
  Order sorted_;
  std::optional<Way> expected_;
  size_t batch_;
  size_t largest_batch_;
  bool is_slow_ = false;  // the last batch was not used
};

}  // namespace cpd::host
