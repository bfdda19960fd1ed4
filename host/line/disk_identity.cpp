#include "line/disk_identity.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/magic.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <string_view>
#include <system_error>
#include <utility>

namespace cpd::host {
namespace {

/// The UUID that udev has read from a block device; empty if it has none.
/// @param device  "major:minor"
std::string UuidOf(const std::string& device) {
  constexpr std::string_view kKey = "E:ID_FS_UUID=";
  std::ifstream database("/run/udev/data/b" + device);
  for (std::string line; std::getline(database, line);) {
    if (line.starts_with(kKey)) return line.substr(kKey.size());
  }
  return {};
}

std::string BootId() {
  std::ifstream file("/proc/sys/kernel/random/boot_id");
  std::string id;
  std::getline(file, id);
  return id;
}

/// Two 64-bit FNV-1a hashes with different start values. The ids tell honest disks apart; a side
/// that lies about them harms nobody but its own user.
Id128 Digest(std::string_view text) {
  Id128 digest;
  for (size_t half = 0; half < 2; ++half) {
    uint64_t hash = 0xcbf29ce484222325 + half;
    for (const unsigned char c : text) hash = (hash ^ c) * 0x100000001b3;
    std::memcpy(digest.data() + half * sizeof hash, &hash, sizeof hash);
  }
  return digest;
}

/// From Linux 6.8 on, the id of a mount is not used again after an unmount.
constexpr unsigned kUniqueMountId = 0x4000;

bool LookAt(const std::string& directory, int flags, struct statx* status) {
  constexpr unsigned kWanted = STATX_INO | STATX_MNT_ID | kUniqueMountId;
  return statx(AT_FDCWD, directory.c_str(), flags, kWanted, status) == 0;
}

struct statx Look(const std::string& directory) {
  struct statx status {};
  if (!LookAt(directory, 0, &status)) {
    throw std::system_error(errno, std::generic_category(), directory);
  }
  return status;
}

std::string DeviceOf(const struct statx& status) {
  return fmt::format("{}:{}", status.stx_dev_major, status.stx_dev_minor);
}

/// On FAT, a directory's inode number changes with every mount.
bool HasStableInodes(const struct statfs& file_system) {
  constexpr long kExfatMagic = 0x2011bab0;
  return file_system.f_type != MSDOS_SUPER_MAGIC && file_system.f_type != kExfatMagic;
}

}  // namespace

DiskIdentifier::DiskIdentifier(std::string directory)
    : directory_(std::move(directory)),
      boot_(BootId()),
      device_(DeviceOf(Look(directory_))),
      uuid_(UuidOf(device_)) {}

DiskIdentity DiskIdentifier::Now() const {
  const auto status = Look(directory_);
  struct statfs file_system {};
  if (statfs(directory_.c_str(), &file_system) != 0) {
    throw std::system_error(errno, std::generic_category(), directory_);
  }
  const auto device = DeviceOf(status);
  std::string disk = device == device_ ? uuid_ : UuidOf(device);
  if (disk.empty()) {
    disk = fmt::format("{:x} {:x}", file_system.f_fsid.__val[0], file_system.f_fsid.__val[1]);
  }
  if (HasStableInodes(file_system)) disk += fmt::format(" {}", uint64_t{status.stx_ino});
  return {.disk = Digest(disk),
          .life = Digest(fmt::format("{} {}", boot_, uint64_t{status.stx_mnt_id}))};
}

DiskWatch::DiskWatch(std::string directory)
    : directory_(std::move(directory)), first_(host::Look(directory_)) {}

DiskWatch::State DiskWatch::Look() {
  struct statx now {};
  const bool is_found = LookAt(directory_, AT_STATX_DONT_SYNC, &now);
  // Without its mount, the directory is one of the file system below.
  const auto root = first_.stx_attributes & STATX_ATTR_MOUNT_ROOT;
  if (!is_found || (now.stx_attributes & root) != root) {
    was_gone_ = true;
    return State::kGone;
  }
  const bool is_same = now.stx_mnt_id == first_.stx_mnt_id && !was_gone_;
  return is_same ? State::kThere : State::kMountedAnew;
}

Id128 RandomId() {
  Id128 id;
  if (getrandom(id.data(), id.size(), 0) != static_cast<ssize_t>(id.size())) {
    throw std::system_error(errno, std::generic_category(), "random bytes");
  }
  return id;
}

}  // namespace cpd::host
