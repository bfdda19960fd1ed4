#include "fuse_mount.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <stdexcept>
#include <utility>
#include <vector>

#include "cpd/log.h"
#include "session.h"

namespace cpd::host {
namespace {

// How long the kernel trusts what it was told. Long enough for a program that lists a directory
// and then asks for each file, short enough that changes on the disk show.
constexpr double kTrusted = 1.0;  // seconds
constexpr unsigned kLargestRead = 1U << 20;
constexpr unsigned kReadsAhead = 64;

FuseMount& Self(fuse_req_t request) { return *static_cast<FuseMount*>(fuse_req_userdata(request)); }

struct stat ToStat(const udisk_stat& from) {
  struct stat to {};
  to.st_ino = from.st_ino;
  to.st_mode = from.st_mode;
  to.st_nlink = from.st_nlink;
  to.st_uid = from.st_uid;
  to.st_gid = from.st_gid;
  to.st_rdev = static_cast<dev_t>(from.st_rdev);
  to.st_size = from.st_size;
  to.st_blksize = from.st_blksize;
  to.st_blocks = from.st_blocks;
  to.st_atim = {.tv_sec = from.st_atim.tv_sec, .tv_nsec = from.st_atim.tv_nsec};
  to.st_mtim = {.tv_sec = from.st_mtim.tv_sec, .tv_nsec = from.st_mtim.tv_nsec};
  to.st_ctim = {.tv_sec = from.st_ctim.tv_sec, .tv_nsec = from.st_ctim.tv_nsec};
  return to;
}

fuse_entry_param ToEntry(NodeTable::Id node, const udisk_stat& attributes) {
  return {.ino = node,
          .generation = 0,
          .attr = ToStat(attributes),
          .attr_timeout = kTrusted,
          .entry_timeout = kTrusted};
}

void Initialise(void* /*mount*/, fuse_conn_info* connection) {
  connection->max_readahead = kLargestRead;
  connection->max_background = kReadsAhead;
}

void LogLibraryMessage(fuse_log_level /*level*/, const char* format, va_list arguments) {
  char message[512] = "";
  (void)std::vsnprintf(message, sizeof message, format, arguments);
  message[std::string_view(message).find_last_not_of('\n') + 1] = '\0';
  tesselLogPrint(0, 7, "FUSE", "%s", message);
}

/// Lets the kernel read as far ahead as a single read may reach. Takes effect with the first
/// request; only root may do it, for others the kernel's 128 KiB stand.
void RaiseReadAhead(const std::string& mount_point) {
  struct statx where {};
  // No attributes are wanted, so the mount, which is not served yet, is not asked.
  if (statx(AT_FDCWD, mount_point.c_str(), AT_STATX_DONT_SYNC, 0, &where) != 0) return;
  std::ofstream(
      fmt::format("/sys/class/bdi/{}:{}/read_ahead_kb", where.stx_dev_major, where.stx_dev_minor))
      << kLargestRead / 1024;
}

}  // namespace

// ---- Life ----

FuseMount::FuseMount(Session& session, const std::string& disk, const std::string& mount_point)
    : session_(session), files_(session) {
  fuse_set_log_func(LogLibraryMessage);
  std::string options = "ro,default_permissions,subtype=udisk";
  if (geteuid() == 0) options += ",allow_other";
  // A comma in the disk's path would end the option.
  options += ",fsname=";
  for (const char c : disk) {
    if (c == ',' || c == '\\') options += '\\';
    options += c;
  }
  std::string program = "cpd-host";
  std::string option_flag = "-o";
  char* arguments[] = {program.data(), option_flag.data(), options.data()};
  fuse_args args = FUSE_ARGS_INIT(3, arguments);
  const fuse_lowlevel_ops operations = Operations();
  fuse_.reset(fuse_session_new(&args, &operations, sizeof operations, this));
  fuse_opt_free_args(&args);
  if (fuse_ == nullptr || fuse_session_mount(fuse_.get(), mount_point.c_str()) != 0) {
    throw std::runtime_error(fmt::format("cannot mount on {}", mount_point));
  }
  RaiseReadAhead(mount_point);
}

FuseMount::~FuseMount() { fuse_session_unmount(fuse_.get()); }

void FuseMount::Serve(const sigset_t& stop_signals) {
  if (fuse_set_signal_handlers(fuse_.get()) != 0) {
    throw std::runtime_error("cannot set the signal handlers");
  }
  pthread_sigmask(SIG_UNBLOCK, &stop_signals, nullptr);

  const std::unique_ptr<fuse_loop_config, decltype(&fuse_loop_cfg_destroy)> config(
      fuse_loop_cfg_create(), &fuse_loop_cfg_destroy);
  const int result = fuse_session_loop_mt(fuse_.get(), config.get());

  // First the answers to everything under way, then the unmounting: nothing is left that could
  // answer through a mount that is gone. A second signal finds the way out already taken.
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  session_.Stop();
  fuse_session_unmount(fuse_.get());
  fuse_remove_signal_handlers(fuse_.get());
  if (result < 0) throw std::runtime_error("the connection to the kernel failed");
}

fuse_lowlevel_ops FuseMount::Operations() {
  fuse_lowlevel_ops ops{};
  ops.init = Initialise;
  ops.lookup = [](fuse_req_t request, fuse_ino_t parent, const char* name) {
    Self(request).Lookup(request, parent, name);
  };
  ops.forget = [](fuse_req_t request, fuse_ino_t node, uint64_t references) {
    Self(request).nodes_.Forget(node, references);
    fuse_reply_none(request);
  };
  ops.forget_multi = [](fuse_req_t request, size_t count, fuse_forget_data* forgotten) {
    for (size_t i = 0; i < count; ++i) {
      Self(request).nodes_.Forget(forgotten[i].ino, forgotten[i].nlookup);
    }
    fuse_reply_none(request);
  };
  ops.getattr = [](fuse_req_t request, fuse_ino_t node, fuse_file_info*) {
    Self(request).GetAttributes(request, node);
  };
  ops.statfs = [](fuse_req_t request, fuse_ino_t node) {
    Self(request).GetStatistics(request, node);
  };
  ops.getxattr = [](fuse_req_t request, fuse_ino_t node, const char* name, size_t) {
    Self(request).GetExtendedAttribute(request, node, name);
  };
  // The protocol shows a symbolic link but has no request that reads one.
  ops.readlink = [](fuse_req_t request, fuse_ino_t) { fuse_reply_err(request, ENOTSUP); };
  ops.read = [](fuse_req_t request, fuse_ino_t node, size_t size, off_t offset, fuse_file_info*) {
    Self(request).Read(request, node, size, offset);
  };
  ops.opendir = [](fuse_req_t request, fuse_ino_t, fuse_file_info* file) {
    Self(request).OpenDirectory(request, file);
  };
  // Without a readdir beside it, the kernel always asks for entries with their attributes.
  ops.readdirplus = [](fuse_req_t request, fuse_ino_t node, size_t size, off_t position,
                       fuse_file_info* file) {
    Self(request).ReadDirectory(request, node, size, position, file->fh);
  };
  ops.releasedir = [](fuse_req_t request, fuse_ino_t, fuse_file_info* file) {
    Self(request).ReleaseDirectory(request, file->fh);
  };
  return ops;
}

// ---- Attributes ----

void FuseMount::Lookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
  const auto path = nodes_.ChildPath(parent, name);
  if (!path) return void(fuse_reply_err(request, ESTALE));
  files_.GetAttributes(
      *path, [this, request, parent, name = std::string(name)](const Result<udisk_stat>& result) {
        if (result.error != 0) return void(fuse_reply_err(request, result.error));
        const auto node = nodes_.Refer(parent, name, result.value.st_size);
        const auto entry = ToEntry(node, result.value);
        if (fuse_reply_entry(request, &entry) != 0) nodes_.Forget(node, 1);
      });
}

