// The mount's operations on files: opening, writing, syncing, closing, changing attributes.
#include <fcntl.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

#include "cpd/log.h"
#include "mount/fuse_mount.h"
#include "mount/fuse_reply.h"
#include "remote/attributes.h"
#include "remote/file_size.h"
#include "remote/mode_guard.h"
#include "remote/session.h"

namespace cpd::host {

using Kind = Attempt::Kind;

namespace {

// How often an append follows a file that is replaced again and again.
constexpr int kMostMoves = 100;

// Attributes of at most this age were requested by the same open call, and can be trusted.
constexpr std::chrono::milliseconds kJustNow{20};

bool IsSmall(const NodeTable::File& file) {
  return file.attributes.st_size > 0 && file.attributes.st_size <= CheckedReads::kLargestContent;
}

}  // namespace

void FuseMount::Open(const KernelRequest& request, fuse_ino_t node, fuse_file_info* handle) {
  auto pass = Enter();
  sequential_.Forget(node);  // a program gets what the disk has when the program opens the file
  const bool only_reads = (handle->flags & O_ACCMODE) == O_RDONLY;
  handle->noflush = only_reads ? 1 : 0;
  const auto found = second_tries_.Take(request.thread(), node);
  if (found && OpenAsFound(request, node, *handle, *found)) return;
  const auto file = nodes_.Find(node);
  if (!file) return ReplyStale(request, node);
  // What a second look-up has found, and no program has opened, grows old.
  if (!open_files_.IsOpen(node) && !second_tries_.IsFound(node)) reads_.Forget(node);
  handle->keep_cache = only_reads && StoreAhead(node, *file) ? 1 : 0;
  const bool is_ahead = handle->keep_cache != 0;
  const auto looked_up = nodes_.TakeLookup(node);
  const bool is_fresh = IsFresh(node, *file, only_reads, looked_up);
  // Content that is already on its way is waited for.
  const bool fetches = only_reads && !is_fresh && IsSmall(*file);
  if (!is_ahead && !fetches) prefetch_.Forget(file->path);
  handle->fh = open_files_.Open(node);
  if (is_ahead) {
    open_files_.NoteUse(node);  // what is in the kernel's cache is as good as read
    ReplyOpened(request, node, *handle, 0);
    pass.unlock();
    prefetch_.ReadToItsEnd(file->path);
  } else if (is_fresh) {
    open_files_.SetContent(handle->fh, reads_.Find(node));
    ReplyOpened(request, node, *handle, 0);
  } else if (fetches) {
    FetchContent(request, node, *file, *handle);
    pass.unlock();
    prefetch_.ReadToItsEnd(file->path);
  } else {
    CheckFile(request, node, *file, *handle, found.has_value());
  }
}

/// Opens a file as the kernel's second try has found it, if that needs no further request.
bool FuseMount::OpenAsFound(const KernelRequest& request, fuse_ino_t node,
                            const fuse_file_info& handle, const SecondTries::Found& found) {
  const bool only_reads = (handle.flags & O_ACCMODE) == O_RDONLY;
  const bool has_content =
      only_reads && found.content != nullptr && reads_.Use(node, found.content);
  const bool moves_on = !only_reads && (handle.flags & O_APPEND) != 0 && nodes_.ReplacedName(node);
  if (!has_content && !moves_on) return false;
  auto opened = handle;
  opened.fh = open_files_.Open(node);
  if (has_content) {
    open_files_.NoteUse(node);
    open_files_.SetContent(opened.fh, found.content);
    InvalidateAttributes(node, found.content->attributes);
  }
  ReplyOpened(request, node, opened, 0);
  return true;
}

/// Whether a file can be opened without asking the disk. A small file that is opened for reading is
/// always fetched unless its content is there: that request costs no more, and saves the reads. A
/// writer needs attributes that its own open call asked for: another program's may be outdated.
bool FuseMount::IsFresh(fuse_ino_t node, const NodeTable::File& file, bool only_reads,
                        NodeTable::Clock::time_point looked_up) const {
  const auto now = NodeTable::Clock::now();
  const auto content = reads_.Find(node);
  // Content that programs read hides changes that were made in place.
  if (content != nullptr) return only_reads && now - content->asked <= Prefetch::kTrusted;
  if (only_reads && IsSmall(file)) return false;
  return now - (only_reads ? file.told : looked_up) <= kJustNow;
}

/// Opens a small file and fetches its content.
void FuseMount::FetchContent(const KernelRequest& request, fuse_ino_t node,
                             const NodeTable::File& file, const fuse_file_info& handle) {
  const auto ahead = [this](const NodeTable::File& wanted, CheckedReads::Arrived arrived) {
    if (prefetch_.Await(wanted.path, wanted.attributes, std::move(arrived))) return true;
    prefetch_.Forget(wanted.path);  // would be older than what comes now
    return false;
  };
  reads_.Fetch(node, file, ahead,
               [this, request, node, handle, before = file.attributes](
                   int error, CheckedReads::SharedContent content) {
                 if (error == 0) open_files_.NoteUse(node);
                 open_files_.SetContent(handle.fh, std::move(content));
                 InvalidateAttributes(node, before);
                 ReplyOpened(request, node, handle, error);
               });
}

/// Opens a file if the disk still shows it. If another file has taken its place and the node cannot
/// move on to it, ESTALE makes the kernel look the name up again and open what it finds. A writer
/// also needs that if the file has another size: the kernel would append at the size that it knows.
/// @param is_retry  the kernel has just looked the name up again, and would not do so once more
void FuseMount::CheckFile(const KernelRequest& request, fuse_ino_t node,
                          const NodeTable::File& file, const fuse_file_info& handle,
                          bool is_retry) {
  files_.GetAttributes(file.path, [this, request, node, handle, is_retry,
                                   before = file.attributes](const Result<udisk_stat>& result) {
    const bool only_reads = (handle.flags & O_ACCMODE) == O_RDONLY;
    int error = result.error;
    if (error == 0 && only_reads) {
      error = Note(node, result.value) ? 0 : ESTALE;
    } else if (error == 0) {
      // A writer needs the file that the disk has now, not the content that readers still see.
      const auto known = nodes_.Find(node);
      const bool is_known = known && known->kernel_size == result.value.st_size;
      const bool is_same = nodes_.Update(node, result.value);
      const bool moves_on = (handle.flags & O_APPEND) != 0;  // with its first write
      const bool is_good = is_retry ? is_same || moves_on : is_same && is_known;
      error = is_good ? 0 : ESTALE;
    }
    InvalidateAttributes(node, before);
    ReplyOpened(request, node, handle, error);
  });
}

/// Makes the kernel ask for a file's attributes again if they have changed. This leaves cached data
/// alone and thus never waits, so a thread that delivers replies may call it.
void FuseMount::InvalidateAttributes(fuse_ino_t node, const udisk_stat& before) {
  const auto now = nodes_.LastAttributes(node);
  if (!now || (IsSameContent(*now, before) && !nodes_.IsRenewed(node))) return;
  InvalidateAttributes(node);
}

void FuseMount::InvalidateAttributes(fuse_ino_t node) {
  fuse_lowlevel_notify_inval_inode(kernel_.session(), node, -1, 0);
}

void FuseMount::ReplyOpened(const KernelRequest& request, fuse_ino_t node, fuse_file_info handle,
                            int error) {
  // The node of a file that a program can write to must not move on to another file.
  if (error == 0 && (handle.flags & O_ACCMODE) != O_RDONLY) open_files_.NoteUse(node);
  const bool is_open = error == 0 && request.ReplyOpened(handle);
  if (!is_open) CloseHandle(handle.fh);
  if (error == ESTALE) {
    ReplyStale(request, node);
  } else if (error != 0) {
    request.ReplyError(error);
  }
}

OpenFiles::Closed FuseMount::CloseHandle(OpenFiles::Handle handle) {
  const auto closed = open_files_.Close(handle);
  if (closed.is_last) ForgetContent(closed.node);
  return closed;
}

/// Drops what was read of a file that no program has open any more.
void FuseMount::ForgetContent(fuse_ino_t node) {
  reads_.Forget(node);
  sequential_.Forget(node);
}

/// Puts content that was read ahead into the kernel's cache, so that reading it costs no requests.
/// No program may have the file open: after a write, the kernel's cache would be newer than this.
bool FuseMount::StoreAhead(fuse_ino_t node, const NodeTable::File& file) {
  if (open_files_.IsOpen(node)) return false;
  return prefetch_.Take(file.path, file.attributes, [&](std::string_view content) {
    fuse_bufvec buffer = FUSE_BUFVEC_INIT(content.size());
    buffer.buf[0].mem = const_cast<char*>(content.data());
    return fuse_lowlevel_notify_store(kernel_.session(), node, 0, &buffer, {}) == 0;
  });
}

void FuseMount::Write(const KernelRequest& request, fuse_ino_t node, const char* data, size_t size,
                      off_t offset, fuse_file_info* handle) {
  // The kernel writes back pages of mapped files by itself. No program waits for such a write, so
  // it must not use up a failure that a program has yet to hear of.
  const bool is_of_program = handle->writepage == 0;
  const bool is_first = is_of_program && !open_files_.NoteWriteThrough(handle->fh);
  const bool is_first_append = is_first && (handle->flags & O_APPEND) != 0;
  // A first append is sent at once, because another file may take this one's place at any moment.
  const bool is_early = is_of_program && writes_early_ && !is_first_append;
  if (is_first_append) MoveOn(node, handle->fh);
  if (is_of_program) node = open_files_.NodeOf(handle->fh);
  if (is_of_program && open_files_.HasMoved(handle->fh)) FindEnd(node);
  open_files_.NoteUse(node);
  reads_.Forget(node);
  if (is_of_program) {
    if (const int error = open_files_.TakeFailure(handle->fh); error != 0) {
      return ReplyTaken(request, handle->fh, error);
    }
    if (is_early && gathers_writes_ && size <= GatheredWrites::kLargestPiece &&
        Gather(request, {data, size}, offset, handle->fh)) {
      return;
    }
  }
  writes_.Drain(node);
  auto pass = Enter();
  auto file = nodes_.Find(node);
  // While an append waits, an answer to another program may show that its file was replaced.
  for (int moves = 1; !file && is_first_append && moves < kMostMoves; ++moves) {
    pass.unlock();
    if (!MoveOn(node, handle->fh)) break;
    node = open_files_.NodeOf(handle->fh);
    open_files_.NoteUse(node);
    reads_.Forget(node);
    writes_.Drain(node);
    pass = Enter();
    file = nodes_.Find(node);
  }
  if (!file) return request.ReplyError(ESTALE);
  if (is_of_program) offset = PlaceOf(handle->fh, *file, offset);
  const int64_t end = offset + static_cast<int64_t>(size);
  if (is_early && size > GatheredWrites::kLargestPiece && !session_.IsCutOff() &&
      !ModeGuard::IsLackingIn(file->attributes.st_mode) &&
      writes_.SendEarly(node, *file, offset, {data, size},
                        [this, request, node, size, end](int error) {
                          if (error != 0) return request.ReplyError(error);
                          ReplyWritten(request, node, size, end);
                        })) {
    return;
  }
  const ModeGuard access(files_, file->path, file->attributes.st_mode);
  writes_.WriteThrough(*file, offset, {data, size},
                       [this, request, node, path = file->path, size, end](Outcome outcome) {
                         if (outcome == Outcome::kDone) {
                           return ReplyWritten(request, node, size, end);
                         }
                         ReplyFailure(request, outcome,
                                      {.kind = Kind::kWrite, .path = path, .end = end});
                       });
}

/// What the disk shows at a path now. The caller waits for it.
std::future<Result<udisk_stat>> FuseMount::LookAt(const std::string& path) {
  const auto answer = std::make_shared<std::promise<Result<udisk_stat>>>();
  files_.GetAttributes(path, [answer](const auto& result) { answer->set_value(result); });
  ReadingTurn::PassOn();
  return answer->get_future();
}

/// If another file has taken the place of the one that a program is about to append to for the
/// first time, moves the program's handle to the new file, as if it had been opened a moment later.
/// The kernel checked only the old file's permissions, so the new one must have the same.
/// @return whether there is a file to append to
bool FuseMount::MoveOn(fuse_ino_t node, OpenFiles::Handle handle) {
  auto pass = Enter();
  if (const auto file = nodes_.Find(node); file) {
    auto answer = LookAt(file->path);
    pass.unlock();
    const auto [error, now] = answer.get();
    if (error != 0 || nodes_.Update(node, now)) return true;
    pass = Enter();
  }
  const auto before = nodes_.LastAttributes(node);
  const auto name = nodes_.ReplacedName(node);
  const auto path = name ? nodes_.ChildPath(name->first, name->second) : std::nullopt;
  if (!before || !path) return false;
  const auto [error, now] = LookAt(*path).get();
  if (error != 0 || now.st_mode != before->st_mode || now.st_uid != before->st_uid ||
      now.st_gid != before->st_gid) {
    return false;
  }
  const bool has_moved = open_files_.HasMoved(handle);
  const auto new_node = nodes_.Lookup(name->first, name->second, now);
  if (open_files_.MoveTo(handle, new_node)) ForgetContent(node);
  if (has_moved) nodes_.Forget(node, 1);  // the reference of the move before
  return true;
}

/// If the disk has shown a file shorter than this mount has written it, asks again: the client may
/// have cut the file, but the answer may also be older than the write.
void FuseMount::FindEnd(fuse_ino_t node) {
  const auto is_doubtful = [](const auto& file) {
    return file && file->end > file->attributes.st_size;
  };
  if (!is_doubtful(nodes_.Find(node))) return;
  writes_.Drain(node);
  auto pass = Enter();
  const auto file = nodes_.Find(node);
  if (!is_doubtful(file)) return;
  const auto asked = NodeTable::Clock::now();
  auto answer = LookAt(file->path);
  pass.unlock();
  const auto [error, now] = answer.get();
  if (error == 0 && nodes_.Update(node, now)) nodes_.ForgetEnd(node, asked);
}

/// Where the data of a write goes. The kernel counts an append from the end of the file that it
/// opened.
int64_t FuseMount::PlaceOf(OpenFiles::Handle handle, const NodeTable::File& file, off_t offset) {
  if (!open_files_.HasMoved(handle)) return offset;
  const auto node = open_files_.NodeOf(handle);
  nodes_.NoteUntold(node);
  InvalidateAttributes(node);
  return file.end;
}

bool FuseMount::Gather(const KernelRequest& request, std::string_view data, off_t offset,
                       OpenFiles::Handle handle) {
  const auto pass = gate_.Enter();
  const auto node = open_files_.NodeOf(handle);
  const auto file = nodes_.Find(node);
  if (!file || ModeGuard::IsLackingIn(file->attributes.st_mode)) return false;
  offset = PlaceOf(handle, *file, offset);
  if (!writes_.Add(node, file->attributes.st_size, offset, data)) return false;
  ReplyWritten(request, node, data.size(), offset + static_cast<int64_t>(data.size()));
  return true;
}

void FuseMount::ReplyWritten(const KernelRequest& request, fuse_ino_t node, size_t size,
                             int64_t end) {
  nodes_.Grow(node, end);
  if (const auto file = nodes_.Find(node)) {
    listings_.NoteChange(file->path, RemoteFiles::ChangeOf::kFile);
  }
  open_files_.NoteWrite(node);
  ++changes_;
  if (!request.ReplyWritten(size)) NoteUntold(node);
}

/// Tells a program of a failure that was taken from its handle. Puts it back if the program does
/// not hear of it.
void FuseMount::ReplyTaken(const KernelRequest& request, OpenFiles::Handle handle, int error) {
  if (!request.TryError(error)) open_files_.PutBack(handle, error);
}

/// Keeps a failure for the file's handles. The log gets the first that no program has heard of.
void FuseMount::NoteFailedWrite(fuse_ino_t node, int error) {
  if (!open_files_.NoteFailure(node, error)) return;
  const auto file = nodes_.Find(node);
  tesselLogPrint(0, 7, "CPD_HOST", "a write to %s failed after a program was told it was done: %s",
                 file ? file->path.c_str() : "a file without a name", std::strerror(error));
}

/// The answers to the file's own writes tell what became of them. But while the line is down, only
/// the next one shows whether the disk has lost what was not synced.
void FuseMount::Flush(const KernelRequest& request, fuse_ino_t /*node*/, fuse_file_info* handle) {
  const auto node = open_files_.NodeOf(handle->fh);
  const auto pass = Enter();
  const auto reply = [this, request, handle = handle->fh] {
    ReplyTaken(request, handle, open_files_.TakeFailureOrLoss(handle));
  };
  const auto file = nodes_.Find(node);
  if (!file || !session_.IsCutOff() || !open_files_.IsWritten(node)) {
    return writes_.WhenAnswered(node, reply);
  }
  files_.Flush(file->path, [this, request, node, handle = handle->fh, reply](Outcome outcome) {
    if (outcome == Outcome::kDone) return writes_.WhenAnswered(node, reply);
    (void)open_files_.TakeFailureOrLoss(handle);
    ReplyTaken(request, handle, EIO);
  });
}

void FuseMount::Sync(const KernelRequest& request, fuse_ino_t /*node*/, int /*data_only*/,
                     fuse_file_info* handle) {
  const auto node = open_files_.NodeOf(handle->fh);
  const auto last_write = open_files_.LastWrite();
  const auto pass = Enter();
  const auto file = nodes_.Find(node);
  if (!file) {
    return writes_.WhenAnswered(node, [this, request, handle = handle->fh] {
      const int error = open_files_.TakeFailureOrLoss(handle);
      ReplyTaken(request, handle, error != 0 ? error : ESTALE);
    });
  }
  writes_.Sync(
      node, *file,
      [this, request, node, handle = handle->fh, last_write, path = file->path](Outcome outcome) {
        if (outcome == Outcome::kDone) open_files_.NoteSynced(node, last_write);
        // The answer may have come over another line than the answers to the writes.
        const int error = open_files_.TakeFailureOrLoss(handle);
        if (error != 0 || outcome == Outcome::kDone) return ReplyTaken(request, handle, error);
        FindFailureReason(files_, outcome, {.kind = Kind::kSync, .path = path},
                          [this, request, handle](int reason) {
                            writes_.NoteFailure(reason);
                            ReplyTaken(request, handle, reason);
                          });
      });
}

void FuseMount::Release(const KernelRequest& request, fuse_ino_t /*node*/, fuse_file_info* handle) {
  interruptions_.RunWhenConcluded([this, request, handle = handle->fh] { Close(request, handle); });
}

void FuseMount::Close(const KernelRequest& request, OpenFiles::Handle handle) {
  const auto pass = Enter();
  const auto closed = CloseHandle(handle);
  const auto file = nodes_.Find(closed.node);
  if (closed.has_moved) nodes_.Forget(closed.node, 1);
  if (file && file->is_hidden && closed.is_last) {
    // No program waits for the answer, so no listing from before may be shown from now on.
    ++changes_;
    files_.Unlink(file->path, [request](Outcome) { request.ReplyError(0); });
    ++changes_;
  } else if (file && closed.is_written) {
    const ModeGuard access(files_, file->path, file->attributes.st_mode);
    files_.Release(file->path, [this, node = closed.node,
                                last_write = open_files_.LastWrite()](Outcome outcome) {
      if (outcome == Outcome::kDone) open_files_.NoteSynced(node, last_write);
    });
    request.ReplyError(0);  // the reply says nothing, and no program waits for it
  } else {
    request.ReplyError(0);
  }
}

/// Of the parts of a change of attributes, the last one that failed.
struct FuseMount::AttributeChange {
  Outcome outcome = Outcome::kDone;
  Attempt attempt = {};
};

/// Times are accepted but not set: the protocol cannot set them, and tar, cp -p, rsync and touch
/// would fail if they were refused.
void FuseMount::SetAttributes(const KernelRequest& request, fuse_ino_t node, struct stat* wanted,
                              int which, fuse_file_info* handle) {
  constexpr int kOwner = FUSE_SET_ATTR_UID | FUSE_SET_ATTR_GID;
  if ((which & FUSE_SET_ATTR_SIZE) != 0) writes_.Drain(node);
  const auto pass = Enter();
  const auto asked = NodeTable::Clock::now();
  const auto file = nodes_.Find(node);
  // The kernel does not repeat a call on a handle.
  if (!file && handle != nullptr) return request.ReplyError(ESTALE);
  if (!file) return ReplyStale(request, node);
  const auto& path = file->path;
  const bool sets_mode = (which & FUSE_SET_ATTR_MODE) != 0;
  const bool sets_owner = (which & kOwner) != 0;
  const bool sets_size = (which & FUSE_SET_ATTR_SIZE) != 0;
  if (!sets_mode && !sets_owner && !sets_size && AcceptTimes(request, node, *file)) return;
  // The module would follow the link and change its target.
  if (S_ISLNK(file->attributes.st_mode) && (sets_mode || sets_owner)) {
    return request.ReplyError(ENOTSUP);
  }

  const auto change = std::make_shared<AttributeChange>();
  const auto keep_failure = [change, path](Kind kind, int64_t end) {
    return [change, attempt = Attempt{.kind = kind, .path = path, .end = end}](Outcome outcome) {
      if (outcome != Outcome::kDone) *change = {.outcome = outcome, .attempt = attempt};
    };
  };
  if (sets_owner) {
    files_.ChangeOwner(path, (which & FUSE_SET_ATTR_UID) != 0 ? wanted->st_uid : ~0U,
                       (which & FUSE_SET_ATTR_GID) != 0 ? wanted->st_gid : ~0U,
                       keep_failure(Kind::kChangeAttributes, 0));
  }
  if (sets_mode) {
    files_.ChangeMode(path, wanted->st_mode, keep_failure(Kind::kChangeAttributes, 0));
    nodes_.SetMode(node, wanted->st_mode);  // requests sent after this rely on it
  }
  const int64_t size = wanted->st_size;
  if (sets_size) {
    nodes_.ForgetEnd(node, asked);
    nodes_.NoteChange(node);
    reads_.Forget(node);
    open_files_.NoteWrite(node);
    writes_.NoteExtension(*file, size);
    if (!TakesSize(path, size)) {
      return SetLargeSize(files_, path, size,
                          [this, request, node, file = *file, change](int error) {
                            sequential_.Forget(node);  // it may have been cut all the same
                            if (error != 0) return request.ReplyError(error);
                            open_files_.NoteWrite(node);
                            ReplyChangedAttributes(request, node, file, change);
                          });
    }
    const ModeGuard access(files_, path, sets_mode ? wanted->st_mode : file->attributes.st_mode);
    files_.Truncate(path, static_cast<uint64_t>(size), keep_failure(Kind::kWrite, size));
  }
  ReplyChangedAttributes(request, node, *file, change);
}

/// Accepts a change of times without making it. If the disk has shown the file lately, answers with
/// what is known, and does not ask the disk. The kernel must not keep these times, because a write
/// may have changed them. But it takes the size at once, and appends there: if the size were too
/// small, an append would overwrite the end of the file. If it may be, the disk has to be asked.
/// @return false when the disk has to be asked
bool FuseMount::AcceptTimes(const KernelRequest& request, fuse_ino_t node,
                            const NodeTable::File& file) {
  if (!writes_early_ || NodeTable::Clock::now() - file.told >= Prefetch::kTrusted) return false;
  nodes_.NoteTold(node);  // before the size is read, which must not be older than what is noted
  const auto told = nodes_.Find(node);
  if (!told || told->end > told->attributes.st_size) {
    nodes_.NoteUntold(node);
    return false;
  }
  struct stat attributes = ToStat(told->attributes);
  if (told->is_hidden) --attributes.st_nlink;
  if (!request.ReplyAttributes(attributes, 0)) NoteUntold(node);
  return true;
}

/// Asks for the attributes right after the changes, which saves a round trip: requests are carried
/// out in order, so the reply shows the result.
void FuseMount::ReplyChangedAttributes(const KernelRequest& request, fuse_ino_t node,
                                       const NodeTable::File& file,
                                       const std::shared_ptr<AttributeChange>& change) {
  const auto asked = NodeTable::Clock::now();
  files_.GetAttributes(file.path,
                       [this, request, node, path = file.path, is_hidden = file.is_hidden, change,
                        asked](const Result<udisk_stat>& result) {
                         ++changes_;
                         sequential_.Forget(node);  // it may have been cut since
                         if (change->outcome != Outcome::kDone) {
                           if (result.error == 0) nodes_.Update(node, result.value);
                           return ReplyFailure(request, change->outcome, change->attempt);
                         }
                         if (result.error == 0) {
                           listings_.NoteChanged(path, result.value, asked);
                           DoubtIfWritten(node, path, asked);
                         }
                         ReplyAttributes(request, node, is_hidden, result);
                       });
}

/// Makes unknown what a file was just seen to be if a program has heard of a write to it since the
/// disk was asked. A write that is heard of later does so itself.
void FuseMount::DoubtIfWritten(fuse_ino_t node, const std::string& path,
                               NodeTable::Clock::time_point asked) {
  if (!nodes_.IsChangedSince(node, asked)) return;
  listings_.NoteChange(path, RemoteFiles::ChangeOf::kFile);
}

void FuseMount::ReplyFailure(const KernelRequest& request, Outcome outcome, Attempt attempt) {
  FindFailureReason(files_, outcome, std::move(attempt), [this, request](int error) {
    writes_.NoteFailure(error);
    request.ReplyError(error);
  });
}

void FuseMount::ReplyDone(const KernelRequest& request) {
  ++changes_;
  request.ReplyError(0);
}

}  // namespace cpd::host
