#include "line/frame_reader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace cpd::host {
namespace {

/// The largest block that is allocated before its bytes are there. Reads of the usual size need no
/// second allocation.
constexpr size_t kFirstBlock = 1280 << 10;

template <class Record>
Record Copy(std::string_view bytes) {
  Record record;
  std::memcpy(&record, bytes.data(), sizeof record);
  return record;
}

}  // namespace

void FrameReader::FreeDeleter::operator()(uint8_t* block) const { std::free(block); }

std::string_view FrameReader::Buffered() const { return {buffer_.data() + begin_, end_ - begin_}; }

std::array<iovec, 2> FrameReader::Space() {
  if (begin_ == end_) {
    begin_ = end_ = 0;
  } else if (begin_ != 0 && end_ == buffer_.size()) {
    std::memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= std::exchange(begin_, 0);
  }
  iovec body{};
  if (body_.data != nullptr) {
    if (body_.filled == body_.capacity) Grow();
    body = {body_.data.get() + body_.filled, body_.capacity - body_.filled};
    // What follows the packet goes to the buffer only if the packet has room for all its bytes.
    if (body_.capacity < body_.length) return {body, iovec{}};
  }
  return {body, {buffer_.data() + end_, buffer_.size() - end_}};
}

void FrameReader::Arrived(size_t count) {
  if (body_.data != nullptr) {
    const size_t taken = std::min(count, body_.capacity - body_.filled);
    body_.filled += taken;
    count -= taken;
  }
  end_ += count;
}

void FrameReader::Put(std::string_view bytes) {
  bytes = bytes.substr(0, kLongestText);
  std::ranges::copy(bytes, buffer_.begin());
  end_ = bytes.size();
}

std::optional<FrameReader::Frame> FrameReader::Next() {
  if (!greeted_) return TakeHello();
  if (body_.data == nullptr) {
    const auto buffered = Buffered();
    if (buffered.size() < CPD_PACKET_HEADER_SIZE) return std::nullopt;
    const auto magic = static_cast<uint8_t>(buffered.front());
    if (magic == kControlMagic) return TakeControl(buffered);
    if (magic != CPD_PACKET_MAGIC) {
      throw StreamError(fmt::format("a frame begins with {:#04x}", magic));
    }
    BeginPacket(buffered);
  }
  if (body_.filled < body_.length) return std::nullopt;
  auto packet = std::make_unique<CpdPacket>();
  if (packet->Parse(body_.data.get(), static_cast<int>(body_.length), false) != 0) {
    throw StreamError("a packet cannot be parsed");
  }
  body_.data.release();  // NOLINT(bugprone-unused-return-value): the packet owns it now
  body_ = {};
  return packet;
}

std::optional<FrameReader::Frame> FrameReader::TakeHello() {
  const auto buffered = Buffered();
  // The first bytes already show a line that prints something else, such as a shell's error
  // message.
  const auto begun = std::min(buffered.size(), kHelloMagic.size());
  if (std::memcmp(buffered.data(), kHelloMagic.data(), begun) != 0) {
    throw StreamError(kNoHello);
  }
  if (buffered.size() < sizeof(Hello)) return std::nullopt;
  const auto hello = Copy<Hello>(buffered);
  begin_ += sizeof hello;
  greeted_ = true;
  return hello;
}

std::optional<FrameReader::Frame> FrameReader::TakeControl(std::string_view buffered) {
  const auto head = Copy<ControlHead>(buffered);
  const size_t length = head.length;
  if (length > kLongestText) throw StreamError("a control frame is too long");
  if (buffered.size() < sizeof head + length) return std::nullopt;
  begin_ += sizeof head + length;
  return ControlFrame{.kind = head.kind,
                      .value = head.value,
                      .text = std::string(buffered.substr(sizeof head, length))};
}

void FrameReader::BeginPacket(std::string_view buffered) {
  const auto header = Copy<CpdPacketHeader>(buffered);
  if (header.bigEndian != 0) throw StreamError("a packet is big-endian");
  const size_t length = header.packetLen;
  if (length < CPD_PACKET_HEADER_SIZE || length > largest_) {
    throw StreamError(fmt::format("a packet claims to be {} bytes long", length));
  }
  body_.length = length;
  Grow();
  body_.filled = std::min(buffered.size(), length);
  std::memcpy(body_.data.get(), buffered.data(), body_.filled);
  begin_ += body_.filled;
}

void FrameReader::Grow() {
  const size_t capacity = std::min(body_.length, std::max(kFirstBlock, body_.capacity * 2));
  auto* const grown = static_cast<uint8_t*>(std::realloc(body_.data.get(), capacity));
  if (grown == nullptr) throw std::bad_alloc();
  body_.data.release();  // NOLINT(bugprone-unused-return-value): realloc has freed it
  body_.data.reset(grown);
  body_.capacity = capacity;
}

}  // namespace cpd::host
