#include "line/connection.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <system_error>
#include <utility>
#include <variant>

#include "line/signals_blocked.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr auto kLongestPoll = 1s;
constexpr size_t kMostChunks = 64;    // per system call
constexpr size_t kMostPending = 256;  // chunks that may be left to be written before a notice

void MakeNonBlocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

/// The text of the other side, made fit for a terminal.
std::string Printable(std::string text) {
  std::ranges::replace_if(
      text, [](unsigned char c) { return c < ' ' || c == 0x7f; }, '?');
  return text;
}

/// @throws StreamError when it is none
Notice ReadNotice(const ControlFrame& frame) {
  using What = Notice::What;
  const auto what = static_cast<What>(frame.value);
  if (what < What::kWatched || what > What::kAll) {
    throw StreamError(fmt::format("a notice of kind {}", frame.value));
  }
  if (frame.text.starts_with('/') != (what != What::kAll)) {
    throw StreamError("a notice with a wrong path");
  }
  return {.what = what, .path = frame.text};
}

}  // namespace

Connection::Connection(Line line, const Hello& own, const LineTimes& times)
    : in_(std::move(line.in)),
      out_(std::move(line.out)),
      wake_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      times_(times),
      reader_(own.largest),
      window_(own.window) {
  reader_.Put(line.received);
  MakeNonBlocking(in_.get());
  MakeNonBlocking(out_.get());
  const auto hello = std::make_shared<Hello>(own);
  const std::lock_guard lock(mutex_);
  pending_.push_back({hello, reinterpret_cast<const char*>(hello.get()), sizeof *hello});
  WriteLocked();
}

Connection::~Connection() { Close(); }

void Connection::Close() {
  {
    const std::lock_guard lock(mutex_);
    if (!closes_) closes_ = Clock::now();
    is_ended_ = is_ended_ || !thread_.joinable();
  }
  room_.notify_all();
  if (!thread_.joinable()) return;
  Wake();
  thread_.join();
}

// ---- Beginning ----

Hello Connection::AwaitHello(std::chrono::milliseconds limit) {
  const auto hello = std::get<Hello>(AwaitFrame(limit));
  if (hello.version != kStreamVersion) {
    throw StreamError(fmt::format(
        "the other side has version {} of the stream, and this side has version {}: install "
        "the same cpd-host on both",
        uint16_t{hello.version}, kStreamVersion));
  }
  const std::lock_guard lock(mutex_);
  // A side that claims a large window must not make this one queue that much for it. Both sides
  // count with the smaller window: otherwise the sender could wait for a report that is not due
  // yet.
  window_ = std::min<uint64_t>(hello.window, window_);
  their_largest_ = hello.largest;
  return hello;
}

std::unique_ptr<CpdPacket> Connection::AwaitPacket(std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  for (;;) {
    auto frame = AwaitFrame(std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()));
    if (auto* const packet = std::get_if<std::unique_ptr<CpdPacket>>(&frame)) {
      const std::lock_guard lock(mutex_);
      HoldLocked(**packet);
      return std::move(*packet);
    }
    HandleControl(std::get<ControlFrame>(frame));
    if (ending_) throw EndedError(*ending_);
  }
}

FrameReader::Frame Connection::AwaitFrame(std::chrono::milliseconds limit) {
  const auto end = Clock::now() + limit;
  for (;;) {
    if (auto frame = reader_.Next()) return *std::move(frame);
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left <= 0ms) throw StreamError("the other side does not answer");
    std::array<pollfd, 2> events{{{.fd = in_.get(), .events = POLLIN, .revents = 0},
                                  {.fd = wake_.get(), .events = POLLIN, .revents = 0}}};
    if (poll(events.data(), events.size(), static_cast<int>(left.count())) <= 0) continue;
    {
      const std::lock_guard lock(mutex_);
      if (closes_ || given_up_) throw StreamError("closed");
    }
    if (events[1].revents != 0) DrainWake();
    if (events[0].revents != 0 && !Receive()) throw LineClosed();
  }
}

