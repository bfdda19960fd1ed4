// Command 106: writes of one piece or of a batch of pieces; and the suffixes of files that have no
// limit on their length.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <string>

#include "support/expectations.h"
#include "support/log_and_trace.h"
#include "support/operator_fixture.h"
#include "support/requests.h"

namespace cpd::test {
namespace {

constexpr int64_t kFarthest = std::numeric_limits<int64_t>::max();

/// While an instance exists, a process that started as root runs as an unprivileged user.
class AsNobody {
 public:
  AsNobody() : was_(geteuid()) {
    if (was_ == 0 && seteuid(65534) != 0) ADD_FAILURE() << std::strerror(errno);
  }
  ~AsNobody() {
    if (was_ == 0 && seteuid(was_) != 0) ADD_FAILURE() << std::strerror(errno);
  }
  AsNobody(const AsNobody&) = delete;
  AsNobody& operator=(const AsNobody&) = delete;

 private:
  uid_t was_;
};

/// A mount that is visible to this process only.
class PrivateMount {
 public:
  ~PrivateMount() {
    if (at_.empty()) return;
    EXPECT_EQ(umount2(at_.c_str(), MNT_DETACH), 0) << std::strerror(errno);
  }
  /// Mounts a directory read-only over itself. @return empty, or why that failed
  std::string ReadOnly(const std::string& at) {
    const std::string failure = Mount(at.c_str(), at, nullptr, MS_BIND, nullptr);
    if (!failure.empty()) return failure;
    return Mount(nullptr, at, nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr);
  }
  /// Mounts an empty file system in memory. @return empty, or why that failed
  std::string Tmpfs(const std::string& at, const char* options) {
    return Mount("tmpfs", at, "tmpfs", 0, options);
  }

 private:
  std::string Mount(const char* source, const std::string& at, const char* type,
                    unsigned long flags, const char* options) {
    if (at_.empty()) {
      if (unshare(CLONE_NEWNS) != 0) return std::strerror(errno);
      if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        return std::strerror(errno);
      }
    }
    if (mount(source, at.c_str(), type, flags, options) != 0) return std::strerror(errno);
    at_ = at;
    return {};
  }

  std::string at_;
};

class FileWrite : public OperatorTest {
 protected:
  /// Expects a reply with this size: the requested one, or 0 when the write failed.
  void ExpectAnswer(const Request& request, int32_t size) {
    const uint16_t path_length = PathLengthOf(request);
    ExpectReply(AskRaw(request), request,
                Patched(request.payload, 8, size).substr(0, 24 + path_length),
                16 + 24 + path_length);
  }
  void ExpectSuccess(const Request& request) {
    int32_t size = 0;
    std::memcpy(&size, request.payload.data() + 8, sizeof size);
    ExpectAnswer(request, size);
    EXPECT_EQ(Log().Messages(kError), Texts{});
  }
  void ExpectFailure(const Request& request) { ExpectAnswer(request, 0); }
  /// Expects this to be the only trace of a matching write.
  void ExpectOneTrace(const std::string& event, bool success, const std::string& text,
                      const std::string& path) {
    const std::vector<Trace> traces = device.base().Traces();
    ASSERT_EQ(traces.size(), 1U);
    ExpectTrace(traces[0], event, success, "file_write", text, path, udisk->GetLocalMountPoint());
  }
  void ExpectDenied(const std::string& path) {
    ExpectOneTrace("UDISK_WRITE_FILE_DISK_ACCESS_DENIED", false,
                   "udisk writeFile fail Permission exception", path);
  }
  void MatchAll() {
    device.base().SetFilter(std::make_shared<FakeFilter>([](const std::string&) { return true; }));
  }

