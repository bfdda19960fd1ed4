// However one of a line's processes ends, the others end or go on as they should, and nothing is
// left.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "line_processes.h"
#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

using LineEnds = LineProcesses;

/// A terminal, seen from its user's side.
class Terminal {
 public:
  Terminal() : master_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK)) {
    EXPECT_EQ(grantpt(master_), 0);
    EXPECT_EQ(unlockpt(master_), 0);
  }
  ~Terminal() { close(master_); }
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;

  std::string path() const { return ptsname(master_); }
  /// Everything that was written to it.
  const std::string& Shown() {
    std::array<char, 4096> bytes;
    for (ssize_t count; (count = read(master_, bytes.data(), bytes.size())) > 0;) {
      shown_.append(bytes.data(), static_cast<size_t>(count));
    }
    return shown_;
  }

 private:
  const int master_;
  std::string shown_;
};

class LineStatus : public LineProcesses {
 protected:
  /// Whether a status line of a line that is up shows a rate other than 0.
  static bool ShowsRequests(const std::string& shown) {
    constexpr std::string_view kBegin = "line up, 0 drops, round trip ";
    for (size_t at = 0; (at = shown.find(kBegin, at)) != std::string::npos; at += kBegin.size()) {
      double milliseconds = 0;
      unsigned rate = 0;
      int end = 0;
      const auto* const figures = shown.c_str() + at + kBegin.size();
      // NOLINTNEXTLINE(cert-err34-c): the line is this program's own
      const int count = sscanf(figures, "%lf ms  %u requests/s  %n", &milliseconds, &rate, &end);
      if (count == 2 && end > 0 && rate > 0) return true;
    }
    return false;
  }

  void ExpectShown(std::vector<std::string> arguments) {
    Terminal terminal;
    arguments.insert(arguments.begin(), CPD_HOST);
    host.emplace(arguments, place / "out", terminal.path());
    EXPECT_TRUE(Eventually([&] {
      Shell("cat " + file);
      return ShowsRequests(terminal.Shown());
    })) << terminal.Shown();
    host->Signal(SIGTERM);
    EXPECT_EQ(host->Wait(5s), 0);
  }
};

TEST_F(LineStatus, IsShownOnATerminalByAMount) {
  ExpectShown({"mount", "--via", "exec " CPD_HOST " serve " + disk.path(), mount_point});
}

TEST_F(LineStatus, IsShownOnATerminalByARedirect) {
  ExpectShown({"redirect", disk.path(), "--via", "exec " CPD_HOST " attach " + mount_point});
}

TEST_F(LineEnds, AKilledMountLeavesNothing) {
  StartMount();
  host->Signal(SIGKILL);
  EXPECT_EQ(host->Wait(), 128 + SIGKILL);
  ExpectCleanSoon();
}

TEST_F(LineEnds, AKilledServeIsReplaced) {
  StartMount();
  const auto serve = ProcessesOf("serve");
  Kill("serve");
  ExpectServed();
  EXPECT_NE(ProcessesOf("serve"), serve);
  ExpectEndsWhenAsked();
}

TEST_F(LineEnds, AKilledShellOfAMountIsReplacedOrGoesUnnoticed) {
  StartMount();
  Kill("-c");
  ExpectServed();
  ExpectEndsWhenAsked();
}

TEST_F(LineEnds, AKilledRedirectLeavesNothing) {
  StartRedirect();
  host->Signal(SIGKILL);
  EXPECT_EQ(host->Wait(), 128 + SIGKILL);
  ExpectCleanSoon();
}

TEST_F(LineEnds, AKilledAttachIsReplaced) {
  StartRedirect();
  Kill("attach");
  ExpectServed();
  ExpectEndsWhenAsked();
}

TEST_F(LineEnds, AKilledShellOfARedirectIsReplacedOrGoesUnnoticed) {
  StartRedirect();
  Kill("-c");
  ExpectServed();
  ExpectEndsWhenAsked();
}

TEST_F(LineEnds, ATerminatedMountEndsItsServe) {
  StartMount();
  ExpectEndsWhenAsked();
}

TEST_F(LineEnds, ATerminatedRedirectEndsItsAttach) {
  StartRedirect();
  ExpectEndsWhenAsked();
}

/// A redirect whose line goes down and stays down when the test says so.
class LineDown : public LineEnds {
 protected:
  // As on another machine, the attach is not a descendant of the line's command, and outlives it.
  std::vector<std::string> Redirect() const {
    return {"redirect", disk.path(), "--via",
            "test -e " + Quoted(place / "down") + " && exit 1; sh -c 'echo $$ >" + relay_ +
                "; exec cat' | { exec 3<&0; (setsid " CPD_HOST " attach " + mount_point +
                " <&3 &) }"};
  }
  void TakeDown() const {
    WriteFile(place / "down", "");
    kill(std::stoi(ReadFile(relay_)), SIGKILL);
  }
  /// How often a text is in what both sides have logged.
  int Logged(const std::string& text) const {
    const auto log = ReadFile(place / "err");
    int count = 0;
    for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; ++at) ++count;
    return count;
  }

 private:
  const std::string relay_ = place / "relay";
};

TEST_F(LineDown, MakesWayForTheNextSession) {
  Start(Redirect());
  TakeDown();
  ASSERT_TRUE(Eventually([&] { return Logged("the line dropped") >= 2; }))
      << ReadFile(place / "err");
  host->Signal(SIGKILL);
  // What is left of it cannot tell the other side, as if the machine had crashed.
  ASSERT_TRUE(Eventually([&] { return ProcessesOf("redirect").empty(); }));
  fs::remove(place / "down");
  EXPECT_TRUE(IsMounted(mount_point));

  auto arguments = Redirect();
  arguments.insert(arguments.begin(), CPD_HOST);
  host.emplace(arguments, place / "out", place / "next err");
  EXPECT_TRUE(Eventually([&] { return Shell("cat " + file, kHang).output == "content"; }))
      << ReadFile(place / "next err");
  ExpectEndsWhenAsked();
}

