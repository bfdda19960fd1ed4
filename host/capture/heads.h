// Where the parts of a packet lie. The lengths in a packet are not trusted: what does not lie
// within it is missing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

#include "capture/pcapng.h"
#include "cpd/packet.h"

namespace cpd::host {

/// The record at an offset; zeros if it does not lie within the bytes.
template <class Record>
Record RecordAt(std::string_view bytes, size_t offset) {
  Record record{};
  if (offset + sizeof record <= bytes.size()) {
    std::memcpy(&record, bytes.data() + offset, sizeof record);
  }
  return record;
}

/// @param packet  a packet's bytes, here and below
inline CpdPacketHeader HeaderOf(std::string_view packet) {
  return RecordAt<CpdPacketHeader>(packet, 0);
}

/// The path, or the first one; of several files, the first file's. Empty if the command has none.
std::string_view PathOf(std::string_view packet);

/// The result in an answer's head: 0 or more is success. Empty if the command's head has none.
std::optional<int64_t> ResultOf(std::string_view packet);

/// The length of a packet up to its file data or its listing; the whole length if it has neither.
/// @return `packet.size()` at most
size_t LengthWithoutData(std::string_view packet, Way way);

}  // namespace cpd::host
