// Reads a request: its heads and texts, checked against its buffer, and the local path it names.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>

#include "cpd/packet.h"
#include "wire.h"

namespace cpd {

/// Reads fixed heads and byte runs from a packet's payload. Advances only on success and never
/// looks past the buffer, whatever packetLen claims.
class PayloadReader {
 public:
  explicit PayloadReader(const CpdPacket* packet) : at_(packet->GetPayload()) {
    if (at_ != nullptr) {
      left_ = packet->buffer->capacity - CPD_PACKET_HEADER_SIZE - packet->readPos;
    }
  }

  template <class Head>
  [[nodiscard]] bool Read(Head* out) {
    static_assert(std::is_trivially_copyable_v<Head> && alignof(Head) == 1);
    if (left_ < sizeof(Head)) return false;
    std::memcpy(out, at_, sizeof(Head));
    Advance(sizeof(Head));
    return true;
  }

  [[nodiscard]] bool ReadBytes(size_t count, std::string_view* out) {
    if (left_ < count) return false;
    *out = {reinterpret_cast<const char*>(at_), count};
    Advance(count);
    return true;
  }

 private:
  void Advance(size_t count) {
    at_ += count;
    left_ -= count;
  }

  const uint8_t* at_;
  size_t left_ = 0;
};

/// The mount point followed by a request's path. After a NUL in the path the rest is zeros.
inline std::string JoinPath(const std::string& mount_point, std::string_view path) {
  std::string full;
  full.reserve(mount_point.size() + path.size());
  full += mount_point;
  full += path.substr(0, path.find('\0'));
  full.resize(mount_point.size() + path.size(), '\0');
  return full;
}

inline bool HasNul(std::string_view text) { return text.find('\0') != std::string_view::npos; }

/// A path's first component: what precedes the first '/'. Empty when there is no '/' in the first
/// 256 characters.
inline std::string_view FirstComponent(std::string_view path) {
  const size_t slash = path.substr(0, 256).find('/');
  return slash == std::string_view::npos ? std::string_view{} : path.substr(0, slash);
}

/// A request that begins with a head and a path of the head's `path_length`; `rest` reads what
/// follows them.
template <class Head>
class PathRequest {
 public:
  /// @param mount_point  what the path is relative to
  PathRequest(CpdPacket* request, const std::string& mount_point)
      : rest(request), stored_head_(request->GetPayload()), mount_length_(mount_point.size()) {
    if (!rest.Read(&head) || !rest.ReadBytes(head.path_length, &path)) return;
    full_path = JoinPath(mount_point, path);
    ok_ = true;
  }

  /// Whether the head and the path fit the request's buffer.
  [[nodiscard]] bool ok() const { return ok_; }
  /// The path as received, up to a NUL.
  [[nodiscard]] const char* relative_path() const { return full_path.c_str() + mount_length_; }
  /// Writes the head, with the results in it, back into the request.
  void StoreHead() { std::memcpy(stored_head_, &head, sizeof head); }

  Head head{};
  std::string_view path;  ///< into the request
  std::string full_path;
  PayloadReader rest;

 protected:
  bool ok_ = false;

 private:
  uint8_t* stored_head_;
  size_t mount_length_;
};

/// A request with two paths back to back.
class TwoPathsRequest : public PathRequest<TwoPathsHead> {
 public:
  TwoPathsRequest(CpdPacket* request, const std::string& mount_point)
      : PathRequest(request, mount_point) {
    std::string_view new_path;
    ok_ = ok_ && rest.ReadBytes(head.new_path_length, &new_path);
    if (!ok_) return;
    new_full_path = JoinPath(mount_point, new_path);
    path = {path.data(), path.size() + new_path.size()};  // the reply echoes both
  }

  std::string new_full_path;
};

}  // namespace cpd
