// Finding USB disks: what the service reads from sysfs, the partition table and blkid.
#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iterator>
#include <set>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <vector>

#include "service.h"
#include "support/fake_host.h"
#include "support/no_more_commands.h"
#include "support/shims.h"
#include "support/temp_disk.h"

namespace cpd::test {
namespace {

using Lines = std::vector<std::string>;

// ---- GetString ----

/// A field, the first byte of the next one, and what GetString wrote and returned.
struct Taken {
  explicit Taken(const std::string& source) {
    bytes.fill('x');
    count = UDiskService::GetString(source.c_str(), bytes.data());
  }
  /// The first bytes of the field.
  [[nodiscard]] std::string Bytes(size_t length) const { return {bytes.data(), length}; }

  std::array<char, 33> bytes{};
  int count;
};

TEST(GetString, TakesTheTextBetweenTheQuotes) {
  const Taken taken(R"(LABEL="DATA")");
  EXPECT_EQ(taken.count, 4);
  EXPECT_EQ(taken.Bytes(6), std::string("DATA\0x", 6));
}

TEST(GetString, TakesOnlyTheFirstQuotedValue) {
  const Taken taken(R"(A="one"B="two")");
  EXPECT_EQ(taken.count, 3);
  EXPECT_STREQ(taken.bytes.data(), "one");
}

TEST(GetString, AnEmptyValueIsTerminated) {
  const Taken taken(R"(LABEL="")");
  EXPECT_EQ(taken.count, 0);
  EXPECT_EQ(taken.Bytes(2), std::string("\0x", 2));
}

TEST(GetString, WithoutAQuoteTheDestinationIsUnchanged) {
  for (const char* source : {"", "LABEL=", "LABEL=DATA"}) {
    const Taken taken(source);
    EXPECT_EQ(taken.count, 0) << source;
    EXPECT_EQ(taken.Bytes(1), "x") << source;
  }
}

TEST(GetString, WithoutAClosingQuoteNothingTerminatesTheValue) {
  const Taken taken(R"(LABEL="DATA)");
  EXPECT_EQ(taken.count, 4);
  EXPECT_EQ(taken.Bytes(5), "DATAx");
}

TEST(GetString, AnOpeningQuoteAtTheEndHasNoValue) {
  const Taken taken(R"(LABEL=")");
  EXPECT_EQ(taken.count, 0);
  EXPECT_EQ(taken.Bytes(1), "x");
}

TEST(GetString, AValueOf31BytesFillsTheField) {
  const std::string value(31, 'v');
  const Taken taken("LABEL=\"" + value + "\"");
  EXPECT_EQ(taken.count, 31);
  EXPECT_EQ(taken.Bytes(33), value + std::string("\0x", 2));
}

TEST(GetString, ALongerValueIsCutAndTerminated) {
  for (const size_t length : {32U, 33U, 1000U}) {
    for (const char* end : {"\"", ""}) {
      const Taken taken("LABEL=\"" + std::string(length, 'v') + end);
      EXPECT_EQ(taken.count, 31) << length << end;
      EXPECT_EQ(taken.Bytes(33), std::string(31, 'v') + std::string("\0x", 2)) << length << end;
    }
  }
}

TEST(GetString, TheLongestValueWithoutAClosingQuoteIsNotTerminated) {
  const Taken taken("LABEL=\"" + std::string(31, 'v'));
  EXPECT_EQ(taken.count, 31);
  EXPECT_EQ(taken.Bytes(32), std::string(31, 'v') + "x");
}

// ---- sysfs ----

class ProbingTest : public testing::Test {
 protected:
  ProbingTest() {
    Log().Clear();
    shims.AddCat();
  }

  /// The file that a shell would create if it ran one of the hostile names below.
  [[nodiscard]] std::string Bait() const { return place.Local("/bait"); }
  /// Names that run `touch` when a shell reads them unquoted.
  [[nodiscard]] Lines HostileNames() const {
    const std::string run = "touch " + Bait();
    return {"$(" + run + ")",    "`" + run + "`",    ";" + run + ";",      "|" + run + "#",
            "a\n" + run + "\nb", "'; " + run + ";'", "\"; " + run + ";\"", "&" + run + "&"};
  }
  void ExpectNothingRan() const { EXPECT_FALSE(place.Exists("/bait")); }