 private:
  static uint16_t PathLengthOf(const Request& request) {
    uint16_t length = 0;
    std::memcpy(&length, request.payload.data() + 20, sizeof length);
    return length;
  }
};

// ---- Single ----

TEST_F(FileWrite, Of100BytesAtOffset4096WritesThemAndEchoesSizeAndPath) {
  disk.MakeFile("/a", std::string(5000, '.'));
  MatchAll();
  const Request request =
      WriteRequest{.path = "/a", .offset = 4096, .data = std::string(100, 'd'), .unread_12 = 9};
  ExpectReply(AskRaw(request), request, request.payload.substr(0, 26), 16 + 24 + 2);
  EXPECT_EQ(disk.ReadBack("/a"),
            std::string(4096, '.') + std::string(100, 'd') + std::string(804, '.'));
  EXPECT_EQ(udisk->lastWriteEnd, 4196);
  EXPECT_EQ(udisk->modified, 1);
  ExpectOneTrace("UDISK_WRITE_FILE_SUCCESS", true, "udisk writeFile success", "/a");
}

TEST_F(FileWrite, PastTheEndLeavesZerosBetween) {
  ExpectSuccess(WriteRequest{.path = kKnownFile, .offset = 15, .data = "x"});
  EXPECT_EQ(disk.ReadBack(kKnownFile), std::string("known content\0\0x", 16));
}

TEST_F(FileWrite, KeepsBytesOfEveryValue) {
  std::string data;
  for (int i = 0; i < 256 * 1024; ++i) data.push_back(static_cast<char>(i ^ (i >> 8)));
  ExpectSuccess(WriteRequest{.path = kKnownFile, .data = data});
  EXPECT_TRUE(disk.ReadBack(kKnownFile) == data);
}

TEST_F(FileWrite, TreatsEveryFlagExceptZeroAsSingle) {
  for (const uint32_t flag : {1U, 2U, 0x100U, 0x80000000U, 0xffffffffU}) {
    disk.MakeFile(kKnownFile, "known content");
    ExpectSuccess(WriteRequest{.path = kKnownFile, .data = "K", .single = flag});
    EXPECT_EQ(disk.ReadBack(kKnownFile), "Known content") << flag;
  }
}

TEST_F(FileWrite, WritesItsSizeAndIgnoresFurtherBytes) {
  Request request = WriteRequest{.path = kKnownFile, .data = "KNOWN"};
  request.payload += "more";
  ExpectSuccess(request);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "KNOWN content");
}

TEST_F(FileWrite, LogsNothingOnSuccess) {
  Deliver(WriteRequest{.path = kKnownFile, .data = "K"});
  EXPECT_EQ(Log().Messages(), Texts{});
}

TEST_F(FileWrite, HasTheseBytesOnTheWire) {
  const Request request{.cmd = 106,
                        .payload = std::string("\6\0\0\0\0\0\0\0"
                                               "\3\0\0\0"
                                               "\x11\x22\x33\x44"
                                               "\1\0\0\0"
                                               "\x0a\0"
                                               "\7"
                                               "\7"
                                               "/known.txt"
                                               "CON",
                                               37)};
  ExpectReply(AskRaw(request), request,
              std::string("\6\0\0\0\0\0\0\0"
                          "\3\0\0\0"
                          "\x11\x22\x33\x44"
                          "\1\0\0\0"
                          "\x0a\0"
                          "\7"
                          "\7"
                          "/known.txt",
                          34),
              16 + 10 + 24);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known CONtent");
}

TEST_F(FileWrite, ToAMissingFileDoesNotCreateItAndRepliesWithSizeZero) {
  MatchAll();
  ExpectFailure(WriteRequest{.path = "/none", .data = "x"});
  EXPECT_FALSE(disk.Exists("/none"));
  ExpectOneTrace("UDISK_WRITE_FILE_FAIL", false, "udisk writeFile fail", "/none");
}

TEST_F(FileWrite, ThatFailsLogsTheReasonThenTheResultThenTheTrace) {
  MatchAll();
  Deliver(WriteRequest{.path = "/none", .data = "x"});
  EXPECT_EQ(
      LogSoFar(),
      (Texts{ErrorLine("UdiskWriteFile", "write file fail errno:No such file or directory \\n"),
             ErrorLine("file_write", "file_write failed, res: 0"), TraceLine(disk.root())}));
  EXPECT_EQ(Log().Lines()[1].file, "operator.cpp");
}

