// Reads small files before a program asks for them.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "mount/reading_run.h"
#include "remote/remote_files.h"

namespace cpd::host {

/// Watches what programs read. When one reads its way through the small files of a directory that
/// it has listed, fetches the next ones together in one request.
///
/// Fetched content is used once, and only under three conditions. When a program asks for it, it
/// was requested less than kTrusted ago: then a change of a file's content on the client shows as
/// soon as one of its attributes would, since the kernel trusts those for the same time. The kernel
/// knows the file as it was listed, and the content has the listed length. The file has not been
/// changed through this mount since the request. Otherwise the file is read as without prefetch.
/// All operations are callable from any thread.
class Prefetch {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kTrusted{1};

  /// @param enabled  false: nothing is read ahead
  /// @param memory   the most that it may keep, in bytes: half of it listings, half of it files
  Prefetch(RemoteFiles& files, bool enabled, size_t memory)
      : files_(files), enabled_(enabled), memory_(memory / 2) {}

  /// Notes that a program has listed the directory.
  void Listed(const std::string& directory, SharedListing listing);
  /// Notes that a program reads the file to its end, or will, and fetches the files that it may
  /// want next.
  void ReadToItsEnd(const std::string& path);
  /// Passes a file's content to `use`, if it was fetched and may be used. Forget waits while `use`
  /// runs.
  /// @param known  the attributes that the kernel has
  /// @return what `use` returns; false when the content is not there
  bool Take(const std::string& path, const udisk_stat& known,
            const std::function<bool(std::string_view content)>& use);
  /// Receives a file's content and when it was asked for; null if it cannot be used, because
  /// it did not come or was forgotten meanwhile.
  using Awaited = std::function<void(const std::string_view* content, Clock::time_point asked)>;
  /// Waits for a file's content that was asked for and is on its way. A request for this file
  /// alone would be answered later. `awaited` runs once, usually on the thread that delivers
  /// replies.
  /// @param known  the attributes that the kernel has
  /// @return false when the content is not on its way, or may not be used; then `awaited` never
  /// runs
  bool Await(const std::string& path, const udisk_stat& known, Awaited awaited);
  /// Forgets the contents of `path` and of everything below it. Must be called after the module has
  /// made a change, before a program hears of it.
  void Forget(const std::string& path);

 private:
  /// Files that were asked for together.
  struct Batch {
    Clock::time_point asked = Clock::now();
    std::vector<SmallFile> files;
    std::vector<udisk_stat> listed;                   // the attributes they were listed with
    size_t memory = 0;                                // that it takes with the answer, in bytes
    SmallFilesData data;                              // empty until the answer comes
    std::vector<std::pair<size_t, Awaited>> waiting;  // for the answer, with the file's index

    [[nodiscard]] bool IsStale() const { return Clock::now() - asked > kTrusted; }
  };
  /// A file in a batch; keeps the batch alive until the file is used.
  struct Place {
    std::shared_ptr<Batch> batch;
    size_t index;
  };

  std::shared_ptr<Batch> Reserve(const std::string& directory,
                                 const std::vector<ReadingRun::File>& files);
  void MakeRoom(size_t memory);
  void TakeAnswer(const std::shared_ptr<Batch>& batch, Result<SmallFilesData> result);
  bool IsInPlace(const std::shared_ptr<Batch>& batch, size_t index) const;
  ReadingRun* FindRun(const std::string& directory);
  size_t Drop(const std::shared_ptr<Batch>& batch);
  void DropStale();
  void DropOldest();

  RemoteFiles& files_;
  const bool enabled_;
  const size_t memory_;  // of the listings, and likewise of the files
  std::mutex mutex_;
  std::list<std::pair<std::string, ReadingRun>> runs_;  // by directory; the latest in front
  std::optional<ReadingRun::Way> usual_;                // how the latest clear run went
  std::map<std::string, Place> places_;                 // by path
  std::list<std::weak_ptr<Batch>> batches_;             // the oldest in front
};

}  // namespace cpd::host