  TempDisk place;
  DescriptorCheck descriptors;
  Shims shims;
};

class GetDeviceClassTest : public ProbingTest {
 protected:
  int ClassOf(const std::string& content) {
    shims.SetFile("/sys/bus/usb/devices/1-2:1.0/bInterfaceClass", content);
    return UDiskService::GetDeviceClass("1-2");
  }
};

TEST_F(GetDeviceClassTest, ReadsTheFirstInterfaceOfThePort) {
  EXPECT_EQ(ClassOf("08\n"), 8);
  EXPECT_EQ(shims.CommandLines(), Lines{"cat /sys/bus/usb/devices/1-2:1.0/bInterfaceClass"});
}

TEST_F(GetDeviceClassTest, ReadsTheHexadecimalDigitsAsDecimal) {
  EXPECT_EQ(ClassOf("10\n"), 10);
  EXPECT_EQ(ClassOf("0e\n"), 0);
  EXPECT_EQ(ClassOf("3a\n"), 3);
  EXPECT_EQ(ClassOf("ff\n"), 0);
}

TEST_F(GetDeviceClassTest, ReadsAtMostThreeCharactersOfTheFirstLine) {
  EXPECT_EQ(ClassOf("12345\n"), 123);
  EXPECT_EQ(ClassOf("1\n23"), 1);
  EXPECT_EQ(ClassOf("\n08\n"), 0);
  EXPECT_EQ(ClassOf("08"), 8);
}

TEST_F(GetDeviceClassTest, IsUnknownWithoutOutput) {
  EXPECT_EQ(ClassOf(""), 0);
  EXPECT_EQ(UDiskService::GetDeviceClass("9-9"), 0);
}

TEST_F(GetDeviceClassTest, IsUnknownWhenTheCommandCannotBeStarted) {
  shims.SetFile("/sys/bus/usb/devices/1-2:1.0/bInterfaceClass", "08\n");
  const NoMoreCommands none;
  EXPECT_EQ(UDiskService::GetDeviceClass("1-2"), 0);
}

TEST_F(GetDeviceClassTest, ACommandOf255BytesRunsAndALongerOneDoesNot) {
  const size_t around = std::string("cat /sys/bus/usb/devices/:1.0/bInterfaceClass").size();
  const std::string longest(255 - around, 'p');
  UDiskService::GetDeviceClass((longest + "p").c_str());
  EXPECT_EQ(shims.CommandLines(), Lines{});
  UDiskService::GetDeviceClass(longest.c_str());
  EXPECT_EQ(shims.CommandLines(),
            Lines{"cat /sys/bus/usb/devices/" + longest + ":1.0/bInterfaceClass"});
}

TEST_F(GetDeviceClassTest, APortNameRunsNothing) {
  for (const std::string& name : HostileNames()) {
    EXPECT_EQ(UDiskService::GetDeviceClass(name.c_str()), 0);
    EXPECT_EQ(shims.Calls().back(),
              (Shims::Words{"cat", "/sys/bus/usb/devices/" + name + ":1.0/bInterfaceClass"}));
  }
  ExpectNothingRan();
}

class CheckRemovableTest : public ProbingTest {};

TEST_F(CheckRemovableTest, ReadsTheFlagOfTheBlockDevice) {
  shims.SetFile("/sys/block/sda/removable", "0\n");
  shims.SetFile("/sys/block/sdb/removable", "1\n");
  EXPECT_EQ(UDiskService::CheckRemovable("sda"), 0);
  EXPECT_EQ(UDiskService::CheckRemovable("sdb"), 1);
  EXPECT_EQ(shims.CommandLines(),
            (Lines{"cat /sys/block/sda/removable", "cat /sys/block/sdb/removable"}));
}

TEST_F(CheckRemovableTest, ReadsAtMostThreeCharacters) {
  shims.SetFile("/sys/block/sdb/removable", "1234\n");
  EXPECT_EQ(UDiskService::CheckRemovable("sdb"), 123);
}

TEST_F(CheckRemovableTest, IsUnknownWithoutOutput) {
  shims.SetFile("/sys/block/sdb/removable", "");
  EXPECT_EQ(UDiskService::CheckRemovable("sdb"), 0);
  EXPECT_EQ(UDiskService::CheckRemovable("sdz"), 0);
}

TEST_F(CheckRemovableTest, IsUnknownWhenTheCommandCannotBeStarted) {
  shims.SetFile("/sys/block/sdb/removable", "1\n");
  const NoMoreCommands none;
  EXPECT_EQ(UDiskService::CheckRemovable("sdb"), 0);
}

TEST_F(CheckRemovableTest, ACommandOf127BytesRunsAndALongerOneDoesNot) {
  const std::string longest(127 - std::string("cat /sys/block//removable").size(), 'd');
  UDiskService::CheckRemovable((longest + "d").c_str());
  EXPECT_EQ(shims.CommandLines(), Lines{});
  UDiskService::CheckRemovable(longest.c_str());
  EXPECT_EQ(shims.CommandLines(), Lines{"cat /sys/block/" + longest + "/removable"});
}

TEST_F(CheckRemovableTest, ADeviceNameRunsNothing) {
  for (const std::string& name : HostileNames()) {
    EXPECT_EQ(UDiskService::CheckRemovable(name.c_str()), 0);
    EXPECT_EQ(shims.Calls().back(), (Shims::Words{"cat", "/sys/block/" + name + "/removable"}));
  }
  ExpectNothingRan();
}

// ---- Partition table ----

class GetDevNameTest : public ProbingTest {
 protected:
  void SetTable(const std::string& lines) { shims.SetFile("/proc/partitions", lines); }
  void MakeRemovable(const std::string& disk) {
    shims.SetFile("/sys/block/" + disk + "/removable", "1\n");
  }
  /// The disk's name, as written to a zeroed buffer. Expects a result of 0.
  static std::string Name() {
    std::array<char, 8> out{};
    EXPECT_EQ(UDiskService::GetDevName(out.data()), 0);
    return out.data();
  }
  /// The commands that read the removable flags of disks.
  [[nodiscard]] Lines Asked() const {
    Lines lines = shims.CommandLines();
    std::erase(lines, "cat /proc/partitions");
    return lines;
  }

