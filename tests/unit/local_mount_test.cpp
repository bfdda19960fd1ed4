// Mounting and unmounting partitions: the shell commands that the service runs.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "service.h"
#include "support/no_more_commands.h"
#include "support/operator_fixture.h"
#include "support/shims.h"

namespace cpd::test {
namespace {

using Lines = std::vector<std::string>;

constexpr const char* kOptions = " -o dmask=0000 -o fmask=0000 -o iocharset=utf8";

UDiskInfo Partition(const std::string& device, const std::string& label, const std::string& type) {
  UDiskInfo info{};
  device.copy(info.devName, sizeof info.devName - 1);
  label.copy(info.label, sizeof info.label - 1);
  type.copy(info.type, sizeof info.type - 1);
  return info;
}

class LocalMountTest : public OperatorTest {
 protected:
  LocalMountTest() {
    for (const char* program : {"umount", "mount", "ntfs-3g", "rm"}) shims.Add(program);
    std::filesystem::current_path(disk.root());
  }
  ~LocalMountTest() override { std::filesystem::current_path(directory_before); }

  /// Labels that, unquoted in a shell, create the file bait, are expanded, or are more than one
  /// word.
  [[nodiscard]] static Lines HostileLabels() {
    return {"$(touch bait);'\"", "$HOME",        "`touch bait`",    ";touch bait;",
            "|touch bait #",     "&touch bait&", "a\ntouch bait\n", "';touch bait;'",
            "\";touch bait;\"",  "> bait",       "my disk",         "~*?[a]"};
  }

  const std::filesystem::path directory_before = std::filesystem::current_path();
  Shims shims;
  UDiskService service{&device, udisk.get()};
};

// ---- MountLocal ----

using MountLocalTest = LocalMountTest;

/// A partition whose label names a directory in /media.
class MountLocalInMediaTest : public LocalMountTest {
 protected:
  void SetUp() override {
    std::string name = "/media/udisk-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) GTEST_SKIP() << "/media cannot be written";
    directory = name;
    info = Partition("/dev/sdb1", name.substr(strlen("/media/")), "vfat");
  }
  void TearDown() override {
    std::error_code ignored;
    if (!directory.empty()) std::filesystem::remove_all(directory, ignored);
  }

