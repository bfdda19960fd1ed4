#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "capture/recording.h"
#include "commands/command.h"
#include "commands/far_mount.h"
#include "commands/line_command.h"
#include "commands/line_options.h"
#include "commands/status.h"
#include "commands/stop_signals.h"
#include "disks/local_disks.h"
#include "line/dialer.h"
#include "line/disk_identity.h"
#include "line/line_keeper.h"
#include "line/remote_end.h"
#include "module/redirection.h"
#include "mount/fuse_mount.h"
#include "mount/kernel_mount.h"
#include "remote/paths.h"

namespace cpd::host {
namespace {

/// Mounts a disk of this machine.
void Mount(DiskOptions options, const std::string& mount_point_option,
           const StopSignals& stop_signals) {
  CompleteOptions(&options);
  const auto mount_point = CheckedMountPoint(mount_point_option);
  // Otherwise the module's own file accesses would go through the mount and wait for the module.
  if (IsWithin(mount_point, options.disk) || IsWithin(options.disk, mount_point)) {
    throw std::runtime_error(
        fmt::format("disk {} and mount point {} overlap", options.disk, mount_point_option));
  }
  options.drive = mount_point;

  Redirection disk(options);
  if (options.dir_cache && options.watch) disk.WatchChanges();
  {
    KernelMount kernel(options, mount_point);
    FuseMount mount(disk.session(), options, kernel);
    const StatusLine status([&] { return TrafficOf(disk.session().statistics()); },
                            options.bandwidth_kbps);
    mount.Serve(stop_signals.set());
  }
  PrintTable(disk.session().statistics());
  PrintSavings(disk.session().savings());
}

/// Mounts a partition locally and redirects its directory.
void MountDevice(const std::string& device, DiskOptions options, const std::string& mount_point,
                 const StopSignals& stop_signals) {
  const LocalMount local(device);
  options.disk = local.directory().string();
  Mount(std::move(options), mount_point, stop_signals);
}

struct MountOptions {
  DiskOptions disk;
  LineOptions line;
  std::string mount_point;
  std::string device;
};

/// What the program on the other machine is started with.
std::vector<std::string> ServeArguments(const MountOptions& options, const std::string& disk) {
  std::vector<std::string> arguments{"serve", disk,
                                     fmt::format("--window={}", options.line.window)};
  const auto& [policy, kbps] = std::tie(options.disk.policy, options.disk.bandwidth_kbps);
  if (!policy.empty()) arguments.push_back("--policy=" + policy);
  if (kbps != 0) arguments.push_back(fmt::format("--bandwidth={}", kbps));
  if (options.disk.read_only) arguments.emplace_back("--read-only");
  if (options.disk.unconfined) arguments.emplace_back("--unconfined");
  if (!options.line.sandbox) arguments.emplace_back("--no-sandbox");
  return arguments;
}

/// Mounts a disk of another machine, to which a command leads.
/// @param shown  what the table of mounts shows for the disk
void MountFar(const MountOptions& options, const std::string& command, const std::string& shown,
              const StopSignals& stop_signals) {
  const auto mount_point = CheckedMountPoint(options.mount_point);
  Dialer source(command, mount_point);
  DiskOptions disk = options.disk;
  disk.drive = mount_point;
  Recording recording(disk);
  MountOverLine(source,
                {.disk = disk,
                 .line = options.line,
                 .mount_point = mount_point,
                 .shown = shown,
                 .session = RandomId(),
                 .starter = &source.starter(),
                 .recording = &recording},
                stop_signals);
}

void Run(const MountOptions& given) {
  const StopSignals stop_signals;
  auto options = given;
  auto& [disk, line, mount_point, device] = options;
  if (!device.empty() || !line.via.empty()) {
    if (!mount_point.empty() || (!device.empty() && !line.via.empty())) {
      throw std::runtime_error("give one of DISK, --device and --via");
    }
    mount_point = std::exchange(disk.disk, {});  // the only path given is the mount point
  }
  if (!line.via.empty()) return MountFar(options, line.via, "line", stop_signals);
  if (!device.empty()) return MountDevice(device, disk, mount_point, stop_signals);
  if (const auto place = ParseRemotePlace(disk.disk)) {
    const auto command = RemoteCommand(line, place->host, ServeArguments(options, place->path));
    return MountFar(options, command, disk.disk, stop_signals);
  }
  Mount(disk, mount_point, stop_signals);
}

}  // namespace

void AddMountCommand(CLI::App* app, CommandLine* line) {
  auto* mount = app->add_subcommand("mount", "Mount the disk as a file system");
  const auto options = std::make_shared<MountOptions>();
  auto* const shown = &options->disk;
  AddDiskOptions(mount, shown, line);
  AddTimeoutOption(mount, shown);
  mount->add_option("MOUNTPOINT", options->mount_point, "Where to mount");
  mount->add_option("--device", options->device,
                    "Partition to mount locally and use as DISK, such as sdb1");
  AddNamingOptions(mount, shown);
  AddStreamOptions(mount, &options->line);
  AddDialOptions(mount, &options->line);
  AddMountOptions(mount, shown);
  // Hidden and without effect: users of other mount programs pass it, and this program always stays
  // in the foreground.
  mount->add_flag("--foreground")->group("");
  mount->callback([line, options] { line->run = [options] { Run(*options); }; });
}

}  // namespace cpd::host
