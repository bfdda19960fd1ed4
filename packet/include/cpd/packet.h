// The framework's packet: a 16-byte header and a payload in one owned, growable buffer.
// Compiled into the host and into each driver module. It has no locks: one owner at a time.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace cpd {

static_assert(std::endian::native == std::endian::little,
              "wire records are copied as they stand in memory");

inline constexpr size_t CPD_PACKET_HEADER_SIZE = 16;
inline constexpr uint8_t CPD_PACKET_MAGIC = 0x27;
/// By how much a packet grows when an append does not fit. It grows once per call, even when that
/// is not enough.
inline constexpr size_t PACKET_GROW_STEP = 0x20000;

#pragma pack(push, 1)
/// Wire format; at the very start of every packet's buffer.
struct CpdPacketHeader {
  uint8_t magic;       ///< CPD_PACKET_MAGIC
  uint8_t devId;       ///< the device that the packet is addressed to
  uint16_t cmd;        ///< command code
  uint32_t requestId;  ///< chosen by the sender of the request; a reply carries the request's
  uint32_t packetLen;  ///< total length in bytes, header included
  uint8_t bigEndian;   ///< non-zero: requestId, packetLen and what ReadUint32 reads are big-endian
  uint8_t reserved[3];
};
#pragma pack(pop)
static_assert(sizeof(CpdPacketHeader) == CPD_PACKET_HEADER_SIZE && alignof(CpdPacketHeader) == 1);
static_assert(offsetof(CpdPacketHeader, cmd) == 2 && offsetof(CpdPacketHeader, requestId) == 4);
static_assert(offsetof(CpdPacketHeader, packetLen) == 8 &&
              offsetof(CpdPacketHeader, bigEndian) == 12);

/// The bytes of one packet, from malloc, so that host and module can free each other's buffers.
class PacketBuffer {
 public:
  /// Allocates; on failure `data` is null and `capacity` 0.
  explicit PacketBuffer(size_t size);
  /// Adopts a malloc'ed block.
  PacketBuffer(uint8_t* block, size_t size) : data(block), capacity(size) {}
  ~PacketBuffer();
  PacketBuffer(const PacketBuffer&) = delete;
  PacketBuffer& operator=(const PacketBuffer&) = delete;

  /// Copies `len` bytes to `offset`, growing by PACKET_GROW_STEP first when they do not fit.
  /// @return 0; -1, and nothing is copied, when they still do not fit or memory ran out
  int Write(const void* src, int offset, int len);
  /// Frees the memory beyond `size` bytes; does nothing for 0, the capacity or more.
  void Shrink(size_t size);

  uint8_t* data;
  uint64_t capacity;
};

class CpdPacket {
 public:
  /// An empty packet without a buffer, to be filled by Parse.
  CpdPacket() = default;
  /// A packet for sending with room for `size` bytes, header included (16 at least). When memory
  /// runs out, this prints a line, and the packet has no header; all operations on it then fail.
  explicit CpdPacket(size_t size);

  /// Fills in the header, except `packetLen`. Does nothing without a buffer.
  void InitHeader(uint8_t devId, uint16_t cmd, uint32_t requestId);
  /// Appends to the payload; may move the buffer.
  /// @return 0, even if the bytes do not fit or memory ran out: then packetLen stays the same. -1
  ///         without a buffer or header, or when `len` exceeds the room for a payload
  int AppendPayload(const void* data, uint32_t len);
  /// Appends a 4-byte value. @return 0 or -1; a buffer with room for the header only is refused
  int AppendUint32(uint32_t value);
  /// Takes a received packet of `len` bytes. With `copy` false the packet adopts `data`, which
  /// must come from malloc. `packetLen` is not compared with `len`. In a big-endian packet, this
  /// swaps the bytes of `requestId` and `packetLen`, and sets `cmd` to 0.
  /// @return 0; -1 on failure, and then `data` stays the caller's
  int Parse(uint8_t* data, int len, bool copy);
  /// A deep copy of the first `packetLen` bytes, owned by the caller; null when they are less
  /// than a header or exceed the capacity, or when memory ran out. The copy is made by Parse, which
  /// swaps the fields of a big-endian packet once more.
  [[nodiscard]] CpdPacket* Clone() const;
  /// The unread payload; null without a buffer or past its end.
  [[nodiscard]] uint8_t* GetPayload() const;
  /// Reads the next payload word, in the header's byte order. @return 0 or -1
  int ReadUint32(uint32_t* out);
  /// `packetLen` minus the header and what was read; 0 without a buffer. The remote side sets
  /// `packetLen`: do not trust it.
  [[nodiscard]] uint32_t PayloadSize() const;

  CpdPacketHeader* header = nullptr;  ///< into the buffer; null until there is one
  uint32_t readPos = 0;               ///< payload bytes consumed by ReadUint32
  bool headerReady = false;           ///< the header has been initialised or validated
  std::unique_ptr<PacketBuffer> buffer;
};

}  // namespace cpd
