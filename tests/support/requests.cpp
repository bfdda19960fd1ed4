#include "support/requests.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace cpd::test {
namespace {

/// Reads records and texts from a payload, one after the other.
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

ReadReply TakeReadReply(Reader* in) {
  const auto head = in->Take<ReadHead>();
  return {.offset = head.offset,
          .unread_8 = head.unread_8,
          .result = head.size,
          .unread_20 = head.unread_20,
          .path = in->TakeText(head.path_length),
          .data = in->TakeText(head.size)};
}

uint16_t Length16(const std::string& text) { return static_cast<uint16_t>(text.size()); }
uint32_t Length32(const std::string& text) { return static_cast<uint32_t>(text.size()); }

Request MountLike(Command cmd, const std::string& name) {
  return {.cmd = cmd, .payload = BytesOf(MountHead{.name_length = Length16(name)}) + name};
}

template <class Head>
Request PathRequest(Command cmd, const Head& head, const std::string& path) {
  return {.cmd = cmd, .payload = BytesOf(head) + path};
}

Request RemoveLike(Command cmd, const std::string& path) {
  return PathRequest(cmd, RemoveHead{.path_length = Length16(path), .result = 0}, path);
}

Request CloseLike(Command cmd, const std::string& path, uint32_t fd) {
  return PathRequest(cmd, CloseHead{.path_length = Length32(path), .fd = fd}, path);
}

Request TwoPathsLike(Command cmd, const std::string& path, const std::string& new_path) {
  const TwoPathsHead head{
      .result = 0, .path_length = Length16(path), .new_path_length = Length16(new_path)};
  return PathRequest(cmd, head, path + new_path);
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
  // Parse copies the image and does not change it.
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
  ReadReply reply = TakeReadReply(&in);
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

TwoPathsReply TwoPathsReply::Decode(const SentPacket& packet) {
  Reader in(packet.payload);
  const auto head = in.Take<TwoPathsHead>();
  TwoPathsReply reply{.result = head.result,
                      .path = in.TakeText(head.path_length),
                      .new_path = in.TakeText(head.new_path_length)};
  in.ExpectEnd();
  return reply;
}

SmallReadReply SmallReadReply::Decode(const SentPacket& packet) {
  Reader in(packet.payload);
  SmallReadReply reply;
  const uint32_t count = in.Take<SmallReadHead>().count;
  for (uint32_t i = 0; i < count; ++i) reply.records.push_back(TakeReadReply(&in));
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

CreateRequest::operator Request() const {
  const CreateHead head{.path_length = Length32(path), .flags = flags, .mode = mode, .result = 0};
  return PathRequest(kFileCreate, head, path);
}

WriteRequest::operator Request() const {
  const WriteHead head{.offset = offset,
                       .size = size.value_or(static_cast<int32_t>(data.size())),
                       .unread_12 = unread_12,
                       .single = single,
                       .path_length = Length16(path),
                       .marker_a = marker_a,
                       .marker_b = marker_b};
  return PathRequest(kFileWrite, head, path + data);
}

std::string EncodePieces(const std::vector<WritePiece>& pieces) {
  std::string bytes;
  for (const WritePiece& piece : pieces) {
    const WritePieceHead head{
        .offset = piece.offset,
        .length = piece.length.value_or(static_cast<int32_t>(piece.data.size()))};
    bytes += BytesOf(head) + piece.data;
  }
  return bytes;
}

BatchWriteRequest::operator Request() const {
  return WriteRequest{.path = path,
                      .data = EncodePieces(pieces) + tail,
                      .marker_a = marker_a,
                      .marker_b = marker_b,
                      .single = 0};
}

TruncateRequest::operator Request() const {
  const TruncateHead head{.length = length, .path_length = Length32(path), .result = 0};
  return PathRequest(kFileTruncate, head, path);
}

FsyncRequest::operator Request() const {
  const FsyncHead head{.path_length = Length32(path), .unread_4 = unread_4, .result = 0};
  return PathRequest(kFileFsync, head, path);
}

ChmodRequest::operator Request() const {
  return PathRequest(kFileChmod,
                     ChmodHead{.result = 0, .path_length = Length16(path), .mode = mode}, path);
}

ChownRequest::operator Request() const {
  const ChownHead head{.path_length = Length32(path), .uid = uid, .gid = gid, .result = 0};
  return PathRequest(kFileChown, head, path);
}

MakeDirRequest::operator Request() const {
  return PathRequest(kMakeDir,
                     MakeDirHead{.result = 0, .path_length = Length16(path), .mode = mode}, path);
}

RemoveDirRequest::operator Request() const { return RemoveLike(kRemoveDir, path); }

LinkRequest::operator Request() const { return TwoPathsLike(kSetLink, path, new_path); }

UnlinkRequest::operator Request() const { return RemoveLike(kSetUnlink, path); }

RenameRequest::operator Request() const { return TwoPathsLike(kSetRename, path, new_path); }

FlushRequest::operator Request() const { return CloseLike(kFileFlush, path, fd); }

ReleaseRequest::operator Request() const { return CloseLike(kFileRelease, path, fd); }

SmallReadRequest::operator Request() const {
  const SmallReadHead head{.count = count.value_or(static_cast<uint32_t>(records.size()))};
  Request request{.cmd = kSmallFileRead, .payload = BytesOf(head)};
  for (const SmallRead& record : records) {
    const ReadHead record_head{.offset = record.offset,
                               .unread_8 = record.unread_8,
                               .size = record.size,
                               .path_length = Length32(record.path),
                               .unread_20 = record.unread_20};
    request.payload += BytesOf(record_head) + record.path;
  }
  return request;
}

namespace {

template <class Reply>
void CheckReply(const SentPacket& packet) {
  Reply::Decode(packet);
}

template <class Typed>
NamedRequest Answered(const Typed& typed) {
  const Request request = typed;
  return {.name = CommandName(request.cmd),
          .request = request,
          .check_reply = &CheckReply<typename Typed::Reply>};
}

NamedRequest Unchecked(const Request& request) {
  return {.name = CommandName(request.cmd), .request = request};
}

}  // namespace

std::vector<NamedRequest> OneRequestPerCommand() {
  const std::vector<DirEntry> cached = {{.stat = {}, .name = "."}, {.stat = {}, .name = "a.txt"}};
  return {
      Answered(MountRequest{.name = kUnlikelyDisk}),
      Answered(UmountRequest{.name = kUnlikelyDisk}),
      Answered(AttrRequest{.path = kKnownFile}),
      Answered(CreateRequest{.path = "/made.txt"}),
      Answered(ReadRequest{.path = kKnownFile, .offset = 1, .size = 64}),
      Answered(WriteRequest{.path = kKnownFile, .offset = 6, .data = "matter"}),
      Answered(BatchWriteRequest{
          .path = kKnownFile,
          .pieces = {{.offset = 6, .data = "con"}, {.offset = 9, .data = "tent"}}}),
      Answered(DirReadRequest{.path = kKnownDir}),
      Answered(XattrRequest{.path = kKnownFile, .name = "user.comment"}),
      Answered(TruncateRequest{.path = kKnownFile, .length = 13}),
      Answered(FsyncRequest{.path = kKnownFile}),
      Answered(ChmodRequest{.path = kKnownFile, .mode = 0755}),
      Answered(ChownRequest{.path = kKnownFile}),
      Answered(StatvfsRequest{.path = kKnownFile}),
      Answered(MakeDirRequest{.path = "/made"}),
      Answered(RemoveDirRequest{.path = "/made"}),
      Answered(LinkRequest{.path = kKnownFile, .new_path = "/linked.txt"}),
      Answered(UnlinkRequest{.path = "/linked.txt"}),
      Answered(RenameRequest{.path = "/made.txt", .new_path = "/renamed.txt"}),
      Unchecked(FlushRequest{.path = kKnownFile, .fd = 3}),
      Unchecked(ReleaseRequest{.path = kKnownFile, .fd = 3}),
      Answered(CheckDirRequest{.path = kKnownDir,
                               .cached = EncodeEntries(cached),
                               .cached_count = static_cast<uint16_t>(cached.size())}),
      Answered(SmallReadRequest{.records = {{.path = kKnownFile, .offset = 1, .size = 8},
                                            {.path = kKnownFile, .size = 5}}}),
      Unchecked(MountResponse{.drive = "U:", .label = "DISK"}),
  };
}

}  // namespace cpd::test
