#include "mount/gathered_writes.h"

#include <cerrno>
#include <cstring>
#include <optional>
#include <utility>
#include <vector>

#include "mount/reading_turn.h"
#include "remote/failure_reason.h"
#include "remote/file_size.h"
#include "remote/mode_guard.h"
#include "remote/statistics.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr size_t kMostPieces = 256;
constexpr size_t kMostBytes = 256 << 10;
// Fills a line of 1 Gbit/s with a round trip of 60 ms.
constexpr size_t kLargeBacklog = 8 << 20;

void Append(std::string* pieces, int64_t offset, std::string_view data) {
  const WritePieceHead head{.offset = offset, .length = static_cast<int32_t>(data.size())};
  pieces->append(reinterpret_cast<const char*>(&head), sizeof head);
  pieces->append(data);
}

/// Appends data to the last piece, which begins at `place`.
void Extend(std::string* pieces, size_t place, std::string_view data) {
  WritePieceHead head{};
  std::memcpy(&head, pieces->data() + place, sizeof head);
  head.length += static_cast<int32_t>(data.size());
  std::memcpy(pieces->data() + place, &head, sizeof head);
  pieces->append(data);
}

struct Piece {
  int64_t offset;
  std::string_view data;
};

std::vector<Piece> Split(std::string_view pieces) {
  std::vector<Piece> split;
  while (!pieces.empty()) {
    WritePieceHead head{};
    std::memcpy(&head, pieces.data(), sizeof head);
    const auto length = static_cast<size_t>(head.length);
    split.push_back({.offset = head.offset, .data = pieces.substr(sizeof head, length)});
    pieces.remove_prefix(sizeof head + length);
  }
  return split;
}

}  // namespace

GatheredWrites::GatheredWrites(RemoteFiles& files, const NodeTable& nodes, RenameGate& gate,
                               Failed failed)
    : files_(files),
      nodes_(nodes),
      gate_(gate),
      failed_(std::move(failed)),
      room_(LargestSureSize()),
      large_backlog_(kLargeBacklog),
      sender_([this](const std::stop_token& stop) { SendInTime(stop); }) {}

bool GatheredWrites::Add(NodeTable::Id node, int64_t file_size, int64_t offset,
                         std::string_view data) {
  if (data.size() > kLargestPiece) return false;
  const SpareRoom::Write write{.offset = offset, .size = data.size(), .file_size = file_size};
  std::unique_lock lock(mutex_);
  if (!room_.IsSafe(write, Clock::now())) return false;
  const auto known = gathering_.find(node);
  if (known != gathering_.end() && (known->second.is_rewriting || !known->second.waiting.empty())) {
    return false;
  }
  const bool goes_on =
      known != gathering_.end() && known->second.count > 0 && offset == known->second.end;
  const size_t work = Backlog::WorkOf(goes_on ? 0 : 1, data.size());
  if (!backlog_.HasRoomFor(work)) return false;

  room_.Count(write);
  backlog_.Add(work);
  auto& file = gathering_[node];
  file.work += work;
  if (goes_on) {
    Extend(&file.gathered, file.last_piece, data);
  } else {
    file.last_piece = file.gathered.size();
    Append(&file.gathered, offset, data);
    ++file.count;
  }
  file.end = offset + static_cast<int64_t>(data.size());
  ++files_.savings().written_early;
  if (!has_gathered_) {
    has_gathered_ = true;
    due_ = Clock::now() + kLongestGathered;
    if (std::exchange(is_sender_idle_, false)) gathered_.notify_one();
  }
  const bool is_full = file.count >= kMostPieces || file.gathered.size() >= kMostBytes;
  lock.unlock();
  if (is_full) Send();
  return true;
}

