// What cpd-host's command line accepts and refuses, and what its commands print.
#include <json/json.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

using CommandLine = MountTest;
using ReadOnly = MountTest;
using Traces = MountTest;

/// Commands that read a disk by packets, without FUSE.
class PacketTools : public testing::Test {
 protected:
  TempDir disk;
};

/// Runs `cpd-host mount` with arguments that it must refuse.
void ExpectRefused(const std::string& arguments, const std::string& reason = "") {
  const TempDir place;
  const auto refused =
      Shell(std::string(CPD_HOST) + " mount " + arguments + " >" + (place / "out"), kHang);
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(std::count(refused.output.begin(), refused.output.end(), '\n'), 1) << refused.output;
  EXPECT_NE(refused.output.find(reason), std::string::npos) << refused.output;
}

TEST_F(CommandLine, AMissingDiskIsRefused) {
  const TempDir mount_point;
  ExpectRefused((disk / "missing") + " " + mount_point.path(), disk / "missing");
  EXPECT_FALSE(IsMounted(mount_point.path()));
}

TEST_F(CommandLine, AFileInPlaceOfTheDiskIsRefused) {
  const TempDir mount_point;
  WriteFile(disk / "file", "");
  ExpectRefused((disk / "file") + " " + mount_point.path(), disk / "file");
}

TEST_F(CommandLine, AMissingMountPointIsRefused) {
  ExpectRefused(disk.path() + " " + (disk / "missing"), disk / "missing");
}

TEST_F(CommandLine, AMissingModuleIsRefused) {
  const TempDir mount_point;
  ExpectRefused(disk.path() + " " + mount_point.path() + " --module " + (disk / "none.so"),
                disk / "none.so");
  EXPECT_FALSE(IsMounted(mount_point.path()));
}

TEST_F(CommandLine, ALibraryThatIsNotADriverModuleIsRefused) {
  const TempDir mount_point;
  ExpectRefused(disk.path() + " " + mount_point.path() + " --module " NO_DRIVER_MODULE,
                "CPD_DRV_MODULE");
  EXPECT_FALSE(IsMounted(mount_point.path()));
}

TEST_F(CommandLine, AMountPointWithinTheDiskOrAroundItIsRefused) {
  fs::create_directory(disk / "directory");
  ExpectRefused(disk.path() + " " + (disk / "directory"), "overlap");
  ExpectRefused((disk / "directory") + " " + disk.path(), "overlap");
  EXPECT_FALSE(IsMounted(disk / "directory"));
  EXPECT_FALSE(IsMounted(disk.path()));
}

TEST_F(CommandLine, AFileThatCannotBeWrittenToIsRefused) {
  const TempDir mount_point;
  const auto missing = disk / "missing/file";
  for (const auto* const option : {"log", "trace", "record"}) {
    ExpectRefused(disk.path() + " " + mount_point.path() + " --" + option + " " + missing, missing);
    EXPECT_FALSE(IsMounted(mount_point.path())) << option;
  }
}

TEST_F(CommandLine, ANameThatIsTooLongIsRefused) {
  const TempDir mount_point;
  ExpectRefused(
      disk.path() + " " + mount_point.path() + " --name " + std::string(256, 'n') + " --label l",
      "name is longer than 255 bytes");
}

TEST_F(CommandLine, TwoDisksForOneMountAreRefused) {
  const TempDir mount_point;
  const std::string reason = "give one of DISK, --device and --via";
  ExpectRefused("--device sdz1 --via false " + mount_point.path(), reason);
  ExpectRefused("--via false " + disk.path() + " " + mount_point.path(), reason);
}

TEST_F(CommandLine, UsbDisksThroughOneLineAreRefused) {
  const auto refused = Shell(CPD_HOST " redirect --usb elsewhere:/mnt --via false", kHang);
  EXPECT_NE(refused.status, 0);
  EXPECT_NE(refused.output.find("--via"), std::string::npos) << refused.output;
}

