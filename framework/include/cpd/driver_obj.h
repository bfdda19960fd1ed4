// What the host can ask a driver about its disk.
// The order of the virtual operations is the order of their slots: binary contract, do not reorder.
#pragma once

#include <string>

namespace cpd {

/// All operations are callable from any thread.
class DriverObj {
 public:
  virtual ~DriverObj() = default;
  virtual int GetCID() = 0;
  virtual int GetVid() = 0;
  virtual int GetPid() = 0;
  virtual std::string GetDrvName() = 0;
  virtual int GetDeviceId() = 0;
  virtual void Stop() = 0;

  /// Id of the virtual machine; set by the host before it passes on the announcement's answer.
  int mVmId = 0;
};

class UdiskOperatorInf : public DriverObj {
 public:
  /// The remote side's name for the disk; empty until it has answered the announcement.
  virtual std::string GetRemoteMountPoint() = 0;
  /// The local directory under which request paths are resolved.
  virtual std::string GetLocalMountPoint() = 0;
};

}  // namespace cpd
