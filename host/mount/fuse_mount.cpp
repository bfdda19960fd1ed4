#include "mount/fuse_mount.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

#include "mount/fuse_reply.h"
#include "remote/attributes.h"
#include "remote/periodic.h"
#include "remote/session.h"
#include "remote/statistics.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr unsigned kMostBackground = 64;
// While the line is down, each program that waits for a rename or for written data may hold one of
// libfuse's threads. One more has to read the kernel's interrupts.
constexpr unsigned kMostThreads = 1000;
constexpr ino_t kUnknownInode = 0xffffffff;  // 0 would mark a deleted entry

void Initialise(void* /*mount*/, fuse_conn_info* connection) {
  connection->max_readahead = FuseMount::kLargestRead;
  connection->max_background = kMostBackground;
  // Without this capability the kernel sends a truncating open as two requests, so that only
  // SetAttributes truncates.
  connection->want &= ~FUSE_CAP_ATOMIC_O_TRUNC;
}

/// How much data the kernel sends with a call, in bytes: only a write brings some.
template <class... Arguments>
size_t DataSize(Arguments... /*arguments*/) {
  return 0;
}
size_t DataSize(fuse_ino_t /*node*/, const char* /*data*/, size_t size, off_t /*offset*/,
                fuse_file_info* /*handle*/) {
  return size;
}

}  // namespace

// ---- Life ----

FuseMount::FuseMount(Session& session, const DiskOptions& options, KernelMount& kernel)
    : kernel_(kernel),
      session_(session),
      read_only_(options.read_only),
      writes_early_(options.early),
      gathers_writes_(options.batch),
      heeds_notices_(options.watch),
      cache_memory_(options.cache_mib),
      files_(session,
             {.on_start = [this](const auto& path, auto what) { listings_.NoteChange(path, what); },
              .on_change =
                  [this](const auto& path, auto what) {
                    listings_.NoteChange(path, what);
                    prefetch_.Forget(path);
                  },
              .on_shown = [this](const auto& path,
                                 const auto& result) { listings_.NoteShown(path, result); }}),
      listings_(files_, options.dir_cache, cache_memory_.listings),
      walk_(files_, listings_, options.prefetch, cache_memory_.walks),
      prefetch_(files_, options.prefetch, cache_memory_.prefetch),
      writes_(files_, nodes_, gate_,
              [this](NodeTable::Id node, int error) { NoteFailedWrite(node, error); }),
      reads_(
          files_, nodes_,
          [this](NodeTable::Id node, const udisk_stat& attributes) {
            return NoteRead(node, attributes);
          },
          cache_memory_.contents),
      sequential_(files_, reads_, nodes_, options.prefetch, cache_memory_.pieces),
      interruptions_([this] { return session_.IsCutOff(); }) {
  kernel_.set_server(this);
}

void FuseMount::Serve(const sigset_t& stop_signals) {
  if (fuse_set_signal_handlers(kernel_.session()) != 0) {
    throw std::runtime_error("cannot set the signal handlers");
  }
  const std::unique_ptr<fuse_loop_config, decltype(&fuse_loop_cfg_destroy)> config(
      fuse_loop_cfg_create(), &fuse_loop_cfg_destroy);
  fuse_loop_cfg_set_max_threads(config.get(), kMostThreads);
  int result = 0;
  {
    // The loop ends when its threads do, and these may wait for another line to the disk.
    const Periodic no_waiting_at_end(100ms, [this] {
      if (fuse_session_exited(kernel_.session()) != 0) session_.StopWaiting();
    });
    if (heeds_notices_) {
      session_.Listen([this](const Notice& notice) { TakeNotice(notice); });
    }
    pthread_sigmask(SIG_UNBLOCK, &stop_signals, nullptr);
    result = fuse_session_loop_mt(kernel_.session(), config.get());
  }

  // Everything under way is answered before the unmount, so that nothing replies to a mount that is
  // gone. The signals are blocked, so that a second one does not interrupt this.
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  session_.StopWaiting();
  writes_.Drain();
  RemoveHiddenFiles();
  files_.WaitForChanges();
  session_.Stop();
  interruptions_.Finish();
  kernel_.Unmount();
  fuse_remove_signal_handlers(kernel_.session());
  if (result < 0) throw std::runtime_error("the connection to the kernel failed");
}

