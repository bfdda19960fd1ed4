// The module as a host uses it: loaded, found by its symbol, and called only through virtual
// operations.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "cpd/driver.h"
#include "cpd/driver_obj.h"
#include "support/fake_host.h"
#include "support/requests.h"
#include "support/temp_disk.h"

namespace cpd::test {
namespace {

class ModuleTest : public ::testing::Test {
 protected:
  void SetUp() override {
    library = dlopen(UDISK_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    module = static_cast<const CpdDriverModule*>(dlsym(library, "CPD_DRV_MODULE"));
    ASSERT_NE(module, nullptr) << dlerror();
    disk.MakeFile(kKnownFile, "known content");
    device.base().SetParams(DeviceParams(disk.root()));
    Log().Clear();
  }
  void TearDown() override {
    if (driver) driver->Close(0);
    driver.reset();
    if (library != nullptr) dlclose(library);
  }
  void Open() {
    driver.reset(module->open(&device, "policy"));
    ASSERT_NE(driver, nullptr);
    ASSERT_TRUE(device.WaitForPackets(2));
  }

  DescriptorCheck descriptors;
  TempDisk disk;
  FakeDevice device;
  void* library = nullptr;
  const CpdDriverModule* module = nullptr;
  std::unique_ptr<CpdDriver> driver;
};

TEST_F(ModuleTest, DescriptorByteForByte) {
  std::array<unsigned char, 32> bytes;
  std::memcpy(bytes.data(), module, bytes.size());

  void* open = nullptr;
  std::memcpy(&open, &bytes[0], sizeof open);
  Dl_info where = {};
  ASSERT_NE(dladdr(open, &where), 0);
  EXPECT_STREQ(where.dli_fname, UDISK_MODULE) << "the open function is the module's own";

  EXPECT_EQ(std::string(&bytes[8], &bytes[16]), std::string(8, '\0'));
  EXPECT_EQ(std::string(&bytes[16], &bytes[24]),
            std::string("\x02\x00\xff\xff\xff\xff\x00\x00", 8));

  const char* name = nullptr;
  std::memcpy(&name, &bytes[24], sizeof name);
  EXPECT_STREQ(name, "udisk-redir");
}

TEST_F(ModuleTest, ExportsTheDescriptorAndNothingElse) {
  const std::unique_ptr<FILE, int (*)(FILE*)> nm(
      popen(NM " -D --defined-only --format=just-symbols '" UDISK_MODULE "'", "r"), pclose);
  ASSERT_NE(nm, nullptr);
  std::string symbols;
  for (int c = fgetc(nm.get()); c != EOF; c = fgetc(nm.get())) symbols += static_cast<char>(c);
  EXPECT_EQ(symbols, "CPD_DRV_MODULE\n");
}

TEST_F(ModuleTest, AnnouncesItsDiskThenServesRequestsUntilItIsClosed) {
  Open();
  std::vector<SentPacket> sent = device.TakeSent();
  EXPECT_EQ(sent[0].cmd, 122);
  EXPECT_EQ(sent[0].request_id, 6666U);
  EXPECT_EQ(sent[1].cmd, 100);
  EXPECT_EQ(sent[1].request_id, 1234U);
  EXPECT_EQ(sent[1].payload, std::string("\x05\0Stick\0\0", 9));

  EXPECT_EQ(driver->onEvent(Request(MountResponse{.drive = "U:"}).Packet(), 0), 0);
  EXPECT_EQ(driver->onEvent(Request(ReadRequest{.path = kKnownFile, .offset = 6}).Packet(), 0), 0);
  ASSERT_TRUE(device.WaitForPackets(1));
  sent = device.TakeSent();
  EXPECT_EQ(sent[0].cmd, 105);
  EXPECT_EQ(ReadReply::Decode(sent[0]).data, "content");

  EXPECT_EQ(driver->Close(0), 0);
  EXPECT_EQ(driver->onEvent(Request(ReadRequest{.path = kKnownFile}).Packet(), 0), 0);
  EXPECT_TRUE(device.Sent().empty());

  std::vector<std::string> events;
  for (const Trace& trace : device.base().Traces()) events.push_back(trace.event);
  EXPECT_EQ(events, (std::vector<std::string>{"LOCAL_UDISK_DRIVER_OPEN", "LOCAL_DEVICE_OPEN",
                                              "LOCAL_UDISK_DRIVER_CLOSE"}));
}

TEST_F(ModuleTest, LogsAndTracesThroughTheProgramThatLoadedIt) {
  const int tracer_calls = TracerCalls();
  Open();
  EXPECT_EQ(Log().Messages().at(0), R"(client udisk open\n)");
  EXPECT_EQ(TracerCalls(), tracer_calls + 1);
}

TEST_F(ModuleTest, DescribesItsDisk) {
  Open();
  const auto object = std::dynamic_pointer_cast<UdiskOperatorInf>(driver->GetDriverObj());
  ASSERT_NE(object, nullptr);
  EXPECT_EQ(object->GetLocalMountPoint(), disk.root());
  EXPECT_EQ(object->GetDeviceId(), kDeviceId);
  EXPECT_EQ(object->mVmId, 0);
}

/// The operation at a slot of an object's virtual table, as a host built long ago calls it.
template <class Operation>
Operation* AtSlot(const void* object, size_t slot) {
  void* const* table = nullptr;
  std::memcpy(&table, object, sizeof table);
  return reinterpret_cast<Operation*>(table[slot]);
}

TEST_F(ModuleTest, DriverOperationsAreInTheirSlots) {
  Open();
  device.TakeSent();
  CpdDriver* object = driver.get();
  auto request = Request(AttrRequest{.path = kKnownFile}).Packet();
  EXPECT_EQ(
      AtSlot<int(CpdDriver*, std::unique_ptr<CpdPacket>*, int)>(object, 2)(object, &request, 0), 0);
  EXPECT_TRUE(device.WaitForPackets(1));
  EXPECT_EQ(AtSlot<int(CpdDriver*)>(object, 3)(object), 0);
  std::shared_ptr<CpdPacket> event =
      Request{.cmd = kBusReadBandwidth, .payload = BytesOf(uint32_t{5000})}.Packet();
  EXPECT_EQ(AtSlot<int(CpdDriver*, std::shared_ptr<CpdPacket>*)>(object, 4)(object, &event), 0);
  EXPECT_EQ(device.base().Traces("LOCAL_UDISK_READ_BW_INFO").size(), 1U);
  const std::string policy = "policy";
  EXPECT_EQ(AtSlot<int(CpdDriver*, const std::string*)>(object, 5)(object, &policy), 0);
  uint16_t status = 0;
  EXPECT_EQ(AtSlot<int(CpdDriver*, void*, uint16_t*)>(object, 6)(object, nullptr, &status), -1);
  EXPECT_EQ(status, 0x1506);
  EXPECT_EQ(AtSlot<std::string(CpdDriver*)>(object, 8)(object), "RawDrv");
  EXPECT_NE(AtSlot<std::shared_ptr<DriverObj>(CpdDriver*)>(object, 9)(object), nullptr);
  EXPECT_EQ(AtSlot<int(CpdDriver*, signed char)>(object, 7)(object, 0), 0);
  EXPECT_EQ(device.base().Traces("LOCAL_UDISK_DRIVER_CLOSE").size(), 1U);
}

TEST_F(ModuleTest, OperatorOperationsAreInTheirSlots) {
  Open();
  EXPECT_EQ(driver->onEvent(Request(MountResponse{.drive = "U:"}).Packet(), 0), 0);
  EXPECT_EQ(driver->onEvent(Request(AttrRequest{.path = kKnownFile}).Packet(), 0), 0);
  ASSERT_TRUE(device.WaitForPackets(3));  // the first request has been served, too
  const std::shared_ptr<DriverObj> holder = driver->GetDriverObj();
  DriverObj* object = holder.get();
  EXPECT_EQ(AtSlot<int(DriverObj*)>(object, 2)(object), 0);
  EXPECT_EQ(AtSlot<int(DriverObj*)>(object, 3)(object), 0);
  EXPECT_EQ(AtSlot<int(DriverObj*)>(object, 4)(object), 0);
  EXPECT_EQ(AtSlot<std::string(DriverObj*)>(object, 5)(object), "U:");
  EXPECT_EQ(AtSlot<int(DriverObj*)>(object, 6)(object), kDeviceId);
  AtSlot<void(DriverObj*)>(object, 7)(object);
  EXPECT_EQ(AtSlot<std::string(DriverObj*)>(object, 8)(object), "U:");
  EXPECT_EQ(AtSlot<std::string(DriverObj*)>(object, 9)(object), disk.root());
}

TEST_F(ModuleTest, CanBeLoadedUsedAndUnloadedRepeatedly) {
  for (int i = 0; i < 5; ++i) {
    Open();
    driver->Close(0);
    driver.reset();
    device.TakeSent();
    dlclose(library);
    library = dlopen(UDISK_MODULE, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(library, nullptr) << dlerror();
    module = static_cast<const CpdDriverModule*>(dlsym(library, "CPD_DRV_MODULE"));
    ASSERT_NE(module, nullptr) << dlerror();
  }
}

}  // namespace
}  // namespace cpd::test
