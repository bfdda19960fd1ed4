// Command 123: reads of several files, or of pieces of files, in one round trip.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <limits>
#include <string>

#include "support/expectations.h"
#include "support/log_and_trace.h"
#include "support/operator_fixture.h"
#include "support/peak_memory.h"
#include "support/requests.h"
#include "support/virtual_clock.h"

namespace cpd::test {
namespace {

constexpr uint32_t kMost = std::numeric_limits<uint32_t>::max();

class SmallFileRead : public OperatorTest {
 protected:
  /// A reply's record.
  static std::string Record(const SmallRead& asked, const std::string& data) {
    const ReadHead head{.offset = asked.offset,
                        .unread_8 = 0,
                        .size = static_cast<uint32_t>(data.size()),
                        .path_length = static_cast<uint32_t>(asked.path.size()),
                        .unread_20 = 0};
    return BytesOf(head) + asked.path + data;
  }
  /// Expects a reply with the request's address and exactly these records, in a buffer that grew
  /// at most once.
  void ExpectRecords(const Request& request, const Texts& records) {
    std::string payload = BytesOf(static_cast<uint32_t>(records.size()));
    for (const std::string& record : records) payload += record;
    const auto reply = AskRaw(request);
    ASSERT_TRUE(reply) << "no reply";
    EXPECT_GE(reply->capacity, 16 + payload.size());
    EXPECT_LE(reply->capacity, 16 + payload.size() + PACKET_GROW_STEP);
    ExpectReply(reply, request, payload, reply->capacity);
  }
  /// The handler's result for a request. Expects no reply.
  int64_t Refused(const Request& request) {
    device.TakeSent();
    Log().Clear();
    const int64_t result = udisk->small_file_read(16, request.Packet().get());
    EXPECT_TRUE(device.TakeSent().empty());
    return result;
  }
  /// A request of one record, with this path length instead of the path's own.
  static Request WithPathLength(const std::string& path, uint32_t length) {
    const Request request = SmallReadRequest{.records = {{.path = path}}};
    return {.cmd = request.cmd, .payload = Patched(request.payload, 4 + 16, length)};
  }
};

TEST_F(SmallFileRead, OfNoRecordsRepliesWithTheCountOnly) {
  const Request request = SmallReadRequest{};
  ASSERT_EQ(request.payload.size(), 4U);
  ExpectRecords(request, {});
}

TEST_F(SmallFileRead, OfAFileAndAMissingOneRepliesWithDataAndThenWithNone) {
  disk.MakeFile("/a.txt", "0123456789");
  const SmallRead found{.path = "/a.txt", .size = 10};
  const SmallRead missing{.path = "/none", .size = 5};
  ExpectRecords(SmallReadRequest{.records = {found, missing}},
                {Record(found, "0123456789"), Record(missing, "")});
}

TEST_F(SmallFileRead, RepliesInTheOrderOfTheRequest) {
  disk.MakeFile("/a", "aaaa");
  disk.MakeFile("/b", "bbbb");
  const SmallRead b{.path = "/b"};
  const SmallRead a{.path = "/a"};
  ExpectRecords(SmallReadRequest{.records = {b, a, b}},
                {Record(b, "bbbb"), Record(a, "aaaa"), Record(b, "bbbb")});
}

TEST_F(SmallFileRead, OfAMissingFileDoesNotAffectTheRecordsAfterIt) {
  const SmallRead missing{.path = "/none"};
  const SmallRead known{.path = kKnownFile};
  ExpectRecords(SmallReadRequest{.records = {missing, known}},
                {Record(missing, ""), Record(known, "known content")});
}

TEST_F(SmallFileRead, OfAPieceRepliesWithTheRequestedBytes) {
  const SmallRead piece{.path = kKnownFile, .offset = 2, .size = 3};
  ExpectRecords(SmallReadRequest{.records = {piece}}, {Record(piece, "own")});
}

TEST_F(SmallFileRead, OfMoreThanTheFileHoldsRepliesWithTheRestOfIt) {
  const SmallRead rest{.path = kKnownFile, .offset = 6, .size = 100000};
  ExpectRecords(SmallReadRequest{.records = {rest}}, {Record(rest, "content")});
}

TEST_F(SmallFileRead, PastTheEndOrOfSizeZeroRepliesWithNoData) {
  const SmallRead past{.path = kKnownFile, .offset = 13};
  const SmallRead nothing{.path = kKnownFile, .size = 0};
  ExpectRecords(SmallReadRequest{.records = {past, nothing}},
                {Record(past, ""), Record(nothing, "")});
  EXPECT_EQ(Log().Messages(), Texts{});
}

TEST_F(SmallFileRead, OfADirectoryOrANegativeOffsetRepliesWithNoData) {
  const SmallRead directory{.path = kKnownDir};
  const SmallRead before{.path = kKnownFile, .offset = -1};
  ExpectRecords(SmallReadRequest{.records = {directory, before}},
                {Record(directory, ""), Record(before, "")});
}

TEST_F(SmallFileRead, OfAFifoRepliesAtOnceWithNoData) {
  ASSERT_EQ(mkfifo(disk.Local("/fifo").c_str(), 0600), 0);
  const SmallRead fifo{.path = "/fifo"};
  ExpectRecords(SmallReadRequest{.records = {fifo}}, {Record(fifo, "")});
}

TEST_F(SmallFileRead, RepliesWithZeroInTheFieldsThatItDoesNotInterpret) {
  const SmallRead known{.path = kKnownFile, .size = 5, .unread_8 = 0x11223344, .unread_20 = kMost};
  ExpectRecords(SmallReadRequest{.records = {known}}, {Record(known, "known")});
}

TEST_F(SmallFileRead, HasTheseBytesOnTheWire) {
  disk.MakeFile("/a", "xyz");
  const Request request{.cmd = 123,
                        .payload = std::string("\1\0\0\0"
                                               "\1\0\0\0\0\0\0\0"
                                               "\x11\x22\x33\x44"
                                               "\x10\0\0\0"
                                               "\2\0\0\0"
                                               "\x55\x66\x77\x78"
                                               "/a",
                                               30)};
  ExpectRecords(request, {std::string("\1\0\0\0\0\0\0\0"
                                      "\0\0\0\0"
                                      "\2\0\0\0"
                                      "\2\0\0\0"
                                      "\0\0\0\0"
                                      "/a"
                                      "yz",
                                      28)});
}

TEST_F(SmallFileRead, DoesNotChangeTheRequest) {
  const Request request = SmallReadRequest{.records = {{.path = kKnownFile, .unread_8 = 5}}};
  const auto packet = request.Packet();
  EXPECT_EQ(udisk->small_file_read(16, packet.get()), 0);
  EXPECT_EQ(PayloadOf(*packet), request.payload);
}

TEST_F(SmallFileRead, IsNeverTracedAndDoesNotSetModified) {
  device.base().SetFilter(std::make_shared<FakeFilter>([](const std::string&) { return true; }));
  Deliver(SmallReadRequest{.records = {{.path = kKnownFile}, {.path = "/none"}}});
  EXPECT_TRUE(device.base().Traces().empty());
  EXPECT_EQ(device.ReportedReadFails(), Texts{});
  EXPECT_EQ(udisk->modified, 0);
}

TEST_F(SmallFileRead, LogsOnlyReadsThatFailed) {
  Deliver(SmallReadRequest{.records = {{.path = kKnownFile}, {.path = "/none"}}});
  EXPECT_EQ(LogSoFar(),
            Texts{ErrorLine("UdiskReadFile",
                            "file_read failed res:0 errno: No such file or directory\\n")});
}

TEST_F(SmallFileRead, EchoesAllOfAPathThatHoldsANul) {
  disk.MakeFile("/a", "a");
  const SmallRead read{.path = std::string("/a\0b", 4)};
  ExpectRecords(SmallReadRequest{.records = {read}}, {Record(read, "a")});
}

// ---- Malformed requests ----

TEST_F(SmallFileRead, WithoutABufferIsRefusedWithMinusOne) {
  CpdPacket packet;
  EXPECT_EQ(udisk->small_file_read(16, &packet), -1);
  ASSERT_EQ(LogSoFar().size(), 1U);
  EXPECT_EQ(WithoutNumbers(LogSoFar()[0]),
            ErrorLine("small_file_read", "small_file_read payload_length #, \\n"));
  EXPECT_TRUE(device.Sent().empty());
}

TEST_F(SmallFileRead, OfAPayloadShorterThanTheCountIsRefusedWithMinusOne) {
  for (size_t size = 0; size < 4; ++size) {
    EXPECT_EQ(Refused({.cmd = kSmallFileRead, .payload = std::string(size, '\0')}), -1);
    EXPECT_EQ(LogSoFar(), Texts{ErrorLine("small_file_read", "small_file_read payload_length " +
                                                                 std::to_string(size) + ", \\n")});
  }
}

TEST_F(SmallFileRead, OfFewerRecordsThanCountedIsRefusedWithMinusTwo) {
  EXPECT_EQ(Refused(SmallReadRequest{.records = {{.path = kKnownFile}}, .count = 2}), -2);
  EXPECT_EQ(LogSoFar(), Texts{ErrorLine("small_file_read", "small_file_read remaining 0, \\n")});
}

TEST_F(SmallFileRead, OfATruncatedRecordHeadIsRefusedWithMinusTwoAndTheBytesLeft) {
  for (const size_t left : {1, 23}) {
    Request request = SmallReadRequest{.records = {{.path = kKnownFile}}, .count = 2};
    request.payload += std::string(left, '\1');
    EXPECT_EQ(Refused(request), -2);
    EXPECT_EQ(LogSoFar(), Texts{ErrorLine("small_file_read", "small_file_read remaining " +
                                                                 std::to_string(left) + ", \\n")});
  }
}

TEST_F(SmallFileRead, CountingAnythingInAnEmptyRequestIsRefusedWithMinusTwo) {
  for (const uint32_t count : {1U, 0x80000000U, kMost}) {
    EXPECT_EQ(Refused(SmallReadRequest{.count = count}), -2) << count;
  }
}

TEST_F(SmallFileRead, WithAPathAsLongAsTheBytesThatRemainIsAccepted) {
  const SmallRead known{.path = kKnownFile};
  ExpectRecords(WithPathLength(kKnownFile, 10), {Record(known, "known content")});
}

TEST_F(SmallFileRead, WithAPathOneByteLongerThanWhatRemainsIsRefusedWithMinusThreeSilently) {
  for (const uint32_t length : {11U, 0x7fffffffU, 0x80000000U, kMost}) {
    EXPECT_EQ(Refused(WithPathLength(kKnownFile, length)), -3) << length;
    EXPECT_EQ(Log().Messages(), Texts{});
  }
}

TEST_F(SmallFileRead, WithAnEmptyPathIsRefusedWithMinusThreeSilently) {
  EXPECT_EQ(Refused(WithPathLength(kKnownFile, 0)), -3);
  EXPECT_EQ(Log().Messages(), Texts{});
  EXPECT_EQ(Refused(SmallReadRequest{.records = {{.path = ""}}}), -3);
}

TEST_F(SmallFileRead, WhoseLaterRecordIsMalformedReadsNothing) {
  EXPECT_EQ(Refused(SmallReadRequest{.records = {{.path = "/none"}, {.path = ""}}}), -3);
  EXPECT_EQ(Log().Messages(), Texts{}) << "the first record is not read";
}

TEST_F(SmallFileRead, EndsWhereThePacketLengthSays) {
  const Request request = SmallReadRequest{.records = {{.path = kKnownFile}}};
  const auto refused = [&](uint32_t payload_bytes) {
    const auto packet = request.Packet();
    packet->header->packetLen = 16 + payload_bytes;
    return udisk->small_file_read(16, packet.get());
  };
  EXPECT_EQ(refused(3), -1);
  EXPECT_EQ(refused(4 + 23), -2);
  EXPECT_EQ(refused(4 + 24 + 9), -3);
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_EQ(refused(4 + 24 + 10), 0);
}

// ---- Sizes ----

TEST_F(SmallFileRead, OfAThousandRecordsSendsOneReplyWhoseBufferGrewAtMostOnce) {
  std::vector<SmallRead> asked;
  Texts records;
  for (int i = 0; i < 1000; ++i) {
    const std::string path = "/file" + std::to_string(i);
    const std::string content(1000, static_cast<char>('a' + i % 26));
    disk.MakeFile(path, content);
    asked.push_back({.path = path, .size = 1000});
    records.push_back(Record(asked.back(), content));
  }
  ExpectRecords(SmallReadRequest{.records = asked}, records);
}

TEST_F(SmallFileRead, OfTheLargestSizesAllocatesNoMoreThanTheFilesDeliver) {
  const SmallRead known{.path = kKnownFile, .size = 0x7fffffff};
  const SmallRead missing{.path = "/none", .size = 0x7fffffff};
  const uint64_t before = PeakMemory();
  ExpectRecords(
      SmallReadRequest{.records = {known, missing, known}},
      {Record(known, "known content"), Record(missing, ""), Record(known, "known content")});
  EXPECT_LT(PeakMemory() - before, 256U << 20);
}

TEST_F(SmallFileRead, PastTheGreatestOffsetLogsTheSameWhateverItsSize) {
  for (const uint32_t size : {100U, 1U << 20}) {
    Log().Clear();
    const SmallRead past{.path = kKnownFile, .offset = INT64_MAX - 50, .size = size};
    ExpectRecords(SmallReadRequest{.records = {past}}, {Record(past, "")});
    ASSERT_EQ(Log().Messages(kError).size(), 1U);
    EXPECT_TRUE(Log().Messages(kError)[0].ends_with("errno: Invalid argument\\n"));
  }
}

TEST_F(SmallFileRead, OfMoreThanAPacketHoldsSendsNothingAndLogsAnError) {
  disk.MakeFile("/large", "");
  ASSERT_EQ(truncate(disk.Local("/large").c_str(), int64_t{3} << 29), 0);  // a sparse file
  // The sum of two of them passes 31 bits, that of three passes 32.
  const SmallRead large{.path = "/large", .size = 0x7fffffff};
  const uint64_t before = PeakMemory();
  EXPECT_FALSE(AskRaw(SmallReadRequest{.records = {large, large}}));
  EXPECT_FALSE(AskRaw(SmallReadRequest{.records = {large, large, large}}));
  EXPECT_EQ(Log().Messages(kError),
            (std::vector<std::string>{"small_file_read: no packet holds 3221225536 bytes",
                                      "small_file_read: no packet holds 4831838302 bytes"}));
  EXPECT_LT(PeakMemory() - before, 256U << 20);
  EXPECT_TRUE(StillServes());
}

TEST_F(SmallFileRead, OfANegativeSizeRepliesWithNoDataAndAllocatesNothingForIt) {
  for (const uint32_t size : {0x80000000U, kMost}) {
    Log().Clear();
    const SmallRead known{.path = kKnownFile, .size = size};
    const uint64_t before = PeakMemory();
    ExpectRecords(SmallReadRequest{.records = {known}}, {Record(known, "")});
    EXPECT_LT(PeakMemory() - before, 256U << 20);
    ASSERT_EQ(Log().Messages(kError).size(), 1U) << size;
    EXPECT_TRUE(Log().Messages(kError)[0].starts_with("file_read failed res: -1, fd = "));
  }
}

TEST_F(SmallFileRead, WhosePlannedSizeWrapsStillDeliversEveryByte) {
  // The planned size of two records with paths of 10 bytes is 16 + 2 * (0x7fffffde + 34), which
  // wraps to 16.
  constexpr uint32_t kWraps = 0x7fffffde;
  disk.MakeFile("/large.bin", std::string(300000, 'b'));
  const SmallRead big{.path = "/large.bin", .size = kWraps};
  const SmallRead more{.path = kKnownFile, .size = kWraps};
  ExpectRecords(SmallReadRequest{.records = {big, more}},
                {Record(big, std::string(300000, 'b')), Record(more, "known content")});
}

// ---- Pacing ----

class PacedSmallFileRead : public SmallFileRead {
 protected:
  static constexpr uint32_t kAround = 16 + 24 + 10;  // a record's planned size without its data

