// What the user sees of a session's statistics.
#pragma once

#include <cstdint>
#include <memory>

#include "remote/periodic.h"
#include "remote/session.h"

namespace cpd::host {

/// A line on the terminal that is renewed every second; where standard error is none, nothing.
class StatusLine {
 public:
  StatusLine(const Session& session, uint32_t announced_kbps);
  /// Takes the line off the terminal.
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
  Session::Clock::time_point last_time_ = Session::Clock::now();
  Totals last_;
  std::unique_ptr<Periodic> print_;
};

/// Prints one row a command to standard output.
void PrintTable(const Statistics& statistics);

}  // namespace cpd::host
