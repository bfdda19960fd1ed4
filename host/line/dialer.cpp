#include "line/dialer.h"

#include <fmt/format.h>

#include <chrono>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

/// What a shell and ssh say with their exit status.
std::string Explain(int status) {
  constexpr int kNotFound = 127;
  constexpr int kNotExecutable = 126;
  constexpr int kSshFailed = 255;
  switch (status) {
    case 0:
      return {};
    case kNotFound:
      return "the line's command was not found: if that is cpd-host on the other machine, install it "
             "there, or give its path with --remote-program";
    case kNotExecutable:
      return "the line's command cannot be executed: if that is cpd-host on the other machine, check "
             "its permissions there";
    case kSshFailed:
      return "no connection, for the reason that ssh gives above: check that ssh alone gets there";
    default:
      return fmt::format("the line's command ended with status {}", status);
  }
}

}  // namespace

Line Dialer::Next() {
  const std::lock_guard lock(mutex_);
  if (is_stopped_) throw std::runtime_error("stopped");
  line_.emplace(starter_.Start());
  return {.in = std::move(line_->in), .out = std::move(line_->out), .received = {}};
}

/// A command whose line has closed ends by itself; one that does not is told to.
std::string Dialer::Finish() {
  std::optional<StartedLine> line;
  {
    const std::lock_guard lock(mutex_);
    line = std::exchange(line_, std::nullopt);
  }
  if (!line) return {};
  if (const auto status = line->Ended(1s)) return Explain(*status);
  starter_.End(*line);
  line->Ended(2s);
  return {};
}

void Dialer::Stop() {
  const std::lock_guard lock(mutex_);
  is_stopped_ = true;
}

void Dialer::SayGoodbyeOnDeath(Hello own) {
  own.is_ended = 1;
  starter_.SayOnDeath({reinterpret_cast<const char*>(&own), sizeof own});
}

}  // namespace cpd::host