  static constexpr const char* kTable =
      "major minor  #blocks  name\n\n"
      " 254        0  268435456 vda\n"
      "   8        0  500107608 sda\n"
      "   8        1  500106543 sda1\n"
      "   8       16   15728640 sdb\n"
      "   8       17   15727616 sdb1\n"
      "   8       32   15727616 sdc\n";
};

TEST_F(GetDevNameTest, FindsTheFirstRemovableDisk) {
  SetTable(kTable);
  MakeRemovable("sdb");
  MakeRemovable("sdc");
  EXPECT_EQ(Name(), "sdb");
  EXPECT_EQ(Asked(), (Lines{"cat /sys/block/sda/removable", "cat /sys/block/sda/removable",
                            "cat /sys/block/sdb/removable"}));
}

TEST_F(GetDevNameTest, APartitionNamesItsDisk) {
  SetTable("   8       17   15727616 sdb1\n");
  MakeRemovable("sdb");
  EXPECT_EQ(Name(), "sdb");
}

TEST_F(GetDevNameTest, WithoutARemovableDiskReturnsTheLastOneItLookedAt) {
  SetTable(kTable);
  EXPECT_EQ(Name(), "sdc");
}

TEST_F(GetDevNameTest, OnlyTheNumberOneMeansRemovable) {
  SetTable("8 0 1 sda\n8 16 1 sdb\n");
  shims.SetFile("/sys/block/sda/removable", "2\n");
  EXPECT_EQ(Name(), "sdb");
}

TEST_F(GetDevNameTest, NothingIsWrittenWithoutAMatchingDisk) {
  for (const char* table : {"", "major minor  #blocks  name\n\n 254 0 268435456 vda\n", "sdb\n"}) {
    SetTable(table);
    EXPECT_EQ(Name(), "") << table;
  }
  EXPECT_EQ(Asked(), Lines{});
}

TEST_F(GetDevNameTest, WritesThreeBytesAndNoTerminator) {
  SetTable("8 17 15727616 sdb1\n");
  std::array<char, 5> out{'x', 'x', 'x', 'x', 'x'};
  UDiskService::GetDevName(out.data());
  EXPECT_EQ(std::string(out.data(), out.size()), "sdbxx");
}

TEST_F(GetDevNameTest, AShortNameIsCopiedWhole) {
  SetTable("8 16 1 sd");
  EXPECT_EQ(Name(), "sd");
  SetTable("sd ");
  EXPECT_EQ(Name(), "");
}

TEST_F(GetDevNameTest, TakesTheLastWordOfALineThatContainsSdAnywhere) {
  SetTable("8 16 sd nvme0n1\n");
  EXPECT_EQ(Name(), "nvm");
}

TEST_F(GetDevNameTest, ALineIsSplitAfter1023Bytes) {
  SetTable("8 0 1 sda" + std::string(1100, 'y') + " sdb\n");
  EXPECT_EQ(Name(), "sdb");
  EXPECT_EQ(Asked(), (Lines{"cat /sys/block/sda/removable", "cat /sys/block/sdb/removable"}));
}

TEST_F(GetDevNameTest, ANameRunsNothing) {
  shims.Add("x");
  SetTable("sd ;x;\nsd `x`\nsd |x#\n");
  Name();
  EXPECT_EQ(Asked(), (Lines{"cat /sys/block/;x;/removable", "cat /sys/block/`x`/removable",
                            "cat /sys/block/|x#/removable"}));
}

TEST_F(GetDevNameTest, IsZeroWhenTheCommandCannotBeStarted) {
  SetTable(kTable);
  const NoMoreCommands none;
  EXPECT_EQ(Name(), "");
}

// ---- blkid ----

/// The list that GetDeviceLabel fills.
struct Partitions : UdiskDevice {
  Partitions() : UdiskDevice{} {}
  ~Partitions() { std::free(infos); }
  Partitions(const Partitions&) = delete;
  Partitions& operator=(const Partitions&) = delete;
};

class GetDeviceLabelTest : public ProbingTest {
 protected:
  using Row = std::tuple<std::string, std::string, std::string>;

