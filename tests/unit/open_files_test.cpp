// Commands 103, 109 to 112, 119 and 120: requests about open files, each of which names its file by
// its path.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <limits>
#include <string>

#include "support/expectations.h"
#include "support/local_records.h"
#include "support/log_and_trace.h"
#include "support/operator_fixture.h"
#include "support/requests.h"

namespace cpd::test {
namespace {

constexpr uint64_t kCap = 10485760;

class OpenFiles : public OperatorTest {
 protected:
  // The modes of new files must not depend on the umask under which the tests run.
  OpenFiles() : umask_(umask(0)) {}
  ~OpenFiles() override { umask(umask_); }

  [[nodiscard]] uint32_t ModeOf(const std::string& path) const {
    return StatOf(disk.Local(path)).st_mode & 07777U;
  }
  [[nodiscard]] int64_t SizeOf(const std::string& path) const {
    return StatOf(disk.Local(path)).st_size;
  }
  /// The log lines about the directories above a path on the disk.
  [[nodiscard]] Texts ParentLines(const std::string& path) const {
    const std::string local = disk.Local(path);
    Texts lines;
    for (size_t at = local.find('/', 1); at != std::string::npos; at = local.find('/', at + 1)) {
      lines.push_back(DebugLine("UdiskMakeDir", "pszDir:" + local.substr(0, at) + "\\n"));
    }
    return lines;
  }

 private:
  mode_t umask_;
};

// ---- 103 ----

class FileCreate : public OpenFiles {
 protected:
  void ExpectRedirErrors(size_t count) {
    EXPECT_EQ(device.base().Traces("LOCAL_DEVICE_REDIR_ERROR").size(), count);
    EXPECT_EQ(device.base().Traces().size(), count);
  }
  /// Closes the descriptor that a retried create left open.
  static void CloseLeftOpen(int fd) { EXPECT_EQ(close(fd), 0) << "was not open"; }
};

TEST_F(FileCreate, MakesTheFileWithItsModeAndRepliesWithHeadAndPathInABufferOfExactlyThatSize) {
  const Request request = CreateRequest{.path = "/new.txt", .mode = 0640, .flags = 0x42};
  const auto reply = AskRaw(request);
  ASSERT_TRUE(reply);
  const int32_t fd = CreateRequest::Reply::Decode(*reply).result();
  EXPECT_GE(fd, 0);
  ExpectReply(reply, request, Patched(request.payload, 12, fd), 16 + 8 + 16);
  EXPECT_EQ(disk.ReadBack("/new.txt"), "");
  EXPECT_EQ(ModeOf("/new.txt"), 0640U);
  ExpectRedirErrors(0);
}

TEST_F(FileCreate, OfAnExistingFileEmptiesItAndKeepsItsMode) {
  ASSERT_EQ(chmod(disk.Local(kKnownFile).c_str(), 0604), 0);
  const auto reply = Ask(CreateRequest{.path = kKnownFile, .mode = 0777});
  ASSERT_TRUE(reply);
  EXPECT_GE(reply->result(), 0);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "");
  EXPECT_EQ(ModeOf(kKnownFile), 0604U);
}

TEST_F(FileCreate, MakesMissingParentsWithMode0777AndThenTheFileWithTheRequestedMode) {
  const auto reply = Ask(CreateRequest{.path = "/a/b/c.txt", .mode = 0600});
  ASSERT_TRUE(reply);
  ASSERT_GE(reply->result(), 0);
  CloseLeftOpen(reply->result());
  EXPECT_TRUE(disk.IsDir("/a"));
  EXPECT_TRUE(disk.IsDir("/a/b"));
  EXPECT_EQ(ModeOf("/a"), 0777U);
  EXPECT_EQ(ModeOf("/a/b"), 0777U);
  EXPECT_EQ(disk.ReadBack("/a/b/c.txt"), "");
  EXPECT_EQ(ModeOf("/a/b/c.txt"), 0600U);
  ExpectRedirErrors(0);
}

TEST_F(FileCreate, TreatsBackslashesAsSeparatorsOnlyToMakeMissingParents) {
  const auto reply = Ask(CreateRequest{.path = "/a\\b/c.txt"});
  ASSERT_TRUE(reply);
  // It makes the directories a and a/b, but the file needs the directory "a\b", which is missing.
  EXPECT_EQ(reply->result(), -1);
  EXPECT_TRUE(disk.IsDir("/a/b"));
  EXPECT_FALSE(disk.Exists("/a/b/c.txt"));
}

TEST_F(FileCreate, LeavesNoDescriptorOpenWhenTheParentExists) {
  const size_t before = OpenDescriptors();
  const auto reply = Ask(CreateRequest{.path = "/new.txt"});
  ASSERT_TRUE(reply);
  EXPECT_EQ(OpenDescriptors(), before);
  EXPECT_EQ(fcntl(reply->result(), F_GETFD), -1) << "the number is that of a closed descriptor";
}

TEST_F(FileCreate, LeavesTheDescriptorOfARetryOpenAndRepliesWithItsNumber) {
  const size_t before = OpenDescriptors();
  const auto reply = Ask(CreateRequest{.path = "/missing/new.txt"});
  ASSERT_TRUE(reply);
  ASSERT_GE(reply->result(), 0);
  EXPECT_EQ(OpenDescriptors(), before + 1);
  EXPECT_EQ(std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(reply->result())),
            disk.Local("/missing/new.txt"));
  CloseLeftOpen(reply->result());
}

