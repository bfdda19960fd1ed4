// The other side of a line, as a test plays it: byte by byte.
#pragma once

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <variant>

#include "cpd/packet.h"
#include "line/frame_reader.h"
#include "line/line_source.h"
#include "line/stream.h"

namespace cpd::test {

template <class Record>
std::string BytesOfRecord(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

inline host::Hello HelloOf(host::Role role, uint64_t window = host::kDefaultWindow) {
  return {.magic = host::kHelloMagic,
          .version = host::kStreamVersion,
          .role = role,
          .is_ended = 0,
          .largest = role == host::Role::kDisk ? host::kLargestRequest : host::kLargestPacket,
          .window = window,
          .session = {},
          .disk = {},
          .life = {}};
}

inline std::string ControlBytes(host::Control kind, uint64_t value, std::string_view text = {}) {
  const host::ControlHead head{.magic = host::kControlMagic,
                               .kind = kind,
                               .length = static_cast<uint16_t>(text.size()),
                               .reserved = 0,
                               .value = value};
  return BytesOfRecord(head).append(text);
}

/// A packet of `length` bytes, header included, filled with `fill`.
inline std::shared_ptr<CpdPacket> PacketOf(size_t length, uint16_t command = 105, uint32_t id = 1,
                                           char fill = 'x') {
  auto packet = std::make_shared<CpdPacket>(length);
  packet->InitHeader(1, command, id);
  const std::string payload(length - CPD_PACKET_HEADER_SIZE, fill);
  packet->AppendPayload(payload.data(), static_cast<uint32_t>(payload.size()));
  return packet;
}

inline std::string BytesOfPacket(const CpdPacket& packet) {
  return {reinterpret_cast<const char*>(packet.buffer->data), packet.header->packetLen};
}

/// A line's two ends: one for the code under test, the other one for the test.
class LinePeer {
 public:
  using Frame = host::FrameReader::Frame;

  LinePeer() {
    (void)std::signal(SIGPIPE, SIG_IGN);
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      throw std::runtime_error("socketpair");
    }
    fd_ = host::Descriptor(ends[0]);
    line_.in = host::Descriptor(ends[1]);
    line_.out = host::Descriptor(fcntl(ends[1], F_DUPFD_CLOEXEC, 0));
  }

  /// The end for the code under test.
  host::Line TakeLine() { return std::move(line_); }
  void Send(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t sent = write(fd_.get(), bytes.data(), bytes.size());
      if (sent <= 0) throw std::runtime_error("the line is closed");
      bytes.remove_prefix(static_cast<size_t>(sent));
    }
  }
  /// The next bytes, undecoded: fewer if the line closes or no more come within ten seconds.
  /// Not to be used together with Next.
  [[nodiscard]] std::string TakeBytes(size_t count) const {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    std::string bytes;
    while (bytes.size() < count && host::WaitReadable(fd_.get(), deadline)) {
      std::array<char, 4096> buffer;
      const ssize_t got =
          read(fd_.get(), buffer.data(), std::min(buffer.size(), count - bytes.size()));
      if (got <= 0) break;
      bytes.append(buffer.data(), static_cast<size_t>(got));
    }
    return bytes;
  }
  /// The next frame; empty when none comes in time or the line is closed.
  std::optional<Frame> Next(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      if (auto frame = reader_.Next()) return frame;
      if (!host::WaitReadable(fd_.get(), deadline)) return std::nullopt;
      auto space = reader_.Space();
      const ssize_t count = readv(fd_.get(), space.data(), static_cast<int>(space.size()));
      if (count <= 0) return std::nullopt;
      reader_.Arrived(static_cast<size_t>(count));
    }
  }
  /// The next frame of a type; frames before it are dropped.
  template <class Type>
  std::optional<Type> NextOf(std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      auto frame = Next(std::max(left, std::chrono::milliseconds(0)));
      if (!frame) return std::nullopt;
      if (auto* const found = std::get_if<Type>(&*frame)) return std::move(*found);
    }
  }
  /// The next control frame of a kind; frames before it are dropped.
  std::optional<host::ControlFrame> NextControl(
      host::Control kind, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    for (;;) {
      auto frame = NextOf<host::ControlFrame>(limit);
      if (!frame || frame->kind == kind) return frame;
    }
  }
  /// Waits until the other end is closed, for ten seconds after the last frame; drops the frames
  /// before that. @return whether it is closed
  bool IsClosed() {
    while (Next()) continue;
    std::array<char, 1> byte;
    return recv(fd_.get(), byte.data(), 1, MSG_DONTWAIT) == 0 || errno == ECONNRESET;
  }
  void Close() { fd_.Close(); }

 private:
  host::Descriptor fd_;
  host::Line line_;
  host::FrameReader reader_{host::kLargestPacket};
};

}  // namespace cpd::test
