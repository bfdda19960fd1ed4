#include "line/line_keeper.h"

#include <fmt/format.h>

#include <algorithm>
#include <exception>
#include <stdexcept>
#include <utility>

#include "cpd/log.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr auto kLaterLimit = 30s;
constexpr std::chrono::milliseconds kFirstPause = 500ms;
constexpr std::chrono::milliseconds kLongestPause = 10s;
constexpr unsigned kMostNonsense = 4;

void Log(std::string what, const std::string& why) {
  if (!why.empty()) what += "; " + why;
  tesselLogPrint(0, 7, "CPD_HOST", "%s", what.c_str());
}

}  // namespace

LineKeeper::LineKeeper(LineSource& source, LineUser& user, std::chrono::seconds first_limit,
                       bool reconnects)
    : source_(source), user_(user), first_limit_(first_limit), reconnects_(reconnects) {}

LineKeeper::~LineKeeper() { Finish(Farewell::kDone, ""); }

void LineKeeper::Connect() {
  try {
    SetUp(first_limit_);
  } catch (const LineClosed&) {
    const auto why = Drop();
    if (why.empty()) throw;
    throw StreamError(why);
  } catch (...) {
    Drop();
    throw;
  }
}

void LineKeeper::Keep(std::function<void(const Ending&)> on_end) {
  on_end_ = std::move(on_end);
  keeper_ = std::thread([this] { KeepUp(); });
}

void LineKeeper::Finish(Farewell farewell, const std::string& text) {
  {
    const std::lock_guard lock(mutex_);
    is_finished_ = true;
    if (connection_ != nullptr) connection_->SayGoodbye(farewell, text);
  }
  changed_.notify_all();
  source_.Stop();
  if (keeper_.joinable()) keeper_.join();
  Drop();
}

void LineKeeper::GiveUpLine() {
  const std::lock_guard lock(mutex_);
  if (connection_ != nullptr) connection_->GiveUp("a newer line takes its place");
}

LineState LineKeeper::state() const {
  const std::lock_guard lock(mutex_);
  return {.is_up = is_up_,
          .round_trip = is_up_ ? connection_->round_trip() : round_trip_,
          .drops = drops_};
}

void LineKeeper::SetUp(std::chrono::milliseconds greeting_limit) {
  auto line = source_.Next();
  const auto connection = std::make_shared<Connection>(std::move(line), user_.OwnHello());
  {
    const std::lock_guard lock(mutex_);
    connection_ = connection;
    ending_.reset();
    if (is_finished_) throw std::runtime_error("stopped");
  }
  if (nonsense_ + 1 == kMostNonsense) connection->EndSessionOnNonsense();
  const auto theirs = connection->AwaitHello(greeting_limit);
  try {
    if (theirs.role == user_.OwnHello().role) throw StreamError("both sides have the same role");
    user_.Begin(*connection, theirs, [this](const Ending& ending) {
      {
        const std::lock_guard lock(mutex_);
        ending_ = ending;
        is_up_ = false;
      }
      changed_.notify_all();
    });
  } catch (const std::exception& error) {
    connection->SayGoodbye(Farewell::kFailed, error.what());
    const std::lock_guard lock(mutex_);
    // If Begin failed because the other side said goodbye, the reason given there explains more.
    if (ending_ && ending_->kind == Ending::Kind::kFarewell) throw EndedError(*ending_);
    if (dynamic_cast<const StreamError*>(&error) != nullptr) throw;
    throw ToldError(error.what());
  }
  const std::lock_guard lock(mutex_);
  is_up_ = !ending_;
}

/// Lets go of the line, if there is one. @return why it ended, as far as its source knows
std::string LineKeeper::Drop() {
  std::shared_ptr<Connection> connection;
  {
    const std::lock_guard lock(mutex_);
    connection = std::exchange(connection_, nullptr);
    if (connection != nullptr && connection->round_trip() != 0ns) {
      round_trip_ = connection->round_trip();
    }
    was_useful_ = connection != nullptr && connection->was_useful();
    is_up_ = false;
  }
  if (connection == nullptr) return {};
  user_.End(*connection);
  connection->Close();
  return source_.Finish();
}

// ---- The keeper's thread ----

void LineKeeper::KeepUp() {
  while (auto ending = AwaitEnd()) {
    const auto why = Drop();
    if (ending->kind == Ending::Kind::kDropped && !reconnects_ && !why.empty()) ending->text = why;
    if (!reconnects_ || !IsWorthAnotherLine(*ending)) return on_end_(*ending);
    Log(fmt::format("the line dropped: {}", ending->text), why);
    if (!SetUpAnew()) return;
  }
}

/// A line that spoils what it carries may be followed by a good one, but a side that breaks the
/// rules does so on every line.
bool LineKeeper::IsWorthAnotherLine(const Ending& ending) {
  if (was_useful_) {
    pause_ = 0ms;
    nonsense_ = 0;
  }
  if (ending.kind == Ending::Kind::kDropped) return true;
  pause_ = std::max(pause_, kFirstPause);
  return ending.kind == Ending::Kind::kNonsense && ++nonsense_ < kMostNonsense;
}

/// Waits for the end of the line. @return empty when Finish was called
std::optional<Ending> LineKeeper::AwaitEnd() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return is_finished_ || ending_; });
  return is_finished_ ? std::nullopt : ending_;
}

/// Tries until there is a line. @return false when Finish was called, or the other side has ended
/// the session
bool LineKeeper::SetUpAnew() {
  {
    const std::lock_guard lock(mutex_);
    ++drops_;
  }
  for (;;) {
    {
      std::unique_lock lock(mutex_);
      if (changed_.wait_for(lock, pause_, [this] { return is_finished_; })) return false;
    }
    pause_ = std::clamp(pause_ * 2, kFirstPause, kLongestPause);
    try {
      SetUp(kLaterLimit);
      return true;
    } catch (const EndedError& error) {
      Drop();
      if (error.ending().farewell == Farewell::kDone) {
        on_end_(error.ending());
        return false;
      }
      Log(fmt::format("no line yet: {}", error.what()), "");
    } catch (const std::exception& error) {
      const auto why = Drop();
      Log(fmt::format("no line yet: {}", error.what()), why);
    }
  }
}

}  // namespace cpd::host