  /// Makes blkid print `output`. @return device, label and type of the partitions found
  std::vector<Row> Find(const std::string& output, const char* device = "sdb1") {
    shims.AddPrinting("blkid", output);
    Partitions found;
    EXPECT_EQ(UDiskService::GetDeviceLabel(device, &found), 0);
    std::vector<Row> rows;
    std::for_each_n(found.infos, found.count, [&](const UDiskInfo& info) {
      rows.emplace_back(info.devName, info.label, info.type);
      EXPECT_STREQ(info.mountPoint, "");
      EXPECT_EQ(info.reserved, 0U);
    });
    return rows;
  }
  std::vector<Row> FindLine(const std::string& rest) { return Find("/dev/sdb1: " + rest + "\n"); }

  static std::vector<Row> One(const std::string& label, const std::string& type) {
    return {{"/dev/sdb1", label, type}};
  }
};

/// The pipes that this process has open.
std::set<int> OpenPipes() {
  std::set<int> pipes;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry.path(), gone);
    if (target.starts_with("pipe:")) pipes.insert(std::stoi(entry.path().filename()));
  }
  return pipes;
}

TEST_F(GetDeviceLabelTest, TheOutputOfItsCommandIsNotPassedToOtherPrograms) {
  shims.AddWaiting("blkid");
  const std::set<int> before = OpenPipes();
  auto probing = std::async(std::launch::async, [] {
    UdiskDevice found{};
    return UDiskService::GetDeviceLabel("sdb1", &found);
  });
  const auto NewPipes = [&] {
    std::vector<int> pipes;
    std::ranges::set_difference(OpenPipes(), before, std::back_inserter(pipes));
    return pipes;
  };
  // Just after the command has started, the module still has the end that the command writes to.
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while ((shims.Calls().empty() || NewPipes().size() != 1) &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::yield();
  }
  const std::vector<int> pipes = NewPipes();
  EXPECT_EQ(pipes.size(), 1U);
  for (const int pipe : pipes) EXPECT_EQ(fcntl(pipe, F_GETFD), FD_CLOEXEC);
  shims.Release();
  EXPECT_EQ(probing.get(), 0);
}

