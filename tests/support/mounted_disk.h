// Tools for tests that run real programs on a disk that the real host has mounted.
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

/// How long anything may take before a test counts it as a hang.
inline constexpr std::chrono::seconds kHang = 30s;

/// A temporary directory, removed with everything in it.
class TempDir {
 public:
  explicit TempDir(const std::filesystem::path& parent = std::filesystem::temp_directory_path());
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  std::string path() const { return mPath; }
  std::string operator/(const std::string& name) const { return mPath + "/" + name; }

 private:
  std::string mPath;
};

/// A child process. The destructor kills it, if it still runs, and reaps it.
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
  int status;          ///< as Process::Wait; 124 when the time limit ended the command
  std::string output;  ///< standard output, then standard error
};
/// Runs a shell command to its end, or to the time limit.
Result Shell(const std::string& command, std::chrono::seconds limit = 120s);

/// `text` as one word for the shell.
std::string Quoted(const std::string& text);
void WriteFile(const std::string& path, const std::string& content);
std::string ReadFile(const std::string& path);
/// The attributes of `path`, of a symbolic link itself. The test fails when there are none.
struct stat Lstat(const std::string& path);
/// The statistics of the file system at `path`. The test fails when there are none.
struct statvfs Statvfs(const std::string& path);
/// `size` bytes that differ from seed to seed and from place to place.
std::string Bytes(size_t size, unsigned seed = 1);
/// Whether a file system is mounted at `path`, according to the kernel's mount table.
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

/// Why FUSE cannot mount anything on this machine; empty when it can.
const std::string& WhyNoFuse();

/// How a host ended, and what it printed.
struct Ending {
  int status;  ///< as Process::Wait; -1 when the host still runs after kHang
  std::string out;
  std::string err;

  /// The count of a command's requests in the table that the host prints at its end.
  int Requests(int command) const;
  /// The count of that name below the table.
  int Count(const std::string& name) const;
};

/// A directory mounted by `cpd-host mount` for as long as the object lives.
///
/// One process serves and mounts it, unless the environment variable CPD_TEST_LINE is set: then it
/// is mounted over a line to a `cpd-host serve`, which gets the options that concern the disk. The
/// variable holds the words before that command: `exec`, or a program that passes the bytes on.
class MountedDisk {
 public:
  /// Mounts `disk` on a new mount point and waits until it is mounted; fails the test otherwise.
  explicit MountedDisk(const std::string& disk, const std::vector<std::string>& options = {},
                       const std::map<std::string, std::string>& environment = {});
  /// Unmounts, by force if the host does not.
  ~MountedDisk();  // NOLINT(bugprone-exception-escape)

  std::string path() const { return mMountPoint; }
  std::string operator/(const std::string& name) const { return mMountPoint + "/" + name; }
  void Signal(int signal) const { mHost.Signal(signal); }
  /// How many descriptors the host has open.
  size_t OpenDescriptors() const;
  /// Waits for the host to end by itself.
  Ending WaitForEnd();
  /// Tells the host to unmount, and waits for it to end.
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

/// A test that needs FUSE, with a directory that serves as the disk.
class MountTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!WhyNoFuse().empty()) GTEST_SKIP() << WhyNoFuse();
  }
  TempDir disk;
};

}  // namespace system_test
