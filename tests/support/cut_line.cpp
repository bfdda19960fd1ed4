// A bad line: passes bytes between its standard input and output and a command's, and spoils them
// as its options and a test say.
//
//   cut_line [--delay MS] [--cut-every MS --seed N] [--control FILE] -- COMMAND...
//
// --delay      each byte arrives that much later
// --cut-every  cuts after a random time, of that length on average
// --control    does what the first word in the file says: at once, or if a number follows the word,
//              when the next packet with this code is on its way to the command. Appends the word
//              to FILE.done, as a line, and empties the file, except for `down`.
//
// The words:
// - cut: kills the command and closes both directions
// - mute: nothing more reaches the command, from the packet on; cuts a moment later
// - deaf: nothing more comes from the command, which still gets the packet; cuts a moment later
// - stall: everything vanishes, both ways, and nothing closes
// - garble: inverts a byte of what comes from the command
// - down: cuts, and so does every new line at once, until the file is emptied
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <utility>

#include "cpd/packet.h"

namespace {

using cpd::CPD_PACKET_MAGIC;
using cpd::CpdPacketHeader;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono_literals::operator""ms;

constexpr auto kMoment = 200ms;
constexpr size_t kHelloSize = 72;

struct Options {
  milliseconds delay{};
  milliseconds cut_every{};
  unsigned seed = 1;
  std::string control;
  char** command = nullptr;
};

[[noreturn]] void Refuse(const char* why) {
  fprintf(stderr, "cut_line: %s\n", why);
  exit(64);
}

Options Parse(char** argument) {
  Options options;
  const std::map<std::string, std::function<void(const std::string&)>> setters{
      {"--delay", [&](const auto& value) { options.delay = milliseconds(std::stoul(value)); }},
      {"--cut-every",
       [&](const auto& value) { options.cut_every = milliseconds(std::stoul(value)); }},
      {"--seed", [&](const auto& value) { options.seed = std::stoul(value); }},
      {"--control", [&](const auto& value) { options.control = value; }},
  };
  for (++argument; *argument != nullptr && strcmp(*argument, "--") != 0; argument += 2) {
    const auto setter = setters.find(*argument);
    if (setter == setters.end() || argument[1] == nullptr) Refuse("bad option");
    setter->second(argument[1]);
  }
  if (*argument == nullptr || argument[1] == nullptr) Refuse("no command");
  options.command = argument + 1;
  return options;
}

/// What the test asks for.
struct Order {
  std::string word;
  int request = 0;  ///< code; 0 = at once
};

/// Finds packets among the bytes that go to the command: requests, or replies if it mounts the
/// disk.
class Requests {
 public:
  /// @return where in the next bytes a header with this code ends; empty if there is none
  std::optional<size_t> Find(const std::string& bytes, int code) {
    std::optional<size_t> found;
    for (size_t at = 0; at < bytes.size();) {
      if (skip_ > 0) {
        const size_t step = std::min(skip_, bytes.size() - at);
        skip_ -= step;
        at += step;
        continue;
      }
      head_ += bytes[at++];
      if (head_.size() < sizeof(CpdPacketHeader)) continue;
      CpdPacketHeader header{};
      memcpy(&header, head_.data(), sizeof header);
      head_.clear();
      if (header.magic == CPD_PACKET_MAGIC) {
        skip_ = header.packetLen - sizeof header;
        if (header.cmd == code && !found) found = at;
      } else {
        skip_ = uint16_t{header.cmd};  // a control frame has its text's length there
      }
    }
    return found;
  }

 private:
  size_t skip_ = kHelloSize;
  std::string head_;
};

/// One direction.
struct Way {
  struct Piece {
    Clock::time_point due;
    std::string bytes;
  };
  int from = -1;
  int to = -1;
  std::deque<Piece> pieces = {};
  bool is_over = false;  ///< nothing more comes

  [[nodiscard]] bool IsDue(Clock::time_point now) const {
    return !pieces.empty() && pieces.front().due <= now;
  }
  [[nodiscard]] bool HasRoom() const { return !is_over && pieces.size() < 1024; }

  /// @return what has come; empty at the end
  std::string Read() {
    std::string bytes(65536, '\0');
    const ssize_t n = read(from, bytes.data(), bytes.size());
    bytes.resize(static_cast<size_t>(std::max<ssize_t>(n, 0)));
    is_over = bytes.empty();
    return bytes;
  }
  /// Passes on what is due. @return false when nobody takes it
  bool Write() {
    auto& bytes = pieces.front().bytes;
    const ssize_t n = write(to, bytes.data(), bytes.size());
    if (n < 0) return errno == EAGAIN;
    bytes.erase(0, static_cast<size_t>(n));
    if (bytes.empty()) pieces.pop_front();
    return true;
  }
};

class Line {
 public:
  explicit Line(Options options) : options_(std::move(options)) {
    if (options_.cut_every == 0ms) return;
    std::mt19937 random(options_.seed + static_cast<unsigned>(getpid()));
    cut_at_ = Clock::now() + milliseconds(random() % (2 * options_.cut_every.count() + 1));
  }

