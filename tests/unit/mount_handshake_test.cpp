// Commands 100, 101 and 200: the mount point of later requests, and the remote side's name for the
// disk.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/expectations.h"
#include "support/fake_user.h"
#include "support/operator_fixture.h"

namespace cpd::test {
namespace {

namespace fs = std::filesystem;

class MountHandshake : public OperatorTest {
 protected:
  MountHandshake() { fs::create_directory(home); }

  const std::string home = disk.letter() + "home";
};

// ---- 100 ----

class MountRemote : public MountHandshake {
 protected:
  static constexpr uid_t kSomeUser = 1000;
};

TEST_F(MountRemote, AsAUserMakesTheDirectoryInTheHomeLogsItsPathAndClearsTheMountPoint) {
  const FakeUser user(kSomeUser, home);
  ASSERT_TRUE(Ask(MountRequest{.name = "DISK"}));
  EXPECT_TRUE(fs::is_directory(home + "/DISK"));
  EXPECT_EQ(Log().Messages(kDebug), (Texts{"mkdir res: 0", "mount path: " + home + "/DISK\\n"}));
  EXPECT_EQ(Log().Messages(kError), Texts{});
  EXPECT_EQ(udisk->GetLocalMountPoint(), "");
  EXPECT_TRUE(udisk->mVolumes.empty());
}

TEST_F(MountRemote, AsRootMakesTheDirectoryUnderMedia) {
  if (access("/media", W_OK) != 0) GTEST_SKIP() << "this user cannot write to /media";
  const std::string name = std::string(kUnlikelyDisk) + "-" + std::to_string(getpid());
  const std::string path = "/media/" + name;
  const FakeUser root(0, home);
  ASSERT_TRUE(Ask(MountRequest{.name = name}));
  EXPECT_TRUE(fs::is_directory(path));
  EXPECT_EQ(rmdir(path.c_str()), 0);
  EXPECT_EQ(Log().Messages(), (Texts{"mkdir res: 0", "mount path: " + path + "\\n"}));
  EXPECT_EQ(udisk->GetLocalMountPoint(), "");
}

TEST_F(MountRemote, LogsAsTheHandlerInTheOperatorsFile) {
  const FakeUser user(kSomeUser, home);
  Deliver(MountRequest{.name = "DISK"});
  ASSERT_FALSE(Log().Lines().empty());
  for (const LogLine& line : Log().Lines()) {
    EXPECT_EQ(line.file, "operator.cpp");
    EXPECT_EQ(line.function, "mount_remote");
    EXPECT_EQ(line.word, "Debug:");
  }
}

TEST_F(MountRemote, EchoesTheNameInABufferOfExactlyThatSize) {
  const FakeUser user(kSomeUser, home);
  const Request request{
      .cmd = 100, .payload = std::string("\4\0DISK", 6), .request_id = 0x01020304};
  ExpectReply(AskRaw(request), request, std::string("\4\0DISK", 6), 16 + 2 + 4);
}

TEST_F(MountRemote, DoesNotEchoTheTwoExtraBytesOfAnAnnouncement) {
  const FakeUser user(kSomeUser, home);
  const Request request{.cmd = 100, .payload = std::string("\4\0DISK\0\1", 8)};
  ExpectReply(AskRaw(request), request, std::string("\4\0DISK", 6), 16 + 2 + 4);
}

TEST_F(MountRemote, TheSecondTimeFindsTheDirectoryLogsNoMkdirAndRepliesAgain) {
  const FakeUser user(kSomeUser, home);
  ASSERT_TRUE(Ask(MountRequest{.name = "DISK"}));
  Log().Clear();
  ASSERT_TRUE(Ask(MountRequest{.name = "DISK"}));
  EXPECT_EQ(Log().Messages(), Texts{"mount path: " + home + "/DISK\\n"});
}

TEST_F(MountRemote, OfLengthZeroUsesTheHomeWithASlashAndRepliesWithTwoZeroBytes) {
  const FakeUser user(kSomeUser, home);
  const Request request = MountRequest{.name = ""};
  ExpectReply(AskRaw(request), request, std::string(2, '\0'), 16 + 2);
  EXPECT_EQ(Log().Messages(), Texts{"mount path: " + home + "/\\n"});
}

TEST_F(MountRemote, OfLengthZeroAsRootUsesMediaWithASlash) {
  if (!fs::is_directory("/media")) GTEST_SKIP() << "there is no /media here";
  const FakeUser root(0, home);
  const Request request = MountRequest{.name = ""};
  ExpectReply(AskRaw(request), request, std::string(2, '\0'), 16 + 2);
  EXPECT_EQ(Log().Messages(), Texts{"mount path: /media/\\n"});
}

TEST_F(MountRemote, TreatsAUserWhoseIdEndsIn16ZeroBitsAsRoot) {
  if (!fs::is_directory("/media")) GTEST_SKIP() << "there is no /media here";
  const FakeUser user(0x10000, home);
  Deliver(MountRequest{.name = ""});
  EXPECT_EQ(Log().Messages(), Texts{"mount path: /media/\\n"});
}

TEST_F(MountRemote, UsesTheDirectoryOfRootWhenTheUserIsUnknown) {
  if (!fs::is_directory("/media")) GTEST_SKIP() << "there is no /media here";
  const FakeUser user(kSomeUser, std::nullopt);
  EXPECT_TRUE(Ask(MountRequest{.name = ""}));
  EXPECT_EQ(Log().Messages(), Texts{"mount path: /media/\\n"});
}

TEST_F(MountRemote, MakesTheDirectoryForEveryone) {
  const FakeUser user(kSomeUser, home);
  const mode_t before = umask(0);
  Deliver(MountRequest{.name = "DISK"});
  umask(before);
  EXPECT_EQ(fs::status(home + "/DISK").permissions(), fs::perms{0777});
}

TEST_F(MountRemote, CutsThePathAt255Characters) {
  const FakeUser user(kSomeUser, home);
  const std::string name(300, 'n');
  const std::string path = (home + "/" + name).substr(0, 255);
  const auto reply = Ask(MountRequest{.name = name});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->name, name);
  EXPECT_TRUE(fs::is_directory(path));
  EXPECT_EQ(Log().Messages(), (Texts{"mkdir res: 0", "mount path: " + path + "\\n"}));
}

TEST_F(MountRemote, TakesANameOf65535Bytes) {
  const FakeUser user(kSomeUser, home);
  const Request request = MountRequest{.name = std::string(65535, 'n')};
  ExpectReply(AskRaw(request), request, request.payload, 16 + 2 + 65535);
}

TEST_F(MountRemote, UsesANameWithDotsAndSlashesUnchanged) {
  const FakeUser user(kSomeUser, home);
  ASSERT_TRUE(Ask(MountRequest{.name = "../beside"}));
  EXPECT_TRUE(fs::is_directory(disk.letter() + "beside"));
}

TEST_F(MountRemote, EchoesANameWithANulInFullButUsesOnlyThePartBeforeIt) {
  const FakeUser user(kSomeUser, home);
  const std::string name("A\0B", 3);
  const auto reply = Ask(MountRequest{.name = name});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->name, name);
  EXPECT_EQ(Log().Messages(), (Texts{"mkdir res: 0", "mount path: " + home + "/A\\n"}));
}

