#include "mount/sequential_reads.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <new>
#include <utility>

#include "remote/attributes.h"
#include "remote/statistics.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr auto kMeasured = 250ms;  // how long a program's speed is measured
// What a busy machine adds to the time of an answer.
constexpr auto kDelay = 5ms;
// After a piece has failed, or has shown that the client has changed its file. A file that was
// replaced may be replaced again, one that was written is perhaps still being written, and each bad
// spot of a disk can take it many seconds.
constexpr auto kCaution = 5s;
// Larger sizes are a lie, and the ends of the pieces could overflow.
constexpr int64_t kLargestFile = int64_t{1} << 62;

}  // namespace

/// A part of a file, on its way or there. Guarded by the mutex until it is there.
struct SequentialReads::Piece {
  int64_t start;
  Clock::time_point asked;
  bool is_ahead = false;  ///< no program has asked for it yet
  bool is_there = false;
  int error = 0;
  std::string bytes = {};  ///< fewer than kPiece only at the file's end
  std::vector<SharedWanted> waiting = {};
};

/// What a program has asked for.
struct SequentialReads::Wanted {
  NodeTable::Id node;
  NodeTable::File file;
  int64_t offset;
  uint32_t size;
  CheckedReads::ReadDone done;
  std::vector<SharedPiece> pieces = {};
  size_t missing = 0;

  /// The end of what the file has of it.
  [[nodiscard]] int64_t end() const {
    return std::min<int64_t>(offset + size, int64_t{file.attributes.st_size});
  }
};

/// A file that is being read, as long as it does not change.
struct SequentialReads::Stream {
  NodeTable::Id node;
  udisk_stat attributes;  ///< when the program began
  Clock::time_point begun;
  int64_t start;                ///< where the program began
  int64_t next;                 ///< where it goes on
  Clock::time_point read = {};  ///< when it read last
  Clock::time_point measured;
  int64_t measured_next;
  std::chrono::nanoseconds shortest;  ///< that an answer took
  int64_t reach = kFirstReach;
  int64_t most = kLongestReach;                ///< for the reach, at the program's speed
  Clock::time_point turned = {};               ///< when the reach was changed
  std::map<int64_t, SharedPiece> pieces = {};  ///< by start

  /// Whether the program has read so much that it is likely to go on.
  [[nodiscard]] bool IsInARow() const { return next - start >= kPiece; }

  /// Finds out how far a program gets in `time`.
  void Measure(Clock::time_point now, Clock::duration time) {
    const auto elapsed = now - measured;
    if (elapsed < kMeasured) return;
    most = std::min(kLongestReach, (next - measured_next) * (time / 1ms) / (elapsed / 1ms));
    measured = now;
    measured_next = next;
  }

  /// Whether a read may be the program's next one: the kernel's may overtake one another.
  [[nodiscard]] bool IsNear(const Wanted& wanted) const {
    const int64_t slack = 2 * int64_t{wanted.size};
    return wanted.offset >= next - slack && wanted.offset <= next + slack;
  }

  /// Changes the reach by what a piece shows: the longer it waited for others, the fuller the line.
  void Adapt(const Piece& piece, bool is_awaited) {
    const auto now = Clock::now();
    const auto took = now - piece.asked;
    shortest = std::min<std::chrono::nanoseconds>(shortest, took);
    if (piece.asked <= turned) return;  // what was asked for before does not show the last change
    if (took > 3 * shortest + kDelay) {
      reach = std::max(reach / 2, kPiece);
    } else if (is_awaited && took < shortest * 3 / 2 + kDelay) {
      reach = std::min(reach * 2, kLongestReach);
    } else {
      return;
    }
    turned = now;
  }
};

SequentialReads::SequentialReads(RemoteFiles& files, CheckedReads& reads, const NodeTable& nodes,
                                 bool enabled, size_t memory, Clock::duration trusted)
    : files_(files),
      reads_(reads),
      nodes_(nodes),
      enabled_(enabled),
      most_pieces_(memory / static_cast<size_t>(kPiece)),
      trusted_(trusted) {}

SequentialReads::~SequentialReads() = default;

