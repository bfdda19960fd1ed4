// How much data a request asks for, and which requests a driver has done.
#include "line/asked_data.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "line/disk_end.h"
#include "support/idle_driver.h"
#include "support/requests.h"

namespace cpd::host {
namespace {

using namespace test;  // NOLINT(google-build-using-namespace): the requests

uint64_t Asked(const Request& request) { return DataAskedFor(*request.Packet()); }

std::string FileOf(uint32_t size, const std::string& path) {
  return BytesOf(ReadHead{.offset = 0,
                          .unread_8 = 0,
                          .size = size,
                          .path_length = static_cast<uint32_t>(path.size()),
                          .unread_20 = 0}) +
         path;
}

TEST(AskedData, IsTheSizeOfARead) {
  EXPECT_EQ(Asked(ReadRequest{.path = "/a", .size = 5000}), 5000U);
  EXPECT_EQ(Asked(ReadRequest{.path = "/a", .size = 0xffffffff}), 0xffffffffU);
  EXPECT_EQ(Asked(WriteRequest{.path = "/a", .data = "written"}), 0U);
  EXPECT_EQ(Asked({.cmd = kFileRead, .payload = "short"}), 0U);
}

TEST(AskedData, IsTheSumOfSmallReadsAsFarAsTheyLieInTheRequest) {
  const auto count = [](uint32_t files) { return BytesOf(SmallReadHead{.count = files}); };
  const auto two = FileOf(0xffffffff, "/a") + FileOf(0xffffffff, "/b");
  EXPECT_EQ(Asked({.cmd = kSmallFileRead, .payload = count(2) + two}), 2 * uint64_t{0xffffffff});
  EXPECT_EQ(Asked({.cmd = kSmallFileRead, .payload = count(1) + two}), 0xffffffffU);
  EXPECT_EQ(Asked({.cmd = kSmallFileRead, .payload = count(0xffffffff) + two}),
            2 * uint64_t{0xffffffff});
  const auto cut = FileOf(7, "/longer").substr(0, sizeof(ReadHead) + 2);
  EXPECT_EQ(Asked({.cmd = kSmallFileRead, .payload = count(2) + cut}), 7U);
  EXPECT_EQ(Asked({.cmd = kSmallFileRead, .payload = ""}), 0U);
}

/// Keeps requests until the test answers them.
class QueueingDriver : public IdleDriver {
 public:
  int onEvent(std::unique_ptr<CpdPacket> packet, int /*flags*/) override {
    requests.push_back(std::move(packet));
    return 0;
  }
  std::vector<std::unique_ptr<CpdPacket>> requests;
};

class IntakeTest : public testing::Test {
 protected:
  void HandOver(uint32_t id, uint16_t command = kGetFileAttr) {
    Request request{.cmd = command, .payload = std::string(84, 'p')};
    request.request_id = id;
    intake.HandOver(request.Packet(), driver);
  }
  static constexpr uint64_t kCharge = ChargeOf(100);

  QueueingDriver driver;
  std::vector<uint64_t> taken;
  Intake intake{[this](uint64_t charge) { taken.push_back(charge); }, 3 * kCharge};
};

TEST_F(IntakeTest, CountsARequestAsTakenWhenItsReplyComes) {
  HandOver(1);
  EXPECT_TRUE(taken.empty());
  EXPECT_TRUE(intake.NoteReply(*driver.requests[0])) << "the reply is for the line";
  EXPECT_EQ(taken, std::vector{kCharge});
  EXPECT_TRUE(intake.NoteReply(*driver.requests[0]));
  EXPECT_EQ(taken, std::vector{kCharge}) << "it is counted once";
}

TEST_F(IntakeTest, CountsRequestsWithoutAReplyWhenALaterOneIsAnswered) {
  HandOver(1, kMountResponse);
  HandOver(2);
  EXPECT_TRUE(intake.NoteReply(*driver.requests[1]));
  EXPECT_EQ(taken, std::vector{2 * kCharge});
}

TEST_F(IntakeTest, AddsAProbeNowAndThenAndKeepsItsReplyOffTheLine) {
  for (uint32_t id = 1; id <= 6; ++id) HandOver(id, kMountResponse);
  ASSERT_EQ(driver.requests.size(), 8U);
  EXPECT_EQ(driver.requests[3]->header->cmd, kGetXattr);
  EXPECT_FALSE(intake.NoteReply(*driver.requests[3]));
  EXPECT_FALSE(intake.NoteReply(*driver.requests[7]));
  EXPECT_EQ(taken, (std::vector{3 * kCharge, 3 * kCharge}));
}

TEST_F(IntakeTest, PassesOnWhatTheDriverSendsByItself) {
  EXPECT_TRUE(intake.NoteReply(*Request{.cmd = kMountRemote}.Packet()));
  EXPECT_TRUE(taken.empty());
}

}  // namespace
}  // namespace cpd::host
