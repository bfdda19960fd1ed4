// Requests as the remote side builds them, and replies as it reads them. This file does not use the
// test framework, so that benches and fuzzers can include it.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "cpd/packet.h"
#include "wire.h"

namespace cpd::test {

inline constexpr uint8_t kDeviceId = 5;

/// A received packet. The header's fields are not packed, so that a test can bind references to
/// them.
struct SentPacket {
  explicit SentPacket(const CpdPacket& packet, int flags = 0);

  uint8_t magic = 0;
  uint8_t dev_id = 0;
  uint16_t cmd = 0;
  uint32_t request_id = 0;
  uint32_t packet_len = 0;
  uint8_t big_endian = 0;
  std::array<uint8_t, 3> reserved = {};
  std::string payload;    ///< as long as packet_len says, but within the buffer
  uint64_t capacity = 0;  ///< of the packet's buffer
  int flags = 0;          ///< SendPacket's second argument
};

/// A request packet that is being built.
struct Request {
  uint16_t cmd = 0;
  std::string payload = {};
  uint32_t request_id = 77;
  uint8_t dev_id = kDeviceId;

  /// Header and payload, as they are sent.
  [[nodiscard]] std::string Bytes() const;
  /// A packet whose buffer ends with the last payload byte.
  [[nodiscard]] std::unique_ptr<CpdPacket> Packet() const;
  /// The same with the buffer cut after `payload_bytes` of payload; packetLen still counts all of
  /// it.
  [[nodiscard]] std::unique_ptr<CpdPacket> CutPacket(size_t payload_bytes) const;
};

/// A packet made of a byte image, with a buffer of exactly that size.
std::unique_ptr<CpdPacket> PacketOf(std::string_view bytes);

/// The bytes of a packed record.
template <class Record>
std::string BytesOf(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

/// `bytes` with a field at `at` overwritten, as in a reply or in a hostile request.
template <class Field>
std::string Patched(std::string bytes, size_t at, Field value) {
  if (at + sizeof value > bytes.size()) throw std::out_of_range("no such field");
  std::memcpy(bytes.data() + at, &value, sizeof value);
  return bytes;
}

// ---- Replies. Decode throws std::runtime_error when the payload contradicts its lengths. ----

struct MountReply {
  std::string name;
  static MountReply Decode(const SentPacket& packet);
};

struct AttrReply {
  uint16_t attr_length = 0;
  std::string path;
  udisk_stat stat = {};  ///< zero when attr_length is 0
  static AttrReply Decode(const SentPacket& packet);
};

struct XattrReply {
  int64_t result = 0;
  int32_t value_length = 0;
  uint16_t path_length = 0;
  std::string name;
  static XattrReply Decode(const SentPacket& packet);
};

struct StatvfsReply {
  uint32_t record_length = 0;
  std::string path;
  std::vector<udisk_statvfs> records;
  static StatvfsReply Decode(const SentPacket& packet);
};

struct ReadReply {
  int64_t offset = 0;
  uint32_t unread_8 = 0;
  uint32_t result = 0;
  uint32_t unread_20 = 0;
  std::string path;
  std::string data;
  static ReadReply Decode(const SentPacket& packet);
};

struct DirEntry {
  udisk_stat stat = {};
  std::string name;
};

struct DirReply {
  std::string echoed;
  uint32_t buf_len = 0;
  uint16_t entry_count = 0;
  std::string path;
  std::string listing;  ///< buf_len bytes: the entries and the spare zero byte
  [[nodiscard]] std::vector<DirEntry> Entries() const;
  static DirReply Decode(const SentPacket& packet);
};

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

/// The entries of a listing, which must hold `count` whole ones.
std::vector<DirEntry> DecodeEntries(std::string_view listing, size_t count);
/// A listing of these entries, with the spare zero byte.
std::string EncodeEntries(const std::vector<DirEntry>& entries);

// ---- Requests. Their lengths are correct; a test edits the payload to make a hostile one. ----

struct MountRequest {
  using Reply = MountReply;
  std::string name;
  operator Request() const;
};

struct UmountRequest {
  using Reply = MountReply;
  std::string name;
  operator Request() const;
};

/// Gets no reply.
struct MountResponse {
  std::string drive;
  std::string label = {};
  operator Request() const;
};

struct AttrRequest {
  using Reply = AttrReply;
  std::string path;
  operator Request() const;
};

struct XattrRequest {
  using Reply = XattrReply;
  std::string path;
  std::string name = {};
  operator Request() const;
};

struct StatvfsRequest {
  using Reply = StatvfsReply;
  std::string path;
  operator Request() const;
};

struct ReadRequest {
  using Reply = ReadReply;
  std::string path;
  int64_t offset = 0;
  uint32_t size = 4096;
  uint32_t unread_8 = 0;
  uint32_t unread_20 = 0;
  operator Request() const;
};

struct DirReadRequest {
  using Reply = DirReply;
  std::string path;
  std::array<uint8_t, 8> echoed = {};
  operator Request() const;
};

struct CheckDirRequest {
  using Reply = DirReply;
  std::string path;
  std::string cached = {};  ///< an earlier reply's listing
  uint16_t cached_count = 0;
  std::array<uint8_t, 8> echoed = {};
  operator Request() const;
};

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
  std::optional<int32_t> size = {};  ///< the head's size, if it is not the data's length
  uint8_t marker_a = 0;
  uint8_t marker_b = 0;
  uint32_t unread_12 = 0;
  uint32_t single = 1;
  operator Request() const;
};

struct WritePiece {
  int64_t offset = 0;
  std::string data = {};
  std::optional<int32_t> length = {};  ///< the record's length, if it is not the data's length
};

/// The pieces, encoded as the data of a batch.
std::string EncodePieces(const std::vector<WritePiece>& pieces);

/// 106 in batch mode.
struct BatchWriteRequest {
  using Reply = PathReply<WriteHead>;
  std::string path;
  std::vector<WritePiece> pieces = {};
  std::string tail = {};  ///< bytes after the last piece
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

/// An id of all ones leaves the owner or group unchanged.
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
  std::string path;  ///< the existing one
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
  std::optional<uint32_t> count = {};  ///< the head's count, if it is not the number of records
  operator Request() const;
};

/// The file and the directory that the requests below name.
inline constexpr char kKnownFile[] = "/known.txt";
inline constexpr char kKnownDir[] = "/known";
/// The disk name in 100 and 101. As root a 100 makes this directory under /media.
inline constexpr char kUnlikelyDisk[] = "udisk-test-7f3a91";

struct NamedRequest {
  std::string name;  ///< its handler's
  Request request;
  /// Throws std::runtime_error when a reply's lengths contradict its payload. Null for 200, which
  /// gets no reply, and for 119 and 120, whose reply repeats the request.
  void (*check_reply)(const SentPacket&) = nullptr;
};

/// One good request for each command that is served, in the order of the codes; 106 in both modes.
/// In this order they all succeed on a disk that holds the file and the directory above, provided
/// that the mount point is set again after 100 and 101, which clear it.
std::vector<NamedRequest> OneRequestPerCommand();

}  // namespace cpd::test
