#include "operator.h"

#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "file_manager_linux.h"
#include "support/fake_sync.h"
#include "support/operator_fixture.h"
#include "support/requests.h"
#include "support/virtual_clock.h"

namespace cpd::test {
namespace {

using std::string;
using Messages = std::vector<std::string>;

// ---- The object ----

TEST(OperatorLife, StartsUnderMediaWithNothingSet) {
  FakeDevice device;
  const UDiskOperator udisk(&device);
  EXPECT_EQ(string(udisk.mMountPoint, sizeof udisk.mMountPoint),
            "/media/" + string(sizeof udisk.mMountPoint - 7, '\0'));
  EXPECT_EQ(udisk.mMountDrive, "");
  EXPECT_TRUE(udisk.mVolumes.empty());
  EXPECT_EQ(udisk.lastWriteEnd, 0);
  EXPECT_EQ(udisk.modified, 0);
  EXPECT_EQ(udisk.readBwKbps, 0U);
  EXPECT_EQ(udisk.lastReadMs, 0);
  EXPECT_EQ(udisk.lastBwUpdateMs, 0);
  EXPECT_EQ(udisk.lastBwTraceMs, 0);
  EXPECT_EQ(udisk.legacyBytes, 0U);
  EXPECT_EQ(udisk.legacyOverrunMs, 0);
  EXPECT_EQ(udisk.mVmId, 0);
}

TEST(OperatorLife, EndsWithOneSync) {
  auto udisk = std::make_unique<UDiskOperator>(nullptr);
  const int before = SyncCalls();
  udisk.reset();
  EXPECT_EQ(SyncCalls(), before + 1);
}

TEST(OperatorLife, ReadsTheClockAsWallClockMilliseconds) {
  VirtualClock clock(1'234'567'890'123);
  EXPECT_EQ(getCurrentTime(), 1'234'567'890'123U);
}

TEST_F(OperatorTest, HasNoIdsOfItsOwnAndIgnoresStop) {
  EXPECT_EQ(udisk->GetCID(), 0);
  EXPECT_EQ(udisk->GetVid(), 0);
  EXPECT_EQ(udisk->GetPid(), 0);
  udisk->Stop();
  EXPECT_TRUE(StillServes());
}

TEST_F(OperatorTest, ReturnsTheDevicesIdOrZeroWithoutADevice) {
  device.SetId(42);
  EXPECT_EQ(udisk->GetDeviceId(), 42);
  EXPECT_EQ(UDiskOperator(nullptr).GetDeviceId(), 0);
}

TEST_F(OperatorTest, DriverNameAndRemoteMountPointAreTheSameText) {
  Deliver(MountResponse{.drive = "U:", .label = "DISK"});
  Log().Clear();
  EXPECT_EQ(udisk->GetDrvName(), "U:");
  EXPECT_TRUE(Log().Lines().empty());
  EXPECT_EQ(udisk->GetRemoteMountPoint(), "U:");
  EXPECT_EQ(Log().Messages(kDebug), Messages{"remote mMountDrive:U:"});
}

TEST_F(OperatorTest, LocalMountPointIsLogged) {
  EXPECT_EQ(udisk->GetLocalMountPoint(), disk.root());
  EXPECT_EQ(Log().Messages(kDebug), Messages{"local mMountDrive:" + disk.root()});
}

// ---- Dispatch ----

/// Removes the directory that mount_remote makes outside the disk.
void RemoveMountDirectory() {
  std::error_code ignored;
  std::filesystem::remove(string("/media/") + kUnlikelyDisk, ignored);
  const passwd* user = getpwuid(getuid());
  if (user != nullptr) {
    std::filesystem::remove(string(user->pw_dir) + "/" + kUnlikelyDisk, ignored);
  }
}

TEST_F(OperatorTest, OnlyServedCommandsAreAnswered) {
  std::map<int, Request> served;
  for (const NamedRequest& good : OneRequestPerCommand()) served[good.request.cmd] = good.request;
  ASSERT_EQ(served.size(), 23U);
  for (int cmd = 0; cmd <= UINT16_MAX; ++cmd) {
    const auto good = served.find(cmd);
    if (good == served.end()) {
      Request unknown = ReadRequest{.path = kKnownFile};
      unknown.cmd = static_cast<uint16_t>(cmd);
      Log().Clear();
      EXPECT_FALSE(AskRaw(unknown)) << cmd;
      EXPECT_TRUE(Log().Lines().empty()) << cmd;
      continue;
    }
    const auto reply = AskRaw(good->second);
    EXPECT_EQ(reply.has_value(), cmd != kMountResponse) << cmd;
    if (reply) {
      EXPECT_EQ(reply->cmd, cmd);
    }
    Mount();  // 100 and 101 clear the mount point
  }
  RemoveMountDirectory();
}

TEST_F(OperatorTest, CodesWithoutAHandlerAreDroppedWithoutALogLine) {
  for (const uint16_t cmd : {0, 99, 104, 122, 124, 199, 201, 513}) {
    Request request = ReadRequest{.path = kKnownFile};
    request.cmd = cmd;
    EXPECT_EQ(Deliver(request), 0) << cmd;
  }
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(OperatorTest, EachHandlerLogsADroppedRequestUnderItsCommandsName) {
  for (const CommandRow& command : kCommandNames) {
    if (command.code == kFileOpen || command.code == kSmallFileNotice) continue;
    Log().Clear();
    Deliver(Request{.cmd = command.code});  // without a payload
    std::vector<LogLine> errors = Log().Lines();
    std::erase_if(errors, [](const LogLine& line) { return line.level != kError; });
    ASSERT_EQ(errors.size(), 1U) << command.name;
    EXPECT_EQ(errors[0].function, command.name);
    EXPECT_TRUE(errors[0].message.starts_with(string(command.name) + " ")) << errors[0].message;
  }
}

TEST_F(OperatorTest, ASmallFileReadThatIsDroppedPartWayIsLoggedUnderItsName) {
  Request request{.cmd = kSmallFileRead, .payload = BytesOf(uint32_t{1})};
  auto packet = request.Packet();
  packet->header->packetLen += sizeof(ReadHead);  // counts a head that is not there
  Deliver(std::move(packet));
  const LogLine line = Log().Lines().at(0);
  EXPECT_EQ(line.function, "small_file_read");
  EXPECT_EQ(line.message, "small_file_read dropped: the request reaches past its buffer");
}

TEST_F(OperatorTest, OnlyCommandsHaveNames) {
  EXPECT_STREQ(CommandName(kMountRemote), "mount_remote");
  EXPECT_STREQ(CommandName(kMountResponse), "mount_response");
  for (const uint16_t code : {0, 99, 124, 199, 201, 513}) EXPECT_EQ(CommandName(code), nullptr);
}

TEST_F(OperatorTest, APacketWithoutABufferIsIgnored) {
  EXPECT_EQ(Deliver(std::make_unique<CpdPacket>()), 0);
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(OperatorTest, ABigEndianRequestIsIgnored) {
  Request request = AttrRequest{.path = kKnownFile};
  string image = request.Bytes();
  image[12] = 1;
  EXPECT_EQ(Deliver(PacketOf(image)), 0);
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(OperatorTest, AHandlersResultIsDiscarded) {
  device.SetSendResult(-5);
  EXPECT_EQ(Deliver(AttrRequest{.path = kKnownFile}), 0);
  EXPECT_EQ(device.TakeSent().size(), 1U);
  Request cut = AttrRequest{.path = kKnownFile};
  EXPECT_EQ(Deliver(cut.CutPacket(3)), 0);
  EXPECT_TRUE(device.Sent().empty());
}

TEST_F(OperatorTest, RequestsAreCarriedOutButNotAnsweredOnceTheDeviceIsGone) {
  udisk->LetGoOfDevice();
  for (const NamedRequest& good : OneRequestPerCommand()) {
    EXPECT_EQ(Deliver(good.request), 0) << good.name;
    Mount();  // 100 and 101 clear the mount point
  }
  Deliver(MakeDirRequest{.path = "/made"});
  EXPECT_TRUE(disk.IsDir("/made"));
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_TRUE(device.base().Traces().empty());
  RemoveMountDirectory();
}

// ---- Mount point ----

TEST_F(OperatorTest, SetRootPathJoinsLetterAndLabel) {
  udisk->mVolumes.clear();
  EXPECT_EQ(udisk->SetRootPath("/mnt/", "DISK"), 0);
  EXPECT_EQ(string(udisk->mMountPoint, sizeof udisk->mMountPoint),
            "/mnt/DISK" + string(sizeof udisk->mMountPoint - 9, '\0'));
  EXPECT_EQ(udisk->mVolumes.size(), 1U);
  EXPECT_EQ(Log().Messages(), (Messages{R"(letter: /mnt/, mMountPoint: /mnt/DISK, label: DISK\n)",
                                        R"(==============letter:/mnt/DISK\n)"}));
}

TEST_F(OperatorTest, SetRootPathRecordsTheVolumesStatistics) {
  ASSERT_EQ(udisk->mVolumes.size(), 1U);
  const VolumeRecord& record = *udisk->mVolumes.front();
  EXPECT_EQ(string(record.label, sizeof record.label), "DISK" + string(252, '\0'));
  udisk_statvfs expected = {};
  FileManagerLinux().UdiskGetStatvfs(disk.root().c_str(), &expected);
  EXPECT_EQ(+record.stat.f_bsize, +expected.f_bsize);
  EXPECT_EQ(+record.stat.f_frsize, +expected.f_frsize);
  EXPECT_EQ(+record.stat.f_blocks, +expected.f_blocks);
  EXPECT_EQ(+record.stat.f_namemax, +expected.f_namemax);
}

TEST_F(OperatorTest, SetRootPathOnAMissingDirectoryRecordsZeros) {
  udisk->mVolumes.clear();
  EXPECT_EQ(udisk->SetRootPath("/nowhere/", "at-all"), 0);
  ASSERT_EQ(udisk->mVolumes.size(), 1U);
  EXPECT_EQ(BytesOf(udisk->mVolumes.front()->stat), string(112, '\0'));
}

TEST_F(OperatorTest, SetRootPathAddsVolumesAtTheEnd) {
  EXPECT_EQ(udisk->SetRootPath("/mnt/", "SECOND"), 0);
  ASSERT_EQ(udisk->mVolumes.size(), 2U);
  EXPECT_STREQ(udisk->mVolumes.front()->label, "DISK");
  EXPECT_STREQ(udisk->mVolumes.back()->label, "SECOND");
  EXPECT_EQ(udisk->GetLocalMountPoint(), "/mnt/SECOND");
}

TEST_F(OperatorTest, SetRootPathWithANullClearsTheDisk) {
  const std::vector<std::pair<const char*, const char*>> nulls = {
      {nullptr, nullptr}, {"/mnt/", nullptr}, {nullptr, "DISK"}};
  for (const auto& [letter, label] : nulls) {
    Mount();
    EXPECT_EQ(udisk->SetRootPath(letter, label), -1);
    EXPECT_EQ(string(udisk->mMountPoint, sizeof udisk->mMountPoint),
              string(sizeof udisk->mMountPoint, '\0'));
    EXPECT_TRUE(udisk->mVolumes.empty());
  }
}

TEST_F(OperatorTest, SetRootPathAccepts255BytesAndRefusesMore) {
  const string letter(200, 'l');
  EXPECT_EQ(udisk->SetRootPath(letter.c_str(), string(55, 'b').c_str()), 0);
  EXPECT_EQ(udisk->GetLocalMountPoint(), letter + string(55, 'b'));
  EXPECT_TRUE(Log().Messages(kError).empty());

  EXPECT_EQ(udisk->SetRootPath(letter.c_str(), string(56, 'b').c_str()), -1);
  EXPECT_EQ(udisk->GetLocalMountPoint(), "");
  EXPECT_TRUE(udisk->mVolumes.empty());
  EXPECT_EQ(Log().Messages(kError).size(), 1U);
  EXPECT_EQ(udisk->SetRootPath("", string(100'000, 'b').c_str()), -1);
}

TEST_F(OperatorTest, RequestsUseTheCurrentMountPoint) {
  TempDisk other;
  other.MakeFile(kKnownFile, "something longer than before");
  const AttrRequest request{.path = kKnownFile};
  EXPECT_EQ(+Ask(request)->stat.st_size, 13);
  udisk->SetRootPath(other.letter().c_str(), other.label().c_str());
  EXPECT_EQ(+Ask(request)->stat.st_size, 28);
  udisk->SetRootPath(nullptr, nullptr);
  EXPECT_EQ(Ask(request)->attr_length, 0);
}

// ---- Log lines ----

TEST_F(OperatorTest, DebugLineByteForByte) {
  udisk->SetRootPath("/mnt/", "DISK");
  const LogLine line = Log().Lines().at(0);
  EXPECT_EQ(line.channel, 0);
  EXPECT_EQ(line.level, 5);
  EXPECT_EQ(line.tag, "CPD_LOG");
  EXPECT_GT(line.line, 0);
  EXPECT_EQ(line.raw,
            "operator.cpp SetRootPath(" + std::to_string(line.line) +
                R"re(): "Debug:" "letter: /mnt/, mMountPoint: /mnt/DISK, label: DISK\n")re");
}

TEST_F(OperatorTest, ErrorLineByteForByte) {
  Ask(DirReadRequest{.path = string("ab\0cd", 5)});
  const LogLine line = Log().Lines().at(0);
  EXPECT_EQ(line.channel, 0);
  EXPECT_EQ(line.level, 7);
  EXPECT_EQ(line.tag, "CPD_LOG");
  EXPECT_EQ(line.raw, "operator.cpp dir_read(" + std::to_string(line.line) +
                          R"re(): "Error:" "dir_read dir not match\n")re");
}

// ---- Bus events ----

class BusEventTest : public OperatorTest {
 protected:
  int DeliverBusEvent(const Request& event) {
    packet = event.Packet();
    return udisk->BusEventHandle(packet);
  }
  int Announce(uint32_t kbps) {
    return DeliverBusEvent({.cmd = kBusReadBandwidth, .payload = BytesOf(kbps), .request_id = 7});
  }
  /// The messages of the bandwidth traces so far.
  Messages Traced() {
    Messages messages;
    for (const Trace& trace : device.base().Traces("LOCAL_UDISK_READ_BW_INFO")) {
      messages.push_back(trace.fields.at("message"));
    }
    return messages;
  }

  std::shared_ptr<CpdPacket> packet;
  VirtualClock clock;
};

TEST_F(BusEventTest, StoresTheBandwidthWithAFloorOf1000) {
  const std::vector<std::pair<uint32_t, uint32_t>> stored = {
      {500, 1000},  {0, 0},       {1, 1000},    {999, 1000},
      {1000, 1000}, {1001, 1001}, {5000, 5000}, {0xffffffff, 0xffffffff}};
  for (const auto& [announced, expected] : stored) {
    EXPECT_EQ(Announce(announced), 0);
    EXPECT_EQ(udisk->readBwKbps, expected) << announced;
  }
}

TEST_F(BusEventTest, RecordsItsTime) {
  Announce(5000);
  EXPECT_EQ(udisk->lastBwUpdateMs, clock.NowMs());
  EXPECT_EQ(udisk->bwEventMs, clock.NowMs());
}

TEST_F(BusEventTest, OfAnotherCommandChangesNothingAlthoughItsWordIsRead) {
  Announce(5000);
  clock.Advance(10'000);
  Log().Clear();
  for (const uint16_t cmd : {0, 105, 512, 514}) {
    EXPECT_EQ(DeliverBusEvent({.cmd = cmd, .payload = BytesOf(uint32_t{8000})}), 0);
    EXPECT_EQ(packet->readPos, 4U);
  }
  EXPECT_EQ(udisk->readBwKbps, 5000U);
  EXPECT_EQ(udisk->lastBwUpdateMs, clock.NowMs() - 10'000);
  EXPECT_EQ(Traced().size(), 1U);
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(BusEventTest, WithoutAPacketBufferOrWordIsIgnored) {
  Announce(5000);
  const int64_t updated = udisk->lastBwUpdateMs;
  clock.Advance(10'000);
  EXPECT_EQ(udisk->BusEventHandle(nullptr), 0);
  EXPECT_EQ(udisk->BusEventHandle(std::make_shared<CpdPacket>()), 0);
  for (const char* payload : {"", "abc"}) {
    EXPECT_EQ(DeliverBusEvent({.cmd = kBusReadBandwidth, .payload = payload}), 0);
  }
  EXPECT_EQ(udisk->readBwKbps, 5000U);
  EXPECT_EQ(udisk->lastBwUpdateMs, updated);
  EXPECT_EQ(Traced().size(), 1U);
}

TEST_F(BusEventTest, InBigEndianHasItsWordSwapped) {
  packet = Request{.cmd = kBusReadBandwidth, .payload = string("\0\0\x13\x88", 4)}.Packet();
  packet->header->bigEndian = 1;
  udisk->BusEventHandle(packet);
  EXPECT_EQ(udisk->readBwKbps, 5000U);
}

TEST_F(BusEventTest, IsTracedAndLogged) {
  Announce(5000);
  const std::vector<Trace> traces = device.base().Traces();
  ASSERT_EQ(traces.size(), 1U);
  EXPECT_EQ(traces[0].event, "LOCAL_UDISK_READ_BW_INFO");
  EXPECT_EQ(traces[0].fields.at("message"), "Udisk read bwinfo:5000");
  EXPECT_EQ(traces[0].fields.at("success"), "true");
  EXPECT_FALSE(traces[0].detail);
  EXPECT_EQ(Log().Messages(),
            (Messages{"local mMountDrive:" + disk.root(),
                      R"(busEventHandle cmd: 513, paylaodSize: 0,requestId:7 bw:5000\n)"}));
  EXPECT_EQ(udisk->lastBwTraceMs, clock.NowMs());
}

TEST_F(BusEventTest, IsTracedAtMostOnceEveryFiveSeconds) {
  Announce(5000);
  clock.Advance(1000);
  Announce(6000);
  EXPECT_EQ(udisk->readBwKbps, 6000U) << "stored on every event";
  EXPECT_EQ(udisk->lastBwUpdateMs, clock.NowMs());
  clock.Advance(4000);
  Announce(7000);
  EXPECT_EQ(Traced(), (Messages{"Udisk read bwinfo:5000"})) << "not yet after 5000 ms";
  clock.Advance(1);
  Announce(8000);
  EXPECT_EQ(Traced(), (Messages{"Udisk read bwinfo:5000", "Udisk read bwinfo:8000"}));
}

TEST_F(BusEventTest, ThatComesFromWithinTheTraceOfAnotherIsNotTraced) {
  uint32_t next = 5000;
  device.base().OnTrace([&](const Trace&) {
    if (next < 5100) Announce(++next);
  });
  Announce(5000);
  EXPECT_EQ(device.base().Traces().size(), 1U);
  EXPECT_EQ(udisk->readBwKbps, 5000U) << "the outer one is stored last";
}

TEST_F(BusEventTest, OfTheSameValueIsNotTraced) {
  Announce(5000);
  clock.Advance(10'000);
  Announce(5000);
  EXPECT_EQ(Traced().size(), 1U);
  EXPECT_EQ(udisk->lastBwTraceMs, clock.NowMs() - 10'000);
}

TEST_F(BusEventTest, ComparesTheAnnouncedValueWithTheStoredOne) {
  Announce(500);
  clock.Advance(10'000);
  Announce(1000);
  EXPECT_EQ(Traced().size(), 1U) << "500 is stored as 1000";
  Announce(500);
  EXPECT_EQ(Traced().size(), 2U);
}

}  // namespace
}  // namespace cpd::test