void Connection::Start(Handlers handlers) {
  handlers_ = std::move(handlers);
  heard_ = started_ = Clock::now();
  const SignalsBlocked blocked;
  thread_ = std::thread([this] { Run(); });
}

// ---- Sending ----

uint32_t Connection::their_largest() {
  const std::lock_guard lock(mutex_);
  return their_largest_;
}

bool Connection::HasRoom(size_t packet_length) {
  const std::lock_guard lock(mutex_);
  const bool has_room = HasRoomLocked(ChargeOf(packet_length));
  if (!has_room) is_awaiting_room_ = true;
  return has_room;
}

/// A packet that does not fit may still go when half of the window is free. Otherwise one that is
/// larger than the window would wait for ever, since small amounts are not reported as taken.
bool Connection::HasRoomLocked(uint64_t charge) const {
  return charge <= window_ - std::min(untaken_, window_) || untaken_ <= window_ / 2;
}

void Connection::Send(std::shared_ptr<const CpdPacket> packet) {
  const std::lock_guard lock(mutex_);
  if (!is_ended_) SendLocked(std::move(packet));
}

bool Connection::SendWhenRoom(std::shared_ptr<const CpdPacket> packet) {
  const uint64_t length = packet->header->packetLen;
  std::unique_lock lock(mutex_);
  room_.wait(lock, [&] { return is_ended_ || HasRoomLocked(ChargeOf(length)); });
  if (!is_ended_) SendLocked(std::move(packet));
  room_.wait(lock, [&] { return is_ended_ || unwritten_ <= kMostUnwritten; });
  return !is_ended_;
}

void Connection::SendLocked(std::shared_ptr<const CpdPacket> packet) {
  const size_t length = packet->header->packetLen;
  const auto* const data = reinterpret_cast<const char*>(packet->buffer->data);
  untaken_ += ChargeOf(length);
  unwritten_ += ChargeOf(length);
  pending_.push_back({std::move(packet), data, length, ChargeOf(length)});
  if (pending_.size() == 1) WriteLocked();
}

bool Connection::Send(const Notice& notice) {
  const std::lock_guard lock(mutex_);
  if (closes_ || is_ended_) return true;
  const bool is_all = notice.what == Notice::What::kAll;
  if (pending_.size() >= kMostPending && !is_all) return false;
  AppendControlLocked(Control::kNotice, static_cast<uint64_t>(notice.what), notice.path);
  if (pending_.size() == 1) WriteLocked();
  return true;
}

void Connection::Taken(uint64_t charge) {
  const std::lock_guard lock(mutex_);
  unreported_ += charge;
  if (!is_ended_ && pending_.empty()) WriteLocked();
}

void Connection::SayGoodbye(Farewell farewell, std::string text) {
  text.resize(std::min(text.size(), kLongestText));
  {
    const std::lock_guard lock(mutex_);
    if (closes_ || is_ended_) return;
    AppendControlLocked(Control::kBye, static_cast<uint64_t>(farewell), text);
    closes_ = Clock::now() + times_.goodbye;
    goodbye_ = std::move(text);
    WriteLocked();
  }
  Wake();
}

void Connection::GiveUp(std::string why) {
  {
    const std::lock_guard lock(mutex_);
    given_up_ = std::move(why);
  }
  Wake();
}

void Connection::AppendControlLocked(Control kind, uint64_t value, std::string_view text) {
  const ControlHead head{.magic = kControlMagic,
                         .kind = kind,
                         .length = static_cast<uint16_t>(text.size()),
                         .reserved = 0,
                         .value = value};
  const auto frame = std::make_shared<std::string>(sizeof head, '\0');
  std::memcpy(frame->data(), &head, sizeof head);
  frame->append(text);
  pending_.push_back({frame, frame->data(), frame->size()});
}

/// Few of these are ever pending, whatever the other side asks for.
void Connection::AppendDueControlsLocked() {
  if (closes_) return;
  if (unreported_ > 0 && unreported_ >= window_ / 4) {
    held_ -= unreported_;
    AppendControlLocked(Control::kTaken, std::exchange(unreported_, 0));
  }
  if (pong_) AppendControlLocked(Control::kPong, *std::exchange(pong_, std::nullopt));
}

