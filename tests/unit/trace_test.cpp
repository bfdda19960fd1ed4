#include <gtest/gtest.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "cpd/trace_keys.h"
#include "support/operator_fixture.h"

namespace cpd::test {
namespace {

class TraceTest : public OperatorTest {
 protected:
  void Record(const std::string& event, bool success, const std::string& path = "",
              const std::string& extra = "") {
    udisk->TraceCpdDevice(event, &device, success, "what happened", path, extra);
  }
  std::vector<Trace> Traces() { return device.base().Traces(); }
  Trace OnlyTrace() {
    const std::vector<Trace> traces = Traces();
    EXPECT_EQ(traces.size(), 1U);
    return traces.empty() ? Trace{} : traces.front();
  }
};

using Fields = std::map<std::string, std::string>;

TEST_F(TraceTest, OfASuccessHasExactlyFourFields) {
  Record("THING_DONE", true);
  EXPECT_EQ(OnlyTrace().event, "LOCAL_THING_DONE");
  EXPECT_EQ(OnlyTrace().fields, (Fields{{"message", "what happened"},
                                        {"productName", disk.root()},
                                        {"status", "success"},
                                        {"success", "true"}}));
}

TEST_F(TraceTest, OfAFailureSaysErrorAndFalse) {
  Record("THING_FAILED", false);
  EXPECT_EQ(OnlyTrace().fields, (Fields{{"message", "what happened"},
                                        {"productName", disk.root()},
                                        {"status", "error"},
                                        {"success", "false"}}));
}

TEST_F(TraceTest, LogsTheLocalMountPointThatItReads) {
  Record("E", true);
  EXPECT_EQ(Log().Messages(), std::vector<std::string>{"local mMountDrive:" + disk.root()});
}

TEST_F(TraceTest, WithoutAPathIsAPlainEvent) {
  Record("E", true);
  EXPECT_FALSE(OnlyTrace().detail);
}

TEST_F(TraceTest, WithAPathIsADetailedEvent) {
  Record("E", false, "/folder/a.txt");
  EXPECT_EQ(OnlyTrace().detail, "/folder/a.txt");
  EXPECT_EQ(OnlyTrace().event, "LOCAL_E");
  EXPECT_EQ(OnlyTrace().fields.size(), 4U);
}

TEST_F(TraceTest, DoesNotUseItsLastArgument) {
  Record("E", true, "", "extra");
  EXPECT_FALSE(OnlyTrace().detail);
  for (const auto& [key, value] : OnlyTrace().fields) EXPECT_NE(value, "extra") << key;
}

TEST_F(TraceTest, OfAnEmptyEventNameStillHasThePrefix) {
  Record("", true);
  EXPECT_EQ(OnlyTrace().event, "LOCAL_");
}

TEST_F(TraceTest, IdsAreFresh16DigitLowercaseHexNumbers) {
  constexpr size_t kRecords = 500;
  for (size_t i = 0; i < kRecords; ++i) Record("E", true);
  std::set<std::string> ids;
  bool leading_zero = false;
  for (const Trace& trace : Traces()) {
    EXPECT_EQ(trace.id.size(), 16U);
    EXPECT_EQ(trace.id.find_first_not_of("0123456789abcdef"), std::string::npos) << trace.id;
    leading_zero |= trace.id[0] == '0';
    ids.insert(trace.id);
  }
  EXPECT_EQ(ids.size(), kRecords);
  EXPECT_TRUE(leading_zero) << "one in sixteen starts with a zero";
}

TEST_F(TraceTest, AsksForTheTracerOncePerRecord) {
  const int before = TracerCalls();
  Record("E", true);
  Record("E", true, "/a.txt");
  EXPECT_EQ(TracerCalls(), before + 2);
}

TEST_F(TraceTest, WithoutADeviceIsDroppedSilently) {
  udisk->TraceCpdDevice("E", nullptr, true, "what happened", "", "");
  EXPECT_TRUE(Traces().empty());
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(TraceTest, WithoutABaseIsDroppedSilently) {
  device.DropBase();
  Record("E", true);
  Record("E", true, "/a.txt");
  EXPECT_TRUE(Traces().empty());
  EXPECT_TRUE(Log().Lines().empty());
}

TEST_F(TraceTest, IsDroppedWhenTheBaseGoesMeanwhile) {
  for (const char* path : {"", "/a.txt"}) {
    device.DropBase(1);
    Record("E", true, path);
    EXPECT_TRUE(Traces().empty());
  }
}

TEST_F(TraceTest, GoesToTheGivenDeviceNotToTheOperators) {
  FakeDevice other;
  udisk->TraceCpdDevice("E", &other, true, "what happened", "", "");
  EXPECT_TRUE(Traces().empty());
  EXPECT_EQ(other.base().Traces().size(), 1U);
}

TEST_F(TraceTest, OfAReadOrWriteComesBeforeItsReply) {
  device.base().SetFilter(std::make_shared<FakeFilter>([](const std::string&) { return true; }));
  size_t traces_at_reply = 0;
  device.OnSend([&](const SentPacket&) { traces_at_reply = Traces().size(); });
  Deliver(ReadRequest{.path = kKnownFile});
  EXPECT_EQ(traces_at_reply, 1U);
  Deliver(WriteRequest{.path = kKnownFile, .data = "data"});
  EXPECT_EQ(traces_at_reply, 2U);
  EXPECT_EQ(Traces().size(), 2U);
}

TEST_F(TraceTest, OfTheOpenedDeviceComesWhenItsDriveIsKnown) {
  std::string drive;
  device.base().OnTrace([&](const Trace&) { drive = udisk->GetDrvName(); });
  Deliver(MountResponse{.drive = "U:"});
  EXPECT_EQ(OnlyTrace().event, "LOCAL_DEVICE_OPEN");
  EXPECT_EQ(drive, "U:");
}

TEST(TraceKeys, AreTheHostsTable) {
  using namespace trace_keys;
  const std::vector<std::string> keys = {kCpdModule,
                                         kCpdVersion,
                                         kEventType,
                                         kEvent,
                                         kErrorCode,
                                         kMessage,
                                         kVid,
                                         kPid,
                                         kVmid,
                                         kProductName,
                                         kDriverName,
                                         kRedirtype,
                                         kTesselPolicy,
                                         kType,
                                         kClass,
                                         kStatus,
                                         kLocalPolicy,
                                         kRemotePolicy,
                                         kAutoconnect,
                                         kTurbousb,
                                         kBiz,
                                         kStep,
                                         kTimeMs,
                                         kStartTs,
                                         kSuccess,
                                         kContext,
                                         kDesktopId,
                                         kImageVersion,
                                         kRedirTypeList,
                                         kDeviceType,
                                         kCredibility,
                                         kFlowLevel,
                                         kFlowName,
                                         kCpdContext,
                                         kProcessId,
                                         kVmContextId,
                                         kPrinterRedirType,
                                         kCpdMounted,
                                         kMounted};
  const std::vector<std::string> expected = {"cpdModule",
                                             "cpdVersion",
                                             "eventType",
                                             "event",
                                             "errorCode",
                                             "message",
                                             "vid",
                                             "pid",
                                             "vmid",
                                             "productName",
                                             "driverName",
                                             "redirtype",
                                             "tesselPolicy",
                                             "type",
                                             "class",
                                             "status",
                                             "localPolicy",
                                             "remotePolicy",
                                             "autoconnect",
                                             "turbousb",
                                             "biz",
                                             "step",
                                             "TimeMs",
                                             "startTs",
                                             "success",
                                             "context",
                                             "desktopId",
                                             "imageVersion",
                                             "redirTypeList",
                                             "deviceType",
                                             "credibility",
                                             "flowLevel",
                                             "flowName",
                                             "cpdContext",
                                             "processId",
                                             "vmContextId",
                                             "printerRedirType",
                                             "cpd.mounted",
                                             "mounted"};
  EXPECT_EQ(keys, expected);
}

}  // namespace
}  // namespace cpd::test