TEST_F(FileCreate, BelowARegularFileRepliesWithMinusOneAndIsTraced) {
  const Request request = CreateRequest{.path = "/known.txt/new.txt"};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 12, -1), 16 + 18 + 16);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
  const std::vector<Trace> traces = device.base().Traces();
  ASSERT_EQ(traces.size(), 1U);
  ExpectTrace(traces[0], "DEVICE_REDIR_ERROR", false, "file_create", "udisk CreatFile fail",
              std::nullopt, disk.root());
}

TEST_F(FileCreate, IsTracedOnFailureWhateverTheFilterSays) {
  size_t traces = 0;
  for (const auto& filter :
       {std::shared_ptr<FakeFilter>(), std::make_shared<FakeFilter>(Texts{"/other"}),
        std::make_shared<FakeFilter>(Texts{kKnownDir})}) {
    device.base().SetFilter(filter);
    Deliver(CreateRequest{.path = kKnownDir});
    ExpectRedirErrors(++traces);
  }
}

TEST_F(FileCreate, AfterTheDeviceIsGoneFailsWithoutATraceButReplies) {
  device.DropBase();
  const auto reply = Ask(CreateRequest{.path = kKnownDir});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->result(), -1);
  ExpectRedirErrors(0);
}

TEST_F(FileCreate, OfADirectoryOrAnEmptyPathRepliesWithMinusOne) {
  for (const char* path : {kKnownDir, ""}) {
    const auto reply = Ask(CreateRequest{.path = path});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->result(), -1) << path;
  }
  ExpectRedirErrors(2);
}

TEST_F(FileCreate, OfAFifoRepliesAtOnceWithMinusOne) {
  ASSERT_EQ(mkfifo(disk.Local("/fifo").c_str(), 0600), 0);
  const auto reply = Ask(CreateRequest{.path = "/fifo"});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->result(), -1);
}

TEST_F(FileCreate, LogsFullPathFlagsAndModeAndThenSizeAndDescriptor) {
  const auto reply = Ask(CreateRequest{.path = "/new.txt", .mode = 0640, .flags = 0xabcd});
  ASSERT_TRUE(reply);
  EXPECT_EQ(LogSoFar(),
            (Texts{DebugLine("file_create", "file_create full path: " + disk.Local("/new.txt") +
                                                ", flag:abcd, mode: 1a0\\n"),
                   DebugLine("file_create", "file_create send size:40 file fd: " +
                                                std::to_string(reply->result()) + "\\n")}));
  EXPECT_EQ(Log().Lines()[0].file, "operator.cpp");
}

