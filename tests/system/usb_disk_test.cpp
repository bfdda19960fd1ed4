// The service finds and mounts disks with the machine's own programs: it probes through sysfs and
// blkid, and mounts through ntfs-3g.
#include <stdlib.h>
#include <sys/mount.h>
#include <umockdev.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "operator.h"
#include "service.h"
#include "support/fake_host.h"
#include "support/mounted_disk.h"
#include "support/shims.h"

namespace system_test {
namespace {

using cpd::UDiskInfo;
using cpd::UDiskService;

// ---- sysfs ----

/// A mocked machine with a fixed disk, sda, and a removable one, sdb, on USB port 2-1. The programs
/// that this process starts see it, too.
class MockedMachine : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(umockdev_testbed_add_from_string(testbed.get(), kDevices, nullptr));
    std::filesystem::create_directory(root() + "/proc");
    WriteFile(root() + "/proc/partitions",
              "major minor  #blocks  name\n\n"
              "   8        0  500107608 sda\n"
              "   8        1  500106543 sda1\n"
              "   8       16   15728640 sdb\n"
              "   8       17   15727616 sdb1\n");
    setenv("LD_PRELOAD", "libumockdev-preload.so.0", 1);
  }
  void TearDown() override { unsetenv("LD_PRELOAD"); }

  std::string root() const {
    const std::unique_ptr<char, decltype(&g_free)> path(
        umockdev_testbed_get_root_dir(testbed.get()), g_free);
    return path.get();
  }

  static constexpr const char* kDevices = R"(P: /devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0
E: SUBSYSTEM=usb
E: DEVTYPE=usb_interface
A: bInterfaceClass=08\n

P: /devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb
E: SUBSYSTEM=block
E: DEVTYPE=disk
A: removable=1\n

P: /devices/pci0000:00/0000:00:17.0/ata1/host0/target0:0:0/0:0:0:0/block/sda
E: SUBSYSTEM=block
E: DEVTYPE=disk
A: removable=0\n
)";

  const std::unique_ptr<UMockdevTestbed, decltype(&g_object_unref)> testbed{umockdev_testbed_new(),
                                                                            g_object_unref};
};

TEST_F(MockedMachine, TheInterfaceClassOfAPortIsRead) {
  EXPECT_EQ(UDiskService::GetDeviceClass("2-1"), 8);
  EXPECT_EQ(UDiskService::GetDeviceClass("2-2"), 0);
}

TEST_F(MockedMachine, OnlyTheUsbDiskIsRemovable) {
  EXPECT_EQ(UDiskService::CheckRemovable("sda"), 0);
  EXPECT_EQ(UDiskService::CheckRemovable("sdb"), 1);
  EXPECT_EQ(UDiskService::CheckRemovable("sdc"), 0);
}

TEST_F(MockedMachine, TheRemovableDiskIsFound) {
  std::array<char, 4> name{};
  UDiskService::GetDevName(name.data());
  EXPECT_STREQ(name.data(), "sdb");
}

/// What `cpd-host disks` prints if blkid prints the given output.
std::string Disks(const std::string& blkid, const std::string& option = "") {
  cpd::test::Shims shims;
  shims.AddPrinting("blkid", blkid);
  // The mocking library is preloaded before the sanitizer, which otherwise refuses to start.
  const Result result =
      Shell("ASAN_OPTIONS=verify_asan_link_order=0 " + std::string(CPD_HOST) + " disks " + option);
  EXPECT_EQ(result.status, 0) << result.output;
  return result.output;
}

constexpr const char* kNoDisk =
    "disk     removable class partition    label                            type\n";
constexpr const char* kBlkid =
    "/dev/sda1: LABEL=\"fixed\" TYPE=\"ext4\"\n"
    "/dev/sdb1: LABEL=\"DATA\" UUID=\"1234\" TYPE=\"ntfs\"\n"
    "/dev/sdb2: UUID=\"56-78\" TYPE=\"vfat\"\n";

TEST_F(MockedMachine, TheHostListsTheUsbDiskAndItsPartitions) {
  EXPECT_EQ(Disks(kBlkid),
            std::string(kNoDisk) +
                "sdb      yes           8 /dev/sdb1    DATA                             ntfs\n"
                "sdb      yes           8 /dev/sdb2    56-78                            vfat\n");
}

TEST_F(MockedMachine, TheHostListsTheSameAsJson) {
  EXPECT_EQ(Disks(kBlkid, "--json"),
            R"([{"disk":"sdb","removable":true,"interfaceClass":8,"partitions":[)"
            R"({"device":"/dev/sdb1","label":"DATA","type":"ntfs"},)"
            R"({"device":"/dev/sdb2","label":"56-78","type":"vfat"}]}])"
            "\n");
}