  void Announce(uint32_t kbps) {
    const Request event{.cmd = kBusReadBandwidth, .payload = BytesOf(kbps)};
    udisk->BusEventHandle(event.Packet());
  }
  /// How many milliseconds a request of one record with this planned size sleeps.
  int64_t SleepOf(uint32_t planned) {
    const Request request =
        SmallReadRequest{.records = {{.path = kKnownFile, .size = planned - kAround}}};
    EXPECT_TRUE(AskRaw(request));
    const std::vector<int64_t> sleeps = clock.TakeSleepsMs();
    EXPECT_LE(sleeps.size(), 1U);
    return sleeps.empty() ? 0 : sleeps[0];
  }
  /// Makes an operator with this environment variable set.
  void MakeOperatorWith(const char* variable, const char* value) {
    setenv(variable, value, 1);
    MakeOperator();
    unsetenv(variable);
    Mount();
  }

  VirtualClock clock;
};

TEST_F(PacedSmallFileRead, OfNoRecordsIsCharged16Bytes) {
  Announce(8000);
  Deliver(SmallReadRequest{});
  EXPECT_EQ(udisk->legacyBytes, 16U);
}

TEST_F(PacedSmallFileRead, IsChargedThePlannedSizeNotTheBytesRead) {
  Announce(8000);
  Deliver(SmallReadRequest{
      .records = {{.path = kKnownFile, .size = 100000}, {.path = "/none", .size = 5}}});
  EXPECT_EQ(udisk->legacyBytes, 16U + (100000 + 10 + 24) + (5 + 5 + 24));
}

TEST_F(PacedSmallFileRead, IsChargedThePlannedSizeIn32Bits) {
  Announce(8000);
  Deliver(SmallReadRequest{.records = {{.path = kKnownFile, .size = 0x80000000},
                                       {.path = kKnownFile, .size = 0x80000000}}});
  EXPECT_EQ(udisk->legacyBytes, 16U + 2 * (10 + 24));
  EXPECT_TRUE(clock.TakeSleepsMs().empty());
}

TEST_F(PacedSmallFileRead, SleepsOnceForTheWholeReplyAndStartsTheNextPeriodWithNothing) {
  Announce(8000);
  EXPECT_EQ(SleepOf(511999), 0);
  EXPECT_EQ(udisk->legacyBytes, 511999U);
  EXPECT_EQ(SleepOf(kAround), 500);
  EXPECT_EQ(udisk->legacyBytes, 0U);
  EXPECT_EQ(SleepOf(511999), 0);
  EXPECT_EQ(SleepOf(512000), 500);
}

TEST_F(PacedSmallFileRead, SharesTheCountWithFileRead) {
  Announce(8000);
  EXPECT_EQ(SleepOf(500000), 0);
  EXPECT_TRUE(Ask(ReadRequest{.path = kKnownFile, .size = 12000}));
  EXPECT_EQ(clock.TakeSleepsMs(), std::vector<int64_t>{500});
  EXPECT_EQ(udisk->legacyBytes, 12000U) << "file_read counts towards the new period";
}

TEST_F(PacedSmallFileRead, SleepsBeforeItSends) {
  Announce(8000);
  std::vector<int64_t> slept_before_reply;
  device.OnSend([&](const SentPacket&) { slept_before_reply = clock.TakeSleepsMs(); });
  SleepOf(512000);
  EXPECT_EQ(slept_before_reply, std::vector<int64_t>{500});
}

TEST_F(PacedSmallFileRead, ReadsBeforeItIsPaced) {
  MakeOperatorWith("TESSEL_CPD_CLIENT_THROTTLE_LEGACY", "0");
  Announce(8000);
  Log().Clear();
  Deliver(SmallReadRequest{.records = {{.path = "/none"}}});
  EXPECT_EQ(Log().Messages(),
            (Texts{"file_read failed res:0 errno: No such file or directory\\n",
                   "[TokenBucket] updateRate: 8000 kbps -> refillPerMs=1000, oldBw=0"}));
}

TEST_F(PacedSmallFileRead, ByTheTokenBucketIsChargedThePlannedSize) {
  MakeOperatorWith("TESSEL_CPD_CLIENT_THROTTLE_LEGACY", "0");
  Announce(8000);
  EXPECT_EQ(SleepOf(262144), 0);
  EXPECT_EQ(SleepOf(65536), 66);
  EXPECT_EQ(udisk->tokenBucket.totalBytes, 262144 + 65536);
}

TEST_F(PacedSmallFileRead, WithoutABandwidthIsNotCounted) {
  EXPECT_EQ(SleepOf(10 << 20), 0);
  EXPECT_EQ(udisk->legacyBytes, 0U);
}

TEST_F(PacedSmallFileRead, ThatIsRefusedIsNotCharged) {
  Announce(8000);
  Deliver(SmallReadRequest{.records = {{.path = kKnownFile}}, .count = 2});
  Deliver(SmallReadRequest{.records = {{.path = ""}}});
  EXPECT_EQ(udisk->legacyBytes, 0U);
}

TEST_F(PacedSmallFileRead, DoesNotRecordItsStartTime) {
  Announce(8000);
  SleepOf(1000);
  EXPECT_EQ(udisk->lastReadMs, 0);
}

TEST_F(PacedSmallFileRead, AppliesAForcedBandwidthAfterItDropsAStaleOne) {
  MakeOperatorWith("TESSEL_CPD_CLIENT_FORCE_BW", "8000");
  clock.Advance(60000);
  // If the forced bandwidth were applied first, it would be 6 seconds old, and dropped as stale.
  clock.TickPerReading(6000);
  EXPECT_EQ(SleepOf(512000), 500);
  EXPECT_EQ(udisk->readBwKbps, 8000U);
}

TEST_F(PacedSmallFileRead, RefreshesTheTimeOfAForcedBandwidthWithAReadingOfItsOwn) {
  MakeOperatorWith("TESSEL_CPD_CLIENT_FORCE_BW", "8000");
  const int64_t begin = clock.NowMs();
  clock.TickPerReading(10);
  SleepOf(1000);
  EXPECT_GT(udisk->lastBwUpdateMs, begin);
}

}  // namespace
}  // namespace cpd::test
