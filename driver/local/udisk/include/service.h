// The starter of a redirected disk.
#pragma once

#include <glib.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "cpd/device.h"

namespace cpd {

class UDiskOperator;

/// A partition. Texts are terminated, 31 bytes at most in every field.
struct UDiskInfo {
  char devName[32];     ///< device path
  char label[32];       ///< its label, or its UUID when it has none
  char type[32];        ///< file system, as blkid names it
  char mountPoint[64];  ///< directory; set by MountLocal
  uint64_t reserved;
};
static_assert(sizeof(UDiskInfo) == 168 && offsetof(UDiskInfo, mountPoint) == 96);

/// The partitions of a disk.
struct UdiskDevice {
  uint8_t count;
  UDiskInfo* infos;  ///< `count` records, owned, from malloc
};

/// Takes the disk's parameters from the host, sets the operator's mount point and announces the
/// disk to the remote side, once, on a thread of its own. That disk comes mounted; a host that has
/// to find and mount it itself uses the operations for that, which the thread does not.
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

  // ---- Probing ----

  /// Copies the first double-quoted value of `source`, cut to 31 bytes. Terminates it only where it
  /// meets the closing quote or cuts. @param destination  32 zeroed bytes
  /// @return number of bytes copied
  static int GetString(const char* source, char* destination);
  /// @param port  of a USB device, such as 1-2 @return its first interface's class; 0 = unknown
  static int GetDeviceClass(const char* port);
  /// @param block_device  such as sdb @return 1 = removable; 0 also when unknown
  static int CheckRemovable(const char* block_device);
  /// Looks for the first removable disk in the kernel's table of partitions.
  /// @param out  gets 3 bytes, such as sdb, without a terminator: the disk's name; without one the
  ///             last name looked at, or nothing @return 0
  static int GetDevName(char* out);
  /// Lists the labelled partitions of the disk that `device` (such as sdb1) is on.
  /// @param out  left alone when there are none; an array that it holds is not freed
  /// @return 0; -1 when blkid could not be started
  static int GetDeviceLabel(const char* device, UdiskDevice* out);

  // ---- Local mount ----

  /// Mounts a partition on the directory of its label in /media and sets its mountPoint, also when
  /// that fails. @return the mount command's status as system gives it
  static int MountLocal(UDiskInfo* info);
  /// Unmounts the partitions of mUdiskDevice, removes their directories, frees the list and clears
  /// the operator's mount point. @return 0; -1 without a list
  int UmountLocal();

  enum Status : int32_t { kCreated = 0, kStarted = 1, kStopRequested = 2 };

  CpdDevice* mDevice;
  UDiskOperator* mOperator;
  GThread* mThread = nullptr;
  UdiskDevice* mUdiskDevice = nullptr;  ///< owned, from malloc; freed by UmountLocal alone
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
