#include "failure_reason.h"

#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <string_view>
#include <utility>

namespace cpd::host {
namespace {

using Kind = Attempt::Kind;

// Less than this is taken for none: a file system that cannot store one block more may still count
// some that it keeps for itself.
constexpr uint64_t kHardlyFree = 128 << 10;
constexpr int64_t kLargestFatFile = (int64_t{4} << 30) - 1;
constexpr uint32_t kWritableByAll = S_IWUSR | S_IWGRP | S_IWOTH;

bool MakesName(Kind kind) {
  return kind == Kind::kMakeFile || kind == Kind::kMakeDirectory || kind == Kind::kLink ||
         kind == Kind::kRename;
}

bool HasTwoPaths(Kind kind) { return kind == Kind::kLink || kind == Kind::kRename; }

const std::string& MadePath(const Attempt& attempt) {
  return HasTwoPaths(attempt.kind) ? attempt.new_path : attempt.path;
}

std::string ParentOf(const std::string& path) {
  return path.substr(0, std::max<size_t>(path.rfind('/'), 1));
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
      return is_directory ? EISDIR : 0;
    case Kind::kRemoveDirectory:
      return !is_directory ? ENOTDIR : !facts.is_empty ? ENOTEMPTY : 0;
    default:
      return 0;
  }
}

int ReasonInNewName(const Attempt& attempt, const Facts& facts) {
  const auto& path = MadePath(attempt);
  if (path.size() - path.rfind('/') - 1 > NAME_MAX) return ENAMETOOLONG;
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
  // File systems without a table of inodes count none.
  return disk.f_bavail * disk.f_frsize < kHardlyFree || (disk.f_files != 0 && disk.f_favail == 0);
}

int ReasonInDisk(const Attempt& attempt, const Facts& facts) {
  if (!facts.disk) return 0;
  if ((facts.disk->f_flag & ST_RDONLY) != 0) return EROFS;
  if (!MakesName(attempt.kind) && attempt.kind != Kind::kWrite) return 0;
  return IsFull(*facts.disk) ? ENOSPC : 0;
}

int ReasonInPermissions(const Attempt& attempt, const Facts& facts) {
  if (attempt.kind == Kind::kChangeAttributes) return EPERM;
  const auto& needed = attempt.kind == Kind::kWrite ? facts.file : facts.parent;
  if (needed && (needed->st_mode & kWritableByAll) != kWritableByAll) return EACCES;
  if (needed && (needed->st_mode & S_ISVTX) != 0) return EACCES;
  // What is left is a file system that has no such links.
  return attempt.kind == Kind::kLink ? EPERM : 0;
}

}  // namespace

int LikeliestReason(const Attempt& attempt, const Facts& facts) {
  int reason = 0;
  const bool has_old_name = attempt.kind != Kind::kMakeFile && attempt.kind != Kind::kMakeDirectory;
  if (has_old_name) reason = ReasonInOldName(attempt, facts);
  if (reason == 0 && MakesName(attempt.kind)) reason = ReasonInNewName(attempt, facts);
  if (reason == 0) reason = ReasonInDisk(attempt, facts);
  if (reason == 0 && attempt.end > kLargestFatFile && facts.file->st_size <= kLargestFatFile) {
    reason = EFBIG;
  }
  if (reason == 0) reason = ReasonInPermissions(attempt, facts);
  return reason == 0 ? EIO : reason;
}

// All questions leave at once; the answer to the last one comes behind all others.
void FindFailureReason(RemoteFiles& files, Attempt attempt, std::function<void(int error)> done) {
  struct Search {
    Facts facts;
    int obstacle = 0;  // a question without an answer
  };
  const auto search = std::make_shared<Search>();
  const auto look_at = [&](const std::string& path, Facts::Attributes Facts::*place) {
    files.GetAttributes(path, [search, place](const Result<udisk_stat>& result) {
      if (result.error == 0) search->facts.*place = result.value;
      if (result.error != 0 && result.error != ENOENT) search->obstacle = result.error;
    });
  };
  look_at(attempt.path, &Facts::file);
  if (HasTwoPaths(attempt.kind)) look_at(attempt.new_path, &Facts::target);
  look_at(ParentOf(MadePath(attempt)), &Facts::parent);
  if (attempt.kind == Kind::kRemoveDirectory || attempt.kind == Kind::kRename) {
    files.List(MadePath(attempt), [search](const Result<Listing>& result) {
      search->facts.is_empty = result.value.entries.size() <= 2;  // "." and ".."
    });
  }
  files.GetStatistics("/", [search, attempt = std::move(attempt),
                            done = std::move(done)](const Result<udisk_statvfs>& result) {
    if (result.error == 0) search->facts.disk = result.value;
    done(search->obstacle != 0 ? search->obstacle : LikeliestReason(attempt, search->facts));
  });
}

}  // namespace cpd::host
