#include "module/host_device.h"

#include <fmt/format.h>

#include <stdexcept>

#include "cpd/log.h"
#include "cpd/packet.h"
#include "module/json.h"
#include "module/trace_file.h"
#include "remote/session.h"

namespace cpd::host {
namespace {

constexpr size_t kLongestText = 255;  // the module refuses a longer path and cuts a longer name

/// Matches every path, so that reads and writes of every file are traced.
class EveryPath : public CpdPathFilter {
 public:
  std::shared_ptr<CpdPathMatch> MatchPath(const std::string& /*path*/) override { return match_; }

 private:
  std::shared_ptr<CpdPathMatch> match_ = std::make_shared<CpdPathMatch>();
};

class DeviceBase : public CpdDeviceBase {
 public:
  DeviceBase(std::string params, std::shared_ptr<CpdPathFilter> filter, TraceFile& trace)
      : params_(std::move(params)), filter_(std::move(filter)), trace_(trace) {}

  std::string GetDeviceParams() override { return params_; }

  void TraceEvent(const std::string& id, const std::string& event,
                  const std::map<std::string, std::string>& fields) override {
    trace_.Record(id, event, "", fields);
  }

  void TraceEventDetail(const std::string& id, const std::string& detail, const std::string& event,
                        const std::map<std::string, std::string>& fields) override {
    trace_.Record(id, event, detail, fields);
  }

  std::shared_ptr<CpdPathFilter> GetPathFilter() override { return filter_; }

 private:
  std::string params_;
  std::shared_ptr<CpdPathFilter> filter_;
  TraceFile& trace_;
};

/// The disk's parameters. The module joins letter and label to get the disk's path.
std::string DeviceParams(const DiskOptions& options) {
  if (options.disk.size() > kLongestText) {
    throw std::runtime_error(
        fmt::format("path of the disk is longer than {} bytes: {}", kLongestText, options.disk));
  }
  if (options.name.size() > kLongestText) {
    throw std::runtime_error(fmt::format("name is longer than {} bytes", kLongestText));
  }
  const size_t label = options.disk.rfind('/') + 1;
  return fmt::format(R"({{"letter":{},"label":{},"name":{},"readOnly":{}}})",
                     JsonString(options.disk.substr(0, label)),
                     JsonString(options.disk.substr(label)), JsonString(options.name),
                     options.read_only ? 1 : 0);
}

}  // namespace

HostDevice::HostDevice(const DiskOptions& options, Deliver deliver, TraceFile& trace)
    : base_(std::make_shared<DeviceBase>(
          DeviceParams(options), options.trace_reads ? std::make_shared<EveryPath>() : nullptr,
          trace)),
      deliver_(std::move(deliver)) {}

std::shared_ptr<CpdDeviceBase> HostDevice::getDevBase() { return base_; }

int HostDevice::GetDevId() { return Session::kDeviceId; }

int HostDevice::SendPacket(std::unique_ptr<CpdPacket> packet, int /*flags*/) {
  if (packet == nullptr || packet->header == nullptr) return -1;
  deliver_(std::move(packet));
  return 0;
}

void HostDevice::ReportReadFail(const std::string& path) {
  tesselLogPrint(0, 7, "CPD_HOST", "read failed: %s", path.c_str());
}

}  // namespace cpd::host
