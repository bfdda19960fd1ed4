// The disk as a mounted file system: turns the kernel's requests into packets.
#pragma once

#include <fuse_lowlevel.h>

#include <atomic>
#include <csignal>
#include <cstdint>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "mount/cache_memory.h"
#include "mount/checked_reads.h"
#include "mount/gathered_writes.h"
#include "mount/kernel_mount.h"
#include "mount/kernel_request.h"
#include "mount/listing_cache.h"
#include "mount/node_table.h"
#include "mount/open_files.h"
#include "mount/prefetch.h"
#include "mount/reading_turn.h"
#include "mount/rename_gate.h"
#include "mount/second_tries.h"
#include "mount/sequential_reads.h"
#include "mount/walk_ahead.h"
#include "options.h"
#include "remote/failure_reason.h"
#include "remote/remote_files.h"

namespace cpd::host {

class Session;

/// A kernel request is read on one of libfuse's threads and sent as a packet. The thread that
/// delivers the reply answers the kernel, so many requests may be under way. Only renames and
/// removals, what is asked while one of these is under way, appends that must ask for the file or
/// its end first, and calls that need earlier writes answered make one of libfuse's threads wait.
/// It calls ReadingTurn::PassOn before, so that another one reads meanwhile.
class FuseMount {
 public:
  /// The largest read that the kernel asks for, in bytes.
  static constexpr unsigned kLargestRead = 1U << 20;

  /// @param kernel  the mount to serve; must outlive this
  FuseMount(Session& session, const DiskOptions& options, KernelMount& kernel);
  FuseMount(const FuseMount&) = delete;
  FuseMount& operator=(const FuseMount&) = delete;

  /// Serves until SIGINT, SIGTERM or SIGHUP, or until somebody unmounts. Stops the session.
  /// @param stop_signals  these three, blocked in all threads; the calling thread unblocks them
  ///                      while it serves
  /// @throws std::runtime_error when the connection to the kernel fails
  void Serve(const sigset_t& stop_signals);

  /// The disk may have lost what was answered but not synced: another line leads to it, and its
  /// machine was booted or it was mounted anew in between. To be called before requests go over
  /// that line; callable from any thread.
  void NoteLoss() { open_files_.LoseUnsynced(); }
  /// Another line leads to another disk. Every request that is under way fails, files and
  /// directories that programs have open are stale (ESTALE), and names lead to the new disk. To be
  /// called before requests go over that line, not on a thread that delivers replies; callable from
  /// any other.
  void ChangeDisk();

  /// What this mount counts.
  [[nodiscard]] Savings& savings() const { return files_.savings(); }
  /// Says which thread reads the kernel's next call.
  ReadingTurn& reading_turn() { return reading_turn_; }

  /// What the kernel calls.
  static fuse_lowlevel_ops Operations();

 private:
  /// Hold the pass from the lookup of a path until the request with that path is sent.
  [[nodiscard]] RenameGate::Pass Enter();
  [[nodiscard]] RenameGate::Move BeginMove();
  static FuseMount& ServerOf(fuse_req_t request);
  template <auto kHandler, class... Arguments>
  static void Call(fuse_req_t request, Arguments... arguments);
  /// Calls a handler that changes the disk; on a read-only mount, replies EROFS instead.
  template <auto kHandler, class... Arguments>
  static void CallChange(fuse_req_t request, Arguments... arguments);

  void Lookup(const KernelRequest& request, fuse_ino_t parent, const char* name);
  static void Forget(fuse_req_t request, fuse_ino_t node, uint64_t references);
  static void ForgetMany(fuse_req_t request, size_t count, fuse_forget_data* forgotten);
  void GetAttributes(const KernelRequest& request, fuse_ino_t node, fuse_file_info* file);
  void Read(const KernelRequest& request, fuse_ino_t node, size_t size, off_t offset,
            fuse_file_info* handle);
  CheckedReads::SharedContent ContentAtOpen(OpenFiles::Handle handle) const;
  void ReplyRead(const KernelRequest& request, OpenFiles::Handle handle, off_t offset,
                 uint32_t wanted, int error, std::string_view bytes);
  void OpenDirectory(const KernelRequest& request, fuse_ino_t node, fuse_file_info* file);
  void ReadDirectory(const KernelRequest& request, fuse_ino_t node, size_t size, off_t position,
                     fuse_file_info* file);
  void ReleaseDirectory(const KernelRequest& request, fuse_ino_t node, fuse_file_info* file);
  void GetStatistics(const KernelRequest& request, fuse_ino_t node);

