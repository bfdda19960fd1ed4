// Loads a driver module, and opens and closes its drivers.
#pragma once

#include <memory>
#include <string>

#include "cpd/device.h"
#include "cpd/driver.h"

namespace cpd::host {

/// Closes a driver, then deletes it.
struct CloseDriver {
  void operator()(CpdDriver* driver) const;
};
using Driver = std::unique_ptr<CpdDriver, CloseDriver>;

/// A loaded module. Must outlive the drivers that it opened.
class Module {
 public:
  /// @param path  empty = the module that was installed or built with this program
  /// @throws std::runtime_error when it cannot be loaded or is not the expected module
  explicit Module(const std::string& path);

  /// @param device  must outlive the driver
  /// @throws std::runtime_error when the module returns no driver
  [[nodiscard]] Driver Open(CpdDevice* device, const std::string& policy) const;

 private:
  struct Unload {
    void operator()(void* handle) const;
  };

  std::unique_ptr<void, Unload> handle_;
  const CpdDriverModule* descriptor_;
};

}  // namespace cpd::host
