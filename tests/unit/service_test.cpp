#include "service.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "support/failing_threads.h"
#include "support/operator_fixture.h"

namespace cpd::test {
namespace {

using std::string;
using Texts = std::vector<std::string>;

/// A text as a JSON string, for paths and names that need no escapes.
string Quoted(const string& text) { return '"' + text + '"'; }

string Params(const string& letter, const string& label, const string& name,
              const string& more = "") {
  return "{" + Quoted("letter") + ":" + Quoted(letter) + "," + Quoted("label") + ":" +
         Quoted(label) + "," + Quoted("name") + ":" + Quoted(name) + more + "}";
}

/// The payload that announces a disk.
string Announcement(const string& name, uint8_t read_only) {
  return BytesOf(static_cast<uint16_t>(name.size())) + name + '\0' + static_cast<char>(read_only);
}

/// A service whose operator does not have a disk yet.
class ServiceTest : public OperatorTest {
 protected:
  ServiceTest() {
    MakeOperator();
    service = std::make_unique<UDiskService>(&device, udisk.get());
    Log().Clear();
  }
  /// Runs the body of the service thread on the test's thread.
  void Run(const string& params) {
    device.base().SetParams(params);
    EXPECT_EQ(UDiskService::ServiceThread(service.get()), nullptr);
  }
  string Good(const string& more = "") {
    return Params(disk.letter(), disk.label(), "Stick", more);
  }
  /// The announcement's payload. Expects the notice to be the only packet before it.
  string Announced() {
    const std::vector<SentPacket> sent = device.TakeSent();
    EXPECT_EQ(sent.size(), 2U);
    if (sent.size() != 2) return "";
    EXPECT_EQ(sent[0].cmd, kSmallFileNotice);
    EXPECT_EQ(sent[1].cmd, kMountRemote);
    return sent[1].payload;
  }
  string RootPath() { return udisk->mMountPoint; }