TEST_F(FileWrite, OfNothingToAMissingFileSucceeds) {
  // The result of the failed open is 0, which equals the requested size.
  MatchAll();
  ExpectAnswer(WriteRequest{.path = "/none"}, 0);
  ExpectOneTrace("UDISK_WRITE_FILE_SUCCESS", true, "udisk writeFile success", "/none");
}

TEST_F(FileWrite, ToADirectoryRepliesWithSizeZero) {
  ExpectFailure(WriteRequest{.path = kKnownDir, .data = "x"});
}

TEST_F(FileWrite, ToAFifoThatNobodyReadsRepliesAtOnceWithSizeZero) {
  ASSERT_EQ(mkfifo(disk.Local("/fifo").c_str(), 0600), 0);
  ExpectFailure(WriteRequest{.path = "/fifo", .data = "x"});
}

TEST_F(FileWrite, ThatTheSystemRefusesLogsMinusOneAndRepliesWithSizeZero) {
  MatchAll();
  udisk->SetRootPath("/dev", "");
  Log().Clear();
  ExpectFailure(WriteRequest{.path = "/full", .data = "x"});
  const Texts log = LogSoFar();
  ASSERT_EQ(log.size(), 3U);
  EXPECT_EQ(WithoutNumbers(log[0]),
            ErrorLine("UdiskWriteFile",
                      "pwrite failed res: -#, fd = # errno: No space left on device\\n"));
  EXPECT_EQ(log[1], ErrorLine("file_write", "file_write failed, res: -1"));
  ExpectOneTrace("UDISK_WRITE_FILE_FAIL", false, "udisk writeFile fail", "/full");
}

TEST_F(FileWrite, AtANegativeOffsetRepliesWithSizeZero) {
  ExpectFailure(WriteRequest{.path = kKnownFile, .offset = -1, .data = "x"});
  ExpectFailure(
      WriteRequest{.path = kKnownFile, .offset = std::numeric_limits<int64_t>::min(), .data = "x"});
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
}

TEST_F(FileWrite, OfANegativeSizeIsRefusedByTheSystemAndRepliesWithSizeZero) {
  for (const int32_t size : {-2, std::numeric_limits<int32_t>::min()}) {
    Log().Clear();
    ExpectFailure(WriteRequest{.path = kKnownFile, .data = "data", .size = size});
    EXPECT_TRUE(Log().Has(kError, "file_write failed, res: -1")) << size;
  }
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
}

TEST_F(FileWrite, OfSizeMinusOneTreatsTheSystemsRefusalAsSuccess) {
  // The result of the failed write is -1, which equals the requested size.
  MatchAll();
  ExpectAnswer(WriteRequest{.path = kKnownFile, .data = "data", .size = -1}, -1);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
  EXPECT_FALSE(Log().Has(kError, "file_write failed, res: -1"));
  ExpectOneTrace("UDISK_WRITE_FILE_SUCCESS", true, "udisk writeFile success", kKnownFile);
}

TEST_F(FileWrite, RecordsTheEndOfTheWriteWhateverTheOutcome) {
  Deliver(WriteRequest{.path = "/none", .offset = 100, .data = "abc"});
  EXPECT_EQ(udisk->lastWriteEnd, 103);
  Deliver(
      WriteRequest{.path = kKnownFile, .offset = 1, .data = "ab", .marker_a = 1, .marker_b = 2});
  EXPECT_EQ(udisk->lastWriteEnd, 3);
  Deliver(WriteRequest{.path = kKnownFile, .offset = 10, .size = -1});
  EXPECT_EQ(udisk->lastWriteEnd, 10 + int64_t{0xffffffff}) << "the size counts as unsigned";
  Deliver(BatchWriteRequest{.path = kKnownFile, .pieces = {{.offset = 7, .data = "x"}}});
  EXPECT_EQ(udisk->lastWriteEnd, 13) << "a batch has offset 0 in its head";
}

TEST_F(FileWrite, AtTheFarthestOffsetFailsAndItsEndWraps) {
  ExpectFailure(WriteRequest{.path = kKnownFile, .offset = kFarthest, .data = "xy"});
  EXPECT_EQ(udisk->lastWriteEnd, std::numeric_limits<int64_t>::min() + 1);
}

