// The module, loaded as a host loads it, for tests of disks that fail while it runs.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "cpd/driver.h"
#include "support/fake_host.h"
#include "support/temp_disk.h"

namespace cpd::test {

class LoadedModule {
 public:
  LoadedModule() : library_(dlopen(UDISK_MODULE, RTLD_NOW | RTLD_LOCAL), dlclose) {
    if (library_ == nullptr) ADD_FAILURE() << dlerror();
  }

  /// Opens a driver for the disk that is mounted at `path`; if `works`, waits for its announcement.
  [[nodiscard]] std::unique_ptr<CpdDriver> Open(FakeDevice* device, const std::string& path,
                                                bool works = true) const {
    device->base().SetParams(DeviceParams(path));
    const auto* const module =
        static_cast<const CpdDriverModule*>(dlsym(library_.get(), "CPD_DRV_MODULE"));
    if (module == nullptr) return nullptr;
    std::unique_ptr<CpdDriver> driver(module->open(device, "policy"));
    if (works) {
      EXPECT_TRUE(device->WaitForPackets(2)) << "no notice and announcement";
      device->TakeSent();
    }
    return driver;
  }

 private:
  const std::unique_ptr<void, int (*)(void*)> library_;
};

}  // namespace cpd::test
