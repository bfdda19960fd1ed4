#include "remote/recovery.h"

#include <cstring>

#include "remote/attributes.h"

namespace cpd::host {
namespace {

/// The head of a request that this program made.
template <class Head>
Head HeadOf(const CpdPacket& request) {
  Head head;
  std::memcpy(&head, request.buffer->data + CPD_PACKET_HEADER_SIZE, sizeof head);
  return head;
}

template <class Head>
std::string_view TextAfter(const CpdPacket& request, size_t offset, size_t length) {
  const auto* const start = request.buffer->data + CPD_PACKET_HEADER_SIZE + sizeof(Head) + offset;
  return {reinterpret_cast<const char*>(start), length};
}

/// Some file systems give a file a new inode number when it is looked up anew.
bool IsSameFile(const udisk_stat& a, const udisk_stat& b) {
  return a.st_ino == b.st_ino || (a.st_size == b.st_size && IsSameTime(a.st_mtim, b.st_mtim));
}

using Found = std::optional<udisk_stat>;

bool WasRemoved(const Found& before, const Found& now) {
  return !now || (before && !IsSameFile(*before, *now));
}

bool WasLinked(const Found& target, const Found& name) {
  return target && name && target->st_ino == name->st_ino;
}

bool WasRenamed(const Found& before, const Found& old_name, const Found& new_name) {
  if (!new_name) return false;
  if (!old_name) return true;
  // Somebody else may have made a new file with the old name meanwhile.
  return before && IsSameFile(*before, *new_name) && !IsSameFile(*before, *old_name);
}

}  // namespace

bool IsUnrepeatable(uint16_t command) { return command == kFileCreate || IsSentAlone(command); }

// A directory that exists counts as made, so kMakeDir can be repeated.
bool IsSentAlone(uint16_t command) {
  return command == kRemoveDir || command == kSetLink || command == kSetUnlink ||
         command == kSetRename;
}

std::vector<std::string_view> PathsToLookAt(const CpdPacket& request) {
  switch (request.header->cmd) {
    case kFileCreate:
      return {TextAfter<CreateHead>(request, 0, HeadOf<CreateHead>(request).path_length)};
    case kRemoveDir:
    case kSetUnlink:
      return {TextAfter<RemoveHead>(request, 0, HeadOf<RemoveHead>(request).path_length)};
    case kSetLink:
    case kSetRename: {
      const auto head = HeadOf<TwoPathsHead>(request);
      return {TextAfter<TwoPathsHead>(request, 0, head.path_length),
              TextAfter<TwoPathsHead>(request, head.path_length, head.new_path_length)};
    }
    default:
      return {};
  }
}

std::unique_ptr<CpdPacket> LostReply(const CpdPacket& request, const Found& before,
                                     const std::vector<Found>& found) {
  bool was_done = false;
  switch (request.header->cmd) {
    case kFileCreate:
      was_done = found[0].has_value();
      break;
    case kRemoveDir:
    case kSetUnlink:
      was_done = WasRemoved(before, found[0]);
      break;
    case kSetLink:
      was_done = WasLinked(found[0], found[1]);
      break;
    case kSetRename:
      was_done = WasRenamed(before, found[0], found[1]);
      break;
    default:
      break;
  }
  // The reply to a success is the request itself: results are 0 in both.
  return was_done ? std::unique_ptr<CpdPacket>(request.Clone()) : nullptr;
}

}  // namespace cpd::host
