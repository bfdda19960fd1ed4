// `redirect --usb` on a mocked machine whose USB disks come and go. The other machine is this one:
// the program for --rsh runs the command here.
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <umockdev.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

/// How soon a disk is redirected, or its pull noticed. A new disk gets time to settle, and a change
/// without an event is noticed only after a while.
constexpr auto kSoon = 8s;
/// Both ends clean up within this time.
constexpr auto kFewSeconds = 5s;

class UsbRedirect : public testing::Test {
 protected:
  void SetUp() override {
    if (!WhyNoFuse().empty()) GTEST_SKIP() << WhyNoFuse();
    if (geteuid() != 0) GTEST_SKIP() << "mounting disks needs root";
    if (access("/media", W_OK) != 0) GTEST_SKIP() << "/media cannot be written";
    for (const char* name : {"bin", "disks", "far"}) fs::create_directory(place / name);
    AddProgram("blkid", "exec cat " + (place / "blkid"));
    // In place of a disk, the directory named after its device is mounted.
    AddProgram("mount", "exec /bin/mount --bind " + (place / "disks") + "/${1#/dev/} \"$2\"");
    MakeRsh("exec env -u LD_PRELOAD sh -c \"$last\"");
    WriteFile(place / "blkid", "");
    ASSERT_TRUE(umockdev_testbed_add_from_string(testbed.get(), kUsb, nullptr));
  }
  void TearDown() override {
    if (host) {
      host->Signal(SIGTERM);
      EXPECT_EQ(host->Wait(kFewSeconds), 0) << Said();
    }
    if (!loop_device.empty()) Shell("losetup -d " + loop_device);
    for (const auto& label : labels) {
      EXPECT_FALSE(IsMounted("/media/" + label));
      EXPECT_FALSE(IsMounted(Far(label)));
      for (const auto& directory : {"/media/" + label, Far(label)}) {
        umount2(directory.c_str(), MNT_DETACH);
      }
      EXPECT_FALSE(fs::exists("/media/" + label));
      fs::remove("/media/" + label);
    }
    EXPECT_TRUE(Eventually([&] { return OwnProcesses().empty(); }, kFewSeconds)) << OwnProcesses();
  }

  void AddProgram(const std::string& name, const std::string& script) const {
    WriteFile(place / "bin/" + name, "#!/bin/sh\n" + script + "\n");
    fs::permissions(place / "bin/" + name, fs::perms::owner_all);
  }

  /// @param script  starts the command, which is in $last
  void MakeRsh(const std::string& script) const {
    WriteFile(place / "rsh", "#!/bin/sh\nfor last; do :; done\n" + script + "\n");
    fs::permissions(place / "rsh", fs::perms::owner_all);
  }
  /// From now on, the line does what Order says (see cut_line.cpp). While the file "down" exists,
  /// no new line gets through.
  void MakeLineBad() const {
    // A cut kills only the shell, which starts the far side's program and does not become it. So
    // the far side outlives its line, as it does on another machine.
    MakeRsh("while test -e " + (place / "down") + "; do sleep 0.1; done\n" +
            "exec env -u LD_PRELOAD " CUT_LINE " --control " + (place / "order") +
            " -- sh -c \"$last; exit \\$?\"");
  }
  /// Tells the line to do this: at once, or when the next reply to a request with that code comes
  /// by.
  void Order(const std::string& word, int request = 0) const {
    WriteFile(place / "order.new", word + " " + std::to_string(request));
    fs::rename(place / "order.new", place / "order");
  }
  /// How often the line has done what it was told to.
  size_t Done() const {
    const auto done = ReadFile(place / "order.done");
    return static_cast<size_t>(std::ranges::count(done, '\n'));
  }

  /// A label of this process's own, since /media is the machine's.
  std::string Label(const std::string& name) {
    labels.push_back(name + std::to_string(getpid()));
    return labels.back();
  }
  std::string Far(const std::string& label) const { return place / "far/" + label; }

