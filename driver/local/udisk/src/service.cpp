#include "service.h"

#include <json/json.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "caught.h"
#include "cpd/packet.h"
#include "operator.h"
#include "shell.h"
#include "thread_signals.h"
#include "udisk_log.h"
#include "wire.h"

namespace cpd {

// ---- Life ----

UDiskService::UDiskService(CpdDevice* device, UDiskOperator* udisk_operator)
    : mDevice(device), mOperator(udisk_operator) {}

int UDiskService::StartLoop() {
  UDISK_DEBUG("Udisk service StartLoop\n");
  mThread = g_thread_try_new("udisk_service_thread", &UDiskService::ServiceThread, this, nullptr);
  if (mThread == nullptr) return -1;
  mStatus = kStarted;
  return 0;
}

int UDiskService::StopLoop() {
  UDISK_DEBUG("client udisk StopLoop\n");
  mStatus = kStopRequested;
  if (mThread != nullptr) g_thread_join(mThread);
  mThread = nullptr;
  return 0;
}

// ---- Thread ----

namespace {

constexpr size_t kMostTextBytes = 255;

/// `text` up to its first NUL, and 255 bytes of it at most.
std::string Cut(const std::string& text) {
  return text.substr(0, std::min(text.find('\0'), kMostTextBytes));
}

/// The parsed text; null when it is not JSON.
Json::Value ParseJson(const std::string& text) {
  Json::Value root;
  std::string errors;
  try {
    std::istringstream in(text);
    if (Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) return root;
  } catch (const Json::Exception& error) {  // nested too deeply
    errors = error.what();
  }
  UDISK_ERROR_OF(ServiceThread, "Failed to parse JSON errors: %s", errors.c_str());
  return {};
}

bool HasText(const Json::Value& object, const char* key) {
  return object.isMember(key) && object[key].isString();
}

}  // namespace

void* UDiskService::ServiceThread(void* service) {
  auto* const self = static_cast<UDiskService*>(service);
  BlockSignalsOfWrites();
  UDISK_DEBUG("client udisk service Start ..........\n");
  if (self->mStatus == kStopRequested) {
    UDISK_ERROR("new service thread error, status: %d\n", int{kStopRequested});
    return nullptr;
  }
  UDISK_DEBUG("client udisk service x86 \n");
  try {
    self->Announce();
  } catch (...) {
    UDISK_ERROR("client udisk service failed: %s", CaughtText());
  }
  return nullptr;
}

void UDiskService::Announce() {
  const std::shared_ptr<CpdDeviceBase> base = mDevice->getDevBase();
  if (base == nullptr) {
    UDISK_ERROR_OF(ServiceThread, "getDevBase error usb device.");
    return;
  }
  const std::string text = base->GetDeviceParams();
  UDISK_DEBUG_OF(ServiceThread, "bus=%d,addr=%d, params:%s", int{base->bus}, int{base->addr},
                 text.c_str());
  UDISK_DEBUG_OF(ServiceThread, "udisk soft client");
  const DiskParams params = ReadParams(text);
  // Contract: this line shows all parameters under the word path.
  UDISK_DEBUG_OF(ServiceThread, "path: %s, lable: %s", Cut(text).c_str(), params.label.c_str());
  mOperator->SetRootPath(params.letter.c_str(), params.label.c_str());
  SetReadSmallFileTrubo();
  MountRemote(params.name.c_str(), mDevice);
}

UDiskService::DiskParams UDiskService::ReadParams(const std::string& text) {
  const Json::Value object = ParseJson(text);
  if (!object.isObject() || !HasText(object, "letter") || !HasText(object, "label") ||
      !HasText(object, "name")) {
    return {};
  }
  const Json::Value& read_only = object["readOnly"];
  if ((read_only.isNumeric() || read_only.isBool()) && read_only.isConvertibleTo(Json::intValue)) {
    UpdateReadOnly(static_cast<uint8_t>(read_only.asInt()));
  }
  return {.letter = Cut(object["letter"].asString()),
          .label = Cut(object["label"].asString()),
          .name = Cut(object["name"].asString())};
}

int UDiskService::UpdateReadOnly(uint8_t read_only) {
  mReadOnly = read_only;
  UDISK_DEBUG("udisk is read only %d", int{read_only});
  return 0;
}

// ---- Unsolicited packets ----

namespace {

constexpr uint32_t kNoticeRequestId = 6666;
constexpr uint32_t kAnnounceRequestId = 1234;
constexpr size_t kPacketSize = 128;

}  // namespace

void UDiskService::SetReadSmallFileTrubo() {
  auto packet = std::make_unique<CpdPacket>(kPacketSize);
  if (packet->header == nullptr) return;  // no memory for it
  packet->InitHeader(static_cast<uint8_t>(mDevice->GetDevId()), kSmallFileNotice, kNoticeRequestId);
  mDevice->SendPacket(std::move(packet), -1);
}

int UDiskService::MountRemote(const char* name, CpdDevice* device) {
  if (device != mDevice) {
    UDISK_DEBUG("udisk already plugout, mDevice: %p, device: %p", static_cast<void*>(mDevice),
                static_cast<void*>(device));
    return -1;
  }
  const std::string label = Cut(name);
  if (mDevice->getDevBase() == nullptr) {
    UDISK_ERROR("getDevBase error  usb device. ");
    return -1;
  }
  const uint8_t read_only = mReadOnly;
  UDISK_DEBUG("client udisk mount tmpLabel: %s,readOnly:%d\n", label.c_str(), int{read_only});

  const MountHead head{.name_length = static_cast<uint16_t>(label.size())};
  const size_t size = CPD_PACKET_HEADER_SIZE + sizeof head + label.size() + 1 + sizeof read_only;
  auto packet = std::make_unique<CpdPacket>(std::max(size, kPacketSize));
  packet->InitHeader(static_cast<uint8_t>(mDevice->GetDevId()), kMountRemote, kAnnounceRequestId);
  packet->AppendPayload(&head, sizeof head);
  packet->AppendPayload(label.c_str(), static_cast<uint32_t>(label.size() + 1));
  packet->AppendPayload(&read_only, sizeof read_only);
  // Contract: this line shows the width of the length prefix as the header size.
  UDISK_DEBUG("packet header size: %d, payload size: %d, packet size: %d\n",
              static_cast<int>(sizeof head), static_cast<int>(packet->PayloadSize()),
              packet->header != nullptr ? static_cast<int>(packet->header->packetLen) : 0);
  // Without memory there is nothing to send.
  const int result = packet->header != nullptr ? mDevice->SendPacket(std::move(packet), -1) : -1;
  UDISK_DEBUG("client udisk mount ret: %d\n", result);
  return result;
}

// ---- Probing ----

namespace {

constexpr size_t kMostFieldBytes = 31;
constexpr size_t kDiskNameBytes = 3;

void CopyToField(std::string_view text, char* field) {
  field[text.copy(field, kMostFieldBytes)] = '\0';
}

bool Contains(const char* text, const char* part) { return std::strstr(text, part) != nullptr; }

/// The decimal number of up to three digits at the start of a sysfs file; 0 when there is none.
int ReadNumber(const std::string& path, size_t command_size) {
  CommandOutput output("cat " + ShellWord(path), command_size);
  std::array<char, 4> digits{};
  return output.ReadLine(&digits) ? std::atoi(digits.data()) : 0;
}

/// The three characters before the last one, such as sdb for sdb1; fewer if the name is shorter.
std::string MatchKey(std::string_view device) {
  device.remove_suffix(std::min<size_t>(device.size(), 1));
  device.remove_prefix(device.size() - std::min(device.size(), kDiskNameBytes));
  return std::string(device);
}

/// Reads a line of blkid. Contract: keys are found as substrings, so PARTLABEL counts as LABEL,
/// PARTUUID as UUID and PTTYPE as TYPE.
UDiskInfo ParsePartition(char* line) {
  UDiskInfo info{};
  char* rest = nullptr;
  if (const char* name = strtok_r(line, ":", &rest)) CopyToField(name, info.devName);
  while (const char* token = strtok_r(nullptr, " ", &rest)) {
    if (Contains(token, "LABEL=")) UDiskService::GetString(token, info.label);
    if (Contains(token, "UUID=") && info.label[0] == '\0') {
      UDiskService::GetString(token, info.label);
    }
    if (Contains(token, "TYPE=")) {
      UDiskService::GetString(token, info.type);
      break;
    }
  }
  return info;
}

}  // namespace

int UDiskService::GetString(const char* source, char* destination) {
  const char* value = std::strchr(source, '"');
  if (value == nullptr) return 0;
  const std::string_view rest(value + 1);
  const std::string_view quoted = rest.substr(0, rest.find('"'));
  const size_t count = quoted.copy(destination, kMostFieldBytes);
  if (count < rest.size()) destination[count] = '\0';
  return static_cast<int>(count);
}

int UDiskService::GetDeviceClass(const char* port) {
  // Contract: the two hexadecimal digits in the file are read as decimal ones, so 0e reads as 0.
  return ReadNumber("/sys/bus/usb/devices/" + std::string(port) + ":1.0/bInterfaceClass",
                    kCommandSize);
}

int UDiskService::CheckRemovable(const char* block_device) {
  return ReadNumber("/sys/block/" + std::string(block_device) + "/removable", 128);
}

int UDiskService::GetDevName(char* out) {
  CommandOutput partitions("cat /proc/partitions");
  CommandOutput::Line line{};
  while (partitions.ReadLine(&line)) {
    const char* blank = std::strrchr(line.data(), ' ');
    if (blank == nullptr || !Contains(line.data(), "sd")) continue;
    char name[kDiskNameBytes + 1]{};
    std::string_view(blank + 1).copy(name, kDiskNameBytes);
    std::memcpy(out, name, kDiskNameBytes);
    if (CheckRemovable(name) == 1) break;
  }
  return 0;
}

int UDiskService::GetDeviceLabel(const char* device, UdiskDevice* out) {
  const std::string key = MatchKey(device);
  CommandOutput blkid("blkid ");
  if (!blkid.started()) {
    UDISK_ERROR("excute blkid failed\n");
    return -1;
  }
  std::vector<UDiskInfo> found;
  CommandOutput::Line line{};
  while (blkid.ReadLine(&line)) {
    UDISK_DEBUG("dev:%s, resultStr:%s", key.c_str(), line.data());
    if (!Contains(line.data(), key.c_str()) || !Contains(line.data(), "TYPE=")) continue;
    const UDiskInfo info = ParsePartition(line.data());
    if (info.label[0] != '\0') found.push_back(info);
  }
  if (found.empty()) return 0;

  // Contract: the count is cut to 8 bits, so 256 partitions count as none.
  const auto count = static_cast<uint8_t>(found.size());
  auto* const infos = static_cast<UDiskInfo*>(std::malloc(count * sizeof(UDiskInfo)));
  if (infos == nullptr) return -1;
  std::copy_n(found.begin(), count, infos);
  out->count = count;
  out->infos = infos;  // Contract: the array that it held is not freed; it may be the host's.
  return 0;
}

// ---- Local mount ----

int UDiskService::MountLocal(UDiskInfo* info) {
  const std::string directory = std::string("/media") + "/" + info->label;
  struct stat found {};
  if (stat(directory.c_str(), &found) != 0 || !S_ISDIR(found.st_mode)) {
    const int made = mkdir(directory.c_str(), 0777);
    UDISK_DEBUG("mkdir res: %d", made);
  }
  const char* const program = std::strcmp(info->type, "ntfs") == 0 ? "ntfs-3g" : "mount";
  RunCommand("umount " + ShellWord(directory));
  const int result =
      RunCommand(std::string(program) + " " + ShellWord(info->devName) + " " +
                 ShellWord(directory) + " -o dmask=0000 -o fmask=0000 -o iocharset=utf8");
  if (result != 0) UDISK_ERROR("udisk mount errno: %d", errno);
  // Contract: the directory is cut to 31 bytes here, so UmountLocal acts on the cut name.
  CopyToField(directory, info->mountPoint);
  return result;
}

int UDiskService::UmountLocal() {
  if (mUdiskDevice == nullptr) return -1;
  for (uint8_t i = 0; i < mUdiskDevice->count; ++i) {
    const std::string directory = ShellWord(mUdiskDevice->infos[i].mountPoint);
    // Contract: the directory is removed even when the unmount failed.
    for (const char* command : {"umount -l ", "rm -rf "}) CommandOutput{command + directory};
  }
  std::free(mUdiskDevice->infos);
  std::free(mUdiskDevice);
  mUdiskDevice = nullptr;
  mOperator->SetRootPath(nullptr, nullptr);
  return 0;
}

// ---- Not supported ----

void UDiskService::udisk_removable_func(void* /*context*/, PeriphDevice* /*device*/) {}

int UDiskService::GetDeviceInfo(CpdDevice* /*device*/, UdiskDevice* /*out*/) { return -1; }

void GetUdiskInfo(void* service, CpdDevice* device, UDiskOperator* udisk_operator) {
  if (service == nullptr || device == nullptr || udisk_operator == nullptr) {
    UDISK_ERROR("pThis or device or operator is NULL");
  }
}

}  // namespace cpd
