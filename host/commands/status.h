// Prints a session's statistics.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "line/line_keeper.h"
#include "remote/periodic.h"
#include "remote/statistics.h"

namespace cpd::host {

/// A status line that is rewritten every second; nothing if standard error is not a terminal.
class StatusLine {
 public:
  /// @param traffic  gives what has been sent and received so far
  /// @param announced_kbps  0 = no limit
  /// @param line     gives the state of the line; empty = the disk and the mount are in this
  ///                 process. Both functions are called on a thread of the status line.
  StatusLine(std::function<Traffic()> traffic, uint32_t announced_kbps,
             std::function<LineState()> line = nullptr);
  /// Erases the line.
  ~StatusLine();
  StatusLine(const StatusLine&) = delete;
  StatusLine& operator=(const StatusLine&) = delete;

 private:
  using Clock = std::chrono::steady_clock;

  void Print();

  const std::function<Traffic()> traffic_;
  const uint32_t announced_kbps_;
  const std::function<LineState()> line_;
  Clock::time_point last_time_ = Clock::now();
  Traffic last_;
  std::unique_ptr<Periodic> print_;
};

/// Prints one row per command to standard output.
void PrintTable(const Statistics& statistics);
/// Prints one row per count that is not 0 to standard output.
void PrintSavings(const Savings& savings);
/// Prints the line's drops and round trip to standard output.
void PrintLine(const LineState& line);

}  // namespace cpd::host
