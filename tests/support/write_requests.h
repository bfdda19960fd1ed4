// The requests that change the disk and the small-file read, as the remote side builds them, and
// their replies as it reads them. Free of test frameworks, like requests.h.
#pragma once

#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/requests.h"

namespace cpd::test {

/// Bytes with a field at `at` overwritten: a payload as a reply, or a hostile request, has it.
template <class Field>
std::string Patched(std::string bytes, size_t at, Field value) {
  if (at + sizeof value > bytes.size()) throw std::out_of_range("no such field");
  std::memcpy(bytes.data() + at, &value, sizeof value);
  return bytes;
}

// ---- Replies. Decode throws std::runtime_error when the payload does not hold what it says. ----

/// A head and the path that it announces.
template <class Head>
struct PathReply {
  Head head = {};
  std::string path;

  [[nodiscard]] auto result() const { return head.result; }

  static PathReply Decode(const SentPacket& packet) {
    PathReply reply;
    if (packet.payload.size() < sizeof reply.head) {
      throw std::runtime_error("reply is shorter than its head");
    }
    std::memcpy(&reply.head, packet.payload.data(), sizeof reply.head);
    reply.path = packet.payload.substr(sizeof reply.head);
    if (reply.path.size() != reply.head.path_length) {
      throw std::runtime_error("reply's path is not as long as its head says");
    }
    return reply;
  }
};

struct TwoPathsReply {
  int32_t result = 0;
  std::string path;
  std::string new_path;
  static TwoPathsReply Decode(const SentPacket& packet);
};

/// Its records are like replies to 105.
struct SmallReadReply {
  std::vector<ReadReply> records;
  static SmallReadReply Decode(const SentPacket& packet);
};

// ---- Requests. Lengths are those of the texts; hostile ones are made by editing the payload. ----

struct CreateRequest {
  using Reply = PathReply<CreateHead>;
  std::string path;
  uint32_t mode = 0644;
  uint32_t flags = 0;
  operator Request() const;
};

/// 106 in single mode.
struct WriteRequest {
  using Reply = PathReply<WriteHead>;
  std::string path;
  int64_t offset = 0;
  std::string data = {};
  std::optional<int32_t> size = {};  ///< what the head says where it is not the data's length
  uint8_t marker_a = 0;
  uint8_t marker_b = 0;
  uint32_t unread_12 = 0;
  uint32_t single = 1;
  operator Request() const;
};

struct WritePiece {
  int64_t offset = 0;
  std::string data = {};
  std::optional<int32_t> length = {};  ///< what the record says where it is not the data's length
};

/// The pieces as they stand in a batch's data.
std::string EncodePieces(const std::vector<WritePiece>& pieces);

/// 106 in batch mode.
struct BatchWriteRequest {
  using Reply = PathReply<WriteHead>;
  std::string path;
  std::vector<WritePiece> pieces = {};
  std::string tail = {};  ///< stands behind the last piece
  uint8_t marker_a = 0;
  uint8_t marker_b = 0;
  operator Request() const;
};

struct TruncateRequest {
  using Reply = PathReply<TruncateHead>;
  std::string path;
  uint64_t length = 0;
  operator Request() const;
};

struct FsyncRequest {
  using Reply = PathReply<FsyncHead>;
  std::string path;
  uint32_t unread_4 = 0;
  operator Request() const;
};

struct ChmodRequest {
  using Reply = PathReply<ChmodHead>;
  std::string path;
  uint16_t mode = 0;
  operator Request() const;
};

/// An id of all ones leaves owner or group as they are.
struct ChownRequest {
  using Reply = PathReply<ChownHead>;
  std::string path;
  uint32_t uid = 0xffffffff;
  uint32_t gid = 0xffffffff;
  operator Request() const;
};

struct MakeDirRequest {
  using Reply = PathReply<MakeDirHead>;
  std::string path;
  int16_t mode = 0755;
  operator Request() const;
};

struct RemoveDirRequest {
  using Reply = PathReply<RemoveHead>;
  std::string path;
  operator Request() const;
};

struct LinkRequest {
  using Reply = TwoPathsReply;
  std::string path;  ///< exists
  std::string new_path;
  operator Request() const;
};

struct UnlinkRequest {
  using Reply = PathReply<RemoveHead>;
  std::string path;
  operator Request() const;
};

struct RenameRequest {
  using Reply = TwoPathsReply;
  std::string path;
  std::string new_path;
  operator Request() const;
};

struct FlushRequest {
  using Reply = PathReply<CloseHead>;
  std::string path;
  uint32_t fd = 0;
  operator Request() const;
};

struct ReleaseRequest {
  using Reply = PathReply<CloseHead>;
  std::string path;
  uint32_t fd = 0;
  operator Request() const;
};

struct SmallRead {
  std::string path;
  int64_t offset = 0;
  uint32_t size = 4096;
  uint32_t unread_8 = 0;
  uint32_t unread_20 = 0;
};

struct SmallReadRequest {
  using Reply = SmallReadReply;
  std::vector<SmallRead> records = {};
  std::optional<uint32_t> count = {};  ///< what the head says where it is not their number
  operator Request() const;
};

/// One good request for each command that changes the disk, in the order of the codes (106 in both
/// modes), and one small-file read. In this order they all succeed on a disk that holds what
/// requests.h names.
std::vector<NamedRequest> OneWriteRequestPerCommand();

}  // namespace cpd::test