TEST_F(GetDeviceLabelTest, ListsThePartitionsOfTheDiskInTheirOrder) {
  EXPECT_EQ(Find(R"(/dev/vda: UUID="1" TYPE="ext4"
/dev/sdb2: LABEL="SECOND" UUID="2" TYPE="vfat"
/dev/sda1: LABEL="OTHER" UUID="3" TYPE="ntfs"
/dev/sdb1: LABEL="FIRST" BLOCK_SIZE="512" UUID="4" TYPE="ntfs" PARTUUID="5"
)"),
            (std::vector<Row>{{"/dev/sdb2", "SECOND", "vfat"}, {"/dev/sdb1", "FIRST", "ntfs"}}));
  EXPECT_EQ(shims.Calls(), std::vector<Shims::Words>{{"blkid"}});
}

TEST_F(GetDeviceLabelTest, TheLabelComesBeforeTheUuid) {
  EXPECT_EQ(FindLine(R"(LABEL="DATA" UUID="12-34" TYPE="vfat")"), One("DATA", "vfat"));
  EXPECT_EQ(FindLine(R"(UUID="12-34" LABEL="DATA" TYPE="vfat")"), One("DATA", "vfat"));
}

TEST_F(GetDeviceLabelTest, TheUuidReplacesAMissingLabel) {
  EXPECT_EQ(FindLine(R"(UUID="12-34" TYPE="vfat")"), One("12-34", "vfat"));
  EXPECT_EQ(FindLine(R"(LABEL="" UUID="12-34" TYPE="vfat")"), One("12-34", "vfat"));
  EXPECT_EQ(FindLine(R"(LABEL= UUID="12-34" TYPE="vfat")"), One("12-34", "vfat"));
}

TEST_F(GetDeviceLabelTest, APartitionWithoutLabelAndUuidIsNotListed) {
  EXPECT_EQ(FindLine(R"(TYPE="vfat")"), std::vector<Row>{});
  EXPECT_EQ(FindLine(R"(LABEL="" UUID="" TYPE="vfat")"), std::vector<Row>{});
}

TEST_F(GetDeviceLabelTest, ALineWithoutATypeIsNotListed) {
  EXPECT_EQ(FindLine(R"(LABEL="DATA" UUID="12-34")"), std::vector<Row>{});
}

TEST_F(GetDeviceLabelTest, AnEmptyTypeIsListed) {
  EXPECT_EQ(FindLine(R"(LABEL="DATA" TYPE="")"), One("DATA", ""));
  EXPECT_EQ(FindLine(R"(LABEL="DATA" TYPE=)"), One("DATA", ""));
}

TEST_F(GetDeviceLabelTest, WhatFollowsTheTypeIsNotRead) {
  EXPECT_EQ(FindLine(R"(UUID="12-34" TYPE="vfat" LABEL="LATE" PARTLABEL="LATER")"),
            One("12-34", "vfat"));
  EXPECT_EQ(FindLine(R"(TYPE="vfat" LABEL="LATE")"), std::vector<Row>{});
}

TEST_F(GetDeviceLabelTest, APartlabelCountsAsALabel) {
  EXPECT_EQ(FindLine(R"(LABEL="DATA" PARTLABEL="EFI" TYPE="vfat")"), One("EFI", "vfat"));
}

TEST_F(GetDeviceLabelTest, APartuuidCountsAsAUuid) {
  EXPECT_EQ(FindLine(R"(PARTUUID="ab-01" TYPE="vfat")"), One("ab-01", "vfat"));
}

TEST_F(GetDeviceLabelTest, APttypeCountsAsTheTypeAndEndsTheLine) {
  EXPECT_EQ(Find("/dev/sdb: PTUUID=\"c0ffee\" PTTYPE=\"dos\" TYPE=\"ntfs\"\n"),
            (std::vector<Row>{{"/dev/sdb", "c0ffee", "dos"}}));
  EXPECT_EQ(FindLine(R"(SEC_TYPE="msdos" LABEL="DATA" TYPE="vfat")"), std::vector<Row>{});
}

TEST_F(GetDeviceLabelTest, ALabelEndsAtItsFirstBlank) {
  EXPECT_EQ(FindLine(R"(LABEL="MY DISK" UUID="12-34" TYPE="ntfs")"), One("MY", "ntfs"));
}

