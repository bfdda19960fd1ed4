// USB disks on this machine: found, mounted and unmounted by the driver's own service.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace cpd {
class UDiskOperator;
class UDiskService;
}  // namespace cpd

namespace cpd::host {

struct Partition {
  std::string device;  ///< such as /dev/sdb1
  std::string label;   ///< its UUID if it has no label
  std::string type;    ///< of the file system, as blkid names it
};

struct LocalDisk {
  std::string name;  ///< of the block device, such as sdb
  bool removable;
  int interface_class;  ///< of the USB device; 8 = mass storage
  std::vector<Partition> partitions;
};

/// The block devices on USB, sorted by name. Partitions with neither label nor UUID are left out.
/// @throws std::runtime_error when blkid cannot be started
std::vector<LocalDisk> FindDisks();

/// A partition that is mounted in /media while this object lives.
class LocalMount {
 public:
  /// @param device  such as sdb1 or /dev/sdb1
  /// @throws std::runtime_error when the process is not root, there is no such partition, its label
  ///         cannot name a directory of its own, or the mount fails
  explicit LocalMount(const std::string& device);
  ~LocalMount();
  LocalMount(const LocalMount&) = delete;
  LocalMount& operator=(const LocalMount&) = delete;

  [[nodiscard]] const std::filesystem::path& directory() const { return directory_; }

 private:
  // Only the service's local half is used: it starts no redirection, so it has no device.
  std::unique_ptr<UDiskOperator> operator_;
  std::unique_ptr<UDiskService> service_;
  std::filesystem::path directory_;
};

}  // namespace cpd::host