void SequentialReads::Read(NodeTable::Id node, const NodeTable::File& file, int64_t offset,
                           uint32_t size, Clock::time_point asked, CheckedReads::ReadDone done) {
  const int64_t file_size = file.attributes.st_size;
  if (!enabled_ || !files_.IsFar() || offset >= file_size || file_size > kLargestFile) {
    return reads_.Read(node, file, offset, size, std::move(done));
  }
  const auto wanted = std::make_shared<Wanted>(
      Wanted{.node = node, .file = file, .offset = offset, .size = size, .done = std::move(done)});
  bool is_followed = false;
  bool is_there = false;
  std::vector<SharedPiece> missing;
  {
    const std::lock_guard lock(mutex_);
    if (auto* const stream = StreamLocked(*wanted, asked)) {
      const bool was_in_a_row = stream->IsInARow();
      stream->next = std::max(stream->next, wanted->end());
      stream->read = asked;
      stream->Measure(asked, trusted_ / 2);
      const bool leads =
          was_in_a_row && asked >= resumes_ && stream->most >= std::max<int64_t>(size, kPiece);
      is_followed = leads || stream->pieces.contains(StartOfPiece(offset));
      if (is_followed) CollectLocked(*stream, wanted, asked, &missing);
      if (leads) LeadLocked(*stream, *wanted, asked, &missing);
    }
    is_there = wanted->missing == 0;
  }
  if (!is_followed) return reads_.Read(node, file, offset, size, std::move(wanted->done));
  if (is_there) Deliver(*wanted);
  for (const auto& piece : missing) {
    reads_.Read(
        node, file, piece->start, kPiece,
        [this, node, piece](int error, std::string_view bytes) { Take(node, piece, error, bytes); },
        CheckedReads::Check::kAtOnce);
  }
}

/// Finds the file that a program goes on reading, or begins with it anew.
/// @return null when the read is not to be followed
SequentialReads::Stream* SequentialReads::StreamLocked(const Wanted& wanted,
                                                       Clock::time_point asked) {
  for (auto stream = streams_.begin(); stream != streams_.end();) {
    const auto next = std::next(stream);
    if (asked - stream->read > trusted_) DropLocked(stream);
    stream = next;
  }
  const auto found = std::ranges::find(streams_, wanted.node, &Stream::node);
  if (found != streams_.end()) {
    const bool is_in_place = found->IsNear(wanted);
    if (is_in_place && GoesOnLocked(*found, wanted)) return &*found;
    // Another program may read the file elsewhere.
    if (!is_in_place && found->IsInARow()) return nullptr;
    DropLocked(found);
  }
  if (streams_.size() == kMostStreams) return nullptr;
  streams_.push_front({.node = wanted.node,
                       .attributes = wanted.file.attributes,
                       .begun = asked,
                       .start = wanted.offset,
                       .next = wanted.offset,
                       .read = asked,
                       .measured = asked,
                       .measured_next = wanted.offset,
                       .shortest = files_.round_trip()});
  return &streams_.front();
}

/// Whether the file has not changed since the program began, and what was read ahead for this read
/// can be used. The kernel may know of a change that it has not been read after, and would then
/// keep the old bytes.
bool SequentialReads::GoesOnLocked(const Stream& stream, const Wanted& wanted) const {
  if (!IsSameContent(stream.attributes, wanted.file.attributes) ||
      nodes_.IsChangedSince(stream.node, stream.begun)) {
    return false;
  }
  const auto oldest = Clock::now() - trusted_;
  const auto first = stream.pieces.lower_bound(StartOfPiece(wanted.offset));
  const auto last = stream.pieces.lower_bound(wanted.end());
  return std::all_of(first, last, [oldest](const auto& place) {
    return place.second->error == 0 && place.second->asked >= oldest;
  });
}

/// Whether the disk has shown that a file is no longer as it was.
bool SequentialReads::HasChanged(NodeTable::Id node, const udisk_stat& before) const {
  const auto now = nodes_.LastAttributes(node);
  return now && !IsSameContent(before, *now);
}

void SequentialReads::DropLocked(std::list<Stream>::iterator stream) {
  for (const auto& [start, piece] : stream->pieces) {
    if (piece->is_ahead) ++files_.savings().pieces_ahead_unused;
  }
  streams_.erase(stream);
}

/// Makes a piece that has to be asked for.
SequentialReads::SharedPiece SequentialReads::MakePiece(int64_t start, Clock::time_point asked,
                                                        bool is_ahead) {
  auto piece = std::make_unique<Piece>(Piece{.start = start, .asked = asked, .is_ahead = is_ahead});
  ++*pieces_;
  return {piece.release(), [count = pieces_](const Piece* counted) {
            delete counted;
            --*count;
          }};
}

