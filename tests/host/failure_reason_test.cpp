// The likeliest reason for a failure, given the state of the disk afterwards.
#include "remote/failure_reason.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <cstdint>
#include <string>

namespace cpd::host {
namespace {

using Kind = Attempt::Kind;

udisk_stat File(uint32_t mode = 0666) {
  udisk_stat file{};
  file.st_mode = S_IFREG | mode;
  return file;
}

udisk_stat Directory(uint32_t mode = 0777) {
  udisk_stat directory{};
  directory.st_mode = S_IFDIR | mode;
  return directory;
}

udisk_statvfs RoomyDisk() {
  udisk_statvfs disk{};
  disk.f_frsize = 4096;
  disk.f_bavail = 1 << 20;
  disk.f_files = 1000;
  disk.f_favail = 500;
  return disk;
}

/// A file in a directory of a disk on which every change should succeed.
Facts NothingWrong() {
  return {.file = File(),
          .target = std::nullopt,
          .parent = Directory(),
          .is_empty = true,
          .disk = RoomyDisk(),
          .user = {.id = 1000, .groups = {1000, 46}}};
}

int Reason(Kind kind, const Facts& facts) {
  return LikeliestReason({.kind = kind, .path = "/dir/a", .new_path = "/dir/b"}, facts);
}

constexpr Kind kEverything[] = {Kind::kMakeFile, Kind::kMakeDirectory, Kind::kLink,
                                Kind::kRename,   Kind::kUnlink,        Kind::kRemoveDirectory,
                                Kind::kWrite,    Kind::kSync,          Kind::kChangeAttributes};

TEST(FailureReason, IsEioWhenNothingExplainsTheFailure) {
  EXPECT_EQ(Reason(Kind::kWrite, NothingWrong()), EIO);
  EXPECT_EQ(Reason(Kind::kSync, NothingWrong()), EIO);
  EXPECT_EQ(Reason(Kind::kUnlink, NothingWrong()), EIO);
  EXPECT_EQ(Reason(Kind::kRename, NothingWrong()), EIO);
}

TEST(FailureReason, IsEnoentForAMissingFile) {
  auto facts = NothingWrong();
  facts.file.reset();
  for (const Kind kind : {Kind::kLink, Kind::kRename, Kind::kUnlink, Kind::kRemoveDirectory,
                          Kind::kWrite, Kind::kSync, Kind::kChangeAttributes}) {
    EXPECT_EQ(Reason(kind, facts), ENOENT);
  }
}

TEST(FailureReason, IsErofsForEveryChangeOfAReadOnlyDisk) {
  auto facts = NothingWrong();
  facts.disk->f_flag = ST_RDONLY;
  for (const Kind kind : kEverything) {
    facts.file.reset();
    if (kind == Kind::kRemoveDirectory) facts.file = Directory();
    if (kind != Kind::kMakeFile && kind != Kind::kMakeDirectory && !facts.file) facts.file = File();
    EXPECT_EQ(Reason(kind, facts), EROFS) << static_cast<int>(kind);
  }
}

TEST(FailureReason, IsEnospcOnAFullDiskForChangesThatNeedRoom) {
  auto facts = NothingWrong();
  facts.disk->f_bavail = 2;
  for (const Kind kind : {Kind::kWrite, Kind::kSync, Kind::kLink, Kind::kRename, Kind::kMakeFile}) {
    EXPECT_EQ(Reason(kind, facts), ENOSPC);
  }
  EXPECT_NE(Reason(Kind::kUnlink, facts), ENOSPC);
}

TEST(FailureReason, IsEnospcOnADiskWithoutFreeInodes) {
  auto facts = NothingWrong();
  facts.disk->f_favail = 0;
  EXPECT_EQ(Reason(Kind::kMakeFile, facts), ENOSPC);
  facts.disk->f_files = 0;  // a file system without an inode table
  EXPECT_EQ(Reason(Kind::kMakeFile, facts), EIO);
}

TEST(FailureReason, IsEexistOrEisdirForANameInUse) {
  auto facts = NothingWrong();
  EXPECT_EQ(Reason(Kind::kMakeDirectory, facts), EEXIST);
  facts.target = File();
  EXPECT_EQ(Reason(Kind::kLink, facts), EEXIST);
  facts.file = Directory();
  EXPECT_EQ(Reason(Kind::kMakeFile, facts), EISDIR);
}

TEST(FailureReason, DependsOnTheTargetOfARename) {
  auto facts = NothingWrong();
  facts.target = Directory();
  EXPECT_EQ(Reason(Kind::kRename, facts), EISDIR);
  facts.file = Directory();
  EXPECT_EQ(Reason(Kind::kRename, facts), EIO);
  facts.is_empty = false;
  EXPECT_EQ(Reason(Kind::kRename, facts), ENOTEMPTY);
  facts.target = File();
  EXPECT_EQ(Reason(Kind::kRename, facts), ENOTDIR);
  facts.target.reset();
  EXPECT_EQ(LikeliestReason({.kind = Kind::kRename, .path = "/a", .new_path = "/a/b"}, facts),
            EINVAL);
}

TEST(FailureReason, DependsOnWhatIsToBeRemoved) {
  auto facts = NothingWrong();
  EXPECT_EQ(Reason(Kind::kRemoveDirectory, facts), ENOTDIR);
  facts.file = Directory();
  EXPECT_EQ(Reason(Kind::kUnlink, facts), EISDIR);
  facts.is_empty = false;
  EXPECT_EQ(Reason(Kind::kRemoveDirectory, facts), ENOTEMPTY);
}

TEST(FailureReason, DependsOnTheDirectoryOfANewName) {
  auto facts = NothingWrong();
  facts.file.reset();
  facts.parent = File();
  EXPECT_EQ(Reason(Kind::kMakeFile, facts), ENOTDIR);
  facts.parent.reset();
  EXPECT_EQ(Reason(Kind::kMakeFile, facts), ENOENT);
  EXPECT_EQ(LikeliestReason({.kind = Kind::kMakeFile, .path = "/" + std::string(256, 'x')}, facts),
            ENAMETOOLONG);
}

TEST(FailureReason, IsExdevForNamesOnTwoFileSystems) {
  auto facts = NothingWrong();
  facts.parent->st_dev = 7;
  EXPECT_EQ(Reason(Kind::kRename, facts), EXDEV);
  EXPECT_EQ(Reason(Kind::kLink, facts), EXDEV);
}

TEST(FailureReason, IsEaccesOrEpermWhenAPermissionIsMissing) {
  auto facts = NothingWrong();
  facts.file = File(0644);
  EXPECT_EQ(Reason(Kind::kWrite, facts), EACCES);
  EXPECT_EQ(Reason(Kind::kUnlink, facts), EIO);
  facts.parent = Directory(0755);
  EXPECT_EQ(Reason(Kind::kUnlink, facts), EACCES);
  EXPECT_EQ(Reason(Kind::kMakeFile, facts), EACCES);
  EXPECT_EQ(Reason(Kind::kChangeAttributes, facts), EPERM);
}

TEST(FailureReason, DependsOnThePermissionsOfOwnerGroupOrOthers) {
  auto facts = NothingWrong();
  const auto reason = [&](uint32_t mode, uint32_t owner, uint32_t group) {
    facts.file = File(mode);
    facts.file->st_uid = owner;
    facts.file->st_gid = group;
    return Reason(Kind::kWrite, facts);
  };
  EXPECT_EQ(reason(0200, 1000, 0), EIO);
  EXPECT_EQ(reason(0022, 1000, 46), EACCES);
  EXPECT_EQ(reason(0020, 0, 46), EIO);
  EXPECT_EQ(reason(0202, 0, 46), EACCES);
  EXPECT_EQ(reason(0002, 0, 47), EIO);
  EXPECT_EQ(reason(0220, 0, 47), EACCES);
}

TEST(FailureReason, IsNeverAMissingPermissionForRoot) {
  auto facts = NothingWrong();
  facts.user = {};
  facts.file = File(0444);
  facts.file->st_uid = 1000;
  facts.parent = Directory(01555);
  facts.parent->st_uid = 1000;
  for (const Kind kind : {Kind::kWrite, Kind::kUnlink, Kind::kRename}) {
    EXPECT_EQ(Reason(kind, facts), EIO) << static_cast<int>(kind);
  }
}

TEST(FailureReason, IsNeverAMissingPermissionForASync) {
  auto facts = NothingWrong();
  facts.file = File(0444);
  EXPECT_EQ(Reason(Kind::kSync, facts), EIO);
}

TEST(FailureReason, IsEpermInAStickyDirectoryForFilesOfOthers) {
  auto facts = NothingWrong();
  facts.parent = Directory(01777);
  EXPECT_EQ(Reason(Kind::kUnlink, facts), EPERM);
  facts.file->st_uid = 1000;
  EXPECT_EQ(Reason(Kind::kUnlink, facts), EIO);
  facts.file.reset();
  EXPECT_EQ(Reason(Kind::kMakeFile, facts), EIO);
}

TEST(FailureReason, IsEpermForALinkWhenNothingElseExplainsTheFailure) {
  EXPECT_EQ(Reason(Kind::kLink, NothingWrong()), EPERM);
}

TEST(FailureReason, IsEfbigForAWriteThatCrossesFourGibibytes) {
  constexpr int64_t kFour = int64_t{4} << 30;
  auto facts = NothingWrong();
  facts.file->st_size = kFour - 1;
  const Attempt attempt{.kind = Kind::kWrite, .path = "/a", .end = kFour};
  EXPECT_EQ(LikeliestReason(attempt, facts), EFBIG);
  facts.file->st_size = kFour;  // this disk has larger files
  EXPECT_EQ(LikeliestReason(attempt, facts), EIO);
}

TEST(FailureReason, IsEfbigForAWriteBeyondTheBlocksThatAFileCanHave) {
  constexpr int64_t kMost = (int64_t{16} << 40) - 4096;
  auto facts = NothingWrong();
  facts.disk->f_bsize = 4096;
  facts.file->st_size = int64_t{5} << 30;
  const auto reason_of_end = [&](int64_t end) {
    return LikeliestReason({.kind = Kind::kWrite, .path = "/a", .end = end}, facts);
  };
  EXPECT_EQ(reason_of_end(kMost), EIO);
  EXPECT_EQ(reason_of_end(kMost + 1), EFBIG);
  EXPECT_EQ(reason_of_end(INT64_MAX), EFBIG);
  facts.file->st_size = kMost + 1;  // this disk has larger files
  EXPECT_EQ(reason_of_end(kMost + 1), EIO);
}

TEST(FailureReason, IsEfbigForAWriteBeyondTheLimitOfThisProcess) {
  auto facts = NothingWrong();
  facts.size_limit = 1000;
  facts.file->st_size = 2000;
  const auto reason_of_end = [&](int64_t end) {
    return LikeliestReason({.kind = Kind::kWrite, .path = "/a", .end = end}, facts);
  };
  EXPECT_EQ(reason_of_end(1000), EIO);
  EXPECT_EQ(reason_of_end(1001), EFBIG);
}

}  // namespace
}  // namespace cpd::host
