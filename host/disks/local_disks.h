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
  std::string label;   ///< or its UUID
  std::string type;    ///< file system, as blkid names it
};

struct LocalDisk {
  std::string name;  ///< of the block device, such as sdb
  bool removable;
  int interface_class;  ///< of the USB device; 8 = mass storage
  std::vector<Partition> partitions;
};

/// The block devices on USB, by name. Partitions that have neither label nor UUID are not listed.
std::vector<LocalDisk> FindDisks();

/// A partition, mounted in /media for as long as this lives.
class LocalMount {
 public:
  /// @param device  such as sdb1 or /dev/sdb1
  /// @throws std::runtime_error  without the rights; where there is no such partition; where its
  ///         label names no directory of its own; when the mount fails
  explicit LocalMount(const std::string& device);
  ~LocalMount();
  LocalMount(const LocalMount&) = delete;
  LocalMount& operator=(const LocalMount&) = delete;

  [[nodiscard]] const std::filesystem::path& directory() const { return directory_; }

 private:
  // The service's half that starts a redirection is not used, nor is there a device.
  std::unique_ptr<UDiskOperator> operator_;
  std::unique_ptr<UDiskService> service_;
  std::filesystem::path directory_;
};

}  // namespace cpd::host
