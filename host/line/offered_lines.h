#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "line/handover.h"
#include "line/line_source.h"
#include "line/stream.h"

namespace cpd::host {

/// The lines of a process that holds a mount: the one that it was started with, then those that
/// newer processes for the same mount point hand over.
class OfferedLines : public LineSource {
 public:
  /// @param first    the first line, with the hello that was read from it
  /// @param hello    that hello
  /// @param listener must outlive this
  OfferedLines(Line first, const Hello& hello, HandoverListener& listener);
  ~OfferedLines() override { Stop(); }

  /// Begins to take offers. Both functions are called on a thread of this object.
  /// @param on_newer  called when the session has another line although the present one seems to
  ///                  be up
  /// @param on_leave  called when the session has ended, or the mount point goes to another one
  void Listen(std::function<void()> on_newer, std::function<void()> on_leave);

  Line Next() override;
  std::string Finish() override;
  void Stop() override;

 private:
  /// A line, and what tells the newer process that it has ended; none for the first line.
  struct Offered {
    Line line;
    Descriptor connection;
  };

  void Accept();
  void Handle(OfferedLine offer);

  const Id128 session_;
  HandoverListener& listener_;
  Descriptor stop_;
  std::function<void()> on_newer_;
  std::function<void()> on_leave_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<Offered> next_;     // guarded by mutex_, like all that follows
  std::optional<Descriptor> used_;  // of the line that Next gave and Finish has not taken back
  bool is_stopped_ = false;
  std::thread thread_;
};

/// Reads a hello, and nothing after it.
/// @throws StreamError when there is none within the limit
std::string ReadHello(int fd, std::chrono::milliseconds limit);

}  // namespace cpd::host