bool GatheredWrites::SendEarly(NodeTable::Id node, const NodeTable::File& file, int64_t offset,
                               std::string_view data, Acknowledge acknowledge) {
  const SpareRoom::Write write{
      .offset = offset, .size = data.size(), .file_size = file.attributes.st_size};
  const auto early = std::make_shared<Early>(Early{.work = Backlog::WorkOf(1, data.size()),
                                                   .acknowledge = std::move(acknowledge),
                                                   .is_acknowledged = false});
  std::vector<SharedEarly> acknowledged;
  {
    const std::lock_guard lock(mutex_);
    if (!room_.IsSafe(write, Clock::now())) return false;
    const auto known = gathering_.find(node);
    if (known != gathering_.end() && !known->second.waiting.empty()) return false;
    room_.Count(write);
    ++gathering_[node].by_itself;
    unacknowledged_.push_back(early);
    acknowledged = AcknowledgeLocked();
  }
  files_.Write(file.path, offset, data,
               [this, node, path = file.path, end = offset + static_cast<int64_t>(data.size()),
                early](Outcome outcome) { HandleEarlyAnswer(node, path, end, early, outcome); });
  for (const auto& other : acknowledged) other->acknowledge(0);
  AskForStatistics();
  return true;
}

/// Of the writes that are not acknowledged yet, takes those that there is room for. The others do
/// not count as work: their programs wait, so each has at most one.
std::vector<GatheredWrites::SharedEarly> GatheredWrites::AcknowledgeLocked() {
  std::vector<SharedEarly> acknowledged;
  while (!unacknowledged_.empty() && large_backlog_.HasRoomFor(unacknowledged_.front()->work)) {
    auto& early = acknowledged.emplace_back(std::move(unacknowledged_.front()));
    unacknowledged_.pop_front();
    early->is_acknowledged = true;
    ++files_.savings().written_early;
    large_backlog_.Add(early->work);
  }
  return acknowledged;
}

void GatheredWrites::HandleEarlyAnswer(NodeTable::Id node, const std::string& path, int64_t end,
                                       const SharedEarly& early, Outcome outcome) {
  std::vector<SharedEarly> acknowledged;
  bool was_acknowledged = false;
  {
    const std::lock_guard lock(mutex_);
    if (outcome == Outcome::kDone)
      large_backlog_.Measure(early->work, files_.TimeOfAnswer(), files_.Transit());
    was_acknowledged = early->is_acknowledged;
    if (was_acknowledged) {
      large_backlog_.Remove(early->work);
    } else {
      std::erase(unacknowledged_, early);
    }
    acknowledged = AcknowledgeLocked();
  }
  for (const auto& other : acknowledged) other->acknowledge(0);
  const auto conclude = [this, node, early, was_acknowledged](int error) {
    if (!was_acknowledged) {
      if (error != 0) NoteFailure(error);
      early->acknowledge(error);
    } else if (error != 0) {
      Fail(node, error);
    }
    CountAnswer(node, &File::by_itself);
  };
  if (outcome == Outcome::kDone) return conclude(0);
  FindFailureReason(files_, outcome, {.kind = Attempt::Kind::kWrite, .path = path, .end = end},
                    conclude);
}

void GatheredWrites::WriteThrough(const NodeTable::File& file, int64_t offset,
                                  std::string_view data, RemoteFiles::OnOutcome on_outcome) {
  {
    const std::lock_guard lock(mutex_);
    room_.Count({.offset = offset, .size = data.size(), .file_size = file.attributes.st_size});
  }
  files_.Write(file.path, offset, data,
               [this, size = data.size(), on_outcome = std::move(on_outcome)](Outcome outcome) {
                 // Large writes do not show how long small ones take.
                 if (outcome == Outcome::kDone) {
                   const std::lock_guard lock(mutex_);
                   auto& backlog = size <= kLargestPiece ? backlog_ : large_backlog_;
                   backlog.Measure(Backlog::WorkOf(1, size), files_.TimeOfAnswer(),
                                   files_.Transit());
                 }
                 on_outcome(outcome);
               });
  AskForStatistics();
}

