// Starts a redirected disk: sets its mount point and announces it to the remote side.
#pragma once

#include <glib.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>

#include "cpd/device.h"

namespace cpd {

class UDiskOperator;

/// A partition. Every text is NUL-terminated and has at most 31 bytes.
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
/// disk to the remote side, once, on a thread of its own. The host has mounted that disk already.
/// The operations for probing and mounting are for hosts that must find and mount the disk
/// themselves; the thread does not use them.
class UDiskService {
 public:
  /// Neither is owned; both must outlive the service.
  UDiskService(CpdDevice* device, UDiskOperator* udisk_operator);

  /// Starts the thread. @return 0 or -1
  int StartLoop();
  /// Joins the thread. If it has not begun yet, it does not announce the disk. @return 0
  int StopLoop();
  /// The thread's body. @param service  the UDiskService @return null
  static void* ServiceThread(void* service);
  /// Announces the disk (command 100). @return SendPacket's result, or -1 when `device` is not the
  /// service's own or is gone
  int MountRemote(const char* name, CpdDevice* device);
  /// Tells the remote side that small-file reads are served (command 122).
  void SetReadSmallFileTrubo();
  int UpdateReadOnly(uint8_t read_only);                           ///< returns 0
  void udisk_removable_func(void* context, PeriphDevice* device);  ///< does nothing
  int GetDeviceInfo(CpdDevice* device, UdiskDevice* out);          ///< not supported: -1

  // ---- Probing ----

  /// Copies the first double-quoted value of `source`, cut to 31 bytes. Writes a NUL after it only
  /// if the value was cut or has a closing quote. @param destination  32 zeroed bytes
  /// @return number of bytes copied
  static int GetString(const char* source, char* destination);
  /// @param port  of a USB device, such as 1-2
  /// @return the class of the device's first interface, whose two hexadecimal digits are read as
  ///         decimal ones: 08 is 8, but ff is 0; 0 = unknown
  static int GetDeviceClass(const char* port);
  /// @param block_device  such as sdb @return 1 = removable, 0 = fixed or unknown
  static int CheckRemovable(const char* block_device);
  /// Looks for the first removable disk in the kernel's table of partitions.
  /// @param out  receives the disk's name: 3 bytes such as sdb, without a terminator. If no disk is
  ///             removable, receives the last name that was looked at, if any.
  /// @return 0
  static int GetDevName(char* out);
  /// Lists the partitions of the disk that `device` (such as sdb1) is on, except those with neither
  /// a label nor a UUID.
  /// @param out  unchanged when there are none; an array that it already holds is not freed
  /// @return 0; -1 when blkid could not be started or memory ran out
  static int GetDeviceLabel(const char* device, UdiskDevice* out);

  // ---- Local mount ----

  /// Mounts a partition on /media/LABEL and sets its mountPoint, even when mounting fails.
  /// @return the mount command's status as system returns it; -1 when the command is too long
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
    std::string label;   ///< the mount point's second part
    std::string name;    ///< the disk's name for the remote side
  };

  void Announce();
  /// Reads "letter", "label" and "name" from JSON; all are empty unless all three are there. If
  /// they are, stores "readOnly", too.
  DiskParams ReadParams(const std::string& text);
};

/// Only logs an error when an argument is null.
void GetUdiskInfo(void* service, CpdDevice* device, UDiskOperator* udisk_operator);

}  // namespace cpd
