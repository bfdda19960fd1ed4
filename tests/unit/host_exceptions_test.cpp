// A host whose operations throw: only the request or event for which one was called fails.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "operator.h"
#include "support/fake_host.h"
#include "support/requests.h"
#include "support/temp_disk.h"
#include "udisk.h"

namespace cpd::test {
namespace {

/// An exception that is not derived from std::exception.
struct HostsOwn {};

/// The names of the operations that throw. Callable from any thread.
class Throwing {
 public:
  void Set(std::set<std::string> operations) {
    const std::lock_guard lock(mutex_);
    operations_ = std::move(operations);
    thrown_ = 0;
  }
  void Pass(const std::string& operation) {
    const std::lock_guard lock(mutex_);
    if (operations_.count(operation) == 0) return;
    ++thrown_;
    throw HostsOwn();
  }
  int Thrown() {
    const std::lock_guard lock(mutex_);
    return thrown_;
  }

 private:
  std::mutex mutex_;
  std::set<std::string> operations_;
  int thrown_ = 0;
};

class RudeBase : public CpdDeviceBase {
 public:
  RudeBase(Throwing* throwing, std::string params)
      : throwing_(throwing), params_(std::move(params)) {}
  std::string GetDeviceParams() override {
    throwing_->Pass("GetDeviceParams");
    return params_;
  }
  void TraceEvent(const std::string& /*id*/, const std::string& /*event*/,
                  const std::map<std::string, std::string>& /*fields*/) override {
    throwing_->Pass("TraceEvent");
  }
  void TraceEventDetail(const std::string& /*id*/, const std::string& /*detail*/,
                        const std::string& /*event*/,
                        const std::map<std::string, std::string>& /*fields*/) override {
    throwing_->Pass("TraceEventDetail");
  }
  std::shared_ptr<CpdPathFilter> GetPathFilter() override {
    throwing_->Pass("GetPathFilter");
    return std::make_shared<FakeFilter>([this](const std::string&) {
      throwing_->Pass("MatchPath");
      return true;
    });
  }

 private:
  Throwing* const throwing_;
  const std::string params_;
};

class RudeDevice : public FakeDevice {
 public:
  explicit RudeDevice(const std::string& params)
      : rude_base_(std::make_shared<RudeBase>(&throwing, params)) {}
  std::shared_ptr<CpdDeviceBase> getDevBase() override {
    throwing.Pass("getDevBase");
    return rude_base_;
  }
  int GetDevId() override {
    throwing.Pass("GetDevId");
    return FakeDevice::GetDevId();
  }
  int SendPacket(std::unique_ptr<CpdPacket> packet, int flags) override {
    throwing.Pass("SendPacket");
    return FakeDevice::SendPacket(std::move(packet), flags);
  }

  Throwing throwing;

 private:
  const std::shared_ptr<CpdDeviceBase> rude_base_;
};

class HostExceptions : public ::testing::Test {
 protected:
  HostExceptions() {
    disk.MakeFile(kKnownFile, "known content");
    Log().Clear();
  }
  ~HostExceptions() override {
    device.throwing.Set({});
    if (driver) driver->Close(0);
  }

  void Open() {
    driver.reset(udisk_open(&device, "policy"));
    ASSERT_NE(driver, nullptr);
  }
  /// Opens the driver while no operation throws.
  void OpenInPeace() {
    Open();
    ASSERT_TRUE(device.WaitForPackets(2));
    device.TakeSent();
    Log().Clear();
  }
  int Deliver(const Request& request) { return driver->onEvent(request.Packet(), 0); }
  static bool WaitForError(const std::string& message) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!Log().Has(kError, message)) {
      if (std::chrono::steady_clock::now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }
  void ExpectServes() {
    device.throwing.Set({});
    device.TakeSent();
    EXPECT_EQ(Deliver(ReadRequest{.path = kKnownFile, .size = 64}), 0);
    ASSERT_TRUE(device.WaitForPackets(1));
    EXPECT_EQ(ReadReply::Decode(device.Sent()[0]).data, "known content");
  }

  DescriptorCheck descriptors;
  TempDisk disk;
  RudeDevice device{DeviceParams(disk.root())};
  std::unique_ptr<CpdDriver> driver;
};

TEST_F(HostExceptions, DuringARequestCostOnlyThatRequest) {
  OpenInPeace();
  for (const char* operation :
       {"SendPacket", "getDevBase", "GetPathFilter", "MatchPath", "TraceEventDetail"}) {
    SCOPED_TRACE(operation);
    Log().Clear();
    device.throwing.Set({operation});
    EXPECT_EQ(Deliver(ReadRequest{.path = kKnownFile, .size = 64}), 0);
    EXPECT_TRUE(WaitForError("file_read failed: an exception without a text"));
    EXPECT_GE(device.throwing.Thrown(), 1);
    ExpectServes();
  }
}

TEST_F(HostExceptions, DuringTheAnnouncementCostOnlyTheAnnouncement) {
  for (const char* operation : {"getDevBase", "GetDeviceParams", "GetDevId", "SendPacket"}) {
    SCOPED_TRACE(operation);
    Log().Clear();
    device.throwing.Set({operation});
    Open();
    EXPECT_TRUE(WaitForError("client udisk service failed: an exception without a text"));
    device.throwing.Set({});
    EXPECT_EQ(driver->Close(0), 0);
  }
}

TEST_F(HostExceptions, DuringTheTracesOfOpenAndCloseCostOnlyThoseTraces) {
  device.throwing.Set({"TraceEvent"});
  Open();
  EXPECT_TRUE(Log().Has(kError, "UDISK_DRIVER_OPEN is not traced: an exception without a text"));
  ASSERT_TRUE(device.WaitForPackets(2));
  EXPECT_EQ(driver->Close(0), 0);
  EXPECT_TRUE(Log().Has(kError, "UDISK_DRIVER_CLOSE is not traced: an exception without a text"));
  EXPECT_EQ(driver->GetDriverObj(), nullptr);
}

TEST_F(HostExceptions, DuringABusEventCostOnlyItsTrace) {
  OpenInPeace();
  for (const char* operation : {"getDevBase", "TraceEvent"}) {
    device.throwing.Set({operation});
    const auto udisk = std::static_pointer_cast<UDiskOperator>(driver->GetDriverObj());
    udisk->lastBwTraceMs = 0;
    udisk->readBwKbps = 0;
    EXPECT_EQ(driver->onBusEvent(
                  Request{.cmd = kBusReadBandwidth, .payload = BytesOf(uint32_t{5000})}.Packet()),
              0);
    EXPECT_EQ(device.throwing.Thrown(), 1) << operation;
    EXPECT_EQ(udisk->readBwKbps, 5000U);
  }
  EXPECT_EQ(Log().Count(kError, "UDISK_READ_BW_INFO is not traced: an exception without a text"),
            2U);
}

TEST_F(HostExceptions, FromGetDevIdCostOnlyThePacket) {
  OpenInPeace();
  device.throwing.Set({"GetDevId"});
  EXPECT_EQ(Deliver(AttrRequest{.path = kKnownFile}), -1);
  EXPECT_EQ(driver->GetDriverObj()->GetDeviceId(), 0);
  EXPECT_EQ(Log().Messages(kError),
            (std::vector<std::string>{"onEvent failed: an exception without a text",
                                      "GetDeviceId failed: an exception without a text"}));
  ExpectServes();
}

}  // namespace
}  // namespace cpd::test