  int Run() {
    if (ReadOrder().word == "down") return 0;
    Start();
    for (;;) {
      const auto now = Clock::now();
      const auto order = ReadOrder();
      if (order.request == 0) Carry(order);
      if (cut_at_ && now >= *cut_at_) Cut();
      if (out_.is_over && out_.pieces.empty()) return Finish();
      if (in_.is_over && in_.pieces.empty() && in_.to >= 0) close(std::exchange(in_.to, -1));
      std::array<pollfd, 4> events{{
          {.fd = in_.HasRoom() ? in_.from : -1, .events = POLLIN, .revents = 0},
          {.fd = out_.HasRoom() ? out_.from : -1, .events = POLLIN, .revents = 0},
          {.fd = in_.IsDue(now) ? in_.to : -1, .events = POLLOUT, .revents = 0},
          {.fd = out_.IsDue(now) ? out_.to : -1, .events = POLLOUT, .revents = 0},
      }};
      poll(events.data(), events.size(), Timeout(now));
      if (events[0].revents != 0) ReadRequests(ReadOrder());
      if (events[1].revents != 0) ReadReplies();
      if (events[2].revents != 0 && !in_.Write()) Deafen(in_);
      if (events[3].revents != 0 && !out_.Write()) return Finish();
    }
  }

 private:
  void Start() {
    std::array<int, 2> to{};
    std::array<int, 2> from{};
    if (pipe2(to.data(), O_CLOEXEC) != 0 || pipe2(from.data(), O_CLOEXEC) != 0) exit(71);
    child_ = fork();
    if (child_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      dup2(to[0], STDIN_FILENO);
      dup2(from[1], STDOUT_FILENO);
      signal(SIGPIPE, SIG_DFL);
      execvp(options_.command[0], options_.command);
      _exit(127);
    }
    close(to[0]);
    close(from[1]);
    in_ = {.from = STDIN_FILENO, .to = to[1]};
    out_ = {.from = from[0], .to = STDOUT_FILENO};
    for (const int fd : {in_.to, out_.to}) fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
  }

  [[nodiscard]] Order ReadOrder() const {
    Order order;
    if (!options_.control.empty()) std::ifstream(options_.control) >> order.word >> order.request;
    return order;
  }

  /// Carries out an order whose time has come.
  void Carry(const Order& order) {
    const auto& [word, request] = order;
    if (word.empty()) return;
    std::ofstream(options_.control + ".done", std::ios::app) << word << '\n';
    if (word != "down") std::ofstream(options_.control, std::ios::trunc).flush();
    if (word == "cut" || word == "down") Cut();
    if (word == "stall") Stall();
    if (word == "garble") is_garbling_ = true;
    if (word == "mute" || word == "deaf") {
      (word == "mute" ? is_mute_ : is_deaf_) = true;
      cut_at_ = Clock::now() + kMoment;
    }
  }

  void ReadRequests(const Order& order) {
    auto bytes = in_.Read();
    const auto header_end = requests_.Find(bytes, order.request);
    if (is_mute_) return;
    if (header_end && order.request != 0) {
      Carry(order);
      if (is_mute_) bytes.resize(*header_end - std::min(*header_end, sizeof(CpdPacketHeader)));
    }
    if (!bytes.empty()) in_.pieces.push_back({Clock::now() + options_.delay, std::move(bytes)});
  }

  void ReadReplies() {
    auto bytes = out_.Read();
    if (is_deaf_ || bytes.empty()) return;
    if (std::exchange(is_garbling_, false)) bytes[0] = static_cast<char>(~bytes[0]);
    out_.pieces.push_back({Clock::now() + options_.delay, std::move(bytes)});
  }

  /// Ends a direction whose other end is closed, and drops what is under way in it.
  static void Deafen(Way& way) {
    way.pieces.clear();
    way.is_over = true;
  }

  [[noreturn]] void Stall() const {
    // Reads and drops what is sent, like a network that loses it. Ends when nobody is left to send.
    std::array<char, 65536> bytes{};
    while (read(in_.from, bytes.data(), bytes.size()) > 0) {
    }
    Cut();
  }

  [[noreturn]] void Cut() const {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
    _exit(0);
  }

  int Finish() {
    if (in_.to >= 0) close(in_.to);
    close(STDOUT_FILENO);
    int status = 0;
    waitpid(child_, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }

  [[nodiscard]] int Timeout(Clock::time_point now) const {
    // Orders are looked for this often while nothing comes.
    auto next = now + (options_.control.empty() ? 1000ms : 20ms);
    if (cut_at_) next = std::min(next, *cut_at_);
    for (const auto* way : {&in_, &out_}) {
      if (!way->pieces.empty() && way->pieces.front().due > now) {
        next = std::min(next, way->pieces.front().due);
      }
    }
    return static_cast<int>(std::max(std::chrono::ceil<milliseconds>(next - now), 0ms).count());
  }

  Options options_;
  std::optional<Clock::time_point> cut_at_;
  pid_t child_ = -1;
  Way in_;
  Way out_;
  Requests requests_;
  bool is_mute_ = false;
  bool is_deaf_ = false;
  bool is_garbling_ = false;
};

}  // namespace

int main(int /*argc*/, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  return Line(Parse(argv)).Run();
}
