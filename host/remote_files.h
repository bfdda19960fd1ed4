// The protocol's requests as typed questions. Paths begin with '/' at the disk's root.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cpd/packet.h"
#include "wire.h"

namespace cpd::host {

class Session;

/// A value, or why there is none.
template <class T>
struct Result {
  int error = 0;  ///< errno; 0 = the value is there
  T value{};
};

/// The bytes of a file, as they stand in the reply.
struct FileData {
  std::string_view bytes;
  std::unique_ptr<CpdPacket> reply;  ///< holds the bytes
};

/// A directory's entries, as they stand in the reply.
struct Listing {
  struct Entry {
    udisk_stat attributes;
    std::string_view name;  ///< a NUL follows
  };
  std::vector<Entry> entries;
  std::unique_ptr<CpdPacket> reply;  ///< holds the names
};

/// Asks for files over a session. Every call returns at once; its Done receives the answer under
/// the rules of Session::Done. A request that stays without an answer, or whose answer makes no
/// sense, ends with EIO.
class RemoteFiles {
 public:
  template <class T>
  using Done = std::function<void(Result<T>)>;

  explicit RemoteFiles(Session& session) : session_(session) {}

  /// ENOENT when there is no such file.
  void GetAttributes(const std::string& path, Done<udisk_stat> done);
  /// EIO also when the directory cannot be opened.
  void List(const std::string& path, Done<Listing> done);
  /// At the end of the file, and when the file cannot be read, there are fewer bytes than asked
  /// for; the protocol does not tell which.
  void Read(const std::string& path, int64_t offset, uint32_t size, Done<FileData> done);
  void GetStatistics(const std::string& path, Done<udisk_statvfs> done);
  /// Whether the attribute has a value. The protocol never brings one.
  void HasExtendedAttribute(const std::string& path, const std::string& name, Done<bool> done);

 private:
  Session& session_;
};

}  // namespace cpd::host
