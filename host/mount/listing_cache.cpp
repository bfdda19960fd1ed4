#include "mount/listing_cache.h"

#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "remote/attributes.h"
#include "remote/paths.h"

namespace cpd::host {
namespace {

size_t Footprint(const Listing& listing) {
  return listing.bytes.size() + listing.entries.capacity() * sizeof(Listing::Entry);
}

/// Whether a directory is the one that was listed, with no entry made, removed or replaced since.
bool IsUntouched(const Listing& listing, const udisk_stat& directory) {
  const auto itself = std::find_if(listing.entries.begin(), listing.entries.end(),
                                   [](const auto& entry) { return entry.name == "."; });
  return itself != listing.entries.end() && itself->attributes.st_ino == directory.st_ino &&
         IsSameTime(itself->attributes.st_mtim, directory.st_mtim) &&
         IsSameTime(itself->attributes.st_ctim, directory.st_ctim);
}

/// Such a listing cannot be cached: a file may change through a name in another directory.
bool HasHardLinks(const Listing& listing) {
  return std::any_of(listing.entries.begin(), listing.entries.end(), [](const auto& entry) {
    return !S_ISDIR(entry.attributes.st_mode) && entry.attributes.st_nlink > 1;
  });
}

}  // namespace

void ListingCache::List(const std::string& directory, RemoteFiles::Done<SharedListing> done) {
  // Noted before Find, so that a change that overtakes the found listing ends the question, too.
  const auto question = NoteQuestion(directory);
  const auto kept = Find(directory);
  if (kept == nullptr) return ListInFull(question, directory, std::move(done));
  files_.CheckDirectory(
      directory, *kept,
      [this, directory, question, kept, done = std::move(done)](Result<DirectoryCheck> result) {
        if (result.value.changed) {
          return done({.value = Keep(question, std::move(*result.value.changed))});
        }
        const bool stands = EndQuestion(question);
        if (result.error != 0) return done({.error = result.error});
        if (stands && IsUntouched(*kept, result.value.directory)) return done({.value = kept});
        ListInFull(NoteQuestion(directory), directory, done);
      });
}

void ListingCache::ListInFull(uint64_t question, const std::string& directory,
                              RemoteFiles::Done<SharedListing> done) {
  files_.List(directory, [this, question, done = std::move(done)](Result<Listing> result) {
    if (result.error == 0) return done({.value = Keep(question, std::move(result.value))});
    EndQuestion(question);
    done({.error = result.error});
  });
}

void ListingCache::Forget(const std::string& path) {
  const auto parent = DirectoryOf(path);
  const auto grandparent = DirectoryOf(parent);  // its listing shows the parent's times
  const std::lock_guard lock(mutex_);
  for (const auto& directory : {path, parent, grandparent}) kept_.erase(directory);
  const auto [first, last] = Below(kept_, path);
  kept_.erase(first, last);
  std::erase_if(questions_, [&](const auto& question) {
    const auto& directory = question.second.directory;
    return directory == parent || directory == grandparent || IsWithin(directory, path);
  });
}

SharedListing ListingCache::Find(const std::string& directory) {
  const std::lock_guard lock(mutex_);
  const auto kept = kept_.find(directory);
  if (kept == kept_.end()) return nullptr;
  if (Clock::now() - kept->second.asked > kLongestUse) {
    kept_.erase(kept);
    return nullptr;
  }
  kept->second.last_use = ++last_use_;
  return kept->second.listing;
}

uint64_t ListingCache::NoteQuestion(const std::string& directory) {
  const std::lock_guard lock(mutex_);
  questions_.emplace(++last_question_, Question{directory, Clock::now()});
  return last_question_;
}

/// Ends a question. @return false when a change has overtaken it
bool ListingCache::EndQuestion(uint64_t question) {
  const std::lock_guard lock(mutex_);
  return questions_.erase(question) != 0;
}

SharedListing ListingCache::Keep(uint64_t question, Listing&& answer) {
  auto listing = std::make_shared<const Listing>(std::move(answer));
  const std::lock_guard lock(mutex_);
  const auto asked = questions_.extract(question);
  const size_t size = Footprint(*listing);
  if (!enabled_ || asked.empty() || size > kMostBytes || !RemoteFiles::CanCheck(*listing) ||
      HasHardLinks(*listing)) {
    return listing;
  }
  kept_[asked.mapped().directory] = {listing, asked.mapped().asked, ++last_use_};
  MakeRoom();
  return listing;
}

/// Drops the least recently used listings.
void ListingCache::MakeRoom() {
  size_t bytes = 0;
  for (const auto& [path, kept] : kept_) bytes += Footprint(*kept.listing);
  while (kept_.size() > kMostListings || bytes > kMostBytes) {
    const auto oldest = std::min_element(
        kept_.begin(), kept_.end(),
        [](const auto& a, const auto& b) { return a.second.last_use < b.second.last_use; });
    bytes -= Footprint(*oldest->second.listing);
    kept_.erase(oldest);
  }
}

}  // namespace cpd::host
