// The listings that the remote side holds, and checks before it shows them again.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "remote/remote_files.h"

namespace cpd::host {

/// Lists directories. A directory that was listed not long ago is checked instead: its listing goes
/// up, and comes down anew only if the directory differs from it.
///
/// The check compares names, sizes and seconds of modification; the directory's own times show
/// when one of its files was replaced. What else somebody changes on the disk itself (a mode, an
/// owner, a link count, the content of a file within the second of its last change and at the same
/// size) stays unseen in listings until the listing is kLongestUse old. Changes through this mount
/// show at once. All operations are callable from any thread.
class ListingCache {
 public:
  static constexpr std::chrono::seconds kLongestUse{30};

  /// @param enabled  false: nothing is kept, every directory is listed in full
  ListingCache(RemoteFiles& files, bool enabled) : files_(files), enabled_(enabled) {}

  void List(const std::string& directory, RemoteFiles::Done<SharedListing> done);
  /// Forgets what a change of `path` makes wrong: the listing that shows it, its own, and those
  /// below it. To be called when the disk has carried it out, before anybody is told of it.
  void Forget(const std::string& path);

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr size_t kMostListings = 256;
  static constexpr size_t kMostBytes = 32U << 20;

  struct Kept {
    SharedListing listing;
    Clock::time_point asked;
    uint64_t last_use;
  };
  struct Question {
    std::string directory;
    Clock::time_point asked;
  };

  void ListInFull(uint64_t question, const std::string& directory,
                  RemoteFiles::Done<SharedListing> done);
  SharedListing Find(const std::string& directory);
  uint64_t NoteQuestion(const std::string& directory);
  bool EndQuestion(uint64_t question);
  SharedListing Keep(uint64_t question, Listing&& answer);
  void MakeRoom();

  RemoteFiles& files_;
  const bool enabled_;
  std::mutex mutex_;
  std::map<std::string, Kept> kept_;  // by path
  uint64_t last_use_ = 0;
  // Under way. A change takes out those that it may have overtaken.
  std::map<uint64_t, Question> questions_;
  uint64_t last_question_ = 0;
};

}  // namespace cpd::host
