#pragma once

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <utility>

namespace cpd::host {

/// Owns an open descriptor; negative when there is none.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~Descriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool ok() const { return fd_ >= 0; }
  int Release() { return std::exchange(fd_, -1); }
  void Close() { Descriptor closed(Release()); }

 private:
  int fd_ = -1;
};

/// Waits until a descriptor is readable or closed at its other end.
/// @return false when neither has happened by the deadline
inline bool WaitReadable(int fd, std::chrono::steady_clock::time_point deadline) {
  using std::chrono::ceil, std::chrono::milliseconds, std::chrono::steady_clock;
  pollfd polled{.fd = fd, .events = POLLIN, .revents = 0};
  int ready = 0;
  do {
    const auto left = ceil<milliseconds>(deadline - steady_clock::now()).count();
    ready = poll(&polled, 1, static_cast<int>(std::clamp<int64_t>(left, 0, INT32_MAX)));
  } while (ready < 0 && errno == EINTR);
  return ready > 0;
}

}  // namespace cpd::host