TEST_F(GetDeviceLabelTest, ALabelWithTypeInItCountsAsBoth) {
  EXPECT_EQ(FindLine(R"(LABEL="TYPE=x" TYPE="ntfs")"), One("TYPE=x", "TYPE=x"));
}

TEST_F(GetDeviceLabelTest, AValueWithoutAClosingQuoteExtendsToTheEndOfItsToken) {
  EXPECT_EQ(FindLine(R"(LABEL="DATA TYPE="ntfs")"), One("DATA", "ntfs"));
  EXPECT_EQ(FindLine(R"(LABEL="DATA" TYPE="ntfs)"), One("DATA", "ntfs\n"));
  EXPECT_EQ(FindLine(R"(LABEL="LONGER" PARTLABEL="abc TYPE="ntfs")"), One("abcGER", "ntfs"));
}

TEST_F(GetDeviceLabelTest, AValueLongerThanItsFieldIsCutTo31Bytes) {
  const std::string name = "/dev/sdb" + std::string(40, '1');
  const std::string label(40, 'L');
  const std::string type(40, 'T');
  const std::vector<Row> cut{{name.substr(0, 31), label.substr(0, 31), type.substr(0, 31)}};
  EXPECT_EQ(Find(name + ": LABEL=\"" + label + "\" TYPE=\"" + type + "\"\n"), cut);
  EXPECT_EQ(Find(name + ": UUID=\"" + label + "\" TYPE=\"" + type + "\n"), cut);
}

TEST_F(GetDeviceLabelTest, TheDeviceIsTheTextBeforeTheFirstColon) {
  EXPECT_EQ(Find("/dev/sdb1:LABEL=\"A:B\" TYPE=\"ntfs\"\n"), One("A:B", "ntfs"));
  EXPECT_EQ(Find("::/dev/sdb1: LABEL=\"A\" TYPE=\"ntfs\"\n"), One("A", "ntfs"));
  EXPECT_EQ(Find("/dev/sdb1 LABEL=\"A\" TYPE=\"ntfs\"\n"), std::vector<Row>{});
}

TEST_F(GetDeviceLabelTest, TheKeyIsFoundAnywhereInALine) {
  EXPECT_EQ(Find("/dev/sda1: LABEL=\"sdb\" TYPE=\"ntfs\"\n"),
            (std::vector<Row>{{"/dev/sda1", "sdb", "ntfs"}}));
}

TEST_F(GetDeviceLabelTest, ADamagedLineDoesNotAffectOthers) {
  EXPECT_EQ(Find("sdbTYPE=\n\n:::sdb TYPE=\"\n\"sdb\" : = \" TYPE= \n"
                 "/dev/sdb1: LABEL=\"DATA\" TYPE=\"ntfs\"\n"),
            One("DATA", "ntfs"));
}

TEST_F(GetDeviceLabelTest, ALineIsSplitAfter1023Bytes) {
  const std::string head = "/dev/sdb1: LABEL=\"DATA\" ";
  const std::string filling(1023 - head.size(), 'y');
  EXPECT_EQ(Find(head + filling + "TYPE=\"ntfs\"\n"), std::vector<Row>{});
  EXPECT_EQ(Find(head + filling.substr(12) + " TYPE=\"ntfs\"\n"), One("DATA", "ntfs"));
}

TEST_F(GetDeviceLabelTest, TheKeyIsTheThreeCharactersBeforeTheLast) {
  const std::string output = "/dev/sdb1: LABEL=\"DATA\" TYPE=\"ntfs\"\n";
  for (const char* device : {"sdb1", "/dev/sdb9", "sdb10", "sdb", "sd", "s", ""}) {
    EXPECT_EQ(Find(output, device), One("DATA", "ntfs")) << device;
  }
  for (const char* device : {"sdc1", "sdb11x", "xyz", "xy"}) {
    EXPECT_EQ(Find(output, device), std::vector<Row>{}) << device;
  }
}

TEST_F(GetDeviceLabelTest, LogsTheKeyAndEveryLine) {
  Find("/dev/vda: UUID=\"1\" TYPE=\"ext4\"\nlast");
  EXPECT_EQ(Log().Messages(), (Lines{"dev:sdb, resultStr:/dev/vda: UUID=\"1\" TYPE=\"ext4\"\n",
                                     "dev:sdb, resultStr:last"}));
  const LogLine line = Log().Lines().at(0);
  EXPECT_EQ(line.level, kDebug);
  EXPECT_EQ(line.file, "service.cpp");
  EXPECT_EQ(line.function, "GetDeviceLabel");
}

/// `count` partitions of sdb, labelled with their numbers from 0.
std::string ManyPartitions(int count) {
  std::string output;
  for (int i = 0; i < count; ++i) {
    output +=
        "/dev/sdb" + std::to_string(i) + ": LABEL=\"" + std::to_string(i) + "\" TYPE=\"ntfs\"\n";
  }
  return output;
}

TEST_F(GetDeviceLabelTest, TheCountWrapsAt256Partitions) {
  const auto all = Find(ManyPartitions(255));
  ASSERT_EQ(all.size(), 255U);
  EXPECT_EQ(all.back(), (Row{"/dev/sdb254", "254", "ntfs"}));
  EXPECT_EQ(Find(ManyPartitions(256)), std::vector<Row>{});
  const auto wrapped = Find(ManyPartitions(258));
  ASSERT_EQ(wrapped.size(), 2U);
  EXPECT_EQ(wrapped.back(), (Row{"/dev/sdb1", "1", "ntfs"}));
}

TEST_F(GetDeviceLabelTest, WithoutPartitionsTheListIsUnchanged) {
  for (const char* output : {"", "/dev/sda1: LABEL=\"DATA\" TYPE=\"ntfs\"\n"}) {
    shims.AddPrinting("blkid", output);
    UDiskInfo earlier{};
    UdiskDevice list{.count = 7, .infos = &earlier};
    EXPECT_EQ(UDiskService::GetDeviceLabel("sdb1", &list), 0);
    EXPECT_EQ(list.count, 7);
    EXPECT_EQ(list.infos, &earlier);
  }
}

TEST_F(GetDeviceLabelTest, AnEarlierListIsReplacedAndNotFreed) {
  shims.AddPrinting("blkid", "/dev/sdb1: LABEL=\"DATA\" TYPE=\"ntfs\"\n");
  UDiskInfo earlier{};  // not from malloc: freeing it would end the test
  Partitions list;
  list.count = 7;
  list.infos = &earlier;
  EXPECT_EQ(UDiskService::GetDeviceLabel("sdb1", &list), 0);
  EXPECT_EQ(list.count, 1);
  ASSERT_NE(list.infos, &earlier);
}

TEST_F(GetDeviceLabelTest, WithoutABlkidProgramNothingIsFound) {
  shims.Add("blkid", 127);
  UdiskDevice list{};
  EXPECT_EQ(UDiskService::GetDeviceLabel("sdb1", &list), 0);
  EXPECT_EQ(list.infos, nullptr);
}

TEST_F(GetDeviceLabelTest, WhatAFailingBlkidPrintedCounts) {
  shims.AddPrinting("blkid",
                    R"(/dev/sdb1: LABEL="STICK" TYPE="vfat")"
                    "\n",
                    2);
  UdiskDevice device = {};
  EXPECT_EQ(UDiskService::GetDeviceLabel("sdb1", &device), 0);
  ASSERT_EQ(device.count, 1);
  EXPECT_STREQ(device.infos[0].label, "STICK");
  std::free(device.infos);
}

TEST_F(CheckRemovableTest, WhatAFailingCommandPrintedCounts) {
  shims.AddPrinting("cat", "1\n", 1);
  EXPECT_EQ(UDiskService::CheckRemovable("sdb"), 1);
  EXPECT_EQ(UDiskService::GetDeviceClass("1-2"), 1);
}

TEST_F(GetDeviceLabelTest, FailsWhenBlkidCannotBeStarted) {
  shims.AddPrinting("blkid", "/dev/sdb1: LABEL=\"DATA\" TYPE=\"ntfs\"\n");
  UdiskDevice list{};
  {
    const NoMoreCommands none;
    EXPECT_EQ(UDiskService::GetDeviceLabel("sdb1", &list), -1);
  }
  EXPECT_EQ(list.infos, nullptr);
  EXPECT_EQ(Log().Messages(), Lines{R"(excute blkid failed\n)"});
  EXPECT_EQ(Log().Lines().at(0).level, kError);
}

}  // namespace
}  // namespace cpd::test
