// Splits an input into values. Past its end every value is zero or empty, so every input is valid.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace cpd::fuzz {

class Input {
 public:
  Input(const uint8_t* data, size_t size) : left_(reinterpret_cast<const char*>(data), size) {}

  [[nodiscard]] bool AtEnd() const { return left_.empty(); }

  /// The next bytes, copied into a value.
  template <class Value>
  Value Take() {
    static_assert(std::is_trivially_copyable_v<Value>);
    Value value{};
    const std::string_view bytes = TakeBytes(sizeof value);
    std::memcpy(&value, bytes.data(), bytes.size());
    return value;
  }
  std::string_view TakeBytes(size_t count) {
    const std::string_view taken = left_.substr(0, std::min(count, left_.size()));
    left_.remove_prefix(taken.size());
    return taken;
  }
  /// A text: the next two bytes are its length.
  std::string_view TakeText() { return TakeBytes(Take<uint16_t>()); }
  /// The bytes before the next `end`, which is skipped.
  std::string_view TakeUntil(char end) {
    const std::string_view taken = TakeBytes(left_.find(end));
    TakeBytes(1);
    return taken;
  }
  std::string_view TakeRest() { return TakeBytes(left_.size()); }

 private:
  std::string_view left_;
};

}  // namespace cpd::fuzz