TEST_F(CommandLine, ARedirectionWithoutAnotherMachineIsRefused) {
  const auto redirect = CPD_HOST " redirect " + disk.path();
  const auto without_place = Shell(redirect, kHang);
  EXPECT_EQ(without_place.status, 1);
  EXPECT_NE(without_place.output.find("give one of [USER@]HOST:MOUNTPOINT and --via"),
            std::string::npos)
      << without_place.output;
  const auto disk_and_usb = Shell(CPD_HOST " redirect --usb " + disk.path() + " elsewhere:/mnt");
  EXPECT_EQ(disk_and_usb.status, 1);
  EXPECT_EQ(disk_and_usb.output, "cpd-host: give either --usb or DISK, not both\n");
  const auto local = Shell(redirect + " /mnt", kHang);
  EXPECT_EQ(local.status, 1);
  EXPECT_NE(local.output.find("/mnt does not name another machine"), std::string::npos)
      << local.output;
}

TEST_F(CommandLine, ACommandThatSpeaksToAnotherHostIsRefusedOnATerminal) {
  if (Shell("command -v script").status != 0) GTEST_SKIP() << "no program `script` here";
  const auto serve =
      Shell("script -qec " + Quoted(CPD_HOST " serve " + disk.path()) + " /dev/null", kHang);
  EXPECT_EQ(serve.status, 1);
  EXPECT_NE(serve.output.find("standard input is a terminal"), std::string::npos) << serve.output;
}

TEST_F(CommandLine, TracesAreAddedToWhatTheFileHas) {
  const auto trace = disk / "trace";
  WriteFile(trace, "before\n");
  const TempDir shown;
  ASSERT_EQ(
      Shell(std::string(CPD_HOST) + " ls " + shown.path() + " --trace " + trace, kHang).status, 0);
  EXPECT_TRUE(ReadFile(trace).starts_with("before\n{")) << ReadFile(trace);
}

TEST_F(CommandLine, ANegativeTimeLimitIsRefused) {
  const TempDir mount_point;
  ExpectRefused(disk.path() + " " + mount_point.path() + " --timeout -5", "--timeout");
}

TEST_F(CommandLine, ARefusalExitsWithOneEvenIfItCannotBePrinted) {
  EXPECT_EQ(Shell(CPD_HOST " mount /none /none 2>/dev/full").status, 1);
}

TEST_F(PacketTools, PrintWhatIsOnTheDisk) {
  WriteFile(disk / "file", "content");
  const auto run = [&](const std::string& command) {
    return Shell(CPD_HOST " " + command + " --log-level off");
  };
  const auto cat = run("cat " + disk.path() + " file");
  EXPECT_EQ(cat.status, 0);
  EXPECT_EQ(cat.output, "content");
  const auto ls = run("ls " + disk.path());
  EXPECT_EQ(ls.status, 0);
  EXPECT_NE(ls.output.find(" file\n"), std::string::npos) << ls.output;
  const auto df = run("df " + disk.path());
  EXPECT_EQ(df.status, 0);
  EXPECT_TRUE(df.output.starts_with("size ")) << df.output;
}

TEST_F(PacketTools, PrintAFileThroughALinkToItsEnd) {
  const auto content = std::string(3 << 20, 'a') + "the end";  // several reads
  WriteFile(disk / "file", content);
  fs::create_symlink("file", disk / "link");
  const auto cat = Shell(CPD_HOST " cat " + disk.path() + " link --log-level off");
  EXPECT_EQ(cat.status, 0);
  EXPECT_TRUE(cat.output == content) << cat.output.size();

  fs::create_symlink("missing", disk / "dangling");
  const auto dangling = Shell(CPD_HOST " cat " + disk.path() + " dangling --log-level off");
  EXPECT_EQ(dangling.status, 1);
  EXPECT_EQ(dangling.output, "cpd-host: /dangling: Input/output error\n");
}

