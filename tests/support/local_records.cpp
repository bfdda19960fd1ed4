#include "support/local_records.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>

#include <array>
#include <cerrno>
#include <ctime>
#include <memory>
#include <system_error>

namespace cpd::test {
namespace {

void Check(bool good, const std::string& path) {
  if (!good) throw std::system_error(errno, std::generic_category(), path);
}

}  // namespace

udisk_stat StatOf(const std::string& local_path) {
  struct stat from = {};
  Check(lstat(local_path.c_str(), &from) == 0, local_path);
  udisk_stat record = {};
  record.st_dev = static_cast<int32_t>(from.st_dev);
  record.st_ino = from.st_ino;
  record.st_nlink = static_cast<uint16_t>(from.st_nlink);
  record.st_size = from.st_size;
  record.st_rdev = static_cast<int32_t>(from.st_rdev);
  record.st_blocks = from.st_blocks;
  record.st_blksize = static_cast<int32_t>(from.st_blksize);
  record.st_atim = {.tv_sec = from.st_atim.tv_sec, .tv_nsec = from.st_atim.tv_nsec};
  record.st_mtim = {.tv_sec = from.st_mtim.tv_sec, .tv_nsec = from.st_mtim.tv_nsec};
  record.st_ctim = {.tv_sec = from.st_ctim.tv_sec, .tv_nsec = from.st_ctim.tv_nsec};
  record.st_mode = static_cast<uint16_t>(from.st_mode);
  record.st_uid = from.st_uid;
  record.st_gid = from.st_gid;
  return record;
}

udisk_statvfs StatvfsOf(const std::string& local_path) {
  struct statvfs from = {};
  struct statfs counts = {};
  Check(statvfs(local_path.c_str(), &from) == 0, local_path);
  Check(statfs(local_path.c_str(), &counts) == 0, local_path);
  udisk_statvfs record = {};
  record.f_bsize = static_cast<uint64_t>(counts.f_bsize);
  record.f_frsize = from.f_frsize;
  record.f_blocks = static_cast<uint32_t>(counts.f_blocks);
  record.f_bfree = static_cast<uint32_t>(counts.f_bfree);
  record.f_bavail = static_cast<uint32_t>(counts.f_bavail);
  record.f_files = from.f_files;
  record.f_ffree = from.f_ffree;
  record.f_favail = from.f_favail;
  record.f_fsid = from.f_fsid;
  record.f_flag = from.f_flag;
  record.f_namemax = from.f_namemax;
  return record;
}

std::vector<DirEntry> EntriesOf(const std::string& local_path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(local_path.c_str()), &closedir);
  Check(directory != nullptr, local_path);
  std::vector<DirEntry> entries;
  while (const dirent* entry = readdir(directory.get())) {
    entries.push_back({.stat = StatOf(local_path + "/" + entry->d_name), .name = entry->d_name});
  }
  return entries;
}

void SettleAccessTime(const std::string& local_path) {
  constexpr time_t kAnHour = 3600;
  const std::array<timespec, 2> times = {
      {{.tv_sec = time(nullptr) + kAnHour, .tv_nsec = 0}, {.tv_sec = 0, .tv_nsec = UTIME_OMIT}}};
  Check(utimensat(AT_FDCWD, local_path.c_str(), times.data(), 0) == 0, local_path);
}

}  // namespace cpd::test