void GatheredWrites::Sync(NodeTable::Id node, const NodeTable::File& file,
                          RemoteFiles::OnOutcome on_outcome) {
  {
    const std::lock_guard lock(mutex_);
    ++gathering_[node].by_itself;
  }
  const ModeGuard access(files_, file.path, file.attributes.st_mode);
  files_.Sync(file.path, [this, node, on_outcome = std::move(on_outcome)](Outcome outcome) {
    {
      const std::lock_guard lock(mutex_);
      auto& written = gathering_[node];
      // What is being written again was sent after this request, which did not sync it. The path
      // that the callback finds stays right while it runs: the file counts as unanswered until no
      // callback is left, and a move waits for that.
      const bool is_complete = !written.is_rewriting || outcome != Outcome::kDone;
      written.waiting.emplace_back([this, node, on_outcome, outcome, is_complete] {
        if (is_complete) return on_outcome(outcome);
        const auto now = nodes_.Find(node);
        if (!now) return on_outcome(Outcome::kRefused);
        Sync(node, *now, on_outcome);
      });
    }
    CountAnswer(node, &File::by_itself);
  });
}

void GatheredWrites::WhenAnswered(NodeTable::Id node, std::function<void()> callback) {
  {
    const std::lock_guard lock(mutex_);
    const auto file = gathering_.find(node);
    if (file != gathering_.end() && file->second.batched + file->second.by_itself > 0) {
      return file->second.waiting.push_back(std::move(callback));
    }
  }
  callback();
}

void GatheredWrites::NoteExtension(const NodeTable::File& file, int64_t size) {
  const std::lock_guard lock(mutex_);
  room_.Count({.offset = size, .size = 0, .file_size = file.attributes.st_size});
}

void GatheredWrites::NoteFailure(int error) {
  const std::lock_guard lock(mutex_);
  room_.NoteFailure(error, Clock::now());
}

void GatheredWrites::LoseDisk() {
  Send();
  const std::lock_guard lock(mutex_);
  room_.NoteAnswer(std::nullopt);
}

void GatheredWrites::Send() {
  std::vector<NodeTable::Id> nodes;
  {
    const std::lock_guard lock(mutex_);
    if (!has_gathered_) return;
    has_gathered_ = false;
    for (const auto& [node, file] : gathering_) {
      if (file.count > 0) nodes.push_back(node);
    }
  }
  for (const auto node : nodes) SendFile(node);
  AskForStatistics();
}

/// To be called after a write, when everything counted has been sent: the module queries the disk
/// again only once it has answered a change. Nothing waits for the statistics.
void GatheredWrites::AskForStatistics() {
  {
    const std::lock_guard lock(mutex_);
    if (!room_.WantsStatistics(Clock::now())) return;
    room_.NoteQuestion(Clock::now());
  }
  files_.GetStatistics("/", [this](const Result<udisk_statvfs>& result) {
    const std::lock_guard lock(mutex_);
    room_.NoteAnswer(result.error == 0 ? std::optional(result.value) : std::nullopt);
  });
}

void GatheredWrites::SendFile(NodeTable::Id node) {
  Pieces pieces;
  size_t work = 0;
  {
    const std::lock_guard lock(mutex_);
    auto& file = gathering_[node];
    pieces = std::make_shared<const std::string>(std::exchange(file.gathered, {}));
    work = std::exchange(file.work, 0);
    file.count = 0;
    ++file.batched;
    ++batched_;
  }
  const auto done = [this, node, pieces, work](Outcome outcome) {
    HandleAnswer(node, pieces, work, outcome);
  };
  const auto file = nodes_.Find(node);
  if (!file) return done(Outcome::kRefused);
  files_.WriteBatch(file->path, *pieces, done);
}

void GatheredWrites::Fail(NodeTable::Id node, int error) {
  ++files_.savings().failed_later;
  NoteFailure(error);
  failed_(node, error);
}