TEST_F(MountRemote, WhoseDirectoryCannotBeMadeLogsItsFailureClearsTheMountPointAndReplies) {
  const FakeUser user(kSomeUser, home);
  EXPECT_TRUE(Ask(MountRequest{.name = "missing/child"}));
  EXPECT_EQ(Log().Messages(),
            (Texts{"mkdir res: -1", "mount path: " + home + "/missing/child\\n"}));
  EXPECT_EQ(udisk->GetLocalMountPoint(), "");
}

TEST_F(MountRemote, WithAFileInTheDirectorysPlaceLogsAFailedMkdir) {
  const FakeUser user(kSomeUser, disk.root());
  EXPECT_TRUE(Ask(MountRequest{.name = kKnownFile + 1}));
  EXPECT_EQ(Log().Messages(),
            (Texts{"mkdir res: -1", "mount path: " + disk.root() + kKnownFile + "\\n"}));
}

// ---- 101 ----

class UmountRemote : public MountHandshake {};

TEST_F(UmountRemote, ClearsMountPointAndVolumesAndLogsAnEmptyPath) {
  ASSERT_TRUE(Ask(UmountRequest{.name = "DISK"}));
  EXPECT_EQ(Log().Messages(), Texts{"umount path: \\n"});
  EXPECT_EQ(Log().Lines().front().function, "umount_remote");
  EXPECT_EQ(udisk->GetLocalMountPoint(), "");
  EXPECT_TRUE(udisk->mVolumes.empty());
}

TEST_F(UmountRemote, EchoesTheNameInABufferOfExactlyThatSize) {
  const Request request{
      .cmd = 101, .payload = std::string("\4\0DISK", 6), .request_id = 0xfffefdfc};
  ExpectReply(AskRaw(request), request, std::string("\4\0DISK", 6), 16 + 2 + 4);
}

TEST_F(UmountRemote, RepliesEvenWhenNothingIsMounted) {
  Deliver(UmountRequest{.name = "DISK"});
  const auto reply = Ask(UmountRequest{.name = "another"});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->name, "another");
}

TEST_F(UmountRemote, OfLengthZeroRepliesWithTwoZeroBytes) {
  const Request request = UmountRequest{.name = ""};
  ExpectReply(AskRaw(request), request, std::string(2, '\0'), 16 + 2);
}

