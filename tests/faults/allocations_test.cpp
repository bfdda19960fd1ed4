// Lets each allocation of each handler fail once: the request may fail, but nothing else.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cpd/device.h"
#include "cpd/log.h"
#include "cpd/tracer.h"
#include "operator.h"
#include "service.h"
#include "support/failing_allocations.h"
#include "support/fake_user.h"
#include "support/fault_table.h"
#include "support/requests.h"
#include "support/temp_disk.h"
#include "udisk.h"

namespace cpd::test {

void PrintTo(const NamedRequest& request, std::ostream* out) { *out << request.name; }

namespace {

// ---- A host that allocates no memory ----

int g_errors = 0;             ///< lines of level error
char g_last_error[512] = "";  ///< the last one
/// What this thread has logged, at any level, since a test cleared this; cut to its size.
constinit thread_local char t_log[4096] = "";

class FrugalFilter : public CpdPathFilter {
 public:
  std::shared_ptr<CpdPathMatch> MatchPath(const std::string& /*path*/) override { return match_; }

 private:
  const std::shared_ptr<CpdPathMatch> match_ = std::make_shared<CpdPathMatch>();
};

class FrugalBase : public CpdDeviceBase {
 public:
  std::string GetDeviceParams() override {
    return R"({"letter":"/tmp/","label":"no such disk at all","name":"Stick"})";
  }
  void TraceEvent(const std::string& /*id*/, const std::string& /*event*/,
                  const std::map<std::string, std::string>& /*fields*/) override {}
  void TraceEventDetail(const std::string& /*id*/, const std::string& /*detail*/,
                        const std::string& /*event*/,
                        const std::map<std::string, std::string>& /*fields*/) override {}
  std::shared_ptr<CpdPathFilter> GetPathFilter() override { return filter_; }

 private:
  const std::shared_ptr<CpdPathFilter> filter_ = std::make_shared<FrugalFilter>();
};

class FrugalDevice : public CpdDevice {
 public:
  std::shared_ptr<CpdDeviceBase> getDevBase() override {
    if (std::this_thread::get_id() == owner_ && at_base) at_base();
    return base_;
  }
  int GetDevId() override { return kDeviceId; }
  int SendPacket(std::unique_ptr<CpdPacket> packet, int /*flags*/) override {
    if (at_send) at_send();
    ++replies;
    const auto* const header = reinterpret_cast<const uint8_t*>(packet->header);
    if (header == nullptr || header != packet->buffer->data) ++headless;
    return 0;
  }
  void ReportReadFail(const std::string& /*path*/) override {}

  std::atomic<int> replies = 0;
  int headless = 0;               ///< replies without a header at the start of their buffer
  std::function<void()> at_send;  ///< called by SendPacket; set before the driver is opened
  std::function<void()> at_base;  ///< called by getDevBase, on the thread that made the device

 private:
  const std::thread::id owner_ = std::this_thread::get_id();
  const std::shared_ptr<CpdDeviceBase> base_ = std::make_shared<FrugalBase>();
};

}  // namespace
}  // namespace cpd::test

namespace cpd {

CpdTracer* CpdTracer::GetInstance() {
  static CpdTracer tracer;
  return &tracer;
}

}  // namespace cpd

extern "C" void tesselLogPrint(int /*channel*/, int level, const char* /*tag*/, const char* format,
                               ...) {
  using namespace cpd::test;
  char line[sizeof g_last_error];
  va_list arguments;
  va_start(arguments, format);
  (void)std::vsnprintf(line, sizeof line, format, arguments);
  va_end(arguments);
  const size_t used = std::strlen(t_log);
  (void)std::snprintf(t_log + used, sizeof t_log - used, "%s\n", line);
  if (level != 7) return;
  ++g_errors;
  std::memcpy(g_last_error, line, sizeof line);
}