void FuseMount::TakeNotice(const Notice& notice) {
  listings_.Take(notice);
  const bool is_change = notice.what == Notice::What::kFile || notice.what == Notice::What::kName;
  if (is_change) prefetch_.Forget(notice.path);
}

// While the session refuses requests, every thread that serves the kernel goes on at once. So this
// waits for none of them long, neither for the pass nor for the kernel's locks.
void FuseMount::ChangeDisk() {
  session_.GiveUpWhile([this] {
    NodeTable::Known known;
    {
      const auto pass = gate_.Enter();  // no request with an old path is sent after this
      writes_.LoseDisk();
      known = nodes_.ForgetDisk();
      open_files_.LoseDisk();
      reads_.ForgetAll();
      sequential_.ForgetAll();
      listings_.ForgetDisk();
      prefetch_.Forget("/");
      ++changes_;
      const std::lock_guard lock(mutex_);
      for (auto& [handle, directory] : directories_) directory = {};
    }
    InvalidateAll(known);
  });
}

/// Makes the kernel forget what it has cached.
void FuseMount::InvalidateAll(const NodeTable::Known& known) {
  auto* const session = kernel_.session();
  // When the mount is no longer served, programs hold the kernel's locks until it is gone.
  const auto is_served = [session] { return fuse_session_exited(session) == 0; };
  for (const auto& [directory, name] : known.names) {
    if (is_served()) fuse_lowlevel_notify_inval_entry(session, directory, name.data(), name.size());
  }
  for (const auto node : known.nodes) {
    if (is_served()) fuse_lowlevel_notify_inval_inode(session, node, 0, 0);
  }
}

FuseMount& FuseMount::ServerOf(fuse_req_t request) {
  return *static_cast<KernelMount*>(fuse_req_userdata(request))->server_;
}

template <auto kHandler, class... Arguments>
void FuseMount::Call(fuse_req_t request, Arguments... arguments) {
  auto& mount = ServerOf(request);
  const KernelRequest kept(request, mount.interruptions_, DataSize(arguments...));
  (mount.*kHandler)(kept, arguments...);
}

// The kernel itself refuses changes to a read-only mount, unless somebody has remounted it.
template <auto kHandler, class... Arguments>
void FuseMount::CallChange(fuse_req_t request, Arguments... arguments) {
  if (ServerOf(request).read_only_) return void(fuse_reply_err(request, EROFS));
  Call<kHandler>(request, arguments...);
}

// Operations that are missing here have no request in the protocol, so the kernel's defaults apply:
// locks hold within the mount; reserving space fails. So do calls for extended attributes, whose
// values the protocol does not carry. The kernel then stops asking for them; otherwise it would ask
// at every write.
fuse_lowlevel_ops FuseMount::Operations() {
  fuse_lowlevel_ops ops{};
  ops.init = Initialise;
  ops.lookup = Call<&FuseMount::Lookup>;
  ops.forget = Forget;
  ops.forget_multi = ForgetMany;
  ops.getattr = Call<&FuseMount::GetAttributes>;
  ops.setattr = CallChange<&FuseMount::SetAttributes>;
  ops.statfs = Call<&FuseMount::GetStatistics>;
  // The protocol shows a symbolic link but has no request that reads or makes one.
  ops.readlink = [](fuse_req_t request, fuse_ino_t) { fuse_reply_err(request, ENOTSUP); };
  ops.symlink = CallChange<&FuseMount::MakeSymbolicLink>;

  ops.create = CallChange<&FuseMount::Create>;
  ops.mknod = CallChange<&FuseMount::MakeNode>;
  ops.mkdir = CallChange<&FuseMount::MakeDirectory>;
  ops.link = CallChange<&FuseMount::Link>;
  ops.unlink = CallChange<&FuseMount::Unlink>;
  ops.rmdir = CallChange<&FuseMount::RemoveDirectory>;
  ops.rename = CallChange<&FuseMount::Rename>;

  ops.open = Call<&FuseMount::Open>;
  ops.read = Call<&FuseMount::Read>;
  ops.write = CallChange<&FuseMount::Write>;
  static_assert(std::is_same_v<decltype(ops.write), void (*)(fuse_req_t, fuse_ino_t, const char*,
                                                             size_t, off_t, fuse_file_info*)>,
                "DataSize must know the arguments of a write");
  ops.flush = Call<&FuseMount::Flush>;
  ops.fsync = CallChange<&FuseMount::Sync>;
  ops.release = Call<&FuseMount::Release>;

  ops.opendir = Call<&FuseMount::OpenDirectory>;
  // There is no readdir, so the kernel always asks for entries with their attributes.
  ops.readdirplus = Call<&FuseMount::ReadDirectory>;
  ops.releasedir = Call<&FuseMount::ReleaseDirectory>;
  return ops;
}

