#include "support/write_requests.h"

#include <string_view>

namespace cpd::test {
namespace {

uint16_t Length16(const std::string& text) { return static_cast<uint16_t>(text.size()); }
uint32_t Length32(const std::string& text) { return static_cast<uint32_t>(text.size()); }

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

std::string_view TakeBytes(std::string_view* left, size_t n) {
  if (left->size() < n) throw std::runtime_error("reply is shorter than its fields say");
  const std::string_view taken = left->substr(0, n);
  left->remove_prefix(n);
  return taken;
}

template <class Head>
Head TakeHead(std::string_view* left) {
  Head head;
  std::memcpy(&head, TakeBytes(left, sizeof head).data(), sizeof head);
  return head;
}

}  // namespace

// ---- Replies ----

TwoPathsReply TwoPathsReply::Decode(const SentPacket& packet) {
  std::string_view left = packet.payload;
  const auto head = TakeHead<TwoPathsHead>(&left);
  TwoPathsReply reply{.result = head.result,
                      .path = std::string(TakeBytes(&left, head.path_length)),
                      .new_path = std::string(TakeBytes(&left, head.new_path_length))};
  if (!left.empty()) throw std::runtime_error("reply is longer than its fields say");
  return reply;
}

SmallReadReply SmallReadReply::Decode(const SentPacket& packet) {
  std::string_view left = packet.payload;
  SmallReadReply reply;
  const uint32_t count = TakeHead<SmallReadHead>(&left).count;
  for (uint32_t i = 0; i < count; ++i) {
    const auto head = TakeHead<ReadHead>(&left);
    reply.records.push_back({.offset = head.offset,
                             .unread_8 = head.unread_8,
                             .result = head.size,
                             .unread_20 = head.unread_20,
                             .path = std::string(TakeBytes(&left, head.path_length)),
                             .data = std::string(TakeBytes(&left, head.size))});
  }
  if (!left.empty()) throw std::runtime_error("reply is longer than its fields say");
  return reply;
}

// ---- Requests ----

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

std::vector<NamedRequest> OneWriteRequestPerCommand() {
  return {
      {"file_create", CreateRequest{.path = "/made.txt"}},
      {"file_write", WriteRequest{.path = kKnownFile, .offset = 6, .data = "matter"}},
      {"file_write",
       BatchWriteRequest{.path = kKnownFile,
                         .pieces = {{.offset = 6, .data = "con"}, {.offset = 9, .data = "tent"}}}},
      {"file_truncate", TruncateRequest{.path = kKnownFile, .length = 13}},
      {"file_fsync", FsyncRequest{.path = kKnownFile}},
      {"file_chmod", ChmodRequest{.path = kKnownFile, .mode = 0755}},
      {"file_chown", ChownRequest{.path = kKnownFile}},
      {"make_dir", MakeDirRequest{.path = "/made"}},
      {"remove_dir", RemoveDirRequest{.path = "/made"}},
      {"set_link", LinkRequest{.path = kKnownFile, .new_path = "/linked.txt"}},
      {"set_unlink", UnlinkRequest{.path = "/linked.txt"}},
      {"set_rename", RenameRequest{.path = "/made.txt", .new_path = "/renamed.txt"}},
      {"file_flush", FlushRequest{.path = kKnownFile, .fd = 3}},
      {"file_release", ReleaseRequest{.path = kKnownFile, .fd = 3}},
      {"small_file_read", SmallReadRequest{.records = {{.path = kKnownFile, .offset = 1, .size = 8},
                                                       {.path = kKnownFile, .size = 5}}}},
  };
}

}  // namespace cpd::test
