#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "line/line_source.h"
#include "line/starter.h"
#include "line/stream.h"

namespace cpd::host {

/// Sets up each line with a shell command.
class Dialer : public LineSource {
 public:
  /// To be made before any other thread.
  /// @param mount_point  for the starter
  explicit Dialer(const std::string& command, const std::string& mount_point = "")
      : starter_(command, mount_point) {}

  Line Next() override;
  std::string Finish() override;
  void Stop() override;

  /// The process that runs the command.
  Starter& starter() { return starter_; }
  /// If this process is killed, lets the other side be told that the session has ended.
  /// @param own  this side's hello
  void SayGoodbyeOnDeath(Hello own);

 private:
  Starter starter_;
  std::mutex mutex_;
  bool is_stopped_ = false;          // guarded by mutex_
  std::optional<StartedLine> line_;  // guarded by mutex_
};

}  // namespace cpd::host
