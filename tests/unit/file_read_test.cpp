// Command 105: reads of file data, paced to the announced bandwidth.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <limits>
#include <string>

#include "support/expectations.h"
#include "support/operator_fixture.h"
#include "support/virtual_clock.h"

namespace cpd::test {
namespace {

constexpr uint32_t kMost = std::numeric_limits<uint32_t>::max();

class FileRead : public OperatorTest {
 protected:
  /// Head, path and data of a reply to `request`.
  static std::string ReplyPayload(const ReadRequest& request, const std::string& data) {
    const ReadHead head{.offset = request.offset,
                        .unread_8 = request.unread_8,
                        .size = static_cast<uint32_t>(data.size()),
                        .path_length = static_cast<uint32_t>(request.path.size()),
                        .unread_20 = request.unread_20};
    return BytesOf(head) + request.path + data;
  }
  /// Expects a reply with a size of 0 and no data.
  void ExpectNothing(const ReadRequest& request) {
    ExpectReply(AskRaw(request), request, ReplyPayload(request, ""), 16 + request.path.size() + 24);
  }
};

TEST_F(FileRead, OfMoreThanTheFileHoldsRepliesWithAllOfItInABufferOfExactlyThatSize) {
  const std::string content(100, 'c');
  disk.MakeFile("/a.txt", content);
  const ReadRequest request{.path = "/a.txt", .offset = 0, .size = 4096};
  ExpectReply(AskRaw(request), request, ReplyPayload(request, content), 16 + 100 + 6 + 24);
}

TEST_F(FileRead, InTheMiddleRepliesWithTheRequestedBytes) {
  disk.MakeFile("/a.txt", "0123456789");
  const ReadRequest request{.path = "/a.txt", .offset = 3, .size = 4};
  ExpectReply(AskRaw(request), request, ReplyPayload(request, "3456"), 16 + 4 + 6 + 24);
}

TEST_F(FileRead, OfBytesOfEveryValueLeavesThemAsTheyAre) {
  std::string content;
  for (int i = 0; i < 256 * 1024; ++i) content.push_back(static_cast<char>(i ^ (i >> 8)));
  disk.MakeFile("/a.bin", content);
  const auto reply = Ask(ReadRequest{.path = "/a.bin", .size = 1 << 20});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->result, content.size());
  EXPECT_TRUE(reply->data == content);
}

TEST_F(FileRead, PastTheEndRepliesWithResultZeroAndNoData) {
  disk.MakeFile("/a.txt", "abc");
  ExpectNothing({.path = "/a.txt", .offset = 3, .size = 10});
  ExpectNothing({.path = "/a.txt", .offset = 4000, .size = 10});
  ExpectNothing({.path = "/a.txt", .offset = int64_t{1} << 40, .size = 10});
  EXPECT_EQ(Log().Messages(), Texts{});
}

TEST_F(FileRead, OfSizeZeroRepliesWithResultZeroAndNoData) {
  ExpectNothing({.path = kKnownFile, .size = 0});
}

TEST_F(FileRead, OfAnEmptyFileRepliesWithResultZeroAndNoData) {
  disk.MakeFile("/empty", "");
  ExpectNothing({.path = "/empty"});
}

TEST_F(FileRead, OfAMissingPathRepliesWithResultZeroAndNoData) {
  ExpectNothing({.path = "/none"});
  ASSERT_EQ(Log().Messages(), Texts{"file_read failed res:0 errno: No such file or directory\\n"});
  EXPECT_EQ(Log().Lines()[0].level, kError);
  EXPECT_EQ(Log().Lines()[0].file, "file_manager_linux.cpp");
  EXPECT_EQ(Log().Lines()[0].function, "UdiskReadFile");
}

TEST_F(FileRead, OfAMissingPathThatTheFilterMatchesIsTracedAsASuccess) {
  device.base().SetFilter(std::make_shared<FakeFilter>(Texts{"/none"}));
  ExpectNothing({.path = "/none"});
  EXPECT_EQ(device.base().Traces("LOCAL_UDISK_READ_FILE_SUCCESS").size(), 1U);
  EXPECT_EQ(device.base().Traces().size(), 1U);
  EXPECT_EQ(device.ReportedReadFails(), Texts{});
}

TEST_F(FileRead, OfADirectoryRepliesWithResultZeroAndNoData) {
  ExpectNothing({.path = kKnownDir});
  ASSERT_EQ(Log().Messages(kError).size(), 1U);
  const std::string message = Log().Messages(kError)[0];
  EXPECT_TRUE(message.starts_with("file_read failed res: -1, fd = ")) << message;
  EXPECT_TRUE(message.ends_with(" errno: Is a directory\\n")) << message;
}

TEST_F(FileRead, ThatCannotSucceedLogsTheSameWhateverItsSize) {
  const auto error_of = [&](const ReadRequest& request) {
    Log().Clear();
    ExpectNothing(request);
    const std::vector<std::string> errors = Log().Messages(kError);
    return errors.size() == 1 ? errors[0].substr(errors[0].find("errno")) : "not one error";
  };
  constexpr int64_t kLast = std::numeric_limits<int64_t>::max();
  for (const uint32_t size : {100U, 4096U, 64U << 10, (64U << 10) + 1, 1U << 20, 0x7fffffffU}) {
    SCOPED_TRACE(size);
    EXPECT_EQ(error_of({.path = kKnownDir, .size = size}), "errno: Is a directory\\n");
    EXPECT_EQ(error_of({.path = kKnownFile, .offset = kLast - 50, .size = size}),
              "errno: Invalid argument\\n");
    EXPECT_EQ(error_of({.path = kKnownFile, .offset = -1, .size = size}),
              "errno: Invalid argument\\n");
    Log().Clear();
    ExpectNothing({.path = kKnownFile, .offset = kLast - size, .size = size});
    EXPECT_TRUE(Log().Messages(kError).empty()) << "past the end, but not past the greatest offset";
  }
}

TEST_F(FileRead, OfAFifoRepliesAtOnceWithResultZeroAndNoData) {
  ASSERT_EQ(mkfifo(disk.Local("/fifo").c_str(), 0600), 0);
  ExpectNothing({.path = "/fifo"});
}

TEST_F(FileRead, AtANegativeOffsetRepliesWithResultZeroAndNoData) {
  ExpectNothing({.path = kKnownFile, .offset = -1, .size = 10});
  ExpectNothing({.path = kKnownFile, .offset = std::numeric_limits<int64_t>::min(), .size = 10});
  EXPECT_EQ(Log().Messages(kError).size(), 2U);
}

TEST_F(FileRead, OfANegativeSizeRepliesWithResultZeroAndNoData) {
  for (const uint32_t size : {kMost, 0x80000000U}) {
    Log().Clear();
    ExpectNothing({.path = kKnownFile, .size = size});
    ASSERT_EQ(Log().Messages(kError).size(), 1U) << size;
    EXPECT_TRUE(Log().Messages(kError)[0].starts_with("file_read failed res: -1, fd = "));
  }
}

TEST_F(FileRead, OfTheLargestSizeRepliesWithTheWholeFile) {
  disk.MakeFile("/a.txt", "abc");
  const ReadRequest request{.path = "/a.txt", .offset = 1, .size = 0x7fffffff};
  ExpectReply(AskRaw(request), request, ReplyPayload(request, "bc"), 16 + 2 + 6 + 24);
}

TEST_F(FileRead, AtTheLargestOffsetsRepliesWithResultZeroAndNoData) {
  for (const int64_t offset :
       {std::numeric_limits<int64_t>::max(), std::numeric_limits<int64_t>::max() - 4096}) {
    ExpectNothing({.path = kKnownFile, .offset = offset, .size = 0x7fffffff});
  }
}

TEST_F(FileRead, OfAFileOfUnknownSizeRepliesWithItsContent) {
  udisk->SetRootPath("/proc/", "self");
  const auto reply = Ask(ReadRequest{.path = "/cmdline", .size = 65536});
  ASSERT_TRUE(reply);
  EXPECT_GT(reply->result, 0U);
  EXPECT_NE(reply->data.find("unit_tests"), std::string::npos);
}

TEST_F(FileRead, ReturnsTheTwoFieldsThatItDoesNotInterpretUnchanged) {
  const ReadRequest request{
      .path = kKnownFile, .offset = 2, .size = 5, .unread_8 = 0x11223344, .unread_20 = 0xaabbccdd};
  ExpectReply(AskRaw(request), request, ReplyPayload(request, "own c"), 16 + 5 + 10 + 24);
}

TEST_F(FileRead, HasTheseBytesOnTheWire) {
  disk.MakeFile("/a", "xyz");
  const Request request{.cmd = 105,
                        .payload = std::string("\1\0\0\0\0\0\0\0"
                                               "\x11\x22\x33\x44"
                                               "\x10\0\0\0"
                                               "\2\0\0\0"
                                               "\x55\x66\x77\x78"
                                               "/a",
                                               26)};
  ExpectReply(AskRaw(request), request,
              std::string("\1\0\0\0\0\0\0\0"
                          "\x11\x22\x33\x44"
                          "\2\0\0\0"
                          "\2\0\0\0"
                          "\x55\x66\x77\x78"
                          "/a"
                          "yz",
                          28),
              16 + 2 + 2 + 24);
}

TEST_F(FileRead, WritesTheResultIntoTheRequest) {
  disk.MakeFile("/a.txt", "abc");
  const ReadRequest request{.path = "/a.txt", .size = 10, .unread_8 = 1, .unread_20 = 2};
  const auto packet = Request(request).Packet();
  udisk->file_read(16, packet.get());
  EXPECT_EQ(PayloadOf(*packet) + "abc", ReplyPayload(request, "abc"));
}

TEST_F(FileRead, EndsALocalPathAtItsFirstNulButEchoesAllOfIt) {
  disk.MakeFile("/a", "xyz");
  const ReadRequest request{.path = std::string("/a\0b", 4)};
  ExpectReply(AskRaw(request), request, ReplyPayload(request, "xyz"), 16 + 3 + 4 + 24);
}

TEST_F(FileRead, TakesAPathOfOneMebibyte) {
  ExpectNothing({.path = "/" + std::string(1 << 20, 'p')});
}

TEST_F(FileRead, LogsNothingOnSuccess) {
  ASSERT_TRUE(Ask(ReadRequest{.path = kKnownFile}));
  EXPECT_EQ(Log().Messages(), Texts{});
}

// ---- Traces ----

class FileReadTrace : public FileRead {};

TEST_F(FileReadTrace, OfAMatchingPathCarriesThePathAndWhereItHappened) {
  device.base().SetFilter(std::make_shared<FakeFilter>(Texts{kKnownFile}));
  ASSERT_TRUE(Ask(ReadRequest{.path = kKnownFile}));
  const std::vector<Trace> traces = device.base().Traces();
  ASSERT_EQ(traces.size(), 1U);
  EXPECT_EQ(traces[0].event, "LOCAL_UDISK_READ_FILE_SUCCESS");
  EXPECT_EQ(traces[0].detail, kKnownFile);
  EXPECT_EQ(traces[0].id.size(), 16U);
  EXPECT_EQ(traces[0].id.find_first_not_of("0123456789abcdef"), std::string::npos);
  auto fields = traces[0].fields;
  ExpectMadeIn("file_read", "udisk readFile success", fields["message"]);
  fields.erase("message");
  EXPECT_EQ(fields, (std::map<std::string, std::string>{
                        {"status", "success"}, {"success", "true"}, {"productName", disk.root()}}));
  EXPECT_EQ(Log().Messages(), Texts{"local mMountDrive:" + disk.root()});
}

TEST_F(FileReadTrace, IsSentForEveryReadOfAMatchingPath) {
  device.base().SetFilter(std::make_shared<FakeFilter>(Texts{kKnownFile}));
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(Ask(ReadRequest{.path = kKnownFile, .offset = i}));
  const std::vector<Trace> traces = device.base().Traces();
  ASSERT_EQ(traces.size(), 3U);
  EXPECT_NE(traces[0].id, traces[1].id);
}

TEST_F(FileReadTrace, AsksTheFilterForTheRelativePathOncePerRead) {
  Texts asked;
  device.base().SetFilter(std::make_shared<FakeFilter>([&](const std::string& path) {
    asked.push_back(path);
    return false;
  }));
  ASSERT_TRUE(Ask(ReadRequest{.path = kKnownFile}));
  ASSERT_TRUE(Ask(ReadRequest{.path = "/none"}));
  EXPECT_EQ(asked, (Texts{kKnownFile, "/none"}));
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(FileReadTrace, IsNotSentForAPathThatTheFilterDoesNotMatch) {
  device.base().SetFilter(std::make_shared<FakeFilter>(Texts{"/other"}));
  const int tracer_calls = TracerCalls();
  ASSERT_TRUE(Ask(ReadRequest{.path = kKnownFile}));
  EXPECT_TRUE(device.base().Traces().empty());
  EXPECT_EQ(TracerCalls(), tracer_calls);
}

TEST_F(FileReadTrace, IsNotSentWithoutAFilter) {
  device.base().SetFilter(nullptr);
  ASSERT_TRUE(Ask(ReadRequest{.path = kKnownFile}));
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(FileReadTrace, IsNotSentAfterTheDeviceIsGoneButTheReplyIs) {
  device.base().SetFilter(std::make_shared<FakeFilter>(Texts{kKnownFile}));
  device.DropBase();
  EXPECT_TRUE(Ask(ReadRequest{.path = kKnownFile}));
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(FileReadTrace, IsDroppedWhenTheDeviceGoesBetweenTwoLooksAtIt) {
  device.base().SetFilter(std::make_shared<FakeFilter>(Texts{kKnownFile}));
  for (int answers = 1; answers <= 2; ++answers) {
    device.DropBase(answers);
    EXPECT_TRUE(Ask(ReadRequest{.path = kKnownFile}));
    EXPECT_TRUE(device.base().Traces().empty()) << "gone after look " << answers;
  }
}

TEST_F(FileReadTrace, WithoutAPathHasNoDetail) {
  device.base().SetFilter(std::make_shared<FakeFilter>(Texts{""}));
  ASSERT_TRUE(Ask(ReadRequest{.path = ""}));
  const std::vector<Trace> traces = device.base().Traces("LOCAL_UDISK_READ_FILE_SUCCESS");
  ASSERT_EQ(traces.size(), 1U);
  EXPECT_EQ(traces[0].detail, std::nullopt);
}

// ---- Pacing ----

class PacedFileRead : public FileRead {
 protected:
  void Announce(uint32_t kbps) {
    const Request event{.cmd = kBusReadBandwidth, .payload = BytesOf(kbps)};
    udisk->BusEventHandle(event.Packet());
  }
  /// How many milliseconds one read of `size` bytes sleeps.
  int64_t SleepOf(uint32_t size) {
    EXPECT_TRUE(Ask(ReadRequest{.path = kKnownFile, .size = size}));
    const std::vector<int64_t> sleeps = clock.TakeSleepsMs();
    EXPECT_LE(sleeps.size(), 1U);
    return sleeps.empty() ? 0 : sleeps[0];
  }
  /// The same for each of a run of reads.
  std::vector<int64_t> SleepsOf(int reads, uint32_t size) {
    std::vector<int64_t> slept;
    for (int i = 0; i < reads; ++i) slept.push_back(SleepOf(size));
    return slept;
  }

  VirtualClock clock;
};

TEST_F(PacedFileRead, AnnouncedAt8000KbpsSleepsOnThe8thReadOf65536BytesAndThenOnEvery7th) {
  Announce(8000);
  std::vector<int64_t> expected(8 + 7 * 5, 0);
  for (size_t i = 7; i < expected.size(); i += 7) expected[i] = 500;
  EXPECT_EQ(SleepsOf(static_cast<int>(expected.size()), 65536), expected);
}

TEST_F(PacedFileRead, CountsTheRequestedSizeNotTheBytesRead) {
  Announce(8000);
  EXPECT_EQ(SleepOf(512000), 500) << "although the file is short";
  EXPECT_TRUE(Ask(ReadRequest{.path = "/none", .size = 1}));
  EXPECT_EQ(clock.TakeSleepsMs(), std::vector<int64_t>{500}) << "the count starts with 512000";
}

TEST_F(PacedFileRead, SleepsBeforeItReads) {
  Announce(8000);
  clock.OnSleep([&] { disk.MakeFile(kKnownFile, "written meanwhile"); });
  const auto reply = Ask(ReadRequest{.path = kKnownFile, .size = 512000});
  ASSERT_TRUE(reply);
  EXPECT_EQ(clock.TakeSleepsMs(), std::vector<int64_t>{500});
  EXPECT_EQ(reply->data, "written meanwhile");
}

TEST_F(PacedFileRead, AtOneByteLessThanTheAllowanceDoesNotSleep) {
  Announce(8000);
  EXPECT_EQ(SleepOf(511999), 0);
  EXPECT_EQ(SleepOf(1), 500);
}

TEST_F(PacedFileRead, RecordsItsStartTime) {
  clock.Advance(123);
  SleepOf(1);
  EXPECT_EQ(udisk->lastReadMs, clock.NowMs());
}

TEST_F(PacedFileRead, AtAForcedBandwidthStaysPacedWithoutAnnouncements) {
  setenv("TESSEL_CPD_CLIENT_FORCE_BW", "8000", 1);
  MakeOperator();
  unsetenv("TESSEL_CPD_CLIENT_FORCE_BW");
  Mount();
  clock.Advance(60000);
  EXPECT_EQ(SleepOf(512000), 500);
  Announce(0);
  EXPECT_EQ(SleepOf(512000), 500) << "whatever is announced";
}

TEST_F(PacedFileRead, ByTheTokenBucketPassesItsBurstAndThenSleepsOffItsDebt) {
  setenv("TESSEL_CPD_CLIENT_THROTTLE_LEGACY", "0", 1);
  MakeOperator();
  unsetenv("TESSEL_CPD_CLIENT_THROTTLE_LEGACY");
  Mount();
  Announce(8000);  // 1000 bytes per millisecond, a burst of 262144
  EXPECT_EQ(SleepsOf(6, 65536), (std::vector<int64_t>{0, 0, 0, 0, 66, 66}));
  EXPECT_EQ(udisk->tokenBucket.totalBytes, 6 * 65536);
  EXPECT_EQ(udisk->legacyBytes, 0U);
}

TEST_F(PacedFileRead, ByTheTokenBucketCarriesASmallDebt) {
  setenv("TESSEL_CPD_CLIENT_THROTTLE_LEGACY", "0", 1);
  MakeOperator();
  unsetenv("TESSEL_CPD_CLIENT_THROTTLE_LEGACY");
  Mount();
  Announce(8000);
  EXPECT_EQ(SleepOf(262144 + 31000), 0);
  EXPECT_EQ(SleepOf(1), 32);
}

TEST_F(PacedFileRead, LeavesRequestsOfOtherKindsUnpaced) {
  Announce(8000);
  udisk->legacyBytes = 1 << 30;
  Deliver(AttrRequest{.path = kKnownFile});
  Deliver(DirReadRequest{.path = kKnownDir});
  Deliver(CheckDirRequest{.path = kKnownDir});
  Deliver(StatvfsRequest{.path = kKnownFile});
  EXPECT_TRUE(clock.TakeSleepsMs().empty());
  EXPECT_EQ(udisk->legacyBytes, 1U << 30);
}

}  // namespace
}  // namespace cpd::test