TEST_F(FileWrite, WritesOnlyAFailureIntoTheRequest) {
  const Request good = WriteRequest{.path = kKnownFile, .data = "data"};
  auto packet = good.Packet();
  udisk->file_write(16, packet.get());
  EXPECT_EQ(PayloadOf(*packet), good.payload);
  const Request bad = WriteRequest{.path = "/none", .data = "data"};
  packet = bad.Packet();
  udisk->file_write(16, packet.get());
  EXPECT_EQ(PayloadOf(*packet), Patched(bad.payload, 8, 0));
}

TEST_F(FileWrite, EndsALocalPathAtItsFirstNulButEchoesAllOfIt) {
  disk.MakeFile("/a", "");
  ExpectSuccess(WriteRequest{.path = std::string("/a\0b", 4), .data = "x"});
  EXPECT_EQ(disk.ReadBack("/a"), "x");
}

TEST_F(FileWrite, IsNeverPaced) {
  udisk->readBwKbps = 1000;
  udisk->lastBwUpdateMs = static_cast<int64_t>(getCurrentTime());
  udisk->legacyBytes = 1 << 30;
  Deliver(WriteRequest{.path = kKnownFile, .data = std::string(1 << 20, 'x')});
  EXPECT_EQ(udisk->legacyBytes, 1U << 30);
}

// ---- Markers ----

class FileWriteMarkers : public FileWrite {};

TEST_F(FileWriteMarkers, ThatDifferLetTheWriteHappenButSendNothingAndDoNotSetModified) {
  MatchAll();
  EXPECT_EQ(AskRaw(WriteRequest{.path = kKnownFile, .data = "KNOWN", .marker_a = 3, .marker_b = 5}),
            std::nullopt);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "KNOWN content");
  EXPECT_EQ(udisk->modified, 0);
  ExpectOneTrace("UDISK_WRITE_FILE_SUCCESS", true, "udisk writeFile success", kKnownFile);
}

TEST_F(FileWriteMarkers, ThatDifferHideAFailureFromTheRemoteSideToo) {
  MatchAll();
  EXPECT_EQ(AskRaw(WriteRequest{.path = "/none", .data = "x", .marker_a = 0, .marker_b = 255}),
            std::nullopt);
  EXPECT_EQ(udisk->modified, 0);
  EXPECT_TRUE(Log().Has(kError, "file_write failed, res: 0"));
  ExpectOneTrace("UDISK_WRITE_FILE_FAIL", false, "udisk writeFile fail", "/none");
}

TEST_F(FileWriteMarkers, CountAsDifferentWhicheverIsGreater) {
  EXPECT_FALSE(AskRaw(WriteRequest{.path = kKnownFile, .data = "x", .marker_a = 5, .marker_b = 3}));
  EXPECT_FALSE(AskRaw(WriteRequest{.path = kKnownFile, .data = "x", .marker_a = 3, .marker_b = 5}));
}

TEST_F(FileWriteMarkers, ThatAreEqualRequestAReplyWhateverTheirValue) {
  for (const uint8_t marker : {0, 1, 127, 255}) {
    udisk->modified = 0;
    ExpectSuccess(
        WriteRequest{.path = kKnownFile, .data = "x", .marker_a = marker, .marker_b = marker});
    EXPECT_EQ(udisk->modified, 1);
  }
}

TEST_F(FileWriteMarkers, ThatAreEqualSetModifiedEvenWhenTheWriteFails) {
  Deliver(WriteRequest{.path = "/none", .data = "x"});
  EXPECT_EQ(udisk->modified, 1);
}

TEST_F(FileWriteMarkers, CanRequestOneReplyToARunOfPackets) {
  size_t answers = 0;
  for (int i = 0; i < 4; ++i) {
    const auto reply = AskRaw(WriteRequest{.path = kKnownFile,
                                           .offset = i,
                                           .data = std::to_string(i),
                                           .marker_a = static_cast<uint8_t>(i),
                                           .marker_b = 3});
    if (reply) ++answers;
  }
  EXPECT_EQ(answers, 1U);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "0123n content");
}

