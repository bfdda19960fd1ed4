#include "support/requests.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace cpd::test {
namespace {

/// Takes records and texts off the front of a payload.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : left_(bytes) {}

  template <class Record>
  Record Take() {
    Record record;
    std::memcpy(&record, TakeBytes(sizeof record).data(), sizeof record);
    return record;
  }
  std::string_view TakeBytes(size_t n) {
    if (left_.size() < n) throw std::runtime_error("reply is shorter than its fields say");
    const std::string_view taken = left_.substr(0, n);
    left_.remove_prefix(n);
    return taken;
  }
  std::string TakeText(size_t n) { return std::string(TakeBytes(n)); }
  [[nodiscard]] bool AtEnd() const { return left_.empty(); }
  void ExpectEnd() const {
    if (!AtEnd()) throw std::runtime_error("reply is longer than its fields say");
  }

 private:
  std::string_view left_;
};

uint16_t Length16(const std::string& text) { return static_cast<uint16_t>(text.size()); }
uint32_t Length32(const std::string& text) { return static_cast<uint32_t>(text.size()); }

Request MountLike(Command cmd, const std::string& name) {
  return {.cmd = cmd, .payload = BytesOf(MountHead{.name_length = Length16(name)}) + name};
}

}  // namespace

// ---- Packets ----

SentPacket::SentPacket(const CpdPacket& packet, int send_flags) : flags(send_flags) {
  if (packet.header == nullptr || packet.buffer == nullptr) return;
  const CpdPacketHeader& header = *packet.header;
  magic = header.magic;
  dev_id = header.devId;
  cmd = header.cmd;
  request_id = header.requestId;
  packet_len = header.packetLen;
  big_endian = header.bigEndian;
  std::copy(std::begin(header.reserved), std::end(header.reserved), reserved.begin());
  capacity = packet.buffer->capacity;
  const uint64_t end = std::min<uint64_t>(packet_len, capacity);
  if (end > CPD_PACKET_HEADER_SIZE) {
    payload.assign(reinterpret_cast<const char*>(packet.buffer->data) + CPD_PACKET_HEADER_SIZE,
                   end - CPD_PACKET_HEADER_SIZE);
  }
}

std::string Request::Bytes() const {
  CpdPacketHeader header = {};
  header.magic = CPD_PACKET_MAGIC;
  header.devId = dev_id;
  header.cmd = cmd;
  header.requestId = request_id;
  header.packetLen = static_cast<uint32_t>(CPD_PACKET_HEADER_SIZE + payload.size());
  return BytesOf(header) + payload;
}

std::unique_ptr<CpdPacket> Request::Packet() const { return PacketOf(Bytes()); }

std::unique_ptr<CpdPacket> Request::CutPacket(size_t payload_bytes) const {
  return PacketOf(Bytes().substr(0, CPD_PACKET_HEADER_SIZE + payload_bytes));
}

std::unique_ptr<CpdPacket> PacketOf(std::string_view bytes) {
  auto packet = std::make_unique<CpdPacket>();
  // Copied, not changed.
  auto* const image = reinterpret_cast<uint8_t*>(const_cast<char*>(bytes.data()));
  if (packet->Parse(image, static_cast<int>(bytes.size()), true) != 0) {
    throw std::runtime_error("not the image of a packet");
  }
  return packet;
}

// ---- Replies ----

MountReply MountReply::Decode(const SentPacket& packet) {
  Reader in(packet.payload);
  const auto head = in.Take<MountHead>();
  MountReply reply{.name = in.TakeText(head.name_length)};
  in.ExpectEnd();
  return reply;
}

AttrReply AttrReply::Decode(const SentPacket& packet) {
  Reader in(packet.payload);
  const auto head = in.Take<FileAttrHead>();
  AttrReply reply{.attr_length = head.attr_length, .path = in.TakeText(head.path_length)};
  if (head.attr_length != 0) reply.stat = in.Take<udisk_stat>();
  in.ExpectEnd();
  return reply;
}

XattrReply XattrReply::Decode(const SentPacket& packet) {
  Reader in(packet.payload);
  const auto head = in.Take<XattrHead>();
  XattrReply reply{.result = head.result,
                   .value_length = head.value_length,
                   .path_length = head.path_length,
                   .name = in.TakeText(head.name_length)};
  in.ExpectEnd();
  return reply;
}

StatvfsReply StatvfsReply::Decode(const SentPacket& packet) {
  Reader in(packet.payload);
  const auto head = in.Take<StatvfsHead>();
  StatvfsReply reply{
      .record_length = head.record_length, .path = in.TakeText(head.path_length), .records = {}};
  while (!in.AtEnd()) reply.records.push_back(in.Take<udisk_statvfs>());
  return reply;
}

ReadReply ReadReply::Decode(const SentPacket& packet) {
  Reader in(packet.payload);
  const auto head = in.Take<ReadHead>();
  ReadReply reply{.offset = head.offset,
                  .unread_8 = head.unread_8,
                  .result = head.size,
                  .unread_20 = head.unread_20,
                  .path = in.TakeText(head.path_length),
                  .data = in.TakeText(head.size)};
  in.ExpectEnd();
  return reply;
}