TEST_F(LineDown, LetsARedirectThatIsTerminatedEndItsAttach) {
  Start(Redirect());
  TakeDown();
  // After three attempts, the next one is seconds away.
  ASSERT_TRUE(Eventually([&] { return Logged("no line yet") >= 3; })) << ReadFile(place / "err");
  EXPECT_TRUE(IsMounted(mount_point));
  fs::remove(place / "down");
  host->Signal(SIGTERM);
  EXPECT_EQ(host->Wait(), 0) << ReadFile(place / "err");
  ExpectCleanSoon();
}

TEST_F(LineEnds, AnUnmountEndsBothSidesOfAMount) {
  StartMount();
  EXPECT_EQ(Shell("fusermount3 -u " + mount_point).status, 0);
  EXPECT_EQ(host->Wait(kSoon), 0) << ReadFile(place / "err");
  ExpectCleanSoon();
}

TEST_F(LineEnds, AnUnmountEndsBothSidesOfARedirect) {
  StartRedirect();
  EXPECT_EQ(Shell("fusermount3 -u " + mount_point).status, 0);
  EXPECT_EQ(host->Wait(kSoon), 0) << ReadFile(place / "err");
  ExpectCleanSoon();
}

TEST_F(LineEnds, AServeThatIsTerminatedEndsTheMount) {
  StartMount();
  for (const pid_t serve : ProcessesOf("serve")) kill(serve, SIGTERM);
  EXPECT_EQ(host->Wait(kSoon), 0) << ReadFile(place / "err");
  ExpectCleanSoon();
}

TEST_F(LineEnds, ADiskThatIsUnmountedEndsItsRedirect) {
  if (mount("none", disk.path().c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "mounting needs root";
  }
  WriteFile(disk / "file", "content");
  StartRedirect();
  EXPECT_EQ(umount2(disk.path().c_str(), MNT_DETACH), 0);
  EXPECT_EQ(host->Wait(kSoon), 1);
  EXPECT_NE(ReadFile(place / "err").find("cpd-host: the disk was unmounted"), std::string::npos)
      << ReadFile(place / "err");
  ExpectCleanSoon();
}

TEST_F(LineEnds, AMountGoesOnWhenItsDiskIsMountedAnew) {
  if (mount("none", disk.path().c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "mounting needs root";
  }
  WriteFile(disk / "file", "content");
  StartMount();
  EXPECT_EQ(umount2(disk.path().c_str(), MNT_DETACH), 0);
  EXPECT_TRUE(Eventually([&] { return Shell("cat " + file, kHang).status == 1; }));
  EXPECT_EQ(mount("none", disk.path().c_str(), "tmpfs", 0, "size=1m"), 0);
  WriteFile(disk / "file", "content");
  ExpectServed();
  ExpectEndsWhenAsked();
  EXPECT_EQ(umount2(disk.path().c_str(), MNT_DETACH), 0);
}

TEST_F(LineEnds, AMountWithoutReconnectionEndsWithItsLine) {
  Start({"mount", "--via", "exec " CPD_HOST " serve " + disk.path(), mount_point, "--reconnect",
         "0"});
  Kill("serve");
  EXPECT_EQ(host->Wait(kSoon), 2);
  EXPECT_NE(ReadFile(place / "err").find("cpd-host: the line's command ended with status 137"),
            std::string::npos)
      << ReadFile(place / "err");
  ExpectCleanSoon();
}

TEST_F(LineEnds, AMountOfAMissingDiskFailsOnTheOtherSide) {
  const auto mount = Shell(CPD_HOST " mount --via 'exec " CPD_HOST " serve " + (disk / "missing") +
                           "' " + mount_point);
  EXPECT_EQ(mount.status, 2);
  EXPECT_EQ(mount.output, "cpd-host: the other side: disk " + (disk / "missing") +
                              ": No such file or directory\n");
}

TEST_F(LineEnds, AMountOnAMissingMountPointFailsHere) {
  const auto mount = Shell(CPD_HOST " mount --via 'exec " CPD_HOST " serve " + disk.path() + "' " +
                           (place / "missing"));
  EXPECT_EQ(mount.status, 1);
}

TEST_F(LineEnds, ARedirectToAMissingMountPointFailsOnTheOtherSide) {
  const auto redirect = Shell(CPD_HOST " redirect " + disk.path() +
                              " --via 'exec " CPD_HOST " attach " + (place / "missing") + "'");
  EXPECT_EQ(redirect.status, 2);
  EXPECT_EQ(redirect.output, "cpd-host: the other side: mount point " + (place / "missing") +
                                 ": No such file or directory\n");
}

TEST_F(LineEnds, ALineThatCannotBeStartedIsExplained) {
  const auto mount = Shell(CPD_HOST " mount --via 'exec /no/such/program' " + mount_point);
  EXPECT_EQ(mount.status, 2);
  EXPECT_NE(mount.output.find("the line's command was not found"), std::string::npos)
      << mount.output;
  const auto no_program =
      Shell(CPD_HOST " mount --via 'exec " + (disk / "file") + "' " + mount_point);
  EXPECT_EQ(no_program.status, 2);
  EXPECT_NE(no_program.output.find("the line's command cannot be executed"), std::string::npos)
      << no_program.output;
}

}  // namespace
}  // namespace system_test
