#include "disks/local_disks.h"

#include <fmt/format.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <new>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>

#include "module/standard_error.h"
#include "operator.h"
#include "service.h"

namespace cpd::host {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kMedia = "/media/";
/// The service cuts a mount point to this many bytes. With a longer one it would unmount and remove
/// the directory that the cut path names.
constexpr size_t kLongestMountPoint = 31;

struct FreeDeleter {
  void operator()(void* block) const { std::free(block); }
};

/// A record from calloc, since the service frees it with free.
template <class Record>
std::unique_ptr<Record, FreeDeleter> Allocate() {
  std::unique_ptr<Record, FreeDeleter> record(static_cast<Record*>(std::calloc(1, sizeof(Record))));
  if (record == nullptr) throw std::bad_alloc();
  return record;
}

/// The partitions of the disk to which a device belongs.
std::vector<UDiskInfo> Probe(const std::string& device) {
  UdiskDevice list{};
  if (UDiskService::GetDeviceLabel(device.c_str(), &list) != 0) {
    throw std::runtime_error("blkid cannot be started");
  }
  const std::unique_ptr<UDiskInfo, FreeDeleter> owner(list.infos);
  return {list.infos, list.infos + list.count};
}

/// The USB port, such as 2-1.4, in a device's sysfs path; empty if there is none.
std::string UsbPort(const fs::path& place) {
  std::string port;
  for (const fs::path& part : place) {
    const std::string name = part.string();
    const bool numbers = name.find_first_not_of("0123456789-.") == std::string::npos;
    if (numbers && name.find('-') != std::string::npos) port = name;
  }
  return port;
}

/// How many mounts are stacked on a directory.
int CountMounts(const fs::path& directory) {
  std::ifstream mounts("/proc/self/mountinfo");
  int count = 0;
  for (std::string line; std::getline(mounts, line);) {
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 5; ++i) fields >> field;  // the fifth is the mount point
    std::string place;
    for (size_t i = 0; i < field.size(); ++i) {
      if (field[i] == '\\' && i + 3 < field.size()) {  // blanks and backslashes are octal
        place += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
        i += 3;
      } else {
        place += field[i];
      }
    }
    if (place == directory.string()) ++count;
  }
  return count;
}

/// The service unmounts the directory and then removes it with everything in it. So it must be the
/// mount's own, without files or another mount in it.
fs::path CheckedDirectory(const std::string& label) {
  if (label.empty() || label == "." || label == ".." || label.find('/') != std::string::npos ||
      kMedia.size() + label.size() > kLongestMountPoint) {
    throw std::runtime_error(fmt::format(R"(the label "{}" cannot be used in /media)", label));
  }
  fs::path directory = std::string(kMedia) + label;
  std::error_code error;
  if (fs::exists(fs::symlink_status(directory, error)) &&
      (!fs::is_directory(fs::symlink_status(directory, error)) || CountMounts(directory) != 0 ||
       !fs::is_empty(directory, error))) {
    throw std::runtime_error(fmt::format("{} is in use", directory.string()));
  }
  return directory;
}

}  // namespace

// ---- Finding ----

std::vector<LocalDisk> FindDisks() {
  std::vector<LocalDisk> disks;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator("/sys/block", error)) {
    const std::string port = UsbPort(fs::canonical(entry.path(), error));
    if (port.empty()) continue;
    LocalDisk& disk = disks.emplace_back();
    disk.name = entry.path().filename().string();
    disk.removable = UDiskService::CheckRemovable(disk.name.c_str()) == 1;
    disk.interface_class = UDiskService::GetDeviceClass(port.c_str());
    for (const UDiskInfo& info : Probe(disk.name + "1")) {
      disk.partitions.push_back({.device = info.devName, .label = info.label, .type = info.type});
    }
  }
  std::ranges::sort(disks, {}, &LocalDisk::name);
  return disks;
}

// ---- Mounting ----

LocalMount::LocalMount(const std::string& device) {
  const std::string path = device.starts_with("/dev/") ? device : "/dev/" + device;
  if (geteuid() != 0) throw std::runtime_error(fmt::format("mounting {} needs root", path));
  std::optional<UDiskInfo> found;
  for (const UDiskInfo& info : Probe(path)) {
    if (path == info.devName) found = info;
  }
  if (!found) {
    throw std::runtime_error(fmt::format("{} is not a partition with a label or UUID", path));
  }
  directory_ = CheckedDirectory(found->label);

  operator_ = std::make_unique<UDiskOperator>(nullptr);
  service_ = std::make_unique<UDiskService>(nullptr, operator_.get());
  auto list = Allocate<UdiskDevice>();
  auto info = Allocate<UDiskInfo>();
  *info = *found;
  const int status = UDiskService::MountLocal(info.get());
  if (status != 0) {
    std::error_code ignored;
    fs::remove(directory_, ignored);  // empty: checked above, or just made
    throw std::runtime_error(fmt::format("cannot mount {} on {}: status {}", path,
                                         directory_.string(),
                                         WIFEXITED(status) ? WEXITSTATUS(status) : status));
  }
  // From here on the service owns the list: it unmounts its entries and frees it.
  *list = {.count = 1, .infos = info.release()};
  service_->mUdiskDevice = list.release();
}

LocalMount::~LocalMount() {
  // The service removes the directory with everything in it, even when it could not unmount it. If
  // nothing is mounted there, or a second mount covers the first, it would delete somebody's files.
  const int count = CountMounts(directory_);
  if (count == 1 && umount2(directory_.c_str(), MNT_DETACH) == 0) {
    service_->UmountLocal();
    return;
  }
  // UmountLocal, which frees the list, is not called.
  std::free(service_->mUdiskDevice->infos);
  std::free(service_->mUdiskDevice);
  // Somebody has unmounted it, for example to pull the disk. An empty directory can go.
  std::error_code error;
  if (count == 0 && (fs::remove(directory_, error) || !error)) return;
  PrintError(fmt::format("cpd-host: leaving {} alone: not mounted exactly once, or busy\n",
                         directory_.string()));
}

}  // namespace cpd::host