// Gathered writes are sent first, so that the next request finds everything written before it.
RenameGate::Pass FuseMount::Enter() {
  auto pass = gate_.Enter();
  writes_.Send();
  return pass;
}

RenameGate::Move FuseMount::BeginMove() {
  auto move = gate_.BeginMove();
  writes_.Send();
  // A follow-up request, sent when an answer arrives, names the file by its old path.
  writes_.AwaitAnswers();
  reads_.AwaitAnswers();
  listings_.AwaitAnswers();
  return move;
}

// ---- Attributes ----

void FuseMount::Lookup(const KernelRequest& request, fuse_ino_t parent, const char* name) {
  if (std::strlen(name) > NAME_MAX) return request.ReplyError(ENAMETOOLONG);
  ++savings().questions;
  const auto pass = Enter();
  const auto path = nodes_.ChildPath(parent, name);
  if (!path) return request.ReplyError(ESTALE);
  const auto reply = [this, request, parent, name = std::string(name)](
                         int error, const CheckedReads::Look& look, Asked asked) {
    if (error == ENOENT && asked) {
      // The kernel need not ask again: no node means that there is no such name.
      fuse_entry_param missing{};
      missing.entry_timeout = TrustedFor(asked);
      return void(request.ReplyEntry(missing));
    }
    if (error != 0) return request.ReplyError(error);
    const auto entry = EntryOf(parent, name, look.attributes, asked);
    // From now on the content is there for every program, and keeps its attributes.
    if (look.content != nullptr) (void)reads_.Use(entry.ino, look.content);
    second_tries_.NoteLookup(request.thread(), {parent, name}, entry.ino, look.content);
    if (!request.ReplyEntry(entry)) TakeBack(entry.ino);
  };
  if (second_tries_.Wants(request.thread(), {parent, name})) {
    return reads_.LookAndRead(
        *path, [reply](const auto& result) { reply(result.error, result.value, std::nullopt); });
  }
  const auto directory = nodes_.LastAttributes(parent);
  listings_.GetAttributes(*path,
                          {.must_ask = nodes_.IsOutdated(parent, name),
                           .directory_size = directory ? directory->st_size : 0},
                          [reply](const auto& result, Asked asked) {
                            reply(result.error, {.attributes = result.value, .content = nullptr},
                                  asked);
                          });
}

void FuseMount::Forget(fuse_req_t request, fuse_ino_t node, uint64_t references) {
  auto& mount = ServerOf(request);
  mount.interruptions_.RunWhenConcluded(
      [&mount, node, references] { mount.DropReferences(node, references); });
  fuse_reply_none(request);
}

void FuseMount::ForgetMany(fuse_req_t request, size_t count, fuse_forget_data* forgotten) {
  auto& mount = ServerOf(request);
  mount.interruptions_.RunWhenConcluded(
      [&mount, all = std::vector<fuse_forget_data>(forgotten, forgotten + count)] {
        for (const auto& each : all) mount.DropReferences(each.ino, each.nlookup);
      });
  fuse_reply_none(request);
}

void FuseMount::DropReferences(fuse_ino_t node, uint64_t references) {
  nodes_.Forget(node, references);
  if (!nodes_.LastAttributes(node)) reads_.Forget(node);
}

/// Takes back an entry that the kernel did not take.
void FuseMount::TakeBack(fuse_ino_t node) {
  NoteUntold(node);
  nodes_.Forget(node, 1);
}

