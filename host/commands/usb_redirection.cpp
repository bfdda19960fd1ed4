#include "commands/usb_redirection.h"

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
#include <cstdio>
#include <exception>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "commands/shown_name.h"
#include "disks/disk_monitor.h"
#include "disks/local_disks.h"

namespace cpd::host {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// A disk comes with several events. They are over when none has come for this long.
constexpr auto kSettling = 300ms;
/// How often to look without an event: for children that have ended, and for events that got lost.
constexpr auto kLookInterval = 2s;
/// Before a disk whose redirection failed is tried again.
constexpr auto kRetryPause = 10s;
/// How long a child may take to say goodbye before it is killed.
constexpr auto kEndLimit = 4s;

void Print(const std::string& text) {
  fmt::print("{}\n", text);
  (void)std::fflush(stdout);  // a service's log shows it at once
}

/// This program, redirecting one disk.
class Child {
 public:
  explicit Child(const std::vector<std::string>& arguments) {
    std::vector<char*> argv;
    for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    process_ = fork();
    if (process_ < 0) throw std::system_error(errno, std::generic_category(), "fork");
    if (process_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(1);
    execv("/proc/self/exe", argv.data());
    _exit(127);
  }
  /// Ends the process and waits for it.
  ~Child() {
    if (Ended()) return;
    kill(process_, SIGTERM);
    const auto deadline = Clock::now() + kEndLimit;
    while (!Ended() && Clock::now() < deadline) usleep(20'000);
    if (Ended()) return;
    kill(process_, SIGKILL);
    waitpid(process_, nullptr, 0);
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  /// @return the exit status; empty while the process runs
  std::optional<int> Ended() {
    int status = 0;
    if (!status_ && waitpid(process_, &status, WNOHANG) == process_) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return status_;
  }

 private:
  pid_t process_;
  std::optional<int> status_;
};

/// A disk that is mounted here and redirected. The child goes first.
struct RedirectedDisk {
  RedirectedDisk(std::string disk_label, std::unique_ptr<LocalMount> local,
                 const std::vector<std::string>& arguments)
      : label(std::move(disk_label)), mount(std::move(local)), child(arguments) {}

  const std::string label;
  std::unique_ptr<LocalMount> mount;
  Child child;
};

class UsbRedirection {
 public:
  explicit UsbRedirection(const UsbOptions& options) : options_(options) {}

  /// Adapts to the disks that are there.
  void Look() {
    std::map<std::string, std::string> present;  // device and label
    for (const auto& disk : FindDisks()) {
      for (const auto& partition : disk.partitions) {
        if (IsWanted(partition)) present.emplace(partition.device, partition.label);
      }
    }
    std::erase_if(disks_, [&](const auto& entry) {
      const auto& [device, disk] = entry;
      if (present.contains(device) && present[device] == disk->label) return false;
      Print(fmt::format("{} {}: gone", device, QuotedForShell(disk->label)));
      return true;
    });
    std::erase_if(failed_, [&](const auto& entry) { return !present.contains(entry.first); });
    std::erase_if(disks_,
                  [this](const auto& entry) { return HasEnded(entry.first, *entry.second); });
    for (const auto& [device, label] : present) {
      if (!disks_.contains(device) && !IsTooEarly(device)) Begin(device, label);
    }
  }

 private:
  [[nodiscard]] bool IsWanted(const Partition& partition) const {
    if (options_.match.empty() || partition.label == options_.match) return true;
    if (options_.match.find('/') != std::string::npos) return false;
    std::error_code error;
    return fs::equivalent("/dev/disk/by-uuid/" + options_.match, partition.device, error);
  }

  [[nodiscard]] bool IsTooEarly(const std::string& device) const {
    const auto failure = failed_.find(device);
    return failure != failed_.end() && Clock::now() < failure->second + kRetryPause;
  }

  bool HasEnded(const std::string& device, RedirectedDisk& disk) {
    const auto status = disk.child.Ended();
    if (!status) return false;
    Print(fmt::format("{} {}: ended with status {}", device, QuotedForShell(disk.label), *status));
    failed_[device] = Clock::now();
    return true;
  }

  void Begin(const std::string& device, const std::string& label) {
    try {
      auto mount = std::make_unique<LocalMount>(device);
      const auto target = fmt::format("{}/{}", options_.place, label);
      std::vector<std::string> arguments{"cpd-host", "redirect", mount->directory().string(),
                                         target, "--make-directory"};
      std::ranges::copy(options_.arguments, std::back_inserter(arguments));
      disks_[device] = std::make_unique<RedirectedDisk>(label, std::move(mount), arguments);
      Print(fmt::format("{} {}: redirected to {}", device, QuotedForShell(label), target));
    } catch (const std::exception& error) {
      Print(fmt::format("{} {}: {}", device, QuotedForShell(label), error.what()));
      failed_[device] = Clock::now();
    }
  }

  const UsbOptions& options_;
  std::map<std::string, std::unique_ptr<RedirectedDisk>> disks_;  // by device
  std::map<std::string, Clock::time_point> failed_;               // when, by device
};

}  // namespace

void RedirectUsbDisks(const UsbOptions& options, const StopSignals& stop_signals) {
  if (geteuid() != 0) throw std::runtime_error("mounting USB disks needs root");
  DiskMonitor monitor;
  const auto stop = stop_signals.MakeDescriptor();
  UsbRedirection disks(options);
  std::array<pollfd, 2> events{{{.fd = stop.get(), .events = POLLIN, .revents = 0},
                                {.fd = monitor.fd(), .events = POLLIN, .revents = 0}}};
  disks.Look();
  bool is_settling = false;
  for (;;) {
    const std::chrono::milliseconds patience = is_settling ? kSettling : kLookInterval;
    const int count = poll(events.data(), events.size(), static_cast<int>(patience.count()));
    if (count < 0) continue;
    if (events[0].revents != 0) return;
    is_settling = count > 0;
    if (is_settling) {
      monitor.Drain();
    } else {
      disks.Look();
    }
  }
}

}  // namespace cpd::host
