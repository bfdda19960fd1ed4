// Commands 114 to 118: requests that change names on the disk.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "support/expectations.h"
#include "support/local_records.h"
#include "support/log_and_trace.h"
#include "support/operator_fixture.h"
#include "support/requests.h"

namespace cpd::test {
namespace {

constexpr int16_t kFailed16 = -1;  // 0xffff on the wire

class Names : public OperatorTest {
 protected:
  // The modes of new files must not depend on the umask under which the tests run.
  Names() : umask_(umask(0)) {}
  ~Names() override { umask(umask_); }

  [[nodiscard]] uint32_t ModeOf(const std::string& path) const {
    return StatOf(disk.Local(path)).st_mode & 07777U;
  }
  /// What make_dir echoes: the local path, cut to the length of the relative path.
  [[nodiscard]] std::string EchoOf(const std::string& path) const {
    return disk.Local(path).substr(0, path.size());
  }
  /// Expects the only trace so far to be this handler's failure, without a detail.
  void ExpectFailureTrace(const std::string& handler, const std::string& text) {
    const std::vector<Trace> traces = device.base().Traces();
    ASSERT_EQ(traces.size(), 1U);
    ExpectTrace(traces[0], "DEVICE_REDIR_ERROR", false, handler, text, std::nullopt, disk.root());
  }
  void ExpectNoTrace() { EXPECT_TRUE(device.base().Traces().empty()); }

 private:
  mode_t umask_;
};

// ---- 114 ----

class MakeDir : public Names {
 protected:
  /// Expects a reply with this result.
  void ExpectResult(const Request& request, const std::string& path, int32_t result) {
    ExpectReply(AskRaw(request), request,
                Patched(request.payload, 0, result).substr(0, 8) + EchoOf(path),
                16 + path.size() + 8);
  }
};

TEST_F(MakeDir, MakesAllMissingComponentsWithItsMode) {
  disk.MakeDir("/a");
  const Request request = MakeDirRequest{.path = "/a/b/c", .mode = 0750};
  ExpectResult(request, "/a/b/c", 0);
  EXPECT_TRUE(disk.IsDir("/a/b/c"));
  EXPECT_EQ(ModeOf("/a/b"), 0750U);
  EXPECT_EQ(ModeOf("/a/b/c"), 0750U);
  ExpectNoTrace();
}

TEST_F(MakeDir, EchoesTheBeginningOfTheLocalPathInsteadOfThePathSent) {
  const auto reply = Ask(MakeDirRequest{.path = "/a/bc"});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->path, disk.root().substr(0, 5));
  EXPECT_NE(reply->path, "/a/bc");
}

TEST_F(MakeDir, EchoesPartOfTheRelativePathWhenThatIsLongerThanTheMountPoint) {
  const std::string path = "/" + std::string(disk.root().size() + 7, 'd');
  const auto reply = Ask(MakeDirRequest{.path = path});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->path, (disk.root() + path).substr(0, path.size()));
  EXPECT_TRUE(disk.IsDir(path));
}

TEST_F(MakeDir, WithoutAMountPointEchoesThePathSent) {
  udisk->SetRootPath(nullptr, nullptr);
  const std::string path = disk.Local("/made");
  const auto reply = Ask(MakeDirRequest{.path = path});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->path, path);
  EXPECT_TRUE(disk.IsDir("/made"));
}

TEST_F(MakeDir, TreatsBackslashesAsSeparatorsButEchoesThem) {
  udisk->SetRootPath(nullptr, nullptr);
  const std::string path = disk.Local("/a\\b\\c");
  const auto reply = Ask(MakeDirRequest{.path = path});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->path, path);
  EXPECT_TRUE(disk.IsDir("/a/b/c"));
}

TEST_F(MakeDir, OfAnExistingDirectoryRepliesWithResultZeroAndNoTrace) {
  ExpectResult(MakeDirRequest{.path = kKnownDir}, kKnownDir, 0);
  ExpectNoTrace();
}

