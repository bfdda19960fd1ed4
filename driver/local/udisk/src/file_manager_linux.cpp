#include "file_manager_linux.h"

#include <dirent.h>
#include <fcntl.h>
#include <glib.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

#include "local_paths.h"
#include "udisk_log.h"

namespace cpd {

namespace {

/// Keeps FIFOs and devices from blocking the caller.
constexpr int kOpenFlags = O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
/// The size assumed for a file that reports none, such as one in /proc.
constexpr int64_t kUnknownSize = 1 << 20;

struct FreeDeleter {
  void operator()(void* block) const { std::free(block); }
};
struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};

udisk_timespec ToTimespec(const struct timespec& from) { return {from.tv_sec, from.tv_nsec}; }

int LeftInFile(const struct stat& st, int64_t offset, int count) {
  if (count <= 0) return count;
  if (offset < 0 || S_ISDIR(st.st_mode)) return 0;
  const bool knows_size = S_ISREG(st.st_mode) && st.st_size > 0;
  const int64_t left = knows_size ? std::max<int64_t>(st.st_size - offset, 0) : kUnknownSize;
  return static_cast<int>(std::min<int64_t>(left, count));
}

/// Stores errno for the caller and returns its text.
const char* TakeError(uint32_t* err) {
  const int error = errno;
  *err = static_cast<uint32_t>(error);
  return std::strerror(error);
}

/// Wraps readdir: logs an error, which ends the listing. Without an error errno is unchanged.
const dirent* NextEntry(DIR* dir) {
  const int before = std::exchange(errno, 0);
  const dirent* entry = ::readdir(dir);
  if (entry == nullptr && errno != 0) {
    UDISK_ERROR_OF(UdiskReadDir, "dir_read readdir failed errno: %s", std::strerror(errno));
  } else {
    errno = before;
  }
  return entry;
}

/// Whether `error`, from a stat that failed, means that an open would fail, too.
bool LeadsNowhere(int error) {
  return error == ENOENT || error == ENOTDIR || error == EACCES || error == ELOOP ||
         error == ENAMETOOLONG;
}

}  // namespace

FileManagerLinux::FileManagerLinux(std::function<DiskRoot()> confine_to)
    : mPaths(std::make_unique<LocalPaths>(std::move(confine_to))) {}

FileManagerLinux::~FileManagerLinux() { ::sync(); }

// ---- Files ----

int FileManagerLinux::UdiskCreateFile(const char* path, int /*flags*/, int mode) {
  constexpr int kFlags = O_CREAT | O_WRONLY | O_TRUNC | kOpenFlags;
  if (const Descriptor fd = mPaths->Open(path, kFlags, ModeOf(mode)); fd.ok()) return fd.get();
  UdiskMakeDir(path, 0777, 0);
  Descriptor fd = mPaths->Open(path, kFlags, ModeOf(mode));
  if (!fd.ok()) UDISK_ERROR("file_create failed errno: %s\n", std::strerror(errno));
  // Contract: in plain mode the retry's descriptor stays open, unlike the first one's.
  return mPaths->confined() ? fd.get() : fd.Release();
}

int FileManagerLinux::UdiskFileOpen(const char* /*path*/) { return -1; }
int FileManagerLinux::UdiskCloseFile(const char* /*path*/, int /*fd*/) { return 0; }
int FileManagerLinux::UdiskCleanUp(const char* /*path*/, int /*fd*/) { return 0; }

int FileManagerLinux::UdiskReadFile(const char* path, void* buf, int64_t offset, int count,
                                    uint32_t* err) {
  return UdiskReadFile(path, offset, err, [=](int) { return ReadRoom{buf, count}; });
}

int FileManagerLinux::UdiskReadFile(const char* path, int64_t offset, uint32_t* err,
                                    const std::function<ReadRoom(int fd)>& make_room) {
  const Descriptor fd = mPaths->Open(path, O_RDONLY | kOpenFlags);
  if (!fd.ok()) {
    UDISK_ERROR("file_read failed res:%d errno: %s\n", 0, TakeError(err));
    return 0;
  }
  const ReadRoom room = make_room(fd.get());
  // The system call refuses a negative count.
  const auto result =
      static_cast<int>(::pread(fd.get(), room.data, static_cast<size_t>(room.count), offset));
  if (result == -1) {
    UDISK_ERROR("file_read failed res: %d, fd = %d errno: %s\n", result, fd.get(), TakeError(err));
    return 0;  // Contract: a failed read returns 0, although a failed write returns -1.
  }
  return result;
}

int FileManagerLinux::Deliverable(int fd, int64_t offset, int count) {
  struct stat st {};
  if (::fstat(fd, &st) == 0) return LeftInFile(st, offset, count);
  return static_cast<int>(std::min<int64_t>(count, kUnknownSize));
}

int FileManagerLinux::Deliverable(const char* path, int64_t offset, int count) const {
  struct stat st {};
  if (::stat(mPaths->Target(path).c_str(), &st) == 0) return LeftInFile(st, offset, count);
  return static_cast<int>(std::min<int64_t>(count, LeadsNowhere(errno) ? 0 : kUnknownSize));
}