  std::string directory;
  UDiskInfo info{};
};

TEST_F(MountLocalTest, UnmountsWhatIsThereAndMountsWithOpenPermissions) {
  UDiskInfo info = Partition("/dev/sdb1", "", "vfat");  // without a label: /media itself
  EXPECT_EQ(service.MountLocal(&info), 0);
  EXPECT_EQ(shims.CommandLines(),
            (Lines{"umount /media/", std::string("mount /dev/sdb1 /media/") + kOptions}));
  EXPECT_STREQ(info.mountPoint, "/media/");
  EXPECT_EQ(Log().Messages(), Lines{});
}

TEST_F(MountLocalInMediaTest, APlainLabelAppearsUnquotedInTheCommands) {
  EXPECT_EQ(service.MountLocal(&info), 0);
  EXPECT_EQ(shims.CommandLines(),
            (Lines{"umount " + directory, "mount /dev/sdb1 " + directory + kOptions}));
  EXPECT_EQ(info.mountPoint, directory);
}

TEST_F(MountLocalInMediaTest, ADirectoryThatExistsIsUsedWithoutALogLine) {
  service.MountLocal(&info);
  EXPECT_EQ(Log().Messages(), Lines{});
}

TEST_F(MountLocalInMediaTest, AMissingDirectoryIsMadeForEverybody) {
  std::filesystem::remove(directory);
  const mode_t mask = umask(0);
  EXPECT_EQ(service.MountLocal(&info), 0);
  umask(mask);

  struct stat made {};
  ASSERT_EQ(stat(directory.c_str(), &made), 0);
  EXPECT_EQ(made.st_mode, S_IFDIR | 0777U);
  EXPECT_EQ(Log().Messages(), Lines{"mkdir res: 0"});
  EXPECT_EQ(Log().Lines().at(0).level, kDebug);
  EXPECT_EQ(Log().Lines().at(0).file, "service.cpp");
  EXPECT_EQ(Log().Lines().at(0).function, "MountLocal");
}

TEST_F(MountLocalInMediaTest, MountsEvenWhenTheDirectoryCannotBeMade) {
  std::filesystem::remove(directory);
  std::ofstream(directory) << "a file";
  EXPECT_EQ(service.MountLocal(&info), 0);
  EXPECT_EQ(Log().Messages(), Lines{"mkdir res: -1"});
  EXPECT_EQ(shims.Calls().size(), 2U);
}

TEST_F(MountLocalTest, OnlyTheTypeNtfsIsMountedByNtfs3g) {
  for (const char* type : {"ntfs", "NTFS", "ntfs3", "ntf", "vfat", ""}) {
    UDiskInfo info = Partition("/dev/sdb1", "", type);
    service.MountLocal(&info);
    const std::string program = type == std::string("ntfs") ? "ntfs-3g" : "mount";
    EXPECT_EQ(shims.CommandLines().back(), program + " /dev/sdb1 /media/" + kOptions) << type;
  }
}

TEST_F(MountLocalTest, AFailedMountIsLoggedAndItsStatusReturned) {
  shims.Add("ntfs-3g", 32);
  UDiskInfo info = Partition("/dev/sdb1", "", "ntfs");
  const int status = service.MountLocal(&info);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 32);
  const Lines errors = Log().Messages(kError);
  ASSERT_EQ(errors.size(), 1U);
  EXPECT_EQ(errors[0].substr(0, strlen("udisk mount errno: ")), "udisk mount errno: ");
  EXPECT_STREQ(info.mountPoint, "/media/");
}

TEST_F(MountLocalTest, AFailedUnmountDoesNotMatter) {
  shims.Add("umount", 1);
  UDiskInfo info = Partition("/dev/sdb1", "", "ntfs");
  EXPECT_EQ(service.MountLocal(&info), 0);
  EXPECT_EQ(Log().Messages(), Lines{});
}

TEST_F(MountLocalTest, TheMountPointIsCutTo31BytesOnlyInTheRecord) {
  // The parent directory does not exist, so the test makes no directory.
  const std::string longest = "no-such-directory/" + std::string(13, 'd');
  ASSERT_EQ(longest.size(), 31U);
  UDiskInfo info = Partition("/dev/sdb1", longest, "ntfs");
  std::memset(info.mountPoint, 'x', sizeof info.mountPoint);
  service.MountLocal(&info);
  EXPECT_EQ(shims.CommandLines().at(0), "umount /media/" + longest);
  EXPECT_EQ(info.mountPoint, ("/media/" + longest).substr(0, 31));
  EXPECT_EQ(info.mountPoint[32], 'x');

  UDiskInfo fits = Partition("/dev/sdb1", longest.substr(0, 24), "ntfs");
  service.MountLocal(&fits);
  EXPECT_EQ(fits.mountPoint, "/media/" + longest.substr(0, 24));
}

TEST_F(MountLocalTest, ALabelIsOneWordAndRunsNothing) {
  for (const std::string& hostile : HostileLabels()) {
    // The parent directory does not exist, so the test makes no directory.
    const std::string name = "no-such/" + hostile;
    UDiskInfo info = Partition("/dev/sdb1", name, "ntfs");
    EXPECT_EQ(service.MountLocal(&info), 0) << hostile;
    const auto calls = shims.Calls();
    EXPECT_EQ(calls.at(calls.size() - 2), (Shims::Words{"umount", "/media/" + name}));
    EXPECT_EQ(calls.back(),
              (Shims::Words{"ntfs-3g", "/dev/sdb1", "/media/" + name, "-o", "dmask=0000", "-o",
                            "fmask=0000", "-o", "iocharset=utf8"}));
  }
  EXPECT_EQ(shims.Calls().size(), 2 * HostileLabels().size());
  EXPECT_FALSE(disk.Exists("/bait"));
}

TEST_F(MountLocalTest, ADeviceNameIsOneWordAndRunsNothing) {
  for (const std::string& hostile : HostileLabels()) {
    UDiskInfo info = Partition(hostile, "", "ntfs");
    service.MountLocal(&info);
    EXPECT_EQ(shims.Calls().back().at(1), hostile);
    EXPECT_EQ(shims.Calls().back().size(), 9U);
  }
  EXPECT_FALSE(disk.Exists("/bait"));
}

TEST_F(MountLocalTest, ACommandThatWouldBeCutIsNotRun) {
  // Each quote becomes four characters in the command.
  const std::string label_of_quotes = "no/" + std::string(28, '\'');
  UDiskInfo info = Partition(std::string(31, '\''), label_of_quotes, "ntfs");
  EXPECT_EQ(service.MountLocal(&info), -1);
  EXPECT_EQ(shims.CommandLines(), Lines{"umount /media/" + label_of_quotes});
  EXPECT_EQ(Log().Messages(kError).size(), 1U);
  EXPECT_EQ(info.mountPoint, ("/media/" + label_of_quotes).substr(0, 31));
}

TEST_F(MountLocalTest, ACommandOf255BytesRunsAndALongerOneDoesNot) {
  // Each quote becomes four characters in the command.
  const std::string quotes(31, '\'');
  const std::string label = "no/" + std::string(15, '\'') + "dd";
  UDiskInfo fits = Partition(quotes, label, "ntfs");
  EXPECT_EQ(service.MountLocal(&fits), 0);
  EXPECT_EQ(shims.Calls().size(), 2U);
  UDiskInfo longer = Partition(quotes, label + "d", "ntfs");
  EXPECT_EQ(service.MountLocal(&longer), -1);
  EXPECT_EQ(shims.Calls().size(), 3U) << "only umount has run";
}

// ---- UmountLocal ----

class UmountLocalTest : public LocalMountTest {
 protected:
  /// Gives the service a list from malloc, as GetDeviceLabel does.
  void SetList(const Lines& mount_points) {
    const size_t count = mount_points.size();
    auto* const infos = static_cast<UDiskInfo*>(std::calloc(count, sizeof(UDiskInfo)));
    for (size_t i = 0; i < count; ++i) {
      mount_points[i].copy(infos[i].mountPoint, sizeof infos[i].mountPoint - 1);
    }
    SetList(static_cast<uint8_t>(count), infos);
  }
  void SetList(uint8_t count, UDiskInfo* infos) {
    service.mUdiskDevice = static_cast<UdiskDevice*>(std::malloc(sizeof(UdiskDevice)));
    *service.mUdiskDevice = {.count = count, .infos = infos};
  }
};

TEST_F(UmountLocalTest, WithoutAListItFailsAndKeepsTheMountPoint) {
  EXPECT_EQ(service.UmountLocal(), -1);
  EXPECT_EQ(udisk->GetLocalMountPoint(), disk.root());
  EXPECT_EQ(shims.CommandLines(), Lines{});
}

TEST_F(UmountLocalTest, UnmountsLazilyAndRemovesOneDirectoryAfterTheOther) {
  SetList({"/media/A", "/media/B"});
  EXPECT_EQ(service.UmountLocal(), 0);
  EXPECT_EQ(shims.CommandLines(), (Lines{"umount -l /media/A", "rm -rf /media/A",
                                         "umount -l /media/B", "rm -rf /media/B"}));
}

TEST_F(UmountLocalTest, WaitsForEachCommandToEnd) {
  SetList({"/media/A"});
  EXPECT_EQ(service.UmountLocal(), 0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a command runs, or nobody waited for its end";
  EXPECT_EQ(errno, ECHILD);
}

TEST_F(UmountLocalTest, ForgetsTheListAndTheMountPoint) {
  SetList({"/media/A"});
  EXPECT_EQ(service.UmountLocal(), 0);
  EXPECT_EQ(service.mUdiskDevice, nullptr);
  EXPECT_EQ(udisk->GetLocalMountPoint(), "");
  EXPECT_TRUE(udisk->mVolumes.empty());
  EXPECT_EQ(service.UmountLocal(), -1);
  EXPECT_EQ(shims.Calls().size(), 2U);
}

TEST_F(UmountLocalTest, AnEmptyListRunsNothing) {
  SetList(0, static_cast<UDiskInfo*>(std::malloc(sizeof(UDiskInfo))));
  EXPECT_EQ(service.UmountLocal(), 0);
  SetList(0, nullptr);
  Mount();
  EXPECT_EQ(service.UmountLocal(), 0);
  EXPECT_EQ(shims.CommandLines(), Lines{});
  EXPECT_EQ(udisk->GetLocalMountPoint(), "");
}

TEST_F(UmountLocalTest, TheLongestListIsWalkedOnce) {
  SetList(Lines(255, "/media/A"));
  EXPECT_EQ(service.UmountLocal(), 0);
  EXPECT_EQ(shims.Calls().size(), 2U * 255U);
}

TEST_F(UmountLocalTest, RemovesTheDirectoryEvenAfterAFailedUnmount) {
  shims.Add("umount", 32);
  SetList({"/media/A"});
  EXPECT_EQ(service.UmountLocal(), 0);
  EXPECT_EQ(shims.CommandLines().back(), "rm -rf /media/A");
}

TEST_F(UmountLocalTest, CommandsThatCannotBeStartedAreSkipped) {
  SetList({"/media/A"});
  {
    const NoMoreCommands none;
    EXPECT_EQ(service.UmountLocal(), 0);
  }
  EXPECT_EQ(service.mUdiskDevice, nullptr);
  EXPECT_EQ(Log().Messages(kError), Lines{});
}

TEST_F(UmountLocalTest, AMountPointIsOneWordAndRunsNothing) {
  SetList(HostileLabels());
  EXPECT_EQ(service.UmountLocal(), 0);
  std::vector<Shims::Words> expected;
  for (const std::string& hostile : HostileLabels()) {
    expected.push_back({"umount", "-l", hostile});
    expected.push_back({"rm", "-rf", hostile});
  }
  EXPECT_EQ(shims.Calls(), expected);
  EXPECT_FALSE(disk.Exists("/bait"));
}

TEST_F(UmountLocalTest, ACommandThatWouldBeCutIsNotRun) {
  SetList({std::string(63, '\''), "/media/A"});
  EXPECT_EQ(service.UmountLocal(), 0);
  EXPECT_EQ(shims.CommandLines(), (Lines{"umount -l /media/A", "rm -rf /media/A"}));
}

}  // namespace
}  // namespace cpd::test