/// Writes what the line takes. The rest stays pending, and the connection's thread goes on.
void Connection::WriteLocked() {
  for (;;) {
    if (pending_.empty()) AppendDueControlsLocked();
    if (pending_.empty()) return;
    std::array<iovec, kMostChunks> chunks;
    size_t count = 0;
    for (const auto& chunk : pending_) {
      chunks[count++] = {const_cast<char*>(chunk.data), chunk.size};
      if (count == chunks.size()) break;
    }
    const ssize_t result = writev(out_.get(), chunks.data(), static_cast<int>(count));
    if (result < 0 && errno == EINTR) continue;
    if (result < 0) {
      // A broken line shows when it is read, too.
      if (errno != EAGAIN) pending_.clear();
      return Wake();
    }
    auto written = static_cast<size_t>(result);
    const bool was_much = unwritten_ > kMostUnwritten;
    while (!pending_.empty() && written >= pending_.front().size) {
      written -= pending_.front().size;
      unwritten_ -= pending_.front().charge;
      pending_.pop_front();
    }
    if (written > 0) {
      pending_.front().data += written;
      pending_.front().size -= written;
    }
    if (was_much && unwritten_ <= kMostUnwritten) room_.notify_all();
  }
}

void Connection::Wake() {
  const uint64_t one = 1;
  (void)!write(wake_.get(), &one, sizeof one);
}

void Connection::DrainWake() {
  uint64_t wakes = 0;
  (void)!read(wake_.get(), &wakes, sizeof wakes);
}

// ---- The connection's thread ----

void Connection::Run() {
  try {
    HandleFrames();  // those that came with the hello
    while (!ending_) Poll();
  } catch (const StreamError& error) {
    End(Ending::Kind::kNonsense, fmt::format("the other side sent nonsense: {}", error.what()));
  } catch (const std::exception& error) {
    End(Ending::Kind::kDropped, error.what());
  }
  if (Clock::now() - started_ >= times_.useful) was_useful_ = true;
  if (ending_->kind == Ending::Kind::kNonsense && ends_session_on_nonsense_ && !was_useful_) {
    SayGoodbye(Farewell::kFailed, ending_->text);
  }
  {
    const std::lock_guard lock(mutex_);
    is_ended_ = true;
    pending_.clear();
    in_.Close();
    out_.Close();
  }
  room_.notify_all();
  handlers_.ended(*ending_);
}

void Connection::End(Ending::Kind kind, std::string text, Farewell farewell) {
  if (!ending_) ending_ = {.kind = kind, .farewell = farewell, .text = std::move(text)};
}

void Connection::Poll() {
  std::array<pollfd, 3> events{{{.fd = in_.get(), .events = POLLIN, .revents = 0},
                                {.fd = wake_.get(), .events = POLLIN, .revents = 0},
                                {.fd = -1, .events = POLLOUT, .revents = 0}}};
  std::optional<Clock::time_point> closes;
  {
    const std::lock_guard lock(mutex_);
    if (!pending_.empty()) events[2].fd = out_.get();
    closes = closes_;
    if (given_up_) return End(Ending::Kind::kDropped, *given_up_);
    if (closes && (pending_.empty() || Clock::now() >= *closes)) {
      return End(Ending::Kind::kClosed, goodbye_);
    }
  }
  const auto patience = closes ? std::max<Clock::duration>(*closes - Clock::now(), 0s)
                               : std::min<Clock::duration>(times_.ping_interval, kLongestPoll);
  if (poll(events.data(), events.size(),
           static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(patience).count())) < 0) {
    if (errno != EINTR) throw std::system_error(errno, std::generic_category(), "poll");
    return;
  }
  if (events[1].revents != 0) DrainWake();
  if (events[0].revents != 0) {
    if (!Receive()) return End(Ending::Kind::kDropped, "the line closed");
    heard_ = Clock::now();
    HandleFrames();
  }
  if (events[2].revents != 0) {
    const std::lock_guard lock(mutex_);
    WriteLocked();
  }
  KeepAlive();
}

