#include "line/starter.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <new>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "line/passed_message.h"
#include "line/pidfd.h"
#include "line/signals_blocked.h"
#include "module/standard_error.h"

namespace cpd::host {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// From SIGTERM to SIGKILL, and from there until a process is left alone.
constexpr auto kGrace = 1s;
/// For the command that delivers the last words.
constexpr auto kLastWordsLimit = 10s;
/// How many commands may run at the same time. One is the rule, and two while the older one is
/// still ending. An attacker in the sandboxed process cannot make more run, either.
constexpr size_t kMostCommands = 4;
/// How often a starter that fails by itself is replaced. One that is killed always is.
constexpr int kMostFailures = 3;
/// What a stream holds that its reader has not taken, in bytes.
constexpr int kStreamRoom = 2 << 20;
/// The status of a command whose starter was killed: PR_SET_PDEATHSIG has sent it SIGKILL. After a
/// milder signal the command could say goodbye, and that would end the session.
constexpr int kEndedWithStarter = 128 + SIGKILL;

// ---- The messages to the starter: a request, and a text in kSay only ----

enum class Task : uint32_t { kStart, kEnd, kUnmountNow, kUnmount, kSay, kRelease };

struct Request {
  Task task;
  uint32_t id;  ///< of the command, in kStart and kEnd; of the request itself, in kUnmountNow
};

/// The answer to kStart and kUnmountNow; the other requests get none. If a command was started,
/// three descriptors come with it: of the command's output, of its input, and of its end.
struct Answer {
  uint32_t id;    ///< of the request: a late answer must not be taken for that to the next one
  int32_t error;  ///< an error number; 0 = success
};
constexpr size_t kDescriptorsOfALine = 3;

std::string Packed(Request request, std::string_view text = {}) {
  std::string bytes(sizeof request, '\0');
  std::memcpy(bytes.data(), &request, sizeof request);
  return bytes.append(text);
}

/// Lets a stream hold a whole packet of the usual size, so that a thread that sends one does not
/// wait for the reader several times. Without privilege, the system's limit holds.
void Widen(int socket) {
  const int bytes = kStreamRoom;
  if (setsockopt(socket, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof bytes) != 0) {
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
  }
}

/// Lets a message fail (EAGAIN) when the other end has taken none for this long.
void LimitSending(int socket, milliseconds limit) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(limit);
  const timeval longest{.tv_sec = seconds.count(),
                        .tv_usec = std::chrono::microseconds(limit - seconds).count()};
  setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &longest, sizeof longest);
}

/// waitpid, whatever signals arrive.
int Reap(pid_t process) {
  int status = 0;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  return status;
}

// ---- Trees of processes ----

pid_t ParentOf(pid_t process) {
  std::ifstream file(fmt::format("/proc/{}/stat", process));
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  const size_t name_end = text.rfind(')');  // the name may contain anything
  if (name_end == std::string::npos) return -1;
  pid_t parent = -1;
  char state = 0;
  return std::sscanf(text.c_str() + name_end + 1, " %c %d", &state, &parent) == 2 ? parent : -1;
}

/// Appends the processes below one. They are held by descriptors: a number could come to mean
/// another process. Without /proc/PID/task/TID/children in the kernel, none is found.
void AppendDescendants(pid_t process, std::vector<Descriptor>* found) {
  std::error_code error;
  for (const auto& task : fs::directory_iterator(fmt::format("/proc/{}/task", process), error)) {
    std::ifstream children(task.path() / "children");
    for (pid_t child = 0; children >> child;) {
      Descriptor held(pidfd_open(child, 0));
      // If the number now belonged to another process, that would have another parent.
      if (!held.ok() || ParentOf(child) != process) continue;
      found->push_back(std::move(held));
      AppendDescendants(child, found);
    }
  }
}

// ---- The starter's own process ----

/// On the standard error of the process that uses the line.
void Say(const std::string& text) { PrintError(fmt::format("cpd-starter: {}\n", text)); }

