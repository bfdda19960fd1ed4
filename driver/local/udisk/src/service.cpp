#include "service.h"

#include <json/json.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <memory>
#include <sstream>
#include <string>

#include "cpd/packet.h"
#include "operator.h"
#include "udisk_log.h"
#include "wire.h"

namespace cpd {

// ---- Life ----

UDiskService::UDiskService(CpdDevice* device, UDiskOperator* udisk_operator)
    : mDevice(device), mOperator(udisk_operator) {}

int UDiskService::StartLoop() {
  LOG_DEBUG("Udisk service StartLoop\n");
  mThread = g_thread_try_new("udisk_service_thread", &UDiskService::ServiceThread, this, nullptr);
  if (mThread == nullptr) return -1;
  mStatus = kStarted;
  return 0;
}

int UDiskService::StopLoop() {
  LOG_DEBUG("client udisk StopLoop\n");
  mStatus = kStopRequested;
  if (mThread != nullptr) g_thread_join(mThread);
  mThread = nullptr;
  return 0;
}

// ---- Thread ----

namespace {

constexpr size_t kMostTextBytes = 255;

/// What a 255-character text buffer would hold of it.
std::string Cut(const std::string& text) {
  return std::string(text.c_str()).substr(0, kMostTextBytes);
}

/// The parsed text; null when it is no JSON.
Json::Value ParseJson(const std::string& text) {
  Json::Value root;
  std::string errors;
  try {
    std::istringstream in(text);
    if (Json::parseFromStream(Json::CharReaderBuilder(), in, &root, &errors)) return root;
  } catch (const Json::Exception& error) {  // nested too deeply
    errors = error.what();
  }
  LOG_ERROR("Failed to parse JSON errors: %s", errors.c_str());
  return {};
}

bool HasText(const Json::Value& object, const char* key) {
  return object.isMember(key) && object[key].isString();
}

}  // namespace

void* UDiskService::ServiceThread(void* service) {
  auto* const self = static_cast<UDiskService*>(service);
  LOG_DEBUG("client udisk service Start ..........\n");
  if (self->mStatus == kStopRequested) {
    LOG_ERROR("new service thread error, status: %d\n", int{kStopRequested});
    return nullptr;
  }
  LOG_DEBUG("client udisk service x86 \n");
  try {
    self->Announce();
  } catch (const std::exception& error) {
    LOG_ERROR("client udisk service failed: %s", error.what());
  }
  return nullptr;
}

void UDiskService::Announce() {
  const std::shared_ptr<CpdDeviceBase> base = mDevice->getDevBase();
  if (base == nullptr) {
    LOG_ERROR("getDevBase error usb device.");
    return;
  }
  const std::string text = base->GetDeviceParams();
  LOG_DEBUG("bus=%d,addr=%d, params:%s", int{base->bus}, int{base->addr}, text.c_str());
  LOG_DEBUG("udisk soft client");
  const DiskParams params = ReadParams(text);
  // The parameters stand where the path was meant: kept.
  LOG_DEBUG("path: %s, lable: %s", Cut(text).c_str(), params.label.c_str());
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
  LOG_DEBUG("udisk is read only %d", int{read_only});
  return 0;
}

// ---- Packets sent unasked ----

namespace {

constexpr uint32_t kNoticeRequestId = 6666;
constexpr uint32_t kAnnounceRequestId = 1234;
constexpr size_t kPacketSize = 128;

}  // namespace

void UDiskService::SetReadSmallFileTrubo() {
  auto packet = std::make_unique<CpdPacket>(kPacketSize);
  packet->InitHeader(static_cast<uint8_t>(mDevice->GetDevId()), kSmallFileNotice, kNoticeRequestId);
  mDevice->SendPacket(std::move(packet), -1);
}

int UDiskService::MountRemote(const char* name, CpdDevice* device) {
  if (device != mDevice) {
    LOG_DEBUG("udisk already plugout, mDevice: %p, device: %p", static_cast<void*>(mDevice),
              static_cast<void*>(device));
    return -1;
  }
  const std::string label = Cut(name);
  if (mDevice->getDevBase() == nullptr) {
    LOG_ERROR("getDevBase error  usb device. ");
    return -1;
  }
  const uint8_t read_only = mReadOnly;
  LOG_DEBUG("client udisk mount tmpLabel: %s,readOnly:%d\n", label.c_str(), int{read_only});

  const MountHead head{.name_length = static_cast<uint16_t>(label.size())};
  const size_t size = CPD_PACKET_HEADER_SIZE + sizeof head + label.size() + 1 + sizeof read_only;
  auto packet = std::make_unique<CpdPacket>(std::max(size, kPacketSize));
  packet->InitHeader(static_cast<uint8_t>(mDevice->GetDevId()), kMountRemote, kAnnounceRequestId);
  packet->AppendPayload(&head, sizeof head);
  packet->AppendPayload(label.c_str(), static_cast<uint32_t>(label.size() + 1));
  packet->AppendPayload(&read_only, sizeof read_only);
  // Under "header size" stands the width of the length prefix: kept.
  LOG_DEBUG("packet header size: %d, payload size: %d, packet size: %d\n",
            static_cast<int>(sizeof head), static_cast<int>(packet->PayloadSize()),
            packet->header != nullptr ? static_cast<int>(packet->header->packetLen) : 0);
  const int result = mDevice->SendPacket(std::move(packet), -1);
  LOG_DEBUG("client udisk mount ret: %d\n", result);
  return result;
}

// ---- Not supported ----

void UDiskService::udisk_removable_func(void* /*context*/, PeriphDevice* /*device*/) {}

int UDiskService::GetDeviceInfo(CpdDevice* /*device*/, UdiskDevice* /*out*/) { return -1; }

void GetUdiskInfo(void* service, CpdDevice* device, UDiskOperator* udisk_operator) {
  if (service == nullptr || device == nullptr || udisk_operator == nullptr) {
    LOG_ERROR("pThis or device or operator is NULL");
  }
}

}  // namespace cpd
