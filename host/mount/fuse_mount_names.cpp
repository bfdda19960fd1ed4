// The mount's names: making, linking, renaming and removing them.
#include <sys/stat.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "mount/fuse_mount.h"
#include "mount/fuse_reply.h"
#include "remote/attributes.h"
#include "remote/hidden_name.h"
#include "remote/paths.h"

namespace cpd::host {

using Kind = Attempt::Kind;

namespace {

constexpr uint32_t kAccess = S_IRWXU | S_IRWXG | S_IRWXO;

}  // namespace

// ---- Making ----

/// What is needed to make a name and to reply to the kernel.
struct FuseMount::Making {
  KernelRequest request;
  Attempt attempt;
  NodeTable::Id parent;
  std::string path;  ///< of the new name
  std::string name;
  std::optional<uint32_t> mode;  ///< to set if the disk gave another one
  std::function<bool(const fuse_entry_param& entry)> reply;
  Outcome outcome = Outcome::kDone;
};

void FuseMount::Create(const KernelRequest& request, fuse_ino_t parent, const char* name,
                       mode_t mode, fuse_file_info* handle) {
  MakeFile(request, parent, name, mode,
           [this, request, handle = *handle](const fuse_entry_param& entry) mutable {
             handle.fh = open_files_.Open(entry.ino);
             open_files_.NoteUse(entry.ino);
             const bool is_open = request.ReplyCreated(entry, handle);
             if (!is_open) open_files_.Close(handle.fh);
             return is_open;
           });
}

void FuseMount::MakeNode(const KernelRequest& request, fuse_ino_t parent, const char* name,
                         mode_t mode, dev_t /*device*/) {
  if (!S_ISREG(mode)) return request.ReplyError(ENOTSUP);
  MakeFile(request, parent, name, mode,
           [request](const fuse_entry_param& entry) { return request.ReplyEntry(entry); });
}

void FuseMount::MakeFile(const KernelRequest& request, fuse_ino_t parent, const char* name,
                         mode_t mode, std::function<bool(const fuse_entry_param& entry)> reply) {
  const auto pass = Enter();
  const auto path = nodes_.ChildPath(parent, name);
  if (!path) return request.ReplyError(ESTALE);
  const auto making =
      std::make_shared<Making>(Making{.request = request,
                                      .attempt = {.kind = Kind::kMakeFile, .path = *path},
                                      .parent = parent,
                                      .path = *path,
                                      .name = name,
                                      .mode = mode & kPermissions,
                                      .reply = std::move(reply)});
  files_.Create(*path, mode & kPermissions,
                [making](Outcome outcome) { making->outcome = outcome; });
  listings_.Refresh(DirectoryOf(*path));
  ShowMade(making);
}

void FuseMount::MakeDirectory(const KernelRequest& request, fuse_ino_t parent, const char* name,
                              mode_t mode) {
  const auto pass = Enter();
  const auto path = nodes_.ChildPath(parent, name);
  if (!path) return request.ReplyError(ESTALE);
  const auto making = std::make_shared<Making>(Making{
      .request = request,
      .attempt = {.kind = Kind::kMakeDirectory, .path = *path},
      .parent = parent,
      .path = *path,
      .name = name,
      .mode = mode & kPermissions,
      .reply = [request](const fuse_entry_param& entry) { return request.ReplyEntry(entry); }});
  const auto keep_outcome = [making](Outcome outcome) { making->outcome = outcome; };
  if (path->find('\\') == std::string::npos) {
    files_.MakeDirectory(*path, mode & kPermissions, keep_outcome);
  } else {
    // When it makes a directory, the module takes a backslash for a separator; when it renames one,
    // it does not. The last request removes the temporary directory if the rename failed.
    const std::string passing = '/' + HiddenName();
    files_.MakeDirectory(passing, mode & kPermissions, [](Outcome) {});
    files_.Rename(passing, *path, keep_outcome);
    files_.RemoveDirectory(passing, [](Outcome) {});
  }
  listings_.Refresh(DirectoryOf(*path));
  ShowMade(making);
}

void FuseMount::Link(const KernelRequest& request, fuse_ino_t node, fuse_ino_t new_parent,
                     const char* new_name) {
  const auto pass = Enter();
  const auto file = nodes_.Find(node);
  const auto new_path = nodes_.ChildPath(new_parent, new_name);
  if (!file || !new_path) return request.ReplyError(ESTALE);
  const auto making = std::make_shared<Making>(Making{
      .request = request,
      .attempt = {.kind = Kind::kLink, .path = file->path, .new_path = *new_path},
      .parent = new_parent,
      .path = *new_path,
      .name = new_name,
      .mode = std::nullopt,
      .reply = [request](const fuse_entry_param& entry) { return request.ReplyEntry(entry); }});
  files_.Link(file->path, *new_path, [making](Outcome outcome) { making->outcome = outcome; });
  listings_.Refresh(DirectoryOf(*new_path));
  ShowMade(making);
}

void FuseMount::MakeSymbolicLink(const KernelRequest& request, const char* /*target*/,
                                 fuse_ino_t /*parent*/, const char* /*name*/) {
  request.ReplyError(ENOTSUP);
}

/// Replies with the attributes of what was made. If the client's umask changed the mode that the
/// program asked for, sets that mode first.
void FuseMount::ShowMade(const std::shared_ptr<Making>& making) {
  const auto asked = NodeTable::Clock::now();
  files_.GetAttributes(making->path, [this, making, asked](const Result<udisk_stat>& result) {
    if (making->outcome != Outcome::kDone) {
      return ReplyFailure(making->request, making->outcome, making->attempt);
    }
    if (result.error != 0) return making->request.ReplyError(result.error);
    const uint32_t mode = result.value.st_mode;
    const auto wanted = std::exchange(making->mode, std::nullopt);
    if (wanted && ((mode ^ *wanted) & kAccess) != 0) {
      files_.ChangeMode(making->path, (mode & kPermissions & ~kAccess) | *wanted, [](Outcome) {});
      return ShowMade(making);
    }
    const auto entry =
        ToEntry(nodes_.Lookup(making->parent, making->name, result.value), result.value);
    ++changes_;
    listings_.NoteMade(making->path, result.value, asked, !wanted);
    DoubtIfWritten(entry.ino, making->path, asked);
    if (!making->reply(entry)) TakeBack(entry.ino);
  });
}

// ---- Removing ----

void FuseMount::Unlink(const KernelRequest& request, fuse_ino_t parent, const char* name) {
  const auto move = BeginMove();
  const auto path = nodes_.ChildPath(parent, name);
  if (!path) return request.ReplyError(ESTALE);
  if (const auto node = nodes_.NodeIfOnlyName(parent, name); node && open_files_.IsOpen(*node)) {
    return Hide(request, *node, parent, name, move);
  }
  files_.Unlink(
      *path,
      [this, move, request, parent, name = std::string(name), path = *path](Outcome outcome) {
        if (outcome != Outcome::kDone) {
          return ReplyFailure(request, outcome, {.kind = Kind::kUnlink, .path = path});
        }
        nodes_.Unlink(parent, name);
        ReplyDone(request);
      },
      nodes_.CurrentAttributes(parent, name));
  listings_.Refresh(DirectoryOf(*path));
}

/// Removes the last name of a file that programs have open: renames it on the disk to a hidden
/// name, which is removed when the last program closes the file.
void FuseMount::Hide(const KernelRequest& request, fuse_ino_t node, fuse_ino_t parent,
                     const std::string& name, const RenameGate::Move& move) {
  const auto hidden_name = HiddenName();
  const auto path = nodes_.ChildPath(parent, name);
  const auto hidden_path = nodes_.ChildPath(parent, hidden_name);
  if (!path || !hidden_path) return request.ReplyError(ESTALE);
  files_.Rename(
      *path, *hidden_path,
      [this, move, request, node, parent, name, hidden_name, path = *path,
       hidden_path = *hidden_path](Outcome outcome) {
        if (outcome != Outcome::kDone) {
          return ReplyFailure(request, outcome, {.kind = Kind::kUnlink, .path = path});
        }
        nodes_.Hide(parent, name, hidden_name);
        RemoveUnlessOpen(node, hidden_path);
        ReplyDone(request);
      },
      nodes_.CurrentAttributes(parent, name));
  listings_.Refresh(DirectoryOf(*path));
}

/// Removes a file that was hidden a moment ago if no program has it open any more: the call that
/// opened it may have been interrupted, and then no release will come that removes the file. Its
/// handle is closed by now, because a move waits for calls that need several requests.
void FuseMount::RemoveUnlessOpen(fuse_ino_t node, const std::string& hidden_path) {
  if (!open_files_.IsOpen(node)) files_.Unlink(hidden_path, [](Outcome) {});
}

void FuseMount::RemoveDirectory(const KernelRequest& request, fuse_ino_t parent, const char* name) {
  const auto move = BeginMove();
  const auto path = nodes_.ChildPath(parent, name);
  if (!path) return request.ReplyError(ESTALE);
  LiftHiddenFiles(parent, name, move);
  files_.RemoveDirectory(
      *path,
      [this, move, request, parent, name = std::string(name), path = *path](Outcome outcome) {
        if (outcome != Outcome::kDone) {
          return ReplyFailure(request, outcome, {.kind = Kind::kRemoveDirectory, .path = path});
        }
        nodes_.Unlink(parent, name);
        ReplyDone(request);
      },
      nodes_.CurrentAttributes(parent, name));
  listings_.Refresh(DirectoryOf(*path));
}

/// Moves a directory's hidden files to its parent, so that the directory can be removed.
void FuseMount::LiftHiddenFiles(fuse_ino_t parent, const std::string& name,
                                const RenameGate::Move& move) {
  const auto directory = nodes_.NodeIfOnlyName(parent, name);
  if (!directory) return;
  for (const auto& hidden : nodes_.HiddenNames(*directory)) {
    const auto path = nodes_.ChildPath(*directory, hidden);
    const auto lifted_path = nodes_.ChildPath(parent, hidden);
    if (!path || !lifted_path) continue;
    files_.Rename(*path, *lifted_path,
                  [this, move, parent, directory = *directory, hidden](Outcome outcome) {
                    if (outcome == Outcome::kDone) nodes_.Rename(directory, hidden, parent, hidden);
                  });
  }
}

/// Removes all hidden files; called at the end, when programs are no longer served.
void FuseMount::RemoveHiddenFiles() {
  for (const auto& path : nodes_.HiddenPaths()) files_.Unlink(path, [](Outcome) {});
}

// ---- Renaming ----

struct FuseMount::Renaming {
  KernelRequest request;
  RenameGate::Move move;
  NodeTable::Id parent;
  std::string name;
  NodeTable::Id new_parent;
  std::string new_name;
  std::string path;
  std::string new_path;
  std::optional<NodeTable::Id> target = {};  ///< the file that is replaced
  /// Where the target stays for programs that have it open; empty if none has.
  std::string hidden_path = {};
  bool is_linked = false;  ///< at hidden_path, so that new_path stays until it is replaced
};

void FuseMount::Rename(const KernelRequest& request, fuse_ino_t parent, const char* name,
                       fuse_ino_t new_parent, const char* new_name, unsigned flags) {
  // The protocol has neither an exchange nor a rename that refuses to replace.
  if (flags != 0) return request.ReplyError(EINVAL);
  auto move = BeginMove();
  const auto path = nodes_.ChildPath(parent, name);
  const auto new_path = nodes_.ChildPath(new_parent, new_name);
  if (!path || !new_path) return request.ReplyError(ESTALE);
  const auto renaming = std::make_shared<Renaming>(Renaming{.request = request,
                                                            .move = std::move(move),
                                                            .parent = parent,
                                                            .name = name,
                                                            .new_parent = new_parent,
                                                            .new_name = new_name,
                                                            .path = *path,
                                                            .new_path = *new_path});
  renaming->target = nodes_.NodeIfOnlyName(new_parent, new_name);
  if (renaming->target && open_files_.IsOpen(*renaming->target)) return HideTarget(renaming);
  FinishRename(renaming);
}

/// Gives the file that is about to be replaced a hidden name, for programs that have it open. A
/// hard link leaves the old name in place, so that it exists at every moment. On a disk without
/// hard links the file is renamed.
void FuseMount::HideTarget(const std::shared_ptr<Renaming>& renaming) {
  const auto hidden_name = HiddenName();
  auto hidden_path = nodes_.ChildPath(renaming->new_parent, hidden_name);
  if (!hidden_path) return renaming->request.ReplyError(ESTALE);
  renaming->hidden_path = *std::move(hidden_path);
  const auto go_on = [this, renaming, hidden_name] {
    nodes_.Hide(renaming->new_parent, renaming->new_name, hidden_name);
    FinishRename(renaming);
  };
  files_.Link(renaming->new_path, renaming->hidden_path, [this, renaming, go_on](Outcome linked) {
    renaming->is_linked = linked == Outcome::kDone;
    if (renaming->is_linked) return go_on();
    files_.Rename(renaming->new_path, renaming->hidden_path,
                  [this, renaming, go_on](Outcome moved) {
                    if (moved == Outcome::kDone) return go_on();
                    ReplyFailure(renaming->request, moved,
                                 {.kind = Kind::kUnlink, .path = renaming->new_path});
                  });
  });
}

void FuseMount::FinishRename(const std::shared_ptr<Renaming>& renaming) {
  const auto finish = [this, renaming](Outcome outcome) {
    if (outcome == Outcome::kDone) {
      nodes_.Rename(renaming->parent, renaming->name, renaming->new_parent, renaming->new_name);
      if (!renaming->hidden_path.empty()) {
        RemoveUnlessOpen(*renaming->target, renaming->hidden_path);
      }
      return ReplyDone(renaming->request);
    }
    if (!renaming->hidden_path.empty()) UndoHiding(*renaming);
    ReplyFailure(renaming->request, outcome,
                 {.kind = Kind::kRename, .path = renaming->path, .new_path = renaming->new_path});
  };
  files_.Rename(renaming->path, renaming->new_path, finish,
                nodes_.CurrentAttributes(renaming->parent, renaming->name));
  const auto directory = DirectoryOf(renaming->path);
  const auto new_directory = DirectoryOf(renaming->new_path);
  listings_.Refresh(directory);
  if (new_directory != directory) listings_.Refresh(new_directory);
}

void FuseMount::UndoHiding(const Renaming& renaming) {
  const std::string hidden_name(NameOf(renaming.hidden_path));
  if (renaming.is_linked) {
    files_.Unlink(renaming.hidden_path, [](Outcome) {});
  } else {
    files_.Rename(renaming.hidden_path, renaming.new_path, [](Outcome) {});
  }
  nodes_.Show(renaming.new_parent, hidden_name, renaming.new_name);
}

}  // namespace cpd::host
