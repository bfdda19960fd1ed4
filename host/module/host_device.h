// The device that the host hands to the module, one per redirected disk.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "cpd/device.h"
#include "options.h"

namespace cpd::host {

class TraceFile;

/// Hands over the module's packets, and records its trace events.
class HostDevice : public CpdDevice {
 public:
  using Deliver = std::function<void(std::unique_ptr<CpdPacket> packet)>;

  /// @param deliver  takes the module's packets, on the module's threads
  /// @param trace    must outlive the device
  /// @throws std::runtime_error when the disk's path or name is too long for the module
  HostDevice(const DiskOptions& options, Deliver deliver, TraceFile& trace);

  std::shared_ptr<CpdDeviceBase> getDevBase() override;
  int GetDevId() override;
  int SendPacket(std::unique_ptr<CpdPacket> packet, int flags) override;
  void ReportReadFail(const std::string& path) override;

 private:
  std::shared_ptr<CpdDeviceBase> base_;
  const Deliver deliver_;
};

}  // namespace cpd::host