TEST_F(MakeDir, WithATrailingSeparatorMakesTheDirectory) {
  ExpectResult(MakeDirRequest{.path = "/a/"}, "/a/", 0);
  EXPECT_TRUE(disk.IsDir("/a"));
}

TEST_F(MakeDir, OverAFileRepliesWithMinusOneAndIsTraced) {
  ExpectResult(MakeDirRequest{.path = kKnownFile}, kKnownFile, -1);
  ExpectFailureTrace("make_dir", "udisk make_dir fail");
}

TEST_F(MakeDir, BelowAFileRepliesWithMinusOneAndIsTraced) {
  ExpectResult(MakeDirRequest{.path = "/known.txt/a"}, "/known.txt/a", -1);
  ExpectFailureTrace("make_dir", "udisk make_dir fail");
}

TEST_F(MakeDir, LogsItsPathThenTheDirectoriesOnTheWayThenItsResult) {
  Deliver(MakeDirRequest{.path = "/known.txt/a", .mode = 0755});
  const std::string local = disk.Local("/known.txt/a");
  Texts expected = {
      DebugLine("make_dir", "make dir full path: " + local + ",path len:12, mode: 493\\n")};
  for (size_t at = local.find('/', 1); at != std::string::npos; at = local.find('/', at + 1)) {
    expected.push_back(DebugLine("UdiskMakeDir", "pszDir:" + local.substr(0, at) + "\\n"));
  }
  expected.push_back(TraceLine(disk.root()));
  expected.push_back(DebugLine("make_dir", "make dir resule: -1"));
  expected.push_back(DebugLine("make_dir", "make dir send back size:36"));
  EXPECT_EQ(LogSoFar(), expected);
  EXPECT_EQ(Log().Lines()[0].file, "operator.cpp");
}

TEST_F(MakeDir, LogsItsModeAsASignedNumber) {
  Deliver(MakeDirRequest{.path = "/a", .mode = static_cast<int16_t>(0x8000 | 0711)});
  EXPECT_EQ(Log().Messages()[0],
            "make dir full path: " + disk.Local("/a") + ",path len:2, mode: -32311\\n");
  EXPECT_EQ(ModeOf("/a") & 0777U, 0711U);
}

TEST_F(MakeDir, HasTheseBytesOnTheWire) {
  udisk->SetRootPath("/", "");
  const Request request{.cmd = 114,
                        .payload = std::string("\x55\x55\x55\x55"
                                               "\4\0"
                                               "\xed\1"
                                               "/tmp",
                                               12)};
  ExpectReply(AskRaw(request), request,
              std::string("\0\0\0\0"
                          "\4\0"
                          "\xed\1"
                          "//tm",
                          12),
              16 + 4 + 8);
}

// ---- 115 ----

class RemoveDir : public Names {};

TEST_F(RemoveDir, OfAnEmptyDirectoryRemovesItAndRepliesWithResultZero) {
  Request request = RemoveDirRequest{.path = kKnownDir};
  request.payload = Patched(request.payload, 2, uint16_t{0x5555});
  ExpectReply(AskRaw(request), request, Patched(request.payload, 2, int16_t{0}), 16 + 6 + 4);
  EXPECT_FALSE(disk.Exists(kKnownDir));
  ExpectNoTrace();
}

TEST_F(RemoveDir, OfANonEmptyDirectoryRepliesWith0xffffIn16BitsAndIsTraced) {
  disk.MakeFile("/known/a", "");
  const Request request = RemoveDirRequest{.path = kKnownDir};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 2, kFailed16), 16 + 6 + 4);
  EXPECT_TRUE(disk.Exists("/known/a"));
  ExpectFailureTrace("remove_dir", "udisk remove_dir fail");
}

TEST_F(RemoveDir, OfAFileOrAMissingDirectoryFails) {
  for (const char* path : {kKnownFile, "/none"}) {
    const auto reply = Ask(RemoveDirRequest{.path = path});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result(), -1) << path;
  }
  EXPECT_TRUE(disk.Exists(kKnownFile));
  EXPECT_EQ(device.base().Traces().size(), 2U);
}

