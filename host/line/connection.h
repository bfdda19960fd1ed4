// One line that is up: packets both ways over a pair of descriptors, with flow control and pings.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "cpd/packet.h"
#include "descriptor.h"
#include "line/frame_reader.h"
#include "line/line_source.h"
#include "line/stream.h"
#include "remote/lowest_lately.h"
#include "remote/notice.h"

namespace cpd::host {

/// How a connection ended.
struct Ending {
  enum class Kind {
    kDropped,   ///< the line is gone; another one can take its place
    kNonsense,  ///< what came makes no sense: the line spoils it, or the other side breaks the
                ///< rules
    kFarewell,  ///< the other side has ended the session
    kClosed,    ///< this side has
  };
  Kind kind;
  Farewell farewell = Farewell::kDone;  ///< of the other side
  std::string text;                     ///< why, in words fit for a terminal
};

/// How long a connection waits for the other side. The defaults find a dead line within 13 s.
struct LineTimes {
  std::chrono::milliseconds ping_interval{3000};
  /// A line on which nothing arrives for this long is dead: four pings went without a pong.
  std::chrono::milliseconds dead_after{12000};
  std::chrono::milliseconds goodbye{1500};  ///< what is sent last may take this long to leave
  std::chrono::milliseconds useful{10000};  ///< a line that is up for this long has been of use
};

/// What SendWhenRoom leaves to be written, as a charge: enough to keep a line busy.
inline constexpr uint64_t kMostUnwritten = 2 << 20;

/// The session ended, and not as this side wanted.
class EndedError : public StreamError {
 public:
  explicit EndedError(Ending ending) : StreamError(ending.text), ending_(std::move(ending)) {}
  [[nodiscard]] const Ending& ending() const { return ending_; }

 private:
  Ending ending_;
};

/// Speaks the stream with the other side.
///
/// Whatever the other side does, a connection holds no more than its window, one packet on its way
/// in, and a fixed amount. Callers write to the line themselves while it takes their bytes; a
/// thread of the connection reads, and writes what the line did not take at once. What sends, says
/// goodbye or gives up is callable from any thread.
class Connection {
 public:
  struct Handlers {
    /// Receives a packet. Runs on the connection's thread. The packet counts against the window
    /// until it is reported with Taken.
    std::function<void(std::unique_ptr<CpdPacket> packet)> packet;
    /// There may be room again after HasRoom was false. Runs on the connection's thread.
    std::function<void()> room;
    /// Receives a notice, in order with the packets. Runs on the connection's thread. Empty: the
    /// other side may not send any.
    std::function<void(const Notice& notice)> notice = {};
    /// The connection has ended; the last call, on the connection's thread.
    std::function<void(const Ending& ending)> ended;
  };

  /// Takes the descriptors, makes them non-blocking, and sends this side's hello.
  Connection(Line line, const Hello& own, const LineTimes& times = {});
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  /// Waits for the other side's hello. To be called once, before Start. SayGoodbye, GiveUp and
  /// Close end the wait.
  /// @throws StreamError when there is none in time, or it has another version
  Hello AwaitHello(std::chrono::milliseconds limit);
  /// Waits for the next packet, on the caller's thread. To be called before Start.
  /// @throws StreamError when there is none in time; EndedError when the other side says goodbye
  std::unique_ptr<CpdPacket> AwaitPacket(std::chrono::milliseconds limit);
  /// Starts the connection's thread.
  void Start(Handlers handlers);
  /// For a line that is the last try: if nonsense comes before the line has been useful, the other
  /// side is told that the session has ended. To be called before Start.
  void EndSessionOnNonsense() { ends_session_on_nonsense_ = true; }

