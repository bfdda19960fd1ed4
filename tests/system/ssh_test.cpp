// Disks over real ssh: a server of the test's own on this machine plays the other one.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

/// How soon both ends must have cleaned up.
constexpr auto kCleanUp = 2s;

std::string NameOf(pid_t process) {
  auto name = ReadFile("/proc/" + std::to_string(process) + "/comm");
  if (!name.empty()) name.pop_back();
  return name;
}

/// The descendants of a process, each after its parent.
std::vector<pid_t> Descendants(pid_t process) {
  std::vector<pid_t> found;
  const auto number = std::to_string(process);
  std::ifstream children("/proc/" + number + "/task/" + number + "/children");
  for (pid_t child = 0; children >> child;) found.push_back(child);
  for (size_t i = 0, count = found.size(); i < count; ++i) {
    const auto below = Descendants(found[i]);
    found.insert(found.end(), below.begin(), below.end());
  }
  return found;
}

/// Whether no process is left in a terminal's session.
bool SessionIsEmpty(pid_t session) {
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const int process = std::atoi(entry.path().filename().c_str());
    if (process > 0 && getsid(process) == session) return false;
  }
  return true;
}

/// An ssh server on a port of this machine that nobody uses, and what a client needs for it.
class SshServer {
 public:
  SshServer() {
    if (!fs::exists("/usr/sbin/sshd")) {
      problem_ = "openssh-server is not installed";
      return;
    }
    if (geteuid() == 0 && mkdir("/run/sshd", 0755) != 0 && errno != EEXIST) {
      problem_ = std::string("/run/sshd cannot be made: ") + strerror(errno);
      return;
    }
    const auto keys = "ssh-keygen -q -t ed25519 -N '' -f " + (place_ / "host_key") +
                      " && ssh-keygen -q -t ed25519 -N '' -f " + (place_ / "user_key") +
                      " && ssh-keygen -q -t ed25519 -N '' -f " + (place_ / "other_key");
    const auto made = Shell(keys);
    if (made.status != 0) {
      problem_ = "no keys: " + made.output;
      return;
    }
    port_ = FreePort();
    const auto port = std::to_string(port_);
    WriteFile(place_ / "sshd_config",
              "ListenAddress 127.0.0.1:" + port + "\nHostKey " + (place_ / "host_key") +
                  "\nAuthorizedKeysFile " + (place_ / "user_key.pub") +
                  "\nPidFile none\nStrictModes no\nUsePAM no\nPermitRootLogin yes\n"
                  "PasswordAuthentication no\nKbdInteractiveAuthentication no\n");
    WriteFile(place_ / "known", "[127.0.0.1]:" + port + " " + ReadFile(place_ / "host_key.pub"));
    WriteConfig("user_key", "known", "BatchMode yes\n");
    server_ = std::make_unique<Process>(
        std::vector<std::string>{"/usr/sbin/sshd", "-D", "-e", "-f", place_ / "sshd_config"},
        place_ / "out", place_ / "log");
    const auto login = "ssh -F " + config() + " far true";
    if (!Eventually([&] { return Shell(login).status == 0; }, 10s)) {
      problem_ = "nobody can log in to a server here: " + Shell(login).output + log();
    }
  }
  ~SshServer() {
    if (server_ == nullptr) return;
    server_->Signal(SIGTERM);
    server_->Wait();
  }
  SshServer(const SshServer&) = delete;
  SshServer& operator=(const SshServer&) = delete;

  /// Why there is none; empty if it runs.
  [[nodiscard]] const std::string& problem() const { return problem_; }
  /// The configuration of a client that calls this machine `far`.
  [[nodiscard]] std::string config() const { return place_ / "config"; }
  [[nodiscard]] std::string log() const { return ReadFile(place_ / "log"); }
  void WriteConfig(const std::string& key, const std::string& known, const std::string& more) {
    WriteFile(config(), "Host far\nHostName 127.0.0.1\nPort " + std::to_string(port_) +
                            "\nIdentityFile " + (place_ / key) +
                            "\nIdentitiesOnly yes\nGlobalKnownHostsFile /dev/null\n"
                            "UserKnownHostsFile " +
                            (place_ / known) + "\n" + more);
  }
  /// The first process of the program on the far side, 0 if there is none.
  [[nodiscard]] pid_t FarProgram() const {
    for (const pid_t process : Descendants(server_->pid())) {
      if (NameOf(process) == "cpd-host") return process;
    }
    return 0;
  }
  [[nodiscard]] bool IsIdle() const { return Descendants(server_->pid()).empty(); }
  /// Kills the server's processes of all connections, but not what they have started.
  void Drop() const {
    for (const pid_t process : Descendants(server_->pid())) {
      if (NameOf(process) == "sshd") kill(process, SIGKILL);
    }
  }

