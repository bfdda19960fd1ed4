#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fstream>
#include <future>
#include <iterator>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "file_manager_linux.h"
#include "operator.h"
#include "service.h"
#include "support/between_passes.h"
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

/// Less than the second that a worker sleeps when nothing wakes it.
constexpr std::chrono::milliseconds kAWorkersSecond{900};

/// The processor time that a thread has used so far.
std::chrono::nanoseconds ProcessorTimeOf(pthread_t thread) {
  clockid_t clock = {};
  timespec used = {};
  EXPECT_EQ(pthread_getcpuclockid(thread, &clock), 0);
  EXPECT_EQ(clock_gettime(clock, &used), 0);
  return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
}

/// Whether a thread of this process waits for something.
bool IsAsleep(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  const string text{std::istreambuf_iterator<char>(file), {}};
  return text.find(") S ") != string::npos;
}

std::shared_ptr<CpdPacket> BandwidthEvent(uint32_t kbps) {
  return Request{.cmd = kBusReadBandwidth, .payload = BytesOf(kbps)}.Packet();
}

/// A gate that blocks every thread that reaches it until it is opened.
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

const AttrRequest kGetKnown{.path = kKnownFile};

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

  /// Opens a driver as the host does, and waits until it has announced its disk.
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
  /// The driver is as before Init: no operator, requests are dropped, and Close only logs.
  void ExpectNothingRuns() {
    EXPECT_EQ(driver->GetDriverObj(), nullptr);
    Log().Clear();
    device.TakeSent();
    const size_t traces = device.base().Traces().size();
    EXPECT_EQ(Deliver(kGetKnown), 0);
    EXPECT_EQ(driver->Close(0), 0);
    EXPECT_EQ(Log().Messages(), (Texts{R"(udisk client close\n)", R"(udisk client close out\n)"}));
    EXPECT_TRUE(device.Sent().empty());
    EXPECT_EQ(device.base().Traces().size(), traces);
  }
  /// Waits for a line of the driver's log.
  static bool WaitForLine(const string& message) {
    const auto end = Clock::now() + kPatience;
    while (!Log().Has(kDebug, message)) {
      if (Clock::now() > end) return false;
      std::this_thread::yield();
    }
    return true;
  }
  /// The ids of what was sent, in order.
  std::vector<uint32_t> SentIds() {
    std::vector<uint32_t> ids;
    for (const SentPacket& sent : device.Sent()) ids.push_back(sent.request_id);
    return ids;
  }
  /// The messages that udisk.cpp logged.
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