/// Standard input and output become /dev/null, and so does standard error if it is closed. All else
/// is closed: the starter must not keep the mount's device, a pipe or a lock open.
/// @return the socket's new descriptor
Descriptor KeepOnly(Descriptor socket) {
  Descriptor kept(fcntl(socket.get(), F_DUPFD_CLOEXEC, 3));
  // What is opened here is closed one by one. A library that intercepts open and close, such as
  // libumockdev-preload, would not notice close_range, and would take a later descriptor of that
  // number for its own.
  Descriptor opened(open("/dev/null", O_RDWR | O_CLOEXEC));
  Descriptor null(fcntl(opened.get(), F_DUPFD_CLOEXEC, 3));
  opened.Close();
  dup2(null.get(), STDIN_FILENO);
  dup2(null.get(), STDOUT_FILENO);
  // A descriptor that closes on exec is no standard error, but took the place of a closed one.
  const int flags = fcntl(STDERR_FILENO, F_GETFD);
  if (flags < 0 || (flags & FD_CLOEXEC) != 0) dup2(null.get(), STDERR_FILENO);
  null.Close();
  socket.Close();
  const auto number = static_cast<unsigned>(kept.get());
  if (number > 3) close_range(3, number - 1, 0);
  close_range(number + 1, ~0U, 0);
  return kept;
}

/// What to do at the end, in memory that outlives a starter that is killed.
struct Duties {
  std::atomic<bool> unmounts = false;
  std::atomic<uint32_t> unmounted = 0;  ///< the id of the last kUnmountNow that was carried out
  std::atomic<size_t> length = 0;       ///< of the last words
  std::array<char, Starter::kLongestLastWords> last_words{};

  void SetLastWords(std::string_view words) {
    words = words.substr(0, last_words.size());
    length = 0;
    std::ranges::copy(words, last_words.begin());
    length = words.size();
  }
};

class StarterProcess {
 public:
  /// @param ignores_hangup  as under nohup; the command then ignores it, too
  /// @param duties  must outlive this
  StarterProcess(Descriptor socket, std::string command, std::string mount_point,
                 bool ignores_hangup, Duties& duties)
      : socket_(std::move(socket)),
        command_(std::move(command)),
        mount_point_(std::move(mount_point)),
        ignores_hangup_(ignores_hangup),
        duties_(duties) {}

  void Run() {
    while (Step(socket_.get())) {
      auto message = ReceivePassed(socket_.get(), sizeof(Request) + Starter::kLongestLastWords);
      if (!message && errno != EPIPE) Say(fmt::format("cannot be asked: {}", std::strerror(errno)));
      if (!message || message->bytes.size() < sizeof(Request)) break;
      Handle(message->bytes);
    }
    if (duties_.unmounts) Unmount();
    duties_.unmounts = false;
    EndAll();
    if (duties_.length != 0) SayLastWords();
  }

 private:
  struct Command {
    uint32_t id;
    pid_t process;
    Descriptor held;    ///< the process
    Descriptor status;  ///< takes the status when the command has ended
  };
  /// Processes that were sent SIGTERM, then SIGKILL.
  struct Ending {
    std::vector<Descriptor> processes;
    Clock::time_point deadline;
    bool killed = false;
  };
  /// The other ends of a new command's streams, for the process that uses the line.
  struct Ends {
    Descriptor output, input, status;
  };

