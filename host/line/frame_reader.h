// Parses the stream that comes from the other side of a line.
#pragma once

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "cpd/packet.h"
#include "line/stream.h"

namespace cpd::host {

/// The other side broke the rules of the stream, refused, or is gone. Its text is fit for a
/// terminal.
class StreamError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// The line closed before the other side said anything. The line's source may know why.
class LineClosed : public StreamError {
 public:
  LineClosed() : StreamError("the line closed before the other side said anything") {}
};

inline constexpr const char* kNoHello =
    "the other side does not begin as cpd-host does: a start-up file of its shell may print "
    "something";

struct ControlFrame {
  Control kind;
  uint64_t value;
  std::string text;
};

/// Cuts a stream into its hello and its frames. Never allocates more than twice what has arrived
/// plus a fixed amount, whatever lengths the stream claims.
///
/// Usage: read into Space(), report the count to Arrived(), then call Next() until it gives
/// nothing.
class FrameReader {
 public:
  using Frame = std::variant<Hello, std::unique_ptr<CpdPacket>, ControlFrame>;

  /// @param largest  longest packet to accept, in bytes
  explicit FrameReader(uint32_t largest) : largest_(largest) {}

  /// Where the next bytes go: the packet that has begun, then a buffer for what follows it. Valid
  /// until the next call.
  std::array<iovec, 2> Space();
  void Arrived(size_t count);
  /// Takes bytes that were read elsewhere: kLongestText at most. To be called before anything else.
  void Put(std::string_view bytes);
  /// The next complete frame. The first one is a hello, all others are packets or control frames.
  /// @throws StreamError when the stream is malformed; then it must not be used any more
  std::optional<Frame> Next();
  /// The length that a packet claims while only a part of it has arrived; 0 when there is no such
  /// packet.
  [[nodiscard]] size_t begun() const { return body_.length; }

 private:
  struct FreeDeleter {
    void operator()(uint8_t* block) const;
  };
  /// A packet that has begun to arrive. Its block grows with it, from malloc.
  struct Body {
    std::unique_ptr<uint8_t, FreeDeleter> data;
    size_t capacity = 0;
    size_t filled = 0;
    size_t length = 0;
  };

  [[nodiscard]] std::string_view Buffered() const;
  void Grow();
  void BeginPacket(std::string_view buffered);
  std::optional<Frame> TakeHello();
  std::optional<Frame> TakeControl(std::string_view buffered);

  const uint32_t largest_;
  bool greeted_ = false;
  Body body_;
  std::array<char, 64 << 10> buffer_;
  size_t begin_ = 0;  // of what is buffered
  size_t end_ = 0;
};

}  // namespace cpd::host