namespace cpd::test {
namespace {

// ---- Requests ----

/// One good request for each command, two larger ones, and requests that go wrong.
std::vector<NamedRequest> AllRequests() {
  std::vector<NamedRequest> all = OneRequestPerCommand();
  // Three of them need what earlier ones made. Here each request gets a fresh disk, so these name
  // other files.
  std::erase_if(all, [](const NamedRequest& good) {
    return good.name == "remove_dir" || good.name == "set_unlink" || good.name == "set_rename";
  });
  const std::vector<SmallRead> fifty(50, {.path = kKnownFile});
  for (NamedRequest& more : std::vector<NamedRequest>{
           {"remove_dir", RemoveDirRequest{.path = "/empty"}},
           {"set_unlink", UnlinkRequest{.path = "/old.txt"}},
           {"set_rename", RenameRequest{.path = "/old.txt", .new_path = "/renamed.txt"}},
           {"file_read_of_1_MiB", ReadRequest{.path = kKnownFile, .size = 1 << 20}},
           {"small_file_read_of_50", SmallReadRequest{.records = fifty}},
           {"file_create_failing", CreateRequest{.path = kKnownDir}},
           {"file_write_failing", WriteRequest{.path = "/missing", .data = "data"}},
           {"make_dir_failing", MakeDirRequest{.path = std::string(kKnownFile) + "/dir"}},
           {"remove_dir_failing", RemoveDirRequest{.path = "/missing"}},
           {"set_rename_failing", RenameRequest{.path = "/missing", .new_path = "/renamed.txt"}}}) {
    all.push_back(std::move(more));
  }
  for (size_t i = 0; i < all.size(); ++i) all[i].name = std::to_string(i) + "_" + all[i].name;
  return all;
}

class FailingAllocation : public ::testing::TestWithParam<NamedRequest> {
 protected:
  struct Outcome {
    int allocations = 0;
    size_t largest = 0;  ///< the largest allocation, in bytes
    bool refused = false;
    bool threw = false;
    int left_behind = 0;  ///< blocks that were not freed
    int replies = 0;
    int headless = 0;  ///< replies without a header at the start of their buffer
    int errors = 0;
    std::string last_error;
  };

  FailingAllocation() { Mount(); }

  /// Serves a request on a fresh disk. With a number, one allocation fails after that many.
  Outcome Serve(const Request& request, std::optional<int> refuse_after = std::nullopt) {
    FillDisk();
    device.replies = 0;
    device.headless = 0;
    g_errors = 0;
    Outcome outcome;
    {
      Allocations allocations;
      std::unique_ptr<CpdPacket> packet = request.Packet();
      const int before = allocations.Count();
      if (refuse_after) allocations.RefuseOneAfter(*refuse_after);
      try {
        udisk.EventHandle(std::move(packet));
      } catch (...) {
        outcome.threw = true;
      }
      outcome.refused = allocations.StopRefusing();
      outcome.allocations = allocations.Count() - before;
      outcome.largest = allocations.Largest();
      Mount();  // restores the mount point that a request may have cleared
      outcome.left_behind = allocations.Live();
    }
    outcome.replies = device.replies;
    outcome.headless = device.headless;
    outcome.errors = g_errors;
    if (g_errors > 0) outcome.last_error = g_last_error;
    return outcome;
  }

  bool StillServes() {
    const Outcome outcome = Serve(AttrRequest{.path = kKnownFile});
    return outcome.replies == 1 && outcome.errors == 0;
  }

 private:
  void FillDisk() const {
    for (const auto& entry : std::filesystem::directory_iterator(disk.root())) {
      std::filesystem::remove_all(entry);
    }
    disk.MakeFile(kKnownFile, "known content");
    disk.MakeDir(kKnownDir);
    disk.MakeFile("/old.txt", "old");
    disk.MakeDir("/empty");
  }
  void Mount() {
    udisk.SetRootPath(nullptr, nullptr);
    udisk.SetRootPath(disk.letter().c_str(), disk.label().c_str());
  }