  std::unique_ptr<UDiskService> service;
};

TEST_F(ServiceTest, IsCreatedWithNothingStarted) {
  EXPECT_EQ(service->mDevice, &device);
  EXPECT_EQ(service->mOperator, udisk.get());
  EXPECT_EQ(service->mThread, nullptr);
  EXPECT_EQ(service->mUdiskDevice, nullptr);
  EXPECT_EQ(service->mStatus, 0);
  EXPECT_EQ(service->mReadOnly, 0);
}

// ---- The thread's work ----

TEST_F(ServiceTest, SetsTheRootPathBeforeItSendsTheNoticeAndThenTheAnnouncement) {
  string root_at_first_packet;
  device.OnSend([&](const SentPacket& sent) {
    if (sent.cmd == kSmallFileNotice) root_at_first_packet = RootPath();
  });
  Run(Good());
  EXPECT_EQ(root_at_first_packet, disk.root());
  EXPECT_EQ(Announced(), Announcement("Stick", 0));
  EXPECT_EQ(udisk->mVolumes.size(), 1U);
}

TEST_F(ServiceTest, NoticeByteForByte) {
  service->SetReadSmallFileTrubo();
  const SentPacket sent = device.Sent().at(0);
  EXPECT_EQ(sent.magic, 0x27);
  EXPECT_EQ(sent.dev_id, kDeviceId);
  EXPECT_EQ(sent.cmd, 122);
  EXPECT_EQ(sent.request_id, 6666U);
  EXPECT_EQ(sent.packet_len, 16U);
  EXPECT_EQ(sent.big_endian, 0);
  EXPECT_EQ(sent.reserved, (std::array<uint8_t, 3>{}));
  EXPECT_EQ(sent.capacity, 128U);
  EXPECT_EQ(sent.flags, -1);
}

TEST_F(ServiceTest, AnnouncementByteForByte) {
  service->UpdateReadOnly(1);
  EXPECT_EQ(service->MountRemote("Stick", &device), 0);
  const SentPacket sent = device.Sent().at(0);
  EXPECT_EQ(sent.magic, 0x27);
  EXPECT_EQ(sent.dev_id, kDeviceId);
  EXPECT_EQ(sent.cmd, 100);
  EXPECT_EQ(sent.request_id, 1234U);
  EXPECT_EQ(sent.packet_len, 25U);
  EXPECT_EQ(sent.big_endian, 0);
  EXPECT_EQ(sent.payload, string("\x05\0Stick\0\x01", 9));
  EXPECT_EQ(sent.capacity, 128U);
  EXPECT_EQ(sent.flags, -1);
}

TEST_F(ServiceTest, ANameOf255BytesIsAnnouncedInFull) {
  const string name(255, 'n');
  Run(Params(disk.letter(), disk.label(), name));
  const SentPacket sent = device.Sent().at(1);
  EXPECT_EQ(sent.packet_len, 275U);
  EXPECT_EQ(sent.capacity, 275U);
  EXPECT_EQ(sent.payload, Announcement(name, 0));
  EXPECT_EQ(sent.payload.size(), 259U);
}

TEST_F(ServiceTest, ANameThatFillsTheUsualPacketDoesNotMakeItLarger) {
  service->MountRemote(string(128 - 16 - 4, 'n').c_str(), &device);
  service->MountRemote(string(128 - 16 - 4 + 1, 'n').c_str(), &device);
  EXPECT_EQ(device.Sent().at(0).packet_len, 128U);
  EXPECT_EQ(device.Sent().at(0).capacity, 128U);
  EXPECT_EQ(device.Sent().at(1).packet_len, 129U);
  EXPECT_EQ(device.Sent().at(1).capacity, 129U);
}

TEST_F(ServiceTest, ALongerNameIsCutTo255Bytes) {
  Run(Params(disk.letter(), disk.label(), string(254, 'n') + "12"));
  EXPECT_EQ(Announced(), Announcement(string(254, 'n') + "1", 0));
}

TEST_F(ServiceTest, LogsItsStepsInOrder) {
  device.base().bus = 3;
  device.base().addr = 7;
  const string params = Good(R"(,"readOnly":1)");
  Run(params);
  EXPECT_EQ(
      Log().Messages(),
      (Texts{R"(client udisk service Start ..........\n)", R"(client udisk service x86 \n)",
             "bus=3,addr=7, params:" + params, "udisk soft client", "udisk is read only 1",
             "path: " + params + ", lable: DISK",
             "letter: " + disk.letter() + ", mMountPoint: " + disk.root() + R"(, label: DISK\n)",
             "==============letter:" + disk.root() + R"(\n)",
             R"(client udisk mount tmpLabel: Stick,readOnly:1\n)",
             R"(packet header size: 2, payload size: 9, packet size: 25\n)",
             R"(client udisk mount ret: 0\n)"}));
  for (const LogLine& line : Log().Lines()) EXPECT_EQ(line.level, kDebug) << line.raw;
  EXPECT_EQ(Log().Lines().at(0).file, "service.cpp");
}

TEST_F(ServiceTest, LogsOnly255BytesOfLongParametersButReadsAllOfThem) {
  const string params = Params(disk.letter(), disk.label(), "Stick",
                               R"(,"other":")" + string(300, 'x') + R"(","readOnly":1)");
  Run(params);
  EXPECT_TRUE(Log().Has(kDebug, "bus=0,addr=0, params:" + params));
  EXPECT_TRUE(Log().Has(kDebug, "path: " + params.substr(0, 255) + ", lable: DISK"));
  EXPECT_EQ(Announced(), Announcement("Stick", 1));
}

TEST_F(ServiceTest, WhoseDeviceIsGoneDoesNothing) {
  device.DropBase();
  Run(Good());
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_EQ(RootPath(), "/media/");
  EXPECT_EQ(Log().Messages(kError), Texts{"getDevBase error usb device."});
}

TEST_F(ServiceTest, StoppedBeforeItStartsSendsNothing) {
  service->StopLoop();
  Log().Clear();
  Run(Good());
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_EQ(RootPath(), "/media/");
  EXPECT_EQ(Log().Messages(), (Texts{R"(client udisk service Start ..........\n)",
                                     R"(new service thread error, status: 2\n)"}));
  EXPECT_EQ(Log().Lines().at(1).level, kError);
}

TEST_F(ServiceTest, HoldsTheBaseUntilItEnds) {
  const auto owners = [&] { return device.getDevBase().use_count(); };
  const long before = owners();
  long meanwhile = 0;
  device.OnSend([&](const SentPacket&) { meanwhile = owners(); });
  Run(Good());
  EXPECT_GT(meanwhile, before);
  EXPECT_EQ(owners(), before);
}

// ---- Parameters ----

struct BadParams {
  const char* what;
  string text;
  bool is_json = true;
};

void PrintTo(const BadParams& bad, std::ostream* out) { *out << bad.what; }

class BadParamsTest : public ServiceTest, public ::testing::WithParamInterface<BadParams> {};

TEST_P(BadParamsTest, LeaveAnEmptyRootPathAndAnnounceNoName) {
  Run(GetParam().text);
  EXPECT_EQ(RootPath(), "");
  EXPECT_EQ(Announced(), string("\0\0\0\0", 4));
  EXPECT_EQ(service->mReadOnly, 0);

  const Texts errors = Log().Messages(kError);
  EXPECT_EQ(errors.size(), GetParam().is_json ? 0U : 1U);
  for (const string& error : errors) {
    const string start = "Failed to parse JSON errors: ";
    EXPECT_EQ(error.substr(0, start.size()), start);
    EXPECT_GT(error.size(), start.size()) << "the JSON reader's own message follows";
  }
}

constexpr bool kNoJson = false;

INSTANTIATE_TEST_SUITE_P(
    Shapes, BadParamsTest,
    ::testing::Values(
        BadParams{"Empty", "", kNoJson}, BadParams{"Blank", "  ", kNoJson},
        BadParams{"NoJson", "letter=/mnt/", kNoJson},
        BadParams{"CutObject", R"({"letter":"/mnt/","label":"D","name":"N")", kNoJson},
        BadParams{"HalfAString", R"({"letter":"/mn)", kNoJson},
        BadParams{"Array", R"(["letter","label","name"])"},
        BadParams{"ArrayOfObject", R"([{"letter":"/mnt/","label":"D","name":"N"}])"},
        BadParams{"Text", R"("letter")"}, BadParams{"Number", "17"}, BadParams{"True", "true"},
        BadParams{"Null", "null"}, BadParams{"EmptyObject", "{}"},
        BadParams{"NoName", R"({"letter":"/mnt/","label":"D"})"},
        BadParams{"NoLabel", R"({"letter":"/mnt/","name":"N"})"},
        BadParams{"NoLetter", R"({"label":"D","name":"N"})"},
        BadParams{"ReadOnlyWithoutTheOthers", R"({"letter":"/mnt/","label":"D","readOnly":1})"},
        BadParams{"NameIsNumber", R"({"letter":"/mnt/","label":"D","name":5,"readOnly":1})"},
        BadParams{"NameIsNull", R"({"letter":"/mnt/","label":"D","name":null,"readOnly":1})"},
        BadParams{"NameIsArray", R"({"letter":"/mnt/","label":"D","name":["N"],"readOnly":1})"},
        BadParams{"LetterIsNumber", R"({"letter":1,"label":"D","name":"N","readOnly":1})"},
        BadParams{"LetterIsObject", R"({"letter":{},"label":"D","name":"N","readOnly":1})"},
        BadParams{"LabelIsTrue", R"({"letter":"/mnt/","label":true,"name":"N","readOnly":1})"},
        BadParams{"KeysInOtherCase", R"({"Letter":"/mnt/","Label":"D","Name":"N"})"},
        BadParams{"DeeplyNested", string(100'000, '['), kNoJson}),
    [](const auto& test) { return test.param.what; });

TEST_F(ServiceTest, IncompleteParametersDoNotChangeReadOnly) {
  service->mReadOnly = 1;
  Run(R"({"letter":"/mnt/","label":"DISK","readOnly":0})");
  EXPECT_EQ(service->mReadOnly, 1);
  EXPECT_EQ(Announced(), string("\0\0\0\x01", 4));
}

TEST_F(ServiceTest, ReadOnlyIsANumberOrABooleanCutTo8Bits) {
  const std::vector<std::pair<string, uint8_t>> values = {
      {"0", 0},    {"1", 1},   {"true", 1},         {"false", 0},      {"300", 44},
      {"-1", 255}, {"1.9", 1}, {"2147483647", 255}, {"-2147483648", 0}};
  for (const auto& [text, expected] : values) {
    service->mReadOnly = 77;
    Log().Clear();
    Run(Good(R"(,"readOnly":)" + text));
    EXPECT_EQ(service->mReadOnly, expected) << text;
    EXPECT_TRUE(Log().Has(kDebug, "udisk is read only " + std::to_string(expected))) << text;
    EXPECT_EQ(Announced(), Announcement("Stick", expected)) << text;
  }
}

TEST_F(ServiceTest, ReadOnlyOfAnotherKindCountsAsAbsent) {
  for (const char* text : {R"("1")", "null", "[1]", "{}", "2147483648", "-2147483649", "4294967297",
                           "1e20", "-1e300", "18446744073709551615"}) {
    service->mReadOnly = 77;
    Log().Clear();
    Run(Good(string(R"(,"readOnly":)") + text));
    EXPECT_EQ(service->mReadOnly, 77) << text;
    EXPECT_FALSE(Log().Has(kDebug, "udisk is read only 77")) << text;
    EXPECT_EQ(Announced(), Announcement("Stick", 77)) << text;
    EXPECT_EQ(RootPath(), disk.root());
  }
}

TEST_F(ServiceTest, OtherMembersAreIgnored) {
  Run(Good(R"(,"bus":1,"nested":{"letter":"/elsewhere/"})"));
  EXPECT_EQ(RootPath(), disk.root());
}

TEST_F(ServiceTest, TextsEndAtAnEscapedNul) {
  Run(R"({"letter":"/mnt/\u0000x","label":"DI\u0000SK","name":"St\u0000ick"})");
  EXPECT_EQ(RootPath(), "/mnt/DI");
  EXPECT_EQ(Announced(), Announcement("St", 0));
}

TEST_F(ServiceTest, ALetterOf255BytesFitsButNotWithALabel) {
  const string letter = "/" + string(254, 'l');
  Run(Params(letter + "more", "", "Stick"));
  EXPECT_EQ(RootPath(), letter);
  device.TakeSent();

  Run(Params(letter, "D", "Stick"));
  EXPECT_EQ(RootPath(), "");
  EXPECT_EQ(Log().Messages(kError).size(), 1U);
  EXPECT_EQ(Announced(), Announcement("Stick", 0));
}

// ---- Announcing ----

TEST_F(ServiceTest, AnnouncingReturnsAndLogsTheSendResult) {
  device.SetSendResult(-7);
  EXPECT_EQ(service->MountRemote("Stick", &device), -7);
  EXPECT_EQ(Log().Messages(), (Texts{R"(client udisk mount tmpLabel: Stick,readOnly:0\n)",
                                     R"(packet header size: 2, payload size: 9, packet size: 25\n)",
                                     R"(client udisk mount ret: -7\n)"}));
}

TEST_F(ServiceTest, AnnouncingToAnotherDeviceIsRefused) {
  FakeDevice other;
  EXPECT_EQ(service->MountRemote("Stick", &other), -1);
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_TRUE(other.Sent().empty());
  std::array<char, 128> expected;
  std::snprintf(expected.data(), expected.size(),
                R"(udisk already plugout, mDevice: %p, device: %p)", static_cast<void*>(&device),
                static_cast<void*>(&other));
  EXPECT_EQ(Log().Messages(kDebug), Texts{expected.data()});
}

TEST_F(ServiceTest, AnnouncingToADeviceThatIsGoneIsRefused) {
  device.DropBase();
  EXPECT_EQ(service->MountRemote("Stick", &device), -1);
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_EQ(Log().Messages(), Texts{"getDevBase error  usb device. "});
  EXPECT_EQ(Log().Lines().at(0).level, kError);
}

TEST_F(ServiceTest, ServesAHostThatKeepsPackets) {
  device.KeepPackets(true);
  Run(Good());
  EXPECT_EQ(Announced(), Announcement("Stick", 0));
}

// ---- The thread ----

TEST_F(ServiceTest, RunsOnceOnItsThreadAndIsJoined) {
  device.base().SetParams(Good());
  EXPECT_EQ(service->StartLoop(), 0);
  EXPECT_NE(service->mThread, nullptr);
  ASSERT_TRUE(device.WaitForPackets(2));
  EXPECT_EQ(service->mStatus, 1);
  EXPECT_EQ(service->StopLoop(), 0);
  EXPECT_EQ(service->mStatus, 2);
  EXPECT_EQ(service->mThread, nullptr);
  EXPECT_EQ(Announced(), Announcement("Stick", 0));
  const Texts messages = Log().Messages(kDebug);
  EXPECT_EQ(messages.front(), R"(Udisk service StartLoop\n)");
  EXPECT_TRUE(Log().Has(kDebug, R"(client udisk StopLoop\n)"));
}

TEST_F(ServiceTest, StopWaitsForTheThread) {
  device.base().SetParams(Good());
  std::atomic<bool> announced = false;
  device.OnSend([&](const SentPacket& sent) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    if (sent.cmd == kMountRemote) announced = true;
  });
  service->StartLoop();
  ASSERT_TRUE(device.WaitForPackets(1));
  service->StopLoop();
  EXPECT_TRUE(announced);
}

TEST_F(ServiceTest, StopIsRequestedBeforeTheThreadIsWaitedFor) {
  device.base().SetParams(Good());
  std::atomic<bool> requested = false;
  device.OnSend([&](const SentPacket& sent) {
    if (sent.cmd != kMountRemote) return;
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (service->mStatus != UDiskService::kStopRequested &&
           std::chrono::steady_clock::now() < end) {
      std::this_thread::yield();
    }
    requested = service->mStatus == UDiskService::kStopRequested;
  });
  service->StartLoop();
  ASSERT_TRUE(device.WaitForPackets(2));
  service->StopLoop();
  EXPECT_TRUE(requested) << "while the thread was held";
}

TEST_F(ServiceTest, StopWithoutAThreadOnlySetsTheStatus) {
  EXPECT_EQ(service->StopLoop(), 0);
  EXPECT_EQ(service->mStatus, 2);
  EXPECT_EQ(Log().Messages(), Texts{R"(client udisk StopLoop\n)"});
}

TEST_F(ServiceTest, AThreadThatCannotStartDoesNotChangeTheStatus) {
  const FailingThread first(0);
  EXPECT_EQ(service->StartLoop(), -1);
  EXPECT_EQ(service->mThread, nullptr);
  EXPECT_EQ(service->mStatus, 0);
  EXPECT_EQ(Log().Messages(), Texts{R"(Udisk service StartLoop\n)"});
}

// ---- Other operations ----

TEST_F(ServiceTest, UpdateReadOnlyIsStoredAndLogged) {
  EXPECT_EQ(service->UpdateReadOnly(1), 0);
  EXPECT_EQ(service->mReadOnly, 1);
  EXPECT_EQ(Log().Messages(kDebug), Texts{"udisk is read only 1"});
}

TEST_F(ServiceTest, RemovableHookAndDeviceInfoDoNothing) {
  service->udisk_removable_func(nullptr, nullptr);
  UdiskDevice out{.count = 7, .infos = nullptr};
  EXPECT_EQ(service->GetDeviceInfo(&device, &out), -1);
  EXPECT_EQ(out.count, 7);
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(ServiceTest, GetUdiskInfoOnlyRefusesNulls) {
  GetUdiskInfo(service.get(), &device, udisk.get());
  EXPECT_TRUE(Log().Lines().empty());
  GetUdiskInfo(nullptr, &device, udisk.get());
  GetUdiskInfo(service.get(), nullptr, udisk.get());
  GetUdiskInfo(service.get(), &device, nullptr);
  EXPECT_EQ(Log().Messages(kError), Texts(3, "pThis or device or operator is NULL"));
}

}  // namespace
}  // namespace cpd::test
