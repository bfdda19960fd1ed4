#include "commands/usb_redirection.h"

#include <fcntl.h>
#include <fmt/format.h>
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
#include <exception>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "commands/shown_name.h"
#include "disks/disk_monitor.h"
#include "disks/local_disks.h"
#include "line/starter.h"
#include "module/standard_error.h"

namespace cpd::host {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// A disk comes with several events. They are over when none has come for this long.
constexpr auto kSettling = 300ms;
/// How often to look without an event: for children that have ended, and for events that got lost.
constexpr auto kLookInterval = 2s;
/// How long a disk whose redirection failed waits before it is tried again.
constexpr auto kRetryPause = 10s;
/// In bytes. A longer line of a child's standard error is passed on in pieces.
constexpr size_t kLongestLine = 64 << 10;
/// How long a child may take to say goodbye before it is killed.
constexpr auto kEndLimit = 4s;

void Print(const std::string& text) {
  fmt::print("{}\n", text);
  (void)std::fflush(stdout);  // a service's log shows it at once
}

/// This program, redirecting one disk. Its own messages are kept for the caller (see words). The
/// rest of its standard error, such as the log, is passed on to this process's standard error.
class Child {
 public:
  explicit Child(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
      throw std::system_error(errno, std::generic_category(), "pipe");
    }
    errors_ = Descriptor(ends[0]);
    const Descriptor written(ends[1]);
    (void)fcntl(errors_.get(), F_SETFL, O_NONBLOCK);
    const pid_t parent = getpid();
    process_ = fork();
    if (process_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(1);
    dup2(written.get(), STDERR_FILENO);
    execv("/proc/self/exe", argv.data());
    _exit(127);
  }
  /// Ends the process, and waits for it. If a hung device keeps it from ending, leaves it alone.
  ~Child() {
    TellToEnd();
    for (const int signal : {SIGTERM, SIGKILL}) {
      const auto deadline = Clock::now() + kEndLimit;
      while (!Ended() && Clock::now() < deadline) usleep(20'000);
      if (Ended()) break;
      if (signal == SIGTERM) kill(process_, SIGKILL);
    }
    PassOn();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void TellToEnd() {
    if (!Ended()) kill(process_, SIGTERM);
  }
  /// @return the exit status; empty while the process runs
  std::optional<int> Ended() {
    int status = 0;
    if (!status_ && waitpid(process_, &status, WNOHANG) == process_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return status_;
  }

  /// Readable when there is something to pass on.
  [[nodiscard]] int errors() const { return errors_.get(); }
  /// Takes what the process has said. @return false when it will say nothing more
  bool PassOn() {
    std::array<char, 4096> block{};
    ssize_t length = 0;
    while ((length = read(errors_.get(), block.data(), block.size())) > 0) {
      unread_.append(block.data(), static_cast<size_t>(length));
      for (size_t end = 0; (end = unread_.find('\n')) != std::string::npos;) {
        TakeLine(unread_.substr(0, end + 1));
        unread_.erase(0, end + 1);
      }
      if (unread_.size() >= kLongestLine) TakeLine(std::exchange(unread_, {}));
    }
    return length != 0;
  }
  /// The last thing that the process said of itself; empty if it said nothing.
  [[nodiscard]] const std::string& words() const { return words_; }

 private:
  void TakeLine(std::string line) {
    constexpr std::string_view kOwn = "cpd-host: ";
    if (!line.starts_with(kOwn)) return PrintError(line);
    line.erase(0, kOwn.size());
    if (line.ends_with('\n')) line.pop_back();
    words_ = std::move(line);
  }

  pid_t process_;
  std::optional<int> status_;
  Descriptor errors_;
  std::string unread_;
  std::string words_;
};

/// A disk that is mounted here and redirected. The destructor ends the child, then unmounts.
struct RedirectedDisk {
  RedirectedDisk(std::string disk_label, std::unique_ptr<LocalMount> local,
                 const std::vector<std::string>& arguments)
      : label(std::move(disk_label)),
        mount(std::move(local)),
        unmounter("", mount->directory()),
        child(arguments) {
    unmounter.UnmountOnDeath();
  }

  const std::string label;
  std::unique_ptr<LocalMount> mount;
  Starter unmounter;  // unmounts if this process is killed
  Child child;
  bool is_silent = false;  // the child will say nothing more
};

/// The block devices and partitions that the kernel knows.
std::set<std::string> BlockDevices() {
  std::set<std::string> names;
  std::error_code error;
  fs::directory_iterator entry("/sys/class/block", error);
  for (; !error && entry != fs::directory_iterator(); entry.increment(error)) {
    names.insert(entry->path().filename());
  }
  return names;
}

class UsbRedirection {
 public:
  explicit UsbRedirection(const UsbOptions& options) : options_(options) {}
  /// Tells all children to end before it waits for the first of them.
  ~UsbRedirection() {
    for (const auto& [device, disk] : disks_) disk->child.TellToEnd();
  }
  UsbRedirection(const UsbRedirection&) = delete;
  UsbRedirection& operator=(const UsbRedirection&) = delete;

  /// Adapts to the disks that are there. Reads from each.
  void Look() {
    block_devices_ = BlockDevices();
    std::map<std::string, std::string> present;  // device and label
    try {
      for (const auto& disk : FindDisks()) {
        for (const auto& partition : disk.partitions) {
          if (IsWanted(partition)) present.emplace(partition.device, partition.label);
        }
      }
    } catch (const std::exception& error) {
      return PrintError(fmt::format("cpd-host: the disks cannot be listed: {}\n", error.what()));
    }
    const auto is_gone = [&](const std::string& device, const std::string& label) {
      const auto found = present.find(device);
      return found == present.end() || found->second != label;
    };
    std::erase_if(disks_, [&](const auto& entry) {
      const auto& [device, disk] = entry;
      if (!is_gone(device, disk->label)) return false;
      Print(fmt::format("{} {}: gone", device, QuotedForShell(disk->label)));
      return true;
    });
    std::erase_if(ended_,
                  [&](const auto& entry) { return is_gone(entry.first, entry.second.label); });
    for (const auto& [device, label] : present) {
      if (!disks_.contains(device) && !IsTooEarly(device)) Begin(device, label);
    }
  }

  /// Looks only if there may be something to do, so that a disk that nobody uses can sleep.
  void LookIfNeeded() {
    std::erase_if(disks_,
                  [this](const auto& entry) { return HasEnded(entry.first, *entry.second); });
    const bool is_due = std::ranges::any_of(ended_, [this](const auto& entry) {
      return !disks_.contains(entry.first) && Clock::now() >= entry.second.next;
    });
    if (is_due || BlockDevices() != block_devices_) Look();
  }

  /// Appends what to wait for.
  void AppendDescriptors(std::vector<pollfd>* polled) const {
    for (const auto& [device, disk] : disks_) {
      if (!disk->is_silent) polled->push_back({disk->child.errors(), POLLIN, 0});
    }
  }
  void PassOn() {
    for (const auto& [device, disk] : disks_) disk->is_silent = !disk->child.PassOn();
  }

 private:
  /// A disk that is there, and whose redirection has ended or failed. Kept while it is tried again.
  struct Ended {
    std::string label;
    std::string why;
    Clock::time_point next;  ///< when it is tried again
  };

  [[nodiscard]] bool IsWanted(const Partition& partition) const {
    if (options_.match.empty() || partition.label == options_.match) return true;
    if (options_.match.find('/') != std::string::npos) return false;
    std::error_code error;
    const auto matching = fs::canonical("/dev/disk/by-uuid/" + options_.match, error);
    return !error && matching == fs::canonical(partition.device, error);
  }

  [[nodiscard]] bool IsTooEarly(const std::string& device) const {
    const auto ended = ended_.find(device);
    return ended != ended_.end() && Clock::now() < ended->second.next;
  }

  bool HasEnded(const std::string& device, RedirectedDisk& disk) {
    const auto status = disk.child.Ended();
    if (!status) return false;
    disk.child.PassOn();
    if (*status == 0) {
      // A user has ended it, for example by unmounting the disk there. The disk is redirected again
      // when it is plugged in again.
      Print(fmt::format("{} {}: ended", device, QuotedForShell(disk.label)));
      ended_[device] = {.label = disk.label, .why = {}, .next = Clock::time_point::max()};
    } else {
      const auto& words = disk.child.words();
      NoteFailure(device, disk.label,
                  words.empty() ? fmt::format("ended with status {}", *status) : words);
    }
    return true;
  }

  /// Prints the reason, unless it is the one that was printed last.
  void NoteFailure(const std::string& device, const std::string& label, const std::string& why) {
    auto& ended = ended_[device];
    if (ended.why != why) {
      Print(fmt::format("{} {}: {}; trying again every {} s", device, QuotedForShell(label), why,
                        kRetryPause.count()));
    }
    ended = {.label = label, .why = why, .next = Clock::now() + kRetryPause};
  }

  void Begin(const std::string& device, const std::string& label) {
    try {
      auto mount = std::make_unique<LocalMount>(device);
      const bool is_open = options_.place.ends_with(':') || options_.place.ends_with('/');
      const auto target = options_.place + (is_open ? "" : "/") + label;
      std::vector<std::string> arguments{"cpd-host", "redirect", mount->directory().string(),
                                         target, "--make-directory"};
      std::ranges::copy(options_.arguments, std::back_inserter(arguments));
      disks_[device] = std::make_unique<RedirectedDisk>(label, std::move(mount), arguments);
      if (ended_.contains(device)) return;  // another try: the failure's line has announced it
      Print(fmt::format("{} {}: redirecting to {}", device, QuotedForShell(label), target));
    } catch (const std::exception& error) {
      NoteFailure(device, label, error.what());
    }
  }

  const UsbOptions& options_;
  std::map<std::string, std::unique_ptr<RedirectedDisk>> disks_;  // by device
  std::map<std::string, Ended> ended_;                            // by device
  std::set<std::string> block_devices_;                           // at the last look
};

}  // namespace

void RedirectUsbDisks(const UsbOptions& options, const StopSignals& stop_signals) {
  if (geteuid() != 0) throw std::runtime_error("mounting USB disks needs root");
  DiskMonitor monitor;
  const auto stop = stop_signals.MakeDescriptor();
  UsbRedirection disks(options);
  disks.Look();
  bool is_settling = false;
  auto next = Clock::now() + kLookInterval;
  for (;;) {
    std::vector<pollfd> events{{.fd = stop.get(), .events = POLLIN, .revents = 0},
                               {.fd = monitor.fd(), .events = POLLIN, .revents = 0}};
    disks.AppendDescriptors(&events);
    const auto patience = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    const auto limit = std::max<int64_t>(patience.count(), 0);
    if (poll(events.data(), events.size(), static_cast<int>(limit)) < 0) continue;
    if (events[0].revents != 0) return;
    disks.PassOn();
    if (events[1].revents != 0) {
      monitor.Drain();
      is_settling = true;
      next = Clock::now() + kSettling;
    } else if (Clock::now() >= next) {
      if (std::exchange(is_settling, false)) disks.Look();
      disks.LookIfNeeded();
      next = Clock::now() + kLookInterval;
    }
  }
}

}  // namespace cpd::host