  /// Waits for what happens next, and takes care of commands that end.
  /// @param socket  -1 = none: returns when a command has ended or a deadline has passed
  /// @return whether there is something to read on the socket
  bool Step(int socket) {
    while (true) {
      std::vector<pollfd> polled{{.fd = socket, .events = POLLIN, .revents = 0}};
      auto deadline = Clock::time_point::max();
      for (const Command& command : commands_) polled.push_back({command.held.get(), POLLIN, 0});
      for (const Ending& ending : endings_) {
        deadline = std::min(deadline, ending.deadline);
        for (const Descriptor& process : ending.processes) {
          polled.push_back({process.get(), POLLIN, 0});
        }
      }
      const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now()).count();
      const bool forever = deadline == Clock::time_point::max();
      poll(polled.data(), polled.size(),
           forever ? -1 : static_cast<int>(std::max<int64_t>(left, 0)));
      TakeEnded();
      if (polled[0].revents != 0) return true;
      if (socket < 0) return false;
    }
  }

  static bool HasEnded(const Descriptor& process) {
    return WaitReadable(process.get(), Clock::now());
  }

  void TakeEnded() {
    std::erase_if(commands_, [](const Command& command) {
      if (!HasEnded(command.held)) return false;
      const int status = Reap(command.process);
      const int shown = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
      (void)!write(command.status.get(), &shown, sizeof shown);  // perhaps nobody asks for it
      return true;
    });
    for (Ending& ending : endings_) {
      std::erase_if(ending.processes, HasEnded);
      if (ending.killed || Clock::now() < ending.deadline) continue;
      Signal(ending.processes, SIGKILL);
      ending.killed = true;
      ending.deadline += kGrace;
    }
    // What SIGKILL does not end in time waits for a device, and is left alone.
    std::erase_if(endings_, [](const Ending& ending) {
      return ending.processes.empty() || Clock::now() >= ending.deadline;
    });
  }

  void Handle(const std::string& bytes) {
    Request request{};
    std::memcpy(&request, bytes.data(), sizeof request);
    switch (request.task) {
      case Task::kStart: {
        Ends ends;
        const int error = Launch(request.id, &ends);
        const std::array descriptors{ends.output.get(), ends.input.get(), ends.status.get()};
        Reply({.id = request.id, .error = error},
              error == 0 ? std::span<const int>(descriptors) : std::span<const int>());
        break;
      }
      case Task::kEnd:
        for (const Command& command : commands_) {
          if (command.id == request.id) End(command);
        }
        break;
      case Task::kUnmountNow:
        // A request comes twice if its answer is late. Unmounting twice would also take down a
        // mount that lies below this one.
        if (duties_.unmounted != request.id) Unmount();
        duties_.unmounted = request.id;
        duties_.unmounts = false;
        Reply({.id = request.id, .error = 0});
        break;
      case Task::kUnmount:
        duties_.unmounts = true;
        break;
      case Task::kSay:
        duties_.SetLastWords(std::string_view(bytes).substr(sizeof request));
        break;
      case Task::kRelease:
        duties_.unmounts = false;
        duties_.length = 0;
        break;
    }
  }

  void Reply(Answer answer, std::span<const int> descriptors = {}) {
    const std::string_view bytes(reinterpret_cast<const char*>(&answer), sizeof answer);
    if (SendPassed(socket_.get(), bytes, descriptors) || errno == EPIPE) return;
    Say(fmt::format("cannot answer: {}", std::strerror(errno)));
  }

  /// @return an error number, 0 if the command runs
  int Launch(uint32_t id, Ends* ends) {
    if (commands_.size() >= kMostCommands) return EAGAIN;
    // Stream sockets move blocks of 1 MiB with half the processor time of pipes of that size. There
    // is one for each direction: the programs of a pipeline would share the flags of a single one,
    // and O_NONBLOCK, set by the first, would surprise the last.
    std::array<int, 2> pair{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) return errno;
    Descriptor output(pair[0]);
    const Descriptor command_output(pair[1]);
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()) != 0) return errno;
    Descriptor input(pair[0]);
    const Descriptor command_input(pair[1]);
    for (const int end : {output.get(), command_output.get(), input.get(), command_input.get()}) {
      Widen(end);
    }
    if (pipe2(pair.data(), O_CLOEXEC) != 0) return errno;
    Descriptor ended(pair[0]);
    Descriptor status(pair[1]);

    const std::array argv{"/bin/sh", "-c", command_.c_str(), static_cast<const char*>(nullptr)};
    const pid_t process = Spawn(argv.data(), command_input.get(), command_output.get());
    if (process < 0) return errno;
    Descriptor held(pidfd_open(process, 0));
    if (!held.ok()) {
      const int error = errno;
      kill(process, SIGKILL);
      Reap(process);
      return error;
    }
    commands_.push_back({id, process, std::move(held), std::move(status)});
    *ends = {std::move(output), std::move(input), std::move(ended)};
    return 0;
  }

  /// Starts a program that ends with this process.
  /// @return its process, -1 with errno
  [[nodiscard]] pid_t Spawn(const char* const* argv, int input, int output) const {
    const pid_t starter = getpid();
    // A signal that arrives before the new process stops ignoring it must not be lost.
    const SignalsBlocked blocked;
    const pid_t process = fork();
    if (process != 0) return process;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != starter) _exit(1);  // it ended before the call
    for (int signal = 1; signal < NSIG; ++signal) (void)std::signal(signal, SIG_DFL);
    // The terminal sends Ctrl-C to ssh as well, which stays in the foreground process group to be
    // able to ask for a password. But the line must last until this side has said goodbye.
    (void)std::signal(SIGINT, SIG_IGN);
    if (ignores_hangup_) (void)std::signal(SIGHUP, SIG_IGN);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    execvp(argv[0], const_cast<char* const*>(argv));
    _exit(127);
  }

  static void Signal(const std::vector<Descriptor>& processes, int signal) {
    for (const Descriptor& process : processes) {
      pidfd_send_signal(process.get(), signal, nullptr, 0);
    }
  }

  /// The shell replaces itself with a simple command, but waits for the programs of a pipeline. To
  /// end those, too, their tree is collected first: once a process has ended, its children cannot
  /// be found. A process group of its own would be simpler, but could not ask for a password on the
  /// terminal.
  void End(const Command& command) {
    Ending ending{.processes = {}, .deadline = Clock::now() + kGrace};
    ending.processes.emplace_back(fcntl(command.held.get(), F_DUPFD_CLOEXEC, 3));
    AppendDescendants(command.process, &ending.processes);
    Signal(ending.processes, SIGTERM);
    endings_.push_back(std::move(ending));
  }

  /// Ends what runs, and waits for it.
  void EndAll() {
    for (const Command& command : commands_) End(command);
    while (!endings_.empty()) Step(-1);
  }

  void Unmount() {
    const int failed = umount2(mount_point_.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW);
    if (failed == 0 || geteuid() == 0) return;
    const std::array argv{
        "fusermount3", "-u", "-z", "--", mount_point_.c_str(), static_cast<const char*>(nullptr)};
    const pid_t process = Spawn(argv.data(), STDIN_FILENO, STDOUT_FILENO);
    if (process > 0) Reap(process);
  }

  void SayLastWords() {
    const auto deadline = Clock::now() + kLastWordsLimit;
    Ends ends;
    if (Launch(0, &ends) != 0) return;
    (void)!write(ends.input.get(), duties_.last_words.data(), duties_.length);
    ends.input.Close();
    // Whatever the other side answers must not keep the command from ending.
    std::array<char, 4096> unread{};
    while (WaitReadable(ends.output.get(), deadline) &&
           read(ends.output.get(), unread.data(), unread.size()) > 0) {
    }
    if (!commands_.empty()) WaitReadable(commands_.back().held.get(), deadline);
    EndAll();
  }

  Descriptor socket_;
  const std::string command_;
  const std::string mount_point_;
  const bool ignores_hangup_;
  Duties& duties_;
  std::vector<Command> commands_;
  std::vector<Ending> endings_;
};

