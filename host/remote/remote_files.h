// The protocol's requests as typed calls. Paths begin with '/', the disk's root.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
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
struct Savings;

/// A value, or the reason why there is none.
template <class T>
struct Result {
  int error = 0;  ///< errno; 0 = the value is there
  T value{};
};

/// A file's bytes, inside the reply's buffer.
struct FileData {
  std::string_view bytes;
  std::unique_ptr<CpdPacket> reply;  ///< holds the bytes
};

/// A directory's entries, inside the reply's buffer.
struct Listing {
  struct Entry {
    udisk_stat attributes;  ///< zeros if they are unknown
    std::string_view name;  ///< a NUL follows

    [[nodiscard]] bool HasAttributes() const { return attributes.st_mode != 0; }
  };
  std::vector<Entry> entries;
  uint16_t announced_entries = 0;    ///< the count in the reply, which wraps at 65536
  std::string_view bytes;            ///< the entries as received
  std::unique_ptr<CpdPacket> reply;  ///< holds names and bytes

  /// How much memory it takes together with an index of its entries, in bytes.
  [[nodiscard]] size_t memory() const;
};
using SharedListing = std::shared_ptr<const Listing>;

/// What a directory check found.
struct DirectoryCheck {
  udisk_stat directory;            ///< its attributes; set when the old listing holds
  std::optional<Listing> changed;  ///< the new listing; empty = the old one holds
};

/// A file to read from its start.
struct SmallFile {
  std::string path;
  uint32_t size;  ///< how many bytes at most
};

/// The bytes of several files, in the order of the request.
struct SmallFilesData {
  std::vector<std::string_view> bytes;
  std::unique_ptr<CpdPacket> reply;  ///< holds the bytes
};

/// How a request ended whose reply carries nothing but a result.
enum class Outcome {
  kDone,
  kRefused,     ///< the module reported failure; the protocol carries no reason
  kUnanswered,  ///< no reply came: it may or may not be done
};

/// Sends file requests over a session. Every call returns at once; its Done receives the result
/// under the rules of Session::Done. A request without a reply, or with a malformed one, ends with
/// EIO. All operations are callable from any thread.
class RemoteFiles {
 public:
  template <class T>
  using Done = std::function<void(Result<T>)>;
  using OnOutcome = std::function<void(Outcome)>;

  /// What a request changes.
  enum class ChangeOf {
    kFile,  ///< a file's content or attributes
    kName,  ///< whether there is such a name; with it, the directory
  };
  /// Told of what passes through. Each may be empty.
  struct Observer {
    /// Called when a change of `path` is about to be sent.
    std::function<void(const std::string& path, ChangeOf what)> on_start;
    /// Called when a change of `path` may have been made, before its OnOutcome runs.
    std::function<void(const std::string& path, ChangeOf what)> on_change;
    /// Called with the attributes that `path` has, before their Done runs.
    std::function<void(const std::string& path, const Result<udisk_stat>& result)> on_shown;
  };

  explicit RemoteFiles(Session& session, Observer observer = {})
      : session_(session), observer_(std::move(observer)) {}

  /// ENOENT when there is no such file.
  void GetAttributes(const std::string& path, Done<udisk_stat> done);
  /// ENOENT when there is no such directory; EIO also when it cannot be opened.
  void List(const std::string& path, Done<Listing> done);
  /// Longest listing to check, in bytes. The check carries the listing, and thus takes as long as a
  /// new one.
  static constexpr size_t kLongestCheck = 4 << 20;
  /// Whether CheckDirectory gives a reliable answer for a listing, and may carry it. It counts
  /// entries in 16 bits, and cannot compare an entry that vanished or has no attributes.
  static bool CanCheck(const Listing& listing);
  /// Lists the directory if an entry's name, size or second of modification differs from `cached`,
  /// for which CanCheck must hold. Other differences, such as a changed mode, go unnoticed.
  void CheckDirectory(const std::string& path, const Listing& cached, Done<DirectoryCheck> done);
  /// Gives fewer bytes than asked for at the end of the file, and also when the file cannot be
  /// read: the protocol does not distinguish the two.
  void Read(const std::string& path, int64_t offset, uint32_t size, Done<FileData> done);
  /// Reads the start of several files with one request. A file that cannot be read has no bytes.
  void ReadSmallFiles(const std::vector<SmallFile>& files, Done<SmallFilesData> done);
  void GetStatistics(const std::string& path, Done<udisk_statvfs> done);
  /// Whether the module says that the attribute has a value. It always says that there is none.
  void HasExtendedAttribute(const std::string& path, const std::string& name, Done<bool> done);