/// The kernel has not heard of a file's attributes, or of a change of the file, because the program
/// that asked was interrupted: makes it ask before anything relies on what it knows.
void FuseMount::NoteUntold(fuse_ino_t node) {
  nodes_.NoteUntold(node);
  InvalidateAttributes(node);
}

void FuseMount::GetAttributes(const KernelRequest& request, fuse_ino_t node,
                              fuse_file_info* /*file*/) {
  ++savings().questions;
  const auto pass = Enter();
  const auto file = nodes_.Find(node);
  if (!file) return ReplyLostFile(request, node);
  listings_.GetAttributes(file->path,
                          {.must_ask = file->is_hidden || nodes_.IsOutdated(node),
                           .directory_size = nodes_.DirectorySize(node)},
                          [this, request, node, is_hidden = file->is_hidden](
                              const Result<udisk_stat>& result, Asked asked) {
                            ReplyAttributes(request, node, is_hidden, result, asked);
                          });
}

void FuseMount::ReplyAttributes(const KernelRequest& request, fuse_ino_t node, bool is_hidden,
                                const Result<udisk_stat>& result, Asked asked) {
  if (result.error != 0) return request.ReplyError(result.error);
  if (!Note(node, result.value, asked)) return ReplyLostFile(request, node);
  nodes_.NoteTold(node);
  struct stat attributes = ToStat(nodes_.LastAttributes(node).value_or(result.value));
  if (is_hidden) --attributes.st_nlink;
  if (!request.ReplyAttributes(attributes, TrustedFor(asked))) NoteUntold(node);
}

/// Whether a file's fetched content is at most a second old but was changed in place on the client.
/// Programs then still see that content and its attributes.
bool FuseMount::IsBeingRead(fuse_ino_t node, const udisk_stat& attributes) const {
  const auto content = reads_.Find(node);
  return content != nullptr && !IsSameContent(content->attributes, attributes) &&
         nodes_.IsSameFile(node, attributes) &&
         NodeTable::Clock::now() - content->asked <= Prefetch::kTrusted;
}

/// Whether a program has seen or changed a file's content, or is about to.
bool FuseMount::IsUsed(fuse_ino_t node) const {
  return open_files_.IsUsed(node) || second_tries_.IsFound(node);
}

/// If no program has used a file yet, its node moves on to the file that the client put in its
/// place. A program that has read the old file or can write to it must not reach the new one.
bool FuseMount::Note(fuse_ino_t node, const udisk_stat& attributes, Asked asked) {
  if (IsBeingRead(node, attributes)) return true;
  if (!IsUsed(node)) nodes_.Renew(node, attributes, asked);
  const bool is_same = nodes_.Update(node, attributes, asked);
  if (!is_same) DoubtName(node);
  return is_same;
}

/// The same for an answer that came with a read. The read may have been ahead of a program that has
/// closed the file since. The next one that opens it must not get the size that the file had.
bool FuseMount::NoteRead(fuse_ino_t node, const udisk_stat& attributes) {
  const auto before = IsUsed(node) ? std::nullopt : nodes_.LastAttributes(node);
  const bool is_same = Note(node, attributes);
  if (before) InvalidateAttributes(node, *before);
  return is_same;
}

/// Makes the kernel's next question for a file's name go to the disk.
void FuseMount::DoubtName(fuse_ino_t node) {
  const auto file = nodes_.Find(node);
  const auto name = nodes_.ReplacedName(node);
  const auto path = file   ? std::optional(file->path)
                    : name ? nodes_.ChildPath(name->first, name->second)
                           : std::nullopt;
  if (path) listings_.Doubt(*path);
}

/// The kernel's entry for a name with the attributes that the disk shows.
fuse_entry_param FuseMount::EntryOf(fuse_ino_t parent, const std::string& name,
                                    const udisk_stat& attributes, Asked asked) {
  const auto before = nodes_.NodeIfOnlyName(parent, name);
  if (before && IsBeingRead(*before, attributes)) {
    const auto last = *nodes_.LastAttributes(*before);
    return ToEntry(nodes_.Lookup(parent, name, last, asked), last, asked);
  }
  if (before && !IsUsed(*before)) nodes_.Renew(*before, attributes, asked);
  const auto node = nodes_.Lookup(parent, name, attributes, asked);
  return ToEntry(node, nodes_.LastAttributes(node).value_or(attributes), asked);
}

