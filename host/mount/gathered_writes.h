// Small writes that leave in one packet.
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

/// Gathers the small writes to each file for some milliseconds and sends them as one batch. Since
/// requests are carried out in their order, whoever sends what is gathered before a request of his
/// own finds every byte in the file.
///
/// Every batch is answered: of one without an answer, a failure would never be known. The pieces of
/// a batch that failed are written again one by one, and so are those that were sent behind it, so
/// that the last write to a place stays the last.
class GatheredWrites {
 public:
  using Failed = std::function<void(NodeTable::Id node, int error)>;

  /// @param failed  called for a file that lost a write
  GatheredWrites(RemoteFiles& files, const NodeTable& nodes, RenameGate& gate, Failed failed);

  /// Takes a small piece, which then counts as written. The one place that decides whether a write
  /// may be acknowledged before it is carried out. To be called with a pass of the gate.
  /// @param file_size  in bytes, before the write
  /// @return false when it is to be written through
  bool Add(NodeTable::Id node, int64_t file_size, int64_t offset, std::string_view data);
  /// Sends a write by itself, and learns from it what Add has to know. To be called with a pass of
  /// the gate, once everything that was gathered is sent.
  void WriteThrough(const NodeTable::File& file, int64_t offset, std::string_view data,
                    RemoteFiles::OnOutcome on_outcome);
  /// Counts the room that a file takes which is about to be extended without a write.
  void NoteExtension(const NodeTable::File& file, int64_t size);
  /// Notes why a change of the disk failed.
  /// @param error  an errno
  void NoteFailure(int error);
  /// Sends all that is gathered. To be called with a pass of the gate, or while names move.
  void Send();
  /// Sends all that is gathered, and waits until what was sent to a file is answered. Not to be
  /// called by who delivers replies.
  void Drain(NodeTable::Id node);
  /// The same for all files.
  void Drain();
  /// Waits until all that was sent is answered. To be called while names move, so that nothing more
  /// is gathered; not by who delivers replies.
  void AwaitAnswers();

 private:
  using Clock = std::chrono::steady_clock;
  using Pieces = std::shared_ptr<const std::string>;  // records as they travel

  struct File {
    std::string gathered;   // records as they travel
    size_t last_piece = 0;  // where the last record of them begins
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
  Files gathering_;            // guarded by mutex_; those with something gathered or unanswered
  unsigned unanswered_ = 0;    // guarded by mutex_; requests, of all files
  bool has_gathered_ = false;  // guarded by mutex_
  Clock::time_point due_;      // guarded by mutex_; when what is gathered leaves at the latest
  std::condition_variable_any changed_;
  std::jthread sender_;  // last: ends before what it uses
};

}  // namespace cpd::host
