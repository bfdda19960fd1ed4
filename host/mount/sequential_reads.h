// Keeps a long line to the disk full while a program reads a large file.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "mount/checked_reads.h"
#include "mount/node_table.h"
#include "remote/remote_files.h"

namespace cpd::host {

/// Reads ahead of programs that read a file from one end to the other, if the disk is far: the
/// kernel's own read-ahead is at most 1 MiB, for users other than root 128 KiB, and a long line
/// takes more before the first answer comes.
///
/// When a program has read 128 KiB in a row, the file is read in pieces, up to the reach past what
/// the program has read. The reach doubles while the program has to wait for pieces that nothing
/// delayed on their way, and is halved when the line is congested. It is no more than the program
/// reads in half a second. If that is less than a piece, or than the program asks for at a time,
/// nothing is read ahead.
///
/// A piece is used only if it was asked for at most kTrusted ago, and only if the file has not
/// changed since: neither through this mount nor as far as the disk has shown. Whatever does not
/// fit is read as if nothing had been read ahead; more is read ahead once the program has read
/// another 128 KiB in a row. After a piece has failed, or has shown that its file has changed,
/// nothing is read ahead for some seconds.
///
/// All operations are callable from any thread.
class SequentialReads {
 public:
  using Clock = CheckedReads::Clock;
  static constexpr std::chrono::seconds kTrusted{1};
  /// In bytes.
  static constexpr int64_t kPiece = 128 << 10;
  static constexpr int64_t kFirstReach = 256 << 10;
  static constexpr int64_t kLongestReach = 8 << 20;
  /// Files that are followed at a time. They share the memory.
  static constexpr size_t kMostStreams = 4;

  /// @param enabled  false: nothing is read ahead
  /// @param memory   nothing is read ahead when the pieces of all files, on their way or kept, take
  ///                 so much, in bytes
  /// @param trusted  how old a piece may be
  SequentialReads(RemoteFiles& files, CheckedReads& reads, const NodeTable& nodes, bool enabled,
                  size_t memory, Clock::duration trusted = kTrusted);
  ~SequentialReads();
  SequentialReads(const SequentialReads&) = delete;
  SequentialReads& operator=(const SequentialReads&) = delete;

  /// The same as CheckedReads::Read, whose conditions apply.
  /// @param asked  when the program asked: before the writes that precede the read were sent
  void Read(NodeTable::Id node, const NodeTable::File& file, int64_t offset, uint32_t size,
            Clock::time_point asked, CheckedReads::ReadDone done);
  /// Drops what was read ahead of a file. To be called when it is opened, when its last handle is
  /// closed, and before a change of its size is answered.
  void Forget(NodeTable::Id node);
  /// The same for all files.
  void ForgetAll();

 private:
  struct Wanted;
  struct Piece;
  struct Stream;
  using SharedPiece = std::shared_ptr<Piece>;
  using SharedWanted = std::shared_ptr<Wanted>;

  static int64_t StartOfPiece(int64_t offset) { return offset / kPiece * kPiece; }
  Stream* StreamLocked(const Wanted& wanted, Clock::time_point asked);
  [[nodiscard]] bool GoesOnLocked(const Stream& stream, const Wanted& wanted) const;
  [[nodiscard]] bool HasChanged(NodeTable::Id node, const udisk_stat& before) const;
  void DropLocked(std::list<Stream>::iterator stream);
  SharedPiece MakePiece(int64_t start, Clock::time_point asked, bool is_ahead);
  void CollectLocked(Stream& stream, const SharedWanted& wanted, Clock::time_point asked,
                     std::vector<SharedPiece>* missing);
  void LeadLocked(Stream& stream, const Wanted& wanted, Clock::time_point asked,
                  std::vector<SharedPiece>* missing);
  void Take(NodeTable::Id node, const SharedPiece& piece, int error, std::string_view bytes);
  void Deliver(Wanted& wanted);

  RemoteFiles& files_;
  CheckedReads& reads_;
  const NodeTable& nodes_;
  const bool enabled_;
  const size_t most_pieces_;
  const Clock::duration trusted_;
  // How many exist. The last closure that holds one may outlive this.
  const std::shared_ptr<std::atomic<size_t>> pieces_ = std::make_shared<std::atomic<size_t>>(0);
  std::mutex mutex_;
  std::list<Stream> streams_;
  Clock::time_point resumes_ = {};  // nothing is read ahead before
};

}  // namespace cpd::host
