// Notices changes in directories of a disk, with inotify.
#pragma once

#include <sys/inotify.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "descriptor.h"
#include "remote/notice.h"

namespace cpd::host {

/// Watches directories of a disk for changes of their names, and of the files that have these
/// names. A directory counts as watched only together with those above it up to the disk's root, so
/// that its path still leads to it as long as nothing else is told.
///
/// What is not told: changes through a name in another directory (a hard link), through a mapping
/// of the file, by io_submit or by a loop device; access times; and what is mounted over the disk
/// or a part of it. Only file systems whose changes all go through this kernel are watched. A watch
/// does not keep the disk from being unmounted. Not synchronized.
class DirectoryWatches {
 public:
  static constexpr size_t kMost = 512;
  /// Longest path and most components of a directory to watch.
  static constexpr size_t kLongestPath = 3072;
  static constexpr size_t kDeepest = 64;
  /// Most notices of one Collect.
  static constexpr size_t kMostNotices = 1024;
  /// The mask of every watch.
  static constexpr uint32_t kEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                      IN_MODIFY | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF |
                                      IN_ONLYDIR | IN_EXCL_UNLINK;

  using Notices = std::vector<Notice>;

  /// Without inotify, nothing can be watched.
  /// @param disk  the disk's root, an absolute path
  /// @param most  directories to watch, those above others included
  explicit DirectoryWatches(std::string disk, size_t most = kMost);

  /// Of inotify; readable when there is something to collect. Negative: there is none.
  [[nodiscard]] int descriptor() const { return inotify_.get(); }
  /// Watches a directory, and stops watching others if there are too many.
  /// @param path     begins with '/', the disk's root
  /// @param notices  gets kWatched if the directory is watched from now on, after all that was to
  ///                 be collected
  void Watch(const std::string& path, Notices* notices);
  /// Tells, each once, the changes that were made until this was called. If they are too many or
  /// cannot be read, stops watching and gives kAll.
  void Collect(Notices* notices);
  /// Watches nothing any more, and drops what was to be collected.
  void Forget();
  /// How many directories are watched, those above others included.
  [[nodiscard]] size_t size() const { return watched_.size(); }

 private:
  struct Watched {
    int watch;
    bool is_told = false;  // false: watched only for a directory below it
    uint64_t last_use = 0;
  };

  bool Add(const std::string& path, Notices* notices);
  void NoteUse(const std::string& path);
  bool Read(Notices* notices);
  void Note(const inotify_event& event, Notices* notices);
  void MakeRoom(Notices* notices);
  void Drop(const std::string& path);

  const std::string disk_;
  const size_t most_;
  const Descriptor inotify_;
  std::map<std::string, Watched> watched_;  // by path
  std::map<int, std::string> paths_;        // by watch
  uint64_t last_use_ = 0;
};

}  // namespace cpd::host
