// A disk that is pulled out while it serves requests, and plugged in again.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "cpd/driver.h"
#include "faults/loaded_module.h"
#include "support/fake_host.h"
#include "support/fault_table.h"
#include "support/mounted_disk.h"
#include "support/requests.h"
#include "support/temp_disk.h"

namespace cpd::test {
namespace {

using system_test::Eventually;
using system_test::Shell;

constexpr char kLargeFile[] = "/large";
const std::string kPiece(4096, 'x');

/// Threads of the host that send requests for as long as the object lives.
class Load {
 public:
  Load(CpdDriver* driver, FakeDevice* device) : driver_(driver), device_(device) {
    device->OnSend([this](const SentPacket& reply) {
      // The length that was read or written: 0 when the request failed.
      const size_t at = reply.cmd == kFileRead ? 12 : 8;
      uint32_t length = 0;
      std::memcpy(&length, reply.payload.data() + at, sizeof length);
      ++(length > 0 ? served_ : failed_);
      device_->TakeSent();
    });
    for (int i = 0; i < 3; ++i) {
      threads_.emplace_back([this] { Send(ReadRequest{.path = kLargeFile}); });
      threads_.emplace_back([this] { Send(WriteRequest{.path = kKnownFile, .data = kPiece}); });
    }
  }
  ~Load() {
    EXPECT_TRUE(EveryRequestEnds());
    device_->OnSend(nullptr);
  }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  /// Stops sending. @return whether every request has got its reply
  [[nodiscard]] bool EveryRequestEnds() {
    stop_ = true;
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
    return Eventually([&] { return Outstanding() == 0; });
  }
  /// Waits until some more requests were served.
  [[nodiscard]] bool WaitForServed() const { return WaitForMore(served_); }
  [[nodiscard]] bool WaitForFailed() const { return WaitForMore(failed_); }

 private:
  [[nodiscard]] int Outstanding() const { return sent_ - served_ - failed_; }
  void Send(const Request& request) {
    while (!stop_) {
      if (Outstanding() < 100) {
        ++sent_;
        driver_->onEvent(request.Packet(), 0);
      } else {
        usleep(100);
      }
    }
  }
  static bool WaitForMore(const std::atomic<int>& count) {
    return Eventually([&, enough = count + 500] { return count >= enough; });
  }

  CpdDriver* const driver_;
  FakeDevice* const device_;
  std::atomic<bool> stop_ = false;
  std::atomic<int> sent_ = 0;
  std::atomic<int> served_ = 0;
  std::atomic<int> failed_ = 0;
  std::vector<std::thread> threads_;
};

class DiskThatIsPulledOut : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!disk.problem().empty()) GTEST_SKIP() << disk.problem();
    system_test::WriteFile(disk.path() + kLargeFile, system_test::Bytes(1 << 20));
    system_test::WriteFile(disk.path() + kKnownFile, "known content");
    ASSERT_EQ(Shell("sync -f " + disk.path()).status, 0);
    driver = module.Open(&device, disk.path());
    ASSERT_NE(driver, nullptr);
  }
  void TearDown() override {
    if (driver) driver->Close(0);
  }

  /// Makes every later call for the disk fail with an I/O error.
  void Break() const {
    const int root = open(disk.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const uint32_t at_once = 2;
    EXPECT_EQ(ioctl(root, _IOR('X', 125, uint32_t), &at_once), 0);  // ext4's shutdown
    close(root);
  }
  void Detach() const {
    const std::string device_name = Shell("losetup -n -O NAME -j " + disk.image()).output;
    ASSERT_FALSE(device_name.empty());
    EXPECT_EQ(umount2(disk.path().c_str(), MNT_DETACH), 0);
    Shell("losetup -d " + device_name);  // fails if the device has detached itself
    EXPECT_TRUE(IsDetached()) << "a descriptor is left open on the disk";
  }
  [[nodiscard]] bool IsDetached() const {
    return Eventually([&] { return Shell("losetup -j " + disk.image()).output.empty(); });
  }
  void PutBack() const {
    const auto mounted = Shell("mount -o loop " + disk.image() + " " + disk.path());
    ASSERT_EQ(mounted.status, 0) << mounted.output;
  }

  std::optional<SentPacket> Ask(const Request& request) {
    device.TakeSent();
    driver->onEvent(request.Packet(), 0);
    if (!device.WaitForPackets(1)) return std::nullopt;
    return device.TakeSent().front();
  }
  /// Expects a write, and a read of what was written, to reach the disk itself.
  void ExpectToServe() {
    ASSERT_TRUE(Ask(TruncateRequest{.path = kKnownFile, .length = 0}));
    ASSERT_TRUE(Ask(WriteRequest{.path = kKnownFile, .data = "new content"}));
    EXPECT_EQ(system_test::ReadFile(disk.path() + kKnownFile), "new content");
    const auto read = Ask(ReadRequest{.path = kKnownFile});
    ASSERT_TRUE(read);
    EXPECT_EQ(ReadReply::Decode(*read).data, "new content");
  }

  DescriptorCheck descriptors;
  const system_test::LoopDisk disk;
  FakeDevice device;
  const LoadedModule module;
  std::unique_ptr<CpdDriver> driver;
};

