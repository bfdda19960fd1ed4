// Builds a reply: it is addressed like its request and filled piece by piece.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string_view>
#include <type_traits>

#include "cpd/packet.h"

namespace cpd {

/// When memory runs out, a reply has no packet to send, and appending to it does nothing.
class Reply {
 public:
  /// @param header_length  room for the packet header; raised to CPD_PACKET_HEADER_SIZE
  /// @param payload_size   room for the payload; a longer one makes the packet grow
  Reply(const CpdPacket* request, unsigned char header_length, size_t payload_size)
      : packet_(std::make_unique<CpdPacket>(
            std::max<size_t>(header_length, CPD_PACKET_HEADER_SIZE) + payload_size)) {
    const CpdPacketHeader& header = *request->header;
    packet_->InitHeader(header.devId, header.cmd, header.requestId);
  }

  Reply& Append(std::string_view bytes) {
    packet_->AppendPayload(bytes.data(), static_cast<uint32_t>(bytes.size()));
    return *this;
  }
  template <class Record>
  requires std::is_trivially_copyable_v<Record> &&
      (alignof(Record) == 1) Reply& Append(const Record& record) {
    return Append(std::string_view(reinterpret_cast<const char*>(&record), sizeof record));
  }

  Reply& AppendUint32(uint32_t value) {
    packet_->AppendUint32(value);
    return *this;
  }

  /// The place `offset` bytes after the bytes appended so far; null when memory ran out.
  [[nodiscard]] uint8_t* Room(size_t offset) {
    return ok() ? packet_->buffer->data + packet_->header->packetLen + offset : nullptr;
  }
  /// Counts the next `size` bytes, which were written in place through Room, as appended.
  Reply& Commit(uint32_t size) {
    if (ok()) packet_->header->packetLen += size;
    return *this;
  }
  /// Frees the unused rest of the buffer.
  Reply& Trim() {
    if (ok()) {
      packet_->buffer->Shrink(packet_->header->packetLen);
      packet_->header = reinterpret_cast<CpdPacketHeader*>(packet_->buffer->data);
    }
    return *this;
  }

  /// Whether there is a packet to fill.
  [[nodiscard]] bool ok() const { return packet_->header != nullptr; }
  /// The size of the packet's buffer.
  [[nodiscard]] int capacity() const { return static_cast<int>(packet_->buffer->capacity); }
  std::unique_ptr<CpdPacket> Take() { return std::move(packet_); }

 private:
  std::unique_ptr<CpdPacket> packet_;
};

}  // namespace cpd
