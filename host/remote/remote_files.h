// The protocol's requests as typed questions. Paths begin with '/' at the disk's root.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cpd/packet.h"
#include "wire.h"

namespace cpd::host {

class Session;

/// A value, or why there is none.
template <class T>
struct Result {
  int error = 0;  ///< errno; 0 = the value is there
  T value{};
};

/// The bytes of a file, as they stand in the reply.
struct FileData {
  std::string_view bytes;
  std::unique_ptr<CpdPacket> reply;  ///< holds the bytes
};

/// A directory's entries, as they stand in the reply.
struct Listing {
  struct Entry {
    udisk_stat attributes;  ///< zeros when the disk's side could not look at the file
    std::string_view name;  ///< a NUL follows

    [[nodiscard]] bool HasAttributes() const { return attributes.st_mode != 0; }
  };
  std::vector<Entry> entries;
  uint16_t announced_entries = 0;    ///< how many the reply says it has; 65536 count as 0
  std::string_view bytes;            ///< as they came
  std::unique_ptr<CpdPacket> reply;  ///< holds names and bytes
};
using SharedListing = std::shared_ptr<const Listing>;

/// What a directory check found.
struct DirectoryCheck {
  udisk_stat directory;            ///< its own attributes, where the listing holds
  std::optional<Listing> changed;  ///< the new listing; empty = the old one holds
};

/// A file to read from its start.
struct SmallFile {
  std::string path;
  uint32_t size;  ///< how many bytes at most
};

/// The bytes of several files, in the order of the question.
struct SmallFilesData {
  std::vector<std::string_view> bytes;
  std::unique_ptr<CpdPacket> reply;  ///< holds the bytes
};

/// How a request ended that brings nothing but its result.
enum class Outcome {
  kDone,
  kRefused,     ///< the disk did not do it; the protocol does not tell why
  kUnanswered,  ///< nobody knows
};

/// Asks for files over a session. Every call returns at once; its Done receives the answer under
/// the rules of Session::Done. A request that stays without an answer, or whose answer makes no
/// sense, ends with EIO.
class RemoteFiles {
 public:
  template <class T>
  using Done = std::function<void(Result<T>)>;
  using OnOutcome = std::function<void(Outcome)>;

  /// Is told the path of everything that may have changed, before the OnOutcome of the change runs.
  using Changed = std::function<void(const std::string& path)>;

  explicit RemoteFiles(
      Session& session, Changed changed = [](const std::string&) {})
      : session_(session), changed_(std::move(changed)) {}

  /// ENOENT when there is no such file.
  void GetAttributes(const std::string& path, Done<udisk_stat> done);
  /// ENOENT when there is no such directory; EIO also when it cannot be opened.
  void List(const std::string& path, Done<Listing> done);
  /// Whether CheckDirectory can carry the listing and be believed: it counts entries in 16 bits,
  /// and cannot compare an entry that vanished, or has no attributes of its own.
  static bool CanCheck(const Listing& listing);
  /// Lists the directory if it differs from `cached`, one that CanCheck, in an entry's name, size
  /// or second of modification. Anything else, such as a changed mode, it does not see.
  void CheckDirectory(const std::string& path, const Listing& cached, Done<DirectoryCheck> done);
  /// At the end of the file, and when the file cannot be read, there are fewer bytes than asked
  /// for; the protocol does not tell which.
  void Read(const std::string& path, int64_t offset, uint32_t size, Done<FileData> done);
  /// Reads the beginnings of several files in one go. A file that cannot be read has no bytes.
  void ReadSmallFiles(const std::vector<SmallFile>& files, Done<SmallFilesData> done);
  void GetStatistics(const std::string& path, Done<udisk_statvfs> done);
  /// Whether the attribute has a value. The protocol never brings one.
  void HasExtendedAttribute(const std::string& path, const std::string& name, Done<bool> done);

  // ---- What changes the disk ----
  // No mode sets a set-user-ID or set-group-ID bit: they are left out of requests.

  /// Empties a file that exists, and makes the directories that are missing above it.
  void Create(const std::string& path, uint32_t mode, OnOutcome on_outcome);
  void Write(const std::string& path, int64_t offset, std::string_view data, OnOutcome on_outcome);
  /// @param pieces  WritePieceHead records with their data. Of a refused batch, any may be written.
  void WriteBatch(const std::string& path, std::string_view pieces, OnOutcome on_outcome);
  /// To 10 MiB at most, unless the name is one of those that the disk's side excepts.
  void Truncate(const std::string& path, uint64_t size, OnOutcome on_outcome);
  void Sync(const std::string& path, OnOutcome on_outcome);
  void ChangeMode(const std::string& path, uint32_t mode, OnOutcome on_outcome);
  /// All ones leave owner or group as it is.
  void ChangeOwner(const std::string& path, uint32_t owner, uint32_t group, OnOutcome on_outcome);
  /// Done also when the directory exists. A backslash in the path separates as a slash does.
  void MakeDirectory(const std::string& path, uint32_t mode, OnOutcome on_outcome);
  void RemoveDirectory(const std::string& path, OnOutcome on_outcome);
  void Link(const std::string& path, const std::string& new_path, OnOutcome on_outcome);
  void Unlink(const std::string& path, OnOutcome on_outcome);
  void Rename(const std::string& path, const std::string& new_path, OnOutcome on_outcome);
  /// Changes nothing; its answer shows that everything before it is done.
  void Flush(const std::string& path, OnOutcome on_outcome);
  /// Brings a file's data to the disk, if it can.
  void Release(const std::string& path, OnOutcome on_outcome);
  /// Waits until every change that was sent is answered. Not to be called by who delivers replies.
  void WaitForChanges() const;

  /// How long the disk's side took for the request whose answer is being delivered, without the
  /// time that it waited for others. To be called from a Done or an OnOutcome only.
  [[nodiscard]] std::chrono::nanoseconds TimeOfAnswer() const;

 private:
  /// Sends a request whose answer is its own head. The head then tells whether it was done.
  template <class Head, class IsDone>
  void Change(std::unique_ptr<CpdPacket> request, IsDone is_done, OnOutcome on_outcome);
  void Write(WriteHead head, const std::string& path, std::string_view data, OnOutcome on_outcome);
  OnOutcome ThenForget(const std::string& path, OnOutcome on_outcome) const;
  void Remove(uint16_t command, const std::string& path, OnOutcome on_outcome);
  void LinkOrRename(uint16_t command, const std::string& path, const std::string& new_path,
                    OnOutcome on_outcome);
  void FlushOrRelease(uint16_t command, const std::string& path, OnOutcome on_outcome);

  Session& session_;
  const Changed changed_;
  std::atomic<int> unanswered_ = 0;  // changes
};

}  // namespace cpd::host