  /// Plugs in a USB disk with one partition, with the event of udev.
  void Plug(const std::string& disk, const std::string& label, const std::string& uuid = "12-34") {
    fs::create_directory(place / "disks/" + disk + "1");
    WriteFile(place / "disks/" + disk + "1/file", "on " + label);
    partitions[disk] =
        "/dev/" + disk + "1: LABEL=\"" + label + "\" UUID=\"" + uuid + "\" TYPE=\"vfat\"\n";
    AddDevice(disk);
  }
  void AddDevice(const std::string& disk) {
    ShowPartitions();
    const auto description =
        "P: " + DevicePath(disk) + "\nE: SUBSYSTEM=block\nE: DEVTYPE=disk\nA: removable=1\\n\n";
    ASSERT_TRUE(umockdev_testbed_add_from_string(testbed.get(), description.c_str(), nullptr));
    umockdev_testbed_uevent(testbed.get(), ("/sys" + DevicePath(disk)).c_str(), "add");
  }
  /// Pulls the disk out, with or without an event.
  void Pull(const std::string& disk, bool with_event = true) {
    partitions.erase(disk);
    ShowPartitions();
    const auto path = "/sys" + DevicePath(disk);
    if (with_event) umockdev_testbed_uevent(testbed.get(), path.c_str(), "remove");
    umockdev_testbed_remove_device(testbed.get(), path.c_str());
    fs::remove(Root() + "/sys/block/" + disk);  // umockdev leaves it
  }

  void Start(const std::vector<std::string>& options = {}) {
    std::vector<std::string> argv{
        CPD_HOST,      "redirect",         "--usb", "elsewhere:" + (place / "far"), "--rsh",
        place / "rsh", "--remote-program", CPD_HOST};
    argv.insert(argv.end(), options.begin(), options.end());
    host.emplace(argv, place / "out", place / "err",
                 std::map<std::string, std::string>{{"PATH", (place / "bin:") + getenv("PATH")},
                                                    {"LD_PRELOAD", "libumockdev-preload.so.0"},
                                                    {"ASAN_OPTIONS", "verify_asan_link_order=0"}});
  }

  /// Waits until the far side shows the disk's file.
  bool Comes(const std::string& label) {
    return Eventually([&] { return ReadFile(Far(label) + "/file") == "on " + label; }, kSoon);
  }
  bool IsGone(const std::string& label) const {
    return !IsMounted(Far(label)) && !IsMounted("/media/" + label) &&
           !fs::exists("/media/" + label);
  }
  bool Goes(const std::string& label) {
    return Eventually([&] { return IsGone(label); }, kSoon);
  }
  std::string Said() const { return ReadFile(place / "out") + ReadFile(place / "err"); }
  size_t TimesSaid(const std::string& text) const {
    const auto said = Said();
    size_t count = 0;
    for (size_t at = 0; (at = said.find(text, at)) != std::string::npos; ++at) ++count;
    return count;
  }

  /// The links that udev makes.
  void MakeUuidLinks(const std::map<std::string, std::string>& partition_by_uuid) const {
    const auto directory = Root() + "/dev/disk/by-uuid";
    fs::create_directories(directory);
    for (const auto& [uuid, partition] : partition_by_uuid) {
      WriteFile(Root() + "/dev/" + partition, "");
      fs::create_symlink("../../" + partition, directory + "/" + uuid);
    }
  }

  /// The command lines of the processes of this test's host and its far sides.
  std::string OwnProcesses() const {
    std::string found;
    for (const auto process : OwnProcessNumbers()) {
      found += ReadFile("/proc/" + std::to_string(process) + "/cmdline") + "\n";
    }
    return found;
  }
  std::vector<pid_t> OwnProcessNumbers() const {
    std::vector<pid_t> found;
    for (const auto& entry : fs::directory_iterator("/proc")) {
      const auto line = ReadFile(entry.path() / "cmdline");
      if (line.find(place.path()) == std::string::npos) continue;
      found.push_back(std::stoi(entry.path().filename()));
    }
    return found;
  }

  const TempDir place;
  std::vector<std::string> labels;
  std::string loop_device;
  std::map<std::string, std::string> partitions;  // what blkid prints, by disk
  const std::unique_ptr<UMockdevTestbed, decltype(&g_object_unref)> testbed{umockdev_testbed_new(),
                                                                            g_object_unref};
  std::optional<Process> host;