void FuseMount::GetAttributes(fuse_req_t request, fuse_ino_t node) {
  const auto file = nodes_.Find(node);
  if (!file) return void(fuse_reply_err(request, ESTALE));
  files_.GetAttributes(file->path, [this, request, node](const Result<udisk_stat>& result) {
    if (result.error != 0) return void(fuse_reply_err(request, result.error));
    nodes_.SetSize(node, result.value.st_size);
    const struct stat attributes = ToStat(result.value);
    fuse_reply_attr(request, &attributes, kTrusted);
  });
}

void FuseMount::GetStatistics(fuse_req_t request, fuse_ino_t node) {
  const auto file = nodes_.Find(node);
  if (!file) return void(fuse_reply_err(request, ESTALE));
  files_.GetStatistics(file->path, [request](const Result<udisk_statvfs>& result) {
    if (result.error != 0) return void(fuse_reply_err(request, result.error));
    const auto& from = result.value;
    struct statvfs to {};
    to.f_bsize = from.f_bsize;
    to.f_frsize = from.f_frsize;
    to.f_blocks = from.f_blocks;
    to.f_bfree = from.f_bfree;
    to.f_bavail = from.f_bavail;
    to.f_files = from.f_files;
    to.f_ffree = from.f_ffree;
    to.f_favail = from.f_favail;
    to.f_namemax = from.f_namemax;
    fuse_reply_statfs(request, &to);
  });
}

