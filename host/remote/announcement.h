// How a disk is announced, as the remote side sees it.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "cpd/packet.h"

namespace cpd::host {

/// What the module says of a disk.
struct AnnouncedDisk {
  std::string name;
  bool read_only = false;
};

/// @return empty if the packet is not an announcement
std::optional<AnnouncedDisk> ReadAnnouncement(const CpdPacket& packet);

/// The answer to an announcement. Texts are cut to 65535 bytes.
/// @param drive  the remote side's name for the disk
std::unique_ptr<CpdPacket> MountResponse(std::string_view drive, std::string_view label);

}  // namespace cpd::host