TEST_F(PacketTools, LeaveTheDiskOnlyWhenUnconfined) {
  const TempDir outside;
  WriteFile(outside / "file", "content");
  fs::create_symlink(outside / "file", disk / "link");
  const auto cat = CPD_HOST " cat " + disk.path() + " link --log-level off";
  const auto confined = Shell(cat);
  EXPECT_EQ(confined.status, 1);
  EXPECT_EQ(confined.output, "cpd-host: /link: Input/output error\n");
  const auto unconfined = Shell(cat + " --unconfined");
  EXPECT_EQ(unconfined.status, 0) << unconfined.output;
  EXPECT_EQ(unconfined.output, "content");
}

TEST_F(PacketTools, ShowTheTypeOfEachFile) {
  fs::create_directory(disk / "directory");
  fs::create_symlink("directory", disk / "link");
  ASSERT_EQ(mkfifo((disk / "fifo").c_str(), 0600), 0);
  WriteFile(disk / "file", "");
  std::istringstream lines(Shell(CPD_HOST " ls " + disk.path() + " --log-level off").output);
  std::map<std::string, char> types;
  for (std::string line; std::getline(lines, line);) {
    types[line.substr(line.rfind(' ') + 1)] = line.front();
  }
  EXPECT_EQ(types["directory"], 'd');
  EXPECT_EQ(types["link"], 'l');
  EXPECT_EQ(types["fifo"], '?');
  EXPECT_EQ(types["file"], '-');
}

TEST_F(PacketTools, AskTheModuleForAnExtendedAttribute) {
  WriteFile(disk / "file", "content");
  const auto asked = Shell(CPD_HOST " xattr " + disk.path() + " file user.colour --log-level off");
  EXPECT_EQ(asked.status, 0);
  EXPECT_EQ(asked.output, "no value\n");
  EXPECT_EQ(Shell(CPD_HOST " xattr " + disk.path() + " file").status, 1);
}

TEST_F(PacketTools, QuoteNamesForATerminalAndNotForAPipe) {
  if (Shell("command -v script").status != 0) GTEST_SKIP() << "no program `script` here";
  WriteFile(disk / "red\x1b[31m\nfile", "");
  const auto ls = std::string(CPD_HOST) + " ls " + disk.path() + " --log-level off";
  EXPECT_NE(Shell(ls).output.find(" red\x1b[31m\nfile\n"), std::string::npos);
  const auto on_terminal = Shell("script -qec " + Quoted(ls) + " /dev/null").output;
  EXPECT_NE(on_terminal.find(" 'red'$'\\033''[31m'$'\\n''file'\r\n"), std::string::npos)
      << on_terminal;
}

TEST_F(PacketTools, ShowTheRootAsItsOwnParent) {
  fs::create_directory(disk / "directory");
  WriteFile(disk / "file", "content");
  const auto listed = Shell(CPD_HOST " ls " + disk.path() + " --log-level off").output;
  std::istringstream lines(listed);
  std::map<std::string, std::string> attributes;
  for (std::string line; std::getline(lines, line);) {
    const size_t space = line.rfind(' ');
    attributes[line.substr(space + 1)] = line.substr(0, space);
  }
  ASSERT_EQ(attributes.size(), 4U) << listed;
  EXPECT_EQ(attributes[".."], attributes["."]);
}

TEST_F(PacketTools, OutputThatCannotBeWrittenIsAFailure) {
  WriteFile(disk / "file", "content");
  for (const char* command : {" cat ", " ls ", " df "}) {
    const auto failed = Shell(std::string(CPD_HOST) + command + disk.path() +
                              (command == std::string(" cat ") ? " file" : "") + " >/dev/full");
    EXPECT_EQ(failed.status, 1) << command;
    EXPECT_EQ(failed.output, "cpd-host: standard output: No space left on device\n") << command;
  }
}

TEST_F(PacketTools, AMissingDirectoryIsReportedAsMissing) {
  const auto failed = Shell(CPD_HOST " ls " + disk.path() + " /missing --log-level off");
  EXPECT_EQ(failed.status, 1);
  EXPECT_EQ(failed.output, "cpd-host: /missing: No such file or directory\n");
}

