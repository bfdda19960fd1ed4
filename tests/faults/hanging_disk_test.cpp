// A disk whose calls block: which operations wait for it, and which do not.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mount.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cpd/driver.h"
#include "faults/loaded_module.h"
#include "operator.h"
#include "support/fake_host.h"
#include "support/fault_table.h"
#include "support/mounted_disk.h"
#include "support/requests.h"
#include "support/temp_disk.h"

namespace cpd::test {
namespace {

using namespace std::chrono_literals;

/// The limit for "at once", even on a busy machine: the disk hangs until it is released, so a call
/// that waited for it would never return.
constexpr auto kAtOnce = kPatience;
/// How long a test watches a call that must not return.
constexpr auto kWatched = 500ms;

/// A disk that works until it is told to hang.
class HangingDisk {
 public:
  HangingDisk() {
    EXPECT_TRUE(system_test::Eventually([&] { return system_test::IsMounted(path()); }))
        << system_test::ReadFile(place_ / "err");
  }
  ~HangingDisk() {
    Release();
    process_.Signal(SIGTERM);
    process_.Wait();
    if (system_test::IsMounted(path())) umount2(path().c_str(), MNT_DETACH);
  }
  HangingDisk(const HangingDisk&) = delete;
  HangingDisk& operator=(const HangingDisk&) = delete;

  [[nodiscard]] std::string path() const { return place_ / "disk"; }

  void Hang() { Tell(SIGUSR1, 'h'); }
  void Release() {
    if (hangs_) Tell(SIGUSR2, 'r');
  }
  /// Ends the file system, and with it the calls that hang.
  void Die() {
    process_.Signal(SIGKILL);
    process_.Wait();
    hangs_ = false;
  }
  [[nodiscard]] bool WaitForHangingCall() const {
    return system_test::Eventually([&] { return CountOf('b') > 0; });
  }

 private:
  static std::string MakeMountPoint(const std::string& path) {
    std::filesystem::create_directory(path);
    return path;
  }
  [[nodiscard]] long CountOf(char letter) const {
    const std::string told = system_test::ReadFile(place_ / "out");
    return std::count(told.begin(), told.end(), letter);
  }
  void Tell(int signal, char answer) {
    const long before = CountOf(answer);
    process_.Signal(signal);
    EXPECT_TRUE(system_test::Eventually([&] { return CountOf(answer) > before; }));
    hangs_ = signal == SIGUSR1;
  }

  const system_test::TempDir place_;
  system_test::Process process_{
      {HANGING_DISK, MakeMountPoint(place_ / "disk")}, place_ / "out", place_ / "err"};
  bool hangs_ = false;
};

/// The loaded module, with a driver on a disk that can hang.
class DiskThatHangs : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!system_test::WhyNoFuse().empty()) GTEST_SKIP() << system_test::WhyNoFuse();
    Log().Clear();
    disk.emplace();
  }
  void TearDown() override {
    if (disk) disk->Release();  // otherwise Close waits forever
    if (driver) driver->Close(0);
    driver.reset();
    disk.reset();
  }

  /// Opens the driver on a disk that works, and lets a request hang.
  void OpenAndHang() {
    driver = module.Open(&device, disk->path());
    ASSERT_NE(driver, nullptr);
    disk->Hang();
    Send(1);
    ASSERT_TRUE(disk->WaitForHangingCall());
  }
  void Send(uint32_t id) const {
    Request request = ReadRequest{.path = kKnownFile};
    request.request_id = id;
    EXPECT_EQ(driver->onEvent(request.Packet(), 0), 0);
  }
  [[nodiscard]] std::future<int> CloseMeanwhile() const {
    return std::async(std::launch::async, [this] { return driver->Close(0); });
  }
  [[nodiscard]] std::vector<std::string> DataSent() const {
    std::vector<std::string> data;
    for (const SentPacket& packet : device.Sent()) data.push_back(ReadReply::Decode(packet).data);
    return data;
  }

  DescriptorCheck descriptors;
  std::optional<HangingDisk> disk;
  FakeDevice device;
  const LoadedModule module;
  std::unique_ptr<CpdDriver> driver;
};

TEST_F(DiskThatHangs, HoldsUpNeitherRequestsNorBusEventsNorPolicies) {
  OpenAndHang();
  const auto begin = std::chrono::steady_clock::now();
  for (uint32_t id = 2; id <= 100; ++id) Send(id);
  EXPECT_EQ(driver->onBusEvent(
                Request{.cmd = kBusReadBandwidth, .payload = BytesOf(uint32_t{5000})}.Packet()),
            0);
  EXPECT_EQ(driver->onPolicyChange("another policy"), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kAtOnce);
  EXPECT_EQ(device.base().Traces("LOCAL_UDISK_READ_BW_INFO").size(), 1U);
  EXPECT_TRUE(device.Sent().empty());
}

TEST_F(DiskThatHangs, ServesEveryRequestInOrderWhenItResumes) {
  ExpectFaultRow("a disk that hangs",
                 {"no answer until it resumes, then all in order; other disks are served",
                  "nothing", "nothing"});
  OpenAndHang();
  for (uint32_t id = 2; id <= 20; ++id) Send(id);
  disk->Release();
  ASSERT_TRUE(device.WaitForPackets(20));
  const std::vector<SentPacket> sent = device.Sent();
  for (uint32_t id = 1; id <= 20; ++id) EXPECT_EQ(sent[id - 1].request_id, id);
  EXPECT_EQ(DataSent(), std::vector<std::string>(20, "known content"));
}

