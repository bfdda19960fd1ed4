// What crosses between the fuzzed code and its host: packets of an input's making, and the answers.
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

/// The host of a driver or an operator, and the rest of the machine, as the settings say.
struct Host {
  /// @param settings  of settings.h
  explicit Host(uint8_t settings);

  test::VirtualClock clock;
  test::FakeUser user{1000, "/home"};
  test::FakeDevice device;
};

/// Takes a packet: a letter was taken before, which says of what kind.
/// @return null when the letter, or what follows, means none
std::unique_ptr<CpdPacket> TakePacket(char kind, Input* in);
/// Takes a bus event. @return null when the letter means none, or what follows is no packet
std::shared_ptr<CpdPacket> TakeBusEvent(char kind, Input* in);

/// Whether a command may leave the disk another than it was.
bool Changes(uint16_t cmd);
/// Checks that an answer is addressed like its request and as long as it says; closes the
/// descriptor that a retried create leaves open.
void CheckReply(const CpdPacketHeader& asked, const test::SentPacket& reply);

}  // namespace cpd::fuzz
