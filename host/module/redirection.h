// One redirected disk: the module, its driver, and the session with it, from start to close.
#pragma once

#include <memory>

#include "module/host_device.h"
#include "module/module.h"
#include "module/trace_file.h"
#include "options.h"
#include "remote/periodic.h"
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

 private:
  void AnnounceBandwidth(uint32_t kbps);
  void AnswerAnnouncement(const DiskOptions& options);

  // Each member uses the ones above it, so the last is destroyed first.
  TraceFile trace_;
  Session session_;
  HostDevice device_;
  Module module_;
  Driver driver_;
  std::unique_ptr<Periodic> bandwidth_;
};

}  // namespace cpd::host
