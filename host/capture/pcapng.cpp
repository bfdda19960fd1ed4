#include "capture/pcapng.h"

#include <cstring>

namespace cpd::host {
namespace {

template <class Record>
void Append(std::string* bytes, const Record& record) {
  bytes->append(reinterpret_cast<const char*>(&record), sizeof record);
}

void AppendPadded(std::string* bytes, std::string_view part) {
  bytes->append(part);
  bytes->append(Padding(part.size()), '\0');
}

void AppendOption(std::string* bytes, Option code, std::string_view value) {
  value = value.substr(0, UINT16_MAX);
  Append(bytes, OptionHead{.code = static_cast<uint16_t>(code),
                           .length = static_cast<uint16_t>(value.size())});
  AppendPadded(bytes, value);
}

template <class Value>
void AppendNumber(std::string* bytes, Option code, Value value) {
  AppendOption(bytes, code, {reinterpret_cast<const char*>(&value), sizeof value});
}

/// Begins a block. FinishBlock states its length.
size_t BeginBlock(std::string* bytes, BlockType type) {
  const size_t begin = bytes->size();
  Append(bytes, static_cast<uint32_t>(type));
  Append(bytes, uint32_t{0});
  return begin;
}

void FinishBlock(std::string* bytes, size_t begin) {
  const auto length = static_cast<uint32_t>(bytes->size() - begin + sizeof(uint32_t));
  Append(bytes, length);
  std::memcpy(bytes->data() + begin + sizeof(uint32_t), &length, sizeof length);
}

}  // namespace

std::string SectionStart(std::string_view comment, std::string_view name) {
  std::string bytes;
  const size_t section = BeginBlock(&bytes, BlockType::kSection);
  Append(&bytes, SectionBody{.byte_order = kByteOrder, .major = 1, .minor = 0, .length = -1});
  AppendOption(&bytes, Option::kComment, comment);
  AppendOption(&bytes, Option::kProgram, "cpd-host");
  AppendOption(&bytes, Option::kEnd, {});
  FinishBlock(&bytes, section);

  const size_t interface = BeginBlock(&bytes, BlockType::kInterface);
  Append(&bytes, InterfaceBody{.link_type = kLinkType, .reserved = 0, .longest = 0});
  if (!name.empty()) AppendOption(&bytes, Option::kInterfaceName, name);
  AppendNumber(&bytes, Option::kTimeResolution, kNanoseconds);
  AppendOption(&bytes, Option::kEnd, {});
  FinishBlock(&bytes, interface);
  return bytes;
}

std::string PacketBlocks(const RecordedBytes& packet) {
  constexpr size_t kMostOptions = 32;
  const auto first = packet.bytes.substr(0, kLongestInPacketBlock);
  auto rest = packet.bytes.substr(first.size());
  const size_t rests = rest.size() / kLongestRest + 1;
  std::string bytes;
  bytes.reserve(packet.bytes.size() + kBlockOverhead + sizeof(PacketBody) + kMostOptions +
                rests * (kBlockOverhead + sizeof(RestBody) + 4));
  const size_t block = BeginBlock(&bytes, BlockType::kPacket);
  Append(&bytes, PacketBody{.interface = 0,
                            .time_high = static_cast<uint32_t>(packet.time >> 32),
                            .time_low = static_cast<uint32_t>(packet.time),
                            .captured = static_cast<uint32_t>(first.size()),
                            .original = packet.original});
  AppendPadded(&bytes, first);
  AppendNumber(&bytes, Option::kFlags, packet.way);
  if (packet.missing > 0) AppendNumber(&bytes, Option::kMissing, packet.missing);
  AppendOption(&bytes, Option::kEnd, {});
  FinishBlock(&bytes, block);

  while (!rest.empty()) {
    const auto part = rest.substr(0, kLongestRest);
    rest.remove_prefix(part.size());
    const size_t more = BeginBlock(&bytes, BlockType::kRest);
    Append(&bytes, RestBody{.captured = static_cast<uint32_t>(part.size())});
    AppendPadded(&bytes, part);
    FinishBlock(&bytes, more);
  }
  return bytes;
}

}  // namespace cpd::host