/// Reads what has arrived. @return false at the end of the stream
bool Connection::Receive() {
  auto space = reader_.Space();
  const ssize_t count = readv(in_.get(), space.data(), static_cast<int>(space.size()));
  if (count < 0) return errno == EAGAIN || errno == EINTR;
  reader_.Arrived(static_cast<size_t>(count));
  return count > 0;
}

void Connection::HandleFrames() {
  while (auto frame = reader_.Next()) {
    if (auto* const packet = std::get_if<std::unique_ptr<CpdPacket>>(&*frame)) {
      {
        const std::lock_guard lock(mutex_);
        HoldLocked(**packet);
      }
      handlers_.packet(std::move(*packet));
      was_useful_ = true;
    } else {
      HandleControl(std::get<ControlFrame>(*frame));
    }
  }
  // A packet that exceeds the window is refused as soon as its header is there.
  const std::lock_guard lock(mutex_);
  if (reader_.begun() != 0) CheckWindowLocked(ChargeOf(reader_.begun()));
}

/// @throws StreamError when the other side may not send a packet of that charge now
void Connection::CheckWindowLocked(uint64_t charge) const {
  if (held_ + charge > window_ && held_ > window_ / 2) throw StreamError("more than its window");
}

/// Counts a packet that has arrived.
void Connection::HoldLocked(const CpdPacket& packet) {
  const uint64_t charge = ChargeOf(packet.header->packetLen);
  CheckWindowLocked(charge);
  held_ += charge;
}

void Connection::HandleControl(const ControlFrame& frame) {
  switch (frame.kind) {
    case Control::kPing: {
      const std::lock_guard lock(mutex_);
      pong_ = frame.value;
      if (pending_.empty()) WriteLocked();
      return;
    }
    case Control::kPong: {
      const std::chrono::nanoseconds now = Clock::now().time_since_epoch();
      const uint64_t elapsed = static_cast<uint64_t>(now.count()) - frame.value;
      // A larger value is not from a ping of this side.
      if (elapsed <= static_cast<uint64_t>(now.count())) {
        const std::chrono::nanoseconds round_trip(static_cast<int64_t>(elapsed));
        lowest_.Add(round_trip);
        round_trip_ = round_trip;
        shortest_round_trip_ = lowest_.value();
      }
      return;
    }
    case Control::kTaken: {
      bool was_awaited = false;
      {
        const std::lock_guard lock(mutex_);
        if (frame.value > untaken_ - unwritten_) {
          throw StreamError("it reports more taken than it was sent");
        }
        untaken_ -= frame.value;
        was_awaited = std::exchange(is_awaiting_room_, false);
      }
      room_.notify_all();
      if (was_awaited && handlers_.room) handlers_.room();
      return;
    }
    case Control::kBye:
      return End(Ending::Kind::kFarewell,
                 frame.text.empty() ? "the other side has ended the session"
                                    : "the other side: " + Printable(frame.text),
                 static_cast<Farewell>(frame.value));
    case Control::kNotice:
      if (!handlers_.notice) break;
      return handlers_.notice(ReadNotice(frame));
  }
  throw StreamError(fmt::format("a control frame of kind {}", static_cast<int>(frame.kind)));
}

void Connection::KeepAlive() {
  const auto now = Clock::now();
  if (now - heard_ >= times_.dead_after) return End(Ending::Kind::kDropped, "the line is dead");
  if (now - pinged_ < times_.ping_interval) return;
  pinged_ = now;
  const std::lock_guard lock(mutex_);
  // While the line takes nothing, a ping could not leave. Then only what the other side sends shows
  // that it is still there.
  if (!pending_.empty() || closes_) return;
  AppendControlLocked(Control::kPing, static_cast<uint64_t>(now.time_since_epoch().count()));
  WriteLocked();
}

}  // namespace cpd::host