  DescriptorCheck descriptors;
  TempDisk disk;
  const FakeUser user{1000, disk.letter()};
  FrugalDevice device;
  UDiskOperator udisk{&device};
};

TEST_P(FailingAllocation, CostsNoMoreThanItsRequest) {
  ExpectFaultRow(
      "an allocation of a request",
      {"no answer, or that of a failure; the request may have been carried out",
       "`… failed: std::bad_alloc`; for the reply's own buffer a line on standard output instead",
       "nothing: an answer to a later request proves that this one gets none"});
  const Request& request = GetParam().request;
  Serve(request);  // the first request may make the C library allocate what it never frees
  const Outcome good = Serve(request);
  ASSERT_EQ(good.left_behind, 0);
  EXPECT_EQ(good.headless, 0) << "the header is not in the buffer, which has moved";
  ASSERT_GT(good.allocations, 0);
  int unlogged = 0;
  for (int i = 0; i < good.allocations; ++i) {
    SCOPED_TRACE("allocation " + std::to_string(i + 1) + " of " + std::to_string(good.allocations));
    const Outcome bad = Serve(request, i);
    ASSERT_TRUE(bad.refused);
    EXPECT_FALSE(bad.threw);
    EXPECT_EQ(bad.left_behind, 0);
    EXPECT_LE(bad.replies, good.replies);
    EXPECT_EQ(bad.headless, 0) << "a reply without a header was sent";
    EXPECT_LE(bad.errors, good.errors + 1);
    if (bad.replies < good.replies && !bad.last_error.ends_with("failed: std::bad_alloc\"")) {
      ++unlogged;
    }
    EXPECT_TRUE(StillServes());
  }
  EXPECT_LE(unlogged, 1) << "only the failure of the packet's own buffer is not logged";
}

INSTANTIATE_TEST_SUITE_P(, FailingAllocation, ::testing::ValuesIn(AllRequests()),
                         [](const auto& test) { return test.param.name; });

// ---- Sizes far beyond what the files hold ----

/// Reads of more data than exists.
std::vector<NamedRequest> OversizedReads() {
  constexpr uint32_t kMost = 0x7fffffff;
  constexpr uint32_t kNegative = 0x80000000;
  const SmallRead known{.path = kKnownFile, .size = kMost};
  return {{"file_read", ReadRequest{.path = kKnownFile, .size = kMost}},
          {"file_read_past_the_end", ReadRequest{.path = kKnownFile, .offset = 50, .size = kMost}},
          {"file_read_of_a_missing_file", ReadRequest{.path = "/none", .size = kMost}},
          {"file_read_of_a_negative_size", ReadRequest{.path = kKnownFile, .size = kNegative}},
          {"small_file_read",
           SmallReadRequest{.records = {known, {.path = "/none", .size = kMost}, known}}},
          {"small_file_read_of_a_negative_size",
           SmallReadRequest{.records = {{.path = kKnownFile, .size = kNegative}}}}};
}

class OversizedRead : public FailingAllocation {};

TEST_P(OversizedRead, AllocatesNoMoreThanTheFilesDeliver) {
  const Outcome outcome = Serve(GetParam().request);
  EXPECT_EQ(outcome.replies, 1);
  EXPECT_LT(outcome.largest, 16U << 10);
}

INSTANTIATE_TEST_SUITE_P(, OversizedRead, ::testing::ValuesIn(OversizedReads()),
                         [](const auto& test) { return test.param.name; });

// ---- Outside the handlers ----

/// Runs `act` again and again: its first allocation fails, then its second, and so on, until a run
/// makes too few for that. `act` receives the number of allocations before the one that fails.
template <class Act>
void RefuseEach(Act act) {
  bool refused = true;
  for (int i = 0; refused; ++i) {
    SCOPED_TRACE("allocation " + std::to_string(i + 1));
    ASSERT_LT(i, 1000);
    refused = act(i);
  }
}

TEST(AllocationOutsideTheHandlers, RefusedToABusEventCostsOnlyItsTrace) {
  ExpectFaultRow(
      "an allocation of a bus event",
      {"the new bandwidth", "`UDISK_READ_BW_INFO is not traced: std::bad_alloc`", "the trace"});
  RefuseEach([](int before) {
    FrugalDevice device;
    UDiskOperator udisk(&device);  // a fresh one: the next event is traced
    const std::shared_ptr<CpdPacket> event =
        Request{.cmd = kBusReadBandwidth, .payload = BytesOf(uint32_t{5000})}.Packet();
    Allocations allocations;
    allocations.RefuseOneAfter(before);
    EXPECT_NO_THROW(udisk.BusEventHandle(event));
    const bool refused = allocations.StopRefusing();
    EXPECT_EQ(udisk.readBwKbps, 5000U);
    return refused;
  });
}

TEST(AllocationOfAReply, RefusedToSmallFilesLeavesThemUnpaced) {
  RefuseEach([](int before) {
    FrugalDevice device;
    UDiskOperator udisk(&device);
    udisk.legacyThrottle = true;
    udisk.forceBw = 1'000'000;  // far more than is read, so that nothing sleeps
    const auto request =
        Request(SmallReadRequest{.records = {{.path = "/none", .size = 4}}}).Packet();
    Allocations allocations;
    allocations.RefuseOneAfter(before);
    try {
      udisk.small_file_read(CPD_PACKET_HEADER_SIZE, request.get());
    } catch (const std::bad_alloc&) {
    }
    const bool refused = allocations.StopRefusing();
    EXPECT_EQ(udisk.legacyBytes > 0, device.replies == 1) << "only what is sent is paced";
    return refused;
  });
}

TEST(AllocationOutsideTheHandlers, RefusedToTheCopyOfAPathMakesNoDirectoryAndReturnsZero) {
  const TempDisk disk;
  FileManagerLinux files;
  const std::string path = disk.Local("/made/below");
  Allocations allocations;
  allocations.RefuseOneAfter(0);
  const int result = files.UdiskMakeDir(path.c_str(), 0755, 1);
  EXPECT_TRUE(allocations.StopRefusing());
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(disk.Exists("/made"));
}

TEST(AllocationOutsideTheHandlers, RefusedToTheAnnouncementDoesNoHarm) {
  ExpectFaultRow(
      "an allocation of the announcement",
      {"the notice or the announcement does not come",
       "`client udisk service failed: std::bad_alloc`, or a line on standard output and, for the announcement, `client udisk mount ret: -1`",
       "the disk, until it is opened again"});
  RefuseEach([](int before) {
    FrugalDevice device;
    UDiskOperator udisk(&device);
    UDiskService service(&device, &udisk);
    Allocations allocations;
    allocations.RefuseOneAfter(before);
    EXPECT_NO_THROW(UDiskService::ServiceThread(&service));
    const bool refused = allocations.StopRefusing();
    EXPECT_EQ(device.headless, 0) << "a packet without a header was sent";
    return refused;
  });
}

TEST(AllocationOutsideTheHandlers, RefusedToTheBufferOfTheAnnouncementIsLoggedAndNothingIsSent) {
  int without_buffer = 0;
  RefuseEach([&](int before) {
    FrugalDevice device;
    UDiskOperator udisk(&device);
    UDiskService service(&device, &udisk);
    t_log[0] = '\0';
    Allocations allocations;
    allocations.RefuseOneAfter(before);
    std::optional<int> result;
    try {
      result = service.MountRemote("Stick", &device);
    } catch (const std::bad_alloc&) {  // an allocation other than the buffer's
    }
    const bool refused = allocations.StopRefusing();
    if (refused && result) {
      ++without_buffer;
      EXPECT_EQ(result, -1);
      EXPECT_EQ(device.replies, 0);
      const std::string log = t_log;
      EXPECT_NE(log.find(R"("packet header size: 2, payload size: 0, packet size: 0\n")"),
                std::string::npos)
          << log;
      EXPECT_NE(log.find(R"("client udisk mount ret: -1\n")"), std::string::npos) << log;
    }
    return refused;
  });
  EXPECT_EQ(without_buffer, 1);
}

TEST(AllocationOutsideTheHandlers, RefusedToTheQueueRefusesThePacketAndNothingElse) {
  FrugalDevice device;
  const std::unique_ptr<CpdDriver> driver(udisk_open(&device, "policy"));
  ASSERT_NE(driver, nullptr);
  while (device.replies < 2) std::this_thread::yield();  // the announcement
  const Request request = AttrRequest{.path = kKnownFile};
  {
    std::unique_ptr<CpdPacket> packet = request.Packet();
    g_errors = 0;
    Allocations allocations;
    allocations.RefuseOneAfter(0);
    EXPECT_EQ(driver->onEvent(std::move(packet), 0), -1);
    EXPECT_TRUE(allocations.StopRefusing());
    EXPECT_LT(allocations.Live(), 0) << "the packet is freed";
  }
  EXPECT_EQ(g_errors, 1);
  EXPECT_TRUE(std::string(g_last_error).ends_with("no memory to queue the request\""))
      << g_last_error;
  ExpectFaultRow(
      "an allocation of a packet's place in the queue",
      {"no answer, and `onEvent` answers -1", "`onEvent failed: no memory to queue the request`",
       "nothing: an answer to a later request proves that this one gets none"});
  EXPECT_EQ(driver->onEvent(request.Packet(), 0), 0);
  while (device.replies < 3) std::this_thread::yield();
  driver->Close(0);
}

TEST(AllocationOutsideTheHandlers, OfAPacketThatMeetsCloseIsFreedAtOnce) {
  FrugalDevice device;
  std::promise<void> held;
  std::promise<void> released;
  device.at_send = [&] {
    if (device.replies < 2) return;  // the announcement
    held.set_value();
    released.get_future().wait();
  };
  const std::unique_ptr<CpdDriver> driver(udisk_open(&device, "policy"));
  ASSERT_NE(driver, nullptr);
  while (device.replies < 2) std::this_thread::yield();
  const auto udisk = std::static_pointer_cast<UDiskOperator>(driver->GetDriverObj());
  EXPECT_EQ(driver->onEvent(Request(AttrRequest{.path = kKnownFile}).Packet(), 0), 0);
  held.get_future().wait();
  std::thread closer([&] { driver->Close(0); });
  while (!udisk->tokenBucket.stopping) std::this_thread::yield();
  {
    Allocations allocations;
    EXPECT_EQ(driver->onEvent(Request(AttrRequest{.path = kKnownFile}).Packet(), 0), 0);
    EXPECT_EQ(allocations.Live(), 0);
  }
  released.set_value();
  closer.join();
}

TEST(AllocationOfAPacket, RefusedToAGrowingBufferLeavesItAsItWas) {
  PacketBuffer buffer(16);
  std::memset(buffer.data, 'a', 16);
  const uint8_t* const before = buffer.data;
  Allocations allocations;
  allocations.RefuseOneAfter(0);
  EXPECT_EQ(buffer.Write("bc", 15, 2), -1);
  EXPECT_TRUE(allocations.StopRefusing());
  EXPECT_EQ(buffer.data, before);
  EXPECT_EQ(buffer.capacity, 16U);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer.data), 16), std::string(16, 'a'));
}