/// Finds the pieces of what a program wants.
/// @param missing  gets those that have to be asked for
void SequentialReads::CollectLocked(Stream& stream, const SharedWanted& wanted,
                                    Clock::time_point asked, std::vector<SharedPiece>* missing) {
  for (int64_t start = StartOfPiece(wanted->offset); start < wanted->end(); start += kPiece) {
    auto& piece = stream.pieces[start];
    if (piece == nullptr) {
      piece = MakePiece(start, asked, false);
      missing->push_back(piece);
    }
    if (std::exchange(piece->is_ahead, false)) ++files_.savings().pieces_ahead_used;
    wanted->pieces.push_back(piece);
    if (piece->is_there) continue;
    ++wanted->missing;
    piece->waiting.push_back(wanted);
  }
  // The kernel keeps what came before, but its requests may overtake one another.
  const int64_t left = wanted->offset - int64_t{wanted->size};
  while (!stream.pieces.empty() && stream.pieces.begin()->first + kPiece <= left) {
    if (stream.pieces.begin()->second->is_ahead) ++files_.savings().pieces_ahead_unused;
    stream.pieces.erase(stream.pieces.begin());
  }
}

/// Finds the pieces that a program will want next.
/// @param missing  gets them
void SequentialReads::LeadLocked(Stream& stream, const Wanted& wanted, Clock::time_point asked,
                                 std::vector<SharedPiece>* missing) {
  const int64_t reach = std::max<int64_t>(std::min(stream.reach, stream.most), wanted.size);
  const int64_t end = std::min<int64_t>(stream.next + reach, stream.attributes.st_size);
  const size_t share = most_pieces_ / streams_.size();
  for (int64_t start = StartOfPiece(wanted.offset + wanted.size + kPiece - 1);
       start < end && *pieces_ < most_pieces_ && stream.pieces.size() < share; start += kPiece) {
    auto& piece = stream.pieces[start];
    if (piece != nullptr) continue;
    piece = MakePiece(start, asked, true);
    missing->push_back(piece);
    ++files_.savings().pieces_ahead;
  }
}

void SequentialReads::Take(NodeTable::Id node, const SharedPiece& piece, int error,
                           std::string_view bytes) {
  std::vector<SharedWanted> whole;
  {
    const std::lock_guard lock(mutex_);
    piece->error = error;
    try {
      piece->bytes = bytes;
    } catch (const std::bad_alloc&) {
      piece->error = ENOMEM;  // those that wait for the piece still get an answer
    }
    piece->is_there = true;
    for (auto& wanted : std::exchange(piece->waiting, {})) {
      if (--wanted->missing == 0) whole.push_back(std::move(wanted));
    }
    const auto stream = std::ranges::find(streams_, node, &Stream::node);
    const bool is_of_stream = stream != streams_.end() && piece->asked >= stream->begun;
    const bool has_changed = is_of_stream && HasChanged(node, stream->attributes) &&
                             !nodes_.IsChangedSince(node, stream->begun);
    if (piece->error != 0 || has_changed) resumes_ = Clock::now() + kCaution;
    // What was asked for before the program began anew says nothing of it.
    if (error == 0 && is_of_stream) stream->Adapt(*piece, !whole.empty());
  }
  for (const auto& wanted : whole) Deliver(*wanted);
}

/// Replies to a program with its part of the pieces, which are all there.
void SequentialReads::Deliver(Wanted& wanted) {
  std::string bytes;
  const int64_t end = wanted.offset + wanted.size;
  for (const auto& piece : wanted.pieces) {
    // A third file at the path could look like the one that the program has read so far.
    if (piece->error == ESTALE || piece->error == ENOENT) return wanted.done(piece->error, {});
    if (piece->error != 0) break;
    const auto from = static_cast<size_t>(std::max<int64_t>(wanted.offset - piece->start, 0));
    const auto to = static_cast<size_t>(std::min(end - piece->start, kPiece));
    if (from < piece->bytes.size()) bytes.append(piece->bytes, from, to - from);
    if (piece->bytes.size() < static_cast<size_t>(kPiece)) break;
  }
  const bool is_whole = static_cast<int64_t>(bytes.size()) >= wanted.end() - wanted.offset;
  // Pieces from before a change and after it would make a mixture.
  if (is_whole && !HasChanged(wanted.node, wanted.file.attributes)) return wanted.done(0, bytes);
  reads_.Read(wanted.node, wanted.file, wanted.offset, wanted.size, std::move(wanted.done));
}

void SequentialReads::Forget(NodeTable::Id node) {
  const std::lock_guard lock(mutex_);
  const auto stream = std::ranges::find(streams_, node, &Stream::node);
  if (stream != streams_.end()) DropLocked(stream);
}

void SequentialReads::ForgetAll() {
  const std::lock_guard lock(mutex_);
  while (!streams_.empty()) DropLocked(streams_.begin());
}

}  // namespace cpd::host
