// A disk that is redirected within this process: the module, and the session with it.
#pragma once

#include <future>
#include <memory>

#include "capture/recording.h"
#include "module/change_watch.h"
#include "module/served_disk.h"
#include "module/trace_file.h"
#include "options.h"
#include "remote/channel.h"
#include "remote/session.h"

namespace cpd::host {

class Redirection {
 public:
  /// Loads the module, opens the disk, waits for its announcement and answers it.
  /// @throws std::runtime_error when one of these fails
  explicit Redirection(const DiskOptions& options);
  ~Redirection();
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

  Session& session() { return session_; }
  /// From now on, tells the session of changes in the directories that it lists.
  void WatchChanges();

 private:
  /// Leads to the module, and records what it carries.
  class RecordedChannel : public DriverChannel {
   public:
    RecordedChannel(CpdDriver& driver, Recording& recording, ChangeWatch& changes)
        : DriverChannel(driver), driver_(driver), recording_(recording), changes_(changes) {}
    void Send(const std::shared_ptr<CpdPacket>& packet) override {
      recording_.Note(*packet, Way::kToModule);
      changes_.Precede(*packet, driver_);
      DriverChannel::Send(packet);
    }

   private:
    CpdDriver& driver_;
    Recording& recording_;
    ChangeWatch& changes_;
  };

  // Each member uses the ones above it, so the last is destroyed first.
  Recording recording_;
  Session session_;
  std::promise<void> announced_;
  bool is_announced_ = false;  // used by the thread that announces
  TraceFile trace_;
  ChangeWatch changes_;
  ServedDisk disk_;
  RecordedChannel channel_;
};

}  // namespace cpd::host
