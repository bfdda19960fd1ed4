#include "commands/status.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <utility>

#include "module/standard_error.h"
#include "wire.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

double Microseconds(std::chrono::nanoseconds duration) {
  return std::chrono::duration<double, std::micro>(duration).count();
}

std::string DropsAndRoundTrip(const LineState& line) {
  return fmt::format("{} {}, round trip {:.2f} ms", line.drops, line.drops == 1 ? "drop" : "drops",
                     Microseconds(line.round_trip) / 1e3);
}

}  // namespace

StatusLine::StatusLine(std::function<Traffic()> traffic, uint32_t announced_kbps,
                       std::function<LineState()> line)
    : traffic_(std::move(traffic)), announced_kbps_(announced_kbps), line_(std::move(line)) {
  if (isatty(STDERR_FILENO) != 0) print_ = std::make_unique<Periodic>(1s, [this] { Print(); });
}

StatusLine::~StatusLine() {
  if (print_ == nullptr) return;
  print_.reset();
  PrintError("\r\x1b[K");
}

void StatusLine::Print() {
  const auto now = traffic_();
  const auto time = Clock::now();
  const std::chrono::duration<double> elapsed = time - std::exchange(last_time_, time);
  const auto rate = [&](uint64_t Traffic::*counter) {
    return elapsed.count() > 0
               ? static_cast<double>(now.*counter - last_.*counter) / elapsed.count()
               : 0.0;
  };
  std::string line;
  if (line_ != nullptr) {
    const auto state = line_();
    line = fmt::format("line {}, {}  ", state.is_up ? "up" : "down", DropsAndRoundTrip(state));
  }
  const std::string announced =
      announced_kbps_ == 0 ? "no limit" : fmt::format("{} kbps", announced_kbps_);
  PrintError(
      fmt::format("\r\x1b[K{}{:.0f} requests/s  {:.1f} MB/s  read {:.0f} kbps (announced: {})",
                  line, rate(&Traffic::requests), rate(&Traffic::bytes) / 1e6,
                  rate(&Traffic::read_bytes) * 8 / 1e3, announced));
  last_ = now;
}

void PrintTable(const Statistics& statistics) {
  fmt::print("{:<20}{:>10}{:>10}{:>14}{:>14}{:>16}\n", "command", "requests", "replies",
             "median us", "99th % us", "bytes");
  for (const auto& [command, counters] : statistics) {
    const char* const name = CommandName(command);
    fmt::print("{:<4}{:<16}{:>10}{:>10}{:>14.1f}{:>14.1f}{:>16}\n", command, name ? name : "",
               counters.requests, counters.replies, Microseconds(counters.durations.Quantile(0.5)),
               Microseconds(counters.durations.Quantile(0.99)), counters.bytes);
  }
}

void PrintSavings(const Savings& savings) {
  for (const auto& [count, name] : Savings::kNames) {
    if (const uint64_t value = savings.*count; value != 0)
      fmt::print("{:<30}{:>10}\n", name, value);
  }
}

void PrintLine(const LineState& line) { fmt::print("line: {}\n", DropsAndRoundTrip(line)); }

}  // namespace cpd::host
