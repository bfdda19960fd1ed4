#include "capture/capture_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "capture/heads.h"
#include "cpd/packet.h"

namespace cpd::host {
namespace {

constexpr uint32_t kLongestBlock = 16 << 20;  // Wireshark refuses longer ones, too

/// Calls `use` with the code and the value of each option.
/// @return false if the options are malformed
template <class Use>
bool ForEachOption(std::string_view options, Use use) {
  while (!options.empty()) {
    const auto head = RecordAt<OptionHead>(options, 0);
    const size_t length = sizeof head + head.length;
    if (options.size() < length + Padding(length)) return false;
    if (head.code == static_cast<uint16_t>(Option::kEnd)) return true;
    use(static_cast<Option>(head.code), options.substr(sizeof head, head.length));
    options.remove_prefix(length + Padding(length));
  }
  return true;
}

}  // namespace

std::string CaptureReader::ReadBytes(size_t count) {
  constexpr size_t kPiece = 64 << 10;
  std::string bytes;
  while (bytes.size() < count) {
    const size_t begin = bytes.size();
    bytes.resize(begin + std::min(kPiece, count - begin));
    file_.read(bytes.data() + begin, static_cast<std::streamsize>(bytes.size() - begin));
    const auto arrived = static_cast<size_t>(file_.gcount());
    position_ += arrived;
    bytes.resize(begin + arrived);
    if (!file_) break;
  }
  return bytes;
}

std::optional<CaptureReader::Block> CaptureReader::ReadBlock() {
  struct BlockHead {
    BlockType type;
    uint32_t length;
  };
  const uint64_t begin = position_;
  const auto fail = [&](const std::string& why) {
    throw CaptureError(begin == 0 ? "it is no capture" : fmt::format("byte {}: {}", begin, why));
  };
  const auto head_bytes = ReadBytes(sizeof(BlockHead));
  if (head_bytes.empty()) return std::nullopt;
  const auto head = RecordAt<BlockHead>(head_bytes, 0);
  if (begin == 0 && head.type != BlockType::kSection) fail("");
  if (head_bytes.size() < sizeof head) fail("the capture ends within a block");
  if (head.length < kBlockOverhead || head.length % 4 != 0 || head.length > kLongestBlock) {
    fail(fmt::format("no block has a length of {} bytes", head.length));
  }
  Block block{.type = head.type, .body = ReadBytes(head.length - sizeof head)};
  if (block.body.size() < head.length - sizeof head) {
    throw CaptureError(fmt::format("byte {}: the capture ends within a block", begin));
  }
  const size_t end = block.body.size() - sizeof(uint32_t);
  if (RecordAt<uint32_t>(block.body, end) != head.length) fail("the block's two lengths differ");
  block.body.resize(end);
  if (block.type == BlockType::kSection &&
      RecordAt<SectionBody>(block.body, 0).byte_order != kByteOrder) {
    fail("the section has another byte order");
  }
  return block;
}

std::optional<CaptureReader::Block> CaptureReader::TakeBlock() {
  if (next_) return std::exchange(next_, std::nullopt);
  return ReadBlock();
}

std::optional<RecordedPacket> CaptureReader::Next() {
  while (const auto block = TakeBlock()) {
    switch (block->type) {
      case BlockType::kSection:
        ++sections_;
        interfaces_.clear();
        break;
      case BlockType::kInterface:
        NoteInterface(block->body);
        break;
      case BlockType::kPacket: {
        auto packet = ReadPacket(block->body);
        AppendRest(&packet);
        return packet;
      }
      default:  // Wireshark adds blocks of its own when it saves a capture
        break;
    }
  }
  return std::nullopt;
}

void CaptureReader::NoteInterface(std::string_view body) {
  const auto interface = RecordAt<InterfaceBody>(body, 0);
  bool has_nanoseconds = false;
  const auto options = body.substr(std::min(sizeof interface, body.size()));
  const bool is_whole = ForEachOption(options, [&](Option code, std::string_view value) {
    if (code == Option::kTimeResolution) has_nanoseconds = value == std::string(1, kNanoseconds);
  });
  std::string why;
  if (interface.link_type != kLinkType) {
    why = fmt::format("its link type is {}, not {}", interface.link_type, kLinkType);
  } else if (!is_whole || !has_nanoseconds) {
    why = "its time is not in nanoseconds";
  }
  interfaces_.push_back(std::move(why));
}

RecordedPacket CaptureReader::ReadPacket(std::string_view body) {
  ++packets_;
  const auto fail = [&](const std::string& why) {
    throw CaptureError(fmt::format("packet {}: {}", packets_, why));
  };
  const auto head = RecordAt<PacketBody>(body, 0);
  const size_t end = sizeof head + head.captured + Padding(head.captured);
  if (body.size() < end) fail("it does not fit its block");
  if (head.interface >= interfaces_.size()) fail("its interface is not described");
  if (const auto& why = interfaces_[head.interface]; !why.empty()) fail(why);
  RecordedPacket packet{.number = packets_,
                        .section = sections_,
                        .time = uint64_t{head.time_high} << 32 | head.time_low,
                        .original = head.original,
                        .bytes = std::string(body.substr(sizeof head, head.captured))};
  uint32_t direction = 0;
  const bool is_whole = ForEachOption(body.substr(end), [&](Option code, std::string_view value) {
    if (code == Option::kFlags) direction = RecordAt<uint32_t>(value, 0) & 3;
    if (code == Option::kMissing) packet.missing = RecordAt<uint64_t>(value, 0);
  });
  if (!is_whole) fail("its options are malformed");
  packet.way = static_cast<Way>(direction);
  if (packet.way != Way::kToModule && packet.way != Way::kFromModule) fail("it has no direction");
  const auto header = HeaderOf(packet.bytes);
  if (packet.bytes.size() < sizeof header || header.magic != CPD_PACKET_MAGIC ||
      header.packetLen != packet.original || header.bigEndian != 0 ||
      packet.bytes.size() > packet.original) {
    fail("it is no packet of this protocol");
  }
  return packet;
}

void CaptureReader::AppendRest(RecordedPacket* packet) {
  while ((next_ = ReadBlock()) && next_->type == BlockType::kRest) {
    const auto body = std::string_view(next_->body);
    const auto head = RecordAt<RestBody>(body, 0);
    if (sizeof head + uint64_t{head.captured} > body.size() ||
        packet->bytes.size() + head.captured > packet->original) {
      throw CaptureError(
          fmt::format("packet {}: its rest does not fit its length", packet->number));
    }
    packet->bytes += body.substr(sizeof head, head.captured);
  }
}

}  // namespace cpd::host
