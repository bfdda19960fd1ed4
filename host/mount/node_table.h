// The kernel's ids for files and directories, and their paths.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "wire.h"

namespace cpd::host {

/// Has one node per file that the kernel knows, with the names that the kernel knows. A file with
/// hard links has several names, which share one page cache; a file that was unlinked or replaced
/// has none. The kernel counts how often it was given a node, and gives the references back at some
/// later time. A node stays as long as the kernel or a name below refers to it, so that every path
/// can be built. All operations are callable from any thread.
class NodeTable {
 public:
  using Id = uint64_t;
  using Clock = std::chrono::steady_clock;
  static constexpr Id kRoot = 1;

  struct File {
    std::string path;        ///< begins with '/'
    udisk_stat attributes;   ///< as the disk showed them last; see also Grow and SetMode
    Clock::time_point told;  ///< when the disk showed them
    int64_t kernel_size;     ///< where the kernel would append; -1 if unknown
    int64_t end;             ///< the size, or where this mount's last writes end if that is further
    bool is_hidden = false;  ///< unlinked, but programs have it open
  };

  /// Finds or makes the node of a name, and counts one reference of the kernel. If the attributes
  /// show that the name now belongs to another file, it gets another node. Ids are never reused.
  /// @param asked  when the disk was asked, if that was before this look-up; what has become known
  ///               of the name's file since then takes precedence
  Id Lookup(Id parent, const std::string& name, const udisk_stat& attributes,
            std::optional<Clock::time_point> asked = std::nullopt);
  /// When the disk answered the last look-up of a node; the epoch if that was answered from what
  /// was known before, or was taken already. An open call looks its file up first, unless the
  /// kernel remembers the name.
  Clock::time_point TakeLookup(Id id);
  /// Drops references that the kernel gives back. When most nodes are gone, what they took goes
  /// back to the system.
  void Forget(Id id, uint64_t references);
  /// Stores the attributes that the disk shows.
  /// @param asked  when the disk was asked, if not just now
  /// @return false when they are those of another file, which has taken this one's place
  bool Update(Id id, const udisk_stat& attributes,
              std::optional<Clock::time_point> asked = std::nullopt);
  /// Moves a node on to the file that took its file's place on the disk, so that a program that has
  /// looked the node up gets the new file. Does nothing if the node has several names, or if one of
  /// the files is not a regular file.
  /// @param asked  when the disk was asked, if not just now
  void Renew(Id id, const udisk_stat& attributes,
             std::optional<Clock::time_point> asked = std::nullopt);
  /// Whether these attributes can be those of the node's file. If not, they are another file's.
  [[nodiscard]] bool IsSameFile(Id id, const udisk_stat& attributes) const;
  /// Whether the kernel may still have the attributes of the file that Renew replaced.
  [[nodiscard]] bool IsRenewed(Id id) const;
  /// Notes that this mount changes a file's content: from then on, its times do not show whether
  /// another file has taken its place.
  void NoteChange(Id id);
  /// Whether this mount has changed a file's content since then.
  [[nodiscard]] bool IsChangedSince(Id id, Clock::time_point time) const;
  /// Raises a file's size to this one if it is smaller, because the kernel has written that far.
  void Grow(Id id, int64_t size);
  /// Takes a file's size for its end again, unless this mount has written to it since then.
  /// @param time  before the disk was asked for the size, or cut the file
  void ForgetEnd(Id id, Clock::time_point time);
  /// Notes that the kernel gets the stored attributes.
  void NoteTold(Id id);
  /// Notes that the kernel does not know of a change of the file.
  void NoteUntold(Id id);
  /// Stores the permissions that a file is about to get.
  void SetMode(Id id, uint32_t mode);
  /// Empty for an id that the kernel was never given, and for a file without a name.
  [[nodiscard]] std::optional<File> Find(Id id) const;
  /// The attributes that the disk showed last, with what Grow and SetMode have changed since. Also
  /// for a file that has lost its name.
  [[nodiscard]] std::optional<udisk_stat> LastAttributes(Id id) const;
  /// The same, if the disk has shown them since this mount changed the file's content, or since the
  /// directory lost a name.
  [[nodiscard]] std::optional<udisk_stat> CurrentAttributes(Id id) const;
  /// The same for a name's file.
  [[nodiscard]] std::optional<udisk_stat> CurrentAttributes(Id parent,
                                                            const std::string& name) const;
  /// Whether this mount has changed a file since the disk showed its attributes.
  [[nodiscard]] bool IsOutdated(Id id) const;
  /// The same for a name's file.
  [[nodiscard]] bool IsOutdated(Id parent, const std::string& name) const;
  /// The directory and the name that a file had when another file took its place; empty if it has a
  /// name, or lost its name through this mount.
  [[nodiscard]] std::optional<std::pair<Id, std::string>> ReplacedName(Id id) const;
  /// The st_size of the directory that a node is in; 0 if unknown.
  [[nodiscard]] int64_t DirectorySize(Id id) const;
  /// The path of a name in a directory.
  [[nodiscard]] std::optional<std::string> ChildPath(Id parent, const std::string& name) const;