void FuseMount::GetExtendedAttribute(fuse_req_t request, fuse_ino_t node, const char* name) {
  const auto file = nodes_.Find(node);
  if (!file) return void(fuse_reply_err(request, ESTALE));
  files_.HasExtendedAttribute(file->path, name, [request](const Result<bool>& result) {
    // A value, should one be announced, cannot be shown: the protocol brings none.
    fuse_reply_err(request, result.error != 0 ? result.error : result.value ? EIO : ENODATA);
  });
}

// ---- Files ----

void FuseMount::Read(fuse_req_t request, fuse_ino_t node, size_t size, off_t offset) {
  const auto file = nodes_.Find(node);
  if (!file) return void(fuse_reply_err(request, ESTALE));
  const auto wanted = static_cast<uint32_t>(std::min<size_t>(size, kLargestRead));
  const auto expected = std::clamp<int64_t>(file->size - offset, 0, wanted);
  files_.Read(file->path, offset, wanted,
              [this, request, path = file->path, offset, expected](Result<FileData> result) {
                if (result.error != 0) return void(fuse_reply_err(request, result.error));
                const auto& bytes = result.value.bytes;
                const auto got = static_cast<int64_t>(bytes.size());
                if (got < expected) {
                  return ConfirmShortRead(request, path, std::move(result.value), offset + got);
                }
                fuse_reply_buf(request, bytes.data(), bytes.size());
              });
}

/// A failed read looks like the end of the file. Where the file was known to be longer, only its
/// present size tells; taking a failure for the end would cut the file short without a word.
void FuseMount::ConfirmShortRead(fuse_req_t request, const std::string& path, FileData data,
                                 int64_t end) {
  auto kept = std::make_shared<FileData>(std::move(data));
  files_.GetAttributes(path, [request, kept, end](const Result<udisk_stat>& result) {
    if (result.error != 0 || result.value.st_size > end) {
      return void(fuse_reply_err(request, EIO));
    }
    fuse_reply_buf(request, kept->bytes.data(), kept->bytes.size());
  });
}

// ---- Directories ----

void FuseMount::OpenDirectory(fuse_req_t request, fuse_file_info* file) {
  {
    const std::lock_guard lock(mutex_);
    file->fh = ++last_directory_;
    directories_.emplace(file->fh, nullptr);
  }
  fuse_reply_open(request, file);
}

void FuseMount::ReleaseDirectory(fuse_req_t request, uint64_t handle) {
  {
    const std::lock_guard lock(mutex_);
    directories_.erase(handle);
  }
  fuse_reply_err(request, 0);
}

/// The directory is listed when it is read from its start; the rest comes from that listing.
void FuseMount::ReadDirectory(fuse_req_t request, fuse_ino_t node, size_t size, off_t position,
                              uint64_t handle) {
  std::shared_ptr<const Listing> listing;
  {
    const std::lock_guard lock(mutex_);
    listing = directories_[handle];
  }
  if (position != 0 && listing != nullptr) {
    return ReplyWithEntries(request, node, *listing, static_cast<size_t>(position), size);
  }
  const auto directory = nodes_.Find(node);
  if (!directory) return void(fuse_reply_err(request, ESTALE));
  const auto first = static_cast<size_t>(position);
  files_.List(directory->path, [this, request, node, size, first, handle](Result<Listing> result) {
    if (result.error != 0) return void(fuse_reply_err(request, result.error));
    const auto fresh = std::make_shared<const Listing>(std::move(result.value));
    {
      const std::lock_guard lock(mutex_);
      directories_[handle] = fresh;
    }
    ReplyWithEntries(request, node, *fresh, first, size);
  });
}

/// Entry n has position n + 1, from where the next read goes on.
void FuseMount::ReplyWithEntries(fuse_req_t request, fuse_ino_t directory, const Listing& listing,
                                 size_t first, size_t size) {
  std::vector<char> buffer(size);
  size_t used = 0;
  std::vector<NodeTable::Id> referred;
  for (size_t i = first; i < listing.entries.size(); ++i) {
    const auto& [attributes, name] = listing.entries[i];
    auto entry = ToEntry(0, attributes);
    if (fuse_add_direntry_plus(request, nullptr, 0, name.data(), &entry, 0) > size - used) break;
    // The kernel takes no reference to the two; nor can it use a file that could not be looked at.
    if (name != "." && name != ".." && attributes.st_mode != 0) {
      entry.ino = nodes_.Refer(directory, std::string(name), attributes.st_size);
      referred.push_back(entry.ino);
    }
    used += fuse_add_direntry_plus(request, buffer.data() + used, size - used, name.data(), &entry,
                                   static_cast<off_t>(i) + 1);
  }
  if (fuse_reply_buf(request, buffer.data(), used) != 0) {
    for (const auto node : referred) nodes_.Forget(node, 1);
  }
}

}  // namespace cpd::host
