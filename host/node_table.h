// The kernel's numbers for files and directories, and the paths behind them.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>

namespace cpd::host {

/// One node a name that the kernel knows; the kernel counts how often it was told of each and
/// forgets them in its own time. A node stays as long as the kernel or a child needs it, so that a
/// path can always be made. All operations are callable from any thread.
class NodeTable {
 public:
  using Id = uint64_t;
  static constexpr Id kRoot = 1;

  struct File {
    std::string path;  ///< begins with '/'
    int64_t size;      ///< as last told
  };

  /// The node of a name, made when there is none; counts one reference of the kernel. Ids are
  /// never used twice.
  Id Refer(Id parent, const std::string& name, int64_t size);
  /// Takes references of the kernel back.
  void Forget(Id id, uint64_t references);
  /// Notes a file's size as the kernel is told it.
  void SetSize(Id id, int64_t size);
  /// Empty for an id that the kernel was never given.
  [[nodiscard]] std::optional<File> Find(Id id) const;
  /// The path of a name in a directory.
  [[nodiscard]] std::optional<std::string> ChildPath(Id parent, const std::string& name) const;

 private:
  struct Node {
    Id parent;
    std::string name;
    uint64_t references;  // the kernel's, and one for each child
    int64_t size;
  };

  std::string PathLocked(Id id) const;

  mutable std::mutex mutex_;
  std::unordered_map<Id, Node> nodes_{
      {kRoot, {.parent = 0, .name = "", .references = 1, .size = 0}}};
  std::map<std::pair<Id, std::string>, Id> children_;
  Id last_ = kRoot;
};

}  // namespace cpd::host
