// Requests as the remote side builds them, and the replies as it reads them. No test framework in
// here, so that benches and fuzzers can use it too.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cpd/packet.h"
#include "wire.h"

namespace cpd::test {

inline constexpr uint8_t kDeviceId = 5;

/// A received packet; the header's fields without packing, so that a test can bind them.
struct SentPacket {
  explicit SentPacket(const CpdPacket& packet, int flags = 0);

  uint8_t magic = 0;
  uint8_t dev_id = 0;
  uint16_t cmd = 0;
  uint32_t request_id = 0;
  uint32_t packet_len = 0;
  uint8_t big_endian = 0;
  std::array<uint8_t, 3> reserved = {};
  std::string payload;    ///< what packet_len says, within the buffer
  uint64_t capacity = 0;  ///< of the packet's buffer
  int flags = 0;          ///< SendPacket's second argument
};

/// A request packet in the making.
struct Request {
  uint16_t cmd = 0;
  std::string payload = {};
  uint32_t request_id = 77;
  uint8_t dev_id = kDeviceId;

  /// Header and payload, as they travel.
  [[nodiscard]] std::string Bytes() const;
  /// A packet whose buffer ends with the last payload byte.
  [[nodiscard]] std::unique_ptr<CpdPacket> Packet() const;
  /// The same with the buffer cut after `payload_bytes` of payload; packetLen goes on promising
  /// all.
  [[nodiscard]] std::unique_ptr<CpdPacket> CutPacket(size_t payload_bytes) const;
};

/// A packet made of a byte image, with a buffer of exactly that size.
std::unique_ptr<CpdPacket> PacketOf(std::string_view bytes);

/// The bytes of a packed record.
template <class Record>
std::string BytesOf(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

// ---- Replies. Decode throws std::runtime_error when the payload does not hold what it says. ----

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

/// The entries of a listing, which must walk cleanly.
std::vector<DirEntry> DecodeEntries(std::string_view listing, size_t count);
/// A listing of such entries, with the spare zero byte.
std::string EncodeEntries(const std::vector<DirEntry>& entries);

// ---- Requests. Lengths are those of the texts; hostile ones are made by editing the payload. ----

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

/// What the requests below name on the disk.
inline constexpr char kKnownFile[] = "/known.txt";
inline constexpr char kKnownDir[] = "/known";
/// The disk name in 100 and 101. As root a 100 makes this directory under /media.
inline constexpr char kUnlikelyDisk[] = "udisk-test-7f3a91";

struct NamedRequest {
  std::string name;  ///< its handler's
  Request request;
};

/// One good request for each command that is served, in the order of the codes.
std::vector<NamedRequest> OneRequestPerCommand();

}  // namespace cpd::test