// ---- Batch ----

class BatchWrite : public FileWrite {
 protected:
  /// Expects a reply with size 0, and these Error lines of the handler followed by the one with its
  /// result.
  void ExpectBroken(const Request& request, Texts lines, int32_t result) {
    Log().Clear();
    ExpectFailure(request);
    lines.push_back("file_write failed, res: " + std::to_string(result));
    Texts said;
    for (const LogLine& line : Log().Lines()) {
      if (line.level == kError && line.function != "UdiskWriteFile") said.push_back(line.message);
    }
    EXPECT_EQ(said, lines);
  }
};

TEST_F(BatchWrite, OfTwoPiecesOf10And20BytesWritesBoth) {
  disk.MakeFile("/a", "");
  MatchAll();
  const Request request =
      BatchWriteRequest{.path = "/a",
                        .pieces = {{.offset = 30, .data = std::string(10, 'a')},
                                   {.offset = 2, .data = std::string(20, 'b')}}};
  ExpectAnswer(request, 54);
  EXPECT_EQ(disk.ReadBack("/a"), std::string(2, '\0') + std::string(20, 'b') +
                                     std::string(8, '\0') + std::string(10, 'a'));
  EXPECT_EQ(Log().Messages(kError), Texts{});
  ExpectOneTrace("UDISK_WRITE_FILE_SUCCESS", true, "udisk writeFile success", "/a");
}

TEST_F(BatchWrite, HasTheseBytesOnTheWire) {
  const std::string data(
      "\0\0\0\0\0\0\0\0"
      "\2\0\0\0"
      "KN"
      "\6\0\0\0\0\0\0\0"
      "\1\0\0\0"
      "C",
      27);
  const Request request{.cmd = 106,
                        .payload = std::string("\0\0\0\0\0\0\0\0"
                                               "\x1b\0\0\0"
                                               "\0\0\0\0"
                                               "\0\0\0\0"
                                               "\x0a\0"
                                               "\0"
                                               "\0"
                                               "/known.txt",
                                               34) +
                                   data};
  ExpectReply(AskRaw(request), request, request.payload.substr(0, 34), 16 + 10 + 24);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "KNown Content");
}

TEST_F(BatchWrite, WritesLaterPiecesOverEarlierOnes) {
  ExpectSuccess(BatchWriteRequest{
      .path = kKnownFile,
      .pieces = {
          {.offset = 0, .data = "aaaa"}, {.offset = 2, .data = "bb"}, {.offset = 1, .data = "c"}}});
  EXPECT_EQ(disk.ReadBack(kKnownFile), "acbbn content");
}

TEST_F(BatchWrite, OfAThousandPiecesWritesThemAll) {
  disk.MakeFile("/a", "");
  std::vector<WritePiece> pieces;
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    const std::string data(5, static_cast<char>('a' + i % 26));
    pieces.push_back({.offset = i * 5, .data = data});
    expected += data;
  }
  ExpectSuccess(BatchWriteRequest{.path = "/a", .pieces = pieces});
  EXPECT_EQ(disk.ReadBack("/a"), expected);
}

TEST_F(BatchWrite, WhoseSecondPieceClaimsMoreThanRemainsWritesTheFirstAndFails) {
  MatchAll();
  ExpectBroken(BatchWriteRequest{.path = kKnownFile,
                                 .pieces = {{.offset = 0, .data = "KNOWN"},
                                            {.offset = 6, .data = "abc", .length = 4}}},
               {"buffer length error, size: 4, buffer_size:15"}, 17 + 12);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "KNOWN content");
  ExpectOneTrace("UDISK_WRITE_FILE_FAIL", false, "udisk writeFile fail", kKnownFile);
}

TEST_F(BatchWrite, WhosePieceClaimsAHugeLengthFails) {
  for (const int32_t length : {2, 1000, 0x7fffffff - 12, 0x7fffffff - 11, 0x7fffffff}) {
    ExpectBroken(BatchWriteRequest{.path = kKnownFile, .pieces = {{.data = "x", .length = length}}},
                 {"buffer length error, size: " + std::to_string(length) + ", buffer_size:13"}, 12);
  }
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
}

