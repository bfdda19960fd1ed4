// Probing and local mounting. An input is the output of the commands that the service runs. No
// command is really run; instead, a shell's rules must split each into the words it was made of.
#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "finding.h"
#include "jail.h"
#include "operator.h"
#include "service.h"
#include "support/fake_host.h"
#include "target.h"

namespace cpd::fuzz {

namespace {

using Words = std::vector<std::string>;

/// Separates the parts of an input.
constexpr char kPartEnd = '\x1d';

struct Output {
  std::string blkid;
  std::string partitions;
  std::string number;  ///< of any file in sysfs
  bool none = false;   ///< every command fails to start
};
Output g_output;
std::vector<std::string> g_commands;

/// The words into which a shell splits a command. Anything else that a shell acts on is a finding.
Words Split(const std::string& command) {
  Words words(1);
  bool quoted = false;
  for (size_t i = 0; i < command.size(); ++i) {
    const char c = command[i];
    if (c == '\'') {
      quoted = !quoted;
    } else if (quoted) {
      words.back() += c;
    } else if (c == '\\' && i + 1 < command.size()) {
      words.back() += command[++i];
    } else if (c == ' ') {
      words.emplace_back();
    } else {
      const bool plain = std::isalnum(static_cast<unsigned char>(c)) != 0 ||
                         std::string_view("._-+:@%,=/").find(c) != std::string_view::npos;
      if (!plain) Finding("a shell would obey: " + command);
      words.back() += c;
    }
  }
  Expect(!quoted, "a command's quotes are closed");
  return words;
}

/// The commands since the last call of this function, as words.
std::vector<Words> TakeCommands() {
  std::vector<Words> all;
  for (const std::string& command : std::exchange(g_commands, {})) {
    Expect(command.size() < 256, "a command fits its buffer");
    all.push_back(Split(command));
  }
  return all;
}

/// Expects no other command. There may be none, because it was too long.
void ExpectOnly(const Words& command) {
  for (const Words& words : TakeCommands()) {
    Expect(words == command, "only the expected command runs");
  }
}

void CheckFields(const UDiskInfo& info) {
  for (const std::string_view field : {std::string_view(info.devName, sizeof info.devName),
                                       std::string_view(info.label, sizeof info.label),
                                       std::string_view(info.type, sizeof info.type),
                                       std::string_view(info.mountPoint, sizeof info.mountPoint)}) {
    Expect(field.find('\0') < 32, "a field ends within 31 bytes");
  }
  Expect(info.label[0] != '\0', "a partition without a label is not listed");
}

void ReadNumbers(const std::string& device) {
  UDiskService::GetDeviceClass(device.c_str());
  ExpectOnly({"cat", "/sys/bus/usb/devices/" + device + ":1.0/bInterfaceClass"});
  UDiskService::CheckRemovable(device.c_str());
  ExpectOnly({"cat", "/sys/block/" + device + "/removable"});
}

void FindDisk() {
  char name[4] = {'\0', '\0', '\0', 'x'};
  UDiskService::GetDevName(name);
  Expect(name[3] == 'x', "a disk's name has three bytes");
  for (const Words& words : TakeCommands()) {
    Expect(words.size() == 2 && words[0] == "cat", "files are read with cat");
  }
}

void TakeValue(const std::string& source) {
  char field[33] = {};
  field[32] = 'x';
  const int count = UDiskService::GetString(source.c_str(), field);
  Expect(field[32] == 'x' && field[31] == '\0' && count <= 31, "a value is cut to 31 bytes");
}

void MountAndUnmount(const std::string& device) {
  test::FakeDevice host;
  UDiskOperator udisk(&host);
  UDiskService service(&host, &udisk);
  service.mUdiskDevice = static_cast<UdiskDevice*>(std::calloc(1, sizeof(UdiskDevice)));
  UdiskDevice& disk = *service.mUdiskDevice;
  UDiskService::GetDeviceLabel(device.c_str(), &disk);
  ExpectOnly({"blkid", ""});
  for (uint8_t i = 0; i < disk.count; ++i) {
    UDiskInfo& info = disk.infos[i];
    CheckFields(info);
    UDiskService::MountLocal(&info);
    CheckFields(info);
    for (const Words& words : TakeCommands()) {
      const bool unmount = words[0] == "umount" && words.size() == 2;
      const bool mount = (words[0] == "mount" || words[0] == "ntfs-3g") && words.size() == 9;
      Expect(unmount || (mount && words[1] == info.devName), "a partition is mounted, no more");
    }
  }
  service.UmountLocal();
  for (const Words& words : TakeCommands()) {
    Expect(words.size() == 3 && words[2].starts_with("/media/"), "directories of media only");
  }
}

}  // namespace

void Run(Input in) {
  test::Log().Clear();
  EmptyJail();
  mkdir("/media", 0755);
  g_commands.clear();
  g_output = {};
  g_output.none = in.Take<char>() == 'x';
  const std::string device(in.TakeUntil(kPartEnd));
  g_output.blkid = in.TakeUntil(kPartEnd);
  g_output.partitions = in.TakeUntil(kPartEnd);
  g_output.number = in.TakeRest();

  ReadNumbers(device.substr(0, device.find('\0')));  // for the service the name ends at a NUL
  FindDisk();
  TakeValue(g_output.blkid);
  MountAndUnmount(device);
}

}  // namespace cpd::fuzz

// Replace the functions that run commands.
extern "C" {

FILE* popen(const char* command, const char* /*mode*/) {
  using namespace cpd::fuzz;
  if (g_output.none) return nullptr;
  g_commands.emplace_back(command);
  const std::string_view text(command);
  std::string& output = text.starts_with("blkid")                  ? g_output.blkid
                        : text.starts_with("cat /proc/partitions") ? g_output.partitions
                                                                   : g_output.number;
  return fmemopen(output.data(), output.size(), "r");
}

int pclose(FILE* stream) { return std::fclose(stream); }

int system(const char* command) {
  using namespace cpd::fuzz;
  if (g_output.none) return -1;
  g_commands.emplace_back(command);
  return static_cast<int>(g_output.number.size() % 2);
}
}