int FileManagerLinux::UdiskWriteFile(const char* path, const void* buf, int64_t offset, int count,
                                     uint32_t* err) {
  const Descriptor fd = mPaths->Open(path, O_WRONLY | kOpenFlags);
  if (!fd.ok()) {
    UDISK_ERROR("write file fail errno:%s \n", TakeError(err));
    return 0;
  }
  const auto result = static_cast<int>(::pwrite(fd.get(), buf, static_cast<size_t>(count), offset));
  if (result == -1) {
    UDISK_ERROR("pwrite failed res: %d, fd = %d errno: %s\n", result, fd.get(), TakeError(err));
  }
  return result;
}

int FileManagerLinux::UdiskFlushFile(const char* /*path*/) { return -1; }

int FileManagerLinux::UdiskTruncate(const char* path, int64_t length) {
  const int result = ::truncate(mPaths->Target(path).c_str(), length);
  if (result == -1) {
    UDISK_ERROR("truncate failed offset:%lld errno: %s\n", static_cast<long long>(length),
                std::strerror(errno));
  }
  return result;
}

int FileManagerLinux::UdiskFsync(const char* path) {
  const Descriptor fd = mPaths->Open(path, O_RDWR | kOpenFlags);
  return fd.ok() ? ::fsync(fd.get()) : -1;
}

int FileManagerLinux::UdiskFlush(const char* /*path*/) { return 0; }

int FileManagerLinux::UdiskRelease(const char* path) {
  UdiskFsync(path);
  return 0;
}

DiskRoot FileManagerLinux::RootAt(const std::string& path) const { return mPaths->RootAt(path); }
void FileManagerLinux::LetGo() { mPaths->LetGo(); }

mode_t FileManagerLinux::ModeOf(int mode) const {
  const mode_t bits = static_cast<uint16_t>(mode);
  constexpr mode_t kSetIds = S_ISUID | S_ISGID;
  return mPaths->confined() ? bits & ~kSetIds : bits;
}

// ---- Attributes ----

int FileManagerLinux::set_stat(const struct stat* from, udisk_stat* out) {
  *out = udisk_stat{
      .st_dev = static_cast<int32_t>(from->st_dev),
      .st_ino = from->st_ino,
      .st_nlink = static_cast<uint16_t>(from->st_nlink),
      .st_size = from->st_size,
      .st_rdev = static_cast<int32_t>(from->st_rdev),
      .st_blocks = from->st_blocks,
      .st_blksize = static_cast<int32_t>(from->st_blksize),
      .st_atim = ToTimespec(from->st_atim),
      .st_mtim = ToTimespec(from->st_mtim),
      .st_ctim = ToTimespec(from->st_ctim),
      .st_mode = static_cast<uint16_t>(from->st_mode),
      .st_uid = from->st_uid,
      .st_gid = from->st_gid,
      .st_reserved = 0,
  };
  return 0;
}

int FileManagerLinux::UdiskGetFileInformation(const char* path, udisk_stat* out) {
  struct stat st {};
  const int result = ::lstat(mPaths->Entry(path).c_str(), &st);
  if (result == 0) {
    set_stat(&st, out);
  } else {
    UDISK_ERROR(" lstat failed errno: %s", std::strerror(errno));
  }
  return result;
}

int FileManagerLinux::UdiskGetXattr(const char* /*path*/) { return -1; }

int FileManagerLinux::UdiskFileChmod(const char* path, int mode) {
  return ::chmod(mPaths->Target(path).c_str(), ModeOf(mode));
}

int FileManagerLinux::UdiskFileChown(const char* path, int uid, int gid) {
  return ::chown(mPaths->Target(path).c_str(), static_cast<uid_t>(uid), static_cast<gid_t>(gid));
}

int FileManagerLinux::set_statvfs(const struct statvfs* from, udisk_statvfs* out) {
  *out = udisk_statvfs{
      .f_bsize = from->f_bsize,
      .f_frsize = from->f_frsize,
      .f_blocks = from->f_blocks,
      .f_bfree = from->f_bfree,
      .f_bavail = from->f_bavail,
      .f_files = from->f_files,
      .f_ffree = from->f_ffree,
      .f_favail = from->f_favail,
      .f_fsid = from->f_fsid,
      .f_flag = from->f_flag,
      .f_namemax = from->f_namemax,
      .f_spare = {},
  };
  return 0;
}

int FileManagerLinux::UdiskGetStatvfs(const char* path, udisk_statvfs* out) {
  struct statvfs vfs {};
  struct statfs fs {};
  const LocalPath file = mPaths->Target(path);
  ::statvfs(file.c_str(), &vfs);
  ::statfs(file.c_str(), &fs);
  set_statvfs(&vfs, out);
  // Contract: the block counts are cut to 32 bits, so a very large disk looks small.
  out->f_bsize = static_cast<uint64_t>(fs.f_bsize);
  out->f_blocks = static_cast<uint32_t>(fs.f_blocks);
  out->f_bfree = static_cast<uint32_t>(fs.f_bfree);
  out->f_bavail = static_cast<uint32_t>(fs.f_bavail);
  return 0;
}

