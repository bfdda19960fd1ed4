// Runs operations on packets and checks the outcome of each.
// An input is a received packet, then letters, each an operation with its arguments.
#include <byteswap.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "cpd/packet.h"
#include "finding.h"
#include "target.h"

namespace cpd::fuzz {

namespace {

std::string_view Content(const CpdPacket& packet) {
  return {reinterpret_cast<const char*>(packet.buffer->data), packet.buffer->capacity};
}

/// A packet that adopts or copies an image; it has no buffer when Parse refuses the image.
std::unique_ptr<CpdPacket> Parsed(std::string_view image, bool copy) {
  auto packet = std::make_unique<CpdPacket>();
  // Exactly as long as the image, so that a sanitizer detects every access beyond it.
  auto* const block = static_cast<uint8_t*>(std::malloc(image.size()));
  image.copy(reinterpret_cast<char*>(block), image.size());
  const int result = packet->Parse(block, static_cast<int>(image.size()), copy);
  if (copy || result != 0) std::free(block);
  const bool good =
      image.size() >= CPD_PACKET_HEADER_SIZE && static_cast<uint8_t>(image[0]) == CPD_PACKET_MAGIC;
  Expect((result == 0) == good, "Parse takes what has header and magic, and nothing else");
  Expect((packet->buffer != nullptr) == good, "a refused image leaves the packet empty");
  if (good && packet->header->bigEndian != 0) {
    Expect(packet->header->cmd == 0, "a big-endian packet has no command");
  }
  return packet;
}

void Append(CpdPacket* packet, std::string_view bytes) {
  if (packet->buffer == nullptr) {
    Expect(packet->AppendPayload(bytes.data(), static_cast<uint32_t>(bytes.size())) == -1,
           "nothing is appended without a buffer");
    return;
  }
  const std::string before(Content(*packet).substr(0, 4096));
  const uint32_t length = packet->header->packetLen;
  const int result = packet->AppendPayload(bytes.data(), static_cast<uint32_t>(bytes.size()));
  const std::string_view after = Content(*packet);
  const uint32_t new_length = packet->header->packetLen;
  if (result != 0) {
    Expect(after.starts_with(before), "a refused append changes nothing");
    return;
  }
  if (new_length == length) return;             // nothing to append, or no room for it
  if (length < CPD_PACKET_HEADER_SIZE) return;  // a false length: the header is overwritten
  Expect(new_length == length + bytes.size() && new_length <= after.size(),
         "packetLen counts what was appended");
  Expect(after.substr(length, bytes.size()) == bytes, "the bytes follow the payload");
}

void ReadWord(CpdPacket* packet) {
  const uint8_t* payload = packet->GetPayload();
  const uint32_t at = packet->readPos;
  uint32_t word = 0;
  if (packet->ReadUint32(&word) != 0) {
    Expect(packet->readPos == at, "a word that is not there moves nothing");
    return;
  }
  Expect(payload != nullptr && packet->readPos == at + sizeof word, "a word is four bytes");
  uint32_t stored = 0;
  std::memcpy(&stored, payload, sizeof stored);
  if (packet->header->bigEndian != 0) stored = bswap_32(stored);
  Expect(word == stored, "the word is what is stored there");
}

/// Replaces the packet by its clone, if there is one.
void Clone(std::unique_ptr<CpdPacket>* packet) {
  std::unique_ptr<CpdPacket> clone((*packet)->Clone());
  if (clone == nullptr) return;
  const uint64_t length = clone->buffer->capacity;
  Expect(length == (*packet)->header->packetLen, "a clone is as long as the packet says");
  Expect(clone->readPos == 0, "nothing of a clone was read");
  // Cloning a big-endian packet converts it again.
  if (clone->header->bigEndian == 0) {
    Expect(Content(*clone) == Content(**packet).substr(0, length), "a clone is a copy");
  }
  *packet = std::move(clone);
}

}  // namespace

void Run(Input in) {
  const bool copy = in.Take<uint8_t>() % 2 != 0;
  std::unique_ptr<CpdPacket> packet = Parsed(in.TakeText(), copy);
  while (!in.AtEnd()) {
    switch (in.Take<char>()) {
      case 'N':
        packet = std::make_unique<CpdPacket>(in.Take<uint16_t>());
        break;
      case 'E':
        packet = std::make_unique<CpdPacket>();
        break;
      case 'P':
        packet = Parsed(in.TakeText(), false);
        break;
      case 'H': {
        const auto dev_id = in.Take<uint8_t>();
        const auto cmd = in.Take<uint16_t>();
        packet->InitHeader(dev_id, cmd, in.Take<uint32_t>());
        break;
      }
      case 'A':
        Append(packet.get(), in.TakeText());
        break;
      case 'Z':  // far more than the buffer grows in one step
        Append(packet.get(), std::string(in.Take<uint16_t>() * size_t{4}, 'z'));
        break;
      case 'W':
        packet->AppendUint32(in.Take<uint32_t>());
        break;
      case 'L':
        if (packet->header != nullptr) packet->header->packetLen = in.Take<uint32_t>();
        break;
      case 'R':
        ReadWord(packet.get());
        break;
      case 'S':
        if (packet->buffer != nullptr) {
          Expect(packet->PayloadSize() == packet->header->packetLen - packet->readPos - 16U,
                 "the payload is the packet without the header and what was read");
        }
        break;
      case 'C':
        Clone(&packet);
        break;
      default:
        break;
    }
  }
}

}  // namespace cpd::fuzz
