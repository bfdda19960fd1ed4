// The device that the host hands to the module, one per redirected disk.
#pragma once

#include <memory>
#include <string>

#include "cpd/device.h"
#include "options.h"

namespace cpd::host {

class Session;
class TraceFile;

/// Hands the module's packets to the session and its trace events to the trace file.
class HostDevice : public CpdDevice {
 public:
  /// Session and trace must outlive the device.
  /// @throws std::runtime_error when the disk's path or name is too long for the module
  HostDevice(const DiskOptions& options, Session& session, TraceFile& trace);

  std::shared_ptr<CpdDeviceBase> getDevBase() override;
  int GetDevId() override;
  int SendPacket(std::unique_ptr<CpdPacket> packet, int flags) override;
  void ReportReadFail(const std::string& path) override;

 private:
  std::shared_ptr<CpdDeviceBase> base_;
  Session& session_;
};

}  // namespace cpd::host
