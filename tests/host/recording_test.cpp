// Packets are recorded without holding anybody up, and a capture is read whatever it contains.
#include "capture/recording.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "capture/capture_reader.h"
#include "capture/heads.h"
#include "support/requests.h"
#include "support/temp_disk.h"
#include "wire.h"

namespace cpd::host {
namespace {

using test::BytesOf;
using test::PacketOf;
using test::Patched;
using test::Request;

std::string ContentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<RecordedPacket> PacketsIn(const std::string& capture) {
  std::istringstream file(capture);
  CaptureReader reader(file);
  std::vector<RecordedPacket> packets;
  while (auto packet = reader.Next()) packets.push_back(*std::move(packet));
  return packets;
}

std::string WhyBroken(const std::string& capture) {
  try {
    PacketsIn(capture);
  } catch (const CaptureError& error) {
    return error.what();
  }
  return {};
}

class Recorded : public testing::Test {
 protected:
  DiskOptions Options(std::optional<uint32_t> data_bytes = std::nullopt) const {
    DiskOptions options;
    options.disk = "/media/me/STICK";
    options.name = "Stick";
    options.record = path;
    options.record_bytes = data_bytes;
    return options;
  }
  void Record(const std::string& packet, Way way = Way::kToModule,
              std::optional<uint32_t> data_bytes = std::nullopt) const {
    Recording recording(Options(data_bytes));
    recording.Start();
    recording.Note(*PacketOf(packet), way);
  }

