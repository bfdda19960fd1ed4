#include <fcntl.h>
#include <fmt/format.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "commands/command.h"
#include "commands/status.h"
#include "disks/local_disks.h"
#include "module/redirection.h"
#include "mount/fuse_mount.h"
#include "remote/paths.h"

namespace cpd::host {
namespace {

std::string CheckedMountPoint(const std::string& path, const std::string& disk) {
  auto mount_point = CanonicalDirectory(path, "mount point");
  struct statx status {};
  if (statx(AT_FDCWD, mount_point.c_str(), 0, 0, &status) != 0) {
    throw std::runtime_error(fmt::format("mount point {}: {}", path, std::strerror(errno)));
  }
  if ((status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
    throw std::runtime_error(fmt::format("mount point {} is in use: it has a mount already", path));
  }
  // Otherwise the module's own file accesses would go through the mount and wait for the module.
  if (IsWithin(mount_point, disk) || IsWithin(disk, mount_point)) {
    throw std::runtime_error(fmt::format("disk {} and mount point {} overlap", disk, path));
  }
  if (access("/dev/fuse", R_OK | W_OK) != 0) {
    throw std::runtime_error(fmt::format("/dev/fuse: {}", std::strerror(errno)));
  }
  return mount_point;
}

/// Blocks the stop signals in this thread and all that it starts. FuseMount::Serve unblocks them
/// once everything that they stop has been set up.
sigset_t BlockStopSignals() {
  // A shell starts a script's background jobs with SIGINT ignored, but Ctrl-C on the script must
  // end the mount, too.
  (void)std::signal(SIGINT, SIG_DFL);
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  for (const int stop : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stop_signals, stop);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);
  return stop_signals;
}

void Mount(DiskOptions options, const std::string& mount_point_option,
           const sigset_t& stop_signals) {
  CompleteOptions(&options);
  const auto mount_point = CheckedMountPoint(mount_point_option, options.disk);
  options.drive = mount_point;

  Redirection disk(options);
  {
    FuseMount mount(disk.session(), options, mount_point);
    const StatusLine status(disk.session(), options.bandwidth_kbps);
    mount.Serve(stop_signals);
  }
  PrintTable(disk.session().statistics());
}

/// Mounts a partition locally and redirects its directory.
void MountDevice(const std::string& device, DiskOptions options, const std::string& mount_point,
                 const sigset_t& stop_signals) {
  const LocalMount local(device);
  options.disk = local.directory().string();
  Mount(std::move(options), mount_point, stop_signals);
}

struct MountOptions {
  DiskOptions disk;
  std::string mount_point;
  std::string device;
};

}  // namespace

void AddMountCommand(CLI::App* app, CommandLine* line) {
  auto* mount = app->add_subcommand("mount", "Mount the disk as a file system");
  const auto options = std::make_shared<MountOptions>();
  auto* const shown = &options->disk;
  AddDiskOptions(mount, shown, line);
  mount->add_option("MOUNTPOINT", options->mount_point, "Where to mount");
  mount->add_option("--device", options->device,
                    "Partition to mount locally and use as DISK, such as sdb1");
  mount->add_option("--name", shown->name, "Name to announce [the directory's name]");
  mount->add_option("--label", shown->label, "Label on the remote side [the directory's name]");
  mount->add_flag("--read-only", shown->read_only,
                  "Refuse every change, and announce the disk as read-only");
  mount->add_flag("--allow-other", shown->allow_other,
                  "Let other users use the mount; see README, Limits");
  mount->add_flag("!--no-batch", shown->batch, "Send small writes one by one");
  mount->add_flag("!--no-prefetch", shown->prefetch, "Do not read small files ahead");
  mount->add_flag("!--no-dir-cache", shown->dir_cache, "List directories in full every time");
  // Hidden and without effect: users of other mount programs pass it, and this program always stays
  // in the foreground.
  mount->add_flag("--foreground")->group("");
  mount->callback([line, options] {
    line->run = [options] {
      const auto stop_signals = BlockStopSignals();
      (void)std::signal(SIGPIPE, SIG_IGN);  // a closed pipe must not end the mount
      const auto& [disk, mount_point, device] = *options;
      if (device.empty()) return Mount(disk, mount_point, stop_signals);
      if (!mount_point.empty()) throw std::runtime_error("give either --device or DISK, not both");
      MountDevice(device, disk, disk.disk, stop_signals);  // the only path given is the mount point
    };
  });
}

}  // namespace cpd::host