TEST_F(RemoveDir, LogsPathTraceResultAndSizeInThisOrder) {
  Deliver(RemoveDirRequest{.path = "/none"});
  EXPECT_EQ(
      LogSoFar(),
      (Texts{DebugLine("remove_dir", "remove dir full path: " + disk.Local("/none") + ",name\\n"),
             TraceLine(disk.root()), DebugLine("remove_dir", "remove dir resule: -1"),
             DebugLine("remove_dir", "remove dir send back size:25")}));
}

TEST_F(RemoveDir, HasTheseBytesOnTheWire) {
  const Request request{.cmd = 115,
                        .payload = std::string("\5\0"
                                               "\x55\x55"
                                               "/none",
                                               9)};
  ExpectReply(AskRaw(request), request,
              std::string("\5\0"
                          "\xff\xff"
                          "/none",
                          9),
              16 + 5 + 4);
}

// ---- 116 ----

class SetLink : public Names {};

TEST_F(SetLink, GivesAFileASecondName) {
  Request request = LinkRequest{.path = kKnownFile, .new_path = "/known/b.txt"};
  request.payload = Patched(request.payload, 0, 0x55555555);
  ExpectReply(AskRaw(request), request, Patched(request.payload, 0, 0), 16 + 10 + 12 + 8);
  EXPECT_EQ(+StatOf(disk.Local("/known/b.txt")).st_ino, +StatOf(disk.Local(kKnownFile)).st_ino);
  EXPECT_EQ(disk.ReadBack("/known/b.txt"), "known content");
}

TEST_F(SetLink, WhereTheNewPathExistsRepliesWithMinusOneAndIsNotTraced) {
  disk.MakeFile("/b.txt", "b");
  const Request request = LinkRequest{.path = kKnownFile, .new_path = "/b.txt"};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 0, -1), 16 + 10 + 6 + 8);
  EXPECT_EQ(disk.ReadBack("/b.txt"), "b");
  ExpectNoTrace();
}

TEST_F(SetLink, OfADirectoryOrAMissingFileFails) {
  for (const char* path : {kKnownDir, "/none"}) {
    const auto reply = Ask(LinkRequest{.path = path, .new_path = "/b"});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result, -1) << path;
    EXPECT_FALSE(disk.Exists("/b"));
  }
  ExpectNoTrace();
}

TEST_F(SetLink, LogsPathsResultAndSizeInThisOrder) {
  Deliver(LinkRequest{.path = "/none", .new_path = "/b"});
  EXPECT_EQ(LogSoFar(),
            (Texts{DebugLine("set_link", "set link full from path: " + disk.Local("/none") +
                                             ", to path: " + disk.Local("/b") + "\\n"),
                   DebugLine("set_link", "set link resule: -1"),
                   DebugLine("set_link", "set link send back size:31")}));
}

TEST_F(SetLink, HasTheseBytesOnTheWire) {
  const Request request{.cmd = 116,
                        .payload = std::string("\x55\x55\x55\x55"
                                               "\x0a\0"
                                               "\2\0"
                                               "/known.txt/b",
                                               20)};
  ExpectReply(AskRaw(request), request,
              std::string("\0\0\0\0"
                          "\x0a\0"
                          "\2\0"
                          "/known.txt/b",
                          20),
              16 + 10 + 2 + 8);
  EXPECT_TRUE(disk.Exists("/b"));
}

// ---- 117 ----

class SetUnlink : public Names {};

TEST_F(SetUnlink, RemovesTheFileAndRepliesWithResultZero) {
  Request request = UnlinkRequest{.path = kKnownFile};
  request.payload = Patched(request.payload, 2, uint16_t{0x5555});
  ExpectReply(AskRaw(request), request, Patched(request.payload, 2, int16_t{0}), 16 + 10 + 4);
  EXPECT_FALSE(disk.Exists(kKnownFile));
}

TEST_F(SetUnlink, OfAMissingFileRepliesWith0xffffAndLogsTheReasonInsteadOfATrace) {
  const Request request = UnlinkRequest{.path = "/none"};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 2, kFailed16), 16 + 5 + 4);
  EXPECT_EQ(Log().Messages(kError), Texts{"set unlink error: No such file or directory"});
  ExpectNoTrace();
}