  // Files, in fuse_mount_files.cpp.
  void Open(const KernelRequest& request, fuse_ino_t node, fuse_file_info* handle);
  bool OpenAsFound(const KernelRequest& request, fuse_ino_t node, const fuse_file_info& handle,
                   const SecondTries::Found& found);
  void ReplyOpened(const KernelRequest& request, fuse_ino_t node, fuse_file_info handle, int error);
  bool IsFresh(fuse_ino_t node, const NodeTable::File& file, bool only_reads,
               NodeTable::Clock::time_point looked_up) const;
  void FetchContent(const KernelRequest& request, fuse_ino_t node, const NodeTable::File& file,
                    const fuse_file_info& handle);
  void CheckFile(const KernelRequest& request, fuse_ino_t node, const NodeTable::File& file,
                 const fuse_file_info& handle, bool is_retry);
  void InvalidateAttributes(fuse_ino_t node, const udisk_stat& before);
  void InvalidateAttributes(fuse_ino_t node);
  void InvalidateAll(const NodeTable::Known& known);
  OpenFiles::Closed CloseHandle(OpenFiles::Handle handle);
  void ForgetContent(fuse_ino_t node);
  bool StoreAhead(fuse_ino_t node, const NodeTable::File& file);
  void Write(const KernelRequest& request, fuse_ino_t node, const char* data, size_t size,
             off_t offset, fuse_file_info* handle);
  /// @return false when the data needs a write request of its own
  bool Gather(const KernelRequest& request, std::string_view data, off_t offset,
              OpenFiles::Handle handle);
  std::future<Result<udisk_stat>> LookAt(const std::string& path);
  bool MoveOn(fuse_ino_t node, OpenFiles::Handle handle);
  void FindEnd(fuse_ino_t node);
  int64_t PlaceOf(OpenFiles::Handle handle, const NodeTable::File& file, off_t offset);
  void ReplyWritten(const KernelRequest& request, fuse_ino_t node, size_t size, int64_t end);
  void NoteFailedWrite(fuse_ino_t node, int error);
  void ReplyTaken(const KernelRequest& request, OpenFiles::Handle handle, int error);
  void Flush(const KernelRequest& request, fuse_ino_t node, fuse_file_info* handle);
  void Sync(const KernelRequest& request, fuse_ino_t node, int data_only, fuse_file_info* handle);
  void Release(const KernelRequest& request, fuse_ino_t node, fuse_file_info* handle);
  void Close(const KernelRequest& request, OpenFiles::Handle handle);
  void SetAttributes(const KernelRequest& request, fuse_ino_t node, struct stat* wanted, int which,
                     fuse_file_info* handle);

  // Names, in fuse_mount_names.cpp.
  void Create(const KernelRequest& request, fuse_ino_t parent, const char* name, mode_t mode,
              fuse_file_info* handle);
  void MakeNode(const KernelRequest& request, fuse_ino_t parent, const char* name, mode_t mode,
                dev_t device);
  void MakeDirectory(const KernelRequest& request, fuse_ino_t parent, const char* name,
                     mode_t mode);
  void Link(const KernelRequest& request, fuse_ino_t node, fuse_ino_t new_parent,
            const char* new_name);
  void MakeSymbolicLink(const KernelRequest& request, const char* target, fuse_ino_t parent,
                        const char* name);
  void Unlink(const KernelRequest& request, fuse_ino_t parent, const char* name);
  void RemoveDirectory(const KernelRequest& request, fuse_ino_t parent, const char* name);
  void Rename(const KernelRequest& request, fuse_ino_t parent, const char* name,
              fuse_ino_t new_parent, const char* new_name, unsigned flags);

