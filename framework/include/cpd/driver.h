// A driver, and the descriptor through which the host finds it in a module.
// The order of the virtual operations is the order of their slots: binary contract, do not reorder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace cpd {

class CpdDevice;
class CpdPacket;
class DriverObj;

/// A driver for one device. The host calls Close before it deletes a running driver: deleting one
/// that was not closed ends the process, since its worker thread still runs.
/// onEvent, onBusEvent and onPolicyChange are callable from any thread, even while Close runs.
/// No exception leaves a driver's operations, whatever the host's own operations throw.
class CpdDriver {
 public:
  virtual ~CpdDriver() = default;

  /// Takes a request packet from the remote side. Never waits for the request to be served.
  /// The packet's buffer must be exactly as long as the message, as CpdPacket::Parse makes it. The
  /// driver checks lengths against the buffer: in a longer one, a hostile message could read the
  /// host's memory after it and have that sent back.
  /// @param flags  not used; hosts pass 0
  /// @return 0, or -1 when the packet is null or addressed to another device, when GetDevId throws,
  ///         or when there is no memory to queue the packet, which is then destroyed
  virtual int onEvent(std::unique_ptr<CpdPacket> packet, int flags) = 0;

  /// @return 0
  virtual int GetState() = 0;

  /// Handles a bus event on the calling thread. @return 0
  virtual int onBusEvent(std::shared_ptr<CpdPacket> packet) = 0;

  /// Takes a new policy text. @return 0
  virtual int onPolicyChange(const std::string& policy) = 0;

  /// Device control. @param status  receives the status word @return 0, or -1 when not supported
  virtual int Control(void* request, uint16_t* status) = 0;

  /// Stops the driver and waits for the announcement and for the request in flight; later packets
  /// are dropped. After a second, a request of many calls is given up between two of them, without
  /// a reply. A second Close, on any thread, waits for the first. Once this returns, only onEvent
  /// uses the device, to ask for its id; the object that GetDriverObj returned does not. @return 0
  virtual int Close(signed char reason) = 0;

  virtual std::string GetDriverKind() = 0;

  /// The object that answers questions about the disk; null once the driver is closed. The host may
  /// keep the object and use it even after the driver and the device are gone.
  virtual std::shared_ptr<DriverObj> GetDriverObj() = 0;
};

/// A driver that exchanges raw packets with the remote side.
class CpdRawDriver : public CpdDriver {};

/// A module's exported descriptor (32 bytes), found by the symbol name CPD_DRV_MODULE.
struct CpdDriverModule {
  /// Opens a driver for a device; null on failure. The caller owns the driver.
  CpdDriver* (*open)(CpdDevice* device, const std::string& policy);
  void* reserved;    ///< null
  uint16_t version;  ///< 2
  uint16_t any[2];   ///< 0xFFFF each
  const char* name;  ///< the module's name
};
static_assert(sizeof(CpdDriverModule) == 32);
static_assert(offsetof(CpdDriverModule, reserved) == 8);
static_assert(offsetof(CpdDriverModule, version) == 16);
static_assert(offsetof(CpdDriverModule, any) == 18);
static_assert(offsetof(CpdDriverModule, name) == 24);

}  // namespace cpd
