// Prints a session's statistics.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "line/line_keeper.h"
#include "remote/periodic.h"
#include "remote/session.h"

namespace cpd::host {

/// A status line that is rewritten every second; nothing if standard error is not a terminal.
class StatusLine {
 public:
  /// @param line  gives the state of the line to the disk; empty = the disk is in this process
  StatusLine(const Session& session, uint32_t announced_kbps,
             std::function<LineState()> line = nullptr);
  /// Erases the line.
  ~StatusLine();
  StatusLine(const StatusLine&) = delete;
  StatusLine& operator=(const StatusLine&) = delete;

 private:
  struct Totals {
    uint64_t requests = 0;
    uint64_t bytes = 0;
    uint64_t read_bytes = 0;
  };

  void Print();

  const Session& session_;
  const uint32_t announced_kbps_;
  const std::function<LineState()> line_;
  Session::Clock::time_point last_time_ = Session::Clock::now();
  Totals last_;
  std::unique_ptr<Periodic> print_;
};

/// Prints one row per command to standard output.
void PrintTable(const Statistics& statistics);
/// Prints one row per count that is not 0 to standard output.
void PrintSavings(const Savings& savings);
/// Prints the line's drops and round trip to standard output.
void PrintLine(const LineState& line);

}  // namespace cpd::host