TEST_F(FileCreate, ThatFailsLogsItsRetryAndTheTraceBetweenItsOwnLines) {
  Deliver(CreateRequest{.path = "/known.txt/new.txt", .mode = 0644});
  Texts expected = {DebugLine(
      "file_create",
      "file_create full path: " + disk.Local("/known.txt/new.txt") + ", flag:0, mode: 1a4\\n")};
  for (const std::string& line : ParentLines("/known.txt/new.txt")) expected.push_back(line);
  expected.push_back(ErrorLine("UdiskCreateFile", "file_create failed errno: Not a directory\\n"));
  expected.push_back(TraceLine(disk.root()));
  expected.push_back(DebugLine("file_create", "file_create send size:50 file fd: -1\\n"));
  EXPECT_EQ(LogSoFar(), expected);
}

TEST_F(FileCreate, ResetsTheEndOfTheLastWriteOnSuccessOnly) {
  udisk->lastWriteEnd = 4711;
  Deliver(CreateRequest{.path = kKnownDir});
  EXPECT_EQ(udisk->lastWriteEnd, 4711);
  Deliver(CreateRequest{.path = "/new.txt"});
  EXPECT_EQ(udisk->lastWriteEnd, 0);
}

TEST_F(FileCreate, SucceedsWithDescriptorZeroWhenStandardInputIsClosed) {
  udisk->lastWriteEnd = 4711;
  const int standard_input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
  ASSERT_NE(standard_input, -1);
  close(STDIN_FILENO);
  const auto reply = Ask(CreateRequest{.path = "/new.txt"});
  EXPECT_EQ(dup2(standard_input, STDIN_FILENO), STDIN_FILENO);
  close(standard_input);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->result(), 0);
  EXPECT_EQ(udisk->lastWriteEnd, 0);
  ExpectRedirErrors(0);
}

TEST_F(FileCreate, SetsModifiedOnSuccessAndOnFailure) {
  for (const char* path : {"/new.txt", kKnownDir}) {
    udisk->modified = 0;
    Deliver(CreateRequest{.path = path});
    EXPECT_NE(udisk->modified, 0) << path;
  }
}

TEST_F(FileCreate, WritesTheResultIntoTheRequest) {
  const Request request = CreateRequest{.path = kKnownDir};
  const auto packet = request.Packet();
  udisk->file_create(16, packet.get());
  EXPECT_EQ(PayloadOf(*packet), Patched(request.payload, 12, -1));
}

TEST_F(FileCreate, HasTheseBytesOnTheWire) {
  const Request request{.cmd = 103,
                        .payload = std::string("\6\0\0\0"
                                               "\1\2\0\0"
                                               "\xa4\1\0\0"
                                               "\x55\x55\x55\x55"
                                               "/known",
                                               22)};
  ExpectReply(AskRaw(request), request,
              std::string("\6\0\0\0"
                          "\1\2\0\0"
                          "\xa4\1\0\0"
                          "\xff\xff\xff\xff"
                          "/known",
                          22),
              16 + 6 + 16);
}

TEST_F(FileCreate, EndsALocalPathAtItsFirstNulButEchoesAllOfIt) {
  const Request request = CreateRequest{.path = std::string("/a\0b", 4)};
  const auto reply = AskRaw(request);
  ASSERT_TRUE(reply);
  EXPECT_EQ(CreateRequest::Reply::Decode(*reply).path, std::string("/a\0b", 4));
  EXPECT_TRUE(disk.Exists("/a"));
}

TEST_F(FileCreate, TakesAPathOfOneMebibyte) {
  const std::string path = "/" + std::string(1 << 20, 'p');
  const auto reply = Ask(CreateRequest{.path = path});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->result(), -1);
  EXPECT_TRUE(reply->path == path);
}

// ---- file_open ----

TEST_F(OpenFiles, OpenDoesNothingAndSendsNothing) {
  const Request request{.cmd = kFileOpen, .payload = std::string(64, 'x')};
  const auto packet = request.Packet();
  EXPECT_EQ(udisk->file_open(16, packet.get()), 0);
  EXPECT_EQ(PayloadOf(*packet), request.payload);
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_EQ(Log().Messages(), Texts{});
}

// ---- 109 ----

class FileTruncate : public OpenFiles {
 protected:
  /// Expects a request for `length` to succeed, to echo it, and to leave the file with this size.
  void ExpectSizeAfter(uint64_t length, const std::string& path, int64_t size) {
    disk.MakeFile(path, "some content");
    const Request request = TruncateRequest{.path = path, .length = length};
    ExpectReply(AskRaw(request), request, Patched(request.payload, 12, 0), 16 + path.size() + 16);
    EXPECT_EQ(SizeOf(path), size) << path << " to " << length;
  }
};

