#pragma once

#include "line/line_source.h"

namespace cpd::host {

/// The line that this process was started with: its standard input and output.
class StandardLine : public LineSource {
 public:
  /// Takes both away from the rest of the process: what is printed goes to standard error from now
  /// on, so that it cannot get into the stream.
  /// @throws std::runtime_error when standard input is a terminal
  StandardLine();

  Line Next() override;
  std::string Finish() override { return {}; }
  void Stop() override {}

 private:
  Line line_;
};

}  // namespace cpd::host
