#include "capture/heads.h"

#include <algorithm>
#include <array>

#include "wire.h"

namespace cpd::host {
namespace {

/// A number in a head.
struct Field {
  size_t offset = 0;
  size_t width = 0;  ///< 0 = there is none
};

struct Head {
  uint16_t command;
  size_t length;
  Field path_length;
  Field result = {};
};

#define FIELD(head, field) \
  Field { offsetof(head, field), sizeof(head::field) }

constexpr auto kHeads = std::to_array<Head>({
    {kMountRemote, sizeof(MountHead), FIELD(MountHead, name_length)},
    {kUmountRemote, sizeof(MountHead), FIELD(MountHead, name_length)},
    {kGetFileAttr, sizeof(FileAttrHead), FIELD(FileAttrHead, path_length)},
    {kFileCreate, sizeof(CreateHead), FIELD(CreateHead, path_length), FIELD(CreateHead, result)},
    {kFileRead, sizeof(ReadHead), FIELD(ReadHead, path_length)},
    {kFileWrite, sizeof(WriteHead), FIELD(WriteHead, path_length)},
    {kDirRead, sizeof(DirHead), FIELD(DirHead, path_length)},
    {kGetXattr, sizeof(XattrHead), FIELD(XattrHead, path_length)},
    {kFileTruncate, sizeof(TruncateHead), FIELD(TruncateHead, path_length),
     FIELD(TruncateHead, result)},
    {kFileFsync, sizeof(FsyncHead), FIELD(FsyncHead, path_length), FIELD(FsyncHead, result)},
    {kFileChmod, sizeof(ChmodHead), FIELD(ChmodHead, path_length), FIELD(ChmodHead, result)},
    {kFileChown, sizeof(ChownHead), FIELD(ChownHead, path_length), FIELD(ChownHead, result)},
    {kGetStatvfs, sizeof(StatvfsHead), FIELD(StatvfsHead, path_length)},
    {kMakeDir, sizeof(MakeDirHead), FIELD(MakeDirHead, path_length), FIELD(MakeDirHead, result)},
    {kRemoveDir, sizeof(RemoveHead), FIELD(RemoveHead, path_length), FIELD(RemoveHead, result)},
    {kSetLink, sizeof(TwoPathsHead), FIELD(TwoPathsHead, path_length), FIELD(TwoPathsHead, result)},
    {kSetUnlink, sizeof(RemoveHead), FIELD(RemoveHead, path_length), FIELD(RemoveHead, result)},
    {kSetRename, sizeof(TwoPathsHead), FIELD(TwoPathsHead, path_length),
     FIELD(TwoPathsHead, result)},
    {kFileFlush, sizeof(CloseHead), FIELD(CloseHead, path_length)},
    {kFileRelease, sizeof(CloseHead), FIELD(CloseHead, path_length)},
    {kCheckDir, sizeof(DirHead), FIELD(DirHead, path_length)},
    // Preceded by the count.
    {kSmallFileRead,
     sizeof(SmallReadHead) + sizeof(ReadHead),
     {sizeof(SmallReadHead) + offsetof(ReadHead, path_length), sizeof(ReadHead::path_length)}},
});

#undef FIELD

// Without a head that has a path: 104, 122, 200.
static_assert(kHeads.size() + 3 == kCommandNames.size(), "a command has no row here");
static_assert(std::ranges::is_sorted(kHeads, {}, &Head::command));

const Head* HeadOf(std::string_view packet) {
  const uint16_t command = HeaderOf(packet).cmd;
  const auto* const row = std::ranges::lower_bound(kHeads, command, {}, &Head::command);
  return row != kHeads.end() && row->command == command ? row : nullptr;
}

uint64_t Unsigned(std::string_view packet, const Field& field) {
  const size_t offset = CPD_PACKET_HEADER_SIZE + field.offset;
  return field.width == 2 ? RecordAt<uint16_t>(packet, offset) : RecordAt<uint32_t>(packet, offset);
}

/// Where the path ends, within the packet.
size_t EndOfPath(std::string_view packet, const Head& head) {
  const uint64_t end = CPD_PACKET_HEADER_SIZE + head.length + Unsigned(packet, head.path_length);
  return static_cast<size_t>(std::min<uint64_t>(end, packet.size()));
}

}  // namespace

std::string_view PathOf(std::string_view packet) {
  const Head* const head = HeadOf(packet);
  const size_t begin = CPD_PACKET_HEADER_SIZE + (head == nullptr ? 0 : head->length);
  if (head == nullptr || packet.size() < begin) return {};
  return packet.substr(begin, EndOfPath(packet, *head) - begin);
}

std::optional<int64_t> ResultOf(std::string_view packet) {
  const Head* const head = HeadOf(packet);
  if (head == nullptr || head->result.width == 0) return std::nullopt;
  const uint64_t result = Unsigned(packet, head->result);
  if (head->result.width == 2) return static_cast<int16_t>(result);
  return static_cast<int32_t>(result);
}

size_t LengthWithoutData(std::string_view packet, Way way) {
  switch (HeaderOf(packet).cmd) {
    case kSmallFileRead:
      if (way == Way::kToModule) return packet.size();
      [[fallthrough]];
    case kFileRead:
    case kFileWrite:
    case kDirRead:
    case kFileFlush:
    case kFileRelease:
    case kCheckDir:
      return EndOfPath(packet, *HeadOf(packet));
    default:
      return packet.size();
  }
}

}  // namespace cpd::host