TEST_F(FileTruncate, ToALowerLengthKeepsTheBeginningAndToAGreaterOneAddsZeros) {
  ExpectSizeAfter(4, "/x.bin", 4);
  EXPECT_EQ(disk.ReadBack("/x.bin"), "some");
  ExpectSizeAfter(15, "/x.bin", 15);
  EXPECT_EQ(disk.ReadBack("/x.bin"), std::string("some content\0\0\0", 15));
  ExpectSizeAfter(0, "/x.bin", 0);
}

TEST_F(FileTruncate, To20MebibytesOfAnOrdinaryFileMakesIt10AndEchoesTheRequestedLength) {
  ExpectSizeAfter(20971520, "/x.bin", 10485760);
}

TEST_F(FileTruncate, IsCappedOnlyAboveTenMebibytes) {
  ExpectSizeAfter(kCap - 1, "/x.bin", kCap - 1);
  ExpectSizeAfter(kCap, "/x.bin", kCap);
  ExpectSizeAfter(kCap + 1, "/x.bin", kCap);
}

TEST_F(FileTruncate, TreatsTheLengthAsUnsignedWhenItCapsIt) {
  ExpectSizeAfter(std::numeric_limits<uint64_t>::max(), "/x.bin", kCap);
  ExpectSizeAfter(uint64_t{1} << 63, "/x.bin", kCap);
}

TEST_F(FileTruncate, OfAnOfficeOrTemporaryFileIsNotCapped) {
  for (const char* path : {"/r.doc", "/r.docx", "/r.xls", "/r.ppt", "/r.vsd", "/r.spp", "/r.tmp"}) {
    ExpectSizeAfter(kCap + 1, path, kCap + 1);
  }
}

TEST_F(FileTruncate, OfAFileWithoutASuffixOrWithOneInCapitalsIsCapped) {
  ExpectSizeAfter(kCap + 1, "/README", kCap);
  ExpectSizeAfter(kCap + 1, "/r.DOC", kCap);
}

TEST_F(FileTruncate, FindsTheSuffixInTheWholePath) {
  disk.MakeDir("/old.docs");
  ExpectSizeAfter(kCap + 1, "/old.docs/plain", kCap + 1);
}

TEST_F(FileTruncate, OfAnOfficeFileToANegativeLengthFails) {
  disk.MakeFile("/r.doc", "abc");
  const Request request =
      TruncateRequest{.path = "/r.doc", .length = std::numeric_limits<uint64_t>::max()};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 12, -1), 16 + 6 + 16);
  EXPECT_EQ(Log().Messages(kError), Texts{"truncate failed offset:-1 errno: Invalid argument\\n"});
  EXPECT_EQ(disk.ReadBack("/r.doc"), "abc");
}

TEST_F(FileTruncate, OfAMissingFileRepliesWithMinusOneAndIsNotTraced) {
  const Request request = TruncateRequest{.path = "/none", .length = 5};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 12, -1), 16 + 5 + 16);
  EXPECT_FALSE(disk.Exists("/none"));
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(FileTruncate, LogsPathLengthsResultAndSizeInThisOrder) {
  Deliver(TruncateRequest{.path = "/none", .length = 5});
  EXPECT_EQ(LogSoFar(),
            (Texts{DebugLine("file_truncate", "file_truncate full path: " + disk.Local("/none") +
                                                  ",name len:5,offset:5\\n"),
                   ErrorLine("UdiskTruncate",
                             "truncate failed offset:5 errno: No such file or directory\\n"),
                   DebugLine("file_truncate", "file_truncate resule: -1"),
                   DebugLine("file_truncate", "file_truncate send back size:37")}));
}