/// Programs that have the file open see its last attributes, with a link count of 0. So do those
/// for which the kernel has just looked the name up again. For all others, the reply makes the
/// kernel look it up now.
void FuseMount::ReplyLostFile(const KernelRequest& request, fuse_ino_t node) {
  const auto last = nodes_.LastAttributes(node);
  const bool is_found = second_tries_.HasFound(request.thread(), node);
  if (!last || !(S_ISDIR(last->st_mode) || open_files_.IsOpen(node) || is_found)) {
    return ReplyStale(request, node);
  }
  struct stat attributes = ToStat(*last);
  attributes.st_nlink = 0;
  (void)request.ReplyAttributes(attributes, kTrusted);
}

/// Makes the kernel look a file's name up again, and then repeat the call.
void FuseMount::ReplyStale(const KernelRequest& request, fuse_ino_t node) {
  DoubtName(node);
  second_tries_.Expect(request.thread(), nodes_.ReplacedName(node));
  request.ReplyError(ESTALE);
}

void FuseMount::GetStatistics(const KernelRequest& request, fuse_ino_t node) {
  const auto pass = Enter();
  const auto file = nodes_.Find(node);
  if (!file) return request.ReplyError(ESTALE);
  files_.GetStatistics(file->path, [request](const Result<udisk_statvfs>& result) {
    if (result.error != 0) return request.ReplyError(result.error);
    const auto& from = result.value;
    struct statvfs to {};
    to.f_bsize = from.f_bsize;
    to.f_frsize = from.f_frsize;
    to.f_blocks = from.f_blocks;
    to.f_bfree = from.f_bfree;
    to.f_bavail = from.f_bavail;
    to.f_files = from.f_files;
    to.f_ffree = from.f_ffree;
    to.f_favail = from.f_favail;
    to.f_namemax = from.f_namemax;
    request.ReplyStatistics(to);
  });
}

// ---- Files ----

void FuseMount::Read(const KernelRequest& request, fuse_ino_t node, size_t size, off_t offset,
                     fuse_file_info* handle) {
  const auto asked = NodeTable::Clock::now();
  auto pass = Enter();
  const auto file = nodes_.Find(node);
  auto content = reads_.Find(node);
  if (!file && content == nullptr) content = ContentAtOpen(handle->fh);
  if (!file && content == nullptr) return request.ReplyError(ESTALE);
  const auto wanted = static_cast<uint32_t>(std::min<size_t>(size, kLargestRead));
  open_files_.NoteUse(node);
  if (content != nullptr) {
    const auto bytes = content->Part(offset, wanted);
    (void)request.ReplyBytes(bytes);
  } else {
    sequential_.Read(
        node, *file, offset, wanted, asked,
        [this, request, offset, wanted, handle = handle->fh](int error, std::string_view bytes) {
          ReplyRead(request, handle, offset, wanted, error, bytes);
        });
  }
  pass.unlock();
  if (!file) return;
  const int64_t file_size = file->attributes.st_size;
  if (file_size <= ReadingRun::kLargestFile && offset + wanted >= file_size) {
    prefetch_.ReadToItsEnd(file->path);
  }
}

/// The content that a file had when a handle was opened, if that is at most a second ago. Programs
/// get it when a change has made it outdated and the client has then replaced the file.
CheckedReads::SharedContent FuseMount::ContentAtOpen(OpenFiles::Handle handle) const {
  auto content = open_files_.ContentOf(handle);
  const auto now = NodeTable::Clock::now();
  return content != nullptr && now - content->asked <= Prefetch::kTrusted ? content : nullptr;
}

void FuseMount::ReplyRead(const KernelRequest& request, OpenFiles::Handle handle, off_t offset,
                          uint32_t wanted, int error, std::string_view bytes) {
  const auto content = ContentAtOpen(handle);
  if ((error == ESTALE || error == ENOENT) && content != nullptr) {
    error = 0;
    bytes = content->Part(offset, wanted);
  } else if (error == 0 && content != nullptr &&
             !bytes.starts_with(content->Part(offset, wanted))) {
    open_files_.SetContent(handle, nullptr);  // would make a mixture with these bytes
  }
  if (error != 0) return request.ReplyError(error);
  (void)request.ReplyBytes(bytes);
}

