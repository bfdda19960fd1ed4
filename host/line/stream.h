// What crosses a line between two machines: a hello each way, then frames. All integers are
// little-endian. Records are packed (alignment 1): read and write them with memcpy.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "cpd/packet.h"

namespace cpd::host {

/// The first bytes of a hello. No text and no packet begins with them.
inline constexpr std::array<uint8_t, 8> kHelloMagic{0x89, 'c', 'p', 'd', '\r', '\n', 0x1a, '\n'};
inline constexpr uint16_t kStreamVersion = 2;

/// Which end of the line a side is.
enum class Role : uint8_t {
  kDisk = 1,    ///< has the disk, and answers requests
  kRemote = 2,  ///< shows the disk, and sends requests
};

/// An id that two machines never share by chance.
using Id128 = std::array<uint8_t, 16>;

/// Longest packet that the remote side takes. The module makes a listing in one piece, and holds it
/// twice. One of 100 000 names of up to 44 bytes fits.
inline constexpr uint32_t kLargestPacket = 16 << 20;
/// Longest packet that the disk's side takes: no request needs more.
inline constexpr uint32_t kLargestRequest = 8 << 20;

#pragma pack(push, 1)

/// The first record each way. The side that sets the line up sends it without waiting for the
/// other's.
struct Hello {
  std::array<uint8_t, 8> magic = kHelloMagic;
  uint16_t version = kStreamVersion;  ///< both sides must have the same
  Role role;                          ///< the two sides must differ
  uint8_t is_ended = 0;               ///< 1: the session named below has ended, and nothing follows
  uint32_t largest = kLargestPacket;  ///< longest packet that this side takes, in bytes
  uint64_t window;  ///< charge that this side accepts beyond what it has reported as taken
  Id128 session{};  ///< chosen by the side that sets the line up, the same for each of its lines;
                    ///< zeros from the other side
  Id128 disk{};     ///< kDisk: DiskIdentity::disk; kRemote: zeros
  Id128 life{};     ///< kDisk: DiskIdentity::life; kRemote: zeros
};
static_assert(sizeof(Hello) == 72 && alignof(Hello) == 1);
static_assert(offsetof(Hello, version) == 8 && offsetof(Hello, role) == 10);
static_assert(offsetof(Hello, largest) == 12 && offsetof(Hello, window) == 16);
static_assert(offsetof(Hello, session) == 24 && offsetof(Hello, disk) == 40);
static_assert(offsetof(Hello, life) == 56);

/// Starts every control frame; no packet starts with it.
inline constexpr uint8_t kControlMagic = 0x43;
static_assert(kControlMagic != CPD_PACKET_MAGIC);

enum class Control : uint8_t {
  kPing = 1,  ///< to be answered with a pong of the same value
  kPong = 2,
  kTaken = 3,   ///< value: charge of packets that this side no longer holds
  kBye = 4,     ///< the session ends; value: a Farewell; the text says why
  kNotice = 5,  ///< from the disk's side; value: Notice::What; text: Notice::path
};

/// Why a side ends a session.
enum class Farewell : uint64_t {
  kDone = 0,    ///< as its user asked
  kFailed = 1,  ///< it cannot go on
};

/// A control frame; `length` bytes of text follow.
struct ControlHead {
  uint8_t magic;
  Control kind;
  uint16_t length;  ///< kLongestText at most
  uint32_t reserved;
  uint64_t value;
};
static_assert(sizeof(ControlHead) == CPD_PACKET_HEADER_SIZE && alignof(ControlHead) == 1);
static_assert(offsetof(ControlHead, length) == 2 && offsetof(ControlHead, value) == 8);

#pragma pack(pop)

inline constexpr size_t kLongestText = 4096;
inline constexpr uint64_t kDefaultWindow = 16 << 20;
/// Most file data that a request (105, or all files of a 123) may ask for, in bytes.
inline constexpr uint32_t kMostData = 4 << 20;

/// What a packet counts against the receiver's window: its bytes, and what keeping it costs.
constexpr uint64_t ChargeOf(uint64_t packet_length) { return packet_length + 256; }

}  // namespace cpd::host