 private:
  static int FreePort() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    EXPECT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&address), size), 0);
    EXPECT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size), 0);
    close(fd);
    return ntohs(address.sin_port);
  }

  TempDir place_;
  std::string problem_;
  int port_ = 0;
  std::unique_ptr<Process> server_;
};

/// A program on a terminal of its own.
class OnTerminal {
 public:
  explicit OnTerminal(std::vector<std::string> argv) {
    std::vector<char*> pointers;
    for (auto& word : argv) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    process_ = forkpty(&terminal_, nullptr, nullptr, nullptr);
    if (process_ == 0) {
      execv(pointers[0], pointers.data());
      _exit(127);
    }
  }
  ~OnTerminal() {
    if (!status_) kill(process_, SIGKILL);
    if (!status_) waitpid(process_, nullptr, 0);
    close(terminal_);
  }
  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;

  [[nodiscard]] pid_t session() const { return process_; }
  /// All that the terminal has shown.
  const std::string& Shown() {
    pollfd ready{.fd = terminal_, .events = POLLIN, .revents = 0};
    char buffer[4096];
    while (poll(&ready, 1, 0) > 0) {
      const ssize_t count = read(terminal_, buffer, sizeof buffer);
      if (count <= 0) break;
      shown_.append(buffer, static_cast<size_t>(count));
    }
    return shown_;
  }
  bool Shows(const std::string& text) {
    return Eventually([&] { return Shown().find(text) != std::string::npos; });
  }
  void Type(const std::string& keys) const {
    EXPECT_EQ(write(terminal_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
  }
  std::optional<int> Wait(std::chrono::milliseconds limit) {
    int status = 0;
    const auto has_ended = [&] {
      Shown();
      return waitpid(process_, &status, WNOHANG) == process_;
    };
    if (!status_ && Eventually(has_ended, limit)) {
      status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    return status_;
  }

 private:
  int terminal_ = -1;
  pid_t process_ = -1;
  std::optional<int> status_;
  std::string shown_;
};

/// Which side sets the line up.
enum class From { kDisk, kMountPoint };

class Ssh : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (IsSkipped()) return;
    if (!server_.problem().empty()) GTEST_SKIP() << server_.problem();
    fs::create_directory(mount_point_);
  }
  void TearDown() override {
    if (IsMounted(mount_point_)) Shell("umount -l " + Quoted(mount_point_));
  }

  [[nodiscard]] std::vector<std::string> Command(From from, const std::string& program = CPD_HOST,
                                                 const std::string& served = "") const {
    const auto& directory = served.empty() ? disk.path() : served;
    std::vector<std::string> argv{CPD_HOST};
    if (from == From::kDisk) {
      argv.insert(argv.end(), {"redirect", directory, "far:" + mount_point_});
    } else {
      argv.insert(argv.end(), {"mount", "far:" + directory, mount_point_});
    }
    argv.insert(argv.end(), {"-F", server_.config(), "--remote-program", program});
    return argv;
  }
  /// Starts a command and waits for its mount.
  std::unique_ptr<Process> Start(From from) {
    auto process = std::make_unique<Process>(Command(from), place_ / "out", place_ / "err");
    EXPECT_TRUE(Eventually([&] { return IsMounted(mount_point_); })) << Errors();
    Lstat(mount_point_ + "/.");  // returns when the mount is served
    return process;
  }
  [[nodiscard]] std::string Errors() const { return ReadFile(place_ / "err"); }
  /// Expects that a command fails with 2, that its last line says why, and that nothing is left.
  void ExpectFailure(const std::vector<std::string>& argv, const std::string& last_line) {
    Process process(argv, place_ / "out", place_ / "err");
    EXPECT_EQ(process.Wait(), 2);
    const auto errors = Errors();
    const auto begin = errors.size() < 2 ? 0 : errors.rfind('\n', errors.size() - 2) + 1;
    EXPECT_EQ(errors.substr(begin), "cpd-host: " + last_line + "\n") << errors;
    EXPECT_FALSE(IsMounted(mount_point_));
    EXPECT_TRUE(Eventually([&] { return server_.IsIdle(); }, kCleanUp));
  }
  void ExpectCleanEnd(Process& process) {
    EXPECT_EQ(process.Wait(kCleanUp), 0) << Errors();
    EXPECT_TRUE(Eventually([&] { return !IsMounted(mount_point_); }, kCleanUp));
    EXPECT_TRUE(Eventually([&] { return server_.IsIdle(); }, kCleanUp));
  }

  TempDir place_;
  SshServer server_;
  const std::string mount_point_ = place_ / "mnt";
};

/// Runs each test twice: each side sets the line up once.
class SshBothWays : public Ssh, public testing::WithParamInterface<From> {};
INSTANTIATE_TEST_SUITE_P(From, SshBothWays, testing::Values(From::kDisk, From::kMountPoint),
                         [](const auto& from) {
                           return from.param == From::kDisk ? "TheDisk" : "TheMountPoint";
                         });

TEST_P(SshBothWays, FilesAreReadAndWrittenUntilCtrlC) {
  WriteFile(disk / "old", "content");
  const auto host = Start(GetParam());
  EXPECT_EQ(ReadFile(mount_point_ + "/old"), "content");
  WriteFile(mount_point_ + "/new", Bytes(3 << 20));
  EXPECT_EQ(ReadFile(disk / "new"), Bytes(3 << 20));
  host->Signal(SIGINT);
  ExpectCleanEnd(*host);
}

TEST_P(SshBothWays, CtrlCAtTheFarEndEndsBoth) {
  const auto host = Start(GetParam());
  const pid_t far = server_.FarProgram();
  ASSERT_GT(far, 0);
  kill(far, SIGINT);
  ExpectCleanEnd(*host);
}

TEST_P(SshBothWays, AnUnmountEndsBoth) {
  const auto host = Start(GetParam());
  EXPECT_EQ(Shell((geteuid() == 0 ? "umount " : "fusermount3 -u ") + mount_point_).status, 0);
  ExpectCleanEnd(*host);
}

TEST_P(SshBothWays, ACopyGoesOnOverConnectionsThatAreKilled) {
  const auto content = Bytes(100 << 20);
  WriteFile(place_ / "source", content);
  const auto host = Start(GetParam());
  const pid_t far = server_.FarProgram();
  Process copy(
      {"/bin/sh", "-c",
       "for i in 1 2 3 4 5; do cp " + (place_ / "source") + " " + mount_point_ + "/copy && cmp " +
           (place_ / "source") + " " + mount_point_ + "/copy || exit; " + "done"},
      place_ / "copy.out", place_ / "copy.err");
  int drops = 0;
  for (; drops < 3 && !copy.Wait(300ms); ++drops) {
    server_.Drop();
    EXPECT_TRUE(Eventually([&] {
      const auto program = server_.FarProgram();
      return program != 0 && program != far;
    }));
  }
  EXPECT_GT(drops, 0);
  EXPECT_EQ(copy.Wait(120s), 0) << ReadFile(place_ / "copy.err");
  EXPECT_EQ(ReadFile(disk / "copy"), content);
  // One attach holds the mount and gets each new line, but each line has a serve of its own.
  EXPECT_EQ(NameOf(far), GetParam() == From::kDisk ? "cpd-host" : "");
  host->Signal(SIGINT);
  ExpectCleanEnd(*host);
  EXPECT_TRUE(Eventually([&] { return NameOf(far).empty(); }, kCleanUp));
}

TEST_P(SshBothWays, AMissingProgramIsReported) {
  ExpectFailure(Command(GetParam(), "/nonexistent/cpd-host"),
                "the line's command was not found: if that is cpd-host on the other machine, "
                "install it there, or give its path with --remote-program");
}

TEST_P(SshBothWays, AnotherVersionIsReported) {
  const auto role = GetParam() == From::kDisk ? "\\002" : "\\001";
  WriteFile(place_ / "program", "printf '\\211cpd\\r\\n\\032\\n\\001\\000" + std::string(role) +
                                    "\\000'; head -c 60 /dev/zero; exec cat >/dev/null\n");
  ExpectFailure(Command(GetParam(), "sh " + (place_ / "program")),
                "the other side has version 1 of the stream, and this side has version 2: install "
                "the same cpd-host on both");
}

TEST_P(SshBothWays, AShellThatPrintsSomethingIsReported) {
  ExpectFailure(Command(GetParam(), "echo Welcome; exec " CPD_HOST),
                "the other side does not begin as cpd-host does: a start-up file of its shell may "
                "print something");
}

TEST_P(SshBothWays, ARefusedKeyIsReportedAfterSshsOwnWords) {
  server_.WriteConfig("other_key", "known", "BatchMode yes\n");
  ExpectFailure(Command(GetParam()),
                "no connection, for the reason that ssh gives above: check that ssh alone gets "
                "there");
  EXPECT_NE(Errors().find("Permission denied"), std::string::npos) << Errors();
}

TEST_P(SshBothWays, AMachineThatCannotBeReachedIsReportedAfterSshsOwnWords) {
  auto argv = Command(GetParam());
  argv.insert(argv.end(), {"-p", "1"});
  ExpectFailure(argv,
                "no connection, for the reason that ssh gives above: check that ssh alone gets "
                "there");
  EXPECT_NE(Errors().find("Connection refused"), std::string::npos) << Errors();
}

TEST_F(Ssh, ADiskThatIsMissingAtTheFarEndIsReported) {
  ExpectFailure(Command(From::kMountPoint, CPD_HOST, "/nonexistent/disk"),
                "the other side: disk /nonexistent/disk: No such file or directory");
}

TEST_F(Ssh, AMountPointThatIsMissingAtTheFarEndIsReported) {
  fs::remove(mount_point_);
  ExpectFailure(Command(From::kDisk),
                "the other side: mount point " + mount_point_ + ": No such file or directory");
}

TEST_F(Ssh, AMountPointInUseAtTheFarEndIsReported) {
  const auto host = Start(From::kDisk);
  Process second(Command(From::kDisk), place_ / "second.out", place_ / "second.err");
  EXPECT_EQ(second.Wait(), 2);
  EXPECT_NE(ReadFile(place_ / "second.err")
                .find("cpd-host: the other side: mount point " + mount_point_ +
                      " is in use by another redirection\n"),
            std::string::npos)
      << ReadFile(place_ / "second.err");
  WriteFile(disk / "file", "the first one goes on");
  EXPECT_EQ(ReadFile(mount_point_ + "/file"), "the first one goes on");
  host->Signal(SIGINT);
  ExpectCleanEnd(*host);
}

TEST_F(Ssh, AMachineWithoutFuseIsReported) {
  const std::string hide = "unshare -m sh -c 'mount -t tmpfs none /dev && mknod /dev/null c 1 3'";
  if (Shell(hide).status != 0) GTEST_SKIP() << "devices can only be hidden by root";
  WriteFile(
      place_ / "program",
      "exec unshare -m sh -c 'mount -t tmpfs none /dev && mknod /dev/null c 1 3 && exec \"$@\"' "
      "sh " CPD_HOST " \"$@\"\n");
  ExpectFailure(Command(From::kDisk, "sh " + (place_ / "program")),
                "the other side: /dev/fuse: No such file or directory; mounting needs the package "
                "fuse3 and the kernel module fuse");
}

TEST_P(SshBothWays, AHostKeyIsAskedForOnTheTerminal) {
  server_.WriteConfig("user_key", "known-later", "StrictHostKeyChecking ask\n");
  OnTerminal terminal(Command(GetParam()));
  ASSERT_TRUE(terminal.Shows("(yes/no")) << terminal.Shown();
  terminal.Type("yes\n");
  EXPECT_TRUE(Eventually([&] { return IsMounted(mount_point_); })) << terminal.Shown();
  Lstat(mount_point_ + "/.");  // returns when the mount is served
  terminal.Type("\x03");
  EXPECT_EQ(terminal.Wait(kCleanUp), 0) << terminal.Shown();
  EXPECT_TRUE(Eventually([&] { return SessionIsEmpty(terminal.session()); }, kCleanUp));
  EXPECT_TRUE(Eventually([&] { return server_.IsIdle(); }, kCleanUp));
}

TEST_F(Ssh, TheTerminalAndTheTableShowTheLine) {
  OnTerminal terminal(Command(From::kMountPoint));
  EXPECT_TRUE(terminal.Shows("line up, 0 drops, round trip ")) << terminal.Shown();
  server_.Drop();
  EXPECT_TRUE(terminal.Shows("line up, 1 drop, round trip ")) << terminal.Shown();
  Lstat(mount_point_ + "/.");
  terminal.Type("\x03");
  EXPECT_EQ(terminal.Wait(kCleanUp), 0) << terminal.Shown();
  EXPECT_NE(terminal.Shown().find("\nline: 1 drop, round trip "), std::string::npos)
      << terminal.Shown();
  EXPECT_EQ(terminal.Shown().find("round trip 0.00 ms\r\n"), std::string::npos) << terminal.Shown();
}

TEST_P(SshBothWays, CtrlCAtAQuestionOfSshEndsEverything) {
  server_.WriteConfig("user_key", "known-later", "StrictHostKeyChecking ask\n");
  OnTerminal terminal(Command(GetParam()));
  ASSERT_TRUE(terminal.Shows("(yes/no")) << terminal.Shown();
  terminal.Type("\x03");
  EXPECT_EQ(terminal.Wait(kCleanUp), 128 + SIGINT) << terminal.Shown();
  EXPECT_TRUE(Eventually([&] { return SessionIsEmpty(terminal.session()); }, kCleanUp));
  EXPECT_TRUE(Eventually([&] { return server_.IsIdle(); }, kCleanUp));
}

}  // namespace
}  // namespace system_test