[[noreturn]] void RunStarter(Descriptor socket, const std::string& command,
                             const std::string& mount_point) {
  prctl(PR_SET_NAME, "cpd-starter");
  // This process must outlive the other one, to clean up when that has been killed.
  for (const int signal : {SIGINT, SIGTERM, SIGQUIT, SIGPIPE}) (void)std::signal(signal, SIG_IGN);
  const bool ignores_hangup = std::signal(SIGHUP, SIG_IGN) == SIG_IGN;
  (void)std::signal(SIGCHLD, SIG_DFL);
  const Descriptor kept = KeepOnly(std::move(socket));
  void* const shared =
      mmap(nullptr, sizeof(Duties), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) {
    Say(std::strerror(errno));
    _exit(1);
  }
  auto* const duties = new (shared) Duties;
  // A child does the work. If it is killed or fails, its successor knows what to do at the end.
  for (int failures = 0;;) {
    const pid_t worker = fork();
    if (worker > 0) {
      const int status = Reap(worker);
      if (WIFEXITED(status) && WEXITSTATUS(status) == 0) _exit(0);
      const bool was_killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
      if (!was_killed) ++failures;
      const bool is_last = failures > kMostFailures;
      Say(fmt::format("{}; {} takes its place",
                      WIFSIGNALED(status)
                          ? fmt::format("ended by signal {}", WTERMSIG(status))
                          : fmt::format("ended with status {}", WEXITSTATUS(status)),
                      is_last ? "nothing" : "another"));
      if (is_last) _exit(1);
      continue;
    }
    try {
      // Uses the same number: a copy could get one that close_range has freed, and that a library
      // may still take for its own.
      StarterProcess(Descriptor(kept.get()), command, mount_point, ignores_hangup, *duties).Run();
    } catch (const std::exception& error) {
      Say(error.what());
      _exit(1);
    }
    _exit(0);
  }
}

}  // namespace

// ---- In the process that uses the line ----

std::optional<int> StartedLine::Ended(milliseconds limit) {
  if (!status_ && WaitReadable(ended_.get(), Clock::now() + limit)) {
    int status = 0;
    const bool told = read(ended_.get(), &status, sizeof status) == sizeof status;
    status_ = told ? status : kEndedWithStarter;
  }
  return status_;
}