TEST_F(BatchWrite, WhosePieceClaimsANegativeLengthIsRefusedByTheSystem) {
  for (const int32_t length : {-2, -12, -13, std::numeric_limits<int32_t>::min()}) {
    ExpectBroken(BatchWriteRequest{.path = kKnownFile,
                                   .pieces = {{.data = "x", .length = length}, {.data = "yy"}}},
                 {"file_write failed size: " + std::to_string(length) + ", result: -1"}, 12);
  }
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
}

TEST_F(BatchWrite, WhosePieceClaimsLengthMinusOneContinuesElevenBytesLater) {
  // The result of the refused write is -1, which equals the length that the piece claims.
  const std::string next = EncodePieces({{.offset = 255, .data = "abc"}});
  const std::string first = EncodePieces({{.length = -1}});
  ASSERT_EQ(first.back(), next.front()) << "the records share this byte";
  const Request request = BatchWriteRequest{.path = kKnownFile, .tail = first.substr(0, 11) + next};
  ExpectAnswer(request, 26);
  EXPECT_EQ(disk.ReadBack(kKnownFile).substr(255), "abc");
  EXPECT_FALSE(Log().Has(kError, "file_write failed size: -1, result: -1"));
}

TEST_F(BatchWrite, WhosePieceClaimsLengthMinusOneOfAMissingFileFails) {
  ExpectBroken(BatchWriteRequest{.path = "/none", .pieces = {{.data = "x", .length = -1}}},
               {"file_write failed size: -1, result: 0"}, 12);
}

TEST_F(BatchWrite, ToAMissingFileStopsAtTheFirstPiece) {
  MatchAll();
  ExpectBroken(BatchWriteRequest{.path = "/none", .pieces = {{.data = "abc"}, {.data = "def"}}},
               {"file_write failed size: 3, result: 0"}, 12);
  EXPECT_FALSE(disk.Exists("/none"));
  EXPECT_EQ(Log().Count(kError, "write file fail errno:No such file or directory \\n"), 1U);
  ExpectOneTrace("UDISK_WRITE_FILE_FAIL", false, "udisk writeFile fail", "/none");
}

TEST_F(BatchWrite, WhoseSecondPieceIsRefusedKeepsTheFirst) {
  ExpectBroken(BatchWriteRequest{.path = kKnownFile,
                                 .pieces = {{.offset = 0, .data = "KNOWN"},
                                            {.offset = -1, .data = "abc"},
                                            {.offset = 6, .data = "xyz"}}},
               {"file_write failed size: 3, result: -1"}, 17 + 12);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "KNOWN content");
}

TEST_F(BatchWrite, WithBytesAfterItsLastPieceWritesAllPiecesButCountsAsFailed) {
  for (const size_t trailing : {1, 11, 12}) {
    disk.MakeFile("/a", "");
    ExpectBroken(BatchWriteRequest{.path = "/a",
                                   .pieces = {{.offset = 0, .data = "abc"}},
                                   .tail = std::string(trailing, '\0')},
                 {}, 15);
    EXPECT_EQ(disk.ReadBack("/a"), "abc") << trailing;
  }
}

TEST_F(BatchWrite, ShorterThanAPieceWritesNothingAndCountsAsFailed) {
  for (const size_t size : {1, 11, 12}) {
    ExpectBroken(BatchWriteRequest{.path = kKnownFile, .tail = std::string(size, '\0')}, {}, 0);
  }
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
}

TEST_F(BatchWrite, OfSizeZeroSucceedsAndTouchesNoFile) {
  MatchAll();
  ExpectSuccess(BatchWriteRequest{.path = "/none"});
  ExpectOneTrace("UDISK_WRITE_FILE_SUCCESS", true, "udisk writeFile success", "/none");
}

TEST_F(BatchWrite, OfANegativeSizeWritesNothingAndCountsAsFailed) {
  for (const int32_t size : {-1, std::numeric_limits<int32_t>::min()}) {
    Request request =
        BatchWriteRequest{.path = kKnownFile, .pieces = {{.offset = 0, .data = "KNOWN"}}};
    request.payload = Patched(request.payload, 8, size);
    ExpectBroken(request, {}, 0);
  }
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
}