  struct AttributeChange;
  struct Making;
  struct Renaming;
  void MakeFile(const KernelRequest& request, fuse_ino_t parent, const char* name, mode_t mode,
                std::function<bool(const fuse_entry_param& entry)> reply);
  void ShowMade(const std::shared_ptr<Making>& making);
  void Hide(const KernelRequest& request, fuse_ino_t node, fuse_ino_t parent,
            const std::string& name, const RenameGate::Move& move);
  void RemoveUnlessOpen(fuse_ino_t node, const std::string& hidden_path);
  void LiftHiddenFiles(fuse_ino_t parent, const std::string& name, const RenameGate::Move& move);
  void HideTarget(const std::shared_ptr<Renaming>& renaming);
  void FinishRename(const std::shared_ptr<Renaming>& renaming);
  void UndoHiding(const Renaming& renaming);
  void RemoveHiddenFiles();

  /// When the disk was asked for what is shown, if that was before the kernel asked.
  using Asked = std::optional<NodeTable::Clock::time_point>;
  void ReplyAttributes(const KernelRequest& request, fuse_ino_t node, bool is_hidden,
                       const Result<udisk_stat>& result, Asked asked = std::nullopt);
  bool AcceptTimes(const KernelRequest& request, fuse_ino_t node, const NodeTable::File& file);
  void ReplyChangedAttributes(const KernelRequest& request, fuse_ino_t node,
                              const NodeTable::File& file,
                              const std::shared_ptr<AttributeChange>& change);
  void DoubtIfWritten(fuse_ino_t node, const std::string& path, NodeTable::Clock::time_point asked);
  void ReplyFailure(const KernelRequest& request, Outcome outcome, Attempt attempt);
  void ReplyDone(const KernelRequest& request);
  /// An open directory's listing, and the value of changes_ when it was requested.
  struct OpenDirectoryListing {
    SharedListing listing;  // null until first read
    uint64_t changes = 0;
    std::optional<NodeTable::Clock::time_point> asked = {};  // when; empty unless listed ahead
  };
  void ReplyWithEntries(const KernelRequest& request, fuse_ino_t directory,
                        const OpenDirectoryListing& directory_listing, size_t first, size_t size);
  void TakeNotice(const Notice& notice);
  /// Notes what the disk shows at a node's path. @return false when it is another file
  bool Note(fuse_ino_t node, const udisk_stat& attributes, Asked asked = std::nullopt);
  bool NoteRead(fuse_ino_t node, const udisk_stat& attributes);
  [[nodiscard]] bool IsUsed(fuse_ino_t node) const;
  bool IsBeingRead(fuse_ino_t node, const udisk_stat& attributes) const;
  bool IsOutdated(fuse_ino_t directory, const std::string& name,
                  const OpenDirectoryListing& directory_listing) const;
  fuse_entry_param EntryOf(fuse_ino_t parent, const std::string& name, const udisk_stat& attributes,
                           Asked asked = std::nullopt);
  void DoubtName(fuse_ino_t node);
  void ReplyLostFile(const KernelRequest& request, fuse_ino_t node);
  void ReplyStale(const KernelRequest& request, fuse_ino_t node);
  void DropReferences(fuse_ino_t node, uint64_t references);
  void TakeBack(fuse_ino_t node);
  void NoteUntold(fuse_ino_t node);

  KernelMount& kernel_;
  Session& session_;
  const bool read_only_;
  const bool writes_early_;
  const bool gathers_writes_;
  const bool heeds_notices_;
  const CacheMemory cache_memory_;
  RemoteFiles files_;
  ListingCache listings_;
  WalkAhead walk_;
  Prefetch prefetch_;
  NodeTable nodes_;
  RenameGate gate_;
  GatheredWrites writes_;
  CheckedReads reads_;
  SequentialReads sequential_;
  OpenFiles open_files_;  // after reads_, like the next: they hold its content
  SecondTries second_tries_;
  std::atomic<uint64_t> changes_ = 0;  // made through this mount
  std::mutex mutex_;
  std::map<uint64_t, OpenDirectoryListing> directories_;  // guarded by mutex_
  uint64_t last_directory_ = 0;                           // guarded by mutex_
  ReadingTurn reading_turn_;
  Interruptions interruptions_;  // last: its threads use the rest
};

}  // namespace cpd::host