// ---- Directories ----

void FuseMount::OpenDirectory(const KernelRequest& request, fuse_ino_t /*node*/,
                              fuse_file_info* file) {
  {
    const std::lock_guard lock(mutex_);
    file->fh = ++last_directory_;
    directories_.emplace(file->fh, OpenDirectoryListing{});
  }
  if (request.ReplyOpened(*file)) return;
  const std::lock_guard lock(mutex_);
  directories_.erase(file->fh);
}

void FuseMount::ReleaseDirectory(const KernelRequest& request, fuse_ino_t /*node*/,
                                 fuse_file_info* file) {
  interruptions_.RunWhenConcluded([this, handle = file->fh] {
    const std::lock_guard lock(mutex_);
    directories_.erase(handle);
  });
  request.ReplyError(0);
}

/// The directory is listed when it is read from its start; the rest comes from that listing.
void FuseMount::ReadDirectory(const KernelRequest& request, fuse_ino_t node, size_t size,
                              off_t position, fuse_file_info* file) {
  const auto pass = Enter();
  OpenDirectoryListing open;
  {
    const std::lock_guard lock(mutex_);
    open = directories_[file->fh];
  }
  const auto first = static_cast<size_t>(position);
  if (position != 0 && open.listing != nullptr) {
    return ReplyWithEntries(request, node, open, first, size);
  }
  const auto directory = nodes_.Find(node);
  if (!directory) return request.ReplyError(ESTALE);
  ++savings().listings;
  // The changes so far are noted, because a later change may be missing from the reply.
  walk_.List(directory->path, changes_.load(),
             [this, request, node, size, first, handle = file->fh,
              path = directory->path](const Result<WalkAhead::Shown>& result) {
               if (result.error != 0) return request.ReplyError(result.error);
               const auto& [listing, changes, asked] = result.value;
               const OpenDirectoryListing fresh{
                   .listing = listing, .changes = changes, .asked = asked};
               prefetch_.Listed(path, listing);
               {
                 const std::lock_guard lock(mutex_);
                 directories_[handle] = fresh;
               }
               ReplyWithEntries(request, node, fresh, first, size);
             });
}

/// Whether the disk has shown a file after it was listed ahead: then the listing may be older.
bool FuseMount::IsOutdated(fuse_ino_t directory, const std::string& name,
                           const OpenDirectoryListing& open) const {
  const auto node = open.asked ? nodes_.NodeIfOnlyName(directory, name) : std::nullopt;
  const auto file = node ? nodes_.Find(*node) : std::nullopt;
  return file && file->told > *open.asked;
}

/// Entry n has position n + 1, where the next read continues. After a change through the mount, the
/// attributes of an older listing would hide that change from the kernel, so only names are sent.
void FuseMount::ReplyWithEntries(const KernelRequest& request, fuse_ino_t directory,
                                 const OpenDirectoryListing& open, size_t first, size_t size) {
  const auto& entries = open.listing->entries;
  const bool is_fresh = open.changes == changes_;
  std::vector<char> buffer(size);
  size_t used = 0;
  std::vector<NodeTable::Id> referred;
  for (size_t i = first; i < entries.size(); ++i) {
    const auto& [attributes, name] = entries[i];
    auto entry = ToEntry(0, attributes);
    if (fuse_add_direntry_plus(nullptr, nullptr, 0, name.data(), &entry, 0) > size - used) break;
    if (nodes_.IsHidden(directory, std::string(name))) continue;
    if (!entries[i].HasAttributes()) {
      entry.attr.st_ino = kUnknownInode;
    } else if (name != "." && name != ".." &&  // the kernel takes no reference to dot entries
               is_fresh && !IsOutdated(directory, std::string(name), open)) {
      entry = EntryOf(directory, std::string(name), attributes, open.asked);
      referred.push_back(entry.ino);
    }
    used += fuse_add_direntry_plus(nullptr, buffer.data() + used, size - used, name.data(), &entry,
                                   static_cast<off_t>(i) + 1);
  }
  if (!request.ReplyBytes({buffer.data(), used})) {
    for (const auto node : referred) TakeBack(node);
  }
}

}  // namespace cpd::host
