#include "line/asked_data.h"

#include <cstring>
#include <optional>
#include <string_view>

#include "wire.h"

namespace cpd::host {
namespace {

template <class Record>
std::optional<Record> Take(std::string_view* left) {
  if (left->size() < sizeof(Record)) return std::nullopt;
  Record record;
  std::memcpy(&record, left->data(), sizeof record);
  left->remove_prefix(sizeof record);
  return record;
}

}  // namespace

uint64_t DataAskedFor(const CpdPacket& request) {
  std::string_view left(reinterpret_cast<const char*>(request.buffer->data),
                        request.buffer->capacity);
  left.remove_prefix(CPD_PACKET_HEADER_SIZE);
  if (request.header->cmd == kFileRead) {
    const auto head = Take<ReadHead>(&left);
    return head ? head->size : 0;
  }
  if (request.header->cmd != kSmallFileRead) return 0;
  const auto head = Take<SmallReadHead>(&left);
  uint64_t sum = 0;
  for (uint32_t i = 0; head && i < head->count; ++i) {
    const auto file = Take<ReadHead>(&left);
    if (!file) break;
    sum += file->size;
    if (file->path_length > left.size()) break;
    left.remove_prefix(file->path_length);
  }
  return sum;
}

}  // namespace cpd::host