void GatheredWrites::HandleAnswer(NodeTable::Id node, const Pieces& pieces, size_t work,
                                  Outcome outcome) {
  bool writes_again = false;
  {
    const std::lock_guard lock(mutex_);
    backlog_.Remove(work);
    if (outcome == Outcome::kDone) backlog_.Measure(work, files_.TimeOfAnswer(), files_.Transit());
    auto& file = gathering_[node];
    file.is_rewriting |= outcome == Outcome::kRefused;
    writes_again = file.is_rewriting && outcome != Outcome::kUnanswered;
  }
  if (writes_again) WriteAgain(node, pieces);
  if (outcome == Outcome::kUnanswered) Fail(node, EIO);
  CountAnswer(node, &File::batched);
}

void GatheredWrites::WriteAgain(NodeTable::Id node, const Pieces& pieces) {
  const auto file = nodes_.Find(node);
  if (!file) return Fail(node, ESTALE);
  for (const auto& [offset, data] : Split(*pieces)) {
    {
      const std::lock_guard lock(mutex_);
      ++gathering_[node].batched;
      ++batched_;
    }
    const int64_t end = offset + static_cast<int64_t>(data.size());
    files_.Write(file->path, offset, data, [this, node, path = file->path, end](Outcome outcome) {
      HandleSecondAnswer(node, path, end, outcome);
    });
  }
}

void GatheredWrites::HandleSecondAnswer(NodeTable::Id node, const std::string& path, int64_t end,
                                        Outcome outcome) {
  if (outcome == Outcome::kDone) return CountAnswer(node, &File::batched);
  FindFailureReason(files_, outcome, {.kind = Attempt::Kind::kWrite, .path = path, .end = end},
                    [this, node](int error) {
                      Fail(node, error);
                      CountAnswer(node, &File::batched);
                    });
}

void GatheredWrites::CountAnswer(NodeTable::Id node, unsigned File::*unanswered) {
  std::unique_lock lock(mutex_);
  const auto entry = gathering_.find(node);
  auto& file = entry->second;
  if (unanswered == &File::batched) --batched_;
  --(file.*unanswered);
  if (file.batched == 0) file.is_rewriting = false;
  while (file.batched + file.by_itself == 0 && !file.waiting.empty()) {
    const auto callbacks = std::exchange(file.waiting, {});
    ++file.by_itself;
    lock.unlock();
    for (const auto& callback : callbacks) callback();
    lock.lock();
    --file.by_itself;
  }
  if (file.batched + file.by_itself == 0 && file.count == 0) gathering_.erase(entry);
  changed_.notify_all();
}

void GatheredWrites::Drain(NodeTable::Id node) {
  {
    const auto pass = gate_.Enter();
    Send();
  }
  std::unique_lock lock(mutex_);
  const auto is_answered = [&] {
    const auto file = gathering_.find(node);
    return file == gathering_.end() || file->second.batched == 0;
  };
  if (!is_answered()) ReadingTurn::PassOn();
  changed_.wait(lock, is_answered);
}

void GatheredWrites::Drain() {
  {
    const auto pass = gate_.Enter();
    Send();
  }
  AwaitAnswers();
}

void GatheredWrites::AwaitAnswers() {
  std::unique_lock lock(mutex_);
  if (!gathering_.empty()) ReadingTurn::PassOn();
  changed_.wait(lock, [this] { return gathering_.empty(); });
}

/// Sends what has been gathered for long enough. Others send most of it before, so this thread
/// looks at intervals. Only when nothing is gathered at such a moment does it sleep until it is
/// woken: to wake it for each write would cost programs more than the write.
void GatheredWrites::SendInTime(const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  while (!stop.stop_requested()) {
    is_sender_idle_ = !has_gathered_;
    if (!gathered_.wait(lock, stop, [this] { return !is_sender_idle_; })) return;
    gathered_.wait_until(lock, stop, Clock::time_point(due_), [] { return false; });
    // While a batch is unanswered, another would only lengthen the queue. What is gathered in the
    // meantime leaves as one larger packet.
    if (!has_gathered_ || Clock::now() < due_) continue;
    changed_.wait(lock, stop, [this] { return batched_ == 0; });
    lock.unlock();
    {
      const auto pass = gate_.Enter();
      Send();
    }
    lock.lock();
  }
}

}  // namespace cpd::host
