// A mount or a redirection over a line, each end in processes of its own, which a test can kill.
#pragma once

#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {

/// How long cleaning up may take. The other side is alive, so nothing has to time out.
inline constexpr auto kSoon = 2s;

class LineProcesses : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    std::filesystem::create_directory(mount_point);
    WriteFile(disk / "file", "content");
  }
  ~LineProcesses() override {
    if (IsMounted(mount_point)) umount2(mount_point.c_str(), MNT_DETACH);
  }

  /// Starts a command of the host's, and waits for the mount.
  void Start(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), CPD_HOST);
    host.emplace(arguments, place / "out", place / "err");
    EXPECT_TRUE(Eventually([&] { return IsMounted(mount_point); })) << ReadFile(place / "err");
    EXPECT_EQ(ReadFile(file), "content");
  }
  // The shell stays instead of becoming cpd-host, because it has something left to do.
  void StartMount() {
    Start({"mount", "--via", CPD_HOST " serve " + disk.path() + "; exit $?", mount_point});
  }
  void StartRedirect() {
    Start({"redirect", disk.path(), "--via", CPD_HOST " attach " + mount_point + "; exit $?"});
  }

  /// The processes with this argument whose command line names the disk or the mount point.
  std::vector<pid_t> ProcessesOf(const std::string& word) const {
    std::vector<pid_t> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      const std::string name = entry.path().filename();
      pid_t pid = 0;
      if (std::from_chars(name.data(), name.data() + name.size(), pid).ptr == name.data()) continue;
      const auto command = ReadFile(entry.path() / "cmdline");
      const bool is_ours = command.find(disk.path()) != std::string::npos ||
                           command.find(mount_point) != std::string::npos;
      if (is_ours && command.find('\0' + word) != std::string::npos) found.push_back(pid);
    }
    return found;
  }
  /// Kills the first process of a kind: the one that started the others of its name.
  void Kill(const std::string& word) const {
    const auto processes = ProcessesOf(word);
    ASSERT_FALSE(processes.empty()) << word;
    kill(std::ranges::min(processes), SIGKILL);
  }
  bool IsClean() const { return !IsMounted(mount_point) && ProcessesOf("").empty(); }
  void ExpectCleanSoon() const {
    EXPECT_TRUE(Eventually([&] { return IsClean(); }, kSoon))
        << (IsMounted(mount_point) ? "mounted, " : "") << ProcessesOf("").size()
        << " processes left";
  }
  void ExpectServed() const {
    EXPECT_TRUE(Eventually([&] { return Shell("cat " + file, kHang).output == "content"; }, 5s));
  }
  void ExpectEndsWhenAsked() {
    host->Signal(SIGTERM);
    EXPECT_EQ(host->Wait(5s), 0) << ReadFile(place / "err");
    ExpectCleanSoon();
  }

  const TempDir place;
  const std::string mount_point = place / "mnt";
  const std::string file = mount_point + "/file";
  std::optional<Process> host;
};

}  // namespace system_test
