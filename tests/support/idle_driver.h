// A driver for tests that only send requests.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cpd/driver.h"

namespace cpd::test {

/// Every operation except onEvent does nothing.
struct IdleDriver : CpdDriver {
  int GetState() override { return 0; }
  int onBusEvent(std::shared_ptr<CpdPacket> /*packet*/) override { return 0; }
  int onPolicyChange(const std::string& /*policy*/) override { return 0; }
  int Control(void* /*request*/, uint16_t* /*status*/) override { return 0; }
  int Close(signed char /*reason*/) override { return 0; }
  std::string GetDriverKind() override { return {}; }
  std::shared_ptr<DriverObj> GetDriverObj() override { return nullptr; }
};

}  // namespace cpd::test