TEST_F(SetUnlink, OfADirectoryFails) {
  const auto reply = Ask(UnlinkRequest{.path = kKnownDir});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->result(), -1);
  EXPECT_EQ(Log().Messages(kError), Texts{"set unlink error: Is a directory"});
}

TEST_F(SetUnlink, OfALinkRemovesTheLink) {
  disk.MakeLink("/link", disk.Local(kKnownFile));
  Deliver(UnlinkRequest{.path = "/link"});
  EXPECT_FALSE(disk.Exists("/link"));
  EXPECT_TRUE(disk.Exists(kKnownFile));
}

TEST_F(SetUnlink, LogsPathFailureResultAndSizeInThisOrder) {
  Deliver(UnlinkRequest{.path = "/none"});
  EXPECT_EQ(
      LogSoFar(),
      (Texts{DebugLine("set_unlink", "set unlink full from path: " + disk.Local("/none") + "\\n"),
             ErrorLine("set_unlink", "set unlink error: No such file or directory"),
             DebugLine("set_unlink", "set unlink resule: -1"),
             DebugLine("set_unlink", "set unlink send back size:25")}));
  Log().Clear();
  Deliver(UnlinkRequest{.path = kKnownFile});
  EXPECT_EQ(LogSoFar(), (Texts{DebugLine("set_unlink", "set unlink full from path: " +
                                                           disk.Local(kKnownFile) + "\\n"),
                               DebugLine("set_unlink", "set unlink resule: 0"),
                               DebugLine("set_unlink", "set unlink send back size:30")}));
}

TEST_F(SetUnlink, HasTheseBytesOnTheWire) {
  const Request request{.cmd = 117,
                        .payload = std::string("\5\0"
                                               "\x55\x55"
                                               "/none",
                                               9)};
  ExpectReply(AskRaw(request), request,
              std::string("\5\0"
                          "\xff\xff"
                          "/none",
                          9),
              16 + 5 + 4);
}

// ---- 118 ----

class SetRename : public Names {};

TEST_F(SetRename, MovesTheFileAndRepliesWithResultZero) {
  Request request = RenameRequest{.path = kKnownFile, .new_path = "/known/b.txt"};
  request.payload = Patched(request.payload, 0, 0x55555555);
  ExpectReply(AskRaw(request), request, Patched(request.payload, 0, 0), 16 + 10 + 12 + 8);
  EXPECT_FALSE(disk.Exists(kKnownFile));
  EXPECT_EQ(disk.ReadBack("/known/b.txt"), "known content");
  ExpectNoTrace();
}

TEST_F(SetRename, OntoAnExistingFileReplacesIt) {
  disk.MakeFile("/b.txt", "b");
  const auto reply = Ask(RenameRequest{.path = kKnownFile, .new_path = "/b.txt"});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->result, 0);
  EXPECT_EQ(reply->path, kKnownFile);
  EXPECT_EQ(reply->new_path, "/b.txt");
  EXPECT_EQ(disk.ReadBack("/b.txt"), "known content");
}

TEST_F(SetRename, OfADirectoryMovesItWithItsContent) {
  disk.MakeFile("/known/a", "a");
  Deliver(RenameRequest{.path = kKnownDir, .new_path = "/moved"});
  EXPECT_EQ(disk.ReadBack("/moved/a"), "a");
}

TEST_F(SetRename, OfAMissingFileRepliesWithMinusOneAndIsTraced) {
  const Request request = RenameRequest{.path = "/none", .new_path = "/b"};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 0, -1), 16 + 5 + 2 + 8);
  ExpectFailureTrace("set_rename", "udisk set_rename fail");
}

TEST_F(SetRename, IntoAMissingDirectoryFailsAndMakesNone) {
  const auto reply = Ask(RenameRequest{.path = kKnownFile, .new_path = "/none/b"});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->result, -1);
  EXPECT_FALSE(disk.Exists("/none"));
}

