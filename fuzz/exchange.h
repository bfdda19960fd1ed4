// The packets that an input describes, and the checks of the replies to them.
#pragma once

#include <cstdint>
#include <memory>

#include "cpd/packet.h"
#include "input.h"
#include "support/fake_host.h"
#include "support/fake_user.h"
#include "support/requests.h"
#include "support/virtual_clock.h"

namespace cpd::fuzz {

/// The host of a driver or an operator, with a clock and a user, configured by the settings.
struct Host {
  /// @param settings  bits of the enumeration in settings.h
  explicit Host(uint8_t settings);

  test::VirtualClock clock;
  test::FakeUser user{1000, "/home"};
  test::FakeDevice device;
};

/// Takes a packet from the input.
/// @param kind  the letter before it, which was taken already
/// @return null when the letter does not announce a packet, or when its bytes do not make one
std::unique_ptr<CpdPacket> TakePacket(char kind, Input* in);
/// As TakePacket, for a bus event.
std::shared_ptr<CpdPacket> TakeBusEvent(char kind, Input* in);

/// Whether a command may change the disk.
bool Changes(uint16_t cmd);
/// Checks that a reply is addressed like its request and that its lengths are true. Closes the
/// descriptor that a retried create leaves open.
void CheckReply(const CpdPacketHeader& asked, const test::SentPacket& reply);

}  // namespace cpd::fuzz
