// The starter of a redirected disk.
#pragma once

#include <glib.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "cpd/device.h"

namespace cpd {

class UDiskOperator;
struct UdiskDevice;

/// Takes the disk's parameters from the host, sets the operator's mount point and announces the
/// disk to the remote side, once, on a thread of its own.
class UDiskService {
 public:
  /// Neither is owned; both outlive the service.
  UDiskService(CpdDevice* device, UDiskOperator* udisk_operator);

  /// Starts the thread. @return 0 or -1
  int StartLoop();
  /// Asks the thread to stop, if it has not begun, and waits for it. @return 0
  int StopLoop();
  /// The thread's body. @param service  the UDiskService @return null
  static void* ServiceThread(void* service);
  /// Announces the disk (command 100). @return SendPacket's result, or -1 when `device` is not the
  /// service's own or is gone
  int MountRemote(const char* name, CpdDevice* device);
  /// Tells the remote side that small-file reads are served (command 122).
  void SetReadSmallFileTrubo();
  int UpdateReadOnly(uint8_t read_only);                           ///< 0
  void udisk_removable_func(void* context, PeriphDevice* device);  ///< nothing
  int GetDeviceInfo(CpdDevice* device, UdiskDevice* out);          ///< not supported: -1

  enum Status : int32_t { kCreated = 0, kStarted = 1, kStopRequested = 2 };

  CpdDevice* mDevice;
  UDiskOperator* mOperator;
  GThread* mThread = nullptr;
  UdiskDevice* mUdiskDevice = nullptr;  ///< partitions probed locally
  std::atomic<int32_t> mStatus = kCreated;
  std::atomic<uint8_t> mReadOnly = 0;

 private:
  struct DiskParams {
    std::string letter;  ///< the mount point's first part
    std::string label;   ///< its second
    std::string name;    ///< what the remote side is told
  };

  void Announce();
  /// Empty where the text does not hold all three; takes "readOnly" over with them.
  DiskParams ReadParams(const std::string& text);
};

/// Checks its arguments, nothing more.
void GetUdiskInfo(void* service, CpdDevice* device, UDiskOperator* udisk_operator);

}  // namespace cpd
