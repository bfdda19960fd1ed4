#pragma once

#include <libudev.h>

#include <memory>

namespace cpd::host {

/// Notices when block devices come, go or change. It does not say which: look with FindDisks.
class DiskMonitor {
 public:
  /// @throws std::runtime_error when udev's events cannot be received
  DiskMonitor();

  /// Readable after an event.
  [[nodiscard]] int fd() const { return udev_monitor_get_fd(monitor_.get()); }
  /// Takes all events that have arrived.
  void Drain();

 private:
  struct Unref {
    void operator()(udev* context) const { udev_unref(context); }
    void operator()(udev_monitor* monitor) const { udev_monitor_unref(monitor); }
  };

  std::unique_ptr<udev, Unref> context_;
  std::unique_ptr<udev_monitor, Unref> monitor_;
};

}  // namespace cpd::host
