#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "operator.h"
#include "service.h"
#include "support/failing_threads.h"
#include "support/fake_host.h"
#include "support/fault_table.h"
#include "support/requests.h"
#include "support/temp_disk.h"
#include "udisk.h"

namespace cpd::test {
namespace {

using std::string;
using Texts = std::vector<std::string>;
using Clock = std::chrono::steady_clock;

/// What a worker that sleeps on would take to notice that it is to stop.
constexpr std::chrono::milliseconds kAWorkersSecond{900};

/// The processor time that a thread has used so far.
std::chrono::nanoseconds ProcessorTimeOf(std::thread* thread) {
  clockid_t clock = {};
  timespec used = {};
  EXPECT_EQ(pthread_getcpuclockid(thread->native_handle(), &clock), 0);
  EXPECT_EQ(clock_gettime(clock, &used), 0);
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

/// A gate that holds whoever passes it until it is opened.
class Gate {
 public:
  void Pass() {
    std::unique_lock lock(mutex_);
    ++waiting_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return open_; });
  }
  [[nodiscard]] bool WaitForOne() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, kPatience, [&] { return waiting_ > 0; });
  }
  void Open() {
    const std::lock_guard lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  int waiting_ = 0;
  bool open_ = false;
};

class DriverTest : public ::testing::Test {
 protected:
  DriverTest() {
    unsetenv("TESSEL_CPD_CLIENT_THROTTLE_LEGACY");
    unsetenv("TESSEL_CPD_CLIENT_FORCE_BW");
    unsetenv("TESSEL_CPD_CLIENT_CONFINE");
    disk.MakeFile(kKnownFile, "known content");
    disk.MakeDir(kKnownDir);
    device.base().SetParams(DeviceParams(disk.root()));
    Log().Clear();
  }
  ~DriverTest() override {
    if (driver) driver->Close(0);
  }

  /// Opens a driver as the host does and lets it announce its disk.
  void Open() {
    driver.reset(static_cast<UDiskDriver*>(udisk_open(&device, "policy")));
    ASSERT_NE(driver, nullptr);
    ASSERT_TRUE(device.WaitForPackets(2));
    device.TakeSent();
  }
  int Deliver(const Request& request) { return driver->onEvent(request.Packet(), 0); }
  int DeliverNumbered(Request request, uint32_t id) {
    request.request_id = id;
    return Deliver(request);
  }
  std::shared_ptr<UDiskOperator> Operator() {
    return std::static_pointer_cast<UDiskOperator>(driver->GetDriverObj());
  }
  /// The ids of what was sent, in order.
  std::vector<uint32_t> SentIds() {
    std::vector<uint32_t> ids;
    for (const SentPacket& sent : device.Sent()) ids.push_back(sent.request_id);
    return ids;
  }
  /// What the driver's own source file logged.
  Texts DriverMessages() {
    Texts messages;
    for (const LogLine& line : Log().Lines()) {
      if (line.file == "udisk.cpp") messages.push_back(line.message);
    }
    return messages;
  }

  DescriptorCheck descriptors;
  TempDisk disk;
  FakeDevice device;
  std::unique_ptr<UDiskDriver> driver;
};

const AttrRequest kGetKnown{.path = kKnownFile};

// ---- Opening ----

TEST_F(DriverTest, OpensAndAnnouncesTheDisk) {
  driver.reset(static_cast<UDiskDriver*>(udisk_open(&device, "policy")));
  ASSERT_NE(driver, nullptr);
  ASSERT_TRUE(device.WaitForPackets(2));
  EXPECT_EQ(device.Sent()[0].cmd, kSmallFileNotice);
  EXPECT_EQ(device.Sent()[1].cmd, kMountRemote);
  EXPECT_EQ(Operator()->GetLocalMountPoint(), disk.root());
}

TEST_F(DriverTest, OpenLogsItsSteps) {
  Open();
  EXPECT_EQ(DriverMessages(),
            (Texts{R"(client udisk open\n)", R"(client udisk init\n)",
                   R"(client udisk init service\n)", R"(client udisk init success\n)"}));
  EXPECT_EQ(Log().Lines().at(0).function, "udisk_open");
  EXPECT_TRUE(Log().Messages(kError).empty());
}

TEST_F(DriverTest, OpenIsTraced) {
  Open();
  const std::vector<Trace> traces = device.base().Traces();
  ASSERT_EQ(traces.size(), 1U);
  EXPECT_EQ(traces[0].event, "LOCAL_UDISK_DRIVER_OPEN");
  EXPECT_EQ(traces[0].fields.at("message"), "udisk driver open success");
  EXPECT_EQ(traces[0].fields.at("success"), "true");
  EXPECT_FALSE(traces[0].detail);
}

