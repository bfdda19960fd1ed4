// The disk's side of one connection: requests to the module, its packets to the line.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>

#include "capture/recording.h"
#include "cpd/driver.h"
#include "cpd/packet.h"
#include "line/connection.h"
#include "line/disk_identity.h"
#include "line/line_keeper.h"
#include "line/memory_limit.h"
#include "line/stream.h"
#include "module/change_watch.h"
#include "module/module.h"
#include "module/served_disk.h"
#include "module/trace_file.h"
#include "options.h"
#include "remote/periodic.h"
#include "remote/statistics.h"

namespace cpd::host {

/// Hands requests to a driver, and finds out which of them the driver no longer holds, although
/// some get no reply. Replies come in the order of the requests, so each one shows that the
/// requests before its own are done. Now and then a probe is added, to which every driver replies.
class Intake {
 public:
  /// @param taken      called with the charge of requests that the driver no longer holds
  /// @param threshold  charge after which a probe is added
  Intake(std::function<void(uint64_t charge)> taken, uint64_t threshold)
      : taken_(std::move(taken)), threshold_(threshold) {}

  void HandOver(std::unique_ptr<CpdPacket> request, CpdDriver& driver);
  /// Notes a packet of the driver. @return false when it answers a probe: it is not for the line
  bool NoteReply(const CpdPacket& reply);

 private:
  struct Request {
    uint16_t command;
    uint32_t id;
    uint64_t charge;
    bool is_probe;
  };

  const std::function<void(uint64_t charge)> taken_;
  const uint64_t threshold_;
  std::mutex mutex_;
  std::deque<Request> requests_;  // guarded by mutex_; handed over and not known to be done
  uint64_t since_probe_ = 0;      // guarded by mutex_; charge
};

/// Holds at most the window of requests, kMostUnwritten of replies, and one more reply, which is
/// being made.
///
/// The disk is opened anew for each line, so that no request of an earlier line is still being
/// carried out.
class DiskEnd : public LineUser {
 public:
  struct Options {
    DiskOptions disk;
    uint64_t window = kDefaultWindow;
    Id128 session{};  ///< of a side that sets the line up; zeros otherwise
    /// Called with the session that the other side has set up, before the disk is opened. Throws
    /// when an older process of this session does not end.
    std::function<void(const Id128& session)> enter = [](const Id128&) {};
    /// What happens when the disk is unmounted. true: requests fail; once the disk is mounted anew,
    /// the line ends as dropped, so that another process can serve it. A process in its sandbox
    /// cannot reach it any more. false: the session ends at once.
    bool awaits_disk = false;
  };

  /// To be made before the process enters its sandbox.
  /// @throws std::runtime_error when the disk cannot be looked at, or the module or one of the
  ///         files for trace events and packets cannot be opened
  explicit DiskEnd(Options options)
      : options_(std::move(options)),
        identifier_(options_.disk.disk),
        watch_(options_.disk.disk),
        changes_(options_.disk.disk),
        recording_(options_.disk),
        trace_(options_.disk.trace),
        module_(options_.disk.module) {}

  [[nodiscard]] Hello OwnHello() const override;
  /// @throws std::runtime_error when the disk cannot be opened
  void Begin(Connection& connection, const Hello& theirs,
             std::function<void(const Ending&)> ended) override;
  void End(Connection& connection) override;

  /// What the sandbox must let this side add watches to; negative = nothing.
  [[nodiscard]] int inotify() const { return changes_.descriptor(); }
  /// Over all lines. Callable from any thread.
  [[nodiscard]] Traffic traffic() const;

 private:
  void Note(const CpdPacket& packet, Way way);
  void Watch(Connection& connection);

  const Options options_;
  const DiskIdentifier identifier_;
  DiskWatch watch_;
  ChangeWatch changes_;
  Recording recording_;
  TraceFile trace_;
  MemoryLimit memory_;
  const Module module_;  // stays loaded, since a process in its sandbox cannot load it again
  std::optional<ServedDisk> disk_;    // while there is a line
  std::optional<Periodic> watching_;  // while there is a line
  mutable std::mutex mutex_;
  Traffic traffic_;  // guarded by mutex_
};

}  // namespace cpd::host