TEST_F(FileTruncate, AboveTheCapLogsTheRequestedLengthAndTheSuffixOfTheLocalPath) {
  disk.MakeFile("/x.bin", "");
  disk.MakeFile("/README", "");
  Deliver(TruncateRequest{.path = "/x.bin", .length = std::numeric_limits<uint64_t>::max()});
  EXPECT_EQ(LogSoFar(),
            (Texts{DebugLine("file_truncate", "file_truncate full path: " + disk.Local("/x.bin") +
                                                  ",name len:6,offset:18446744073709551615\\n"),
                   DebugLine("check_microsoft_suffix", "suffix: .bin"),
                   DebugLine("file_truncate", "file_truncate resule: 0"),
                   DebugLine("file_truncate", "file_truncate send back size:38")}));
  Log().Clear();
  Deliver(TruncateRequest{.path = "/README", .length = kCap + 1});
  EXPECT_TRUE(Log().Has(kDebug, "filename: " + disk.Local("/README") + " without suffix"));
}

TEST_F(FileTruncate, UpToTheCapDoesNotLookAtTheSuffix) {
  disk.MakeFile("/x.bin", "");
  Deliver(TruncateRequest{.path = "/x.bin", .length = kCap});
  EXPECT_FALSE(Log().Has(kDebug, "suffix: .bin"));
}

TEST_F(FileTruncate, HasTheseBytesOnTheWire) {
  const Request request{.cmd = 109,
                        .payload = std::string("\3\0\0\0\0\0\0\0"
                                               "\x0a\0\0\0"
                                               "\x55\x55\x55\x55"
                                               "/known.txt",
                                               26)};
  ExpectReply(AskRaw(request), request,
              std::string("\3\0\0\0\0\0\0\0"
                          "\x0a\0\0\0"
                          "\0\0\0\0"
                          "/known.txt",
                          26),
              16 + 10 + 16);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "kno");
}

// ---- 110 ----

class FileFsync : public OpenFiles {};

TEST_F(FileFsync, OfAFileRepliesWithResultZeroAndTheUnreadFieldUnchanged) {
  Request request = FsyncRequest{.path = kKnownFile, .unread_4 = 0x11223344};
  request.payload = Patched(request.payload, 8, 0x55555555);
  ExpectReply(AskRaw(request), request, Patched(request.payload, 8, 0), 16 + 10 + 12);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
}

TEST_F(FileFsync, OfAMissingFileRepliesWithMinusOneAndDoesNotCreateIt) {
  const Request request = FsyncRequest{.path = "/none"};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 8, -1), 16 + 5 + 12);
  EXPECT_FALSE(disk.Exists("/none"));
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(FileFsync, OfADirectoryRepliesWithMinusOne) {
  const auto reply = Ask(FsyncRequest{.path = kKnownDir});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->result(), -1);
}

TEST_F(FileFsync, OfAFifoRepliesAtOnceWithMinusOne) {
  ASSERT_EQ(mkfifo(disk.Local("/fifo").c_str(), 0600), 0);
  const auto reply = Ask(FsyncRequest{.path = "/fifo"});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->result(), -1);
}

TEST_F(FileFsync, LogsPathResultAndSizeInThisOrder) {
  Deliver(FsyncRequest{.path = kKnownFile});
  EXPECT_EQ(LogSoFar(),
            (Texts{DebugLine("file_fsync", "file_fsync full path: " + disk.Local(kKnownFile) +
                                               ",name len:10lu\\n"),
                   DebugLine("file_fsync", "file_fsync  resule: 0"),
                   DebugLine("file_fsync", "file_fsync send back size:38")}));
  Log().Clear();
  Deliver(FsyncRequest{.path = "/none"});
  EXPECT_EQ(LogSoFar()[1], DebugLine("file_fsync", "file_fsync  resule: -1"));
}

TEST_F(OpenFiles, TruncateAndFsyncSetModifiedOnSuccessAndOnFailure) {
  for (const char* path : {kKnownFile, "/none"}) {
    udisk->modified = 0;
    Deliver(TruncateRequest{.path = path});
    EXPECT_NE(udisk->modified, 0) << "truncate of " << path;
    udisk->modified = 0;
    Deliver(FsyncRequest{.path = path});
    EXPECT_NE(udisk->modified, 0) << "fsync of " << path;
  }
}

