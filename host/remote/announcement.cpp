#include "remote/announcement.h"

#include <cstring>
#include <limits>
#include <string_view>

#include "remote/session.h"
#include "wire.h"

namespace cpd::host {
namespace {

std::string_view CutTo16Bits(std::string_view text) {
  return text.substr(0, std::numeric_limits<uint16_t>::max());
}

}  // namespace

std::optional<AnnouncedDisk> ReadAnnouncement(const CpdPacket& packet) {
  MountHead head;
  if (packet.header == nullptr || packet.header->cmd != kMountRemote) return std::nullopt;
  if (packet.PayloadSize() < sizeof head) return std::nullopt;
  const uint8_t* const payload = packet.GetPayload();
  std::memcpy(&head, payload, sizeof head);
  // The name, its terminating NUL, and the flag.
  const size_t flag = sizeof head + head.name_length + 1;
  if (packet.PayloadSize() <= flag) return std::nullopt;
  const auto* const name = reinterpret_cast<const char*>(payload) + sizeof head;
  return AnnouncedDisk{.name = std::string(name, head.name_length),
                       .read_only = payload[flag] != 0};
}

std::unique_ptr<CpdPacket> MountResponse(std::string_view drive, std::string_view label) {
  drive = CutTo16Bits(drive);
  label = CutTo16Bits(label);
  const MountResponseHead head{.label_length = static_cast<uint16_t>(label.size()),
                               .drive_length = static_cast<uint16_t>(drive.size())};
  auto answer = std::make_unique<CpdPacket>(CPD_PACKET_HEADER_SIZE + sizeof head + drive.size() +
                                            label.size());
  answer->InitHeader(Session::kDeviceId, kMountResponse, 0);
  answer->AppendPayload(&head, sizeof head);
  answer->AppendPayload(drive.data(), head.drive_length);
  answer->AppendPayload(label.data(), head.label_length);
  return answer;
}

}  // namespace cpd::host
