// The file operations that carry out requests, and the listing of a directory.
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
  uint32_t entry_count;  ///< entries in buf; too many if the directory shrank during the listing
  uint32_t buf_len;      ///< bytes in buf: the entries and one spare zero byte
  uint8_t* buf;          ///< packed udisk_dir_entry records; the caller releases it with free
};

/// The mount point of a disk.
struct DiskRoot {
  std::string path;  ///< empty when there is no disk
  /// It was the root of a mount when the disk was set, so it must still be one.
  bool is_mount = false;
};

/// Where a read puts its data.
struct ReadRoom {
  void* data;
  int count;  ///< bytes to read
};

/// Thrown by an operation of many calls, between two of them, once GiveUp has been called.
struct GivenUp : std::exception {
  [[nodiscard]] const char* what() const noexcept override {
    return "given up, the disk is being closed";
  }
};

/// POSIX operations on full local paths. Each opens and closes its own descriptor, so nothing
/// stays open on a disk that may be pulled out; in confined mode the mount point stays open until
/// LetGo. Callable from any thread. Unless stated otherwise, an operation returns what the system
/// call returned and leaves errno as that call set it; some operations log a failure. Files are
/// opened with O_CLOEXEC | O_NONBLOCK | O_NOCTTY, so a FIFO or device never blocks a call. Opening
/// a regular file that another process holds a lease on still waits, as without O_NONBLOCK. In
/// confined mode, modes lose their set-user-ID and set-group-ID bits.
class FileManagerLinux {
 public:
  /// @param confine_to  returns the current mount point, to which all paths are then confined;
  ///                    without it paths are used unchanged
  explicit FileManagerLinux(std::function<DiskRoot()> confine_to = nullptr);
  /// Syncs all file systems, so that everything written is on the disk once the driver is gone.
  ~FileManagerLinux();
  FileManagerLinux(const FileManagerLinux&) = delete;
  FileManagerLinux& operator=(const FileManagerLinux&) = delete;

  /// Creates or empties a file, making missing parents with mode 0777. `flags` is ignored. In plain
  /// mode the descriptor stays open when the file was created after making its parents.
  /// @return -1 on failure, else a descriptor number of which only the sign means anything
  int UdiskCreateFile(const char* path, int flags, int mode);
  bool IsDirectory(const char* path);  ///< links are followed
  int MakeOneDir(const char* path, int mode);
  /// Makes the missing directories above `path` and, with `make_last`, `path` itself. A backslash
  /// separates components, as a slash does.
  /// @return 0 (also for null, and when memory runs out), -1, or the last mkdir's result
  int UdiskMakeDir(const char* path, int mode, short make_last);
  int UdiskFileOpen(const char* path);           ///< not implemented: -1
  int UdiskCloseFile(const char* path, int fd);  ///< does nothing: 0
  int UdiskCleanUp(const char* path, int fd);    ///< does nothing: 0

  /// Reads up to `count` bytes at `offset`.
  /// @param err  receives errno on failure only
  /// @return bytes read; 0 at the end of the file and on every failure
  int UdiskReadFile(const char* path, void* buf, int64_t offset, int count, uint32_t* err);
  /// As above, but `make_room`, called with the open file's descriptor, supplies the buffer.
  int UdiskReadFile(const char* path, int64_t offset, uint32_t* err,
                    const std::function<ReadRoom(int fd)>& make_room);
  /// Whether a read would end past the greatest possible offset. The system call refuses it, so it
  /// needs no buffer.
  static bool Overflows(int64_t offset, int count) {
    return count > 0 && offset > INT64_MAX - count;
  }
  /// The most that the file can deliver of `count` bytes at `offset`. A file of unknown size (such
  /// as one in /proc) counts as 1 MiB, and one that is missing or out of reach counts as empty. A
  /// negative count is returned unchanged.
  static int Deliverable(int fd, int64_t offset, int count);
  int Deliverable(const char* path, int64_t offset, int count) const;
  /// Writes to an existing file. @param err  receives errno on failure only
  /// @return bytes written; 0 when the file cannot be opened, -1 when the write failed
  int UdiskWriteFile(const char* path, const void* buf, int64_t offset, int count, uint32_t* err);
  int UdiskFlushFile(const char* path);  ///< not implemented: -1

  int set_stat(const struct stat* from, udisk_stat* out);  ///< returns 0
  /// Attributes of the file itself: a symbolic link is not followed. `out` is written on success.
  int UdiskGetFileInformation(const char* path, udisk_stat* out);
  int UdiskGetXattr(const char* path);  ///< extended attributes are not supported: -1
  /// Lists a directory, "." and ".." included, in the directory's own order. `out` is unchanged on
  /// failure. @return 0, or -1 when it cannot be opened, no packet holds the listing, or memory ran
  /// out
  int UdiskReadDir(const char* path, _UDISK_DIR_ATTR* out);
  int UdiskLink(const char* existing, const char* path);
  int UdiskUnlink(const char* path);
  int UdiskRename(const char* from, const char* to);
  int UdiskTruncate(const char* path, int64_t length);
  /// fsync; fails when the file cannot be opened read-write.
  int UdiskFsync(const char* path);
  int UdiskFileChmod(const char* path, int mode);                   ///< 16 bits of mode
  int UdiskFileChown(const char* path, int uid, int gid);           ///< follows links
  int set_statvfs(const struct statvfs* from, udisk_statvfs* out);  ///< returns 0
  /// A system call that fails leaves its fields zero. @return 0
  int UdiskGetStatvfs(const char* path, udisk_statvfs* out);
  int UdiskDeleteDirectory(const char* path);
  int UdiskFlush(const char* path);    ///< does nothing: 0
  int UdiskRelease(const char* path);  ///< as UdiskFsync, but always returns 0

  /// Examines a mount point, for `confine_to` to return later. Touches the disk only in confined
  /// mode.
  [[nodiscard]] DiskRoot RootAt(const std::string& path) const;
  /// Closes the mount point that confined mode keeps open, so that the disk can be unmounted.
  void LetGo();

  /// From now on a listing, the making of missing directories, and any caller of StopIfGivenUp
  /// ends after a few more system calls at most. Any thread.
  void GiveUp() { mGivenUp = true; }
  /// @throws GivenUp  after GiveUp
  void StopIfGivenUp() const {
    if (mGivenUp) throw GivenUp();
  }

 private:
  /// The low 16 bits of `mode`; in confined mode without the set-user-ID and set-group-ID bits, so
  /// that no file runs with its owner's rights.
  [[nodiscard]] mode_t ModeOf(int mode) const;

  const std::unique_ptr<LocalPaths> mPaths;
  std::atomic<bool> mGivenUp = false;
};

}  // namespace cpd
