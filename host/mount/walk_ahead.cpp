#include "mount/walk_ahead.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "remote/paths.h"
#include "remote/statistics.h"

namespace cpd::host {
namespace {

constexpr std::chrono::milliseconds kJustInTime{250};
constexpr std::chrono::milliseconds kLongBefore{500};
constexpr size_t kMostWalks = 32;
constexpr size_t kMostNames = 10'000;  // of one walk
constexpr size_t kMostAhead = 64;
constexpr size_t kLongestKept = 512 << 10;        // of a listing, in bytes
constexpr size_t kLongestStep = 16;               // a program may leave some directories out
constexpr unsigned kMostStrays = 2;               // in a row, until an order counts as another
constexpr int64_t kLargestDirectory = 128 << 10;  // in bytes on the disk

/// The subdirectories to walk through, in the order of the listing.
std::vector<std::string> Subdirectories(const Listing& listing) {
  std::vector<std::string> names;
  for (const auto& [attributes, name] : listing.entries) {
    const int64_t size = attributes.st_size;
    if (!S_ISDIR(attributes.st_mode) || name == "." || name == "..") continue;
    if (size <= kLargestDirectory && names.size() < kMostNames) names.emplace_back(name);
  }
  return names;
}

size_t MemoryOf(const std::vector<std::string>& names) {
  size_t bytes = 0;
  for (const auto& name : names) bytes += sizeof(std::string) + name.capacity();
  return bytes;
}

}  // namespace

void WalkAhead::List(const std::string& directory, uint64_t changes, Done done) {
  if (!enabled_ || !files_.IsFar()) return Ask(directory, changes, std::move(done));
  SharedAhead ahead;
  bool is_waiting = false;
  Asked asked;
  {
    const std::lock_guard lock(mutex_);
    DropStaleLocked();
    ahead = TakeLocked(directory, changes);
    is_waiting = ahead != nullptr && !ahead->answer;
    if (is_waiting) {
      ahead->waiting.push_back([this, directory, done](const Result<Shown>& result) {
        if (result.error == 0) NoteShown(directory, result.value.listing);
        done(result);
      });
    }
    FollowLocked(directory, ahead.get(), changes, &asked);
    if (ahead != nullptr && !is_waiting) {
      const auto below = WalkThroughLocked(directory, *ahead->answer->value);
      AskAheadLocked(below, std::min(below.names.size(), kFirstReach), changes, &asked);
    }
  }
  // What the program asks for goes first.
  if (ahead == nullptr) {
    Ask(directory, changes, std::move(done));
  } else if (!is_waiting) {
    NoteShown(directory, ahead->answer->value);
    done(ahead->result());
  }
  for (const auto& [path, next] : asked) {
    listings_.List(path, [this, path = path, next = next](const Result<SharedListing>& answer) {
      TakeAnswer(path, next, answer);
    });
  }
}

void WalkAhead::Ask(const std::string& directory, uint64_t changes, Done done) {
  listings_.List(directory, [this, directory, changes,
                             done = std::move(done)](const Result<SharedListing>& answer) {
    if (answer.error != 0) return done({.error = answer.error});
    if (enabled_) NoteShown(directory, answer.value);
    done({.value = {.listing = answer.value, .changes = changes, .asked = std::nullopt}});
  });
}

void WalkAhead::TakeAnswer(const std::string& directory, const SharedAhead& ahead,
                           const Result<SharedListing>& answer) {
  std::vector<Done> waiting;
  {
    const std::lock_guard lock(mutex_);
    waiting.swap(ahead->waiting);
    // However large it is, another may be asked for when nothing is kept but names.
    if (answer.error == 0) latest_ = std::min(answer.value->memory(), memory_ / 2);
    const bool is_kept = !waiting.empty() || answer.error != 0 || HasRoomLocked(*answer.value);
    ahead->answer = is_kept ? answer : Result<SharedListing>{.error = ENOBUFS};
    if (auto* walk = is_kept ? nullptr : FindWalkLocked(DirectoryOf(directory))) walk->reach /= 2;
  }
  for (const auto& done : waiting) done(ahead->result());
}

/// Whether a listing may be kept beside those that are. The size of its directory, which was looked
/// at before it was asked for, is only what the other side says of it.
bool WalkAhead::HasRoomLocked(const Listing& listing) const {
  if (listing.bytes.size() > kLongestKept) return false;
  size_t memory = MemoryOfNamesLocked() + listing.memory();
  for (const auto& [path, other] : ahead_) {
    if (other->answer && other->answer->error == 0) memory += other->answer->value->memory();
  }
  return memory <= memory_;
}

size_t WalkAhead::MemoryOfNamesLocked() const {
  size_t memory = 0;
  for (const auto& walk : walks_) memory += walk.memory;
  return memory;
}

/// Notes which subdirectories a program may list next.
void WalkAhead::NoteShown(const std::string& directory, const SharedListing& listing) {
  const std::lock_guard lock(mutex_);
  auto walk = WalkThroughLocked(directory, *listing);
  walks_.remove_if([&](const Walk& other) { return other.directory == directory; });
  if (walk.names.empty()) return;
  walks_.push_front(std::move(walk));
  while (walks_.size() > kMostWalks || MemoryOfNamesLocked() > memory_ / 2) walks_.pop_back();
}

/// A walk that has not begun, in the order of the one that leads to it.
WalkAhead::Walk WalkAhead::WalkThroughLocked(const std::string& directory, const Listing& listing) {
  Walk walk{.directory = directory, .names = Subdirectories(listing)};
  walk.memory = MemoryOf(walk.names);
  const auto* const above = FindWalkLocked(DirectoryOf(directory));
  if (above != nullptr && above->is_sorted) walk.Sort();
  return walk;
}

/// The place of a name, if a program on its way through all of them may list it next.
std::optional<size_t> WalkAhead::Walk::FindNear(std::string_view name) const {
  const size_t end = std::min(names.size(), next + kLongestStep);
  for (size_t i = next; i < end; ++i) {
    if (names[i] == name) return i;
  }
  return std::nullopt;
}

void WalkAhead::Walk::Sort() {
  std::ranges::sort(names);
  is_sorted = true;
  next = asked_end = 0;
}

bool WalkAhead::Walk::MoveTo(std::string_view name) {
  auto place = FindNear(name);
  if (!place && !is_sorted) {
    if (std::ranges::find(names, name) == names.end()) return false;
    // One in between may be another program's.
    if (next > 0 && ++strays < kMostStrays) return false;
    Sort();
    place = FindNear(name);
  }
  if (place) {
    strays = 0;
    next = *place + 1;
    asked_end = std::max(asked_end, next);
    return true;
  }
  // The program may go on in order from here.
  const auto found = std::ranges::lower_bound(names, name);
  if (found != names.end() && *found == name) {
    next = asked_end = static_cast<size_t>(found - names.begin()) + 1;
  }
  return false;
}

/// @return null when no listing that came ahead is usable
WalkAhead::SharedAhead WalkAhead::TakeLocked(const std::string& directory, uint64_t changes) {
  const auto found = ahead_.extract(directory);
  if (found.empty()) return nullptr;
  auto& savings = files_.savings();
  const bool is_usable = found.mapped()->IsUsable(changes);
  ++(is_usable ? savings.listings_ahead_used : savings.listings_ahead_unused);
  return is_usable ? found.mapped() : nullptr;
}

WalkAhead::Walk* WalkAhead::FindWalkLocked(const std::string& directory) {
  const auto walk =
      std::ranges::find_if(walks_, [&](const Walk& one) { return one.directory == directory; });
  if (walk == walks_.end()) return nullptr;
  walks_.splice(walks_.begin(), walks_, walk);
  return &*walk;
}

/// Called when a program lists this directory. Asks for those that come next beside it: for more if
/// this listing came just in time, for fewer if it came long before.
void WalkAhead::FollowLocked(const std::string& directory, const Ahead* ahead, uint64_t changes,
                             Asked* asked) {
  auto* walk = directory == "/" ? nullptr : FindWalkLocked(DirectoryOf(directory));
  if (walk == nullptr || !walk->MoveTo(NameOf(directory))) return;
  if (ahead != nullptr) {
    const auto age = Clock::now() - ahead->asked;
    if (age < kJustInTime) walk->reach = std::clamp<size_t>(walk->reach * 2, 1, kLongestReach);
    if (age > kLongBefore) walk->reach = std::max<size_t>(walk->reach / 2, 1);
  }
  const size_t reach_end = std::min(walk->names.size(), walk->next + walk->reach);
  if (walk->asked_end >= reach_end) return;
  walk->asked_end = AskAheadLocked(*walk, reach_end, changes, asked);
}

/// @return the place up to which they are asked for: before `end` if there would be no room
size_t WalkAhead::AskAheadLocked(const Walk& walk, size_t end, uint64_t changes, Asked* asked) {
  const auto has_room = [this] {
    return ahead_.size() < kMostAhead &&
           MemoryOfNamesLocked() + (ahead_.size() + 1) * latest_ <= memory_;
  };
  size_t i = walk.asked_end;
  for (; i < end && has_room(); ++i) {
    auto path = JoinPath(walk.directory, walk.names[i]);
    const auto [place, is_new] = ahead_.try_emplace(path);
    if (!is_new) continue;
    place->second = std::make_shared<Ahead>(Ahead{.changes = changes});
    asked->emplace_back(std::move(path), place->second);
    ++files_.savings().listings_ahead;
  }
  return i;
}

/// Those that were not used in time came too early: then fewer are asked for.
void WalkAhead::DropStaleLocked() {
  const auto now = Clock::now();
  std::erase_if(ahead_, [&](const auto& one) {
    if (now - one.second->asked <= kTrusted) return false;
    ++files_.savings().listings_ahead_unused;
    if (auto* walk = FindWalkLocked(DirectoryOf(one.first))) walk->reach /= 2;
    return true;
  });
}

}  // namespace cpd::host