TEST_F(MockedMachine, TheHostListsADiskWithoutPartitions) {
  EXPECT_EQ(Disks(""),
            std::string(kNoDisk) +
                "sdb      yes           8 -            -                                -\n");
}

TEST_F(MockedMachine, TheHostListsNothingOnceTheUsbDiskIsGone) {
  umockdev_testbed_remove_device(
      testbed.get(),
      "/sys/devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/target6:0:0/6:0:0:0/block/sdb");
  EXPECT_EQ(Disks(kBlkid), kNoDisk);
  EXPECT_EQ(Disks(kBlkid, "--json"), "[]\n");
}

// ---- A real NTFS disk ----

/// An NTFS file system on a loop device, which is detached on destruction.
class NtfsDevice {
 public:
  explicit NtfsDevice(const std::string& label) {
    if (geteuid() != 0) {
      problem_ = "a loop device needs root";
      return;
    }
    const Result made = Shell("truncate -s 80M " + image() + " && mkntfs -qF -L " + Quoted(label) +
                              " " + image() + " && losetup -f --show " + image());
    if (made.status != 0) {
      problem_ = "no NTFS on a loop device here: " + made.output;
      return;
    }
    path_ = made.output.substr(made.output.find("/dev/"));
    path_.erase(path_.find('\n'));
  }
  ~NtfsDevice() {
    if (!path_.empty()) Shell("losetup -d " + path_);
  }
  NtfsDevice(const NtfsDevice&) = delete;
  NtfsDevice& operator=(const NtfsDevice&) = delete;

  /// Why the device could not be made; empty if it was.
  const std::string& problem() const { return problem_; }
  const std::string& path() const { return path_; }
  std::string image() const { return place_ / "image"; }
  /// Detaches the loop device once nothing uses it. @return whether it is free
  bool Detach() {
    Shell("losetup -d " + path_);
    path_.clear();
    return Eventually([&] { return Shell("losetup -j " + image()).output.empty(); });
  }

 private:
  TempDir place_;
  std::string path_;
  std::string problem_;
};

class NtfsDiskTest : public testing::Test {
 protected:
  /// Attaches the device; skips the test if attaching or mounting is not allowed.
  void Attach(const std::string& label) {
    if (!WhyNoFuse().empty()) GTEST_SKIP() << WhyNoFuse();
    if (access("/media", W_OK) != 0) GTEST_SKIP() << "/media cannot be written";
    for (const char* program : {"blkid", "losetup", "mkntfs", "ntfs-3g", "ntfscat"}) {
      if (Shell(std::string("command -v ") + program).status != 0) {
        GTEST_SKIP() << program << " is not installed";
      }
    }
    disk.emplace(label);
    // Use a blkid cache of our own: the machine's may describe an earlier use of the loop device.
    setenv("BLKID_FILE", (disk->image() + ".blkid").c_str(), 1);
    if (!disk->problem().empty()) GTEST_SKIP() << disk->problem();
  }
  void TearDown() override {
    unsetenv("BLKID_FILE");
    service.UmountLocal();
    EXPECT_TRUE(!disk || disk->Detach()) << "the loop device is still in use";
  }

  /// Probes the device into the service's list. @return its record, or null when blkid shows none
  UDiskInfo* Probe() {
    service.mUdiskDevice = static_cast<cpd::UdiskDevice*>(calloc(1, sizeof(cpd::UdiskDevice)));
    // The service takes the last character of a device's name for the partition number.
    const std::string partition = disk->path() + "1";
    EXPECT_EQ(UDiskService::GetDeviceLabel(partition.c_str(), service.mUdiskDevice), 0);
    for (int i = 0; i < service.mUdiskDevice->count; ++i) {
      UDiskInfo* const info = &service.mUdiskDevice->infos[i];
      if (info->devName == disk->path()) return info;
    }
    return nullptr;
  }

  std::optional<NtfsDevice> disk;
  cpd::test::FakeDevice device;
  cpd::UDiskOperator udisk{&device};
  UDiskService service{&device, &udisk};
};

/// The checksum of what a command prints.
std::string Checksum(const std::string& command) { return Shell(command + " | sha256sum").output; }

