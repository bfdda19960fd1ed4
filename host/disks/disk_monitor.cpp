#include "disks/disk_monitor.h"

#include <stdexcept>

namespace cpd::host {

DiskMonitor::DiskMonitor()
    : context_(udev_new()), monitor_(udev_monitor_new_from_netlink(context_.get(), "udev")) {
  // Events of udev, not of the kernel: the device's label is known by then.
  if (monitor_ == nullptr ||
      udev_monitor_filter_add_match_subsystem_devtype(monitor_.get(), "block", nullptr) < 0 ||
      udev_monitor_enable_receiving(monitor_.get()) < 0) {
    throw std::runtime_error("the events of USB disks cannot be received");
  }
}

void DiskMonitor::Drain() {
  while (udev_device* const device = udev_monitor_receive_device(monitor_.get())) {
    udev_device_unref(device);
  }
}

}  // namespace cpd::host
