// Lists directories before a program asks for them.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
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

#include "mount/listing_cache.h"
#include "remote/remote_files.h"

namespace cpd::host {

/// Follows programs that walk through a tree of directories. When one lists the subdirectories of a
/// directory in the order of its listing or of their names, the next ones are listed ahead: more of
/// them while they come just in time, fewer when they come long before or are not used. If the
/// listing that the program gets came ahead itself, the first directories below it are listed
/// ahead, too. Does all this only when the disk is far: when it is near, there is no wait to save.
///
/// A listing that came ahead is shown once, and only if a program asks for it at most kTrusted
/// after it was asked for, with nothing changed through this mount in between. All operations are
/// callable from any thread.
class WalkAhead {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr std::chrono::seconds kTrusted{1};
  static constexpr size_t kFirstReach = 4;
  static constexpr size_t kLongestReach = 32;

  struct Shown {
    SharedListing listing;
    uint64_t changes;                        ///< through this mount before it was asked for
    std::optional<Clock::time_point> asked;  ///< when; empty unless listed ahead
  };
  using Done = std::function<void(const Result<Shown>&)>;

  /// @param enabled  false: nothing is listed ahead
  /// @param memory   the most that it may keep, in bytes: at most half of it names of directories,
  ///                 the rest listings
  WalkAhead(RemoteFiles& files, ListingCache& listings, bool enabled, size_t memory)
      : files_(files), listings_(listings), enabled_(enabled), memory_(memory) {}

  /// Lists a directory for a program, and lists ahead those that it may want next. `done` may run
  /// before this returns.
  /// @param changes  how many have been made through this mount so far
  void List(const std::string& directory, uint64_t changes, Done done);

 private:
  /// A listing that was asked for ahead.
  struct Ahead {
    Clock::time_point asked = Clock::now();
    uint64_t changes;
    std::optional<Result<SharedListing>> answer = {};
    std::vector<Done> waiting = {};

    [[nodiscard]] bool IsUsable(uint64_t changes_now) const {
      const bool has_failed = answer && answer->error != 0;
      return !has_failed && changes == changes_now && Clock::now() - asked <= kTrusted;
    }
    [[nodiscard]] Result<Shown> result() const {
      return {.error = answer->error,
              .value = {.listing = answer->value, .changes = changes, .asked = asked}};
    }
  };
  using SharedAhead = std::shared_ptr<Ahead>;
  /// A directory's subdirectories, and a program's progress through them.
  struct Walk {
    /// Follows a program to a subdirectory. Sorts the names if it came in another order.
    /// @return whether it came in order
    bool MoveTo(std::string_view name);
    void Sort();
    [[nodiscard]] std::optional<size_t> FindNear(std::string_view name) const;

    std::string directory;
    std::vector<std::string> names;  // in the order of the listing, or sorted
    bool is_sorted = false;
    unsigned strays = 0;   // the latest ones that came out of order
    size_t next = 0;       // the place after the one listed last
    size_t asked_end = 0;  // those before this one were asked for, or passed over
    size_t reach = kFirstReach;
    size_t memory = 0;  // of the names, in bytes
  };
  using Asked = std::vector<std::pair<std::string, SharedAhead>>;

  void Ask(const std::string& directory, uint64_t changes, Done done);
  void TakeAnswer(const std::string& directory, const SharedAhead& ahead,
                  const Result<SharedListing>& answer);
  [[nodiscard]] size_t MemoryOfNamesLocked() const;
  [[nodiscard]] bool HasRoomLocked(const Listing& listing) const;
  void NoteShown(const std::string& directory, const SharedListing& listing);
  Walk WalkThroughLocked(const std::string& directory, const Listing& listing);
  SharedAhead TakeLocked(const std::string& directory, uint64_t changes);
  Walk* FindWalkLocked(const std::string& directory);
  void FollowLocked(const std::string& directory, const Ahead* ahead, uint64_t changes,
                    Asked* asked);
  size_t AskAheadLocked(const Walk& walk, size_t end, uint64_t changes, Asked* asked);
  void DropStaleLocked();

  RemoteFiles& files_;
  ListingCache& listings_;
  const bool enabled_;
  const size_t memory_;
  std::mutex mutex_;
  std::list<Walk> walks_;                     // the latest in front
  std::map<std::string, SharedAhead> ahead_;  // by path
  size_t latest_ = 0;                         // what an answer is guessed to take, in bytes
};

}  // namespace cpd::host
