// The blocks of a capture file: pcapng, as docs/protocol.md describes it under "Captures".
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace cpd::host {

/// Where a recorded packet goes. The values are those of pcapng's direction flags, seen from the
/// module.
enum class Way : uint32_t {
  kToModule = 1,
  kFromModule = 2,
};

enum class BlockType : uint32_t {
  kSection = 0x0a0d0d0a,
  kInterface = 1,
  kPacket = 6,
  kRest = 0x80637064,  ///< of the packet before; the top bit marks types for local use
};

inline constexpr uint32_t kByteOrder = 0x1a2b3c4d;
inline constexpr uint16_t kLinkType = 147;    ///< LINKTYPE_USER0
inline constexpr uint8_t kNanoseconds = 9;    ///< time resolution: 10^-9 s
inline constexpr size_t kBlockOverhead = 12;  ///< type and length, and the length again
/// Wireshark refuses a file with a longer packet of a user's link type. What exceeds this is in
/// blocks that Wireshark ignores.
inline constexpr uint32_t kLongestInPacketBlock = 256 << 10;
/// The most that a block of type kRest holds, in bytes. A packet may have several of them.
inline constexpr uint32_t kLongestRest = 1 << 20;

enum class Option : uint16_t {
  kEnd = 0,
  kComment = 1,
  kInterfaceName = 2,   // in an interface block
  kFlags = 2,           // in a packet block
  kProgram = 4,         // in a section block
  kMissing = 4,         // in a packet block: packets that are missing before this one
  kTimeResolution = 9,  // in an interface block
};

#pragma pack(push, 1)
/// The body of a section block; options follow.
struct SectionBody {
  uint32_t byte_order;
  uint16_t major;
  uint16_t minor;
  int64_t length;  ///< -1 = not stated
};
static_assert(sizeof(SectionBody) == 16);

/// The body of an interface block; options follow.
struct InterfaceBody {
  uint16_t link_type;
  uint16_t reserved;
  uint32_t longest;  ///< 0 = no limit
};
static_assert(sizeof(InterfaceBody) == 8);

/// The body of a packet block; the packet's bytes follow, padded to 4, then options.
struct PacketBody {
  uint32_t interface;
  uint32_t time_high;  ///< nanoseconds since 1970
  uint32_t time_low;
  uint32_t captured;  ///< bytes in this block
  uint32_t original;  ///< length of the packet
};
static_assert(sizeof(PacketBody) == 20);

/// The body of a block of type kRest; the bytes follow, padded to 4.
struct RestBody {
  uint32_t captured;
};

struct OptionHead {
  uint16_t code;
  uint16_t length;  ///< of the value, which is padded to 4
};
#pragma pack(pop)

/// How many bytes fill up `length` to a multiple of 4.
constexpr size_t Padding(size_t length) { return (4 - length % 4) % 4; }

/// What begins a section: its block and that of its interface.
/// @param comment  of the section
/// @param name     of the interface; empty = none
std::string SectionStart(std::string_view comment, std::string_view name);

/// What is recorded of one packet.
struct RecordedBytes {
  uint64_t time = 0;  ///< nanoseconds since 1970
  Way way = Way::kToModule;
  std::string_view bytes;  ///< as many of the packet's as are kept
  uint32_t original = 0;   ///< length of the packet
  uint64_t missing = 0;    ///< packets before it that are not in the file
};
/// The blocks of one packet.
std::string PacketBlocks(const RecordedBytes& packet);

}  // namespace cpd::host