  /// The node of a name, if the node has no other name.
  [[nodiscard]] std::optional<Id> NodeIfOnlyName(Id parent, const std::string& name) const;
  /// The names of the hidden files in a directory.
  [[nodiscard]] std::vector<std::string> HiddenNames(Id directory) const;
  /// Whether a name is that of a hidden file.
  [[nodiscard]] bool IsHidden(Id parent, const std::string& name) const;
  /// Removes a name.
  void Unlink(Id parent, const std::string& name);
  /// Renames a node, and with it everything below. A node that had the new name loses it.
  void Rename(Id parent, const std::string& name, Id new_parent, const std::string& new_name);
  /// Renames a file within its directory to a name that listings leave out.
  void Hide(Id parent, const std::string& name, const std::string& hidden_name);
  /// Undoes Hide.
  void Show(Id parent, const std::string& hidden_name, const std::string& name);
  /// What the kernel may remember of a disk.
  struct Known {
    std::vector<Id> nodes;
    std::vector<std::pair<Id, std::string>> names;  ///< directory and name in it
  };
  /// Forgets everything but the root, because the names now lead to another disk. The kernel may go
  /// on using the nodes: there are no files for them any more.
  /// @return what was known, the root included
  Known ForgetDisk();
  /// The paths of all hidden files.
  [[nodiscard]] std::vector<std::string> HiddenPaths() const;

 private:
  using Name = std::pair<Id, std::string>;     // parent and name in it
  using Inode = std::pair<int64_t, uint64_t>;  // device and number on it

  struct Node {
    std::vector<Name> names;  // the one seen last comes first
    std::optional<Name> replaced_name = {};
    uint64_t references;  // the kernel's, and one for each name below
    udisk_stat attributes;
    int64_t kernel_size = -1;
    int64_t written_end = 0;  // an answer that shows less may be older than the write
    Clock::time_point told = {};
    Clock::time_point looked_up = {};  // for the next call of TakeLookup
    Clock::time_point renewed = {};
    Clock::time_point changed = {};  // through this mount, since the node has moved on
    bool is_outdated = false;        // the disk has not shown the file since this mount changed it
    bool is_hidden = false;
  };

  static bool IsSameFile(const Node& node, const udisk_stat& now);
  static bool IsOutdated(const Node& node);
  static bool IsNewer(const Node& node, std::optional<Clock::time_point> asked);
  static Inode InodeOf(const udisk_stat& attributes) {
    return {int64_t{attributes.st_dev}, uint64_t{attributes.st_ino}};  // copies of packed fields
  }

  Id FindOrMakeLocked(const Name& name, const udisk_stat& attributes,
                      std::optional<Clock::time_point> asked);
  void SetAttributesLocked(Id id, const udisk_stat& attributes, Clock::time_point asked);
  void RenameLocked(const Name& name, const Name& new_name);
  void AddNameLocked(Id id, const Name& name);
  void RemoveNameLocked(const Name& name);
  void ReplaceLocked(Id id, Name name);
  void DropReferencesLocked(Id id, uint64_t references);
  bool HasShrunkLocked();
  std::optional<std::string> PathLocked(Id id) const;

  mutable std::mutex mutex_;
  std::unordered_map<Id, Node> nodes_{{kRoot, {.names = {}, .references = 1, .attributes = {}}}};
  std::map<Name, Id> children_;
  std::map<Inode, Id> files_;  // all but directories
  Id last_ = kRoot;
  size_t most_ = 1;  // nodes since HasShrunkLocked held
};

}  // namespace cpd::host
