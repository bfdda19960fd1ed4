// Tools for tests that let real programs work on a disk mounted by the real host.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace system_test {

using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;

/// How long anything may take before a test calls it a hang.
inline constexpr std::chrono::seconds kHang = 30s;

/// A directory of its own, removed with all it holds.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string path() const { return mPath; }
  std::string operator/(const std::string& name) const { return mPath + "/" + name; }

 private:
  std::string mPath;
};

/// A child process; killed, if it still runs, and reaped on destruction.
class Process {
 public:
  /// Starts `argv`; its standard output and error go to the files `out` and `err`.
  Process(const std::vector<std::string>& argv, const std::string& out, const std::string& err,
          const std::map<std::string, std::string>& environment = {});
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void Signal(int signal) const;
  /// @return the exit status, 128 + the signal's number for a killed process, or empty when it
  ///         still runs after `limit`
  std::optional<int> Wait(std::chrono::milliseconds limit = kHang);
  pid_t pid() const { return mPid; }

 private:
  pid_t mPid;
  std::optional<int> mStatus;
};

struct Result {
  int status;          ///< as Process::Wait; 124 when the time limit struck
  std::string output;  ///< standard output, then standard error
};
/// Runs a shell command to its end, or to the time limit.
Result Shell(const std::string& command, std::chrono::seconds limit = 120s);

/// `text` as one word for the shell.
std::string Quoted(const std::string& text);
void WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path);
/// The attributes of what stands at `path`, of a link itself; the test fails without.
struct stat Lstat(const std::string& path);
/// Of the file system at `path`; the test fails without.
struct statvfs Statvfs(const std::string& path);
/// `size` bytes that differ from file to file and from place to place.
std::string Bytes(size_t size, unsigned seed = 1);
/// Whether a file system is mounted at `path`, from the kernel's own table.
bool IsMounted(const std::string& path);
/// Waits until `condition` holds. @return whether it did within the limit
template <class Condition>
bool Eventually(Condition condition, std::chrono::milliseconds limit = kHang) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    usleep(20'000);
  }
  return true;
}

/// Why nothing can be mounted through FUSE here; empty when it can.
const std::string& WhyNoFuse();

/// What a host left when it ended.
struct Ending {
  int status;  ///< exit status; -1 when it did not end by itself
  std::string out;
  std::string err;

  /// The count of a command's requests in the table that the host prints at its end.
  int Requests(int command) const;
};

/// A directory mounted by `cpd-host mount` for as long as the object lives.
class MountedDisk {
 public:
  /// Mounts `disk` on a mount point of its own and waits for it; the test fails when that fails.
  explicit MountedDisk(const std::string& disk, const std::vector<std::string>& options = {},
                       const std::map<std::string, std::string>& environment = {});
  /// Unmounts, by force where the host does not do it.
  ~MountedDisk();  // NOLINT(bugprone-exception-escape)

  std::string path() const { return mMountPoint; }
  std::string operator/(const std::string& name) const { return mMountPoint + "/" + name; }
  void Signal(int signal) const { mHost.Signal(signal); }
  /// How many descriptors the host has open.
  size_t OpenDescriptors() const;
  /// Waits for the host to end by itself.
  Ending WaitForEnd();
  /// Tells the host to unmount and waits for its end.
  Ending Unmount();

 private:
  TempDir mPlace;
  std::string mMountPoint;
  Process mHost;
};

/// An ext4 file system of 64 MiB on a loop device, mounted for as long as the object lives.
class LoopDisk {
 public:
  LoopDisk();
  ~LoopDisk();
  LoopDisk(const LoopDisk&) = delete;
  LoopDisk& operator=(const LoopDisk&) = delete;

  /// Why it could not be mounted here; empty when it is.
  const std::string& problem() const { return mProblem; }
  std::string path() const { return mPlace / "disk"; }
  std::string image() const { return mPlace / "image"; }

 private:
  TempDir mPlace;
  std::string mProblem;
};

/// A test that needs FUSE, with a directory to be the disk.
class MountTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!WhyNoFuse().empty()) GTEST_SKIP() << WhyNoFuse();
  }
  TempDir disk;
};

}  // namespace system_test