TEST_F(DiskThatIsPulledOut, EndsEveryRequestInFlightAndIsServedAgainWhenItIsBack) {
  ExpectFaultRow("a disk that is pulled out under load",
                 {"an answer to every request under way: what was done before, failures after",
                  "the failed calls, as above",
                  "what the kernel had not written; a sync that succeeded holds"});
  {
    Load load(driver.get(), &device);
    ASSERT_TRUE(load.WaitForServed());
    Break();
    Detach();
    ASSERT_TRUE(load.WaitForFailed());
    ASSERT_TRUE(load.EveryRequestEnds());
  }
  PutBack();
  ExpectToServe();
}

TEST_F(DiskThatIsPulledOut, AndPutBackUnderLoadIsServedAtOnce) {
  ExpectFaultRow("a disk that is put back under load",
                 {"served again with the next request, at the same place", "nothing", "nothing"});
  {
    Load load(driver.get(), &device);
    for (int i = 0; i < 3; ++i) {
      ASSERT_TRUE(load.WaitForServed());
      Detach();
      ASSERT_TRUE(load.WaitForFailed());
      PutBack();
    }
    ASSERT_TRUE(load.WaitForServed());
    ASSERT_TRUE(load.EveryRequestEnds());
  }
  ExpectToServe();
}

TEST_F(DiskThatIsPulledOut, ThatGivesErrorsFailsEveryRequestAndIsServedAgainWhenItIsBack) {
  ExpectFaultRow("a disk that gives errors",
                 {"failures", "the failed calls, `Input/output error`", "nothing"});
  Break();
  Log().Clear();
  const auto read = Ask(ReadRequest{.path = kLargeFile});
  const auto written = Ask(WriteRequest{.path = kKnownFile, .data = "new content"});
  const auto created = Ask(CreateRequest{.path = "/new.txt"});
  ASSERT_TRUE(read && written && created);
  EXPECT_EQ(ReadReply::Decode(*read).data, "");
  EXPECT_EQ(int{WriteRequest::Reply::Decode(*written).head.size}, 0);
  EXPECT_EQ(CreateRequest::Reply::Decode(*created).result(), -1);
  EXPECT_EQ(Log().Messages(kError),
            (std::vector<std::string>{R"(file_read failed res:0 errno: Input/output error\n)",
                                      R"(write file fail errno:Input/output error \n)",
                                      "file_write failed, res: 0",
                                      R"(file_create failed errno: Input/output error\n)"}));
  Detach();
  PutBack();
  ExpectToServe();
}

}  // namespace
}  // namespace cpd::test
