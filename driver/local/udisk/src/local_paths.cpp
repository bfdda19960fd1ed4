#include "local_paths.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <optional>
#include <string_view>

namespace cpd {
namespace {

/// The part of `path` after `root`: empty, or with a leading slash. None when `path` is not below
/// `root`.
std::optional<std::string_view> Below(std::string_view root, std::string_view path) {
  if (root.empty() || !path.starts_with(root)) return std::nullopt;
  if (root.back() == '/') root.remove_suffix(1);
  path.remove_prefix(root.size());
  // "/mnt/disk2" is not below "/mnt/disk".
  if (!path.empty() && path.front() != '/') return std::nullopt;
  return path;
}

/// A path without the slashes at its end.
std::string_view WithoutSlashes(std::string_view path) {
  return path.substr(0, path.find_last_not_of('/') + 1);
}

/// A path to an open file, for calls that take only paths.
std::string ProcPath(const Descriptor& file) {
  return "/proc/self/fd/" + std::to_string(file.get());
}

bool IsRegular(const Descriptor& file) {
  struct stat st {};
  return file.ok() && ::fstat(file.get(), &st) == 0 && S_ISREG(st.st_mode);
}

/// Opens a regular file that could not be opened with O_NONBLOCK, and waits until another process
/// has given up its lease on it. Opens nothing else, because a FIFO or device could block forever.
/// @param file  opened with O_PATH, which does not wait for a lease
Descriptor OpenWhenLeaseEnds(const Descriptor& file, int flags) {
  if (IsRegular(file)) {
    return Descriptor(::open(ProcPath(file).c_str(), flags & ~(O_NONBLOCK | O_CREAT)));
  }
  if (file.ok()) errno = EWOULDBLOCK;
  return Descriptor();
}

/// Wraps open: waits for another process's lease on the file.
Descriptor OpenPlain(const char* path, int flags, mode_t mode) {
  Descriptor file(::open(path, flags, mode));
  if (file.ok() || errno != EWOULDBLOCK) return file;
  return OpenWhenLeaseEnds(Descriptor(::open(path, O_PATH | O_CLOEXEC)), flags);
}

/// openat2 of a path beneath a directory.
Descriptor TryBeneath(const Descriptor& root, const char* relative, int flags, mode_t mode) {
  open_how how{};
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
  how.mode = (flags & O_CREAT) != 0 ? mode & 07777 : 0;  // openat2 refuses other bits
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  return Descriptor(
      static_cast<int>(::syscall(SYS_openat2, root.get(), relative, &how, sizeof how)));
}

/// Repeats TryBeneath while renames interfere, and waits for a lease. A path that leads out fails
/// with ENOENT, as a missing file does.
Descriptor OpenBeneath(const Descriptor& root, std::string_view below, int flags, mode_t mode = 0) {
  if (!root.ok()) return Descriptor();  // errno is set already
  below.remove_prefix(std::min(below.find_first_not_of('/'), below.size()));
  const std::string relative(below.empty() ? "." : below);
  // EAGAIN has two meanings: another process holds a lease on the file, or something was renamed
  // while ".." was resolved, and the kernel gave up. A lease does not make O_PATH fail.
  constexpr int kTries = 100;
  for (int i = 0; i < kTries; ++i) {
    Descriptor file = TryBeneath(root, relative.c_str(), flags, mode);
    if (file.ok()) return file;
    if (errno != EAGAIN) break;
    const Descriptor leased = TryBeneath(root, relative.c_str(), O_PATH, 0);
    if (IsRegular(leased)) return OpenWhenLeaseEnds(leased, flags);
    errno = EAGAIN;
  }
  if (errno == EXDEV || errno == EAGAIN) errno = ENOENT;
  return Descriptor();
}

/// Whether `path`, beneath `directory` if it is relative, is the root of a mount. Accesses the
/// disk at most to look the path up.
bool IsMountRoot(int directory, const char* path) {
  struct statx st {};
  constexpr int kFlags = AT_EMPTY_PATH | AT_STATX_DONT_SYNC;
  return ::statx(directory, path, kFlags, 0, &st) == 0 &&
         (st.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0;
}

/// Opens the mount point. Fails when it was the root of a mount and the disk has been unmounted.
Descriptor OpenDisk(const DiskRoot& root) {
  Descriptor disk(::open(root.path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!disk.ok() || !root.is_mount || IsMountRoot(disk.get(), "")) return disk;
  errno = ENOENT;
  return Descriptor();
}

/// The path of `held` followed by `name`. The result keeps `held` open, which the path needs.
LocalPath Held(Descriptor held, const std::string& name = "") {
  if (!held.ok()) return {Descriptor(), ""};
  std::string path = ProcPath(held) + name;
  return {std::move(held), std::move(path)};
}

}  // namespace

DiskRoot LocalPaths::RootAt(const std::string& path) const {
  return {path, confined() && IsMountRoot(AT_FDCWD, path.c_str())};
}

/// A path that is too long is passed on in confined mode, too: the kernel refuses it before it
/// resolves any of it.
bool LocalPaths::PassesUnchanged(const char* path) const {
  return !confined() || std::strlen(path) >= PATH_MAX;
}

Descriptor LocalPaths::Open(const char* path, int flags, mode_t mode) {
  if (PassesUnchanged(path)) return OpenPlain(path, flags, mode);
  const bool reads = (flags & (O_ACCMODE | O_CREAT)) == O_RDONLY;
  const Beneath place = Split(path, reads ? kKept : kFresh);
  Descriptor file = OpenBeneath(*place.root, place.below, flags, mode);
  struct stat st {};
  if (!file.ok() || ::fstat(file.get(), &st) != 0) return Descriptor();
  if (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode)) return file;
  errno = ENOENT;
  return Descriptor();
}

LocalPath LocalPaths::Target(const char* path) {
  if (PassesUnchanged(path)) return LocalPath(path);
  const Beneath place = Split(path, kFresh);
  return Held(OpenBeneath(*place.root, place.below, O_PATH));
}

LocalPath LocalPaths::Entry(const char* path) {
  if (PassesUnchanged(path)) return LocalPath(path);
  const Beneath place = Split(path, kFresh);
  const std::string_view below = place.below;
  const std::string_view entry = WithoutSlashes(below);
  const std::string name(entry.substr(entry.rfind('/') + 1));
  if (name.empty() || name == "." || name == "..") {
    return Held(OpenBeneath(*place.root, entry, O_PATH | O_DIRECTORY), "/.");
  }
  Descriptor directory =
      OpenBeneath(*place.root, entry.substr(0, entry.size() - name.size()), O_PATH | O_DIRECTORY);
  struct stat st {};
  // With a slash at the end a call would follow a symbolic link, so it is followed here, confined.
  if (entry.size() < below.size() &&
      ::fstatat(directory.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
      !S_ISDIR(st.st_mode)) {
    return Held(OpenBeneath(*place.root, below, O_PATH | O_DIRECTORY), "/.");
  }
  return Held(std::move(directory), '/' + name);
}

LocalPath LocalPaths::NewEntry(const char* path) {
  if (PassesUnchanged(path)) return LocalPath(path);
  const Beneath place = Split(path, kFresh);
  const std::string_view entry = WithoutSlashes(place.below);
  const size_t name_at = entry.rfind('/') + 1;
  // An entry that is to be replaced is not followed, not even with a slash at its end.
  return Held(OpenBeneath(*place.root, entry.substr(0, name_at), O_PATH | O_DIRECTORY),
              '/' + place.below.substr(name_at));
}

size_t LocalPaths::TrustedLength(const char* path) const {
  if (!confined()) return 0;
  const std::string root = confine_to_().path;
  return !root.empty() && std::string_view(path).starts_with(root) ? root.size() : 0;
}

void LocalPaths::LetGo() { Keep({}); }

/// Opening the mount point costs as much as opening a file, so reads share one descriptor of it,
/// but only briefly: a disk that is mounted again must soon be found. Other calls open it anew.
LocalPaths::Beneath LocalPaths::Split(const char* path, Freshness freshness) {
  static const auto nowhere = std::make_shared<const Descriptor>();
  const DiskRoot root = confine_to_();
  const auto below = Below(root.path, path);
  if (!below) {
    errno = ENOENT;
    return {nowhere, ""};
  }
  OpenRoot open_root = freshness == kKept ? FindKept(root.path) : nullptr;
  if (open_root == nullptr) {
    const auto now = std::chrono::steady_clock::now();
    open_root = std::make_shared<const Descriptor>(OpenDisk(root));
    Keep({root.path, open_root->ok() ? open_root : nullptr, now});
  }
  return {std::move(open_root), std::string(*below)};
}

LocalPaths::OpenRoot LocalPaths::FindKept(const std::string& path) {
  constexpr auto kKeptFor = std::chrono::milliseconds(100);
  const auto now = std::chrono::steady_clock::now();
  const std::lock_guard lock(mutex_);
  return kept_.path == path && now - kept_.opened < kKeptFor ? kept_.root : nullptr;
}

/// Replaces the shared descriptor. The old one is closed after the lock is released, because
/// closing it may complete an unmount, which waits for the disk.
void LocalPaths::Keep(KeptRoot root) {
  const std::lock_guard lock(mutex_);
  std::swap(kept_, root);
}

}  // namespace cpd
