// Reads that never mix two files, though the protocol names a file by its path in every request.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "mount/node_table.h"
#include "remote/remote_files.h"

namespace cpd::host {

/// Reads files that the client may replace at any moment.
///
/// A small file is read whole when it is opened, by one request, which sees one file. Programs then
/// read that content until the last of them closes the file, or one of them changes it.
///
/// Reads of a larger file are sent at once. The data of each is held until a later request for the
/// file's attributes shows that the path still leads to the file. One such question covers all
/// reads before it. The next question is sent when that one is answered, or when kWindow more reads
/// wait for it: the more reads are under way, the fewer questions there are per read.
///
/// A follow-up request, sent when an answer arrives, names the file by its old path, so no name may
/// move until AwaitAnswers has returned. All operations are callable from any thread.
class CheckedReads {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr size_t kWindow = 8;
  /// The largest file to fetch, in bytes.
  static constexpr int64_t kLargestContent = 64 << 10;

  /// A whole file. Must not outlive the object that fetched it.
  struct Content {
    std::string bytes;
    udisk_stat attributes;  ///< of the file with these bytes
    Clock::time_point asked;

    /// The bytes from an offset on, `size` at most.
    [[nodiscard]] std::string_view Part(int64_t offset, size_t size) const {
      return std::string_view(bytes).substr(
          std::min<size_t>(static_cast<size_t>(offset), bytes.size()), size);
    }
  };
  using SharedContent = std::shared_ptr<const Content>;

  /// Notes what the disk shows at a node's path.
  /// @return false when that is another file, and programs already use the previous one
  using Note = std::function<bool(NodeTable::Id node, const udisk_stat& attributes)>;
  /// Receives 0 or an errno, and the content, which is null if the file is not read whole. Find may
  /// no longer give it: a program may have changed the file meanwhile.
  using Opened = std::function<void(int error, SharedContent content)>;
  /// Receives content that was read ahead, and when it was asked for; null if there is none.
  using Arrived = std::function<void(const std::string_view* content, Clock::time_point asked)>;
  /// Waits for the file's content that was read ahead, if its attributes have not changed since.
  /// @return false when there is none, so that `arrived` does not run
  using Ahead = std::function<bool(const NodeTable::File& file, Arrived arrived)>;
  /// Receives the bytes, which are valid during the call; fewer than wanted only at the file's end.
  using ReadDone = std::function<void(int error, std::string_view bytes)>;
  /// When the question that covers a read is sent.
  enum class Check {
    kInTurn,  ///< after those before it
    kAtOnce,  ///< right after the read, which saves up to a round trip
  };

  /// @param memory  the most that the content of files may take, in bytes; a file for whose content
  ///                there is no room is read as a larger one
  CheckedReads(RemoteFiles& files, const NodeTable& nodes, Note note, size_t memory)
      : files_(files), nodes_(nodes), note_(std::move(note)), memory_(memory) {}

  /// Fetches the content of a file that a program is about to read. Fails when the file is gone or
  /// was replaced while programs use it. If it merely cannot be read, the program's own reads
  /// report that.
  /// @param ahead  gives content that is on its way already
  void Fetch(NodeTable::Id node, const NodeTable::File& file, const Ahead& ahead, Opened opened);
  /// What a path leads to, and the content if that is a small file that can be read.
  struct Look {
    udisk_stat attributes;
    SharedContent content;  ///< null unless it is the content that goes with the attributes
  };
  /// Looks at a path and reads the file there, all sent at once: the client may replace the file at
  /// any moment.
  void LookAndRead(const std::string& path, RemoteFiles::Done<Look> done);
  /// Lets Find give content that LookAndRead has read.
  /// @return false when the node's file has changed since, or another one has taken its place
  bool Use(NodeTable::Id node, const SharedContent& content);
  /// @return null when no content was fetched that matches the file as the kernel knows it
  [[nodiscard]] SharedContent Find(NodeTable::Id node) const;
  /// Forgets a file's content. Must be called before a change of the file is answered, and when its
  /// last handle is closed.
  void Forget(NodeTable::Id node);
  /// Forgets the content of all files. Nothing may be under way.
  void ForgetAll();

  /// Ends with ESTALE when another file has taken the path, and with ENOENT when there is none.
  void Read(NodeTable::Id node, const NodeTable::File& file, int64_t offset, uint32_t size,
            ReadDone done, Check check = Check::kInTurn);

  /// Waits until everything under way has ended. The caller holds a move, so that nothing new
  /// begins. Must not be called on the thread that delivers replies.
  void AwaitAnswers();

 private:
  struct Opening;
  struct Looking;
  struct Reading;
  using Openings = std::vector<std::shared_ptr<Opening>>;
  using Readings = std::vector<std::shared_ptr<Reading>>;
  /// A file's reads that no question covers yet, and the questions under way.
  struct Window {
    Readings unchecked;  // sent, and no question sent after them
    size_t checks = 0;   // questions under way
  };

  void Take(const std::shared_ptr<Opening>& opening, const std::string_view* content,
            Clock::time_point asked);
  void FetchAgain(const std::shared_ptr<Opening>& opening);
  void LookAgain(const std::shared_ptr<Opening>& opening);
  bool Keep(const std::shared_ptr<Opening>& opening);
  SharedContent Share(Content content);
  void Send(const std::shared_ptr<Looking>& looking);
  void Finish(const std::shared_ptr<Opening>& opening, int error);
  void Send(const std::shared_ptr<Reading>& reading);
  void SendCheck(NodeTable::Id node, const std::string& path, Readings covered);
  void Judge(const std::shared_ptr<Reading>& reading, const udisk_stat& now);
  void Finish(const Reading& reading, int error, std::string_view bytes = {});
  void CountEnd();

  RemoteFiles& files_;
  const NodeTable& nodes_;
  const Note note_;
  const size_t memory_;
  mutable std::mutex mutex_;
  std::atomic<size_t> content_memory_ = 0;  // of all content that is in use
  std::unordered_map<NodeTable::Id, SharedContent> contents_;
  Openings openings_;  // under way
  std::unordered_map<NodeTable::Id, Window> windows_;
  size_t under_way_ = 0;
  std::condition_variable idle_;
};

}  // namespace cpd::host