 private:
  static constexpr const char* kUsb = R"(P: /devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0
E: SUBSYSTEM=usb
E: DEVTYPE=usb_interface
A: bInterfaceClass=08\n
)";
  static std::string DevicePath(const std::string& disk) {
    return "/devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1:1.0/host6/target6:0:0/6:0:0:0/block/" +
           disk;
  }
  std::string Root() const {
    const std::unique_ptr<char, decltype(&g_free)> path(
        umockdev_testbed_get_root_dir(testbed.get()), g_free);
    return path.get();
  }
  void ShowPartitions() const {
    std::string all;
    for (const auto& [disk, line] : partitions) all += line;
    // In one step, since the host may be reading.
    WriteFile(place / "blkid.new", all);
    fs::rename(place / "blkid.new", place / "blkid");
  }
};

TEST_F(UsbRedirect, RedirectsADiskThatIsThereAtTheStart) {
  const auto label = Label("HERE");
  Plug("sdb", label);
  Start();
  EXPECT_TRUE(Comes(label)) << Said();
  EXPECT_TRUE(IsMounted("/media/" + label));
  WriteFile(Far(label) + "/written", "far away");
  EXPECT_EQ(ReadFile(place / "disks/sdb1/written"), "far away");
  EXPECT_EQ(ReadFile(place / "out"),
            "/dev/sdb1 " + label + ": redirecting to elsewhere:" + Far(label) + "\n");
}

TEST_F(UsbRedirect, RedirectsADiskWhenItIsPluggedInAndTakesItDownWhenItIsPulled) {
  const auto label = Label("LATE");
  Start();
  std::this_thread::sleep_for(500ms);
  Plug("sdb", label);
  EXPECT_TRUE(Comes(label)) << Said();
  Pull("sdb");
  EXPECT_TRUE(Goes(label)) << Said();
  EXPECT_TRUE(Eventually([&] { return OwnProcesses().find("attach") == std::string::npos; }, kSoon))
      << OwnProcesses();
  EXPECT_EQ(TimesSaid(label + ": gone\n"), 1U) << Said();
  // It comes back, and another one with it.
  const auto other = Label("SECOND");
  fs::remove_all(place / "disks/sdb1");
  Plug("sdb", label);
  Plug("sdc", other);
  EXPECT_TRUE(Comes(label)) << Said();
  EXPECT_TRUE(Comes(other)) << Said();
}

TEST_F(UsbRedirect, NoticesAPulledDiskWithoutAnEvent) {
  const auto label = Label("QUIET");
  Plug("sdb", label);
  Start();
  ASSERT_TRUE(Comes(label)) << Said();
  Pull("sdb", false);
  EXPECT_TRUE(Goes(label)) << Said();
}

TEST_F(UsbRedirect, TakesADiskDownWhileAFarProgramHasAFileOpen) {
  const auto label = Label("BUSY");
  Plug("sdb", label);
  Start();
  ASSERT_TRUE(Comes(label)) << Said();
  std::ofstream open_file(Far(label) + "/open");
  open_file << "half" << std::flush;
  Pull("sdb");
  EXPECT_TRUE(Goes(label)) << Said();
}

TEST_F(UsbRedirect, LeavesNoDirectoryOfADiskThatIsUnmountedBeforeItIsPulled) {
  const auto label = Label("CAREFUL");
  Plug("sdb", label);
  Start();
  ASSERT_TRUE(Comes(label)) << Said();
  // The module lets go of a disk that nobody uses.
  EXPECT_TRUE(Eventually([&] { return Shell("umount /media/" + label).status == 0; }, kSoon));
  Pull("sdb");
  EXPECT_TRUE(Goes(label)) << Said();
  EXPECT_EQ(TimesSaid("leaving"), 0U) << Said();
}

TEST_F(UsbRedirect, MatchesALabel) {
  const auto wanted = Label("WANTED");
  const auto other = Label("OTHER");
  Plug("sdb", other);
  Plug("sdc", wanted);
  Start({"--match", wanted});
  EXPECT_TRUE(Comes(wanted)) << Said();
  EXPECT_EQ(TimesSaid(other), 0U) << Said();
  EXPECT_FALSE(fs::exists("/media/" + other));
}