  /// Whether the other side accepts a packet of this length now.
  [[nodiscard]] bool HasRoom(size_t packet_length);
  /// Sends a packet whether there is room or not; never waits. Does nothing when the connection has
  /// ended.
  void Send(std::shared_ptr<const CpdPacket> packet);
  /// Waits until there is room, then sends, and waits until no more than kMostUnwritten is left to
  /// be written. Otherwise the caller could make its next packet while this side still holds many.
  /// @return false when the connection has ended
  bool SendWhenRoom(std::shared_ptr<const CpdPacket> packet);
  /// Sends a notice, in order with the packets; never waits. Does nothing when the connection has
  /// ended or this side has said goodbye.
  /// @return false when so much waits to be written that there is no room for it; never for kAll
  bool Send(const Notice& notice);
  /// Reports that a received packet is no longer held.
  /// @param charge  ChargeOf its length
  void Taken(uint64_t charge);
  /// Ends the session: everything sent so far goes out, then the farewell, then the line closes.
  /// After LineTimes::goodbye it closes in any case.
  void SayGoodbye(Farewell farewell, std::string text);
  /// Ends the connection as dropped. Callable from any thread.
  /// @param why  in words for the user
  void GiveUp(std::string why);
  /// Waits for the end of a goodbye, otherwise closes at once. No handler runs after it has
  /// returned. Must not be called on the connection's thread.
  void Close();

  /// The longest packet that the other side takes.
  [[nodiscard]] uint32_t their_largest();
  /// Whether a packet has arrived since Start, or the connection ended after LineTimes::useful.
  [[nodiscard]] bool was_useful() const { return was_useful_; }
  /// Of the last ping; zero before the first.
  [[nodiscard]] std::chrono::nanoseconds round_trip() const { return round_trip_; }
  /// The shortest that the latest pings took; zero before the first.
  [[nodiscard]] std::chrono::nanoseconds shortest_round_trip() const {
    return shortest_round_trip_;
  }

 private:
  using Clock = std::chrono::steady_clock;

  /// Bytes to be written, and what holds them.
  struct Chunk {
    std::shared_ptr<const void> owner;
    const char* data;
    size_t size;
    uint64_t charge = 0;  // of a packet
  };

  FrameReader::Frame AwaitFrame(std::chrono::milliseconds limit);
  void Run();
  void Poll();
  bool Receive();
  void HandleFrames();
  void HandleControl(const ControlFrame& frame);
  void CheckWindowLocked(uint64_t charge) const;
  void HoldLocked(const CpdPacket& packet);
  void KeepAlive();
  void End(Ending::Kind kind, std::string text, Farewell farewell = Farewell::kDone);
  [[nodiscard]] bool HasRoomLocked(uint64_t charge) const;
  void SendLocked(std::shared_ptr<const CpdPacket> packet);
  void AppendControlLocked(Control kind, uint64_t value, std::string_view text = {});
  void AppendDueControlsLocked();
  void WriteLocked();
  void Wake();
  void DrainWake();

  Descriptor in_;
  Descriptor out_;
  Descriptor wake_;
  const LineTimes times_;
  FrameReader reader_;
  Handlers handlers_;
  std::atomic<std::chrono::nanoseconds> round_trip_{};
  std::atomic<std::chrono::nanoseconds> shortest_round_trip_{};
  std::atomic<bool> was_useful_ = false;
  bool ends_session_on_nonsense_ = false;  // not written after Start

  // The connection's thread alone uses these.
  Clock::time_point started_ = Clock::now();
  Clock::time_point heard_ = started_;
  Clock::time_point pinged_{};
  LowestLately lowest_;  // of the pings
  std::optional<Ending> ending_;

  std::mutex mutex_;
  std::condition_variable room_;
  std::deque<Chunk> pending_;  // guarded by mutex_, like all that follows
  uint64_t window_;            // the smaller one of the two sides', once both are known
  uint32_t their_largest_ = 0;
  uint64_t untaken_ = 0;    // charge that was sent and not reported as taken
  uint64_t unwritten_ = 0;  // of it, the charge of packets in pending_
  bool is_awaiting_room_ = false;
  uint64_t held_ = 0;             // charge that was received and not reported as taken
  uint64_t unreported_ = 0;       // of it, what is no longer held
  std::optional<uint64_t> pong_;  // to be sent
  bool is_ended_ = false;
  std::optional<std::string> given_up_;      // why
  std::string goodbye_;                      // why this side has said goodbye
  std::optional<Clock::time_point> closes_;  // when to close, after a goodbye
  std::thread thread_;
};

}  // namespace cpd::host
