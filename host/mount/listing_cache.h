// Caches directory listings, and checks them before they are shown again.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "remote/remote_files.h"

namespace cpd::host {

/// Lists directories. For a directory that was listed recently, the module gets the old listing to
/// check, and sends a new one only if the directory differs from it.
///
/// The check compares names, sizes and seconds of modification, and the directory's own times show
/// that a file was replaced. Any other change on the client (a mode, an owner, a link count, or
/// content that changes twice within one second and keeps its size) shows in listings only when the
/// cached one is kLongestUse old. Changes through this mount show at once. All operations are
/// callable from any thread.
class ListingCache {
 public:
  static constexpr std::chrono::seconds kLongestUse{30};

  /// @param enabled  false: nothing is cached, every directory is listed in full
  ListingCache(RemoteFiles& files, bool enabled) : files_(files), enabled_(enabled) {}

  void List(const std::string& directory, RemoteFiles::Done<SharedListing> done);
  /// Forgets the listings that a change of `path` makes wrong: its own, those below it, and those
  /// that show it. Must be called after the module has made the change, before a program hears of
  /// it.
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
  // Listings under way. A change removes those whose answer may not show it.
  std::map<uint64_t, Question> questions_;
  uint64_t last_question_ = 0;
};

}  // namespace cpd::host