TEST_F(DiskThatHangs, HoldsUpNoOtherDriver) {
  OpenAndHang();
  const TempDisk other_disk;
  other_disk.MakeFile(kKnownFile, "other content");
  FakeDevice other_device;
  const std::unique_ptr<CpdDriver> other = module.Open(&other_device, other_disk.root());
  ASSERT_NE(other, nullptr);
  EXPECT_EQ(other->onEvent(Request(ReadRequest{.path = kKnownFile}).Packet(), 0), 0);
  ASSERT_TRUE(other_device.WaitForPackets(1));
  EXPECT_EQ(ReadReply::Decode(other_device.Sent()[0]).data, "other content");
  EXPECT_EQ(other->Close(0), 0);
  EXPECT_TRUE(device.Sent().empty()) << "the disk did not hang";
}

TEST_F(DiskThatHangs, MakesCloseWaitOnlyForTheCallInFlight) {
  OpenAndHang();
  for (uint32_t id = 2; id <= 20; ++id) Send(id);
  std::future<int> closed = CloseMeanwhile();
  EXPECT_EQ(closed.wait_for(kWatched), std::future_status::timeout);
  disk->Release();
  ASSERT_EQ(closed.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(closed.get(), 0);
  EXPECT_EQ(DataSent(), std::vector<std::string>{"known content"})
      << "only the request in flight is served";
}

TEST_F(DiskThatHangs, MakesCloseGiveUpARequestOfManyCallsAfterASecond) {
  driver = module.Open(&device, disk->path());
  ASSERT_NE(driver, nullptr);
  disk->Hang();
  const std::vector<SmallRead> reads(100, {.path = kKnownFile});
  EXPECT_EQ(driver->onEvent(Request(SmallReadRequest{.records = reads}).Packet(), 0), 0);
  ASSERT_TRUE(disk->WaitForHangingCall());
  std::future<int> closed = CloseMeanwhile();
  EXPECT_EQ(closed.wait_for(3s), std::future_status::timeout) << "the call itself is waited for";
  disk->Release();
  ASSERT_EQ(closed.wait_for(kPatience), std::future_status::ready);
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_EQ(Log().Messages(kError),
            std::vector<std::string>{"small_file_read failed: given up, the disk is being closed"});
  ExpectFaultRow("a disk that hangs in a request of many calls until after it is closed",
                 {"no answer", "`… failed: given up, the disk is being closed`",
                  "nothing: what was done before is done"});
}

TEST_F(DiskThatHangs, WhileItIsOpenedHoldsUpItsAnnouncementAndClose) {
  ExpectFaultRow("a disk that hangs when it is opened",
                 {"the announcement comes when it resumes", "nothing", "nothing"});
  disk->Hang();
  const auto begin = std::chrono::steady_clock::now();
  driver = module.Open(&device, disk->path(), false);
  ASSERT_NE(driver, nullptr);
  ASSERT_TRUE(disk->WaitForHangingCall());
  EXPECT_LT(std::chrono::steady_clock::now() - begin, kAtOnce);
  EXPECT_TRUE(device.Sent().empty());
  std::future<int> closed = CloseMeanwhile();
  EXPECT_EQ(closed.wait_for(kWatched), std::future_status::timeout);
  disk->Release();
  ASSERT_EQ(closed.wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(device.Sent().size(), 2U) << "notice and announcement";
}

TEST_F(DiskThatHangs, AndThenDiesEndsTheCallInFlight) {
  ExpectFaultRow(
      "a disk that hangs and then dies",
      {"failures", "the failed calls, `Transport endpoint is not connected` and the like",
       "nothing"});
  OpenAndHang();
  Send(2);
  disk->Die();
  ASSERT_TRUE(device.WaitForPackets(2));
  EXPECT_EQ(DataSent(), std::vector<std::string>(2));
  EXPECT_EQ(Log().Messages(kError).size(), 2U);
}

// ---- The operator on its own ----

TEST_F(DiskThatHangs, HoldsUpNoOtherCallWhileItsMountPointIsOpened) {
  setenv("TESSEL_CPD_CLIENT_CONFINE", "1", 1);
  UDiskOperator udisk(&device);
  unsetenv("TESSEL_CPD_CLIENT_CONFINE");
  udisk.SetRootPath((disk->path() + "/").c_str(), "dir");
  udisk.Idle();  // closes the mount point
  disk->Hang();
  auto served = std::async(std::launch::async, [&] {
    return udisk.EventHandle(Request(ReadRequest{.path = kKnownFile}).Packet());
  });
  ASSERT_TRUE(disk->WaitForHangingCall());
  auto cleared =
      std::async(std::launch::async, [&] { return udisk.SetRootPath(nullptr, nullptr); });
  auto asked = std::async(std::launch::async, [&] { return udisk.GetLocalMountPoint(); });
  EXPECT_EQ(cleared.wait_for(kAtOnce), std::future_status::ready);
  EXPECT_EQ(asked.wait_for(kAtOnce), std::future_status::ready);
  EXPECT_EQ(served.wait_for(0ms), std::future_status::timeout) << "the disk did not hang";
  disk->Release();
}

TEST_F(DiskThatHangs, IsListedAsAVolumeOnlyOnceItsStatisticsAreKnown) {
  UDiskOperator udisk(&device);
  const auto records = [&] {
    device.TakeSent();
    udisk.EventHandle(Request(StatvfsRequest{.path = "/"}).Packet());
    return StatvfsReply::Decode(device.TakeSent().at(0)).records;
  };
  disk->Hang();
  auto named =
      std::async(std::launch::async, [&] { return udisk.SetRootPath(disk->path().c_str(), ""); });
  ASSERT_TRUE(disk->WaitForHangingCall());
  EXPECT_TRUE(records().empty());
  disk->Release();
  EXPECT_EQ(named.get(), 0);
  ASSERT_EQ(records().size(), 1U);
  EXPECT_EQ(records()[0].f_bsize, 4096U);
}

}  // namespace
}  // namespace cpd::test