TEST_F(UsbRedirect, MatchesAUuid) {
  const auto wanted = Label("WANTED");
  const auto other = Label("OTHER");
  Plug("sdb", other, "AB-CD");
  Plug("sdc", wanted, "EF-01");
  MakeUuidLinks({{"AB-CD", "sdb1"}, {"EF-01", "sdc1"}});
  Start({"--match", "EF-01"});
  EXPECT_TRUE(Comes(wanted)) << Said();
  EXPECT_EQ(TimesSaid(other), 0U) << Said();
  EXPECT_FALSE(fs::exists("/media/" + other));
}

TEST_F(UsbRedirect, WithReadOnlyLetsTheFarSideChangeNothing) {
  const auto label = Label("READ");
  Plug("sdb", label);
  Start({"--read-only"});
  ASSERT_TRUE(Comes(label)) << Said();
  EXPECT_NE(Shell("touch " + Far(label) + "/new").status, 0);
  EXPECT_FALSE(fs::exists(place / "disks/sdb1/new"));
}

TEST_F(UsbRedirect, EndsWithinSecondsAfterCtrlCWithTwoDisks) {
  const auto first = Label("ONE");
  const auto second = Label("TWO");
  Plug("sdb", first);
  Plug("sdc", second);
  Start();
  ASSERT_TRUE(Comes(first) && Comes(second)) << Said();
  const auto before = Clock::now();
  // The terminal sends it to the whole process group.
  for (const auto process : OwnProcessNumbers()) kill(process, SIGINT);
  EXPECT_EQ(host->Wait(kFewSeconds), 0) << Said();
  EXPECT_LT(Clock::now() - before, kFewSeconds);
  EXPECT_TRUE(IsGone(first));
  EXPECT_TRUE(IsGone(second));
  EXPECT_EQ(TimesSaid("trying again"), 0U) << Said();
}

TEST_F(UsbRedirect, KillsADisksProcessThatDoesNotEnd) {
  const auto stuck = Label("STUCK");
  const auto other = Label("OTHER");
  Plug("sdb", stuck);
  Plug("sdc", other);
  Start();
  ASSERT_TRUE(Comes(stuck) && Comes(other)) << Said();
  for (const auto process : OwnProcessNumbers()) {
    const auto line = ReadFile("/proc/" + std::to_string(process) + "/cmdline");
    const auto name = ReadFile("/proc/" + std::to_string(process) + "/comm");
    if (line.find("redirect") != std::string::npos && name != "cpd-starter\n" &&
        line.find("/media/" + stuck) != std::string::npos) {
      kill(process, SIGSTOP);
    }
  }
  Pull("sdb");
  EXPECT_TRUE(Goes(stuck)) << Said();
  EXPECT_FALSE(IsGone(other));
}

TEST_F(UsbRedirect, LeavesNothingMountedWhenItIsKilled) {
  const auto label = Label("KILLED");
  Plug("sdb", label);
  Start();
  ASSERT_TRUE(Comes(label)) << Said();
  host->Signal(SIGKILL);
  EXPECT_EQ(host->Wait(), 128 + SIGKILL);
  host.reset();
  EXPECT_TRUE(
      Eventually([&] { return !IsMounted(Far(label)) && !IsMounted("/media/" + label); }, kSoon));
  // The empty directory is used again.
  Start();
  EXPECT_TRUE(Comes(label)) << Said();
}

TEST_F(UsbRedirect, CopiesOverALineThatIsCutSeveralTimes) {
  constexpr int kRead = 105;
  constexpr int kWrite = 106;
  const auto label = Label("CUT");
  MakeLineBad();
  Plug("sdb", label);
  const auto content = Bytes(32 << 20);
  WriteFile(place / "original", content);
  WriteFile(place / "disks/sdb1/source", content);
  Start();
  ASSERT_TRUE(Comes(label)) << Said();
  size_t cuts = 0;
  const auto copy = [&](const std::string& from, const std::string& to, int request) {
    Order("cut", request);
    Process program({"/bin/cp", from, to}, place / "cp.out", place / "cp.err");
    for (int i = 0; i < 4; ++i) {
      if (i != 0) Order("cut", request);
      ++cuts;
      ASSERT_TRUE(Eventually([&] { return Done() == cuts; })) << Done() << " cuts\n" << Said();
      EXPECT_FALSE(program.Wait(0ms)) << "the copy is over too soon";
    }
    EXPECT_EQ(program.Wait(), 0) << ReadFile(place / "cp.err") << Said();
    EXPECT_TRUE(ReadFile(to) == content);
  };
  copy(place / "original", Far(label) + "/copy", kWrite);
  EXPECT_TRUE(ReadFile(place / "disks/sdb1/copy") == content);
  copy(Far(label) + "/source", place / "back", kRead);
  EXPECT_EQ(ReadFile(place / "out"),
            "/dev/sdb1 " + label + ": redirecting to elsewhere:" + Far(label) + "\n");
}

