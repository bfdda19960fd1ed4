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

#include "mount/node_table.h"
#include "mount/rename_gate.h"
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

  /// Takes a small piece. To be called with a pass of the gate.
  /// @return false when it is to be written by itself
  bool Add(NodeTable::Id node, int64_t offset, std::string_view data);
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
    size_t sent_bytes = 0;    // unanswered
    unsigned unanswered = 0;  // requests
    bool is_rewriting = false;
  };
  using Files = std::map<NodeTable::Id, File>;

  void SendFile(NodeTable::Id node);
  void HandleAnswer(NodeTable::Id node, const Pieces& pieces, Outcome outcome);
  void WriteAgain(NodeTable::Id node, const Pieces& pieces);
  void HandleSecondAnswer(NodeTable::Id node, const std::string& path, int64_t end,
                          Outcome outcome);
  void CountAnswer(NodeTable::Id node, size_t bytes);
  void SendInTime(const std::stop_token& stop);

  RemoteFiles& files_;
  const NodeTable& nodes_;
  RenameGate& gate_;
  const Failed failed_;
  std::mutex mutex_;
  Files gathering_;            // guarded by mutex_; those with something gathered or unanswered
  bool has_gathered_ = false;  // guarded by mutex_
  Clock::time_point due_;      // guarded by mutex_; when what is gathered leaves at the latest
  std::condition_variable_any changed_;
  std::jthread sender_;  // last: ends before what it uses
};

}  // namespace cpd::host
