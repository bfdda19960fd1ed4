// The wire protocol: every record that crosses between the remote side and this module, byte for
// byte. All integers are little-endian, whatever the packet header's bigEndian says. Texts carry no
// terminating NUL unless stated. A request is a head, followed by the texts or data that it
// announces; a reply is the request's head with the result written into it. The comment of a head
// names its commands and then what follows it, in the request and in the reply. Records are packed
// (alignment 1): read and write them with memcpy.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

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
  kSmallFileNotice = 122,  // module -> remote side: 123 is supported; ignored when received
  kSmallFileRead = 123,
  kMountResponse = 200,
  kBusReadBandwidth = 513,  // bus event: u32, the announced read bandwidth in kbps, 0 = no limit
};

/// A command and the name that logs and statistics give it.
struct CommandRow {
  uint16_t code;
  const char* name;
};

/// Every command, sorted by code. A bus event is not a command.
inline constexpr std::array kCommandNames = std::to_array<CommandRow>({
    {kMountRemote, "mount_remote"},
    {kUmountRemote, "umount_remote"},
    {kGetFileAttr, "get_file_attr"},
    {kFileCreate, "file_create"},
    {kFileOpen, "file_open"},
    {kFileRead, "file_read"},
    {kFileWrite, "file_write"},
    {kDirRead, "dir_read"},
    {kGetXattr, "get_xattr"},
    {kFileTruncate, "file_truncate"},
    {kFileFsync, "file_fsync"},
    {kFileChmod, "file_chmod"},
    {kFileChown, "file_chown"},
    {kGetStatvfs, "get_statvfs"},
    {kMakeDir, "make_dir"},
    {kRemoveDir, "remove_dir"},
    {kSetLink, "set_link"},
    {kSetUnlink, "set_unlink"},
    {kSetRename, "set_rename"},
    {kFileFlush, "file_flush"},
    {kFileRelease, "file_release"},
    {kCheckDir, "check_dir"},
    {kSmallFileNotice, "small_file_notice"},
    {kSmallFileRead, "small_file_read"},
    {kMountResponse, "mount_response"},
});
static_assert(std::ranges::is_sorted(kCommandNames, std::ranges::less_equal{}, &CommandRow::code));

/// @return the command's name; null when there is no such command
constexpr const char* CommandName(uint16_t code) {
  const auto row = std::ranges::lower_bound(kCommandNames, code, {}, &CommandRow::code);
  return row != kCommandNames.end() && row->code == code ? row->name : nullptr;
}

/// The greatest length in bytes that 109 gives a file, unless it has one of the suffixes below.
inline constexpr uint64_t kMostTruncateLength = 10 << 20;

/// Suffixes of office and temporary files, which may have any length. A suffix that begins with one
/// of these counts, so the shorter ones cover the longer.
inline constexpr std::array<std::string_view, 10> kUnlimitedSuffixes{
    ".doc", ".xls", ".tmp", ".ppt", ".vsd", ".spp", ".docx", ".xlsx", ".pptx", ".vsdx"};

/// @param suffix  a path from its last dot on
constexpr bool IsUnlimitedSuffix(std::string_view suffix) {
  return std::ranges::any_of(kUnlimitedSuffixes,
                             [&](std::string_view known) { return suffix.starts_with(known); });
}

#pragma pack(push, 1)

// ---- Records ----

/// A point in time.
struct udisk_timespec {
  int64_t tv_sec;
  int64_t tv_nsec;
};

/// A file's attributes, as lstat gives them, in the protocol's own order.
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
  uint64_t f_blocks;  ///< low 32 bits of the count, as in f_bfree and f_bavail
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

/// 200: then the drive, then the label (the lengths come in the opposite order). No reply.
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
  uint32_t record_length;  ///< reply: 112, even when no record follows
};
static_assert(sizeof(StatvfsHead) == 8 && offsetof(StatvfsHead, record_length) == 4);

// ---- Open files: 103, 109, 110, 111, 112, 119, 120 ----
// Reply to all but 119 and 120: head, path. The result is what the local call returned, never an
// errno.

/// 103: then the path.
struct CreateHead {
  uint32_t path_length;
  uint32_t flags;  ///< not applied
  uint32_t mode;
  int32_t result;  ///< reply: 0 or more on success, else -1
};
static_assert(sizeof(CreateHead) == 16 && offsetof(CreateHead, result) == 12);

/// 109: then the path.
struct TruncateHead {
  uint64_t length;  ///< capped as kMostTruncateLength says; the reply echoes it uncapped
  uint32_t path_length;
  int32_t result;
};
static_assert(sizeof(TruncateHead) == 16 && offsetof(TruncateHead, path_length) == 8);

