#include "line/offered_lines.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <span>
#include <stdexcept>
#include <utility>

#include "line/frame_reader.h"

namespace cpd::host {
namespace {

std::optional<Hello> Parse(std::string_view bytes) {
  Hello hello;
  if (bytes.size() != sizeof hello) return std::nullopt;
  std::memcpy(&hello, bytes.data(), sizeof hello);
  if (hello.magic != kHelloMagic || hello.version != kStreamVersion) return std::nullopt;
  return hello;
}

}  // namespace

OfferedLines::OfferedLines(Line first, const Hello& hello, HandoverListener& listener)
    : session_(hello.session),
      listener_(listener),
      stop_(eventfd(0, EFD_CLOEXEC)),
      next_(Offered{.line = std::move(first), .connection = {}}) {}

void OfferedLines::Listen(std::function<void()> on_newer, std::function<void()> on_leave) {
  on_newer_ = std::move(on_newer);
  on_leave_ = std::move(on_leave);
  thread_ = std::thread([this] { Accept(); });
}

Line OfferedLines::Next() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return is_stopped_ || next_; });
  if (is_stopped_) throw std::runtime_error("stopped");
  auto offered = *std::exchange(next_, std::nullopt);
  used_ = std::move(offered.connection);
  return std::move(offered.line);
}

std::string OfferedLines::Finish() {
  const std::lock_guard lock(mutex_);
  used_.reset();
  return {};
}

void OfferedLines::Stop() {
  {
    const std::lock_guard lock(mutex_);
    is_stopped_ = true;
  }
  changed_.notify_all();
  const uint64_t one = 1;
  (void)!write(stop_.get(), &one, sizeof one);
  if (thread_.joinable()) thread_.join();
}

void OfferedLines::Accept() {
  std::array<pollfd, 2> events{{{.fd = listener_.fd(), .events = POLLIN, .revents = 0},
                                {.fd = stop_.get(), .events = POLLIN, .revents = 0}}};
  for (;;) {
    if (poll(events.data(), events.size(), -1) < 0) continue;
    if (events[1].revents != 0) return;
    if (auto offer = listener_.Accept()) Handle(*std::move(offer));
  }
}

void OfferedLines::Handle(OfferedLine offer) {
  const auto hello = Parse(offer.hello);
  if (!hello) return offer.Answer(Verdict::kRefused);
  if (hello->session != session_) {
    bool is_used = false;
    {
      const std::lock_guard lock(mutex_);
      is_used = used_.has_value();
    }
    // A mount whose line is down makes way for another session.
    if (is_used || hello->is_ended != 0) return offer.Answer(Verdict::kRefused);
    listener_.MakeWayFor(std::move(offer));
    return on_leave_();
  }
  offer.Answer(Verdict::kAdopted);
  if (hello->is_ended != 0) return on_leave_();
  bool is_used = false;
  {
    const std::lock_guard lock(mutex_);
    next_ = {.line = {.in = std::move(offer.in),
                      .out = std::move(offer.out),
                      .received = std::move(offer.hello)},
             .connection = std::move(offer.connection)};
    is_used = used_.has_value();
  }
  changed_.notify_all();
  // The other side knows that the present line is dead; this side has not noticed yet.
  if (is_used) on_newer_();
}

std::string ReadHello(int fd, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  std::string bytes;
  while (bytes.size() < sizeof(Hello)) {
    if (!WaitReadable(fd, deadline)) throw StreamError("the other side does not say hello");
    std::array<char, sizeof(Hello)> buffer;
    const ssize_t count = read(fd, buffer.data(), sizeof(Hello) - bytes.size());
    if (count <= 0) throw LineClosed();
    bytes.append(buffer.data(), static_cast<size_t>(count));
    if (!std::ranges::equal(
            std::string_view(bytes).substr(0, kHelloMagic.size()),
            std::span(kHelloMagic).first(std::min(bytes.size(), kHelloMagic.size())), {},
            [](char c) { return static_cast<uint8_t>(c); })) {
      throw StreamError(kNoHello);
    }
  }
  return bytes;
}

}  // namespace cpd::host
