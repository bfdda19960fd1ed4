// udisk_delayed_line ROUND_TRIP_MS MBIT_PER_S PROGRAM [ARGUMENT...]
//
// Runs a program, and carries bytes between it and this process's own standard input and output,
// like a long line: each direction delays every byte by half the round trip, and passes at most
// MBIT_PER_S megabits per second (0: no limit). Ends with the program's exit code, or with 1 if a
// signal ended it.
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <optional>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr size_t kPiece = 64 << 10;
constexpr size_t kBuffered = 4 << 20;  // besides what is on the way, like the windows of TCP

/// What one direction carries.
class Direction {
 public:
  Direction(int from, int to, double delay, double bytes_per_second)
      : from_(from), to_(to), delay_(delay), rate_(bytes_per_second) {
    fcntl(to, F_SETFL, fcntl(to, F_GETFL) | O_NONBLOCK);
  }

  [[nodiscard]] bool IsOver() const { return to_ < 0; }
  /// When the next piece arrives; empty if none is on the way.
  [[nodiscard]] std::optional<Clock::time_point> NextArrival() const {
    if (pieces_.empty()) return std::nullopt;
    return pieces_.front().due;
  }
  /// What to wait for: room for a piece that has arrived, and input while there is room for it.
  [[nodiscard]] std::array<pollfd, 2> Awaited(Clock::time_point now) const {
    const bool takes = carried_ < kBuffered + static_cast<size_t>(2 * rate_ * delay_.count());
    const bool gives = !pieces_.empty() && pieces_.front().due <= now;
    return {pollfd{takes ? from_ : -1, POLLIN, 0}, pollfd{gives ? to_ : -1, POLLOUT, 0}};
  }

  void Take(Clock::time_point now) {
    std::string bytes(kPiece, '\0');
    const ssize_t count = read(from_, bytes.data(), bytes.size());
    if (count < 0) return;
    if (count == 0) {
      close(from_);
      from_ = -1;
      return EndIfDone();
    }
    bytes.resize(static_cast<size_t>(count));
    free_ = std::max(free_, now);
    if (rate_ > 0) free_ += std::chrono::duration_cast<Clock::duration>(Seconds(count / rate_));
    carried_ += bytes.size();
    pieces_.push_back({free_ + std::chrono::duration_cast<Clock::duration>(delay_), bytes});
  }

  void Give() {
    auto& bytes = pieces_.front().bytes;
    const ssize_t count = write(to_, bytes.data(), bytes.size());
    if (count < 0 && errno == EAGAIN) return;
    if (count < 0) return End();
    carried_ -= static_cast<size_t>(count);
    bytes.erase(0, static_cast<size_t>(count));
    if (bytes.empty()) pieces_.pop_front();
    EndIfDone();
  }

 private:
  struct Piece {
    Clock::time_point due;
    std::string bytes;
  };

  void EndIfDone() {
    if (from_ < 0 && pieces_.empty()) End();
  }
  void End() {
    close(to_);
    to_ = from_ = -1;
    pieces_.clear();
  }

  int from_;
  int to_;
  const Seconds delay_;       // of this direction alone
  const double rate_;         // in bytes per second; 0: no limit
  Clock::time_point free_{};  // when the line has sent everything so far
  std::deque<Piece> pieces_;
  size_t carried_ = 0;  // bytes
};

void Carry(Direction& there, Direction& back) {
  while (!back.IsOver()) {
    auto now = Clock::now();
    std::array<pollfd, 4> awaited{};
    Clock::duration pause = std::chrono::seconds(1);
    Direction* const directions[] = {&there, &back};
    for (size_t i = 0; i < 2; ++i) {
      const auto two = directions[i]->Awaited(now);
      std::copy(two.begin(), two.end(), awaited.begin() + 2 * i);
      const auto next = directions[i]->NextArrival();
      if (next && *next > now) pause = std::min(pause, *next - now);
    }
    const timespec timeout{.tv_sec = pause / std::chrono::seconds(1),
                           .tv_nsec = (pause % std::chrono::seconds(1)).count()};
    if (ppoll(awaited.data(), awaited.size(), &timeout, nullptr) <= 0) continue;
    now = Clock::now();
    for (size_t i = 0; i < 2; ++i) {
      if (awaited[2 * i + 1].revents != 0) directions[i]->Give();
      if (awaited[2 * i].revents != 0 && !directions[i]->IsOver()) directions[i]->Take(now);
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    (void)std::fprintf(stderr, "usage: %s ROUND_TRIP_MS MBIT_PER_S PROGRAM [ARGUMENT...]\n",
                       argv[0]);
    return 2;
  }
  const double delay = std::atof(argv[1]) / 1e3 / 2;
  const double bytes_per_second = std::atof(argv[2]) * 1e6 / 8;
  int input[2];
  int output[2];
  if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) return 1;
  const pid_t child = fork();
  if (child < 0) return 1;
  if (child == 0) {
    dup2(input[0], STDIN_FILENO);
    dup2(output[1], STDOUT_FILENO);
    execvp(argv[3], argv + 3);
    std::perror(argv[3]);
    _exit(127);
  }
  close(input[0]);
  close(output[1]);
  (void)std::signal(SIGPIPE, SIG_IGN);
  prctl(PR_SET_TIMERSLACK, 1000UL);  // nanoseconds
  Direction there(STDIN_FILENO, input[1], delay, bytes_per_second);
  Direction back(output[0], STDOUT_FILENO, delay, bytes_per_second);
  Carry(there, back);
  kill(child, SIGTERM);
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}
