// The kernel's numbers for files and directories, and the paths behind them.
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

/// One node a file that the kernel knows, with the names by which the kernel knows it: several for
/// a file with hard links, so that all of them share one page cache; none once it was unlinked or
/// another file took its place. The kernel counts how often it was told of a node and forgets it in
/// its own time. A node stays as long as the kernel or a name below it needs it, so that a path can
/// always be made. All operations are callable from any thread.
class NodeTable {
 public:
  using Id = uint64_t;
  using Clock = std::chrono::steady_clock;
  static constexpr Id kRoot = 1;

  struct File {
    std::string path;        ///< begins with '/'
    udisk_stat attributes;   ///< as last told
    Clock::time_point told;  ///< when that was
    bool is_hidden = false;  ///< unlinked for everybody but those who have it open
  };

  /// The node of a name, made when there is none; counts one reference of the kernel. Ids are
  /// never used twice. Attributes of another file than before give the name to another node.
  Id Lookup(Id parent, const std::string& name, const udisk_stat& attributes);
  /// Takes references of the kernel back.
  void Forget(Id id, uint64_t references);
  /// Notes a file's attributes as the kernel is told them.
  /// @return false when they are another file's, which took the place of this one
  bool Update(Id id, const udisk_stat& attributes);
  /// Lets a node stand for the file that took the place of its own on the disk, so that whoever
  /// looked it up gets the new one. Leaves a node alone that has several names, or that would turn
  /// into another kind of file.
  void Renew(Id id, const udisk_stat& attributes);
  /// Whether the kernel may still have the attributes of the file before.
  [[nodiscard]] bool IsRenewed(Id id) const;
  /// Notes that this mount changes a file's content: its times tell nothing any more.
  void NoteChange(Id id);
  /// Notes that a file has at least this size.
  void Grow(Id id, int64_t size);
  /// Notes the permissions that a file is about to have.
  void SetMode(Id id, uint32_t mode);
  /// Empty for an id that the kernel was never given, and for a file without a name.
  [[nodiscard]] std::optional<File> Find(Id id) const;
  /// As last told; also of a file that has lost its name.
  [[nodiscard]] std::optional<udisk_stat> LastAttributes(Id id) const;
  /// The path of a name in a directory.
  [[nodiscard]] std::optional<std::string> ChildPath(Id parent, const std::string& name) const;

  /// The node of a name if that is the only one it has.
  [[nodiscard]] std::optional<Id> NodeIfOnlyName(Id parent, const std::string& name) const;
  /// The names of the hidden files in a directory.
  [[nodiscard]] std::vector<std::string> HiddenNames(Id directory) const;
  /// Whether a name stands for a hidden file.
  [[nodiscard]] bool IsHidden(Id parent, const std::string& name) const;
  /// Takes a name away.
  void Unlink(Id parent, const std::string& name);
  /// Gives a node, and with it everything below, another name. Whatever had that one loses it.
  void Rename(Id parent, const std::string& name, Id new_parent, const std::string& new_name);
  /// Renames a file within its directory to a name that nobody is shown.
  void Hide(Id parent, const std::string& name, const std::string& hidden_name);
  /// Takes that back.
  void Show(Id parent, const std::string& hidden_name, const std::string& name);
  /// The paths of all hidden files.
  [[nodiscard]] std::vector<std::string> HiddenPaths() const;

 private:
  using Name = std::pair<Id, std::string>;     // parent and name in it
  using Inode = std::pair<int64_t, uint64_t>;  // device and number on it

  struct Node {
    std::vector<Name> names;  // the one seen last stands first
    uint64_t references;      // the kernel's, and one for each name below
    udisk_stat attributes;
    Clock::time_point told = {};
    Clock::time_point renewed = {};
    bool is_changed_here = false;  // through this mount
    bool is_hidden = false;
  };

  static bool IsSameFile(const Node& before, const udisk_stat& now);
  static Inode InodeOf(const udisk_stat& attributes) {
    return {int64_t{attributes.st_dev}, uint64_t{attributes.st_ino}};  // packed: by value
  }

  Id FindOrMakeLocked(const Name& name, const udisk_stat& attributes);
  void SetAttributesLocked(Id id, const udisk_stat& attributes);
  void RenameLocked(const Name& name, const Name& new_name);
  void AddNameLocked(Id id, const Name& name);
  void RemoveNameLocked(const Name& name);
  void DropReferencesLocked(Id id, uint64_t references);
  std::optional<std::string> PathLocked(Id id) const;

  mutable std::mutex mutex_;
  std::unordered_map<Id, Node> nodes_{{kRoot, {.names = {}, .references = 1, .attributes = {}}}};
  std::map<Name, Id> children_;
  std::map<Inode, Id> files_;  // all but directories
  Id last_ = kRoot;
};

}  // namespace cpd::host