/// 110: then the path.
struct FsyncHead {
  uint32_t path_length;
  uint32_t unread_4;  ///< not interpreted
  int32_t result;
};
static_assert(sizeof(FsyncHead) == 12 && offsetof(FsyncHead, result) == 8);

/// 111: then the path.
struct ChmodHead {
  int32_t result;
  uint16_t path_length;
  uint16_t mode;
};
static_assert(sizeof(ChmodHead) == 8 && offsetof(ChmodHead, path_length) == 4);

/// 112: then the path.
struct ChownHead {
  uint32_t path_length;
  uint32_t uid;
  uint32_t gid;
  int32_t result;
};
static_assert(sizeof(ChownHead) == 16 && offsetof(ChownHead, result) == 12);

/// 119, 120: then the path. Reply: the request itself, byte for byte.
struct CloseHead {
  uint32_t path_length;
  uint32_t fd;  ///< logged only
};
static_assert(sizeof(CloseHead) == 8 && offsetof(CloseHead, fd) == 4);

// ---- Data: 105, 106, 123 ----

/// 105: then the path. Reply: head, path, `size` bytes of data.
/// 123: SmallReadHead, then `count` times this head and its path. Reply: the same, with `size`
/// bytes of data after each path; the fields that are not interpreted are 0.
struct ReadHead {
  int64_t offset;
  uint32_t unread_8;  ///< not interpreted
  uint32_t size;      ///< reply: bytes read, 0 on failure and at the end of the file
  uint32_t path_length;
  uint32_t unread_20;  ///< not interpreted
};
static_assert(sizeof(ReadHead) == 24 && offsetof(ReadHead, size) == 12);
static_assert(offsetof(ReadHead, path_length) == 16 && offsetof(ReadHead, unread_20) == 20);

/// 123: then `count` ReadHead records, each followed by its path of at least 1 byte.
struct SmallReadHead {
  uint32_t count;
};
static_assert(sizeof(SmallReadHead) == 4);

/// 106: then the path, then `size` bytes: the data (single), or WritePieceHead records, each
/// followed by its piece (batch). Reply, only when the markers are equal: head, path.
struct WriteHead {
  int64_t offset;
  int32_t size;        ///< reply: 0 when anything failed
  uint32_t unread_12;  ///< not interpreted
  uint32_t single;     ///< 0 = batch
  uint16_t path_length;
  uint8_t marker_a;
  uint8_t marker_b;
};
static_assert(sizeof(WriteHead) == 24 && offsetof(WriteHead, single) == 16);
static_assert(offsetof(WriteHead, path_length) == 20 && offsetof(WriteHead, marker_b) == 23);

/// A piece of a batch; `length` bytes follow.
struct WritePieceHead {
  int64_t offset;
  int32_t length;
};
static_assert(sizeof(WritePieceHead) == 12 && offsetof(WritePieceHead, length) == 8);

// ---- Directories: 107, 121 ----

/// 107: then the path. 121: then the path, then `buf_len` bytes of cached entries.
/// Reply to both: head, path, the listing; no reply to 121 when nothing changed.
struct DirHead {
  uint8_t echoed[8];  ///< not interpreted
  uint32_t buf_len;   ///< length of the listing; 107's request: not read
  uint16_t path_length;
  uint16_t entry_count;  ///< low 16 bits of the count; 107's request: not read
};
static_assert(sizeof(DirHead) == 16 && offsetof(DirHead, buf_len) == 8);
static_assert(offsetof(DirHead, path_length) == 12 && offsetof(DirHead, entry_count) == 14);

// ---- Names: 114 to 118 ----
// Reply to all: head, path or paths; 114 echoes the beginning of the local path instead.

/// 114: then the path.
struct MakeDirHead {
  int32_t result;
  uint16_t path_length;
  int16_t mode;
};
static_assert(sizeof(MakeDirHead) == 8 && offsetof(MakeDirHead, path_length) == 4);

/// 115, 117: then the path.
struct RemoveHead {
  uint16_t path_length;
  int16_t result;
};
static_assert(sizeof(RemoveHead) == 4 && offsetof(RemoveHead, result) == 2);

/// 116, 118: then the existing path, then the new one.
struct TwoPathsHead {
  int32_t result;
  uint16_t path_length;  ///< of the existing path
  uint16_t new_path_length;
};
static_assert(sizeof(TwoPathsHead) == 8 && offsetof(TwoPathsHead, new_path_length) == 6);

#pragma pack(pop)

}  // namespace cpd