TEST_F(UmountRemote, LeavesTheDirectoryThatMountRemoteMade) {
  const FakeUser user(1000, home);
  Deliver(MountRequest{.name = "DISK"});
  Deliver(UmountRequest{.name = "DISK"});
  EXPECT_TRUE(fs::is_directory(home + "/DISK"));
}

TEST_F(UmountRemote, MakesThePathsOfLaterRequestsStartAtTheRoot) {
  Deliver(UmountRequest{.name = "DISK"});
  const auto relative = Ask(AttrRequest{.path = kKnownFile});
  const auto full = Ask(AttrRequest{.path = disk.Local(kKnownFile)});
  ASSERT_TRUE(relative && full);
  EXPECT_EQ(relative->attr_length, 0);
  EXPECT_EQ(full->attr_length, 120);
}

// ---- 200 ----

class MountResponseTest : public MountHandshake {};

TEST_F(MountResponseTest, StoresTheDriveAndSendsNothing) {
  EXPECT_EQ(AskRaw(MountResponse{.drive = "U:", .label = "STICK"}), std::nullopt);
  EXPECT_EQ(udisk->GetRemoteMountPoint(), "U:");
  EXPECT_EQ(udisk->GetDrvName(), "U:");
  EXPECT_EQ(udisk->GetLocalMountPoint(), disk.root());
}

TEST_F(MountResponseTest, UsesTheFirstLengthForTheSecondText) {
  Deliver(Request{.cmd = 200, .payload = std::string("\5\0\2\0U:STICK", 11)});
  EXPECT_EQ(udisk->GetRemoteMountPoint(), "U:");
  EXPECT_TRUE(Log().Has(kDebug, "mount_response header_len: 4, label: STICK, drive: U:\\n"));
}

TEST_F(MountResponseTest, LogsTheVirtualMachineThenItsTextsThenTheTracesMountPoint) {
  udisk->mVmId = 42;
  Deliver(MountResponse{.drive = "U:", .label = "STICK"});
  EXPECT_EQ(Log().Messages(kDebug),
            (Texts{"vmId: 42", "mount_response header_len: 4, label: STICK, drive: U:\\n",
                   "local mMountDrive:" + disk.root()}));
  EXPECT_EQ(Log().Messages(kError), Texts{});
  EXPECT_EQ(Log().Lines().front().file, "operator.cpp");
  EXPECT_EQ(Log().Lines().front().function, "mount_response");
}

TEST_F(MountResponseTest, TracesDeviceOpenWithTheDriveAndWhereItHappened) {
  Deliver(MountResponse{.drive = "U:", .label = "STICK"});
  const std::vector<Trace> traces = device.base().Traces();
  ASSERT_EQ(traces.size(), 1U);
  EXPECT_EQ(traces[0].event, "LOCAL_DEVICE_OPEN");
  EXPECT_EQ(traces[0].detail, std::nullopt);
  auto fields = traces[0].fields;
  ExpectMadeIn("mount_response", "udisk create success RemoteMountPoint:U:", fields["message"]);
  fields.erase("message");
  EXPECT_EQ(fields, (std::map<std::string, std::string>{
                        {"status", "success"}, {"success", "true"}, {"productName", disk.root()}}));
}

TEST_F(MountResponseTest, WithTwoEmptyTextsStoresAnEmptyDriveAndStillTraces) {
  Deliver(MountResponse{.drive = "U:"});
  EXPECT_EQ(AskRaw(MountResponse{.drive = "", .label = ""}), std::nullopt);
  EXPECT_EQ(udisk->GetRemoteMountPoint(), "");
  const std::vector<Trace> traces = device.base().Traces("LOCAL_DEVICE_OPEN");
  ASSERT_EQ(traces.size(), 2U);
  EXPECT_TRUE(
      traces[1].fields.at("message").ends_with(")] udisk create success RemoteMountPoint:"));
}

TEST_F(MountResponseTest, ReplacesTheDriveEachTime) {
  Deliver(MountResponse{.drive = "a rather long name of a drive"});
  Deliver(MountResponse{.drive = "V:"});
  EXPECT_EQ(udisk->GetRemoteMountPoint(), "V:");
}

TEST_F(MountResponseTest, EndsTheDriveAtItsFirstNul) {
  Deliver(MountResponse{.drive = std::string("U:\0x", 4), .label = "STICK"});
  EXPECT_EQ(udisk->GetRemoteMountPoint(), "U:");
}

TEST_F(MountResponseTest, AfterTheDeviceIsGoneStoresTheDriveWithoutATrace) {
  device.DropBase();
  Deliver(MountResponse{.drive = "U:"});
  EXPECT_EQ(udisk->GetRemoteMountPoint(), "U:");
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(MountResponseTest, ReturnsMinusOne) {
  const auto packet = Request(MountResponse{.drive = "U:"}).Packet();
  EXPECT_EQ(udisk->mount_response(0, packet.get()), -1);
  EXPECT_TRUE(device.Sent().empty());
}

}  // namespace
}  // namespace cpd::test
