// One disk that the module serves, from open to close.
#pragma once

#include <functional>
#include <memory>

#include "module/host_device.h"
#include "module/module.h"
#include "options.h"
#include "remote/periodic.h"

namespace cpd::host {

class TraceFile;

class ServedDisk {
 public:
  /// Loads the module and opens the disk. The module then announces it with a packet.
  /// @param trace    must outlive this
  /// @param deliver  takes the module's packets, on the module's threads, until the destructor has
  ///                 returned
  /// @throws std::runtime_error when the module cannot be loaded or does not open the disk
  ServedDisk(const DiskOptions& options, TraceFile& trace, HostDevice::Deliver deliver);
  ServedDisk(const ServedDisk&) = delete;
  ServedDisk& operator=(const ServedDisk&) = delete;

  CpdDriver& driver() { return *driver_; }

 private:
  void AnnounceBandwidth(uint32_t kbps);

  // Each member uses the ones above it, so the last is destroyed first.
  HostDevice device_;
  Module module_;
  Driver driver_;
  std::unique_ptr<Periodic> bandwidth_;
};

}  // namespace cpd::host