TEST_F(SetRename, LogsPathsTraceResultAndSizeInThisOrder) {
  Deliver(RenameRequest{.path = "/none", .new_path = "/b"});
  EXPECT_EQ(LogSoFar(),
            (Texts{DebugLine("set_rename", "set rename full from path: " + disk.Local("/none") +
                                               ", to path: " + disk.Local("/b") + "\\n"),
                   DebugLine("UdiskRename", "rename return res:-1\\n"), TraceLine(disk.root()),
                   DebugLine("set_rename", "set rename resule: -1"),
                   DebugLine("set_rename", "set rename send back size:31")}));
  Log().Clear();
  Deliver(RenameRequest{.path = kKnownFile, .new_path = "/b"});
  EXPECT_EQ(LogSoFar(),
            (Texts{DebugLine("set_rename", "set rename full from path: " + disk.Local(kKnownFile) +
                                               ", to path: " + disk.Local("/b") + "\\n"),
                   DebugLine("UdiskRename", "rename return res:0\\n"),
                   DebugLine("set_rename", "set rename resule: 0"),
                   DebugLine("set_rename", "set rename send back size:36")}));
}

TEST_F(SetRename, HasTheseBytesOnTheWire) {
  const Request request{.cmd = 118,
                        .payload = std::string("\x55\x55\x55\x55"
                                               "\x0a\0"
                                               "\2\0"
                                               "/known.txt/b",
                                               20)};
  ExpectReply(AskRaw(request), request,
              std::string("\0\0\0\0"
                          "\x0a\0"
                          "\2\0"
                          "/known.txt/b",
                          20),
              16 + 10 + 2 + 8);
  EXPECT_EQ(disk.ReadBack("/b"), "known content");
}

// ---- Shared by the five commands ----

TEST_F(Names, RequestsSetModifiedOnSuccessAndOnFailure) {
  const Request requests[] = {
      MakeDirRequest{.path = "/made"},
      MakeDirRequest{.path = kKnownFile},
      RemoveDirRequest{.path = "/made"},
      RemoveDirRequest{.path = "/none"},
      LinkRequest{.path = kKnownFile, .new_path = "/linked"},
      LinkRequest{.path = "/none", .new_path = "/linked"},
      UnlinkRequest{.path = "/linked"},
      UnlinkRequest{.path = "/none"},
      RenameRequest{.path = kKnownFile, .new_path = "/b"},
      RenameRequest{.path = "/none", .new_path = "/b"},
  };
  for (const Request& request : requests) {
    udisk->modified = 0;
    Deliver(request);
    EXPECT_NE(udisk->modified, 0) << PayloadOf(*request.Packet());
  }
}

TEST_F(Names, TheNextStatisticsAfterAnyOfTheRequestsAreFresh) {
  const Request requests[] = {MakeDirRequest{.path = "/made"}, RemoveDirRequest{.path = "/made"},
                              LinkRequest{.path = kKnownFile, .new_path = "/linked"},
                              UnlinkRequest{.path = "/linked"},
                              RenameRequest{.path = kKnownFile, .new_path = "/b"}};
  for (const Request& request : requests) {
    udisk->modified = 0;
    udisk->mVolumes.front()->stat.f_namemax = 1;
    const auto cached = Ask(StatvfsRequest{.path = ""});
    ASSERT_TRUE(cached && cached->records.size() == 1);
    EXPECT_EQ(+cached->records[0].f_namemax, 1U);
    Deliver(request);
    const auto fresh = Ask(StatvfsRequest{.path = ""});
    ASSERT_TRUE(fresh && fresh->records.size() == 1);
    EXPECT_NE(+fresh->records[0].f_namemax, 1U) << "after " << request.cmd;
  }
}

TEST_F(Names, TheSecondPathFollowsTheFirstDirectly) {
  // Only the lengths separate the two paths.
  disk.MakeFile("/a", "first");
  Deliver(RenameRequest{.path = "/a", .new_path = "/a/a"});
  EXPECT_EQ(disk.ReadBack("/a"), "first") << "a file cannot be moved below itself";
  Deliver(RenameRequest{.path = "/a", .new_path = "/bc"});
  EXPECT_EQ(disk.ReadBack("/bc"), "first");
}