  const test::TempDisk disk;
  const std::string path = disk.Local("/capture");
  const std::string request = Request(test::ReadRequest{.path = "/film"}).Bytes();
};

/// An answer to 105 with this much data.
std::string ReadAnswer(size_t size) {
  Request answer = test::ReadRequest{.path = "/film", .size = static_cast<uint32_t>(size)};
  answer.payload += std::string(size, 'd');
  return answer.Bytes();
}

TEST_F(Recorded, PacketsComeBackAsTheyWereNoted) {
  const auto before = std::chrono::system_clock::now().time_since_epoch();
  const std::vector<std::string> answers{ReadAnswer(5), ReadAnswer(300'000), ReadAnswer(1'400'001)};
  {
    Recording recording(Options());
    recording.Start();
    for (const auto& answer : answers) {
      recording.Note(*PacketOf(request), Way::kToModule);
      recording.Note(*PacketOf(answer), Way::kFromModule);
    }
  }
  const auto packets = PacketsIn(ContentOf(path));
  ASSERT_EQ(packets.size(), 2 * answers.size());
  auto last = static_cast<uint64_t>(std::chrono::nanoseconds(before).count());
  for (size_t i = 0; i < packets.size(); ++i) {
    const auto& packet = packets[i];
    const bool is_request = i % 2 == 0;
    const auto& bytes = is_request ? request : answers[i / 2];
    EXPECT_EQ(packet.number, i + 1);
    EXPECT_EQ(packet.section, 1U);
    EXPECT_EQ(packet.way, is_request ? Way::kToModule : Way::kFromModule);
    EXPECT_TRUE(packet.bytes == bytes) << i;
    EXPECT_EQ(packet.original, bytes.size());
    EXPECT_EQ(packet.missing, 0U);
    EXPECT_GE(packet.time, last);
    last = packet.time;
  }
  const auto after = std::chrono::system_clock::now().time_since_epoch();
  EXPECT_LE(last, static_cast<uint64_t>(std::chrono::nanoseconds(after).count()));
}

TEST_F(Recorded, TheFileNamesTheDiskAndIsForItsOwnerOnly) {
  Record(request);
  const auto content = ContentOf(path);
  EXPECT_NE(content.find("disk /media/me/STICK"), std::string::npos);
  EXPECT_NE(content.find("Stick"), std::string::npos);
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777U, 0600U);
}

TEST_F(Recorded, PacketsAreWrittenByTheDestructorIfNoThreadWasStarted) {
  Recording(Options()).Note(*PacketOf(request), Way::kToModule);
  EXPECT_EQ(PacketsIn(ContentOf(path)).size(), 1U);
}

TEST_F(Recorded, WithoutPacketsTheFileStaysEmpty) {
  Recording(Options()).Start();
  EXPECT_EQ(ContentOf(path), "");
}

TEST_F(Recorded, DataIsCutAfterTheHeadAndThePaths) {
  const auto kept = [&](const std::string& packet, Way way, uint32_t data_bytes) {
    std::filesystem::remove(path);
    Record(packet, way, data_bytes);
    const auto packets = PacketsIn(ContentOf(path));
    EXPECT_EQ(packets.at(0).original, packet.size());
    EXPECT_TRUE(packet.starts_with(packets.at(0).bytes));
    return packets.at(0).bytes.size();
  };
  const size_t heads = request.size();
  EXPECT_EQ(kept(request, Way::kToModule, 0), heads);
  EXPECT_EQ(kept(ReadAnswer(9), Way::kFromModule, 0), heads);
  EXPECT_EQ(kept(ReadAnswer(9), Way::kFromModule, 4), heads + 4);
  EXPECT_EQ(kept(ReadAnswer(9), Way::kFromModule, 4'000'000'000), heads + 9);

  const Request write = test::WriteRequest{.path = "/film", .data = "secret"};
  EXPECT_EQ(kept(write.Bytes(), Way::kToModule, 0), write.Bytes().size() - 6);
  const Request check = test::CheckDirRequest{.path = "/", .cached = "listing"};
  EXPECT_EQ(kept(check.Bytes(), Way::kToModule, 2), check.Bytes().size() - 5);
  const Request small = test::SmallReadRequest{.records = {{.path = "/a"}, {.path = "/b"}}};
  EXPECT_EQ(kept(small.Bytes(), Way::kToModule, 0), small.Bytes().size());
  EXPECT_EQ(kept(small.Bytes(), Way::kFromModule, 0), small.Bytes().size() - sizeof(ReadHead) - 2);
  const Request rename = test::RenameRequest{.path = "/a", .new_path = "/b"};
  EXPECT_EQ(kept(rename.Bytes(), Way::kToModule, 0), rename.Bytes().size());
}

TEST_F(Recorded, PacketsWhoseLengthsReachPastTheirEndAreKeptWhole) {
  const auto hostile = Patched(request, 16 + offsetof(ReadHead, path_length), uint32_t{0xffffffff});
  Record(hostile, Way::kToModule, 0);
  Record(Request{.cmd = kFileWrite}.Bytes(), Way::kToModule, 0);
  const auto packets = PacketsIn(ContentOf(path));
  ASSERT_EQ(packets.size(), 2U);
  EXPECT_EQ(packets[0].bytes, hostile);
  EXPECT_EQ(packets[1].bytes.size(), 16U);
}

TEST_F(Recorded, AFileGetsASectionFromEachProcess) {
  Record(request);
  Record(ReadAnswer(1), Way::kFromModule);
  const auto packets = PacketsIn(ContentOf(path));
  ASSERT_EQ(packets.size(), 2U);
  EXPECT_EQ(packets[0].section, 1U);
  EXPECT_EQ(packets[1].section, 2U);
  EXPECT_EQ(packets[1].number, 2U);
}

TEST_F(Recorded, AFileThatIsNoCaptureIsLeftAlone) {
  disk.MakeFile("/capture", "a letter");
  EXPECT_THROW(Recording{Options()}, std::runtime_error);
  EXPECT_EQ(ContentOf(path), "a letter");
  DiskOptions nowhere = Options();
  nowhere.record = disk.Local("/none/capture");
  EXPECT_THROW(Recording{nowhere}, std::runtime_error);
}

TEST_F(Recorded, AFileThatAnotherProcessRecordsToIsLeftAlone) {
  Record(request);
  const auto before = ContentOf(path);
  // A lock belongs to the open file, so one of this process will do.
  const int other = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(other, LOCK_EX), 0);
  testing::internal::CaptureStderr();
  Record(request);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("nothing more is recorded"),
            std::string::npos);
  close(other);
  EXPECT_EQ(ContentOf(path), before);
}

TEST_F(Recorded, AFullDiskEndsTheRecordingWithOneLine) {
  DiskOptions options = Options();
  options.record = "/dev/full";
  testing::internal::CaptureStderr();
  {
    Recording recording(options);
    recording.Start();
    for (int i = 0; i < 100; ++i) recording.Note(*PacketOf(ReadAnswer(100'000)), Way::kFromModule);
  }
  const auto log = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
  EXPECT_NE(log.find("/dev/full: No space left on device"), std::string::npos) << log;
}

TEST_F(Recorded, ALimitOnFileSizesEndsTheRecordingWithWholeBlocks) {
  Record(request);
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit limit{.rlim_cur = 10'000, .rlim_max = before.rlim_max};
  testing::internal::CaptureStderr();
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  Record(ReadAnswer(100'000), Way::kFromModule);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("File too large"), std::string::npos);
  EXPECT_EQ(PacketsIn(ContentOf(path)).size(), 1U);
}

TEST_F(Recorded, ASlowFileHoldsNobodyUpAndTheLogSaysHowManyPacketsAreMissing) {
  constexpr size_t kMostWaiting = 1 << 20;
  constexpr size_t kPackets = 30;  // more than may wait
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  const int reader = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  ASSERT_EQ(fcntl(reader, F_SETFL, 0), 0);
  std::string content;
  testing::internal::CaptureStderr();
  {
    std::optional<Recording> recording(std::in_place, Options(), kMostWaiting);
    recording->Start();
    for (size_t i = 0; i < kPackets; ++i) {
      recording->Note(*PacketOf(ReadAnswer(100'000)), Way::kFromModule);
    }
    std::thread end([&] { recording.reset(); });
    std::string block(1 << 20, '\0');
    ssize_t count = 0;
    while ((count = read(reader, block.data(), block.size())) > 0) {
      content.append(block, 0, static_cast<size_t>(count));
    }
    end.join();
  }
  close(reader);
  const auto packets = PacketsIn(content);
  EXPECT_GE(packets.size(), kMostWaiting / 2 / 100'000);
  EXPECT_LT(packets.size(), kPackets);
  EXPECT_NE(testing::internal::GetCapturedStderr().find(std::to_string(kPackets - packets.size()) +
                                                        " packets are missing"),
            std::string::npos);
}

TEST_F(Recorded, ThePacketAfterAGapSaysHowManyAreMissing) {
  const auto blocks = PacketBlocks({.way = Way::kToModule,
                                    .bytes = request,
                                    .original = static_cast<uint32_t>(request.size()),
                                    .missing = 3});
  const auto packets = PacketsIn(SectionStart("", "") + blocks);
  ASSERT_EQ(packets.size(), 1U);
  EXPECT_EQ(packets[0].missing, 3U);
}

class Capture : public Recorded {
 protected:
  Capture() {
    Record(ReadAnswer(400'000), Way::kFromModule);
    Record(request);
    capture = ContentOf(path);
  }
  std::string capture;
};

TEST_F(Capture, ThatIsCutOffIsBroken) {
  const auto whole = PacketsIn(capture).size();
  EXPECT_EQ(whole, 2U);
  std::vector<size_t> lengths{1, 11, 12, 50, 200'000, 300'000};
  for (size_t length = capture.size() - 20; length < capture.size(); ++length) {
    lengths.push_back(length);
  }
  for (const size_t length : lengths) {
    EXPECT_NE(WhyBroken(capture.substr(0, length)), "") << length;
  }
}

TEST_F(Capture, OfSomethingElseIsRefused) {
  EXPECT_EQ(WhyBroken("a letter of some length"), "it is no capture");
  auto swapped = capture;
  std::ranges::reverse(swapped.begin() + 8, swapped.begin() + 12);
  EXPECT_NE(WhyBroken(swapped), "");

  const auto section = SectionStart("", "");
  const auto link_type =
      section.rfind(BytesOf(InterfaceBody{.link_type = kLinkType, .reserved = 0, .longest = 0}));
  const auto packet =
      PacketBlocks({.bytes = request, .original = static_cast<uint32_t>(request.size())});
  EXPECT_EQ(WhyBroken(section + packet), "");
  EXPECT_EQ(WhyBroken(Patched(section, link_type, uint16_t{1}) + packet),
            "packet 1: its link type is 1, not 147");
  const auto no_magic = PacketBlocks({.bytes = std::string(20, 'x'), .original = 20});
  EXPECT_EQ(WhyBroken(section + no_magic), "packet 1: it is no packet of this protocol");
  const auto no_way = PacketBlocks(
      {.way = Way{0}, .bytes = request, .original = static_cast<uint32_t>(request.size())});
  EXPECT_EQ(WhyBroken(section + no_way), "packet 1: it has no direction");
}

TEST_F(Capture, WithAnyByteSpoiltIsReadOrRefused) {
  std::filesystem::remove(path);
  Record(ReadAnswer(3), Way::kFromModule);
  Record(request);
  const auto small = ContentOf(path);
  for (size_t at = 0; at < small.size(); ++at) {
    for (const uint8_t value : {0x00, 0x01, 0x7f, 0xff}) {
      const auto spoilt = Patched(small, at, value);
      if (WhyBroken(spoilt).empty()) {
        EXPECT_LE(PacketsIn(spoilt).size(), 2U) << at;
      }
    }
  }
}

TEST_F(Capture, KeepsItsPacketsAmongBlocksOfOtherPrograms) {
  std::string other = BytesOf(uint32_t{5}) + BytesOf(uint32_t{16}) + "stat" + BytesOf(uint32_t{16});
  const auto section = SectionStart("", "");
  const auto packet =
      PacketBlocks({.bytes = request, .original = static_cast<uint32_t>(request.size())});
  EXPECT_EQ(PacketsIn(section + other + packet + other + packet + other).size(), 2U);
}

TEST(Heads, NameThePathOfEveryRequestAndTheResultOfItsAnswer) {
  for (const auto& [name, request, check] : test::OneRequestPerCommand()) {
    const auto bytes = request.Bytes();
    const auto path = PathOf(bytes);
    if (request.cmd == kMountResponse) {
      EXPECT_EQ(path, "") << name;
      continue;
    }
    EXPECT_NE(request.payload.find(path), std::string::npos) << name;
    EXPECT_TRUE(path.starts_with('/') || path == test::kUnlikelyDisk) << name << ' ' << path;
  }
  const Request remove = test::UnlinkRequest{.path = "/a"};
  auto failed = remove;
  failed.payload = Patched(remove.payload, offsetof(RemoveHead, result), int16_t{-1});
  EXPECT_EQ(ResultOf(remove.Bytes()), 0);
  EXPECT_EQ(ResultOf(failed.Bytes()), -1);
  EXPECT_EQ(ResultOf(Request(test::ReadRequest{.path = "/a"}).Bytes()), std::nullopt);
}

}  // namespace
}  // namespace cpd::host
