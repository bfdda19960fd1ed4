// Acknowledges writes before they are carried out, and sends small ones together in one packet.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "mount/backlog.h"
#include "mount/node_table.h"
#include "mount/rename_gate.h"
#include "mount/spare_room.h"
#include "remote/remote_files.h"

namespace cpd::host {

/// Decides whether a write may be acknowledged before it is carried out, and sends it.
///
/// Small writes to a file are gathered for a few milliseconds, or longer while earlier ones are
/// unanswered, and sent as one batch. A large write is sent at once by itself. Requests are carried
/// out in order: a caller that sends what is gathered before its own request finds every byte in
/// the file.
///
/// Every write asks for a reply, because a failure would otherwise go unnoticed. The pieces of a
/// batch that failed are written again one by one, and so are those of the batches sent after it,
/// so that the last write to each place stays the last. For the same reason nobody else may write
/// to the file or cut it while a batch of it is unanswered: see Drain. A large write that failed is
/// not repeated, so what comes after it need not wait for its answer.
class GatheredWrites {
 public:
  using Failed = std::function<void(NodeTable::Id node, int error)>;
  /// @param error  an errno; 0 = the write counts as done
  using Acknowledge = std::function<void(int error)>;

  /// How long a small write is gathered at most, unless earlier ones are unanswered.
  static constexpr std::chrono::milliseconds kLongestGathered{3};
  /// Larger writes are sent by themselves. In bytes.
  static constexpr size_t kLargestPiece = 4 << 10;

  /// @param failed  called for a file that lost a write which counted as done
  GatheredWrites(RemoteFiles& files, const NodeTable& nodes, RenameGate& gate, Failed failed);

  /// Takes a small piece, which then counts as written. The caller must hold a pass of the gate.
  /// @param file_size  in bytes, before the write
  /// @return false when the caller must write it through
  bool Add(NodeTable::Id node, int64_t file_size, int64_t offset, std::string_view data);
  /// Sends a write of any size by itself. The caller must hold a pass of the gate, and have drained
  /// the file and then sent everything gathered.
  /// @param acknowledge  called exactly once, possibly before this returns: as soon as the
  ///                     backlog has room, or with the outcome if that is known earlier
  /// @return false when the caller must write it through
  bool SendEarly(NodeTable::Id node, const NodeTable::File& file, int64_t offset,
                 std::string_view data, Acknowledge acknowledge);
  /// Sends a write by itself, and learns from it how fast the disk is and how much room it has. The
  /// caller must hold a pass of the gate, and have drained the file and then sent everything
  /// gathered.
  void WriteThrough(const NodeTable::File& file, int64_t offset, std::string_view data,
                    RemoteFiles::OnOutcome on_outcome);
  /// Syncs a file's data to the disk. `on_outcome` runs when every write sent before is answered
  /// and what failed is reported; that includes what was written again, which is synced as well.
  /// The caller must hold a pass of the gate and have sent everything gathered.
  void Sync(NodeTable::Id node, const NodeTable::File& file, RemoteFiles::OnOutcome on_outcome);
  /// Calls `callback` when every write sent to a file is answered and what failed is reported;
  /// possibly at once, otherwise usually on the thread that delivers replies. Until then, writes to
  /// the file are not acknowledged early, so that the wait ends.
  void WhenAnswered(NodeTable::Id node, std::function<void()> callback);
  /// Counts the room that a file may take when it is about to be extended without a write.
  void NoteExtension(const NodeTable::File& file, int64_t size);
  /// Notes why a change of the disk failed.
  /// @param error  an errno
  void NoteFailure(int error);
  /// The disk is gone, and another one has taken its place: everything gathered fails. The caller
  /// must hold a pass of the gate, and the session must refuse requests.
  void LoseDisk();
  /// Sends everything gathered. The caller must hold a pass of the gate, or a move.
  void Send();
  /// Sends everything gathered, then waits until the batches of one file are answered, and written
  /// again if they failed. Does not wait for large writes. Must not be called on the thread that
  /// delivers replies.
  void Drain(NodeTable::Id node);
  /// Sends everything gathered, then waits for all answers. Must not be called on the thread that
  /// delivers replies.
  void Drain();
  /// Waits until everything sent is answered. Nothing may be gathered meanwhile: the caller holds a
  /// move, or serves no more requests. Must not be called on the thread that delivers replies.
  void AwaitAnswers();

 private:
  using Clock = std::chrono::steady_clock;
  using Pieces = std::shared_ptr<const std::string>;  // a batch in wire format

  struct File {
    std::string gathered;   // a batch in wire format
    size_t last_piece = 0;  // where its last record begins
    int64_t end = 0;        // of the last piece
    size_t count = 0;
    size_t work = 0;         // of what is gathered
    unsigned batched = 0;    // unanswered requests: batches, and pieces that are written again
    unsigned by_itself = 0;  // other unanswered requests
    bool is_rewriting = false;
    std::vector<std::function<void()>> waiting;  // until nothing is unanswered
  };
  using Files = std::map<NodeTable::Id, File>;
  /// A write that is sent by itself.
  struct Early {
    size_t work;
    Acknowledge acknowledge;
    bool is_acknowledged;
  };
  using SharedEarly = std::shared_ptr<Early>;

  void SendFile(NodeTable::Id node);
  void AskForStatistics();
  void Fail(NodeTable::Id node, int error);
  void HandleAnswer(NodeTable::Id node, const Pieces& pieces, size_t work, Outcome outcome);
  void WriteAgain(NodeTable::Id node, const Pieces& pieces);
  void HandleSecondAnswer(NodeTable::Id node, const std::string& path, int64_t end,
                          Outcome outcome);
  void HandleEarlyAnswer(NodeTable::Id node, const std::string& path, int64_t end,
                         const SharedEarly& early, Outcome outcome);
  std::vector<SharedEarly> AcknowledgeLocked();
  void CountAnswer(NodeTable::Id node, unsigned File::*unanswered);
  void SendInTime(const std::stop_token& stop);

  RemoteFiles& files_;
  const NodeTable& nodes_;
  RenameGate& gate_;
  const Failed failed_;
  std::mutex mutex_;
  SpareRoom room_;                          // guarded by mutex_
  Backlog backlog_;                         // guarded by mutex_; of small writes
  Backlog large_backlog_;                   // guarded by mutex_
  std::deque<SharedEarly> unacknowledged_;  // guarded by mutex_; sent, in that order
  Files gathering_;              // guarded by mutex_; files with gathered or unanswered writes
  unsigned batched_ = 0;         // guarded by mutex_; File::batched of all files
  bool has_gathered_ = false;    // guarded by mutex_
  Clock::time_point due_;        // guarded by mutex_; when gathered writes must be sent
  bool is_sender_idle_ = false;  // guarded by mutex_; sleeps until something is gathered
  std::condition_variable_any gathered_;  // for sender_
  std::condition_variable_any changed_;   // for those that wait for answers
  std::jthread sender_;                   // last: joined before what it uses is destroyed
};

}  // namespace cpd::host