TEST_F(NtfsDiskTest, FiftyMegabytesAreWrittenToTheDiskAndReadBack) {
  const std::string label = "UDISK" + std::to_string(getpid());
  Attach(label);
  if (IsSkipped()) return;
  UDiskInfo* const info = Probe();
  ASSERT_NE(info, nullptr);
  EXPECT_EQ(info->label, label);
  EXPECT_STREQ(info->type, "ntfs");

  ASSERT_EQ(UDiskService::MountLocal(info), 0);
  const std::string directory = "/media/" + label;
  EXPECT_EQ(info->mountPoint, directory);
  ASSERT_TRUE(IsMounted(directory));
  const TempDir place;
  WriteFile(place / "original", Bytes(50 << 20));
  const std::string original = Checksum("cat " + (place / "original"));
  ASSERT_EQ(Shell("cp " + (place / "original") + " " + directory + "/copy").status, 0);
  EXPECT_EQ(Checksum("cat " + directory + "/copy"), original);

  EXPECT_EQ(service.UmountLocal(), 0);
  EXPECT_FALSE(IsMounted(directory));
  EXPECT_FALSE(std::filesystem::exists(directory));
  ASSERT_TRUE(disk->Detach());
  EXPECT_EQ(Checksum("ntfscat " + disk->image() + " copy"), original);
}

TEST_F(NtfsDiskTest, TheHostMountsRedirectsAndUnmountsIt) {
  const std::string label = "HOST" + std::to_string(getpid());
  Attach(label);
  if (IsSkipped()) return;
  const std::string directory = "/media/" + label;
  const TempDir place;
  std::filesystem::create_directory(place / "mount");
  WriteFile(place / "original", Bytes(50 << 20));
  const std::string original = Checksum("cat " + (place / "original"));
  Process host({CPD_HOST, "mount", "--device", disk->path(), place / "mount"}, place / "out",
               place / "err");
  ASSERT_TRUE(Eventually([&] { return IsMounted(place / "mount"); })) << ReadFile(place / "err");
  EXPECT_TRUE(IsMounted(directory));

  ASSERT_EQ(Shell("cp " + (place / "original") + " " + (place / "mount/copy")).status, 0);
  EXPECT_EQ(Checksum("cat " + (place / "mount/copy")), original);
  host.Signal(SIGTERM);
  EXPECT_EQ(host.Wait(), 0) << ReadFile(place / "err");

  EXPECT_FALSE(IsMounted(directory));
  EXPECT_FALSE(std::filesystem::exists(directory));
  ASSERT_TRUE(disk->Detach());
  EXPECT_EQ(Checksum("ntfscat " + disk->image() + " copy"), original);
}

TEST_F(NtfsDiskTest, TheHostLeavesADirectoryWithFilesInItAlone) {
  const std::string label = "USED" + std::to_string(getpid());
  Attach(label);
  if (IsSkipped()) return;
  const std::string directory = "/media/" + label;
  std::filesystem::create_directory(directory);
  WriteFile(directory + "/mine", "kept");
  const TempDir place;
  const Result result =
      Shell(std::string(CPD_HOST) + " mount --device " + disk->path() + " " + place.path());
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "cpd-host: " + directory + " is in use\n");
  EXPECT_EQ(ReadFile(directory + "/mine"), "kept");
  std::filesystem::remove_all(directory);
}

TEST_F(NtfsDiskTest, ALabelFullOfShellCharactersNamesADirectoryAndRunsNothing) {
  const TempDir place;
  const std::filesystem::path before = std::filesystem::current_path();
  const std::string label = "$(touch bait);'\"";
  Attach(label);
  if (IsSkipped()) return;
  std::filesystem::current_path(place.path());
  UDiskInfo* const info = Probe();
  EXPECT_NE(info, nullptr);
  if (info != nullptr) {
    EXPECT_STREQ(info->label, "$(touch");  // blkid's output is split at blanks
    info->label[label.copy(info->label, sizeof info->label - 1)] = '\0';
    EXPECT_EQ(UDiskService::MountLocal(info), 0);
    EXPECT_EQ(info->mountPoint, "/media/" + label);
    EXPECT_TRUE(std::filesystem::is_directory("/media/" + label));
    EXPECT_EQ(service.UmountLocal(), 0);
    EXPECT_FALSE(std::filesystem::exists("/media/" + label));
  }
  std::filesystem::current_path(before);
  EXPECT_FALSE(std::filesystem::exists(place / "bait"));
}

TEST(DeviceMount, WithoutRootFailsWithOneLine) {
  if (geteuid() == 0 &&
      Shell("setpriv --reuid=65534 --clear-groups test -x " CPD_HOST).status != 0) {
    GTEST_SKIP() << "the user nobody cannot run the host program here";
  }
  const std::string as_nobody = geteuid() == 0 ? "setpriv --reuid=65534 --clear-groups " : "";
  const Result result = Shell(as_nobody + CPD_HOST + " mount --device sdb1 /mnt");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "cpd-host: mounting /dev/sdb1 needs root\n");
}

TEST(DeviceMount, OfAMissingPartitionFailsWithOneLine) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting needs root";
  const Result result = Shell(std::string(CPD_HOST) + " mount --device nothing1 /mnt");
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.output, "cpd-host: /dev/nothing1 is not a partition with a label or UUID\n");
}

