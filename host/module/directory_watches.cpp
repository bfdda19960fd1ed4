#include "module/directory_watches.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <linux/openat2.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <tuple>
#include <utility>

#include "remote/paths.h"

namespace cpd::host {
namespace {

using What = Notice::What;

/// File systems on which every change goes through this kernel and shows in inotify. A network or
/// FUSE file system may change without that, and so may the layers of an overlay.
bool TellsAllChanges(const Descriptor& directory) {
  constexpr auto kLocal = std::to_array<uint32_t>({
      0xef53,      // ext2, ext3, ext4
      0x58465342,  // XFS
      0x9123683e,  // Btrfs
      0xf2f52010,  // F2FS
      0x4d44,      // FAT
      0x2011bab0,  // exFAT
      0x7366746e,  // NTFS, by the kernel's own driver
      0x482b,      // HFS+
      0x15013346,  // UDF
      0x9660,      // ISO 9660
      0x01021994,  // tmpfs
  });
  struct statfs status {};
  return fstatfs(directory.get(), &status) == 0 &&
         std::ranges::find(kLocal, static_cast<uint32_t>(status.f_type)) != kLocal.end();
}

/// Whether a path is written as an honest side writes it.
bool IsPlain(std::string_view path) {
  if (path == "/") return true;
  if (!path.starts_with('/') || path.size() > DirectoryWatches::kLongestPath) return false;
  if (path.find('\0') != std::string_view::npos) return false;
  for (size_t depth = 0; !path.empty(); ++depth) {
    path.remove_prefix(1);
    const auto name = path.substr(0, path.find('/'));
    if (name.empty() || name == "." || name == ".." || depth == DirectoryWatches::kDeepest) {
      return false;
    }
    path.remove_prefix(name.size());
  }
  return true;
}

/// Opens a directory beneath another, through no link and into no other mount.
Descriptor OpenBeneath(const Descriptor& root, std::string_view path) {
  const std::string relative(path == "/" ? "." : path.substr(1));
  open_how how{};
  how.flags = O_PATH | O_DIRECTORY | O_CLOEXEC;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_XDEV;
  return Descriptor(
      static_cast<int>(::syscall(SYS_openat2, root.get(), relative.c_str(), &how, sizeof how)));
}

/// The directories from the disk's root to a path, both included.
std::vector<std::string> Chain(const std::string& path) {
  std::vector<std::string> chain{path};
  while (chain.back() != "/") chain.push_back(DirectoryOf(chain.back()));
  std::ranges::reverse(chain);
  return chain;
}

}  // namespace

DirectoryWatches::DirectoryWatches(std::string disk, size_t most)
    : disk_(std::move(disk)), most_(most), inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}

void DirectoryWatches::Watch(const std::string& path, Notices* notices) {
  if (!inotify_.ok() || !IsPlain(path)) return;
  const auto chain = Chain(path);
  if (chain.size() > most_) return;
  // First, so that the paths of what is watched are those of now.
  Collect(notices);
  NoteUse(path);
  const bool is_watched = std::ranges::all_of(chain, [&](const std::string& directory) {
    return watched_.contains(directory) || Add(directory, notices);
  });
  if (!is_watched) return;
  NoteUse(path);
  watched_.at(path).is_told = true;
  notices->push_back({.what = What::kWatched, .path = path});
}

/// Notes the use of a directory and of those above it. These count as used later, so that none of
/// them goes before the last one below it.
void DirectoryWatches::NoteUse(const std::string& path) {
  auto chain = Chain(path);
  for (; !chain.empty(); chain.pop_back()) {
    const auto found = watched_.find(chain.back());
    if (found != watched_.end()) found->second.last_use = ++last_use_;
  }
}

