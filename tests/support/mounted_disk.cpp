#include "support/mounted_disk.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

namespace system_test {
namespace fs = std::filesystem;

namespace {

std::vector<char*> Pointers(const std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (const auto& text : texts) pointers.push_back(const_cast<char*>(text.c_str()));
  pointers.push_back(nullptr);
  return pointers;
}

/// The words before the command that serves the disk; nullptr when the disk is mounted in one
/// process.
const char* LinePrefix() { return getenv("CPD_TEST_LINE"); }

/// Whether an option concerns the disk: over a line, the serving process gets it. It also gets the
/// options of the log, because tests read the module's lines, and it has the module.
bool IsForServe(const std::string& option) {
  static const std::set<std::string> options{
      "--module",      "--policy",     "--bandwidth", "--trace",     "--log",
      "--trace-reads", "--unconfined", "--name",      "--log-level", "--read-only"};
  return options.contains(option);
}

std::vector<std::string> HostCommand(const std::string& disk, const std::string& mount_point,
                                     const std::vector<std::string>& options) {
  std::vector<std::string> argv{CPD_HOST, "mount"};
  const char* const prefix = LinePrefix();
  if (prefix == nullptr) {
    argv.insert(argv.end(), {disk, mount_point});
    argv.insert(argv.end(), options.begin(), options.end());
    return argv;
  }
  std::string serve = std::string(prefix) + " " + Quoted(CPD_HOST) + " serve " + Quoted(disk);
  bool is_for_serve = false;
  for (const auto& option : options) {
    // A value goes where its option went.
    if (option.starts_with("--")) is_for_serve = IsForServe(option);
    if (is_for_serve) {
      serve += " " + Quoted(option);
    } else {
      argv.push_back(option);
    }
  }
  argv.insert(argv.end(), {"--via", serve, mount_point});
  return argv;
}

std::string FindFuseProblem() {
  const int fd = open("/dev/fuse", O_RDWR | O_CLOEXEC);
  if (fd < 0) return std::string("/dev/fuse cannot be opened: ") + strerror(errno);
  std::string problem;
  if (geteuid() == 0) {
    const TempDir place;
    const std::string options = "fd=" + std::to_string(fd) + ",rootmode=40000,user_id=0,group_id=0";
    if (mount("probe", place.path().c_str(), "fuse", 0, options.c_str()) == 0) {
      umount2(place.path().c_str(), MNT_DETACH);
    } else {
      problem = std::string("FUSE cannot be mounted here: ") + strerror(errno);
    }
  } else if (Shell("command -v fusermount3").status != 0) {
    problem = "fusermount3 is not installed, and this is not root";
  }
  close(fd);
  return problem;
}

}  // namespace

TempDir::TempDir(const fs::path& parent) {
  std::string name = (fs::canonical(parent) / "cpd-system-XXXXXX").string();
  if (!mkdtemp(name.data())) throw std::system_error(errno, std::generic_category(), name);
  mPath = name;
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(mPath, ignored);
}

Process::Process(const std::vector<std::string>& argv, const std::string& out,
                 const std::string& err, const std::map<std::string, std::string>& environment) {
  std::vector<std::string> command;
  if (!environment.empty()) {
    command.push_back("/usr/bin/env");
    for (const auto& [name, value] : environment)
      command.push_back(std::string(name).append("=").append(value));
  }
  command.insert(command.end(), argv.begin(), argv.end());
  const auto pointers = Pointers(command);

  const pid_t parent = getpid();
  mPid = fork();
  if (mPid < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (mPid > 0) return;
  // When the test is killed, its host ends too, and unmounts.
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(127);
  const int flags = O_WRONLY | O_CREAT | O_TRUNC;
  if (dup2(open("/dev/null", O_RDONLY), STDIN_FILENO) < 0 ||
      dup2(open(out.c_str(), flags, 0644), STDOUT_FILENO) < 0 ||
      dup2(open(err.c_str(), flags, 0644), STDERR_FILENO) < 0) {
    _exit(127);
  }
  execv(pointers[0], pointers.data());
  _exit(127);
}

Process::~Process() {
  if (mStatus) return;
  kill(mPid, SIGKILL);
  waitpid(mPid, nullptr, 0);
}

void Process::Signal(int signal) const {
  if (!mStatus) kill(mPid, signal);
}

std::optional<int> Process::Wait(std::chrono::milliseconds limit) {
  int status = 0;
  if (!mStatus && Eventually([&] { return waitpid(mPid, &status, WNOHANG) == mPid; }, limit)) {
    mStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return mStatus;
}

Result Shell(const std::string& command, std::chrono::seconds limit) {
  const TempDir place;
  // `timeout` ends the command's whole process group, so that no grandchild holds a mount.
  Process process(
      {"/usr/bin/timeout", "-k", "5", std::to_string(limit.count()), "/bin/sh", "-c", command},
      place / "out", place / "err");
  const auto status = process.Wait(limit + kHang);
  return {status.value_or(124), ReadFile(place / "out") + ReadFile(place / "err")};
}

std::string Quoted(const std::string& text) {
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary) << content;
}

std::string ReadFile(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

struct stat Lstat(const std::string& path) {
  struct stat attributes {};
  EXPECT_EQ(lstat(path.c_str(), &attributes), 0) << path << ": " << strerror(errno);
  return attributes;
}

struct statvfs Statvfs(const std::string& path) {
  struct statvfs statistics {};
  EXPECT_EQ(statvfs(path.c_str(), &statistics), 0) << path << ": " << strerror(errno);
  return statistics;
}

std::string Bytes(size_t size, unsigned seed) {
  std::minstd_rand random(seed);
  std::string bytes(size, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random() >> 8);
  return bytes;
}

bool IsMounted(const std::string& path) {
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    // id, parent, device, root, mount point
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 5; ++i) fields >> field;
    if (field == path) return true;
  }
  return false;
}

const std::string& WhyNoFuse() {
  static const std::string problem = FindFuseProblem();
  return problem;
}

int Ending::Requests(int command) const {
  std::istringstream table(out);
  for (std::string line; std::getline(table, line);) {
    std::istringstream row(line);
    int code = 0;
    std::string name;
    int requests = 0;
    if (row >> code >> name >> requests && code == command) return requests;
  }
  return 0;
}

int Ending::Count(const std::string& name) const {
  std::istringstream table(out);
  for (std::string line; std::getline(table, line);) {
    int count = 0;
    if (line.starts_with(name + ' ') && std::istringstream(line.substr(name.size())) >> count) {
      return count;
    }
  }
  return 0;
}

MountedDisk::MountedDisk(const std::string& disk, const std::vector<std::string>& options,
                         const std::map<std::string, std::string>& environment)
    : mMountPoint(mPlace / "mnt"),
      mHost((fs::create_directory(mMountPoint), HostCommand(disk, mMountPoint, options)),
            mPlace / "out", mPlace / "err", environment) {
  if (!Eventually([&] { return IsMounted(mMountPoint) || mHost.Wait(0ms); }) ||
      !IsMounted(mMountPoint)) {
    ADD_FAILURE() << "not mounted: " << ReadFile(mPlace / "err");
  }
}

// NOLINTNEXTLINE(bugprone-exception-escape): when even this fails, the test may as well end
MountedDisk::~MountedDisk() {
  if (!mHost.Wait(0ms)) Unmount();
  if (IsMounted(mMountPoint)) {
    umount2(mMountPoint.c_str(), MNT_DETACH);
    if (IsMounted(mMountPoint)) Shell("fusermount3 -uz " + Quoted(mMountPoint));
  }
}

size_t MountedDisk::OpenDescriptors() const {
  const fs::directory_iterator descriptors("/proc/" + std::to_string(mHost.pid()) + "/fd");
  return std::distance(begin(descriptors), end(descriptors));
}

Ending MountedDisk::WaitForEnd() {
  const auto status = mHost.Wait();
  return {status.value_or(-1), ReadFile(mPlace / "out"), ReadFile(mPlace / "err")};
}

Ending MountedDisk::Unmount() {
  Signal(SIGTERM);
  return WaitForEnd();
}

LoopDisk::LoopDisk() {
  if (geteuid() != 0) {
    mProblem = "a loop device needs root";
    return;
  }
  fs::create_directory(path());
  const auto made = Shell("truncate -s 64M " + image() + " && mkfs.ext4 -q " + image() +
                          " && mount -o loop " + image() + " " + path());
  if (made.status != 0) mProblem = "no loop device here: " + made.output;
}

LoopDisk::~LoopDisk() {
  if (IsMounted(path())) umount2(path().c_str(), MNT_DETACH);
}

}  // namespace system_test