TEST_F(DriverTest, OpenStartsTheServiceThenTracesThenLogsItsSuccess) {
  Texts at_trace;
  device.base().OnTrace([&](const Trace&) { at_trace = Log().Messages(); });
  Open();
  device.base().OnTrace(nullptr);
  const auto place = [](const Texts& lines, const string& line) {
    return std::ranges::find(lines, line) - lines.begin();
  };
  const Texts lines = Log().Messages();
  EXPECT_LT(place(lines, R"(client udisk init service\n)"),
            place(lines, R"(Udisk service StartLoop\n)"));
  EXPECT_LT(place(lines, R"(Udisk service StartLoop\n)"),
            place(lines, R"(client udisk service Start ..........\n)"));
  const auto traced = std::ssize(at_trace);
  EXPECT_LT(place(lines, R"(Udisk service StartLoop\n)"), traced);
  EXPECT_GE(place(lines, R"(client udisk init success\n)"), traced);
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

TEST_F(DriverTest, InitWithoutAWorkerThrowsAndReleasesWhatItMade) {
  driver = std::make_unique<UDiskDriver>(&device, "policy");
  const FailingThread worker(0);
  try {
    driver->Init();
    FAIL() << "Init did not throw";
  } catch (const std::system_error& error) {
    EXPECT_EQ(string(error.what()).rfind("thread constructor failed", 0), 0U) << error.what();
  }
  ExpectNothingRuns();
}

TEST_F(DriverTest, InitWithoutAServiceFailsAtOnceAndLeavesNothing) {
  driver = std::make_unique<UDiskDriver>(&device, "policy");
  const FailingThread service(1);
  const auto begin = Clock::now();
  EXPECT_EQ(driver->Init(), -1);
  EXPECT_LT(Clock::now() - begin, kAWorkersSecond);
  EXPECT_TRUE(device.base().Traces().empty());
  ExpectNothingRuns();
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

TEST_F(DriverTest, ComparesTheWholeDeviceId) {
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
  EXPECT_TRUE(device.Sent().empty());
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(DriverTest, WaitsForRequestsWithoutUsingTheProcessor) {
  Open();
  std::promise<pthread_t> serves;
  device.OnSend([&](const SentPacket&) { serves.set_value(pthread_self()); });
  Deliver(kGetKnown);
  const pthread_t worker = serves.get_future().get();
  device.OnSend(nullptr);  // the next answer may come when this test is over
  std::this_thread::sleep_for(std::chrono::milliseconds(100));  // the request is over
  const std::chrono::nanoseconds before = ProcessorTimeOf(worker);
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));  // the worker wakes once or twice
  EXPECT_LT(ProcessorTimeOf(worker) - before, std::chrono::milliseconds(50));
  EXPECT_EQ(Deliver(kGetKnown), 0);
  EXPECT_TRUE(device.WaitForPackets(2)) << "and it went back to waiting";
}

TEST_F(DriverTest, AnswersARequestAtOnceWhileItIsIdle) {
  Open();
  std::promise<pid_t> serves;
  device.OnSend([&](const SentPacket&) { serves.set_value(gettid()); });
  Deliver(kGetKnown);
  const pid_t worker = serves.get_future().get();
  device.OnSend(nullptr);
  size_t sent = 1;
  bool was_woken = false;
  // A worker that is not woken takes the second request a second after the first one, or later. On
  // a busy machine a worker that is woken may also be that slow, but not every time.
  for (int i = 0; i < 10 && !was_woken; ++i) {
    const auto begin = Clock::now();
    Deliver(kGetKnown);
    ASSERT_TRUE(device.WaitForPackets(++sent));
    do {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (!IsAsleep(worker));
    Deliver(kGetKnown);
    ASSERT_TRUE(device.WaitForPackets(++sent));
    was_woken = Clock::now() - begin < kAWorkersSecond;
  }
  EXPECT_TRUE(was_woken);
}

// ---- Bus events, policy, the other operations ----

TEST_F(DriverTest, BusEventsAreServedAtOnceWhileARequestIsStuck) {
  Open();
  Gate gate;
  device.OnSend([&](const SentPacket&) { gate.Pass(); });
  Deliver(kGetKnown);
  ASSERT_TRUE(gate.WaitForOne());
  EXPECT_EQ(driver->onBusEvent(BandwidthEvent(5000)), 0);
  EXPECT_EQ(Operator()->readBwKbps, 5000U);
  gate.Open();
  driver->Close(0);  // the worker has left the gate when this returns
}

TEST_F(DriverTest, BusEventsWithoutAnOperatorOrPacketAreIgnored) {
  driver = std::make_unique<UDiskDriver>(&device, "policy");
  EXPECT_EQ(driver->onBusEvent(BandwidthEvent(5000)), 0);
  Open();
  EXPECT_EQ(driver->onBusEvent(nullptr), 0);
  EXPECT_EQ(Operator()->readBwKbps, 0U);
  driver->Close(0);
  EXPECT_EQ(driver->onBusEvent(BandwidthEvent(5000)), 0);
}

TEST_F(DriverTest, APolicyMayBeNullOrLongOrContainPrintfDirectives) {
  const string longer_than_is_kept(1 << 20, 'p');
  for (const char* policy :
       {static_cast<const char*>(nullptr), "", "100%s%n", longer_than_is_kept.c_str()}) {
    driver = std::make_unique<UDiskDriver>(&device, policy);
    EXPECT_EQ(driver->Init(), 0);
    for (const string& next : {longer_than_is_kept, string("100%s%n"), string("short")}) {
      EXPECT_EQ(driver->onPolicyChange(next), 0);
    }
    ASSERT_TRUE(device.WaitForPackets(2));  // the notice and the announcement
    device.TakeSent();
    EXPECT_EQ(Deliver(kGetKnown), 0);
    EXPECT_TRUE(device.WaitForPackets(1));
    EXPECT_EQ(driver->Close(0), 0);
  }
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
  EXPECT_EQ(object->GetDeviceId(), 0) << "the object lives as long as it is held";
}

// ---- Closing ----

TEST_F(DriverTest, CloseLogsAndTraces) {
  Open();
  Log().Clear();
  EXPECT_EQ(driver->Close(0), 0);
  Texts messages;
  for (const LogLine& line : Log().Lines()) {
    if (line.function != "MountRemote") messages.push_back(line.message);  // may come later
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
  ExpectNothingRuns();
}

TEST_F(DriverTest, TheDriverObjectOutlivesTheDevice) {
  auto passing_device = std::make_unique<FakeDevice>();
  passing_device->base().SetParams(DeviceParams(disk.root()));
  std::unique_ptr<CpdDriver> passing(udisk_open(passing_device.get(), "policy"));
  ASSERT_NE(passing, nullptr);
  ASSERT_TRUE(passing_device->WaitForPackets(2));
  const auto object = std::static_pointer_cast<UDiskOperator>(passing->GetDriverObj());
  EXPECT_EQ(object->GetDeviceId(), kDeviceId);
  passing->Close(0);
  passing.reset();
  passing_device.reset();
  EXPECT_EQ(object->GetDeviceId(), 0);
  EXPECT_EQ(object->GetLocalMountPoint(), disk.root());
  EXPECT_EQ(object->GetRemoteMountPoint(), "");
  EXPECT_EQ(object->BusEventHandle(BandwidthEvent(5000)), 0) << "and its trace is dropped";
}

/// A device whose id can be asked for only while a gate is open.
class GatedDevice : public FakeDevice {
 public:
  int GetDevId() override {
    gate.Pass();
    return FakeDevice::GetDevId();
  }
  Gate gate;
};

TEST_F(DriverTest, TheDriverObjectLetsGoOfItsDeviceOnlyWhenNoThreadIsUsingIt) {
  GatedDevice gated;
  UDiskOperator udisk(&gated);
  std::jthread asking([&] { EXPECT_EQ(udisk.GetDeviceId(), kDeviceId); });
  ASSERT_TRUE(gated.gate.WaitForOne());
  std::future<void> letting_go = std::async(std::launch::async, [&] { udisk.LetGoOfDevice(); });
  EXPECT_EQ(letting_go.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
  gated.gate.Open();
  letting_go.wait();
  EXPECT_EQ(udisk.GetDeviceId(), 0);
}

TEST_F(DriverTest, RequestsAreServedWhileCloseWaitsForTheService) {
  Gate gate;
  device.OnSend([&](const SentPacket& sent) {
    if (sent.cmd == kMountRemote) gate.Pass();
  });
  driver.reset(static_cast<UDiskDriver*>(udisk_open(&device, "policy")));
  ASSERT_NE(driver, nullptr);
  ASSERT_TRUE(gate.WaitForOne());
  std::jthread closer([&] { driver->Close(0); });
  EXPECT_TRUE(WaitForLine(R"(client udisk StopLoop\n)"));
  Deliver(kGetKnown);
  EXPECT_TRUE(device.WaitForPackets(3)) << "notice, announcement, reply";
  gate.Open();
}

TEST_F(DriverTest, ASecondCloseWaitsForTheFirst) {
  Open();
  Gate gate;
  device.base().OnTrace([&](const Trace&) { gate.Pass(); });
  std::atomic<int> closed = 0;
  const auto close = [&] {
    EXPECT_EQ(driver->Close(0), 0);
    ++closed;
  };
  std::jthread first(close);
  ASSERT_TRUE(gate.WaitForOne());
  std::jthread second(close);
  while (Log().Count(kDebug, R"(udisk client close\n)") < 2) std::this_thread::yield();
  EXPECT_EQ(closed, 0);
  gate.Open();
  first.join();
  second.join();
  EXPECT_EQ(closed, 2);
  EXPECT_EQ(device.base().Traces("LOCAL_UDISK_DRIVER_CLOSE").size(), 1U);
}

TEST_F(DriverTest, AWriteToAPipeWithoutAReaderFailsWithoutASignalOnEitherThread) {
  int pipe_ends[2] = {};
  ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
  close(pipe_ends[0]);
  std::atomic<int> broken = 0;
  device.OnSend([&](const SentPacket&) {
    if (write(pipe_ends[1], "x", 1) == -1 && errno == EPIPE) ++broken;
  });
  driver.reset(static_cast<UDiskDriver*>(udisk_open(&device, "policy")));
  ASSERT_NE(driver, nullptr);
  ASSERT_TRUE(device.WaitForPackets(2));
  Deliver(kGetKnown);
  ASSERT_TRUE(device.WaitForPackets(3));
  driver->Close(0);
  close(pipe_ends[1]);
  EXPECT_EQ(broken, 3);
}

TEST_F(DriverTest, SignalsThatTheHostBlocksStayBlockedOnEitherThread) {
  sigset_t hosts = {};
  sigset_t before = {};
  sigemptyset(&hosts);
  sigaddset(&hosts, SIGUSR1);
  ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &hosts, &before), 0);
  std::atomic<int> blocked = 0;
  device.OnSend([&](const SentPacket&) {
    sigset_t now = {};
    pthread_sigmask(SIG_BLOCK, nullptr, &now);
    if (sigismember(&now, SIGUSR1) == 1) ++blocked;
  });
  driver.reset(static_cast<UDiskDriver*>(udisk_open(&device, "policy")));
  EXPECT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
  ASSERT_NE(driver, nullptr);
  ASSERT_TRUE(device.WaitForPackets(2));
  Deliver(kGetKnown);
  ASSERT_TRUE(device.WaitForPackets(3));
  driver->Close(0);
  EXPECT_EQ(blocked, 3);
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
  // Several times: on a busy machine the worker's second may be nearly over when Close begins.
  Clock::duration closing{};
  for (int round = 0; round < 5; ++round) {
    Open();
    const auto begin = Clock::now();
    driver->Close(0);
    closing += Clock::now() - begin;
  }
  EXPECT_LT(closing, 2 * kAWorkersSecond);
}

TEST_F(DriverTest, CloseWaitsForTheRequestInFlightAndDropsTheQueued) {
  Open();
  Gate gate;
  device.OnSend([&](const SentPacket&) { gate.Pass(); });
  DeliverNumbered(kGetKnown, 1);
  ASSERT_TRUE(gate.WaitForOne());
  for (uint32_t id = 2; id <= 6; ++id) EXPECT_EQ(DeliverNumbered(kGetKnown, id), 0);

  const std::shared_ptr<UDiskOperator> udisk = Operator();
  std::thread closer([&] { driver->Close(0); });
  while (!udisk->tokenBucket.stopping) std::this_thread::yield();
  EXPECT_EQ(DeliverNumbered(kGetKnown, 7), 0) << "dropped: close has begun";
  gate.Open();
  closer.join();
  EXPECT_EQ(SentIds(), std::vector<uint32_t>{1});
  EXPECT_TRUE(Log().Messages(kError).empty());
}

TEST_F(DriverTest, CloseGivesARequestOfManyCallsTimeToEnd) {
  Open();
  Gate gate;
  const BetweenPasses listing([&] { gate.Pass(); });
  Deliver(DirReadRequest{.path = kKnownDir});
  ASSERT_TRUE(gate.WaitForOne());
  const std::shared_ptr<UDiskOperator> udisk = Operator();
  std::thread closer([&] { driver->Close(0); });
  while (!udisk->tokenBucket.stopping) std::this_thread::yield();
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // Close waits for the worker by now
  const auto opened = Clock::now();
  gate.Open();
  closer.join();
  EXPECT_LT(Clock::now() - opened, kAWorkersSecond) << "the worker waits for another request";
  EXPECT_EQ(device.Sent().size(), 1U);
  EXPECT_TRUE(Log().Messages(kError).empty());
}

TEST_F(DriverTest, AfterCloseInitStartsAfresh) {
  Open();
  driver->Close(0);
  ASSERT_EQ(driver->Init(), 0);
  ASSERT_TRUE(device.WaitForPackets(2));
  Deliver(kGetKnown);
  EXPECT_TRUE(device.WaitForPackets(3)) << "notice, announcement, reply";

  Gate gate;
  const BetweenPasses listing([&] { gate.Pass(); });
  Deliver(DirReadRequest{.path = kKnownDir});
  ASSERT_TRUE(gate.WaitForOne());
  const std::shared_ptr<UDiskOperator> udisk = Operator();
  std::thread closer([&] { driver->Close(0); });
  const auto given_up = [&] {
    try {
      udisk->mFileManager->StopIfGivenUp();
      return false;
    } catch (const GivenUp&) {
      return true;
    }
  };
  const auto end = Clock::now() + kPatience;
  while (!given_up() && Clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(given_up()) << "the request is stuck for more than a second";
  gate.Open();
  closer.join();
}

TEST_F(DriverTest, AWriteBeyondTheFileSizeLimitOfTheProcessFailsAndDoesNoOtherHarm) {
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

// ---- All at once; these tests are slow ----

using DriverRace = DriverTest;

TEST_F(DriverRace, TwoThreadsThatCloseADriverTraceItsClosingOnce) {
  for (int round = 0; round < 1000; ++round) {
    Open();
    {
      std::jthread other([&] { driver->Close(0); });
      driver->Close(0);
    }
    ASSERT_EQ(device.base().Traces("LOCAL_UDISK_DRIVER_CLOSE").size(),
              static_cast<size_t>(round) + 1);
    device.TakeSent();
    Log().Clear();
  }
}

TEST_F(DriverRace, ServesWhileEverythingElseIsCalledAtOnce) {
  TempDisk other;
  other.MakeFile(kKnownFile, "known content");
  other.MakeDir(kKnownDir);
  std::atomic<int> wrong = 0;
  std::atomic<int> answers = 0;
  device.OnSend([&](const SentPacket& sent) {
    ++answers;
    // Both disks have the file; a mount point mixed from the two would not.
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
    driver->Close(0);  // while all the other calls continue
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
