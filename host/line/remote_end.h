// The remote side of a line that may drop: one session over many connections.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "capture/recording.h"
#include "line/line_keeper.h"
#include "line/stream.h"
#include "remote/announcement.h"
#include "remote/channel.h"
#include "remote/session.h"

namespace cpd::host {

/// How the disk on another line differs from that on the line before.
enum class Renewal {
  kLife,  ///< the same disk, but what was not synced may be lost
  kDisk,  ///< another disk
};

struct RemoteEndOptions {
  std::chrono::seconds time_limit{30};  ///< for a reply
  std::chrono::seconds patience{300};   ///< how long requests wait for another line
  uint64_t window = kDefaultWindow;
  Id128 session{};       ///< of a side that sets the line up; zeros otherwise
  std::string drive;     ///< the remote side's name for the disk
  std::string label;     ///< the remote side's label for it; empty = the announced name
  Recording& recording;  ///< of the packets; must outlive this side
  /// Called with the disk that the first line announces, before this side starts a thread. May
  /// throw: then the line is of no use.
  std::function<void(const AnnouncedDisk& disk)> on_first = [](const AnnouncedDisk&) {};
  /// Called before requests go over a later line, on the thread that sets it up.
  std::function<void(Renewal renewal)> on_renewal = [](Renewal) {};
};

class RemoteEnd : public LineUser {
 public:
  explicit RemoteEnd(RemoteEndOptions options);
  ~RemoteEnd() override { session_.Stop(); }

  Session& session() { return session_; }
  /// As announced on the last line.
  [[nodiscard]] AnnouncedDisk disk() const;

  [[nodiscard]] Hello OwnHello() const override;
  void Begin(Connection& connection, const Hello& theirs,
             std::function<void(const Ending&)> ended) override;
  void End(Connection& connection) override;

 private:
  /// A session's packets over a connection.
  class LineChannel : public Channel {
   public:
    LineChannel(Connection& connection, Recording& recording)
        : connection_(connection), recording_(recording) {}
    [[nodiscard]] bool CanBreak() const override { return true; }
    [[nodiscard]] bool HasRoom(size_t packet_length) override {
      return connection_.HasRoom(packet_length);
    }
    void Send(const std::shared_ptr<CpdPacket>& packet) override {
      recording_.Note(*packet, Way::kToModule);
      connection_.Send(packet);
    }
    [[nodiscard]] std::chrono::nanoseconds transit() const override {
      return connection_.shortest_round_trip();
    }

   private:
    Connection& connection_;
    Recording& recording_;
  };

  void NoteDisk(const Hello& theirs, const AnnouncedDisk& disk);

  const RemoteEndOptions options_;
  Session session_;
  mutable std::mutex mutex_;
  std::optional<Hello> before_;  // guarded by mutex_; the hello on the last line
  AnnouncedDisk disk_{};         // guarded by mutex_
  std::optional<LineChannel> channel_;
};

}  // namespace cpd::host
