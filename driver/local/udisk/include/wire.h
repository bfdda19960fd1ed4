// The wire protocol: every record that crosses between the remote side and this module, byte for
// byte. All integers are little-endian and stand as stored, whatever the packet header's bigEndian
// says. Texts carry no terminating NUL unless said. A request is a head, then the texts or data it
// announces; a reply is the request's head with the result written into it, then what its row says.
// Records are packed (alignment 1): read and write them with memcpy.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cpd {

/// Command codes in a packet's header.
enum Command : uint16_t {
  kMountRemote = 100,  // also announces the disk, module -> remote side
  kUmountRemote = 101,
  kGetFileAttr = 102,
  kFileCreate = 103,
  kFileOpen = 104,  // accepted and ignored
  kFileRead = 105,
  kFileWrite = 106,
  kDirRead = 107,
  kGetXattr = 108,
  kFileTruncate = 109,
  kFileFsync = 110,
  kFileChmod = 111,
  kFileChown = 112,
  kGetStatvfs = 113,
  kMakeDir = 114,
  kRemoveDir = 115,
  kSetLink = 116,
  kSetUnlink = 117,
  kSetRename = 118,
  kFileFlush = 119,
  kFileRelease = 120,
  kCheckDir = 121,
  kSmallFileNotice = 122,  // module -> remote side: 123 is served; ignored when received
  kSmallFileRead = 123,
  kMountResponse = 200,
  kBusReadBandwidth = 513,  // bus event: u32, the announced read bandwidth in kbps, 0 = no limit
};

#pragma pack(push, 1)

// ---- Records ----

/// A point in time.
struct udisk_timespec {
  int64_t tv_sec;
  int64_t tv_nsec;
};

/// A file's attributes, as lstat gives them. The order is the protocol's own.
struct udisk_stat {
  int64_t st_dev;  ///< sign-extended from 32 bits
  uint64_t st_ino;
  uint64_t st_nlink;   ///< zero-extended from 16 bits
  int64_t st_size;     ///< bytes
  int64_t st_rdev;     ///< sign-extended from 32 bits
  int64_t st_blocks;   ///< units of 512 bytes
  int64_t st_blksize;  ///< sign-extended from 32 bits
  udisk_timespec st_atim;
  udisk_timespec st_mtim;
  udisk_timespec st_ctim;
  uint32_t st_mode;  ///< type and permission bits, zero-extended from 16 bits
  uint32_t st_uid;
  uint32_t st_gid;
  uint32_t st_reserved;  ///< 0
};
static_assert(sizeof(udisk_stat) == 120 && alignof(udisk_stat) == 1);
static_assert(offsetof(udisk_stat, st_size) == 24 && offsetof(udisk_stat, st_atim) == 56);
static_assert(offsetof(udisk_stat, st_mtim) == 72 && offsetof(udisk_stat, st_ctim) == 88);
static_assert(offsetof(udisk_stat, st_mode) == 104 && offsetof(udisk_stat, st_reserved) == 116);

/// A file system's statistics.
struct udisk_statvfs {
  uint64_t f_bsize;
  uint64_t f_frsize;
  uint64_t f_blocks;  ///< low 32 bits of the count; so are f_bfree and f_bavail
  uint64_t f_bfree;
  uint64_t f_bavail;
  uint64_t f_files;
  uint64_t f_ffree;
  uint64_t f_favail;
  uint64_t f_fsid;
  uint64_t f_flag;
  uint64_t f_namemax;
  uint8_t f_spare[24];  ///< 0
};
static_assert(sizeof(udisk_statvfs) == 112 && offsetof(udisk_statvfs, f_spare) == 88);

/// An entry of a directory listing; `name_len` bytes of name follow, the last of them a NUL.
/// A listing is its entries back to back, then one spare zero byte.
struct udisk_dir_entry {
  udisk_stat attributes;
  uint16_t name_len;  ///< NUL included
};
static_assert(sizeof(udisk_dir_entry) == 122 && offsetof(udisk_dir_entry, name_len) == 120);

// ---- Mount handshake: 100, 101, 200 ----

/// 100, 101: then the name. Reply: the same. (The announcement, a 100 sent by the module, carries
/// two more bytes: the name's terminating NUL and the read-only flag.)
struct MountHead {
  uint16_t name_length;
};
static_assert(sizeof(MountHead) == 2);

/// 200: then the drive, then the label (crossed against the lengths). No reply.
struct MountResponseHead {
  uint16_t label_length;
  uint16_t drive_length;
};
static_assert(sizeof(MountResponseHead) == 4);

// ---- Attributes: 102, 108, 113 ----

/// 102: then the path. Reply: head, path, `attr_length` bytes of udisk_stat.
struct FileAttrHead {
  uint16_t path_length;
  uint16_t attr_length;  ///< reply: 120, or 0 when there is no such file
};
static_assert(sizeof(FileAttrHead) == 4 && offsetof(FileAttrHead, attr_length) == 2);

/// 108: then the path, then the attribute's name. Reply: head, name; never a value.
struct XattrHead {
  int64_t result;        ///< reply: 0
  int32_t value_length;  ///< reply: 0
  uint16_t path_length;
  uint16_t name_length;
};
static_assert(sizeof(XattrHead) == 16 && offsetof(XattrHead, path_length) == 12);

/// 113: then the path. Reply: head, path, any number of udisk_statvfs.
struct StatvfsHead {
  uint32_t path_length;
  uint32_t record_length;  ///< reply: 112, also when no record follows
};
static_assert(sizeof(StatvfsHead) == 8 && offsetof(StatvfsHead, record_length) == 4);

// ---- Data: 105, 123 ----

/// 105: then the path. Reply: head, path, `size` bytes of data.
/// 123: SmallReadHead, then so many of this head with its path. Reply: the same, each with `size`
/// bytes of data behind its path; the fields not interpreted are 0 there.
struct ReadHead {
  int64_t offset;
  uint32_t unread_8;  ///< not interpreted
  uint32_t size;      ///< reply: bytes read, 0 on failure and at the end of the file
  uint32_t path_length;
  uint32_t unread_20;  ///< not interpreted
};
static_assert(sizeof(ReadHead) == 24 && offsetof(ReadHead, size) == 12);
static_assert(offsetof(ReadHead, path_length) == 16 && offsetof(ReadHead, unread_20) == 20);

// ---- Directories: 107, 121 ----

/// 107: then the path. 121: then the path, then `buf_len` bytes of cached entries.
/// Reply to both: head, path, the listing; 121 gets none when nothing changed.
struct DirHead {
  uint8_t echoed[8];  ///< not interpreted
  uint32_t buf_len;   ///< length of the listing; 107's request: not read
  uint16_t path_length;
  uint16_t entry_count;  ///< low 16 bits of the count; 107's request: not read
};
static_assert(sizeof(DirHead) == 16 && offsetof(DirHead, buf_len) == 8);
static_assert(offsetof(DirHead, path_length) == 12 && offsetof(DirHead, entry_count) == 14);

#pragma pack(pop)

}  // namespace cpd
