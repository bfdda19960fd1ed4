// Sends small writes together in one packet.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <string_view>
#include <thread>

#include "mount/backlog.h"
#include "mount/node_table.h"
#include "mount/rename_gate.h"
#include "mount/spare_room.h"
#include "remote/remote_files.h"

namespace cpd::host {

/// Gathers the small writes to each file for a few milliseconds, or longer while earlier ones are
/// unanswered, and sends them as one batch. Requests are carried out in order: a caller that sends
/// what is gathered before its own request finds every byte in the file.
///
/// Every batch asks for a reply, because a failure would otherwise go unnoticed. The pieces of a
/// batch that failed are written again one by one, and so are those of the batches sent after it,
/// so that the last write to each place stays the last.
class GatheredWrites {
 public:
  using Failed = std::function<void(NodeTable::Id node, int error)>;

  /// @param failed  called for a file that lost a write
  GatheredWrites(RemoteFiles& files, const NodeTable& nodes, RenameGate& gate, Failed failed);

  /// Takes a small piece, which then counts as written. This is the only place that decides whether
  /// a write may be acknowledged before it is carried out. The caller must hold a pass of the gate.
  /// @param file_size  in bytes, before the write
  /// @return false when the caller must write it through
  bool Add(NodeTable::Id node, int64_t file_size, int64_t offset, std::string_view data);
  /// Sends a write by itself, and learns from it how fast the disk is and how much room it has. The
  /// caller must hold a pass of the gate and have sent everything gathered.
  void WriteThrough(const NodeTable::File& file, int64_t offset, std::string_view data,
                    RemoteFiles::OnOutcome on_outcome);
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
  /// Sends everything gathered, then waits until all writes to one file are answered. Must not be
  /// called on the thread that delivers replies.
  void Drain(NodeTable::Id node);
  /// The same for all files.
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
    size_t work = 0;          // of what is gathered
    unsigned unanswered = 0;  // requests
    bool is_rewriting = false;
  };
  using Files = std::map<NodeTable::Id, File>;

  void SendFile(NodeTable::Id node);
  void AskForStatistics();
  void Fail(NodeTable::Id node, int error);
  void HandleAnswer(NodeTable::Id node, const Pieces& pieces, size_t work, Outcome outcome);
  void WriteAgain(NodeTable::Id node, const Pieces& pieces);
  void HandleSecondAnswer(NodeTable::Id node, const std::string& path, int64_t end,
                          Outcome outcome);
  void CountAnswer(NodeTable::Id node);
  void SendInTime(const std::stop_token& stop);

  RemoteFiles& files_;
  const NodeTable& nodes_;
  RenameGate& gate_;
  const Failed failed_;
  std::mutex mutex_;
  SpareRoom room_;             // guarded by mutex_
  Backlog backlog_;            // guarded by mutex_
  Files gathering_;            // guarded by mutex_; files with gathered or unanswered writes
  unsigned unanswered_ = 0;    // guarded by mutex_; requests, of all files
  bool has_gathered_ = false;  // guarded by mutex_
  Clock::time_point due_;      // guarded by mutex_; when gathered writes must be sent
  std::condition_variable_any changed_;
  std::jthread sender_;  // last: joined before what it uses is destroyed
};

}  // namespace cpd::host
