#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <utility>

#include "mount/checked_reads.h"
#include "mount/node_table.h"

namespace cpd::host {

/// Tracks which nodes programs have open, which of those were written to, and which lost a write
/// that a program believes done, or may have lost it because it was not synced. A handle refers to
/// the node that was opened, or to the one that it has moved on to. The module keeps no file open
/// between requests. All operations are callable from any thread.
class OpenFiles {
 public:
  using Handle = uint64_t;

  Handle Open(NodeTable::Id node) {
    const std::lock_guard lock(mutex_);
    auto& file = files_[node];
    ++file.handles;
    handles_.emplace(
        ++last_,
        OpenHandle{.node = node, .seen_failures = file.failures, .seen_losses = file.losses});
    return last_;
  }

  struct Closed {
    NodeTable::Id node;
    bool is_last;
    bool is_written;  ///< since a handle of this node was last closed
    bool has_moved;   ///< by MoveTo
  };
  Closed Close(Handle handle) {
    const std::lock_guard lock(mutex_);
    const auto open = handles_.extract(handle);
    const auto& handle_state = open.mapped();
    auto& file = files_.at(handle_state.node);
    const Closed closed{.node = handle_state.node,
                        .is_last = --file.handles == 0,
                        .is_written = file.is_written,
                        .has_moved = handle_state.has_moved};
    file.is_written = false;
    if (closed.is_last) files_.erase(closed.node);
    return closed;
  }

  /// Moves a handle on to the node of another file. @return whether it was its node's last
  bool MoveTo(Handle handle, NodeTable::Id node) {
    const std::lock_guard lock(mutex_);
    auto& open = handles_.at(handle);
    const bool is_last = --files_.at(open.node).handles == 0;
    if (is_last) files_.erase(open.node);
    auto& file = files_[node];
    ++file.handles;
    open.node = node;
    open.seen_failures = file.failures;
    open.seen_losses = file.losses;
    open.has_moved = true;
    return is_last;
  }
  [[nodiscard]] bool HasMoved(Handle handle) const {
    const std::lock_guard lock(mutex_);
    return handles_.at(handle).has_moved;
  }
  /// The node of the file that a handle refers to.
  [[nodiscard]] NodeTable::Id NodeOf(Handle handle) const {
    const std::lock_guard lock(mutex_);
    return handles_.at(handle).node;
  }

  /// Notes the content that a file had when the handle was opened.
  void SetContent(Handle handle, CheckedReads::SharedContent content) {
    const std::lock_guard lock(mutex_);
    handles_.at(handle).content = std::move(content);
  }
  /// @return null if the file is not read whole
  [[nodiscard]] CheckedReads::SharedContent ContentOf(Handle handle) const {
    const std::lock_guard lock(mutex_);
    return handles_.at(handle).content;
  }

  /// Notes that a program has written through a handle. @return whether that was so before
  bool NoteWriteThrough(Handle handle) {
    const std::lock_guard lock(mutex_);
    return std::exchange(handles_.at(handle).has_written, true);
  }

  [[nodiscard]] bool IsOpen(NodeTable::Id node) const {
    const std::lock_guard lock(mutex_);
    return files_.contains(node);
  }

  /// Notes that programs are about to see or to change what is in a file.
  void NoteUse(NodeTable::Id node) {
    const std::lock_guard lock(mutex_);
    if (const auto file = files_.find(node); file != files_.end()) file->second.is_used = true;
  }

  /// Whether a program that has the file open has seen or changed its content.
  [[nodiscard]] bool IsUsed(NodeTable::Id node) const {
    const std::lock_guard lock(mutex_);
    const auto file = files_.find(node);
    return file != files_.end() && file->second.is_used;
  }

  /// Notes that a program is about to hear that a write is done.
  void NoteWrite(NodeTable::Id node) {
    const std::lock_guard lock(mutex_);
    const auto file = files_.find(node);
    if (file == files_.end()) return;
    file->second.is_written = true;
    file->second.last_write = ++last_write_;
  }