TEST_F(UsbRedirect, TakesDownADiskThatIsPulledWhileTheLineIsDown) {
  const auto label = Label("AWAY");
  MakeLineBad();
  Plug("sdb", label);
  Start();
  ASSERT_TRUE(Comes(label)) << Said();
  WriteFile(place / "down", "");
  Order("cut");
  ASSERT_TRUE(Eventually([&] { return Done() == 1; }));
  Pull("sdb");
  EXPECT_TRUE(Eventually([&] { return !fs::exists("/media/" + label); }, kSoon)) << Said();
  EXPECT_TRUE(IsMounted(Far(label))) << "nobody can have told the far side";
  fs::remove(place / "down");
  EXPECT_TRUE(Goes(label)) << Said();
  EXPECT_EQ(TimesSaid(label + ": gone\n"), 1U) << Said();
  // Nothing is in the way when it comes back.
  fs::remove_all(place / "disks/sdb1");
  Plug("sdb", label);
  EXPECT_TRUE(Comes(label)) << Said();
}

TEST_F(UsbRedirect, SaysInOneLineWhyADiskFailsAndTriesItAgain) {
  const auto label = Label("FAILING");
  WriteFile(Far(label), "in the way");
  Plug("sdb", label);
  Start();
  ASSERT_TRUE(Eventually([&] { return TimesSaid("trying again every 10 s\n") == 1; })) << Said();
  EXPECT_EQ(TimesSaid("\n/dev/sdb1 " + label + ": the other side: "), 1U) << Said();
  EXPECT_EQ(TimesSaid("cpd-host: "), 0U) << Said();
  EXPECT_TRUE(Eventually([&] { return !IsMounted("/media/" + label); })) << Said();
  fs::remove(Far(label));
  EXPECT_TRUE(Eventually([&] { return IsMounted(Far(label)); }, 15s)) << Said();
}

TEST_F(UsbRedirect, DoesNotBringBackADiskThatWasUnmountedAtTheFarSide) {
  const auto label = Label("ENOUGH");
  Plug("sdb", label);
  Start();
  ASSERT_TRUE(Comes(label)) << Said();
  ASSERT_EQ(Shell("umount " + Far(label)).status, 0);
  EXPECT_TRUE(Goes(label)) << Said();
  EXPECT_TRUE(Eventually([&] { return TimesSaid(label + ": ended\n") == 1; })) << Said();
  std::this_thread::sleep_for(12s);  // longer than the pause after a failure
  EXPECT_TRUE(IsGone(label)) << Said();
  Pull("sdb");
  std::this_thread::sleep_for(1s);
  fs::remove_all(place / "disks/sdb1");
  Plug("sdb", label);
  EXPECT_TRUE(Comes(label)) << Said();
}

TEST_F(UsbRedirect, RedirectsTheOtherDiskIfALabelCannotNameADirectory) {
  const auto good = Label("GOOD");
  Plug("sdb", "a/../../b");
  Plug("sdc", good);
  Start();
  EXPECT_TRUE(Comes(good)) << Said();
  EXPECT_EQ(
      TimesSaid("/dev/sdb1 a/../../b: the label \"a/../../b\" cannot be used in /media; trying "
                "again every 10 s\n"),
      1U)
      << Said();
}