TEST_F(CommandLine, AMountPointInUseIsRefused) {
  const TempDir second_disk;
  WriteFile(disk / "first", "");
  MountedDisk mounted(disk.path());
  ExpectRefused(second_disk.path() + " " + mounted.path(), mounted.path());
  EXPECT_TRUE(fs::exists(mounted / "first"));
}

TEST_F(CommandLine, ADiskWhosePathIsTooLongIsRefused) {
  const TempDir mount_point;
  const auto deep = disk / std::string(200, 'a') + "/" + std::string(200, 'b');
  fs::create_directories(deep);
  ExpectRefused(deep + " " + mount_point.path(), "longer than 255 bytes");
  EXPECT_FALSE(IsMounted(mount_point.path()));
}

TEST_F(CommandLine, ADiskWhosePathHoldsBlanksAndQuotesIsMounted) {
  const auto odd = disk / "my \"disk\" \\ it's";
  fs::create_directory(odd);
  WriteFile(odd + "/file", "content");
  MountedDisk mounted(odd);
  EXPECT_EQ(ReadFile(mounted / "file"), "content");
}

TEST_F(CommandLine, ARelativeDiskIsMounted) {
  WriteFile(disk / "file", "content");
  const auto relative = fs::relative(disk.path()).string();
  ASSERT_NE(relative.front(), '/');
  MountedDisk mounted(relative);
  EXPECT_EQ(ReadFile(mounted / "file"), "content");
}

TEST_F(CommandLine, ANameAndALabelWithQuotesAndBlanksReachTheModuleAsTheyAre) {
  const TempDir place;
  WriteFile(disk / "file", "content");
  for (const auto& text : {std::string("Photos"), std::string("a \"b\" 'c' \\ d, {e}: \u00fc")}) {
    MountedDisk mounted(disk.path(), {"--name", "name " + text, "--label", "label " + text, "--log",
                                      place / "log", "--log-level", "debug"});
    EXPECT_EQ(ReadFile(mounted / "file"), "content") << text;
    EXPECT_EQ(mounted.Unmount().status, 0) << text;
    const auto log = ReadFile(place / "log");
    EXPECT_NE(log.find("client udisk mount tmpLabel: name " + text + ","), log.npos) << log;
    EXPECT_NE(log.find(", label: label " + text + ", drive: "), log.npos) << log;
  }
}

/// The options of the mount at `path`, then those of its file system, as the kernel lists them.
std::vector<std::string> OptionsOf(const std::string& path) {
  std::ifstream table("/proc/self/mountinfo");
  for (std::string line; std::getline(table, line);) {
    if (line.find(" " + path + " ") == std::string::npos) continue;
    std::istringstream fields(line);
    const std::vector<std::string> words{std::istream_iterator<std::string>(fields), {}};
    std::istringstream both(words.at(5) + "," + words.back());
    std::vector<std::string> options;
    for (std::string option; std::getline(both, option, ',');) options.push_back(option);
    return options;
  }
  return {};
}

TEST_F(CommandLine, AMountIsForItsOwnUserWithoutDevicesAndSetIdBits) {
  MountedDisk mounted(disk.path());
  const auto options = OptionsOf(mounted.path());
  EXPECT_EQ(std::ranges::count(options, "allow_other"), 0);
  EXPECT_EQ(std::ranges::count(options, "nosuid"), 1);
  EXPECT_EQ(std::ranges::count(options, "nodev"), 1);
}

TEST_F(CommandLine, OtherUsersCanUseOnlyAMountThatAllowsThem) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  WriteFile(disk / "file", "content");
  fs::permissions(disk.path(), fs::perms(0755));
  for (const bool allowed : {false, true}) {
    MountedDisk mounted(disk.path(), allowed ? std::vector<std::string>{"--allow-other"}
                                             : std::vector<std::string>());
    fs::permissions(fs::path(mounted.path()).parent_path(), fs::perms(0755));
    const auto read = Shell("setpriv --reuid=65534 --clear-groups cat " + (mounted / "file"));
    EXPECT_EQ(read.status, allowed ? 0 : 1) << read.output;
    const auto options = OptionsOf(mounted.path());
    EXPECT_EQ(std::ranges::count(options, "allow_other"), allowed ? 1 : 0);
    EXPECT_EQ(std::ranges::count(options, "nosuid"), 1);
  }
}

