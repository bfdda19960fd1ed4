// Takes records and bytes off the front of a buffer whose content is not trusted.
#pragma once

#include <cstddef>
#include <cstring>
#include <optional>
#include <string_view>
#include <type_traits>

namespace cpd::host {

/// What it takes points into the buffer, which must outlive it. Not for several threads at once.
class ByteReader {
 public:
  explicit ByteReader(std::string_view bytes) : left_(bytes) {}

  /// @return nothing if too little is left; then nothing is taken either
  template <class Record>
  std::optional<Record> Take() {
    static_assert(std::is_trivially_copyable_v<Record>);
    const auto bytes = TakeBytes(sizeof(Record));
    if (!bytes) return std::nullopt;
    Record record;
    std::memcpy(&record, bytes->data(), sizeof record);
    return record;
  }
  /// Likewise.
  std::optional<std::string_view> TakeBytes(size_t count) {
    if (count > left_.size()) return std::nullopt;
    return TakeUpTo(count);
  }
  /// As many of the bytes as there are.
  std::string_view TakeUpTo(size_t count) {
    const auto taken = left_.substr(0, count);
    left_.remove_prefix(taken.size());
    return taken;
  }
  std::string_view TakeRest() { return TakeUpTo(left_.size()); }

 private:
  std::string_view left_;
};

}  // namespace cpd::host
