// What became of a request whose reply was lost with the line.
//
// Most requests can be carried out twice: the second time gives the same reply. A few cannot. What
// is on the disk afterwards shows whether they were carried out.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "cpd/packet.h"
#include "wire.h"

namespace cpd::host {

/// Whether a request must not be carried out twice.
bool IsUnrepeatable(uint16_t command);

/// Whether a request is sent only when all those before it are answered. Then every other request
/// that is lost with it was sent after it, and can be asked again with the same paths.
bool IsSentAlone(uint16_t command);

/// The paths whose attributes show what became of an unrepeatable request; they point into it.
std::vector<std::string_view> PathsToLookAt(const CpdPacket& request);

/// @param before  the attributes that the request's (first) path had before; empty if unknown
/// @param found   for each of PathsToLookAt, what is there now; empty if nothing is
/// @return the lost reply, or null if the request was not carried out and can be sent again
std::unique_ptr<CpdPacket> LostReply(const CpdPacket& request,
                                     const std::optional<udisk_stat>& before,
                                     const std::vector<std::optional<udisk_stat>>& found);

}  // namespace cpd::host