TEST(AllocationOfAPacket, RefusedToACopyOfAnImageFailsAndLeavesNoHeader) {
  std::string image = Request(AttrRequest{.path = kKnownFile}).Bytes();
  CpdPacket packet;
  Allocations allocations;
  allocations.RefuseOneAfter(1);  // the buffer's object, then its bytes
  EXPECT_EQ(
      packet.Parse(reinterpret_cast<uint8_t*>(image.data()), static_cast<int>(image.size()), true),
      -1);
  EXPECT_TRUE(allocations.StopRefusing());
  EXPECT_EQ(packet.header, nullptr);
  EXPECT_FALSE(packet.headerReady);
  EXPECT_EQ(packet.GetPayload(), nullptr);
}

TEST(AllocationOutsideTheHandlers, RefusedToOpeningMakesItFailAndLeavesNothing) {
  ExpectFaultRow("an allocation of opening, up to its trace",
                 {"no disk: `open` answers null", "`udisk_open Init failed`",
                  "nothing: the host can open the disk again"});
  int failures = 0;
  RefuseEach([&](int before) {
    FrugalDevice device;
    t_log[0] = '\0';
    Allocations allocations;
    device.at_base = [&] { allocations.StopRefusing(); };  // the trace is another test's
    allocations.RefuseOneAfter(before);
    const std::unique_ptr<CpdDriver> driver(udisk_open(&device, "policy"));
    const bool refused = driver == nullptr;
    if (refused) {
      ++failures;
      EXPECT_TRUE(allocations.StopRefusing());
      EXPECT_EQ(allocations.Live(), 0);
      EXPECT_TRUE(std::string(t_log).ends_with("\"udisk_open Init failed\"\n")) << t_log;
      EXPECT_EQ(device.replies, 0);
    } else {
      driver->Close(0);
    }
    return refused;
  });
  EXPECT_GE(failures, 4) << "driver, operator, service and worker";
}

TEST(AllocationOutsideTheHandlers, RefusedToTheTraceOfOpeningOrClosingCostsOnlyThatTrace) {
  ExpectFaultRow("an allocation of the trace of opening or closing",
                 {"nothing", "`… is not traced: std::bad_alloc`", "the trace"});
  RefuseEach([](int before) {
    FrugalDevice device;
    Allocations allocations;
    bool refused = false;
    device.at_base = [&] { allocations.RefuseOneAfter(before); };
    const std::unique_ptr<CpdDriver> driver(udisk_open(&device, "policy"));
    refused |= allocations.StopRefusing();
    EXPECT_NE(driver, nullptr);
    if (driver == nullptr) return refused;
    EXPECT_NO_THROW(driver->Close(0));
    refused |= allocations.StopRefusing();
    return refused;
  });
}

}  // namespace
}  // namespace cpd::test
