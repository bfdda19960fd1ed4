#include "mount/listing_cache.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <numeric>
#include <utility>

#include "mount/reading_turn.h"
#include "remote/at_end.h"
#include "remote/attributes.h"
#include "remote/paths.h"
#include "remote/statistics.h"

namespace cpd::host {
namespace {

constexpr size_t kMemoryOfName = 512;  // of a Name in a map, generously
// Each time that a directory has this many more names, the memory of all directories is added up.
// To do that for every name would take too long.
constexpr size_t kNamesToMakeRoom = 16;

const Listing::Entry* Itself(const Listing& listing) {
  const auto itself = std::ranges::find(listing.entries, ".", &Listing::Entry::name);
  return itself == listing.entries.end() ? nullptr : &*itself;
}

/// Whether a directory is the one that was listed, with no entry made, removed or replaced since.
bool IsUntouched(const Listing& listing, const udisk_stat& directory) {
  const auto* const itself = Itself(listing);
  return itself != nullptr && itself->attributes.st_ino == directory.st_ino &&
         IsSameTime(itself->attributes.st_mtim, directory.st_mtim) &&
         IsSameTime(itself->attributes.st_ctim, directory.st_ctim);
}

/// Whether a file may change through a name in another directory.
bool HasOtherNames(const udisk_stat& attributes) {
  return !S_ISDIR(attributes.st_mode) && attributes.st_nlink > 1;
}

bool IsSame(const udisk_stat& a, const udisk_stat& b) {
  return IsSameContent(a, b) && IsSameTime(a.st_ctim, b.st_ctim) && a.st_mode == b.st_mode &&
         a.st_uid == b.st_uid && a.st_gid == b.st_gid && a.st_nlink == b.st_nlink;
}

/// Whether a directory is as it was made. It may be an older one, which the client has just moved
/// to this name: the module reports success when it is to make a directory that exists.
bool IsNewDirectory(const udisk_stat& attributes, bool mode_set) {
  return S_ISDIR(attributes.st_mode) && attributes.st_nlink <= 2 &&
         IsSameTime(attributes.st_atim, attributes.st_mtim) &&
         (mode_set || IsSameTime(attributes.st_ctim, attributes.st_mtim));
}

/// Whether every disk that tells upper from lower case takes the name as it is. Some compose or
/// decompose letters beyond ASCII.
bool IsPlain(std::string_view name) {
  return std::ranges::all_of(name, [](char c) { return c >= ' ' && c <= '~' && c != '\\'; });
}

bool IsLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

std::string WithOtherCase(std::string_view name) {
  std::string other(name);
  for (char& c : other) {
    if (IsLetter(c)) c = static_cast<char>(c ^ ('a' - 'A'));
  }
  return other;
}

}  // namespace

// ---- Listing ----

void ListingCache::List(const std::string& directory, RemoteFiles::Done<SharedListing> done) {
  // Noted before Find, so that a change that overtakes the found listing counts, too.
  const auto question = NoteQuestion(directory);
  const auto kept = Find(directory);
  if (kept == nullptr) return ListInFull(question, directory, std::move(done));
  files_.CheckDirectory(
      directory, *kept,
      [this, directory, question, kept, done = std::move(done)](Result<DirectoryCheck> result) {
        if (result.value.changed) {
          return done({.value = Keep(question, std::move(*result.value.changed))});
        }
        if (result.error != 0) {
          EndQuestion(question);
          return done({.error = result.error});
        }
        if (IsUntouched(*kept, result.value.directory) && Confirm(question, kept)) {
          return done({.value = kept});
        }
        ListInFull(question, directory, done);
      });
}

void ListingCache::ListInFull(uint64_t question, const std::string& directory,
                              RemoteFiles::Done<SharedListing> done) {
  {
    const std::lock_guard lock(mutex_);
    questions_.at(question).is_listed = true;
  }
  files_.List(directory, [this, question, done = std::move(done)](Result<Listing> result) {
    if (result.error == 0) return done({.value = Keep(question, std::move(result.value))});
    const auto ended = EndQuestion(question);
    {
      // It may be too long for the line.
      const std::lock_guard lock(mutex_);
      const auto asking = askings_.find(ended.directory);
      if (asking != askings_.end()) asking->second.listed = Clock::now() + kAfterFailure;
    }
    done({.error = result.error});
    Answer(ended.waiting);
  });
}

/// A listing that can be checked instead of being sent again.
SharedListing ListingCache::Find(const std::string& directory) {
  const std::lock_guard lock(mutex_);
  const auto kept = kept_.find(directory);
  if (kept == kept_.end()) return nullptr;
  auto& known = kept->second;
  if (!known.is_checkable || !known.names.empty() || Clock::now() - known.asked > kLongestUse) {
    return nullptr;
  }
  known.last_use = ++last_use_;
  return known.listing;
}

uint64_t ListingCache::NoteQuestion(const std::string& directory) {
  const std::lock_guard lock(mutex_);
  questions_.emplace(++last_question_, Question{.directory = directory, .asked = Clock::now()});
  return last_question_;
}

ListingCache::Question ListingCache::EndQuestion(uint64_t question) {
  const std::lock_guard lock(mutex_);
  return std::move(questions_.extract(question).mapped());
}

/// Ends a question by which a listing was seen to hold.
/// @return false when a change has overtaken it; then the question goes on
bool ListingCache::Confirm(uint64_t question, const SharedListing& listing) {
  const std::lock_guard lock(mutex_);
  const auto asked = questions_.find(question);
  if (asked->second.is_void || !asked->second.changes.empty()) return false;
  const auto kept = kept_.find(asked->second.directory);
  if (kept != kept_.end() && kept->second.listing == listing) {
    kept->second.names_asked = asked->second.asked;
  }
  questions_.erase(asked);
  return true;
}

/// Ends a question with its answer, and answers those that wait for it.
SharedListing ListingCache::Keep(uint64_t question, Listing&& answer) {
  auto listing = std::make_shared<const Listing>(std::move(answer));
  const auto* const itself = Itself(*listing);
  const bool is_kept = enabled_ && itself != nullptr && listing->memory() <= memory_;
  const bool has_links = std::ranges::any_of(
      listing->entries, [](const auto& entry) { return HasOtherNames(entry.attributes); });
  std::vector<std::function<void()>> waiting;
  std::string directory;
  {
    const std::lock_guard lock(mutex_);
    auto asked = std::move(questions_.extract(question).mapped());
    waiting = std::move(asked.waiting);
    directory = asked.directory;
    if (const auto asking = askings_.find(directory); asking != askings_.end()) {
      asking->second.entries = listing->entries.size();
      // Not again soon, if it answers no questions.
      if (!is_kept) asking->second.listed = Clock::now() + kAfterFailure;
    }
    if (is_kept && !asked.is_void) {
      kept_[directory] = {.listing = listing,
                          .is_checkable = RemoteFiles::CanCheck(*listing) && !has_links,
                          .is_watched = asked.is_watched,
                          .asked = asked.asked,
                          .names_asked = asked.asked,
                          .device = itself->attributes.st_dev,
                          .names = std::move(asked.changes),
                          .last_use = ++last_use_};
      MakeRoomLocked();
    }
  }
  if (is_kept) {
    const auto with_letter = std::ranges::find_if(listing->entries, [&](const auto& entry) {
      return IsPlain(entry.name) && std::ranges::any_of(entry.name, IsLetter) &&
             entry.attributes.st_dev == itself->attributes.st_dev;
    });
    if (with_letter != listing->entries.end()) {
      ProbeCase(directory, with_letter->name, with_letter->attributes);
    }
  }
  Answer(waiting);
  return listing;
}

size_t ListingCache::Directory::memory() const {
  return (listing == nullptr ? 0 : listing->memory()) + names.size() * kMemoryOfName;
}

/// Drops the directories that were used least recently.
void ListingCache::MakeRoomLocked() {
  size_t bytes = 0;
  for (const auto& [path, known] : kept_) bytes += known.memory();
  while (kept_.size() > kMostListings || bytes > memory_) {
    const auto oldest =
        std::ranges::min_element(kept_, {}, [](const auto& one) { return one.second.last_use; });
    bytes -= oldest->second.memory();
    kept_.erase(oldest);
  }
}

// ---- Single names ----

void ListingCache::GetAttributes(const std::string& path, const Asked& asked, const Shown& shown) {
  if (!enabled_ || asked.must_ask) return Ask(path, shown);
  const auto directory = DirectoryOf(path);
  const auto answer = [this, path, shown](std::optional<Name> name) {
    if (!name) return Ask(path, shown);
    if (name->attributes) return shown({.value = *name->attributes}, name->asked);
    shown({.error = ENOENT}, name->asked);
  };
  uint64_t question = 0;
  {
    std::unique_lock lock(mutex_);
    if (doubted_.erase(path) != 0) {
      lock.unlock();
      return Ask(path, shown);
    }
    if (const auto name = LookLocked(path)) {
      CheckGuessLocked(directory, NameOf(path));
      lock.unlock();
      ++files_.savings().known;
      return answer(name);
    }
    const auto wait = [this, path, answer](Savings::Count Savings::*count) {
      return [this, path, answer, count] {
        const auto name = Look(path);
        if (name) ++(files_.savings().*count);
        answer(name);
      };
    };
    if (const auto refreshing = refreshings_.find(path); refreshing != refreshings_.end()) {
      ++waiting_;
      refreshing->second.waiting.emplace_back(wait(&Savings::known));
      return;
    }
    const auto under_way = std::ranges::find_if(questions_, [&](const auto& one) {
      const auto& listed = one.second;
      return listed.is_listed && !listed.is_void && listed.directory == directory &&
             !listed.changes.contains(NameOf(path));
    });
    const bool joins = path != "/" && under_way != questions_.end();
    if (!joins &&
        (path == "/" || !WantsListingLocked(directory, NameOf(path), asked.directory_size))) {
      lock.unlock();
      return Ask(path, shown);
    }
    ++waiting_;
    if (joins) {
      under_way->second.waiting.emplace_back(wait(&Savings::shared));
      return;
    }
    question = ++last_question_;
    questions_.emplace(question, Question{.directory = directory,
                                          .asked = Clock::now(),
                                          .waiting = {wait(&Savings::shared)}});
  }
  ListInFull(question, directory, [](const Result<SharedListing>&) {});
}

void ListingCache::Ask(const std::string& path, const Shown& shown) {
  files_.GetAttributes(path,
                       [shown](const Result<udisk_stat>& result) { shown(result, std::nullopt); });
}

/// Runs what waited for an answer.
void ListingCache::Answer(const std::vector<std::function<void()>>& waiting) {
  const AtEnd answered([&] {
    const std::lock_guard lock(mutex_);
    waiting_ -= waiting.size();
    if (waiting_ == 0) answered_.notify_all();
  });
  for (const auto& wait : waiting) wait();
}

void ListingCache::AwaitAnswers() {
  std::unique_lock lock(mutex_);
  if (waiting_ != 0) ReadingTurn::PassOn();
  answered_.wait(lock, [this] { return waiting_ == 0; });
}

/// Counts a question for a name. @return whether the directory should be listed instead
bool ListingCache::WantsListingLocked(const std::string& directory, std::string_view name,
                                      int64_t directory_size) {
  const auto now = Clock::now();
  if (askings_.size() >= kMostAskings) {
    std::erase_if(askings_, [&](const auto& one) {
      const auto& asking = one.second;
      return now - std::max({asking.since, asking.listed, asking.wanted_below}) > trusted_;
    });
    if (askings_.size() >= kMostAskings) askings_.clear();
  }
  auto& asking = askings_[directory];
  if (asking.entries == 0) {
    asking.entries = static_cast<size_t>(std::max<int64_t>(directory_size, 0)) / kBytesOfName;
  }
  if (now - asking.since > trusted_) {
    asking.since = now;
    asking.count = 0;
  }
  if (asking.last == name) return false;
  asking.last = name;
  ++asking.count;
  if (now - asking.listed <= trusted_) return false;
  const bool has_several =
      asking.count > std::max(kSingleQuestions, asking.entries / kNamesOfLarge);
  auto& above = askings_[DirectoryOf(directory)];
  asking.is_guess = !has_several && directory != "/" && now - above.wanted_below <= trusted_ &&
                    above.guesses_below < kMostGuesses &&
                    asking.count > asking.entries / kNamesOfGuess;
  if (asking.is_guess) ++above.guesses_below;
  if (has_several) NoteSeveralLocked(directory);
  if (!has_several && !asking.is_guess) return false;
  asking.listed = now;
  return true;
}

/// Notes that several names of a directory were asked for: the same may happen beside it.
void ListingCache::NoteSeveralLocked(const std::string& directory) {
  if (directory == "/") return;
  auto& above = askings_[DirectoryOf(directory)];
  above.wanted_below = Clock::now();
  above.guesses_below = 0;
}

/// Called when a name is known. Whether a directory was rightly listed at the first question shows
/// at the second one.
void ListingCache::CheckGuessLocked(const std::string& directory, std::string_view name) {
  const auto asking = askings_.find(directory);
  if (asking == askings_.end() || !asking->second.is_guess || asking->second.last == name) return;
  asking->second.is_guess = false;
  NoteSeveralLocked(directory);
}

std::optional<ListingCache::Name> ListingCache::Look(const std::string& path) {
  const std::lock_guard lock(mutex_);
  return LookLocked(path);
}

std::optional<ListingCache::Name> ListingCache::LookLocked(const std::string& path) {
  if (path != "/") {
    if (auto name = LookLocked(DirectoryOf(path), NameOf(path))) return name;
  }
  return LookLocked(path, ".");
}

std::optional<ListingCache::Name> ListingCache::LookLocked(const std::string& directory,
                                                           std::string_view name) {
  const auto found = kept_.find(directory);
  if (found == kept_.end()) return std::nullopt;
  auto& known = found->second;
  const auto now = Clock::now();
  Name answer;
  // A change within a subdirectory is told of the subdirectory only if that is watched itself.
  bool is_told = IsWatched(known, now);
  if (const auto newer = known.names.find(name); newer != known.names.end()) {
    answer = newer->second;
    is_told &= name == "." || !answer.attributes || !S_ISDIR(answer.attributes->st_mode);
  } else if (const auto* const entry = EntryOf(known, name); entry != nullptr) {
    answer.is_known = entry->HasAttributes() && !HasOtherNames(entry->attributes);
    answer.attributes = entry->attributes;
    answer.asked = known.asked;
    is_told &= name == "." || !S_ISDIR(entry->attributes.st_mode);
  } else if (IsListed(known) && known.listing == nullptr && name != "." && IsPlain(name)) {
    answer.is_known = TellsCaseApartLocked(known);
    answer.asked = known.names_asked;
  }
  if (is_told) answer.asked = std::max(answer.asked, files_.told_until());
  if (!answer.is_known || now - answer.asked >= trusted_) return std::nullopt;
  known.last_use = ++last_use_;
  return answer;
}

/// Whether what is known of a directory's names is still as it was, unless a change was told.
bool ListingCache::IsWatched(const Directory& known, Clock::time_point now) {
  return known.is_watched && now - known.asked < kLongestUse;
}

const Listing::Entry* ListingCache::EntryOf(Directory& known, std::string_view name) {
  if (known.listing == nullptr) return nullptr;
  const auto& entries = known.listing->entries;
  const auto name_at = [&](uint32_t index) { return entries[index].name; };
  if (known.by_name.empty()) {
    known.by_name.resize(entries.size());
    std::iota(known.by_name.begin(), known.by_name.end(), 0);
    std::ranges::sort(known.by_name, {}, name_at);
  }
  const auto place = std::ranges::lower_bound(known.by_name, name, {}, name_at);
  return place != known.by_name.end() && name_at(*place) == name ? &entries[*place] : nullptr;
}

// ---- Changes ----

void ListingCache::NoteChange(const std::string& path, RemoteFiles::ChangeOf what) {
  if (!enabled_) return;
  const auto parent = DirectoryOf(path);
  const std::lock_guard lock(mutex_);
  if (path != "/") SetNameLocked(parent, NameOf(path), {});
  SetNameLocked(path, ".", {});
  if (what != RemoteFiles::ChangeOf::kName) return;
  SetNameLocked(parent, ".", {});
  if (parent != "/") SetNameLocked(DirectoryOf(parent), NameOf(parent), {});
  kept_.erase(path);
  const auto [first, last] = Below(kept_, path);
  kept_.erase(first, last);
  for (auto& [id, question] : questions_) question.is_void |= IsWithin(question.directory, path);
}

void ListingCache::NoteShown(const std::string& path, const Result<udisk_stat>& result) {
  const std::lock_guard lock(mutex_);
  const auto differs = [&](const std::string& directory, std::string_view name) {
    const auto found = kept_.find(directory);
    if (found == kept_.end()) return false;
    auto& known = found->second;
    const udisk_stat* attributes = nullptr;
    if (const auto newer = known.names.find(name); newer != known.names.end()) {
      if (!newer->second.is_known) return false;
      if (newer->second.attributes) attributes = &*newer->second.attributes;
    } else if (const auto* const entry = EntryOf(known, name); entry != nullptr) {
      attributes = &entry->attributes;
    }
    if (attributes == nullptr) return IsListed(known) && result.error != ENOENT;
    return result.error != 0 || !IsSame(*attributes, result.value);
  };
  if (path != "/" && differs(DirectoryOf(path), NameOf(path))) {
    SetNameLocked(DirectoryOf(path), NameOf(path), {});
  }
  if (differs(path, ".")) SetNameLocked(path, ".", {});
}

void ListingCache::NoteChanged(const std::string& path, const udisk_stat& attributes,
                               Clock::time_point asked) {
  if (!enabled_) return;
  const std::lock_guard lock(mutex_);
  SetShownLocked(path, attributes, asked);
}

void ListingCache::NoteMade(const std::string& path, const udisk_stat& attributes,
                            Clock::time_point asked, bool mode_set) {
  if (!enabled_) return;
  {
    const std::lock_guard lock(mutex_);
    SetShownLocked(path, attributes, asked);
    if (!IsNewDirectory(attributes, mode_set)) return;
    const Name itself{.is_known = true, .attributes = attributes, .asked = asked};
    kept_[path] = {.names_asked = asked,
                   .device = attributes.st_dev,
                   .names = {{".", itself}},
                   .last_use = ++last_use_};
    MakeRoomLocked();
  }
  ProbeCase(DirectoryOf(path), NameOf(path), attributes);
}

/// Replies come in the order of the requests. So every change that a program has heard of when the
/// answer comes was carried out before it, and every other change makes the name unknown again.
void ListingCache::Refresh(const std::string& directory) {
  if (!enabled_) return;
  {
    const std::lock_guard lock(mutex_);
    ++refreshings_[directory].unanswered;
  }
  const auto asked = Clock::now();
  files_.GetAttributes(directory, [this, directory, asked](const Result<udisk_stat>& result) {
    std::vector<std::function<void()>> waiting;
    {
      const std::lock_guard lock(mutex_);
      const auto refreshing = refreshings_.find(directory);
      waiting = std::exchange(refreshing->second.waiting, {});
      if (--refreshing->second.unanswered == 0) refreshings_.erase(refreshing);
      if (result.error == 0) SetShownLocked(directory, result.value, asked);
    }
    Answer(waiting);
  });
}

void ListingCache::Doubt(const std::string& path) {
  if (!enabled_) return;
  const std::lock_guard lock(mutex_);
  if (doubted_.size() >= kMostDoubted) doubted_.clear();
  doubted_.insert(path);
  if (path != "/") SetNameLocked(DirectoryOf(path), NameOf(path), {});
}

void ListingCache::Take(const Notice& notice) {
  using What = Notice::What;
  switch (notice.what) {
    case What::kFile:
      ForgetIfUnknown(notice.path);
      return NoteChange(notice.path, RemoteFiles::ChangeOf::kFile);
    case What::kName:
      return NoteChange(notice.path, RemoteFiles::ChangeOf::kName);
    case What::kWatched:
    case What::kUnwatched:
    case What::kAll:
      break;
  }
  const bool is_all = notice.what == What::kAll;
  const std::lock_guard lock(mutex_);
  for (auto& [id, question] : questions_) {
    if (is_all || question.directory == notice.path) {
      question.is_watched = notice.what == What::kWatched;
      // What was known before the watch began is not told of. The listing shows it anew.
      for (auto& [name, value] : question.changes) value = {};
    }
  }
  if (notice.what == What::kWatched) return;
  for (auto& [path, known] : kept_) known.is_watched &= !is_all && path != notice.path;
}

/// Some directories take two names for the same, though the disk tells case apart. A file that has
/// changed under a name that is not listed may be listed under another one.
void ListingCache::ForgetIfUnknown(const std::string& path) {
  const std::lock_guard lock(mutex_);
  const auto found = kept_.find(DirectoryOf(path));
  if (found == kept_.end() || path == "/") return;
  auto& known = found->second;
  const auto name = NameOf(path);
  if (known.listing == nullptr || known.names.contains(name) || EntryOf(known, name) != nullptr) {
    return;
  }
  ForgetListing(known, false);
}

void ListingCache::ForgetDisk() {
  const std::lock_guard lock(mutex_);
  kept_.clear();
  askings_.clear();
  doubted_.clear();
  tells_case_apart_.clear();
  for (auto& [id, question] : questions_) question.is_void = true;
}

/// Sets what is known of a name from now on, whatever the listing and those on their way show.
void ListingCache::SetNameLocked(const std::string& directory, std::string_view name,
                                 const Name& value) {
  auto kept = kept_.find(directory);
  const bool concerns_others =
      name != "." && !(kept != kept_.end() && TellsCaseApartLocked(kept->second) && IsPlain(name));
  for (auto& [id, question] : questions_) {
    if (question.directory != directory || question.is_void) continue;
    const bool is_older = value.asked < question.asked;
    question.changes.insert_or_assign(std::string(name), is_older ? Name{} : value);
    question.is_void = concerns_others || question.changes.size() > kMostChanges;
    if (question.is_void) question.changes.clear();
  }
  if (kept == kept_.end()) {
    if (!value.is_known) return;
    kept = kept_.emplace(directory, Directory{.last_use = ++last_use_}).first;
    MakeRoomLocked();
  }
  auto& known = kept->second;
  const auto now = Clock::now();
  const auto is_old = [&](Clock::time_point time) { return now - time >= trusted_; };
  const bool is_trusted =
      IsWatched(known, now) || !is_old(known.asked) || !is_old(known.names_asked);
  // With newer names known beside it, a listing would never be checked.
  if (concerns_others || !IsListed(known) || !is_trusted) {
    ForgetListing(known, !concerns_others);
    if (!value.is_known) return void(known.names.erase(std::string(name)));
  }
  known.names.insert_or_assign(std::string(name), value);
  if (known.names.size() % kNamesToMakeRoom == 0) MakeRoomLocked();
}

/// Sets what is known of a path to what the disk has shown.
void ListingCache::SetShownLocked(const std::string& path, const udisk_stat& attributes,
                                  Clock::time_point asked) {
  const Name shown{.is_known = true, .attributes = attributes, .asked = asked};
  const bool is_root = path == "/";
  SetNameLocked(is_root ? path : DirectoryOf(path), is_root ? "." : NameOf(path),
                HasOtherNames(attributes) ? Name{} : shown);
}

/// Forgets a listing, and the names beside it that can no longer be trusted.
/// @param keeps_names  false: all names but the directory itself
void ListingCache::ForgetListing(Directory& known, bool keeps_names) {
  known.listing = nullptr;
  known.is_checkable = known.is_watched = false;
  known.asked = known.names_asked = {};
  known.by_name.clear();
  const auto now = Clock::now();
  if (keeps_names && now - known.sifted < trusted_) return;
  known.sifted = now;
  std::erase_if(known.names, [&](const auto& one) {
    const auto& [name, value] = one;
    return !value.is_known || now - value.asked >= trusted_ || (!keeps_names && name != ".");
  });
}

// ---- Upper and lower case ----

bool ListingCache::TellsCaseApartLocked(const Directory& known) const {
  const auto device = tells_case_apart_.find(known.device);
  return device != tells_case_apart_.end() && device->second;
}

/// Asks for an existing name in the other case, once for each device, and then for the name itself,
/// because the client may just have removed it. Nothing waits for the answers.
void ListingCache::ProbeCase(const std::string& directory, std::string_view name,
                             const udisk_stat& known) {
  if (!IsPlain(name) || std::ranges::none_of(name, IsLetter)) return;
  const int64_t device = known.st_dev;
  {
    const std::lock_guard lock(mutex_);
    if (tells_case_apart_.size() >= kMostDevices ||
        !tells_case_apart_.try_emplace(device, false).second) {
      return;
    }
  }
  const auto other = std::make_shared<Result<udisk_stat>>();
  files_.GetAttributes(JoinPath(directory, WithOtherCase(name)),
                       [other](const Result<udisk_stat>& result) { *other = result; });
  files_.GetAttributes(
      JoinPath(directory, name), [this, device, other, known](const Result<udisk_stat>& itself) {
        const bool is_there = itself.error == 0 && IsSameInode(itself.value, known);
        // Another inode proves nothing: some disks number paths, not files.
        const bool is_apart = other->error == ENOENT;
        const std::lock_guard lock(mutex_);
        if (!is_there) {
          tells_case_apart_.erase(device);  // another name will show it
        } else if (const auto found = tells_case_apart_.find(device);
                   found != tells_case_apart_.end()) {
          found->second = is_apart;
        }
      });
}

}  // namespace cpd::host