TEST_F(OpenFiles, TheNextStatisticsAfterCreateTruncateOrFsyncAreFresh) {
  const Request requests[] = {CreateRequest{.path = "/new.txt"},
                              TruncateRequest{.path = kKnownFile},
                              FsyncRequest{.path = kKnownFile}};
  for (const Request& request : requests) {
    udisk->modified = 0;
    udisk->mVolumes.front()->stat.f_namemax = 1;
    auto cached = Ask(StatvfsRequest{.path = ""});
    ASSERT_TRUE(cached && cached->records.size() == 1);
    EXPECT_EQ(+cached->records[0].f_namemax, 1U);
    Deliver(request);
    auto fresh = Ask(StatvfsRequest{.path = ""});
    ASSERT_TRUE(fresh && fresh->records.size() == 1);
    EXPECT_NE(+fresh->records[0].f_namemax, 1U) << "after " << request.cmd;
  }
}

// ---- 111 ----

class FileChmod : public OpenFiles {};

TEST_F(FileChmod, SetsTheModeAndRepliesWithResultZero) {
  Request request = ChmodRequest{.path = kKnownFile, .mode = 0604};
  request.payload = Patched(request.payload, 0, 0x55555555);
  ExpectReply(AskRaw(request), request, Patched(request.payload, 0, 0), 16 + 10 + 8);
  EXPECT_EQ(ModeOf(kKnownFile), 0604U);
}

TEST_F(FileChmod, CarriesTheModeIn16Bits) {
  const Request request = ChmodRequest{.path = kKnownDir, .mode = 0xf000 | 01755};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 0, 0), 16 + 6 + 8);
  EXPECT_EQ(ModeOf(kKnownDir), 01755U);
  EXPECT_EQ(Log().Messages()[0],
            "file_chmod full path: " + disk.Local(kKnownDir) + ",name len:6,mode: 62445\\n");
}

TEST_F(FileChmod, OfAMissingFileRepliesWithMinusOneAndIsNotTraced) {
  const Request request = ChmodRequest{.path = "/none", .mode = 0600};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 0, -1), 16 + 5 + 8);
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(FileChmod, LogsPathModeResultAndSizeInThisOrder) {
  Deliver(ChmodRequest{.path = "/none", .mode = 0600});
  EXPECT_EQ(LogSoFar(),
            (Texts{DebugLine("file_chmod", "file_chmod full path: " + disk.Local("/none") +
                                               ",name len:5,mode: 384\\n"),
                   DebugLine("file_chmod", "file_chmod resule: -1"),
                   DebugLine("file_chmod", "file_chmod send back size:29")}));
}

TEST_F(FileChmod, HasTheseBytesOnTheWire) {
  const Request request{.cmd = 111,
                        .payload = std::string("\x55\x55\x55\x55"
                                               "\x0a\0"
                                               "\x80\1"
                                               "/known.txt",
                                               18)};
  ExpectReply(AskRaw(request), request,
              std::string("\0\0\0\0"
                          "\x0a\0"
                          "\x80\1"
                          "/known.txt",
                          18),
              16 + 10 + 8);
  EXPECT_EQ(ModeOf(kKnownFile), 0600U);
}

// ---- 112 ----

class FileChown : public OpenFiles {};

TEST_F(FileChown, SetsOwnerAndGroupAndRepliesWithResultZero) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  const Request request = ChownRequest{.path = kKnownFile, .uid = 12345, .gid = 54321};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 12, 0), 16 + 10 + 16);
  const udisk_stat stat = StatOf(disk.Local(kKnownFile));
  EXPECT_EQ(+stat.st_uid, 12345U);
  EXPECT_EQ(+stat.st_gid, 54321U);
}

TEST_F(FileChown, FollowsALink) {
  if (geteuid() != 0) GTEST_SKIP() << "only root gives files away";
  disk.MakeLink("/link", disk.Local(kKnownFile));
  Deliver(ChownRequest{.path = "/link", .uid = 12345, .gid = 54321});
  EXPECT_EQ(+StatOf(disk.Local(kKnownFile)).st_uid, 12345U);
  EXPECT_EQ(+StatOf(disk.Local("/link")).st_uid, 0U);
}

TEST_F(FileChown, WithIdsOfAllOnesKeepsOwnerAndGroup) {
  const udisk_stat before = StatOf(disk.Local(kKnownFile));
  const auto reply = Ask(ChownRequest{.path = kKnownFile});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->result(), 0);
  const udisk_stat after = StatOf(disk.Local(kKnownFile));
  EXPECT_EQ(+after.st_uid, +before.st_uid);
  EXPECT_EQ(+after.st_gid, +before.st_gid);
}

