#include "mount/prefetch.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "remote/attributes.h"
#include "remote/paths.h"
#include "remote/statistics.h"

namespace cpd::host {
namespace {

constexpr size_t kMostRuns = 16;
constexpr size_t kMostBatches = 8;
constexpr size_t kMemoryOfFile = 384;  // in a batch, beside its path and content; generously
constexpr size_t kCopiesOfPath = 3;    // in the batch, in its reply, and where it is found

/// Whether a file is as it was listed. Never true for a file with several names, which can change
/// through a name that this class does not track.
bool IsAsListed(const udisk_stat& known, const udisk_stat& listed) {
  return known.st_ino == listed.st_ino && known.st_nlink == 1 && known.st_size == listed.st_size &&
         IsSameTime(known.st_mtim, listed.st_mtim);
}

}  // namespace

void Prefetch::Listed(const std::string& directory, SharedListing listing) {
  if (!enabled_) return;
  const std::lock_guard lock(mutex_);
  runs_.remove_if([&](const auto& run) { return run.first == directory; });
  runs_.emplace_front(directory, ReadingRun(std::move(listing), usual_, files_.IsFar()));
  size_t memory = 0;
  for (const auto& run : runs_) memory += run.second.memory();
  while (runs_.size() > kMostRuns || memory > memory_) {
    memory -= runs_.back().second.memory();
    runs_.pop_back();
  }
}

void Prefetch::ReadToItsEnd(const std::string& path) {
  if (!enabled_) return;
  const auto directory = DirectoryOf(path);
  std::shared_ptr<Batch> batch;
  {
    const std::lock_guard lock(mutex_);
    auto* run = FindRun(directory);
    if (run == nullptr) return;
    run->Step(NameOf(path));
    if (const auto way = run->way()) usual_ = way;
    DropStale();
    if (batches_.size() >= kMostBatches) DropOldest();
    batch = Reserve(directory, run->NextBatch());
  }
  if (batch == nullptr) return;
  files_.ReadSmallFiles(batch->files, [this, batch](Result<SmallFilesData> result) {
    TakeAnswer(batch, std::move(result));
  });
}

/// @return null when there is nothing to ask for
std::shared_ptr<Prefetch::Batch> Prefetch::Reserve(const std::string& directory,
                                                   const std::vector<ReadingRun::File>& files) {
  auto batch = std::make_shared<Batch>();
  for (const auto& [attributes, name] : files) {
    auto path = JoinPath(directory, name);
    // One byte more than was listed shows whether the file has grown.
    const auto size = static_cast<uint32_t>(attributes.st_size) + 1;
    const size_t memory = kMemoryOfFile + kCopiesOfPath * path.size() + size;
    if (batch->memory + memory > memory_) break;
    if (!places_.try_emplace(path, Place{batch, batch->files.size()}).second) continue;
    batch->memory += memory;
    batch->files.push_back({.path = std::move(path), .size = size});
    batch->listed.push_back(attributes);
  }
  if (batch->files.empty()) return nullptr;
  MakeRoom(batch->memory);
  files_.savings().files_ahead += batch->files.size();
  batches_.push_back(batch);
  return batch;
}

void Prefetch::TakeAnswer(const std::shared_ptr<Batch>& batch, Result<SmallFilesData> result) {
  std::vector<std::pair<Awaited, std::optional<std::string_view>>> concluded;
  std::vector<size_t> used;
  {
    const std::lock_guard lock(mutex_);
    if (result.error == 0) {
      batch->data = std::move(result.value);
      // The reply may have more bytes than the files.
      batch->memory = std::max<size_t>(batch->memory, batch->data.reply->buffer->capacity);
    }
    for (auto& [index, awaited] : std::exchange(batch->waiting, {})) {
      std::optional<std::string_view> content;
      if (result.error == 0 && IsInPlace(batch, index)) {
        content = batch->data.bytes[index];
        used.push_back(index);
      }
      concluded.emplace_back(std::move(awaited), content);
    }
    // What is used here is not used again.
    for (const auto index : used) {
      files_.savings().files_ahead_used += places_.erase(batch->files[index].path);
    }
    if (result.error != 0) Drop(batch);
    MakeRoom(0);
  }
  for (const auto& [awaited, content] : concluded) {
    awaited(content ? &*content : nullptr, batch->asked);
  }
}

bool Prefetch::Await(const std::string& path, const udisk_stat& known, Awaited awaited) {
  const std::lock_guard lock(mutex_);
  const auto found = places_.find(path);
  if (found == places_.end()) return false;
  const auto& [batch, index] = found->second;
  if (!batch->data.bytes.empty() || batch->IsStale() || !IsAsListed(known, batch->listed[index])) {
    return false;
  }
  batch->waiting.emplace_back(index, std::move(awaited));
  return true;
}

/// Whether a file of a batch was neither used nor forgotten.
bool Prefetch::IsInPlace(const std::shared_ptr<Batch>& batch, size_t index) const {
  const auto place = places_.find(batch->files[index].path);
  return place != places_.end() && place->second.batch == batch;
}

bool Prefetch::Take(const std::string& path, const udisk_stat& known,
                    const std::function<bool(std::string_view content)>& use) {
  const std::lock_guard lock(mutex_);
  DropStale();
  const auto found = places_.find(path);
  if (found == places_.end()) return false;
  const auto [batch, index] = found->second;
  if (batch->data.bytes.empty()) return false;  // but Await may get it
  places_.erase(found);
  const auto content = batch->data.bytes[index];
  const bool is_used = !batch->IsStale() && IsAsListed(known, batch->listed[index]) &&
                       static_cast<int64_t>(content.size()) == known.st_size && use(content);
  auto& savings = files_.savings();
  ++(is_used ? savings.files_ahead_used : savings.files_ahead_unused);
  return is_used;
}

void Prefetch::Forget(const std::string& path) {
  const std::lock_guard lock(mutex_);
  std::erase_if(runs_, [&](const auto& run) { return IsWithin(run.first, path); });
  auto& unused = files_.savings().files_ahead_unused;
  unused += places_.erase(path);
  const auto [first, last] = Below(places_, path);
  unused += static_cast<uint64_t>(std::distance(first, last));
  places_.erase(first, last);
}

ReadingRun* Prefetch::FindRun(const std::string& directory) {
  const auto run = std::find_if(runs_.begin(), runs_.end(),
                                [&](const auto& one) { return one.first == directory; });
  if (run == runs_.end()) return nullptr;
  runs_.splice(runs_.begin(), runs_, run);
  return &run->second;
}

/// @return how many of its files were not used
size_t Prefetch::Drop(const std::shared_ptr<Batch>& batch) {
  size_t unread = 0;
  for (const auto& file : batch->files) {
    const auto place = places_.find(file.path);
    if (place == places_.end() || place->second.batch != batch) continue;
    places_.erase(place);
    ++unread;
  }
  files_.savings().files_ahead_unused += unread;
  return unread;
}

void Prefetch::DropStale() {
  while (!batches_.empty()) {
    const auto oldest = batches_.front().lock();
    if (oldest != nullptr && !oldest->IsStale()) break;
    DropOldest();
  }
  batches_.remove_if([](const auto& batch) { return batch.expired(); });
}

/// Drops the oldest batches until so many bytes more may be kept.
void Prefetch::MakeRoom(size_t memory) {
  const auto kept = [this] {
    size_t bytes = 0;
    for (const auto& one : batches_) {
      if (const auto batch = one.lock()) bytes += batch->memory;
    }
    return bytes;
  };
  while (!batches_.empty() && kept() + memory > memory_) DropOldest();
}

void Prefetch::DropOldest() {
  // Hold the batch: the answer may release it at any moment.
  const auto oldest = batches_.front().lock();
  batches_.pop_front();
  if (oldest == nullptr) return;
  // A batch of which most was not used came too early or too late.
  const bool in_vain = Drop(oldest) > oldest->files.size() / 2;
  auto* run = FindRun(DirectoryOf(oldest->files.front().path));
  if (!in_vain) return;
  usual_.reset();
  if (run != nullptr) run->SlowDown();
}

}  // namespace cpd::host