TEST_F(UsbRedirect, RedirectsARealNtfsDiskAndLetsGoOfItWhenItIsPulled) {
  for (const char* program : {"blkid", "losetup", "mkntfs", "ntfs-3g", "ntfscat"}) {
    if (Shell(std::string("command -v ") + program).status != 0) {
      GTEST_SKIP() << program << " is not installed";
    }
  }
  const auto label = Label("NTFS");
  const auto image = place / "image";
  const auto made = Shell("truncate -s 20M " + image + " && mkntfs -qF -L " + label + " " + image +
                          " && losetup -f --show " + image);
  if (made.status != 0) GTEST_SKIP() << "no NTFS on a loop device here: " + made.output;
  const auto device = made.output.substr(0, made.output.find('\n'));
  // The real one, in the real machine, with a cache of its own.
  AddProgram("blkid", "BLKID_FILE=" + (place / "blkid.tab") +
                          " exec env -u LD_PRELOAD PATH=" + Quoted(getenv("PATH")) + " blkid");
  loop_device = device;
  AddDevice(device.substr(std::string("/dev/").size()));
  Start();
  ASSERT_TRUE(Eventually([&] { return IsMounted(Far(label)); }, kSoon)) << Said();
  const auto content = Bytes(5 << 20);
  WriteFile(place / "original", content);
  WriteFile(Far(label) + "/copy", content);
  EXPECT_TRUE(ReadFile("/media/" + label + "/copy") == content) << Said();
  Pull(device.substr(std::string("/dev/").size()));
  EXPECT_TRUE(Goes(label)) << Said();
  // Nothing uses the device any more: it goes at once.
  Shell("losetup -d " + std::exchange(loop_device, {}));
  EXPECT_TRUE(Eventually([&] { return Shell("losetup -j " + image).output.empty(); }, kSoon));
  EXPECT_EQ(Shell("ntfscat " + image + " copy | cmp - " + Quoted(place / "original")).status, 0);
}

TEST_F(UsbRedirect, NeedsRootAndAnotherMachine) {
  const std::string redirect = std::string(CPD_HOST) + " redirect --usb ";
  const auto local = Shell(redirect + "/mnt");
  EXPECT_EQ(local.status, 1);
  EXPECT_EQ(local.output,
            "cpd-host: /mnt does not name another machine: write [USER@]HOST:DIRECTORY\n");
  if (Shell("setpriv --reuid=65534 --clear-groups test -x " CPD_HOST).status != 0) {
    GTEST_SKIP() << "the user nobody cannot run the host program here";
  }
  const auto user = Shell("setpriv --reuid=65534 --clear-groups " + redirect + "host:/mnt");
  EXPECT_EQ(user.status, 1);
  EXPECT_EQ(user.output, "cpd-host: mounting USB disks needs root\n");
}

// ---- The unit for systemd ----

/// The unit, with this build's program.
std::string Unit() {
  auto unit = ReadFile(USB_UNIT);
  const std::string installed = "/usr/local/bin/cpd-host";
  const auto at = unit.find(installed);
  return at == std::string::npos ? "" : unit.replace(at, installed.size(), CPD_HOST);
}

TEST(UsbUnit, HasACommandThatTheHostUnderstands) {
  const auto unit = Unit();
  const std::string key = "\nExecStart=";
  const auto begin = unit.find(key) + key.size();
  auto command = unit.substr(begin, unit.find('\n', begin) - begin);
  ASSERT_NE(command.find(" ${PLACE} "), std::string::npos) << unit;
  // The shell splits the command like systemd. The host accepts its options and refuses only PLACE.
  const auto result = Shell("PLACE=nowhere OPTIONS='--read-only --match STICK'; " + command);
  EXPECT_EQ(result.output,
            "cpd-host: nowhere does not name another machine: write [USER@]HOST:DIRECTORY\n");
}

TEST(UsbUnit, IsAcceptedBySystemd) {
  if (Shell("command -v systemd-analyze").status != 0) {
    GTEST_SKIP() << "systemd-analyze is not installed";
  }
  const TempDir place;
  WriteFile(place / "cpd-host-usb@.service", Unit());
  const auto result = Shell("systemd-analyze verify --man=no " + (place / "cpd-host-usb@.service"));
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(result.output.find("cpd-host-usb"), std::string::npos) << result.output;
}

}  // namespace
}  // namespace system_test
