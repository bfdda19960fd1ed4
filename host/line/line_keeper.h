// Keeps a line up: says hello on every line that its source gives, and asks for another when one
// drops.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "line/connection.h"
#include "line/line_source.h"
#include "line/stream.h"

namespace cpd::host {

/// This side failed, and has told the other side why.
class ToldError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// What one side does with its lines, one after the other.
class LineUser {
 public:
  virtual ~LineUser() = default;

  [[nodiscard]] virtual Hello OwnHello() const = 0;
  /// Starts a connection.
  /// @param ended  to be called from the connection's own `ended`
  /// @throws std::exception when the line is of no use, in words for both users
  virtual void Begin(Connection& connection, const Hello& theirs,
                     std::function<void(const Ending& ending)> ended) = 0;
  /// The connection has ended, or is about to be closed. Also called when Begin has thrown.
  virtual void End(Connection& connection) = 0;
};

/// What the line is doing, for the status line.
struct LineState {
  bool is_up = false;
  std::chrono::nanoseconds round_trip{};  ///< the last one measured; zero before the first
  unsigned drops = 0;
};

class LineKeeper {
 public:
  /// @param first_limit  for the other side's first hello
  /// @param reconnects   whether a line that dropped is replaced
  /// @param source, user must outlive the keeper
  LineKeeper(LineSource& source, LineUser& user, std::chrono::seconds first_limit, bool reconnects);
  /// Finishes.
  ~LineKeeper();
  LineKeeper(const LineKeeper&) = delete;
  LineKeeper& operator=(const LineKeeper&) = delete;

  /// Sets up the first line.
  /// @throws StreamError when the other side refuses, fails or cannot be reached
  /// @throws std::exception when this side cannot begin, in words for the user: ToldError when the
  ///         other side could be told
  void Connect();
  /// From now on keeps a line up. To be called once, after Connect.
  /// @param on_end  called once, on a thread of the keeper, when there will be no other line; not
  ///                after Finish has returned
  void Keep(std::function<void(const Ending& ending)> on_end);
  /// Says goodbye to the other side and lets go of the line. Takes five seconds at most, unless the
  /// module is still carrying out a request, or the process that starts lines is stuck.
  void Finish(Farewell farewell, const std::string& text);

  /// Gives the present line up as dropped: the source has a newer one. Callable from any thread.
  void GiveUpLine();

  [[nodiscard]] LineState state() const;

 private:
  void SetUp(std::chrono::milliseconds greeting_limit);
  std::string Drop();
  void KeepUp();
  bool IsWorthAnotherLine(const Ending& ending);
  std::optional<Ending> AwaitEnd();
  bool SetUpAnew();

  LineSource& source_;
  LineUser& user_;
  const std::chrono::seconds first_limit_;
  const bool reconnects_;
  std::function<void(const Ending&)> on_end_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::shared_ptr<Connection> connection_;  // guarded by mutex_, like all that follows
  std::optional<Ending> ending_;            // of connection_
  bool is_up_ = false;
  bool is_finished_ = false;
  unsigned drops_ = 0;
  std::chrono::nanoseconds round_trip_{};  // of the line before
  // The thread that sets lines up uses these.
  bool was_useful_ = false;            // the line before
  std::chrono::milliseconds pause_{};  // before the next line
  unsigned nonsense_ = 0;              // lines that ended with it, from the last useful one on
  std::thread keeper_;
};

}  // namespace cpd::host
