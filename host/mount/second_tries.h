#pragma once

#include <sys/types.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <utility>

#include "mount/checked_reads.h"
#include "mount/node_table.h"

namespace cpd::host {

/// Follows the calls that the kernel tries a second time. When a call on a path ends with ESTALE,
/// the kernel looks all its names up again, and repeats the call once with what it finds. If the
/// client has replaced the file again by then, the program would see ESTALE. So whatever the second
/// try looks up serves that call, as an open file of a local disk would.
///
/// A thread makes one call at a time, so the thread identifies the call. Threads of another pid
/// namespace all have the number 0, and get no such help. All operations are callable from any
/// thread.
class SecondTries {
 public:
  using Clock = std::chrono::steady_clock;
  using Name = std::pair<NodeTable::Id, std::string>;

  /// What the second try found.
  struct Found {
    NodeTable::Id node = 0;
    Clock::time_point when;
    CheckedReads::SharedContent content;  ///< null unless it was read
  };

  /// Notes that a call of a thread is about to end with ESTALE.
  /// @param wanted  the name whose file the second try is to read along with the look-up, if any
  void Expect(pid_t thread, std::optional<Name> wanted) {
    if (thread == 0) return;
    const std::lock_guard lock(mutex_);
    const auto now = Clock::now();
    std::erase_if(expected_, [now](const auto& one) { return now - one.second.since > kLongest; });
    expected_[thread] = {
        .since = now, .wanted = std::move(wanted), .has_wanted = false, .found = {}};
  }
  /// Whether a thread's look-up of a name is to read the file.
  [[nodiscard]] bool Wants(pid_t thread, const Name& name) const {
    const std::lock_guard lock(mutex_);
    const auto one = expected_.find(thread);
    return one != expected_.end() && one->second.wanted == name;
  }
  /// Notes what a look-up of a thread found. Does nothing unless the thread is on its second try,
  /// which ends with the look-up of another name after the wanted one: its next call has begun.
  void NoteLookup(pid_t thread, const Name& name, NodeTable::Id node,
                  CheckedReads::SharedContent content) {
    const std::lock_guard lock(mutex_);
    const auto one = expected_.find(thread);
    if (one == expected_.end()) return;
    const bool is_wanted = one->second.wanted == name;
    if (one->second.has_wanted && !is_wanted) {
      expected_.erase(one);
      return;
    }
    one->second.has_wanted = is_wanted;
    one->second.found = {.node = node, .when = Clock::now(), .content = std::move(content)};
  }
  /// Whether a thread is on its second try and has just found the node.
  [[nodiscard]] bool HasFound(pid_t thread, NodeTable::Id node) const {
    const std::lock_guard lock(mutex_);
    const auto one = expected_.find(thread);
    return one != expected_.end() && HasFound(one->second, node);
  }
  /// Whether any thread is on its second try and has just found the node: then its call is about to
  /// use the node's file.
  [[nodiscard]] bool IsFound(NodeTable::Id node) const {
    const std::lock_guard lock(mutex_);
    return std::ranges::any_of(expected_,
                               [node](const auto& one) { return HasFound(one.second, node); });
  }
  /// Whether a thread has found the node; ends its second try if so.
  std::optional<Found> Take(pid_t thread, NodeTable::Id node) {
    const std::lock_guard lock(mutex_);
    const auto one = expected_.find(thread);
    if (one == expected_.end() || !HasFound(one->second, node)) return std::nullopt;
    auto found = std::move(one->second.found);
    expected_.erase(one);
    return found;
  }

 private:
  static constexpr std::chrono::seconds kLongest{5};
  // For as long as the kernel relies on what a look-up has shown.
  static constexpr std::chrono::seconds kTrusted{1};

  struct Expected {
    Clock::time_point since;
    std::optional<Name> wanted;
    bool has_wanted = false;  // looked up
    Found found;
  };

  static bool HasFound(const Expected& expected, NodeTable::Id node) {
    return expected.found.node == node && Clock::now() - expected.found.when <= kTrusted;
  }

  mutable std::mutex mutex_;
  std::unordered_map<pid_t, Expected> expected_;
};

}  // namespace cpd::host