  // ---- What changes the disk ----
  // Modes are sent without set-user-ID and set-group-ID bits.

  /// Empties a file that exists, and makes the directories that are missing above it.
  void Create(const std::string& path, uint32_t mode, OnOutcome on_outcome);
  void Write(const std::string& path, int64_t offset, std::string_view data, OnOutcome on_outcome);
  /// @param pieces  WritePieceHead records, each followed by its data. If the batch is refused, any
  ///                of them may have been written.
  void WriteBatch(const std::string& path, std::string_view pieces, OnOutcome on_outcome);
  /// Sets a size of 10 MiB at most, unless the module exempts the name from that limit.
  void Truncate(const std::string& path, uint64_t size, OnOutcome on_outcome);
  void Sync(const std::string& path, OnOutcome on_outcome);
  void ChangeMode(const std::string& path, uint32_t mode, OnOutcome on_outcome);
  /// An owner or group of all ones is left unchanged.
  void ChangeOwner(const std::string& path, uint32_t owner, uint32_t group, OnOutcome on_outcome);
  /// An existing directory counts as done. The module takes a backslash for a separator.
  void MakeDirectory(const std::string& path, uint32_t mode, OnOutcome on_outcome);
  /// @param before  here and below: the attributes of what the path leads to, if they are known.
  ///                They show what became of the request if its reply is lost.
  void RemoveDirectory(const std::string& path, OnOutcome on_outcome,
                       const std::optional<udisk_stat>& before = std::nullopt);
  void Link(const std::string& path, const std::string& new_path, OnOutcome on_outcome);
  void Unlink(const std::string& path, OnOutcome on_outcome,
              const std::optional<udisk_stat>& before = std::nullopt);
  void Rename(const std::string& path, const std::string& new_path, OnOutcome on_outcome,
              const std::optional<udisk_stat>& before = std::nullopt);
  /// Changes nothing; its reply proves that every request before it is done.
  void Flush(const std::string& path, OnOutcome on_outcome);
  /// Syncs the file's data to the disk. The reply does not say whether that worked.
  void Release(const std::string& path, OnOutcome on_outcome);
  /// Waits until every change that was sent is answered. Must not be called on the thread that
  /// delivers replies.
  void WaitForChanges() const;

  /// How long the module took for the request whose answer is being delivered, not counting the
  /// time that the request waited for others. Must only be called from a Done or an OnOutcome.
  [[nodiscard]] std::chrono::nanoseconds TimeOfAnswer() const;
  /// How long a request and its answer are on their way at least; 0 if that is not known.
  [[nodiscard]] std::chrono::nanoseconds Transit() const;
  /// The session's counts of what saved requests.
  [[nodiscard]] Savings& savings() const;

  /// All changes in watched directories until then have been told.
  [[nodiscard]] std::chrono::steady_clock::time_point told_until() const;

  /// Whether an answer takes so long that a program's work depends on how often it waits for one.
  [[nodiscard]] bool IsFar() const;
  /// How long an answer takes at least.
  [[nodiscard]] std::chrono::nanoseconds round_trip() const;

 private:
  /// Sends a request whose reply repeats its head, with the result in it.
  /// @param is_done  whether a reply's head reports success
  template <class Head, class IsDone>
  void Change(std::unique_ptr<CpdPacket> request, IsDone is_done, OnOutcome on_outcome,
              const std::optional<udisk_stat>& before = std::nullopt);
  void Write(WriteHead head, const std::string& path, std::string_view data, OnOutcome on_outcome);
  OnOutcome ThenTell(const std::string& path, ChangeOf what, OnOutcome on_outcome) const;
  void TellStart(const std::string& path, ChangeOf what) const;
  void Remove(uint16_t command, const std::string& path, OnOutcome on_outcome,
              const std::optional<udisk_stat>& before);
  void LinkOrRename(uint16_t command, const std::string& path, const std::string& new_path,
                    OnOutcome on_outcome, const std::optional<udisk_stat>& before);
  void FlushOrRelease(uint16_t command, const std::string& path, OnOutcome on_outcome);

  Session& session_;
  const Observer observer_;
  std::atomic<int> unanswered_ = 0;  // changes without a reply yet
};

}  // namespace cpd::host
