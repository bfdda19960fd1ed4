// The file operations behind the requests, and the listing they make.
#pragma once

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <string>

#include "wire.h"

namespace cpd {

class LocalPaths;

/// A directory listing.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the record's established name
struct _UDISK_DIR_ATTR {
  uint32_t entry_count;  ///< entries in buf
  uint32_t buf_len;      ///< bytes in buf: the entries and one spare zero byte
  uint8_t* buf;          ///< packed udisk_dir_entry; released with free by who asked for it
};

/// The mount point of a disk.
struct DiskRoot {
  std::string path;  ///< empty: there is no disk
  bool is_mount =
      false;  ///< it was the root of a mount when the disk was named, and has to stay one
};

/// Where a read puts its data.
struct ReadRoom {
  void* data;
  int count;  ///< how much to read
};

/// What ends an operation of many calls between two of them, once it has been given up.
struct GivenUp : std::exception {
  [[nodiscard]] const char* what() const noexcept override {
    return "given up, the disk is being closed";
  }
};

/// POSIX operations on full local paths. Each opens and closes its own descriptor, so nothing
/// stays open on a disk that may be pulled out; confined reads keep the mount point open until
/// LetGo. Callable from any thread. Unless said otherwise the result is that of the system call,
/// errno is left as that call set it, and a failure is logged where the operation has a text for
/// it. Files are opened O_CLOEXEC | O_NONBLOCK | O_NOCTTY, so that a FIFO or device never holds a
/// call; a regular file that another process holds a lease on is waited for, as open does without
/// O_NONBLOCK. Confined, modes lose their set-user-ID and set-group-ID bits.
class FileManagerLinux {
 public:
  /// @param confine_to  the present mount point, which no path then leads out of; none: paths are
  ///                    used as they stand
  explicit FileManagerLinux(std::function<DiskRoot()> confine_to = nullptr);
  /// Flushes all file systems, so that what was written is on the disk when the driver lets it go.
  ~FileManagerLinux();
  FileManagerLinux(const FileManagerLinux&) = delete;
  FileManagerLinux& operator=(const FileManagerLinux&) = delete;

  /// Creates or empties a file, making missing parents with mode 0777. `flags` is ignored. In plain
  /// mode the descriptor stays open where parents were tried.
  /// @return a descriptor number, of use for its sign only, or -1
  int UdiskCreateFile(const char* path, int flags, int mode);
  bool IsDirectory(const char* path);  ///< links are followed
  int MakeOneDir(const char* path, int mode);
  /// Makes the missing directories above `path` and, with `make_last`, `path` itself. Backslashes
  /// separate like slashes. @return 0 (also for null), -1, or the last mkdir's result
  int UdiskMakeDir(const char* path, int mode, short make_last);
  int UdiskFileOpen(const char* path);           ///< not implemented: -1
  int UdiskCloseFile(const char* path, int fd);  ///< nothing: 0
  int UdiskCleanUp(const char* path, int fd);    ///< nothing: 0

  /// Reads up to `count` bytes at `offset`.
  /// @param err  receives errno on failure only
  /// @return bytes read; 0 at the end of the file and on every failure
  int UdiskReadFile(const char* path, void* buf, int64_t offset, int count, uint32_t* err);
  /// The same into room that is made once the file is open: `make_room` gets its descriptor.
  int UdiskReadFile(const char* path, int64_t offset, uint32_t* err,
                    const std::function<ReadRoom(int fd)>& make_room);
  /// Whether a read would end past the greatest offset there is. The call refuses it, and needs no
  /// room for that.
  static bool Overflows(int64_t offset, int count) {
    return count > 0 && offset > INT64_MAX - count;
  }
  /// How many of `count` bytes at `offset` the file can deliver at most. A file that does not know
  /// its size is taken for one of 1 MiB, one that cannot be reached for empty. A negative count
  /// stays as it is.
  static int Deliverable(int fd, int64_t offset, int count);
  int Deliverable(const char* path, int64_t offset, int count) const;
  /// Writes to an existing file. @param err  receives errno on failure only
  /// @return bytes written; 0 when the file cannot be opened, -1 when the write failed
  int UdiskWriteFile(const char* path, const void* buf, int64_t offset, int count, uint32_t* err);
  int UdiskFlushFile(const char* path);  ///< not implemented: -1

  int set_stat(const struct stat* from, udisk_stat* out);  ///< 0
  /// Attributes of the file itself: a symbolic link is not followed. `out` is written on success.
  int UdiskGetFileInformation(const char* path, udisk_stat* out);
  int UdiskGetXattr(const char* path);  ///< extended attributes are not supported: -1
  /// Lists a directory, "." and ".." included, in the directory's own order. `out` is left alone on
  /// failure. @return 0, or -1 when it cannot be opened or memory ran out
  int UdiskReadDir(const char* path, _UDISK_DIR_ATTR* out);
  int UdiskLink(const char* existing, const char* path);
  int UdiskUnlink(const char* path);
  int UdiskRename(const char* from, const char* to);
  int UdiskTruncate(const char* path, int64_t length);
  /// fsync; fails when the file cannot be opened read-write.
  int UdiskFsync(const char* path);
  int UdiskFileChmod(const char* path, int mode);                   ///< 16 bits of mode
  int UdiskFileChown(const char* path, int uid, int gid);           ///< follows links
  int set_statvfs(const struct statvfs* from, udisk_statvfs* out);  ///< 0
  /// What the calls do not fill stays zero. @return 0
  int UdiskGetStatvfs(const char* path, udisk_statvfs* out);
  int UdiskDeleteDirectory(const char* path);
  int UdiskFlush(const char* path);    ///< nothing: 0
  int UdiskRelease(const char* path);  ///< as UdiskFsync, but always 0

  /// A mount point as it is now, for `confine_to` to give. Looks at it in confined mode only.
  [[nodiscard]] DiskRoot RootAt(const std::string& path) const;
  /// Closes what is kept open on the disk between requests, so that it can be unmounted.
  void LetGo();

  /// From now on listings, the making of missing directories, and whatever asks StopIfGivenUp, end
  /// before their next call.
  void GiveUp() { mGivenUp = true; }
  /// @throws GivenUp  after GiveUp
  void StopIfGivenUp() const {
    if (mGivenUp) throw GivenUp();
  }

 private:
  /// The mode of something new. Confined, nothing is made that runs with the rights of its owner.
  [[nodiscard]] mode_t ModeOf(int mode) const;

  const std::unique_ptr<LocalPaths> mPaths;
  std::atomic<bool> mGivenUp = false;
};

}  // namespace cpd
