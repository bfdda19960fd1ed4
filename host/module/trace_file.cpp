#include "module/trace_file.h"

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iterator>
#include <stdexcept>

#include "cpd/tracer.h"
#include "module/json.h"

namespace cpd::host {

TraceFile::TraceFile(const std::string& path) : file_(nullptr, &std::fclose) {
  if (path.empty()) return;
  file_.reset(std::fopen(path.c_str(), "ae"));
  if (file_ == nullptr) {
    throw std::runtime_error(
        fmt::format("cannot open trace file {}: {}", path, std::strerror(errno)));
  }
  setlinebuf(file_.get());
}

void TraceFile::Record(const std::string& id, const std::string& event, const std::string& detail,
                       const std::map<std::string, std::string>& fields) {
  if (file_ == nullptr) return;
  using namespace std::chrono;
  const auto now = duration_cast<milliseconds>(system_clock::now().time_since_epoch());
  std::string line =
      fmt::format(R"({{"time":{},"id":{},"event":{},"detail":{},"fields":{{)", now.count(),
                  JsonString(id), JsonString(event), JsonString(detail));
  const char* separator = "";
  for (const auto& [key, value] : fields) {
    fmt::format_to(std::back_inserter(line), "{}{}:{}", separator, JsonString(key),
                   JsonString(value));
    separator = ",";
  }
  line += "}}\n";
  (void)std::fputs(line.c_str(), file_.get());
}

}  // namespace cpd::host

namespace cpd {

__attribute__((visibility("default"))) CpdTracer* CpdTracer::GetInstance() {
  static CpdTracer tracer;
  return &tracer;
}

}  // namespace cpd