  /// The number of the latest write to any file.
  [[nodiscard]] uint64_t LastWrite() const {
    const std::lock_guard lock(mutex_);
    return last_write_;
  }
  /// Notes that a file's writes are safe on the disk.
  /// @param last  LastWrite before the request was sent that made them safe
  void NoteSynced(NodeTable::Id node, uint64_t last) {
    const std::lock_guard lock(mutex_);
    const auto file = files_.find(node);
    if (file != files_.end()) file->second.synced = std::max(file->second.synced, last);
  }
  /// The disk may have lost what was not synced: every handle of a file with such writes reports
  /// that once.
  void LoseUnsynced() {
    const std::lock_guard lock(mutex_);
    for (auto& [node, file] : files_) {
      if (file.last_write > file.synced) ++file.losses;
      file.synced = last_write_;
    }
  }

  [[nodiscard]] bool IsWritten(NodeTable::Id node) const {
    const std::lock_guard lock(mutex_);
    const auto file = files_.find(node);
    return file != files_.end() && file->second.is_written;
  }

  /// Another disk has taken the place of the one with these files: what was not synced is lost, as
  /// is the content that handles hold.
  void LoseDisk() {
    LoseUnsynced();
    const std::lock_guard lock(mutex_);
    for (auto& [handle, open] : handles_) {
      open.seen_failures = files_.at(open.node).failures;  // a loss says as much
      open.unheard = 0;
      open.content = nullptr;
    }
  }

  /// Notes that a write failed after the program was told that it was done.
  /// @return false when there is an earlier failure that no program has heard of yet
  bool NoteFailure(NodeTable::Id node, int error) {
    const std::lock_guard lock(mutex_);
    const auto file = files_.find(node);
    if (file == files_.end()) return true;
    ++file->second.failures;
    file->second.error = error;
    return !std::exchange(file->second.hides_failure, true);
  }

  /// The file's last failure if this handle has not reported it yet; otherwise 0.
  int TakeFailure(Handle handle) {
    const std::lock_guard lock(mutex_);
    auto& open = handles_.at(handle);
    auto& file = files_.at(open.node);
    if (open.seen_failures == file.failures) return 0;
    open.seen_failures = file.failures;
    file.hides_failure = false;
    return file.error;
  }

  /// The same at a sync or a close, where a handle also reports that writes may be lost. A loss
  /// does not make a write fail: a program that ignored that would then see its next sync succeed.
  int TakeFailureOrLoss(Handle handle) {
    const int failure = TakeFailure(handle);
    const std::lock_guard lock(mutex_);
    auto& open = handles_.at(handle);
    const auto& file = files_.at(open.node);
    const bool has_lost = std::exchange(open.seen_losses, file.losses) != file.losses;
    const int unheard = std::exchange(open.unheard, 0);
    if (failure != 0) return failure;
    return has_lost ? EIO : unheard;
  }

  /// What was taken did not reach the program, so the handle reports it at its next sync or close.
  void PutBack(Handle handle, int error) {
    const std::lock_guard lock(mutex_);
    if (error != 0) handles_.at(handle).unheard = error;
  }

 private:
  struct File {
    unsigned handles = 0;
    bool is_used = false;
    bool is_written = false;
    uint64_t failures = 0;
    int error = 0;
    bool hides_failure = false;  // no handle has reported it yet
    uint64_t last_write = 0;     // its number
    uint64_t synced = 0;         // the writes up to this number are safe
    uint64_t losses = 0;
  };
  struct OpenHandle {
    NodeTable::Id node;
    uint64_t seen_failures;
    uint64_t seen_losses;
    int unheard = 0;
    bool has_written = false;
    bool has_moved = false;
    CheckedReads::SharedContent content = nullptr;
  };

  mutable std::mutex mutex_;
  std::unordered_map<NodeTable::Id, File> files_;
  std::unordered_map<Handle, OpenHandle> handles_;
  Handle last_ = 0;
  uint64_t last_write_ = 0;  // writes to all files are numbered, so that the numbers outlive a File
};

}  // namespace cpd::host
