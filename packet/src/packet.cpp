#include "cpd/packet.h"

#include <byteswap.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace cpd {

// ---- PacketBuffer ----

PacketBuffer::PacketBuffer(size_t size)
    : data(static_cast<uint8_t*>(std::malloc(size))), capacity(data != nullptr ? size : 0) {}

PacketBuffer::~PacketBuffer() { std::free(data); }

int PacketBuffer::Write(const void* src, int offset, int len) {
  if (offset < 0 || len < 0) return -1;
  const uint64_t end = static_cast<uint64_t>(offset) + static_cast<uint64_t>(len);
  if (capacity < end) {
    // Contract: the buffer grows by one step per call, even when that is not enough.
    void* grown = std::realloc(data, capacity + PACKET_GROW_STEP);
    if (grown == nullptr) return -1;
    data = static_cast<uint8_t*>(grown);
    capacity += PACKET_GROW_STEP;
    if (capacity < end) return -1;
  }
  if (len > 0) std::memcpy(data + offset, src, static_cast<size_t>(len));
  return 0;
}

void PacketBuffer::Shrink(size_t size) {
  if (size >= capacity || size == 0) return;
  void* shrunk = std::realloc(data, size);
  if (shrunk != nullptr) data = static_cast<uint8_t*>(shrunk);
  capacity = size;
}

// ---- CpdPacket ----

CpdPacket::CpdPacket(size_t size)
    : buffer(std::make_unique<PacketBuffer>(std::max(size, CPD_PACKET_HEADER_SIZE))) {
  if (buffer->data == nullptr) {
    std::printf("CpdPacket alloc failed, size[%zu]\n", std::max(size, CPD_PACKET_HEADER_SIZE));
    return;
  }
  std::memset(buffer->data, 0, CPD_PACKET_HEADER_SIZE);
  header = reinterpret_cast<CpdPacketHeader*>(buffer->data);
  header->magic = CPD_PACKET_MAGIC;
  header->packetLen = CPD_PACKET_HEADER_SIZE;
  headerReady = true;
}

void CpdPacket::InitHeader(uint8_t devId, uint16_t cmd, uint32_t requestId) {
  if (buffer == nullptr || header == nullptr) return;
  header->magic = CPD_PACKET_MAGIC;
  header->bigEndian = 0;
  header->devId = devId;
  header->cmd = cmd;
  header->requestId = requestId;
  headerReady = true;
}

int CpdPacket::AppendPayload(const void* data, uint32_t len) {
  if (buffer == nullptr || buffer->data == nullptr) return -1;
  if (!headerReady) {
    std::puts("please init header first");
    return -1;
  }
  // Contract: `len` is compared with the whole payload capacity, not with what is left of it,
  // because the write below grows the buffer.
  if (buffer->capacity - CPD_PACKET_HEADER_SIZE < len) {
    std::puts("payload size larger than packet size");
    return -1;
  }
  const uint32_t end = header->packetLen;
  const int written = buffer->Write(data, static_cast<int>(end), static_cast<int>(len));
  header = reinterpret_cast<CpdPacketHeader*>(buffer->data);
  // Contract: a failed write is not reported, but `packetLen` stays the same.
  if (written == 0) header->packetLen = end + len;
  return 0;
}

int CpdPacket::AppendUint32(uint32_t value) {
  if (buffer == nullptr || buffer->data == nullptr) return -1;
  if (!headerReady) {
    std::puts("please init header first");
    return -1;
  }
  // Refuses a buffer of 16 to 19 bytes, which has no room for a word. A larger one grows if full.
  if ((buffer->capacity & ~uint64_t{3}) == CPD_PACKET_HEADER_SIZE) {
    std::puts("payload size larger than packet size");
    return -1;
  }
  return AppendPayload(&value, sizeof value);
}

int CpdPacket::Parse(uint8_t* data, int len, bool copy) {
  if (len < static_cast<int>(CPD_PACKET_HEADER_SIZE)) {
    std::puts("len is less than header");
    return -1;
  }
  if (data[0] != CPD_PACKET_MAGIC) {
    std::printf("error buffer format,magic[0x%x 0x%x]", data[0], data[1]);
    return -1;
  }
  const auto size = static_cast<size_t>(len);
  auto parsed =
      copy ? std::make_unique<PacketBuffer>(size) : std::make_unique<PacketBuffer>(data, size);
  if (copy && parsed->data != nullptr) std::memcpy(parsed->data, data, size);
  buffer = std::move(parsed);
  header = reinterpret_cast<CpdPacketHeader*>(buffer->data);
  headerReady = header != nullptr;
  if (!headerReady) return -1;
  if (header->bigEndian != 0) {
    header->requestId = bswap_32(header->requestId);
    header->packetLen = bswap_32(header->packetLen);
    header->cmd = 0;  // so that a big-endian packet is never dispatched
  }
  return 0;
}

CpdPacket* CpdPacket::Clone() const {
  if (header == nullptr || buffer == nullptr || buffer->data == nullptr) return nullptr;
  const uint32_t len = header->packetLen;
  if (len > buffer->capacity || len > INT32_MAX) return nullptr;
  std::unique_ptr<uint8_t, decltype(&std::free)> copy(static_cast<uint8_t*>(std::malloc(len)),
                                                      &std::free);
  if (copy == nullptr) return nullptr;
  std::memcpy(copy.get(), buffer->data, len);
  auto clone = std::make_unique<CpdPacket>();
  if (clone->Parse(copy.get(), static_cast<int>(len), false) != 0) return nullptr;
  (void)copy.release();  // adopted by the clone
  return clone.release();
}

uint8_t* CpdPacket::GetPayload() const {
  if (buffer == nullptr || buffer->data == nullptr) return nullptr;
  const uint64_t start = CPD_PACKET_HEADER_SIZE + uint64_t{readPos};
  return buffer->capacity < start ? nullptr : buffer->data + start;
}

int CpdPacket::ReadUint32(uint32_t* out) {
  const uint8_t* payload = GetPayload();
  if (payload == nullptr) return -1;
  const uint64_t left = buffer->capacity - CPD_PACKET_HEADER_SIZE - readPos;
  if (left < sizeof *out) return -1;
  std::memcpy(out, payload, sizeof *out);
  readPos += sizeof *out;
  if (header->bigEndian != 0) *out = bswap_32(*out);
  return 0;
}

uint32_t CpdPacket::PayloadSize() const {
  if (buffer == nullptr || header == nullptr) return 0;
  return header->packetLen - readPos - static_cast<uint32_t>(CPD_PACKET_HEADER_SIZE);
}

}  // namespace cpd
