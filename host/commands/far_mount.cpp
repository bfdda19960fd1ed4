#include "commands/far_mount.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

#include "commands/command.h"
#include "commands/line_command.h"
#include "commands/status.h"
#include "line/remote_end.h"
#include "line/sandbox.h"
#include "mount/fuse_mount.h"
#include "mount/kernel_mount.h"

namespace cpd::host {

std::string CheckedMountPoint(const std::string& path) {
  auto mount_point = CanonicalDirectory(path, "mount point");
  struct statx status {};
  if (statx(AT_FDCWD, mount_point.c_str(), 0, 0, &status) != 0) {
    throw std::runtime_error(fmt::format("mount point {}: {}", path, std::strerror(errno)));
  }
  if ((status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
    throw std::runtime_error(fmt::format("mount point {} is in use: it has a mount already", path));
  }
  if (access("/dev/fuse", R_OK | W_OK) != 0) {
    throw std::runtime_error(
        fmt::format("/dev/fuse: {}; mounting needs the package fuse3 and the kernel module fuse",
                    std::strerror(errno)));
  }
  return mount_point;
}

void MountOverLine(LineSource& source, FarMount far, const StopSignals& stop_signals) {
  std::optional<KernelMount> kernel;
  std::optional<FuseMount> mount;
  RemoteEnd end({.time_limit = far.disk.time_limit,
                 .patience = far.line.reconnect,
                 .window = far.line.window,
                 .session = far.session,
                 .drive = far.mount_point,
                 .label = far.disk.label,
                 .recording = *far.recording,
                 .on_first =
                     [&](const AnnouncedDisk& announced) {
                       // A signal that comes once there is a mount has to take it down.
                       pthread_sigmask(SIG_BLOCK, &stop_signals.set(), nullptr);
                       far.disk.disk = far.shown.empty() ? announced.name : far.shown;
                       far.disk.read_only = far.disk.read_only || announced.read_only;
                       kernel.emplace(far.disk, far.mount_point,
                                      [&far] { far.starter->Unmount(); });
                       far.starter->UnmountOnDeath();
                       // The session starts after this, so it parses replies in the sandbox only.
                       if (far.line.sandbox) EnterSandbox({.writable = far.OwnDirectories()});
                     },
                 .on_renewal =
                     [&](Renewal renewal) {
                       if (renewal == Renewal::kDisk) return mount->ChangeDisk();
                       mount->NoteLoss();
                     }});
  LineKeeper keeper(source, end, kFirstHelloLimit, far.line.reconnect.count() != 0);
  Connect(keeper, stop_signals);
  mount.emplace(end.session(), far.disk, *kernel);
  std::optional<Ending> ending;
  {
    const StatusLine status([&] { return TrafficOf(end.session().statistics()); },
                            far.disk.bandwidth_kbps, [&] { return keeper.state(); });
    keeper.Keep([&](const Ending& how) {
      ending = how;
      kill(getpid(), SIGTERM);  // ends Serve, as the user would
    });
    far.on_serve(keeper);
    mount->Serve(stop_signals.set());
  }
  keeper.Finish(Farewell::kDone, "");
  far.starter->Release();
  PrintTable(end.session().statistics());
  PrintSavings(end.session().savings());
  PrintLine(keeper.state());
  if (ending) CheckEnding(*ending);
}

}  // namespace cpd::host
