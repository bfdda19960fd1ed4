// The file of trace events: one JSON object per line.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <string>

namespace cpd::host {

class TraceFile {
 public:
  /// @param path  appended to, since several processes may share it; empty = events are dropped
  /// @throws std::runtime_error when the file cannot be opened
  explicit TraceFile(const std::string& path);

  /// Writes one event. Callable from any thread.
  /// @param detail  the path of a file, or empty
  void Record(const std::string& id, const std::string& event, const std::string& detail,
              const std::map<std::string, std::string>& fields);

 private:
  std::unique_ptr<FILE, int (*)(FILE*)> file_;
};

}  // namespace cpd::host