DirReply DirReply::Decode(const SentPacket& packet) {
  Reader in(packet.payload);
  const auto head = in.Take<DirHead>();
  DirReply reply{.echoed = {reinterpret_cast<const char*>(head.echoed), sizeof head.echoed},
                 .buf_len = head.buf_len,
                 .entry_count = head.entry_count,
                 .path = in.TakeText(head.path_length),
                 .listing = in.TakeText(head.buf_len)};
  in.ExpectEnd();
  return reply;
}

std::vector<DirEntry> DirReply::Entries() const { return DecodeEntries(listing, entry_count); }

std::vector<DirEntry> DecodeEntries(std::string_view listing, size_t count) {
  Reader in(listing);
  std::vector<DirEntry> entries;
  for (size_t i = 0; i < count; ++i) {
    const auto head = in.Take<udisk_dir_entry>();
    if (head.name_len == 0) throw std::runtime_error("entry without a name");
    const std::string name = in.TakeText(head.name_len);
    if (std::strlen(name.c_str()) + 1 != name.size()) {
      throw std::runtime_error("entry's name does not end with its only NUL");
    }
    entries.push_back({.stat = head.attributes, .name = name.substr(0, name.size() - 1)});
  }
  if (in.Take<uint8_t>() != 0) throw std::runtime_error("the spare byte is not zero");
  in.ExpectEnd();
  return entries;
}

std::string EncodeEntries(const std::vector<DirEntry>& entries) {
  std::string listing;
  for (const DirEntry& entry : entries) {
    listing += BytesOf(udisk_dir_entry{.attributes = entry.stat,
                                       .name_len = static_cast<uint16_t>(entry.name.size() + 1)});
    listing += entry.name + '\0';
  }
  return listing + '\0';
}

// ---- Requests ----

MountRequest::operator Request() const { return MountLike(kMountRemote, name); }

UmountRequest::operator Request() const { return MountLike(kUmountRemote, name); }

MountResponse::operator Request() const {
  const MountResponseHead head{.label_length = Length16(label), .drive_length = Length16(drive)};
  return {.cmd = kMountResponse, .payload = BytesOf(head) + drive + label};
}

AttrRequest::operator Request() const {
  const FileAttrHead head{.path_length = Length16(path), .attr_length = 0};
  return {.cmd = kGetFileAttr, .payload = BytesOf(head) + path};
}

XattrRequest::operator Request() const {
  XattrHead head = {};
  head.path_length = Length16(path);
  head.name_length = Length16(name);
  return {.cmd = kGetXattr, .payload = BytesOf(head) + path + name};
}

StatvfsRequest::operator Request() const {
  const StatvfsHead head{.path_length = Length32(path), .record_length = 0};
  return {.cmd = kGetStatvfs, .payload = BytesOf(head) + path};
}

ReadRequest::operator Request() const {
  const ReadHead head{.offset = offset,
                      .unread_8 = unread_8,
                      .size = size,
                      .path_length = Length32(path),
                      .unread_20 = unread_20};
  return {.cmd = kFileRead, .payload = BytesOf(head) + path};
}

DirReadRequest::operator Request() const {
  DirHead head = {};
  std::copy(echoed.begin(), echoed.end(), head.echoed);
  head.path_length = Length16(path);
  return {.cmd = kDirRead, .payload = BytesOf(head) + path};
}

CheckDirRequest::operator Request() const {
  DirHead head = {};
  std::copy(echoed.begin(), echoed.end(), head.echoed);
  head.buf_len = Length32(cached);
  head.path_length = Length16(path);
  head.entry_count = cached_count;
  return {.cmd = kCheckDir, .payload = BytesOf(head) + path + cached};
}

std::vector<NamedRequest> OneRequestPerCommand() {
  const std::vector<DirEntry> cached = {{.stat = {}, .name = "."}, {.stat = {}, .name = "a.txt"}};
  return {
      {"mount_remote", MountRequest{.name = kUnlikelyDisk}},
      {"umount_remote", UmountRequest{.name = kUnlikelyDisk}},
      {"get_file_attr", AttrRequest{.path = kKnownFile}},
      {"file_read", ReadRequest{.path = kKnownFile, .offset = 1, .size = 64}},
      {"dir_read", DirReadRequest{.path = kKnownDir}},
      {"get_xattr", XattrRequest{.path = kKnownFile, .name = "user.comment"}},
      {"get_statvfs", StatvfsRequest{.path = kKnownFile}},
      {"check_dir", CheckDirRequest{.path = kKnownDir,
                                    .cached = EncodeEntries(cached),
                                    .cached_count = static_cast<uint16_t>(cached.size())}},
      {"mount_response", MountResponse{.drive = "U:", .label = "DISK"}},
  };
}

}  // namespace cpd::test