bool DirectoryWatches::Add(const std::string& path, Notices* notices) {
  const Descriptor root(::open(disk_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!root.ok()) return false;
  const auto directory = OpenBeneath(root, path);
  if (!directory.ok() || !TellsAllChanges(directory)) return false;
  MakeRoom(notices);
  const auto place = "/proc/self/fd/" + std::to_string(directory.get());
  const int watch = inotify_add_watch(inotify_.get(), place.c_str(), kEvents);
  if (watch < 0) return false;
  if (const auto other = paths_.find(watch); other != paths_.end()) {
    // The directory has another name now, or has two.
    const auto path_before = other->second;
    notices->push_back({.what = What::kName, .path = path_before});
    Drop(path_before);
    return false;
  }
  paths_.emplace(watch, path);
  watched_.emplace(path, Watched{.watch = watch, .last_use = ++last_use_});
  return true;
}

void DirectoryWatches::MakeRoom(Notices* notices) {
  while (!watched_.empty() && watched_.size() >= most_) {
    const auto oldest =
        std::ranges::min_element(watched_, {}, [](const auto& one) { return one.second.last_use; });
    const auto path = oldest->first;
    if (oldest->second.is_told) notices->push_back({.what = What::kUnwatched, .path = path});
    Drop(path);
  }
}

void DirectoryWatches::Collect(Notices* notices) {
  if (!inotify_.ok() || Read(notices)) return;
  Forget();
  notices->push_back({.what = What::kAll});
}

/// Reads what there is now. What comes meanwhile is left for the next time, so a disk without rest
/// does not hold this up.
/// @return false when that fails, or when there is too much
bool DirectoryWatches::Read(Notices* notices) {
  const size_t before = notices->size();
  alignas(inotify_event) std::array<char, 16 << 10> buffer;
  int left = 0;
  if (ioctl(inotify_.get(), FIONREAD, &left) != 0) return false;
  while (left > 0) {
    const ssize_t count = read(inotify_.get(), buffer.data(), buffer.size());
    if (count <= 0) return false;
    left -= static_cast<int>(count);
    for (const char* next = buffer.data(); next < buffer.data() + count;) {
      const auto& event = *reinterpret_cast<const inotify_event*>(next);
      Note(event, notices);
      next += sizeof event + event.len;
    }
    const auto first = notices->begin() + static_cast<std::ptrdiff_t>(before);
    // A name comes before what happens to its file: see ListingCache::ForgetIfUnknown.
    const auto rank = [](const Notice& notice) {
      return std::tuple(notice.what != What::kName, notice.what, std::string_view(notice.path));
    };
    std::ranges::sort(first, notices->end(), {}, rank);
    notices->erase(std::unique(first, notices->end()), notices->end());
    if (notices->size() - before > kMostNotices) return false;
  }
  return true;
}

void DirectoryWatches::Note(const inotify_event& event, Notices* notices) {
  if ((event.mask & (IN_Q_OVERFLOW | IN_UNMOUNT)) != 0) {
    Drop("/");
    notices->push_back({.what = What::kAll});
    return;
  }
  const auto found = paths_.find(event.wd);
  if (found == paths_.end()) return;  // no longer watched
  const auto directory = found->second;
  const bool is_told = watched_.at(directory).is_told;
  if ((event.mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) != 0) {
    notices->push_back({.what = What::kName, .path = directory});
    return Drop(directory);
  }
  const bool is_of_name = (event.mask & (IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO)) != 0;
  const std::string_view name(event.name, event.len == 0 ? 0 : std::strlen(event.name));
  const auto path = name.empty() ? directory : JoinPath(directory, name);
  if (is_of_name && (event.mask & IN_ISDIR) != 0) {
    notices->push_back({.what = What::kName, .path = path});
    return Drop(path);
  }
  if (is_told) notices->push_back({.what = is_of_name ? What::kName : What::kFile, .path = path});
}

void DirectoryWatches::Forget() {
  for (const auto& [watch, path] : paths_) inotify_rm_watch(inotify_.get(), watch);
  paths_.clear();
  watched_.clear();
  std::array<char, 16 << 10> buffer;
  while (inotify_.ok() && read(inotify_.get(), buffer.data(), buffer.size()) > 0) {
  }
}

/// Stops watching a directory and all below it.
void DirectoryWatches::Drop(const std::string& path) {
  const auto let_go = [this](const Watched& watched) {
    inotify_rm_watch(inotify_.get(), watched.watch);
    paths_.erase(watched.watch);
  };
  if (const auto itself = watched_.find(path); itself != watched_.end()) {
    let_go(itself->second);
    watched_.erase(itself);
  }
  const auto [first, last] = Below(watched_, path);
  for (auto below = first; below != last; ++below) let_go(below->second);
  watched_.erase(first, last);
}

}  // namespace cpd::host
