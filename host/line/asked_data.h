#pragma once

#include <cstdint>

#include "cpd/packet.h"

namespace cpd::host {

/// How many bytes of file data a request asks for, as far as its records lie within its buffer.
/// Never trusts the request.
uint64_t DataAskedFor(const CpdPacket& request);

}  // namespace cpd::host