TEST_F(BatchWrite, WithAnEmptyPieceBeforeAnotherSucceeds) {
  ExpectSuccess(
      BatchWriteRequest{.path = kKnownFile, .pieces = {{.offset = 0}, {.offset = 0, .data = "K"}}});
  EXPECT_EQ(disk.ReadBack(kKnownFile), "Known content");
}

TEST_F(BatchWrite, WithAnEmptyPieceAtItsEndCountsAsFailed) {
  // 12 bytes are only a head, which is too short for a piece.
  ExpectBroken(
      BatchWriteRequest{.path = kKnownFile, .pieces = {{.offset = 0, .data = "K"}, {.offset = 0}}},
      {}, 13);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "Known content");
}

TEST_F(BatchWrite, ThatIsBrokenLogsThePieceThenTheResultThenTheTrace) {
  MatchAll();
  Deliver(BatchWriteRequest{.path = "/none", .pieces = {{.data = "x"}}});
  EXPECT_EQ(
      LogSoFar(),
      (Texts{ErrorLine("UdiskWriteFile", "write file fail errno:No such file or directory \\n"),
             ErrorLine("file_write", "file_write failed size: 1, result: 0"),
             ErrorLine("file_write", "file_write failed, res: 12"), TraceLine(disk.root())}));
}

// ---- Traces ----

class FileWriteTrace : public FileWrite {};