TEST_F(CommandLine, AllowOtherWithoutTheRightToItIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  const std::string as_nobody = "setpriv --reuid=65534 --clear-groups ";
  if (Shell(as_nobody + CPD_HOST + " --help && " + as_nobody + "test -w /dev/fuse").status != 0) {
    GTEST_SKIP() << "the user nobody cannot run the host program or use /dev/fuse";
  }
  if (Shell("grep -q ^user_allow_other /etc/fuse.conf").status == 0) {
    GTEST_SKIP() << "this machine lets every user do it";
  }
  const TempDir mount_point;
  for (const auto& place : {disk.path(), mount_point.path()}) {
    ASSERT_EQ(chown(place.c_str(), 65534, 65534), 0);
  }
  const auto refused = Shell(as_nobody + CPD_HOST + " mount " + disk.path() + " " +
                             mount_point.path() + " --allow-other");
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.output.find("--allow-other needs root"), std::string::npos) << refused.output;
  EXPECT_FALSE(IsMounted(mount_point.path()));
}

TEST_F(CommandLine, TheForegroundOptionIsAcceptedAndChangesNothing) {
  WriteFile(disk / "file", "content");
  MountedDisk mounted(disk.path(), {"--foreground"});
  EXPECT_EQ(ReadFile(mounted / "file"), "content");
  const auto help = Shell(CPD_HOST " mount --help");
  EXPECT_EQ(help.status, 0);
  EXPECT_EQ(help.output.find("--foreground"), std::string::npos) << help.output;
}

TEST_F(ReadOnly, DiskCanBeRead) {
  WriteFile(disk / "file", Bytes(300'000));
  MountedDisk mounted(disk.path(), {"--read-only"});
  EXPECT_EQ(ReadFile(mounted / "file"), Bytes(300'000));
}

TEST_F(Traces, AreOneJsonObjectPerLineFromOpenToClose) {
  const TempDir place;
  WriteFile(disk / "file", "content");
  MountedDisk mounted(disk.path(), {"--trace", place / "trace"});
  EXPECT_EQ(ReadFile(mounted / "file"), "content");
  EXPECT_EQ(mounted.Unmount().status, 0);

  std::ifstream trace(place / "trace");
  std::vector<std::string> events;
  for (std::string line; std::getline(trace, line);) {
    Json::Value object;
    std::istringstream text(line);
    ASSERT_NO_THROW(text >> object) << line;
    ASSERT_TRUE(object.isObject()) << line;
    events.push_back(object["event"].asString());
  }
  const auto place_of = [&](const std::string& event) {
    return std::find(events.begin(), events.end(), event) - events.begin();
  };
  ASSERT_LT(place_of("LOCAL_UDISK_DRIVER_OPEN"), events.size());
  ASSERT_LT(place_of("LOCAL_DEVICE_OPEN"), events.size());
  ASSERT_FALSE(events.empty());
  EXPECT_EQ(events.back(), "LOCAL_UDISK_DRIVER_CLOSE");
}

TEST_F(Traces, AreUtf8WhateverTheNamesAre) {
  const TempDir place;
  WriteFile(disk / "bad\xff\xe2\x82.txt", "content");
  MountedDisk mounted(disk.path(), {"--trace", place / "trace", "--trace-reads"});
  EXPECT_EQ(ReadFile(mounted / "bad\xff\xe2\x82.txt"), "content");
  EXPECT_EQ(mounted.Unmount().status, 0);
  const auto trace = ReadFile(place / "trace");
  EXPECT_NE(trace.find("bad\ufffd\ufffd\ufffd.txt"), std::string::npos) << trace;
  EXPECT_EQ(Shell("iconv -f UTF-8 -t UTF-16 <" + (place / "trace") + " >/dev/null").status, 0);
}

}  // namespace
}  // namespace system_test
