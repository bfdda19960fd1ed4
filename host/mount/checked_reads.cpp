#include "mount/checked_reads.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

#include "mount/reading_turn.h"
#include "remote/at_end.h"
#include "remote/attributes.h"

namespace cpd::host {
namespace {

// How many times to look at a file that has changed at every look.
constexpr int kMostTries = 100;

}  // namespace

// ---- Small files, whole ----

struct CheckedReads::Opening {
  NodeTable::Id node;
  std::string path;
  udisk_stat known;  ///< as the disk showed the file last
  Opened opened;
  Clock::time_point asked = Clock::now();
  int tries = 0;
  bool is_overtaken = false;  ///< by a change through this mount
  std::string bytes = {};
  bool is_whole = false;  ///< nothing was left to read after the bytes
  SharedContent content = nullptr;
};

void CheckedReads::Fetch(NodeTable::Id node, const NodeTable::File& file, const Ahead& ahead,
                         Opened opened) {
  const auto opening = std::make_shared<Opening>(Opening{
      .node = node, .path = file.path, .known = file.attributes, .opened = std::move(opened)});
  {
    const std::lock_guard lock(mutex_);
    ++under_way_;
    openings_.push_back(opening);
  }
  const bool is_ahead = ahead(
      file, [this, opening](const auto* content, auto asked) { Take(opening, content, asked); });
  if (!is_ahead) FetchAgain(opening);
}

/// Content that was read ahead is good if the disk has not shown another file since.
void CheckedReads::Take(const std::shared_ptr<Opening>& opening, const std::string_view* content,
                        Clock::time_point asked) {
  opening->content = Find(opening->node);  // fetched by another program
  if (opening->content != nullptr) return Finish(opening, 0);
  const auto now = nodes_.CurrentAttributes(opening->node);
  if (content == nullptr || !now || !IsSameContent(*now, opening->known)) {
    return FetchAgain(opening);
  }
  opening->asked = asked;
  opening->bytes = *content;
  opening->is_whole = true;
  if (Keep(opening)) return Finish(opening, 0);
  FetchAgain(opening);
}

void CheckedReads::FetchAgain(const std::shared_ptr<Opening>& opening) {
  // One byte more than there should be shows whether the file has grown.
  const auto size = static_cast<uint32_t>(opening->known.st_size) + 1;
  opening->asked = Clock::now();
  files_.Read(opening->path, 0, size, [this, opening, size](const Result<FileData>& result) {
    opening->content = Find(opening->node);  // fetched by another program
    if (result.error != 0 || opening->content != nullptr) return Finish(opening, 0);
    opening->bytes = result.value.bytes;
    opening->is_whole = opening->bytes.size() < size;
    if (Keep(opening)) return Finish(opening, 0);
    LookAgain(opening);
  });
}

/// Asks what the path leads to now, because the content does not match what the kernel knows.
void CheckedReads::LookAgain(const std::shared_ptr<Opening>& opening) {
  files_.GetAttributes(opening->path, [this, opening](const Result<udisk_stat>& result) {
    opening->content = Find(opening->node);  // fetched by another program
    if (opening->content != nullptr) return Finish(opening, 0);
    if (result.error != 0) return Finish(opening, result.error);
    const auto& now = result.value;
    if (!note_(opening->node, now)) return Finish(opening, ESTALE);
    const bool is_unreadable = IsSameContent(opening->known, now);
    const bool is_large = now.st_size > kLargestContent;
    opening->known = now;
    if (Keep(opening) || is_unreadable || is_large || ++opening->tries == kMostTries) {
      return Finish(opening, 0);
    }
    FetchAgain(opening);
  });
}

/// Keeps the bytes, if there is room for them.
/// @return false when they are not the whole file that the kernel knows, or when its attributes are
///         older than a write through this mount: the write would look like a change on the client
bool CheckedReads::Keep(const std::shared_ptr<Opening>& opening) {
  const auto attributes = nodes_.CurrentAttributes(opening->node);
  if (!attributes || !opening->is_whole) return false;
  const size_t size = opening->bytes.size();
  if (static_cast<int64_t>(size) != attributes->st_size) return false;
  const std::lock_guard lock(mutex_);
  opening->content = Share(
      {.bytes = std::move(opening->bytes), .attributes = *attributes, .asked = opening->asked});
  if (opening->content == nullptr) return true;
  if (!opening->is_overtaken) contents_[opening->node] = opening->content;
  return true;
}

/// @return null when there is no room
CheckedReads::SharedContent CheckedReads::Share(Content content) {
  const size_t size = sizeof content + content.bytes.size();
  if ((content_memory_ += size) > memory_) {
    content_memory_ -= size;
    return nullptr;
  }
  return {new Content(std::move(content)), [this, size](const Content* shared) {
            delete shared;
            content_memory_ -= size;
          }};
}

void CheckedReads::Finish(const std::shared_ptr<Opening>& opening, int error) {
  {
    const std::lock_guard lock(mutex_);
    std::erase(openings_, opening);
  }
  const AtEnd ended([this] { CountEnd(); });
  opening->opened(error, std::move(opening->content));
}

struct CheckedReads::Looking {
  std::string path;
  RemoteFiles::Done<Look> done;
  Clock::time_point asked = Clock::now();  ///< the first time
  int tries = 0;
  Result<udisk_stat> before = {};
  Result<FileData> data = {};
};

void CheckedReads::LookAndRead(const std::string& path, RemoteFiles::Done<Look> done) {
  {
    const std::lock_guard lock(mutex_);
    ++under_way_;
  }
  Send(std::make_shared<Looking>(Looking{.path = path, .done = std::move(done)}));
}

/// Reads the file between two looks. If both show the same, so did the read.
void CheckedReads::Send(const std::shared_ptr<Looking>& looking) {
  files_.GetAttributes(looking->path, [looking](const auto& result) { looking->before = result; });
  files_.Read(looking->path, 0, kLargestContent,
              [looking](Result<FileData> result) { looking->data = std::move(result); });
  files_.GetAttributes(looking->path, [this, looking](const Result<udisk_stat>& result) {
    const auto& now = result.value;
    const bool is_steady = result.error != 0 || (looking->before.error == 0 &&
                                                 IsSameContent(looking->before.value, now));
    if (!is_steady && ++looking->tries < kMostTries) return Send(looking);
    Look look{.attributes = now, .content = nullptr};
    const auto bytes = looking->data.value.bytes;
    const bool is_whole =
        looking->data.error == 0 && static_cast<int64_t>(bytes.size()) == now.st_size;
    if (is_steady && is_whole && S_ISREG(now.st_mode)) {
      look.content =
          Share({.bytes = std::string(bytes), .attributes = now, .asked = looking->asked});
    }
    const AtEnd ended([this] { CountEnd(); });
    looking->done({.error = result.error, .value = std::move(look)});
  });
}

bool CheckedReads::Use(NodeTable::Id node, const SharedContent& content) {
  const auto known = nodes_.CurrentAttributes(node);
  if (!known || !IsSameContent(*known, content->attributes)) return false;
  if (nodes_.IsChangedSince(node, content->asked)) return false;
  const std::lock_guard lock(mutex_);
  contents_[node] = content;
  return true;
}

CheckedReads::SharedContent CheckedReads::Find(NodeTable::Id node) const {
  SharedContent content;
  {
    const std::lock_guard lock(mutex_);
    const auto found = contents_.find(node);
    if (found == contents_.end()) return nullptr;
    content = found->second;
  }
  // A write that was under way when the content was fetched may be done by now.
  if (nodes_.IsChangedSince(node, content->asked)) return nullptr;
  const auto known = nodes_.LastAttributes(node);
  return known && IsSameContent(*known, content->attributes) ? content : nullptr;
}

void CheckedReads::Forget(NodeTable::Id node) {
  const std::lock_guard lock(mutex_);
  for (const auto& opening : openings_) opening->is_overtaken |= opening->node == node;
  contents_.erase(node);
}

void CheckedReads::ForgetAll() {
  const std::lock_guard lock(mutex_);
  contents_.clear();
}

// ---- Parts of files ----

struct CheckedReads::Reading {
  NodeTable::Id node;
  std::string path;
  udisk_stat known;  ///< as the disk showed the file last
  int64_t offset;
  uint32_t size;
  int64_t expected_end;  ///< the data goes this far unless the file is cut
  ReadDone done;
  Check check;
  int tries = 0;
  Result<FileData> result = {};
};

void CheckedReads::Read(NodeTable::Id node, const NodeTable::File& file, int64_t offset,
                        uint32_t size, ReadDone done, Check check) {
  {
    const std::lock_guard lock(mutex_);
    ++under_way_;
  }
  const int64_t known_size = file.attributes.st_size;
  Send(std::make_shared<Reading>(Reading{.node = node,
                                         .path = file.path,
                                         .known = file.attributes,
                                         .offset = offset,
                                         .size = size,
                                         .expected_end = std::min(offset + size, known_size),
                                         .done = std::move(done),
                                         .check = check}));
}

void CheckedReads::Send(const std::shared_ptr<Reading>& reading) {
  files_.Read(reading->path, reading->offset, reading->size,
              [reading](Result<FileData> result) { reading->result = std::move(result); });
  Readings covered;
  {
    const std::lock_guard lock(mutex_);
    auto& window = windows_[reading->node];
    window.unchecked.push_back(reading);
    if (reading->check == Check::kInTurn && window.checks > 0 &&
        window.unchecked.size() < kWindow) {
      return;
    }
    ++window.checks;
    covered.swap(window.unchecked);
  }
  SendCheck(reading->node, reading->path, std::move(covered));
}

/// Asks whether the path still leads to the file. The answer comes after those of the reads that it
/// covers, because the reads were sent first.
void CheckedReads::SendCheck(NodeTable::Id node, const std::string& path, Readings covered) {
  files_.GetAttributes(
      path, [this, node, path, covered = std::move(covered)](const Result<udisk_stat>& result) {
        Readings next;
        {
          const std::lock_guard lock(mutex_);
          const auto window = windows_.find(node);
          --window->second.checks;
          if (window->second.checks == 0) {
            next.swap(window->second.unchecked);
            if (next.empty()) {
              windows_.erase(window);
            } else {
              ++window->second.checks;
            }
          }
        }
        if (!next.empty()) SendCheck(node, path, std::move(next));
        const int error = result.error != 0 ? result.error : note_(node, result.value) ? 0 : ESTALE;
        for (const auto& reading : covered) {
          if (error != 0) {
            Finish(*reading, error);
          } else {
            Judge(reading, result.value);
          }
        }
      });
}

/// A failed read looks like the end of the file; only the file's size distinguishes the two. A file
/// that has just changed may have been missing for a moment, so it is read again.
void CheckedReads::Judge(const std::shared_ptr<Reading>& reading, const udisk_stat& now) {
  if (reading->result.error != 0) return Finish(*reading, reading->result.error);
  const auto bytes = reading->result.value.bytes;
  const int64_t end = reading->offset + static_cast<int64_t>(bytes.size());
  // A copy: min takes references, which cannot bind to packed fields.
  const int64_t present_size = now.st_size;
  if (end >= std::min(reading->expected_end, present_size)) return Finish(*reading, 0, bytes);
  const bool has_changed = !IsSameContent(reading->known, now);
  reading->known = now;
  if (!has_changed || ++reading->tries == kMostTries) return Finish(*reading, EIO);
  Send(reading);
}

void CheckedReads::Finish(const Reading& reading, int error, std::string_view bytes) {
  const AtEnd ended([this] { CountEnd(); });
  reading.done(error, bytes);
}

void CheckedReads::CountEnd() {
  const std::lock_guard lock(mutex_);
  if (--under_way_ == 0) idle_.notify_all();
}

void CheckedReads::AwaitAnswers() {
  std::unique_lock lock(mutex_);
  if (under_way_ != 0) ReadingTurn::PassOn();
  idle_.wait(lock, [this] { return under_way_ == 0; });
}

}  // namespace cpd::host
