// A mount outlives its line: the process that holds it takes over the line of a newer process.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "line/runtime_directory.h"

namespace cpd::host {

/// What the holder of a mount answers when it is offered a line.
enum class Verdict : uint8_t {
  kAdopted,   ///< it uses the line from now on
  kRefused,   ///< it has another session
  kTakeOver,  ///< it ends, and leaves the mount point to the newer process
};

/// The longest hello that can be handed over, in bytes.
inline constexpr size_t kLongestHello = 4096;

/// A line that a newer process offers to the holder. Destroy it when the line has ended: from that,
/// the newer process learns of the end.
struct OfferedLine {
  Descriptor in;
  Descriptor out;
  std::string hello;  ///< what the newer process has read from `in`
  Descriptor connection;

  /// To be called once. An error is ignored: a newer process that has ended shows as the line's
  /// end.
  void Answer(Verdict verdict) const;
};

/// Waits for the offers of newer processes, on behalf of the one that holds the mount. After the
/// construction it needs accept4, getsockopt, geteuid, poll, recvmsg, sendmsg, close and unlinkat
/// only.
class HandoverListener {
 public:
  /// @param directory  must outlive this
  /// @param mount_point  as the user gave it. It is not looked at, since a mount whose line is down
  ///                     would not answer; only the directory that contains it is.
  /// @throws std::runtime_error when another process listens for the mount point, or it has no name
  HandoverListener(const RuntimeDirectory& directory, const std::string& mount_point);
  ~HandoverListener();
  HandoverListener(const HandoverListener&) = delete;
  HandoverListener& operator=(const HandoverListener&) = delete;

  /// Readable when a line is offered.
  [[nodiscard]] int fd() const { return socket_.get(); }
  /// Takes the next offer. Waits up to a second for the message of a process that has connected.
  /// @return nothing when there is none, or it is not from a process of this user, or makes no
  /// sense
  [[nodiscard]] std::optional<OfferedLine> Accept() const;
  /// Answers kTakeOver. The newer process waits until this object is gone, and can then listen for
  /// the mount point itself. Not for several threads at once.
  void MakeWayFor(OfferedLine offer);

 private:
  std::vector<Descriptor> takers_;  // first, and thus closed last: after the lock is let go of
  const RuntimeDirectory& directory_;
  std::string name_;
  LockFile lock_;
  Descriptor socket_;
};

/// The holder's answer to an offer.
struct Handover {
  Verdict verdict;
  Descriptor connection;  ///< readable when the holder has closed it

  /// After kAdopted, waits until the line has ended; after kTakeOver, until the holder has gone.
  void Wait() const;
};

/// Offers the line at `in` and `out` to the process that holds the mount. Both stay open here.
/// @param hello  what was read from `in`; 1 to kLongestHello bytes
/// @param limit  for the holder's answer
/// @return nothing when no process holds the mount, or when it ends during the call
/// @throws std::runtime_error when the holder does not answer, or the mount point has no name
std::optional<Handover> OfferLine(const RuntimeDirectory& directory, const std::string& mount_point,
                                  int in, int out, std::string_view hello,
                                  std::chrono::milliseconds limit);

}  // namespace cpd::host