// ---- Directories and names ----

bool FileManagerLinux::IsDirectory(const char* path) {
  struct stat st {};
  return ::stat(mPaths->Target(path).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

int FileManagerLinux::MakeOneDir(const char* path, int mode) {
  return ::mkdir(mPaths->Entry(path).c_str(), ModeOf(mode));
}

int FileManagerLinux::UdiskMakeDir(const char* path, int mode, short make_last) {
  if (path == nullptr) return 0;
  // In plain mode the walk makes as many directories of a long path as it can. In confined mode a
  // path that is too long is refused at once, and consecutive separators count as one, so that a
  // hostile path does not cost one step per byte.
  const bool confined = mPaths->confined();
  if (confined && std::strlen(path) >= PATH_MAX) {
    errno = ENAMETOOLONG;
    return -1;
  }
  const std::unique_ptr<char, FreeDeleter> copy(::strdup(path));
  if (copy == nullptr) return 0;
  char* const text = copy.get();
  // Starts at 1 or later: there is no directory to make before a leading slash.
  for (size_t i = std::max<size_t>(mPaths->TrustedLength(text), 1);
       text[0] != '\0' && text[i] != '\0'; ++i) {
    if (text[i] != '/' && text[i] != '\\') continue;
    StopIfGivenUp();
    text[i] = '\0';
    if (!confined || text[i - 1] != '/') {
      UDISK_DEBUG("pszDir:%s\n", text);
      if (!IsDirectory(text) && MakeOneDir(text, mode) != 0) return -1;
    }
    text[i] = '/';
  }
  if (make_last != 0 && !IsDirectory(text)) return MakeOneDir(text, mode);
  return 0;
}

int FileManagerLinux::UdiskReadDir(const char* path, _UDISK_DIR_ATTR* out) {
  const LocalPath local = mPaths->Target(path);
  const std::unique_ptr<DIR, DirCloser> dir(::opendir(local.c_str()));
  if (dir == nullptr) {
    UDISK_ERROR("dir_read opendir failed errno: %s", std::strerror(errno));
    return -1;
  }
  // First pass: adds up the size of the buffer.
  uint32_t count = 0;
  uint32_t buf_len = 1;  // the spare byte
  while (const dirent* entry = NextEntry(dir.get())) {
    StopIfGivenUp();
    ++count;
    buf_len += static_cast<uint32_t>(sizeof(udisk_dir_entry) + std::strlen(entry->d_name) + 1);
    if (buf_len > INT32_MAX) {  // a broken disk's directory may have no end
      UDISK_ERROR("dir_read: no packet holds the listing");
      return -1;
    }
  }
  ::rewinddir(dir.get());
  std::unique_ptr<uint8_t, FreeDeleter> buf(
      static_cast<uint8_t*>(g_try_malloc0(buf_len)));  // g_malloc0 would abort
  if (buf == nullptr) return -1;

  // Second pass: if the directory grew meanwhile, entries that do not fit the buffer are left out.
  std::string full = std::string(local.c_str()) + '/';
  const size_t prefix = full.size();
  // Contract: an entry whose lstat fails repeats the attributes of the entry before it.
  struct stat st {};
  uint8_t* at = buf.get();
  const uint8_t* const end = at + buf_len - 1;
  for (uint32_t i = 0; i < count; ++i) {
    StopIfGivenUp();
    const dirent* entry = NextEntry(dir.get());
    if (entry == nullptr) break;
    const size_t name_len = std::strlen(entry->d_name) + 1;
    if (static_cast<size_t>(end - at) < sizeof(udisk_dir_entry) + name_len) break;
    full.resize(prefix);
    full += entry->d_name;
    // ".." is the only entry that can lead out of the disk.
    const bool is_parent = std::strcmp(entry->d_name, "..") == 0;
    ::lstat(is_parent ? mPaths->Entry((std::string(path) + "/..").c_str()).c_str() : full.c_str(),
            &st);
    udisk_dir_entry head{};
    set_stat(&st, &head.attributes);
    head.name_len = static_cast<uint16_t>(name_len);
    std::memcpy(at, &head, sizeof head);
    std::memcpy(at + sizeof head, entry->d_name, name_len);
    at += sizeof head + name_len;
  }
  *out = {.entry_count = count, .buf_len = buf_len, .buf = buf.release()};
  return 0;
}

int FileManagerLinux::UdiskDeleteDirectory(const char* path) {
  return ::rmdir(mPaths->Entry(path).c_str());
}

int FileManagerLinux::UdiskLink(const char* existing, const char* path) {
  return ::link(mPaths->Entry(existing).c_str(), mPaths->NewEntry(path).c_str());
}
int FileManagerLinux::UdiskUnlink(const char* path) {
  return ::unlink(mPaths->Entry(path).c_str());
}

int FileManagerLinux::UdiskRename(const char* from, const char* to) {
  const int result = ::rename(mPaths->Entry(from).c_str(), mPaths->NewEntry(to).c_str());
  UDISK_DEBUG("rename return res:%d\n", result);
  return result;
}

}  // namespace cpd