Starter::Starter(const std::string& command, const std::string& mount_point,
                 milliseconds answer_limit)
    : answer_limit_(answer_limit) {
  std::array<int, 2> pair{};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair.data()) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  socket_ = Descriptor(pair[0]);
  LimitSending(socket_.get(), answer_limit_);
  Descriptor other(pair[1]);
  process_ = fork();
  if (process_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (process_ == 0) RunStarter(std::move(other), command, mount_point);
}

Starter::~Starter() {
  if (!acts_at_end_) Release();
  socket_.Close();
  milliseconds limit = answer_limit_;
  if (!is_stuck_) limit += acts_at_end_ ? kLastWordsLimit + 4 * kGrace : 2 * kGrace;
  const Descriptor process(pidfd_open(process_, 0));
  WaitReadable(process.get(), Clock::now() + limit);
  waitpid(process_, nullptr, WNOHANG);
}

/// Sends a request and waits for its answer. Those to earlier requests came too late, and are
/// dropped.
/// @param error  set to the answer's; without one, to ETIMEDOUT, to EPIPE if the process has ended,
///               or to EMFILE if this process cannot take the descriptors that came with it
std::optional<PassedMessage> Starter::Ask(std::string_view request, uint32_t id, milliseconds limit,
                                          int* error) {
  is_stuck_ = false;
  if (!SendPassed(socket_.get(), request) && errno != EAGAIN) {
    *error = errno;
    return std::nullopt;
  }
  const auto deadline = Clock::now() + limit;
  *error = ETIMEDOUT;
  while (WaitReadable(socket_.get(), deadline)) {
    Answer answer{};
    auto message = ReceivePassed(socket_.get(), sizeof answer);
    if (!message || message->bytes.size() != sizeof answer) {
      *error = message ? EBADMSG : errno;
      break;
    }
    std::memcpy(&answer, message->bytes.data(), sizeof answer);
    if (answer.id != id) continue;
    *error = answer.error;
    return message;
  }
  is_stuck_ = *error == ETIMEDOUT;
  return std::nullopt;
}

StartedLine Starter::Start() {
  const std::lock_guard lock(starting_);
  uint32_t id = 0;
  int error = 0;
  std::optional<PassedMessage> answer;
  // It is asked twice. A process that was killed takes its request with it, and its successor does
  // not know of it.
  for (const milliseconds limit : {answer_limit_ / 5, answer_limit_}) {
    id = ++last_id_;
    answer = Ask(Packed({Task::kStart, id}), id, limit, &error);
    if (answer) break;
    // If the command is started after all, nobody uses it.
    SendPassed(socket_.get(), Packed({Task::kEnd, id}));
    if (error != ETIMEDOUT) break;
  }
  // Whoever has taken over the other process can answer anything.
  if (error == 0 && answer->descriptors.size() != kDescriptorsOfALine) error = EBADMSG;
  if (error == ETIMEDOUT) throw std::runtime_error("the process that starts the line is stuck");
  if (error == EPIPE) throw std::runtime_error("the process that starts the line has ended");
  if (error != 0) {
    throw std::runtime_error(fmt::format("cannot start the line: {}", std::strerror(error)));
  }
  auto& ends = answer->descriptors;
  return {id, std::move(ends[0]), std::move(ends[1]), std::move(ends[2])};
}

void Starter::End(const StartedLine& line) {
  SendPassed(socket_.get(), Packed({Task::kEnd, line.id_}));
}

void Starter::Unmount() {
  const std::lock_guard lock(starting_);
  const uint32_t id = ++last_id_;
  constexpr int kTries = 2;
  for (int i = 0; i < kTries; ++i) {
    int error = 0;
    if (Ask(Packed({Task::kUnmountNow, id}), id, answer_limit_, &error)) return;
  }
}

void Starter::UnmountOnDeath() { SendPassed(socket_.get(), Packed({Task::kUnmount, 0})); }

void Starter::SayOnDeath(std::string_view text) {
  if (text.size() > kLongestLastWords) throw std::length_error("last words are too long");
  SendPassed(socket_.get(), Packed({Task::kSay, 0}, text));
}

void Starter::Release() { SendPassed(socket_.get(), Packed({Task::kRelease, 0})); }

}  // namespace cpd::host
