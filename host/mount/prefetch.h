// Small files that are read before a program asks for them.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mount/reading_run.h"
#include "remote/remote_files.h"

namespace cpd::host {

/// Watches programs read. Where one reads its way through the small files of a directory that it
/// has listed, the next ones are got together in one request.
///
/// Such a content is used once, and only
///  - when it was asked for less than kTrusted ago: a change on the disk shows as soon as one of
///    the attributes, which the kernel trusts as long;
///  - when the kernel knows the file as it was listed, and the content has the length of then;
///  - when no change of the file through this mount has been carried out since it was asked for.
/// Else the file is read as if there were no prefetch. All operations are callable from any thread.
class Prefetch {
 public:
  static constexpr std::chrono::seconds kTrusted{1};

  /// @param enabled  false: nothing is read ahead
  Prefetch(RemoteFiles& files, bool enabled) : files_(files), enabled_(enabled) {}

  /// A program has listed the directory.
  void Listed(const std::string& directory, SharedListing listing);
  /// A program reads the file up to its end: asks for those that it may want next.
  void ReadToItsEnd(const std::string& path);
  /// Hands the content of a file that the kernel knows so to `use`, if it is there. Nothing is
  /// forgotten while `use` runs.
  /// @return what `use` returns; false when the content is not there
  bool Take(const std::string& path, const udisk_stat& known,
            const std::function<bool(std::string_view content)>& use);
  /// Forgets the contents of `path` and of what lies below. To be called when the disk has carried
  /// out a change, before anybody is told of it.
  void Forget(const std::string& path);

 private:
  using Clock = std::chrono::steady_clock;
  /// Files that were asked for together.
  struct Batch {
    Clock::time_point asked = Clock::now();
    std::vector<SmallFile> files;
    std::vector<udisk_stat> listed;  // their attributes
    SmallFilesData data;             // empty until the answer comes

    [[nodiscard]] bool IsStale() const { return Clock::now() - asked > kTrusted; }
  };
  /// One of them; holds the batch until it was read.
  struct Place {
    std::shared_ptr<Batch> batch;
    size_t index;
  };

  std::shared_ptr<Batch> Reserve(const std::string& directory,
                                 const std::vector<ReadingRun::File>& files);
  void TakeAnswer(const std::shared_ptr<Batch>& batch, Result<SmallFilesData> result);
  ReadingRun* FindRun(const std::string& directory);
  size_t Drop(const std::shared_ptr<Batch>& batch);
  void DropStale();
  void DropOldest();

  RemoteFiles& files_;
  const bool enabled_;
  std::mutex mutex_;
  std::list<std::pair<std::string, ReadingRun>> runs_;  // by directory; the latest in front
  std::map<std::string, Place> places_;                 // by path
  std::list<std::weak_ptr<Batch>> batches_;             // the oldest in front
};

}  // namespace cpd::host