TEST_F(FileChown, OfAMissingFileRepliesWithMinusOneAndIsNotTraced) {
  const Request request = ChownRequest{.path = "/none", .uid = 1, .gid = 2};
  ExpectReply(AskRaw(request), request, Patched(request.payload, 12, -1), 16 + 5 + 16);
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(FileChown, LogsPathIdsResultAndSizeInThisOrder) {
  Deliver(ChownRequest{.path = "/none", .uid = 7, .gid = 0xffffffff});
  EXPECT_EQ(LogSoFar(),
            (Texts{DebugLine("file_chown", "file_chown full path: " + disk.Local("/none") +
                                               ",name len:5,uid: 7, gid: -1\\n"),
                   DebugLine("file_chown", "file_chown resule: -1"),
                   DebugLine("file_chown", "file_chown send back size:37")}));
}

TEST_F(FileChown, HasTheseBytesOnTheWire) {
  const Request request{.cmd = 112,
                        .payload = std::string("\x0a\0\0\0"
                                               "\xff\xff\xff\xff"
                                               "\xff\xff\xff\xff"
                                               "\x55\x55\x55\x55"
                                               "/known.txt",
                                               26)};
  ExpectReply(AskRaw(request), request,
              std::string("\x0a\0\0\0"
                          "\xff\xff\xff\xff"
                          "\xff\xff\xff\xff"
                          "\0\0\0\0"
                          "/known.txt",
                          26),
              16 + 10 + 16);
}

TEST_F(OpenFiles, ChmodAndChownDoNotSetModified) {
  Deliver(ChmodRequest{.path = kKnownFile, .mode = 0600});
  Deliver(ChownRequest{.path = kKnownFile});
  Deliver(ChmodRequest{.path = "/none"});
  Deliver(ChownRequest{.path = "/none"});
  EXPECT_EQ(udisk->modified, 0);
}

TEST_F(OpenFiles, ResultsAreWrittenIntoTheRequest) {
  struct Case {
    Request request;
    int64_t (UDiskOperator::*handler)(unsigned char, CpdPacket*);
    size_t result_at;
  };
  const Case cases[] = {
      {TruncateRequest{.path = "/none"}, &UDiskOperator::file_truncate, 12},
      {FsyncRequest{.path = "/none"}, &UDiskOperator::file_fsync, 8},
      {ChmodRequest{.path = "/none"}, &UDiskOperator::file_chmod, 0},
      {ChownRequest{.path = "/none"}, &UDiskOperator::file_chown, 12},
  };
  for (const Case& c : cases) {
    const auto packet = c.request.Packet();
    (udisk.get()->*c.handler)(16, packet.get());
    EXPECT_EQ(PayloadOf(*packet), Patched(c.request.payload, c.result_at, -1)) << c.request.cmd;
  }
}

// ---- 119, 120 ----

class FileFlush : public OpenFiles {};
class FileRelease : public OpenFiles {};

/// Both reply with a copy of their request. These tests run with either of them.
class ClosingRequests : public OpenFiles {
 protected:
  std::vector<Request> Both(const std::string& path) {
    return {FlushRequest{.path = path, .fd = 0x01020304},
            ReleaseRequest{.path = path, .fd = 0x01020304}};
  }
  int64_t Serve(CpdPacket* packet) {
    return packet->header->cmd == kFileFlush ? udisk->file_flush(0, packet)
                                             : udisk->file_release(0, packet);
  }
};

TEST_F(ClosingRequests, AreAnsweredWithAByteForByteCopy) {
  for (Request request : Both(kKnownFile)) {
    request.request_id = 0xdeadbeef;
    request.payload += "bytes after the path";
    ExpectReply(AskRaw(request), request, request.payload, request.Bytes().size());
  }
}

TEST_F(ClosingRequests, OfAMissingFileAreAnsweredWithTheUnchangedRequest) {
  for (const Request& request : Both("/none")) {
    ExpectReply(AskRaw(request), request, request.payload, request.Bytes().size());
  }
  EXPECT_FALSE(disk.Exists("/none"));
  EXPECT_EQ(Log().Messages(kError), Texts{});
}

TEST_F(ClosingRequests, CopyTheReservedHeaderBytesToo) {
  for (const Request& request : Both(kKnownFile)) {
    const auto packet = request.Packet();
    packet->header->reserved[1] = 9;
    device.TakeSent();
    Serve(packet.get());
    const auto sent = device.TakeSent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].reserved, (std::array<uint8_t, 3>{0, 9, 0}));
  }
}

