// Reads what Recording has written.
#pragma once

#include <cstdint>
#include <istream>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "capture/pcapng.h"

namespace cpd::host {

/// The file is no capture, or a broken one.
class CaptureError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

struct RecordedPacket {
  uint64_t number = 0;   ///< in the file, from 1, as Wireshark counts
  uint64_t section = 0;  ///< of the file, from 1
  uint64_t time = 0;     ///< nanoseconds since 1970
  Way way = Way::kToModule;
  uint32_t original = 0;  ///< length; `bytes` may be fewer
  uint64_t missing = 0;   ///< packets before this one that were not recorded
  std::string bytes;      ///< at least a header, whose length is `original`
};

/// Trusts nothing in the file, and holds no more than twice what it has read of it.
class CaptureReader {
 public:
  /// @param file  must outlive the reader
  explicit CaptureReader(std::istream& file) : file_(file) {}

  /// @return empty at the end of the file
  /// @throws CaptureError when the file is broken; then this must not be used any more
  std::optional<RecordedPacket> Next();

 private:
  struct Block {
    BlockType type;
    std::string body;
  };

  std::string ReadBytes(size_t count);
  std::optional<Block> ReadBlock();
  std::optional<Block> TakeBlock();
  void NoteInterface(std::string_view body);
  RecordedPacket ReadPacket(std::string_view body);
  void AppendRest(RecordedPacket* packet);

  std::istream& file_;
  uint64_t position_ = 0;      // bytes read
  std::optional<Block> next_;  // read, but not taken
  uint64_t sections_ = 0;
  uint64_t packets_ = 0;
  std::vector<std::string>
      interfaces_;  // of the section: why packets of it cannot be used, or empty
};

}  // namespace cpd::host
