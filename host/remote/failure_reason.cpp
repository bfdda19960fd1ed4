#include "remote/failure_reason.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <utility>
#include <vector>

#include "remote/file_size.h"
#include "remote/paths.h"

namespace cpd::host {
namespace {

using Kind = Attempt::Kind;

// Less free space than this counts as none: a file system that cannot store one more block may
// still report some that it reserves for itself.
constexpr uint64_t kHardlyFree = 128 << 10;
// Some file systems, such as ext4, number a file's blocks with 32 bits, others with 64.
constexpr uint64_t kMostBlocks = (uint64_t{1} << 32) - 1;

bool MakesName(Kind kind) {
  return kind == Kind::kMakeFile || kind == Kind::kMakeDirectory || kind == Kind::kLink ||
         kind == Kind::kRename;
}

bool HasTwoPaths(Kind kind) { return kind == Kind::kLink || kind == Kind::kRename; }

const std::string& MadePath(const Attempt& attempt) {
  return HasTwoPaths(attempt.kind) ? attempt.new_path : attempt.path;
}

bool IsDirectory(const Facts::Attributes& file) { return file && S_ISDIR(file->st_mode); }

int ReasonInOldName(const Attempt& attempt, const Facts& facts) {
  if (!facts.file) return ENOENT;
  const bool is_directory = IsDirectory(facts.file);
  switch (attempt.kind) {
    case Kind::kLink:
      return is_directory ? EPERM : 0;
    case Kind::kUnlink:
    case Kind::kWrite:
    case Kind::kSync:
      return is_directory ? EISDIR : 0;
    case Kind::kRemoveDirectory:
      return !is_directory ? ENOTDIR : !facts.is_empty ? ENOTEMPTY : 0;
    default:
      return 0;
  }
}

int ReasonInNewName(const Attempt& attempt, const Facts& facts) {
  if (NameOf(MadePath(attempt)).size() > NAME_MAX) return ENAMETOOLONG;
  if (!facts.parent) return ENOENT;
  if (!IsDirectory(facts.parent)) return ENOTDIR;
  if (HasTwoPaths(attempt.kind) && facts.file->st_dev != facts.parent->st_dev) return EXDEV;
  switch (attempt.kind) {
    case Kind::kMakeFile:
      return IsDirectory(facts.file) ? EISDIR : 0;
    case Kind::kMakeDirectory:
      return facts.file ? EEXIST : 0;
    case Kind::kLink:
      return facts.target ? EEXIST : 0;
    default:
      break;
  }
  if (attempt.new_path.starts_with(attempt.path + '/')) return EINVAL;
  if (!facts.target) return 0;
  if (!IsDirectory(facts.file)) return IsDirectory(facts.target) ? EISDIR : 0;
  return !IsDirectory(facts.target) ? ENOTDIR : !facts.is_empty ? ENOTEMPTY : 0;
}

bool IsFull(const udisk_statvfs& disk) {
  // File systems without an inode table report no inodes at all.
  return disk.f_bavail * disk.f_frsize < kHardlyFree || (disk.f_files != 0 && disk.f_favail == 0);
}

int ReasonInDisk(const Attempt& attempt, const Facts& facts) {
  if (!facts.disk) return 0;
  if ((facts.disk->f_flag & ST_RDONLY) != 0) return EROFS;
  const bool needs_room =
      MakesName(attempt.kind) || attempt.kind == Kind::kWrite || attempt.kind == Kind::kSync;
  return needs_room && IsFull(*facts.disk) ? ENOSPC : 0;
}

/// Whether the write would make the file larger than it can be.
bool IsTooLarge(const Attempt& attempt, const Facts& facts) {
  const auto end = static_cast<uint64_t>(attempt.end);
  if (end > facts.size_limit) return true;
  const int64_t size = facts.file->st_size;
  if (attempt.end <= size) return false;
  if (size <= kLargestFatFile && attempt.end > kLargestFatFile) return true;
  if (!facts.disk) return false;
  // A copy: max takes references, which cannot bind to packed fields.
  const uint64_t block_size = facts.disk->f_bsize;
  return end > kMostBlocks * std::max<uint64_t>(block_size, 1);
}

bool Owns(const User& user, const udisk_stat& file) {
  return user.id == 0 || user.id == file.st_uid;
}

bool MayWrite(const User& user, const udisk_stat& file) {
  if (user.id == 0) return true;
  uint32_t needed = S_IWOTH;
  if (std::ranges::find(user.groups, uint32_t{file.st_gid}) != user.groups.end()) needed = S_IWGRP;
  if (Owns(user, file)) needed = S_IWUSR;
  return (file.st_mode & needed) != 0;
}

int ReasonInPermissions(const Attempt& attempt, const Facts& facts) {
  if (attempt.kind == Kind::kChangeAttributes) return EPERM;
  if (attempt.kind == Kind::kSync) return 0;
  const auto& needed = attempt.kind == Kind::kWrite ? facts.file : facts.parent;
  if (needed && !MayWrite(facts.user, *needed)) return EACCES;
  // In a sticky directory only the owner of the file or of the directory may remove or replace it.
  if (needed && facts.file && (needed->st_mode & S_ISVTX) != 0 && !Owns(facts.user, *needed) &&
      !Owns(facts.user, *facts.file)) {
    return EPERM;
  }
  // The one reason left is a file system without hard links.
  return attempt.kind == Kind::kLink ? EPERM : 0;
}

User ThisUser() {
  User user{.id = geteuid(), .groups = {getegid()}};
  std::vector<gid_t> more(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
  const int count = getgroups(static_cast<int>(more.size()), more.data());
  user.groups.insert(user.groups.end(), more.begin(), more.begin() + std::max(count, 0));
  return user;
}

}  // namespace

int LikeliestReason(const Attempt& attempt, const Facts& facts) {
  int reason = 0;
  const bool has_old_name = attempt.kind != Kind::kMakeFile && attempt.kind != Kind::kMakeDirectory;
  if (has_old_name) reason = ReasonInOldName(attempt, facts);
  if (reason == 0 && MakesName(attempt.kind)) reason = ReasonInNewName(attempt, facts);
  if (reason == 0) reason = ReasonInDisk(attempt, facts);
  if (reason == 0 && attempt.kind == Kind::kWrite && IsTooLarge(attempt, facts)) reason = EFBIG;
  if (reason == 0) reason = ReasonInPermissions(attempt, facts);
  return reason == 0 ? EIO : reason;
}

// All questions are sent at once. Replies come in order, so the last one completes the facts.
void FindFailureReason(RemoteFiles& files, Outcome outcome, Attempt attempt,
                       std::function<void(int error)> done) {
  if (outcome == Outcome::kUnanswered) return done(EIO);
  struct Search {
    Facts facts;
    int obstacle = 0;  // errno of a question that failed
  };
  const auto search = std::make_shared<Search>();
  search->facts.user = ThisUser();
  search->facts.size_limit = SizeLimitOfThisProcess();
  const auto look_at = [&](const std::string& path, Facts::Attributes Facts::*place) {
    files.GetAttributes(path, [search, place](const Result<udisk_stat>& result) {
      if (result.error == 0) search->facts.*place = result.value;
      if (result.error != 0 && result.error != ENOENT) search->obstacle = result.error;
    });
  };
  look_at(attempt.path, &Facts::file);
  if (HasTwoPaths(attempt.kind)) look_at(attempt.new_path, &Facts::target);
  look_at(DirectoryOf(MadePath(attempt)), &Facts::parent);
  if (attempt.kind == Kind::kRemoveDirectory || attempt.kind == Kind::kRename) {
    files.List(MadePath(attempt), [search](const Result<Listing>& result) {
      search->facts.is_empty = result.value.entries.size() <= 2;  // "." and ".."
    });
  }
  files.GetStatistics("/", [&files, search, attempt = std::move(attempt),
                            done = std::move(done)](const Result<udisk_statvfs>& result) {
    if (result.error == 0) search->facts.disk = result.value;
    const int reason =
        search->obstacle != 0 ? search->obstacle : LikeliestReason(attempt, search->facts);
    if (reason != EIO) return done(reason);
    // A disk that is just turning read-only may not report it yet, but it already refuses every
    // change, even one that changes nothing.
    files.ChangeOwner(DirectoryOf(MadePath(attempt)), ~0U, ~0U,
                      [done](Outcome change) { done(change == Outcome::kRefused ? EROFS : EIO); });
  });
}

}  // namespace cpd::host