TEST_F(ClosingRequests, CopyAsMuchAsThePacketLengthSays) {
  for (const Request& request : Both(kKnownFile)) {
    const auto packet = request.Packet();
    packet->header->packetLen = 21;
    device.TakeSent();
    Serve(packet.get());
    const auto sent = device.TakeSent();
    ASSERT_EQ(sent.size(), 1U);
    EXPECT_EQ(sent[0].payload, request.payload.substr(0, 5));
    EXPECT_EQ(sent[0].capacity, 21U);
  }
}

TEST_F(ClosingRequests, WhosePacketLengthPassesTheBufferAreNotAnswered) {
  for (const Request& request : Both(kKnownFile)) {
    for (const uint32_t beyond : {1U, 4096U, 0xffffffffU}) {
      const auto packet = request.Packet();
      const auto end = static_cast<uint32_t>(request.Bytes().size());
      packet->header->packetLen = beyond == 0xffffffff ? beyond : end + beyond;
      device.TakeSent();
      Log().Clear();
      ::testing::internal::CaptureStdout();
      EXPECT_EQ(Serve(packet.get()), -1);
      EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
      EXPECT_TRUE(device.TakeSent().empty()) << request.cmd << " by " << beyond;
      EXPECT_EQ(Log().Messages(), Texts{std::string(CommandName(request.cmd)) +
                                        " dropped: the request reaches past its buffer"});
      EXPECT_TRUE(StillServes());
    }
  }
}

TEST_F(ClosingRequests, WhosePacketLengthIsLessThanAHeaderAreNotAnswered) {
  for (const Request& request : Both(kKnownFile)) {
    const auto packet = request.Packet();
    packet->header->packetLen = 15;
    device.TakeSent();
    Log().Clear();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(Serve(packet.get()), -1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(Log().Messages(kError).size(), 1U);
    EXPECT_TRUE(device.TakeSent().empty());
  }
}

TEST_F(ClosingRequests, DoNotSetModified) {
  for (const Request& request : Both(kKnownFile)) Deliver(request);
  EXPECT_EQ(udisk->modified, 0);
}

TEST_F(ClosingRequests, ChangeNeitherFileNorRequest) {
  for (const Request& request : Both(kKnownFile)) {
    const auto packet = request.Packet();
    Serve(packet.get());
    EXPECT_EQ(PayloadOf(*packet), request.payload);
  }
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
}

TEST_F(ClosingRequests, AcceptAPathWithManyComponentsOrNone) {
  for (const std::string& path : {std::string(), std::string("/"), std::string("a"),
                                  std::string(300, 'x') + "/y", std::string(70000, '/')}) {
    for (const Request& request : Both(path)) {
      ExpectReply(AskRaw(request), request, request.payload, request.Bytes().size());
    }
  }
}

TEST_F(ClosingRequests, OfAFifoAreAnsweredAtOnce) {
  ASSERT_EQ(mkfifo(disk.Local("/fifo").c_str(), 0600), 0);
  for (const Request& request : Both("/fifo")) {
    ExpectReply(AskRaw(request), request, request.payload, request.Bytes().size());
  }
}

TEST_F(FileFlush, LogsDescriptorAndRelativePath) {
  Deliver(FlushRequest{.path = kKnownFile, .fd = 0xffffffff});
  EXPECT_EQ(LogSoFar(), Texts{DebugLine("file_flush", "file_flush fd: -1, path: /known.txt\\n")});
}

TEST_F(FileRelease, LogsDescriptorRelativePathAndMountPoint) {
  Deliver(ReleaseRequest{.path = "/none", .fd = 17});
  EXPECT_EQ(LogSoFar(), Texts{DebugLine("file_release",
                                        "file_release fd: 17, path: /none, "
                                        "mMountPoint: " +
                                            disk.root() + "\\n")});
}

}  // namespace
}  // namespace cpd::test
