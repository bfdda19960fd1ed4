#include "remote/remote_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <optional>
#include <utility>

#include "byte_reader.h"
#include "remote/at_end.h"
#include "remote/attributes.h"
#include "remote/session.h"

namespace cpd::host {
namespace {

template <class Head>
std::unique_ptr<CpdPacket> Request(uint16_t command, const Head& head, std::string_view path,
                                   std::string_view name = {}) {
  auto request =
      std::make_unique<CpdPacket>(CPD_PACKET_HEADER_SIZE + sizeof head + path.size() + name.size());
  request->InitHeader(Session::kDeviceId, command, 0);
  request->AppendPayload(&head, sizeof head);
  request->AppendPayload(path.data(), static_cast<uint32_t>(path.size()));
  request->AppendPayload(name.data(), static_cast<uint32_t>(name.size()));
  return request;
}

/// Reads the payload of a reply; a missing reply reads as empty.
ByteReader PayloadOf(const CpdPacket* reply) {
  if (reply == nullptr || reply->header->packetLen < CPD_PACKET_HEADER_SIZE ||
      reply->header->packetLen > reply->buffer->capacity) {
    return ByteReader({});
  }
  const std::string_view bytes(reinterpret_cast<const char*>(reply->buffer->data),
                               reply->header->packetLen);
  return ByteReader(bytes.substr(CPD_PACKET_HEADER_SIZE));
}

/// Clears attributes that may belong to another file. The module does not check whether lstat
/// succeeded: after a failure, the entry has the attributes of the entry before it, or zeros if it
/// is the first. Two adjacent hard links look the same, so the second one loses its attributes,
/// too.
void DropDoubtfulAttributes(std::vector<Listing::Entry>& entries) {
  for (size_t i = entries.size(); i-- > 1;) {
    if (IsSameInode(entries[i].attributes, entries[i - 1].attributes)) entries[i].attributes = {};
  }
}

/// Makes the root its own parent, as in every file system. A confined module may not look above it.
void MakeRootItsOwnParent(std::vector<Listing::Entry>& entries) {
  const auto itself = std::ranges::find(entries, ".", &Listing::Entry::name);
  const auto parent = std::ranges::find(entries, "..", &Listing::Entry::name);
  if (itself == entries.end() || parent == entries.end()) return;
  parent->attributes = itself->attributes;
}

/// Parses a listing by its length, because its count of entries wraps at 65536. Entries that
/// vanished while the module read the directory leave zeros at the end.
std::optional<std::vector<Listing::Entry>> Entries(std::string_view listing) {
  std::vector<Listing::Entry> entries;
  ByteReader in(listing);
  while (const auto entry = in.Take<udisk_dir_entry>()) {
    if (entry->name_len == 0) break;
    const auto name = in.TakeBytes(entry->name_len);
    // A valid name has one NUL, at its end, and no separator.
    if (!name || name->size() < 2 || name->find('\0') != name->size() - 1 ||
        name->find('/') != std::string_view::npos) {
      return std::nullopt;
    }
    entries.push_back({entry->attributes, name->substr(0, name->size() - 1)});
  }
  return entries;
}

/// Removes the set-id bits: a program with them would run with its owner's rights, whoever starts
/// it on the client.
uint32_t WithoutSetId(uint32_t mode) { return mode & ~uint32_t{S_ISUID | S_ISGID}; }

template <class Head>
bool IsDone(const Head& head) {
  return head.result >= 0;
}

Result<udisk_stat> ToAttributes(const CpdPacket* reply) {
  auto in = PayloadOf(reply);
  const auto answer = in.Take<FileAttrHead>();
  if (!answer || !in.TakeBytes(answer->path_length)) return {.error = EIO};
  if (answer->attr_length == 0) return {.error = ENOENT};
  const auto attributes = in.Take<udisk_stat>();
  if (!attributes) return {.error = EIO};
  return {.value = *attributes};
}

std::optional<Listing> ToListing(std::unique_ptr<CpdPacket> reply) {
  auto in = PayloadOf(reply.get());
  const auto head = in.Take<DirHead>();
  if (!head) return std::nullopt;
  const auto path = in.TakeBytes(head->path_length);
  if (!path) return std::nullopt;
  const auto bytes = in.TakeBytes(head->buf_len);
  // A directory that could be opened lists at least itself, so an empty listing is a failure.
  if (!bytes || bytes->empty()) return std::nullopt;
  auto entries = Entries(*bytes);
  if (!entries) return std::nullopt;
  DropDoubtfulAttributes(*entries);
  if (*path == "/") MakeRootItsOwnParent(*entries);
  return Listing{.entries = std::move(*entries),
                 .announced_entries = head->entry_count,
                 .bytes = *bytes,
                 .reply = std::move(reply)};
}

/// The data of each file. The reply repeats the request's records, which must match.
std::optional<std::vector<std::string_view>> SmallFileData(const std::vector<SmallFile>& files,
                                                           const CpdPacket* reply) {
  auto in = PayloadOf(reply);
  const auto head = in.Take<SmallReadHead>();
  if (!head || head->count != files.size()) return std::nullopt;
  std::vector<std::string_view> data;
  data.reserve(files.size());
  for (const auto& file : files) {
    const auto record = in.Take<ReadHead>();
    if (!record || record->offset != 0 || record->size > file.size) return std::nullopt;
    const auto path = in.TakeBytes(record->path_length);
    const auto bytes = in.TakeBytes(record->size);
    if (path != file.path || !bytes) return std::nullopt;
    data.push_back(*bytes);
  }
  return data;
}

template <class Length>
bool Fits(std::string_view text) {
  return text.size() <= std::numeric_limits<Length>::max();
}

}  // namespace

// The reply may have more bytes than its listing.
size_t Listing::memory() const {
  const size_t received = reply == nullptr ? 0 : reply->buffer->capacity;
  return received + entries.capacity() * (sizeof(Entry) + sizeof(uint32_t));
}

void RemoteFiles::GetAttributes(const std::string& path, Done<udisk_stat> done) {
  FileAttrHead head{};
  if (!Fits<decltype(head.path_length)>(path)) return done({.error = ENAMETOOLONG});
  head.path_length = static_cast<uint16_t>(path.size());
  session_.Ask(Request(kGetFileAttr, head, path),
               [this, path, done = std::move(done)](const std::unique_ptr<CpdPacket>& reply) {
                 const auto result = ToAttributes(reply.get());
                 if (observer_.on_shown) observer_.on_shown(path, result);
                 done(result);
               });
}

void RemoteFiles::List(const std::string& path, Done<Listing> done) {
  DirHead head{};
  if (!Fits<decltype(head.path_length)>(path)) return done({.error = ENAMETOOLONG});
  head.path_length = static_cast<uint16_t>(path.size());
  session_.Ask(Request(kDirRead, head, path),
               [this, path, done = std::move(done)](std::unique_ptr<CpdPacket> reply) {
                 auto listing = ToListing(std::move(reply));
                 if (listing) return done({.value = std::move(*listing)});
                 GetAttributes(path, [done](const Result<udisk_stat>& directory) {
                   done({.error = directory.error == ENOENT ? ENOENT : EIO});
                 });
               });
}

bool RemoteFiles::CanCheck(const Listing& listing) {
  return listing.entries.size() == listing.announced_entries &&
         listing.bytes.size() <= kLongestCheck &&
         std::ranges::all_of(listing.entries, &Listing::Entry::HasAttributes);
}

void RemoteFiles::CheckDirectory(const std::string& path, const Listing& cached,
                                 Done<DirectoryCheck> done) {
  DirHead head{};
  if (!Fits<decltype(head.path_length)>(path)) return done({.error = ENAMETOOLONG});
  head.path_length = static_cast<uint16_t>(path.size());
  head.buf_len = static_cast<uint32_t>(cached.bytes.size());
  head.entry_count = static_cast<uint16_t>(cached.entries.size());
  auto answer = std::make_shared<std::unique_ptr<CpdPacket>>();
  session_.Ask(Request(kCheckDir, head, path, cached.bytes),
               [answer](std::unique_ptr<CpdPacket> reply) { *answer = std::move(reply); });
  // An unchanged directory gets no reply; only the reply to a later request proves that.
  GetAttributes(path, [answer, done = std::move(done)](const Result<udisk_stat>& directory) {
    if (*answer != nullptr) {
      auto listing = ToListing(std::move(*answer));
      if (!listing) return done({.error = EIO});
      return done({.value = {.directory = {}, .changed = std::move(listing)}});
    }
    if (directory.error != 0) return done({.error = directory.error});
    done({.value = {.directory = directory.value, .changed = std::nullopt}});
  });
}

void RemoteFiles::Read(const std::string& path, int64_t offset, uint32_t size,
                       Done<FileData> done) {
  ReadHead head{};
  head.offset = offset;
  head.size = size;
  head.path_length = static_cast<uint32_t>(path.size());
  session_.Ask(Request(kFileRead, head, path),
               [size, done = std::move(done)](std::unique_ptr<CpdPacket> reply) {
                 auto in = PayloadOf(reply.get());
                 const auto answer = in.Take<ReadHead>();
                 if (!answer || answer->size > size || !in.TakeBytes(answer->path_length)) {
                   return done({.error = EIO});
                 }
                 const auto bytes = in.TakeBytes(answer->size);
                 if (!bytes) return done({.error = EIO});
                 done({.value = {.bytes = *bytes, .reply = std::move(reply)}});
               });
}

void RemoteFiles::ReadSmallFiles(const std::vector<SmallFile>& files, Done<SmallFilesData> done) {
  size_t size = CPD_PACKET_HEADER_SIZE + sizeof(SmallReadHead);
  for (const auto& file : files) size += sizeof(ReadHead) + file.path.size();
  auto request = std::make_unique<CpdPacket>(size);
  request->InitHeader(Session::kDeviceId, kSmallFileRead, 0);
  const SmallReadHead count{static_cast<uint32_t>(files.size())};
  request->AppendPayload(&count, sizeof count);
  for (const auto& file : files) {
    ReadHead head{};
    head.size = file.size;
    head.path_length = static_cast<uint32_t>(file.path.size());
    request->AppendPayload(&head, sizeof head);
    request->AppendPayload(file.path.data(), head.path_length);
  }
  session_.Ask(std::move(request),
               [files, done = std::move(done)](std::unique_ptr<CpdPacket> reply) {
                 auto data = SmallFileData(files, reply.get());
                 if (!data) return done({.error = EIO});
                 done({.value = {.bytes = std::move(*data), .reply = std::move(reply)}});
               });
}

void RemoteFiles::GetStatistics(const std::string& path, Done<udisk_statvfs> done) {
  StatvfsHead head{};
  head.path_length = static_cast<uint32_t>(path.size());
  session_.Ask(Request(kGetStatvfs, head, path),
               [done = std::move(done)](std::unique_ptr<CpdPacket> reply) {
                 auto in = PayloadOf(reply.get());
                 const auto answer = in.Take<StatvfsHead>();
                 if (!answer || !in.TakeBytes(answer->path_length)) return done({.error = EIO});
                 // The first record counts if there are several volumes.
                 const auto statistics = in.Take<udisk_statvfs>();
                 if (!statistics) return done({.error = EIO});
                 done({.value = *statistics});
               });
}

void RemoteFiles::HasExtendedAttribute(const std::string& path, const std::string& name,
                                       Done<bool> done) {
  XattrHead head{};
  if (!Fits<decltype(head.path_length)>(path)) return done({.error = ENAMETOOLONG});
  if (!Fits<decltype(head.name_length)>(name)) return done({.error = ERANGE});
  head.path_length = static_cast<uint16_t>(path.size());
  head.name_length = static_cast<uint16_t>(name.size());
  session_.Ask(Request(kGetXattr, head, path, name),
               [done = std::move(done)](std::unique_ptr<CpdPacket> reply) {
                 const auto answer = PayloadOf(reply.get()).Take<XattrHead>();
                 if (!answer) return done({.error = EIO});
                 done({.value = answer->value_length > 0});
               });
}

// ---- What changes the disk ----

template <class Head, class IsDone>
void RemoteFiles::Change(std::unique_ptr<CpdPacket> request, IsDone is_done, OnOutcome on_outcome,
                         const std::optional<udisk_stat>& before) {
  ++unanswered_;
  session_.Ask(
      std::move(request),
      [this, is_done, on_outcome = std::move(on_outcome)](const std::unique_ptr<CpdPacket>& reply) {
        const AtEnd answered([this] {
          if (--unanswered_ == 0) unanswered_.notify_all();
        });
        const auto answer = PayloadOf(reply.get()).Take<Head>();
        on_outcome(!answer            ? Outcome::kUnanswered
                   : is_done(*answer) ? Outcome::kDone
                                      : Outcome::kRefused);
      },
      before);
}

void RemoteFiles::Create(const std::string& path, uint32_t mode, OnOutcome on_outcome) {
  CreateHead head{};
  head.path_length = static_cast<uint32_t>(path.size());
  head.mode = WithoutSetId(mode);
  TellStart(path, ChangeOf::kName);
  Change<CreateHead>(Request(kFileCreate, head, path), IsDone<CreateHead>,
                     ThenTell(path, ChangeOf::kName, std::move(on_outcome)));
}

void RemoteFiles::Write(const std::string& path, int64_t offset, std::string_view data,
                        OnOutcome on_outcome) {
  WriteHead head{};
  head.offset = offset;
  head.single = 1;
  Write(head, path, data, std::move(on_outcome));
}

void RemoteFiles::WriteBatch(const std::string& path, std::string_view pieces,
                             OnOutcome on_outcome) {
  Write(WriteHead{}, path, pieces, std::move(on_outcome));
}

void RemoteFiles::Truncate(const std::string& path, uint64_t size, OnOutcome on_outcome) {
  TruncateHead head{};
  head.length = size;
  head.path_length = static_cast<uint32_t>(path.size());
  TellStart(path, ChangeOf::kFile);
  Change<TruncateHead>(Request(kFileTruncate, head, path), IsDone<TruncateHead>,
                       ThenTell(path, ChangeOf::kFile, std::move(on_outcome)));
}

void RemoteFiles::Sync(const std::string& path, OnOutcome on_outcome) {
  FsyncHead head{};
  head.path_length = static_cast<uint32_t>(path.size());
  Change<FsyncHead>(Request(kFileFsync, head, path), IsDone<FsyncHead>, std::move(on_outcome));
}

void RemoteFiles::ChangeMode(const std::string& path, uint32_t mode, OnOutcome on_outcome) {
  ChmodHead head{};
  if (!Fits<decltype(head.path_length)>(path)) return on_outcome(Outcome::kRefused);
  head.path_length = static_cast<uint16_t>(path.size());
  head.mode = static_cast<uint16_t>(WithoutSetId(mode));
  TellStart(path, ChangeOf::kFile);
  Change<ChmodHead>(Request(kFileChmod, head, path), IsDone<ChmodHead>,
                    ThenTell(path, ChangeOf::kFile, std::move(on_outcome)));
}

void RemoteFiles::ChangeOwner(const std::string& path, uint32_t owner, uint32_t group,
                              OnOutcome on_outcome) {
  ChownHead head{};
  head.path_length = static_cast<uint32_t>(path.size());
  head.uid = owner;
  head.gid = group;
  TellStart(path, ChangeOf::kFile);
  Change<ChownHead>(Request(kFileChown, head, path), IsDone<ChownHead>,
                    ThenTell(path, ChangeOf::kFile, std::move(on_outcome)));
}

void RemoteFiles::MakeDirectory(const std::string& path, uint32_t mode, OnOutcome on_outcome) {
  MakeDirHead head{};
  if (!Fits<decltype(head.path_length)>(path)) return on_outcome(Outcome::kRefused);
  head.path_length = static_cast<uint16_t>(path.size());
  head.mode = static_cast<int16_t>(WithoutSetId(mode));
  TellStart(path, ChangeOf::kName);
  Change<MakeDirHead>(Request(kMakeDir, head, path), IsDone<MakeDirHead>,
                      ThenTell(path, ChangeOf::kName, std::move(on_outcome)));
}

void RemoteFiles::RemoveDirectory(const std::string& path, OnOutcome on_outcome,
                                  const std::optional<udisk_stat>& before) {
  Remove(kRemoveDir, path, std::move(on_outcome), before);
}

void RemoteFiles::Unlink(const std::string& path, OnOutcome on_outcome,
                         const std::optional<udisk_stat>& before) {
  Remove(kSetUnlink, path, std::move(on_outcome), before);
}

void RemoteFiles::Link(const std::string& path, const std::string& new_path, OnOutcome on_outcome) {
  LinkOrRename(kSetLink, path, new_path, std::move(on_outcome), std::nullopt);
}

void RemoteFiles::Rename(const std::string& path, const std::string& new_path, OnOutcome on_outcome,
                         const std::optional<udisk_stat>& before) {
  LinkOrRename(kSetRename, path, new_path, std::move(on_outcome), before);
}

void RemoteFiles::Flush(const std::string& path, OnOutcome on_outcome) {
  FlushOrRelease(kFileFlush, path, std::move(on_outcome));
}

void RemoteFiles::Release(const std::string& path, OnOutcome on_outcome) {
  FlushOrRelease(kFileRelease, path, std::move(on_outcome));
}

void RemoteFiles::Write(WriteHead head, const std::string& path, std::string_view data,
                        OnOutcome on_outcome) {
  if (!Fits<decltype(head.path_length)>(path)) return on_outcome(Outcome::kRefused);
  head.size = static_cast<int32_t>(data.size());
  head.path_length = static_cast<uint16_t>(path.size());
  const auto is_done = [size = head.size](const WriteHead& answer) { return answer.size == size; };
  TellStart(path, ChangeOf::kFile);
  Change<WriteHead>(Request(kFileWrite, head, path, data), is_done,
                    ThenTell(path, ChangeOf::kFile, std::move(on_outcome)));
}

RemoteFiles::OnOutcome RemoteFiles::ThenTell(const std::string& path, ChangeOf what,
                                             OnOutcome on_outcome) const {
  return [this, path, what, on_outcome = std::move(on_outcome)](Outcome outcome) {
    if (observer_.on_change) observer_.on_change(path, what);
    on_outcome(outcome);
  };
}

void RemoteFiles::TellStart(const std::string& path, ChangeOf what) const {
  if (observer_.on_start) observer_.on_start(path, what);
}

void RemoteFiles::WaitForChanges() const {
  for (int left = unanswered_; left != 0; left = unanswered_) unanswered_.wait(left);
}

std::chrono::nanoseconds RemoteFiles::TimeOfAnswer() const { return session_.time_of_answer(); }

std::chrono::nanoseconds RemoteFiles::Transit() const { return session_.transit(); }

Savings& RemoteFiles::savings() const { return session_.savings(); }

std::chrono::steady_clock::time_point RemoteFiles::told_until() const {
  return session_.told_until();
}

bool RemoteFiles::IsFar() const { return round_trip() >= std::chrono::milliseconds(1); }

std::chrono::nanoseconds RemoteFiles::round_trip() const { return session_.round_trip(); }

void RemoteFiles::Remove(uint16_t command, const std::string& path, OnOutcome on_outcome,
                         const std::optional<udisk_stat>& before) {
  RemoveHead head{};
  if (!Fits<decltype(head.path_length)>(path)) return on_outcome(Outcome::kRefused);
  head.path_length = static_cast<uint16_t>(path.size());
  TellStart(path, ChangeOf::kName);
  Change<RemoveHead>(Request(command, head, path), IsDone<RemoveHead>,
                     ThenTell(path, ChangeOf::kName, std::move(on_outcome)), before);
}

void RemoteFiles::LinkOrRename(uint16_t command, const std::string& path,
                               const std::string& new_path, OnOutcome on_outcome,
                               const std::optional<udisk_stat>& before) {
  TwoPathsHead head{};
  if (!Fits<decltype(head.path_length)>(path) || !Fits<decltype(head.new_path_length)>(new_path)) {
    return on_outcome(Outcome::kRefused);
  }
  head.path_length = static_cast<uint16_t>(path.size());
  head.new_path_length = static_cast<uint16_t>(new_path.size());
  TellStart(path, ChangeOf::kName);
  TellStart(new_path, ChangeOf::kName);
  Change<TwoPathsHead>(
      Request(command, head, path, new_path), IsDone<TwoPathsHead>,
      ThenTell(path, ChangeOf::kName, ThenTell(new_path, ChangeOf::kName, std::move(on_outcome))),
      before);
}

void RemoteFiles::FlushOrRelease(uint16_t command, const std::string& path, OnOutcome on_outcome) {
  CloseHead head{};
  head.path_length = static_cast<uint32_t>(path.size());
  const auto always = [](const CloseHead&) { return true; };
  Change<CloseHead>(Request(command, head, path), always, std::move(on_outcome));
}

}  // namespace cpd::host
