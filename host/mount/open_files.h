#pragma once

#include <cstdint>
#include <mutex>
#include <unordered_map>

#include "mount/node_table.h"

namespace cpd::host {

/// Tracks which nodes programs have open, which of those were written to, and which lost a write
/// that a program believes done. The module keeps no file open between requests. All operations are
/// callable from any thread.
class OpenFiles {
 public:
  using Handle = uint64_t;

  Handle Open(NodeTable::Id node) {
    const std::lock_guard lock(mutex_);
    auto& file = files_[node];
    ++file.handles;
    handles_.emplace(++last_, OpenHandle{.node = node, .seen_failures = file.failures});
    return last_;
  }

  struct Closed {
    bool is_last;
    bool is_written;  ///< since a handle of this node was last closed
  };
  Closed Close(Handle handle) {
    const std::lock_guard lock(mutex_);
    const auto node = handles_.at(handle).node;
    handles_.erase(handle);
    auto& file = files_.at(node);
    const Closed closed{.is_last = --file.handles == 0, .is_written = file.is_written};
    file.is_written = false;
    if (closed.is_last) files_.erase(node);
    return closed;
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

  void NoteWrite(NodeTable::Id node) {
    const std::lock_guard lock(mutex_);
    if (const auto file = files_.find(node); file != files_.end()) file->second.is_written = true;
  }

  [[nodiscard]] bool IsWritten(NodeTable::Id node) const {
    const std::lock_guard lock(mutex_);
    const auto file = files_.find(node);
    return file != files_.end() && file->second.is_written;
  }

  /// Notes that a write failed after the program was told that it was done.
  void NoteFailure(NodeTable::Id node, int error) {
    const std::lock_guard lock(mutex_);
    const auto file = files_.find(node);
    if (file == files_.end()) return;
    ++file->second.failures;
    file->second.error = error;
  }

  /// The file's last failure if this handle has not reported it yet; otherwise 0.
  int TakeFailure(Handle handle) {
    const std::lock_guard lock(mutex_);
    auto& [node, seen_failures] = handles_.at(handle);
    const auto& file = files_.at(node);
    if (seen_failures == file.failures) return 0;
    seen_failures = file.failures;
    return file.error;
  }

 private:
  struct File {
    unsigned handles = 0;
    bool is_used = false;
    bool is_written = false;
    uint64_t failures = 0;
    int error = 0;
  };
  struct OpenHandle {
    NodeTable::Id node;
    uint64_t seen_failures;
  };

  mutable std::mutex mutex_;
  std::unordered_map<NodeTable::Id, File> files_;
  std::unordered_map<Handle, OpenHandle> handles_;
  Handle last_ = 0;
};

}  // namespace cpd::host