TEST_F(Names, PathsWithDotsAreJoinedUnchanged) {
  disk.MakeFile("/a", "a");
  Deliver(RenameRequest{.path = "/known/../a", .new_path = "/known/./b"});
  EXPECT_EQ(disk.ReadBack("/known/b"), "a");
}

TEST_F(Names, ALocalPathEndsAtItsFirstNulButTheReplyHasAllOfIt) {
  disk.MakeFile("/a", "a");
  const Request request =
      RenameRequest{.path = std::string("/a\0x", 4), .new_path = std::string("/b\0yz", 5)};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 0, 0), 16 + 4 + 5 + 8);
  EXPECT_EQ(disk.ReadBack("/b"), "a");
}

TEST_F(Names, ADirectoryWhosePathHasANulIsEchoedWithZerosAfterIt) {
  const size_t more = disk.root().size() + 5;
  for (const std::string& path :
       {"/m" + std::string(more, '\0'), std::string("/n\0", 3) + std::string(more, 'x')}) {
    const auto reply = Ask(MakeDirRequest{.path = path});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result(), 0);
    const std::string name = path.substr(0, 2);
    EXPECT_EQ(reply->path, (disk.root() + name + std::string(more, '\0')).substr(0, path.size()));
    EXPECT_TRUE(disk.IsDir(name));
  }
}

TEST_F(Names, PathsOfTheGreatestLengthAreAccepted) {
  const std::string path = "/" + std::string(65534, 'p');
  const Request rename = RenameRequest{.path = path, .new_path = path};
  ExpectReply(AskRaw(rename), rename, Patched(rename.payload, 0, -1), 16 + 2 * 65535 + 8);
  const Request unlink = UnlinkRequest{.path = path};
  ExpectReply(AskRaw(unlink), unlink, Patched(unlink.payload, 2, kFailed16), 16 + 65535 + 4);
  const auto made = Ask(MakeDirRequest{.path = path});
  ASSERT_TRUE(made);
  EXPECT_EQ(made->result(), -1);
  EXPECT_TRUE(made->path == EchoOf(path));
}

TEST_F(Names, ResultsAreWrittenIntoTheRequest) {
  struct Case {
    Request request;
    int64_t (UDiskOperator::*handler)(unsigned char, CpdPacket*);
    std::string head;
  };
  const std::string failed(4, '\xff');
  const Case cases[] = {
      {MakeDirRequest{.path = "/known.txt/a"}, &UDiskOperator::make_dir, failed},
      {RemoveDirRequest{.path = "/none"}, &UDiskOperator::remove_dir,
       std::string("\5\0\xff\xff", 4)},
      {LinkRequest{.path = "/none", .new_path = "/b"}, &UDiskOperator::set_link, failed},
      {UnlinkRequest{.path = "/none"}, &UDiskOperator::set_unlink, std::string("\5\0\xff\xff", 4)},
      {RenameRequest{.path = "/none", .new_path = "/b"}, &UDiskOperator::set_rename, failed},
  };
  for (const Case& c : cases) {
    const auto packet = c.request.Packet();
    (udisk.get()->*c.handler)(16, packet.get());
    EXPECT_EQ(PayloadOf(*packet).substr(0, 4), c.head) << c.request.cmd;
    EXPECT_EQ(PayloadOf(*packet).substr(4), c.request.payload.substr(4)) << c.request.cmd;
  }
}

TEST_F(Names, FailuresAfterTheDeviceIsGoneAreAnsweredWithoutATrace) {
  device.DropBase();
  const Request requests[] = {MakeDirRequest{.path = kKnownFile}, RemoveDirRequest{.path = "/none"},
                              RenameRequest{.path = "/none", .new_path = "/b"}};
  for (const Request& request : requests) EXPECT_TRUE(AskRaw(request)) << request.cmd;
  ExpectNoTrace();
}

}  // namespace
}  // namespace cpd::test