TEST_F(DriverTest, OpenWithoutAWorkerFailsAndLeavesNothing) {
  const FailingThread worker(0);
  EXPECT_EQ(udisk_open(&device, "policy"), nullptr);
  EXPECT_EQ(Log().Messages(kError), Texts{"udisk_open Init failed"});
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(DriverTest, InitWithoutAWorkerRaisesAndReleasesWhatItMade) {
  driver = std::make_unique<UDiskDriver>(&device, "policy");
  const FailingThread worker(0);
  try {
    driver->Init();
    FAIL() << "Init did not raise";
  } catch (const std::system_error& error) {
    EXPECT_EQ(string(error.what()).rfind("thread constructor failed", 0), 0U) << error.what();
  }
  EXPECT_EQ(driver->mQueue, nullptr);
  EXPECT_EQ(driver->mWorker, nullptr);
  EXPECT_EQ(driver->GetDriverObj(), nullptr);
}

TEST_F(DriverTest, InitWithoutAServiceFailsAtOnceAndLeavesNothing) {
  driver = std::make_unique<UDiskDriver>(&device, "policy");
  const FailingThread service(1);
  const auto begin = Clock::now();
  EXPECT_EQ(driver->Init(), -1);
  EXPECT_LT(Clock::now() - begin, kAWorkersSecond);
  EXPECT_EQ(driver->mQueue, nullptr);
  EXPECT_EQ(driver->mWorker, nullptr);
  EXPECT_EQ(driver->mService, nullptr);
  EXPECT_EQ(driver->GetDriverObj(), nullptr);
  EXPECT_FALSE(driver->mStop);
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(DriverTest, OpenWithoutAServiceFails) {
  const FailingThread service(1);
  EXPECT_EQ(udisk_open(&device, "policy"), nullptr);
  EXPECT_EQ(Log().Messages(kError), Texts{"udisk_open Init failed"});
  EXPECT_TRUE(device.Sent().empty());
}

TEST_F(DriverTest, InitAfterAFailedOneStartsAfresh) {
  driver = std::make_unique<UDiskDriver>(&device, "policy");
  {
    const FailingThread service(1);
    EXPECT_EQ(driver->Init(), -1);
  }
  EXPECT_EQ(driver->Init(), 0);
  ASSERT_TRUE(device.WaitForPackets(2));
  EXPECT_EQ(Deliver(kGetKnown), 0);
  EXPECT_TRUE(device.WaitForPackets(3));
}

// ---- Requests ----

TEST_F(DriverTest, AnswersRequestsInTheOrderOfTheirArrival) {
  Open();
  std::vector<uint32_t> ids;
  for (uint32_t id = 0; id < 200; ++id) {
    ids.push_back(id);
    EXPECT_EQ(
        DeliverNumbered(id % 2 == 0 ? Request(kGetKnown) : Request(ReadRequest{kKnownFile}), id),
        0);
  }
  ASSERT_TRUE(device.WaitForPackets(200));
  EXPECT_EQ(SentIds(), ids);
}

TEST_F(DriverTest, ServesOneRequestAtATimeOnOneThread) {
  Open();
  std::atomic<int> inside = 0;
  std::atomic<bool> overlapped = false;
  std::mutex mutex;
  std::set<std::thread::id> threads;
  device.OnSend([&](const SentPacket&) {
    if (++inside > 1) overlapped = true;
    std::this_thread::yield();
    --inside;
    const std::lock_guard lock(mutex);
    threads.insert(std::this_thread::get_id());
  });
  {
    std::vector<std::jthread> hosts;
    for (int i = 0; i < 4; ++i) {
      hosts.emplace_back([&] {
        for (int n = 0; n < 50; ++n) Deliver(kGetKnown);
      });
    }
  }
  ASSERT_TRUE(device.WaitForPackets(200));
  driver->Close(0);
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(threads.size(), 1U);
  EXPECT_EQ(threads.count(std::this_thread::get_id()), 0U);
}

TEST_F(DriverTest, APacketForAnotherDeviceIsRefusedAndNeverServed) {
  Open();
  Request other = kGetKnown;
  other.dev_id = kDeviceId + 1;
  other.request_id = 1;
  EXPECT_EQ(Deliver(other), -1);
  EXPECT_EQ(Log().Messages(kError), Texts{R"(this packet is other device myDevId: 5, DevId: 6\n)"});
  EXPECT_EQ(DeliverNumbered(kGetKnown, 2), 0);
  ASSERT_TRUE(device.WaitForPackets(1));
  EXPECT_EQ(SentIds(), std::vector<uint32_t>{2});
}

TEST_F(DriverTest, ComparesTheWholeOfTheDevicesId) {
  Open();
  device.SetId(0x100 + kDeviceId);
  EXPECT_EQ(Deliver(kGetKnown), -1);
  EXPECT_TRUE(Log().Has(kError, R"(this packet is other device myDevId: 261, DevId: 5\n)"));
}

TEST_F(DriverTest, TakesDeviceIdsAbove127) {
  Open();
  device.SetId(200);
  Request request = kGetKnown;
  request.dev_id = 200;
  EXPECT_EQ(Deliver(request), 0);
  EXPECT_TRUE(device.WaitForPackets(1));
}

TEST_F(DriverTest, APacketWithoutABufferHasTheIdZero) {
  Open();
  EXPECT_EQ(driver->onEvent(std::make_unique<CpdPacket>(), 0), -1);
  EXPECT_EQ(Log().Messages(kError), Texts{R"(this packet is other device myDevId: 5, DevId: 0\n)"});
  device.SetId(0);
  EXPECT_EQ(driver->onEvent(std::make_unique<CpdPacket>(), 0), 0);
  Request request = kGetKnown;
  request.dev_id = 0;
  EXPECT_EQ(Deliver(request), 0);
  EXPECT_TRUE(device.WaitForPackets(1)) << "the empty packet did no harm";
}

TEST_F(DriverTest, ANullPacketIsRefused) {
  Open();
  EXPECT_EQ(driver->onEvent(nullptr, 0), -1);
  EXPECT_EQ(Deliver(kGetKnown), 0);
  EXPECT_TRUE(device.WaitForPackets(1));
}

TEST_F(DriverTest, APacketBeforeInitIsDropped) {
  driver = std::make_unique<UDiskDriver>(&device, "policy");
  EXPECT_EQ(Deliver(kGetKnown), 0);
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(DriverTest, AnEmptyQueueIsLookedAtAtLeastOnceASecond) {
  Open();
  const auto begin = Clock::now();
  {
    const std::lock_guard lock(driver->mMutex);
    g_queue_push_tail(driver->mQueue, Request(kGetKnown).Packet().release());  // waking nobody
  }
  EXPECT_TRUE(device.WaitForPackets(1));
  EXPECT_LT(Clock::now() - begin, std::chrono::seconds(5)) << "more than a busy machine adds";
  EXPECT_EQ(Deliver(kGetKnown), 0);
  EXPECT_TRUE(device.WaitForPackets(2)) << "and it went back to waiting";
}

TEST_F(DriverTest, WaitsForRequestsWithoutUsingTheProcessor) {
  Open();
  const std::chrono::nanoseconds before = ProcessorTimeOf(driver->mWorker.get());
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // it looks once or twice
  EXPECT_LT(ProcessorTimeOf(driver->mWorker.get()) - before, std::chrono::milliseconds(50));
}

// ---- Bus events, policy, the other operations ----

std::shared_ptr<CpdPacket> BandwidthEvent(uint32_t kbps) {
  return Request{.cmd = kBusReadBandwidth, .payload = BytesOf(kbps)}.Packet();
}

TEST_F(DriverTest, BusEventsAreServedAtOnceWhileARequestIsStuck) {
  Open();
  Gate gate;
  device.OnSend([&](const SentPacket&) { gate.Pass(); });
  Deliver(kGetKnown);
  ASSERT_TRUE(gate.WaitForOne());
  EXPECT_EQ(driver->onBusEvent(BandwidthEvent(5000)), 0);
  EXPECT_EQ(Operator()->readBwKbps, 5000U);
  gate.Open();
  driver->Close(0);  // the worker is in the gate no more
}

TEST_F(DriverTest, BusEventsWithoutAnOperatorOrPacketAreIgnored) {
  driver = std::make_unique<UDiskDriver>(&device, "policy");
  EXPECT_EQ(driver->onBusEvent(BandwidthEvent(5000)), 0);
  Open();
  EXPECT_EQ(driver->onBusEvent(nullptr), 0);
  driver->Close(0);
  EXPECT_EQ(driver->onBusEvent(BandwidthEvent(5000)), 0);
}

TEST_F(DriverTest, PolicyIsKeptUpTo127Characters) {
  string text;
  for (int i = 0; i < 200; ++i) text += static_cast<char>('a' + i % 26);
  driver = std::make_unique<UDiskDriver>(&device, text.c_str());
  EXPECT_EQ(driver->mPolicy, text.substr(0, 127));
  EXPECT_EQ(driver->onPolicyChange("short"), 0);
  EXPECT_STREQ(driver->mPolicy, "short");
  EXPECT_EQ(driver->onPolicyChange(text), 0);
  EXPECT_EQ(driver->mPolicy, text.substr(0, 127));
  EXPECT_EQ(driver->onPolicyChange("100%s%n"), 0);
  EXPECT_STREQ(driver->mPolicy, "100%s%n");
}

TEST_F(DriverTest, PolicyMayBeNull) {
  driver = std::make_unique<UDiskDriver>(&device, nullptr);
  EXPECT_STREQ(driver->mPolicy, "");
}

TEST_F(DriverTest, ControlIsNotSupported) {
  Open();
  uint16_t status = 0;
  EXPECT_EQ(driver->Control(nullptr, &status), -1);
  EXPECT_EQ(status, 0x1506);
}

TEST_F(DriverTest, StateKindAndPolicySettingAreConstant) {
  Open();
  EXPECT_EQ(driver->GetState(), 0);
  EXPECT_EQ(driver->GetDriverKind(), "RawDrv");
  EXPECT_EQ(driver->policy_setting("policy"), 0);
}

TEST_F(DriverTest, OnEventByIdOnlyComparesTheId) {
  driver = std::make_unique<UDiskDriver>(&device, "policy");
  EXPECT_EQ(driver->OnEvent(kDeviceId, 0, nullptr, 0), 0);
  EXPECT_TRUE(Log().Lines().empty());
  EXPECT_EQ(driver->OnEvent(kDeviceId + 1, 0, nullptr, 0), -1);
  EXPECT_EQ(Log().Messages(kError), Texts{R"(this msg is invalid\n)"});
}

TEST_F(DriverTest, DriverObjectIsTheOperatorWhileItRuns) {
  driver = std::make_unique<UDiskDriver>(&device, "policy");
  EXPECT_EQ(driver->GetDriverObj(), nullptr);
  Open();
  const std::shared_ptr<DriverObj> object = driver->GetDriverObj();
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->GetDeviceId(), kDeviceId);
  driver->Close(0);
  EXPECT_EQ(driver->GetDriverObj(), nullptr);
  EXPECT_EQ(object->GetDeviceId(), kDeviceId) << "lives as long as somebody holds it";
}

// ---- Closing ----

TEST_F(DriverTest, CloseLogsAndTraces) {
  Open();
  Log().Clear();
  EXPECT_EQ(driver->Close(0), 0);
  Texts messages;
  for (const LogLine& line : Log().Lines()) {
    if (line.function != "MountRemote") messages.push_back(line.message);  // its last may be late
  }
  EXPECT_EQ(messages, (Texts{R"(udisk client close\n)", R"(client udisk StopLoop\n)",
                             "local mMountDrive:" + disk.root(), R"(udisk client close out\n)"}));
  const Trace trace = device.base().Traces().back();
  EXPECT_EQ(trace.event, "LOCAL_UDISK_DRIVER_CLOSE");
  EXPECT_EQ(trace.fields.at("message"), "udisk driver close success");
  EXPECT_EQ(trace.fields.at("success"), "true");
}

TEST_F(DriverTest, CloseLeavesNothingBehind) {
  Open();
  driver->Close(1);
  EXPECT_EQ(driver->mQueue, nullptr);
  EXPECT_EQ(driver->mWorker, nullptr);
  EXPECT_EQ(driver->mService, nullptr);
  EXPECT_EQ(driver->mOperator, nullptr);
}

TEST_F(DriverTest, CloseOfADriverThatNeverStartedOnlyLogs) {
  driver = std::make_unique<UDiskDriver>(&device, "policy");
  EXPECT_EQ(driver->Close(0), 0);
  EXPECT_EQ(Log().Messages(), (Texts{R"(udisk client close\n)", R"(udisk client close out\n)"}));
  EXPECT_TRUE(device.base().Traces().empty());
}

TEST_F(DriverTest, CloseTwiceTracesOnce) {
  Open();
  driver->Close(0);
  EXPECT_EQ(driver->Close(0), 0);
  EXPECT_EQ(device.base().Traces("LOCAL_UDISK_DRIVER_CLOSE").size(), 1U);
}

TEST_F(DriverTest, ClosesWithoutWaitingOutTheWorkersSecond) {
  Open();
  const auto begin = Clock::now();
  driver->Close(0);
  EXPECT_LT(Clock::now() - begin, kAWorkersSecond);
}

TEST_F(DriverTest, CloseWaitsForTheRequestInFlightAndDropsTheQueued) {
  Open();
  Gate gate;
  device.OnSend([&](const SentPacket&) { gate.Pass(); });
  DeliverNumbered(kGetKnown, 1);
  ASSERT_TRUE(gate.WaitForOne());
  for (uint32_t id = 2; id <= 6; ++id) EXPECT_EQ(DeliverNumbered(kGetKnown, id), 0);

  std::thread closer([&] { driver->Close(0); });
  while (!driver->mStop) std::this_thread::yield();
  EXPECT_EQ(DeliverNumbered(kGetKnown, 7), 0) << "dropped: close has begun";
  gate.Open();
  closer.join();
  EXPECT_EQ(SentIds(), std::vector<uint32_t>{1});
  EXPECT_TRUE(Log().Messages(kError).empty());
}

TEST_F(DriverTest, AFileThatWouldPassTheProcesssSizeLimitIsAFailedWriteAndNoMore) {
  ExpectFaultRow("a file that would pass the process's limit of file sizes",
                 {"a failure", "the failed call, `File too large`", "nothing"});
  Open();
  rlimit before = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
  const rlimit small = {.rlim_cur = 1 << 20, .rlim_max = before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  Deliver(WriteRequest{.path = kKnownFile, .offset = 2 << 20, .data = "past it"});
  Deliver(TruncateRequest{.path = kKnownFile, .length = 2 << 20});
  EXPECT_TRUE(device.WaitForPackets(2));
  EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &before), 0);
  ASSERT_EQ(device.Sent().size(), 2U);
  EXPECT_EQ(+WriteRequest::Reply::Decode(device.Sent()[0]).head.size, 0);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known content");
}

TEST_F(DriverTest, APacketAfterCloseIsDroppedSilently) {
  Open();
  driver->Close(0);
  Log().Clear();
  EXPECT_EQ(Deliver(kGetKnown), 0);
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(DriverTest, CloseRightAfterOpenIsClean) {
  for (int i = 0; i < 20; ++i) {
    driver.reset(static_cast<UDiskDriver*>(udisk_open(&device, "policy")));
    ASSERT_NE(driver, nullptr);
    EXPECT_EQ(driver->Close(0), 0);
    driver.reset();
  }
}

// ---- All at once ----

TEST_F(DriverTest, ServesWhileEverythingElseIsCalledAtOnce) {
  TempDisk other;
  other.MakeFile(kKnownFile, "known content");
  other.MakeDir(kKnownDir);
  std::atomic<int> wrong = 0;
  std::atomic<int> answers = 0;
  device.OnSend([&](const SentPacket& sent) {
    ++answers;
    // Both disks have the file: a mount point half of one and half of the other has not.
    if (sent.cmd == kGetFileAttr && AttrReply::Decode(sent).attr_length == 0) ++wrong;
    if (sent.cmd == kFileRead && ReadReply::Decode(sent).result == 0) ++wrong;
  });
  for (int round = 0; round < 3; ++round) {
    Open();
    const std::shared_ptr<UDiskOperator> udisk = Operator();
    std::atomic<bool> done = false;
    const auto until_done = [&](auto action) {
      return std::jthread([&done, action] {
        for (int i = 0; !done; ++i) {
          action(i);
          std::this_thread::yield();
        }
      });
    };
    std::vector<std::jthread> hosts;
    hosts.push_back(until_done([&](int) { Deliver(kGetKnown); }));
    hosts.push_back(until_done([&](int i) {
      if (i % 4 == 0) Deliver(ReadRequest{.path = kKnownFile});
      if (i % 4 == 1) Deliver(StatvfsRequest{.path = kKnownFile});
      if (i % 4 == 2) Deliver(DirReadRequest{.path = kKnownDir});
      if (i % 4 == 3) Deliver(MountResponse{.drive = "U:"});
    }));
    hosts.push_back(until_done(
        [&](int i) { driver->onBusEvent(BandwidthEvent(1'000'000 + static_cast<uint32_t>(i))); }));
    hosts.push_back(until_done([&](int i) { driver->onPolicyChange(std::to_string(i)); }));
    hosts.push_back(until_done([&](int i) {
      const TempDisk& next = i % 2 == 0 ? other : disk;
      udisk->SetRootPath(next.letter().c_str(), next.label().c_str());
      udisk->GetLocalMountPoint();
      udisk->GetRemoteMountPoint();
    }));
    hosts.push_back(until_done([&](int) { driver->GetDriverObj(); }));
    EXPECT_TRUE(device.WaitForPackets(300));
    driver->Close(0);  // while all of them go on
    done = true;
    hosts.clear();
    device.TakeSent();
    Log().Clear();
  }
  EXPECT_EQ(wrong, 0);
  EXPECT_GE(answers, 900);
}

}  // namespace
}  // namespace cpd::test