// ---- A host that is stopped, or whose commands fail ----

/// A fake partition: a fake blkid shows it, and fake commands mount a directory in its place.
class StagedDevice : public testing::Test {
 protected:
  void SetUp() override {
    if (!WhyNoFuse().empty()) GTEST_SKIP() << WhyNoFuse();
    if (geteuid() != 0) GTEST_SKIP() << "mounting needs root";
    if (access("/media", W_OK) != 0) GTEST_SKIP() << "/media cannot be written";
    for (const char* name : {"bin", "disk", "mnt"}) std::filesystem::create_directory(place / name);
    WriteFile(place / "disk/file", "kept");
    AddCommand("blkid", R"(echo '/dev/staged1: LABEL=")" + label + R"(" TYPE="vfat"')");
  }
  void TearDown() override {
    umount2((place / "mnt").c_str(), MNT_DETACH);
    umount2(directory.c_str(), MNT_DETACH);
    std::filesystem::remove(directory);
  }

  void AddCommand(const std::string& name, const std::string& script) const {
    WriteFile(place / "bin/" + name, "#!/bin/sh\n" + script + "\n");
    std::filesystem::permissions(place / "bin/" + name, std::filesystem::perms::owner_all);
  }
  Process StartHost() const {
    return Process({CPD_HOST, "mount", "--device", "staged1", place / "mnt"}, place / "out",
                   place / "err", {{"PATH", (place / "bin:") + getenv("PATH")}});
  }

  const std::string label = "STAGED" + std::to_string(getpid());
  const std::string directory = "/media/" + label;
  const TempDir place;
  const std::string bind = "/bin/mount --bind " + (place / "disk") + " \"$2\"";
};

TEST_F(StagedDevice, IsUnmountedByAHostThatIsStoppedWhileItMountsIt) {
  AddCommand("mount", "touch " + (place / "mounting") + "; while [ ! -e " + (place / "go") +
                          " ]; do sleep 0.02; done; " + bind);
  auto host = StartHost();
  ASSERT_TRUE(Eventually([&] { return std::filesystem::exists(place / "mounting"); }));
  host.Signal(SIGTERM);
  std::this_thread::sleep_for(100ms);
  WriteFile(place / "go", "");
  EXPECT_EQ(host.Wait(), 0) << ReadFile(place / "err");
  EXPECT_FALSE(IsMounted(directory));
  EXPECT_FALSE(std::filesystem::exists(directory));
  EXPECT_EQ(ReadFile(place / "disk/file"), "kept");
}

TEST_F(StagedDevice, LeavesNothingWhenItCannotBeMounted) {
  AddCommand("mount", "exit 32");
  auto host = StartHost();
  EXPECT_EQ(host.Wait(), 1);
  EXPECT_TRUE(
      ReadFile(place / "err")
          .ends_with("cpd-host: cannot mount /dev/staged1 on " + directory + ": status 32\n"))
      << ReadFile(place / "err");
  EXPECT_FALSE(std::filesystem::exists(directory));
}

TEST_F(StagedDevice, IsLeftAloneWithWhatSomebodyHasMountedOverIt) {
  std::filesystem::create_directory(place / "other");
  WriteFile(place / "other/file", "mine");
  AddCommand("mount", bind);
  auto host = StartHost();
  ASSERT_TRUE(Eventually([&] { return IsMounted(place / "mnt"); })) << ReadFile(place / "err");
  ASSERT_EQ(mount((place / "other").c_str(), directory.c_str(), nullptr, MS_BIND, nullptr), 0);
  host.Signal(SIGTERM);
  EXPECT_EQ(host.Wait(), 0);
  EXPECT_NE(ReadFile(place / "err").find("leaving " + directory + " alone"), std::string::npos)
      << ReadFile(place / "err");
  EXPECT_EQ(ReadFile(directory + "/file"), "mine");
  EXPECT_EQ(umount2(directory.c_str(), MNT_DETACH), 0);
  EXPECT_EQ(ReadFile(directory + "/file"), "kept");
}

TEST_F(StagedDevice, KeepsItsFilesWhenTheCommandThatUnmountsItFails) {
  AddCommand("mount", bind);
  AddCommand("umount", "exit 1");
  auto host = StartHost();
  EXPECT_TRUE(Eventually([&] { return IsMounted(place / "mnt"); })) << ReadFile(place / "err");
  EXPECT_EQ(ReadFile(place / "mnt/file"), "kept");
  host.Signal(SIGTERM);
  EXPECT_EQ(host.Wait(), 0) << ReadFile(place / "err");
  EXPECT_FALSE(std::filesystem::exists(directory));
  EXPECT_EQ(ReadFile(place / "disk/file"), "kept");
}

}  // namespace
}  // namespace system_test