TEST_F(FileWriteTrace, AsksTheFilterForTheRelativePathOncePerWrite) {
  Texts asked;
  device.base().SetFilter(std::make_shared<FakeFilter>([&](const std::string& path) {
    asked.push_back(path);
    return false;
  }));
  Deliver(WriteRequest{.path = kKnownFile, .data = "x"});
  Deliver(WriteRequest{.path = "/none", .data = "x"});
  EXPECT_EQ(asked, (Texts{kKnownFile, "/none"}));
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(FileWriteTrace, IsNotSentWithoutAFilterOrAMatch) {
  Deliver(WriteRequest{.path = kKnownFile, .data = "x"});
  Deliver(WriteRequest{.path = "/none", .data = "x"});
  device.base().SetFilter(std::make_shared<FakeFilter>(Texts{"/other"}));
  Deliver(WriteRequest{.path = kKnownFile, .data = "x"});
  Deliver(WriteRequest{.path = "/none", .data = "x"});
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(FileWriteTrace, IsNotSentAfterTheDeviceIsGoneButTheReplyIs) {
  MatchAll();
  for (const int answers : {0, 1, 2}) {
    device.DropBase(answers);
    ExpectSuccess(WriteRequest{.path = kKnownFile, .data = "x"});
    EXPECT_TRUE(device.base().Traces().empty()) << "gone after look " << answers;
  }
}

TEST_F(FileWriteTrace, OfAFailedWriteIsNotAlsoReportedAsAFailedRead) {
  MatchAll();
  Deliver(WriteRequest{.path = "/none", .data = "x"});
  EXPECT_EQ(device.ReportedReadFails(), Texts{});
}

TEST_F(FileWriteTrace, OnAReadOnlyMountSaysThatAccessWasDenied) {
  PrivateMount mount;
  const std::string failure = mount.ReadOnly(disk.root());
  if (!failure.empty()) GTEST_SKIP() << "no private mounts here: " << failure;
  MatchAll();
  ExpectFailure(WriteRequest{.path = kKnownFile, .data = "x"});
  EXPECT_EQ(Log().Messages(kError), (Texts{"write file fail errno:Read-only file system \\n",
                                           "file_write failed, res: 0"}));
  ExpectDenied(kKnownFile);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
}

TEST_F(FileWriteTrace, OfABatchOnAReadOnlyMountSaysThatAccessWasDenied) {
  PrivateMount mount;
  const std::string failure = mount.ReadOnly(disk.root());
  if (!failure.empty()) GTEST_SKIP() << "no private mounts here: " << failure;
  MatchAll();
  ExpectFailure(BatchWriteRequest{.path = kKnownFile, .pieces = {{.data = "x"}}});
  ExpectDenied(kKnownFile);
}

TEST_F(FileWriteTrace, OfAFileThatMayNotBeWrittenSaysThatAccessWasDenied) {
  ASSERT_EQ(chmod(disk.Local(kKnownFile).c_str(), 0444), 0);
  MatchAll();
  {
    const AsNobody nobody;
    ExpectFailure(WriteRequest{.path = kKnownFile, .data = "x"});
  }
  EXPECT_EQ(Log().Messages(kError),
            (Texts{"write file fail errno:Permission denied \\n", "file_write failed, res: 0"}));
  ExpectDenied(kKnownFile);
}

TEST_F(FileWriteTrace, OfDeniedAccessIsSentOnlyForAMatchingPath) {
  ASSERT_EQ(chmod(disk.Local(kKnownFile).c_str(), 0444), 0);
  device.base().SetFilter(std::make_shared<FakeFilter>(Texts{"/other"}));
  {
    const AsNobody nobody;
    ExpectFailure(WriteRequest{.path = kKnownFile, .data = "x"});
  }
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(FileWrite, ThatFillsTheDiskCountsAsFailedAndKeepsWhatWasWritten) {
  PrivateMount mount;
  const std::string failure = mount.Tmpfs(disk.root(), "size=64k");
  if (!failure.empty()) GTEST_SKIP() << "no private mounts here: " << failure;
  disk.MakeFile("/a", "");
  MatchAll();
  ExpectFailure(WriteRequest{.path = "/a", .data = std::string(1 << 20, 'x')});
  EXPECT_EQ(disk.ReadBack("/a"), std::string(64 << 10, 'x'));
  EXPECT_EQ(Log().Messages(kError), Texts{"file_write failed, res: 65536"});
  ExpectOneTrace("UDISK_WRITE_FILE_FAIL", false, "udisk writeFile fail", "/a");
}

// ---- Office and temporary files ----

TEST(CheckMicrosoftSuffix, AcceptsTheSuffixesOfTheList) {
  for (const char* suffix :
       {".doc", ".xls", ".tmp", ".ppt", ".vsd", ".spp", ".docx", ".xlsx", ".pptx", ".vsdx"}) {
    EXPECT_TRUE(check_microsoft_suffix(("report" + std::string(suffix)).c_str())) << suffix;
    EXPECT_TRUE(check_microsoft_suffix(suffix));
  }
  EXPECT_TRUE(check_microsoft_suffix("report.docx"));
  EXPECT_TRUE(check_microsoft_suffix("a.tmp"));
  EXPECT_TRUE(check_microsoft_suffix("x.vsdx"));
}

TEST(CheckMicrosoftSuffix, RefusesOthers) {
  for (const char* name : {"archive.zip", "README", "b.DOC", "", ".", "doc", "a.do", "a.doc.zip",
                           "a.", "a.tm", "a. doc"}) {
    EXPECT_FALSE(check_microsoft_suffix(name)) << name;
  }
}

TEST(CheckMicrosoftSuffix, ComparesOnlyTheBeginning) {
  EXPECT_TRUE(check_microsoft_suffix("a.document"));
  EXPECT_TRUE(check_microsoft_suffix("a.tmp1"));
  EXPECT_TRUE(check_microsoft_suffix("a.zip.xlsm"));
}

TEST(CheckMicrosoftSuffix, LogsTheSuffixOrThatThereIsNone) {
  Log().Clear();
  check_microsoft_suffix("/disk/a.b.docx");
  check_microsoft_suffix("/disk/README");
  check_microsoft_suffix("a.");
  EXPECT_EQ(LogSoFar(),
            (Texts{DebugLine("check_microsoft_suffix", "suffix: .docx"),
                   DebugLine("check_microsoft_suffix", "filename: /disk/README without suffix"),
                   DebugLine("check_microsoft_suffix", "suffix: .")}));
}

}  // namespace
}  // namespace cpd::test
