// cpd-host: redirects a directory through the driver module and plays the remote side.

#include <fcntl.h>
#include <fmt/format.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>

#include "fuse_mount.h"
#include "local_disks.h"
#include "log.h"
#include "options.h"
#include "packet_tools.h"
#include "redirection.h"
#include "status.h"

namespace cpd::host {
namespace {

namespace fs = std::filesystem;

struct LogOptions {
  LogLevel level = LogLevel::kError;
  std::string file;
};

void AddOptions(CLI::App* command, DiskOptions* disk, LogOptions* log) {
  static const std::map<std::string, LogLevel> levels = {
      {"debug", LogLevel::kDebug}, {"error", LogLevel::kError}, {"off", LogLevel::kOff}};
  command->add_option("DISK", disk->disk, "Directory to redirect, such as a mounted USB disk");
  command->add_option("--module", disk->module, "Driver module [../lib/udisk-redir.so]");
  command->add_option("--policy", disk->policy, "Policy text for the module");
  command->add_option("--bandwidth", disk->bandwidth_kbps, "Announced read bandwidth in kbps")
      ->type_name("KBPS");
  command->add_option("--timeout", disk->time_limit, "How long an answer may take [30]")
      ->type_name("SECONDS");
  command->add_option("--log", log->file, "Log file [standard error]");
  command->add_option("--log-level", log->level, "debug, error or off [error]")
      ->transform(CLI::Transformer(levels, CLI::ignore_case));
  command->add_option("--trace", disk->trace, "File for trace events, one JSON object a line");
  command->add_flag("--trace-reads", disk->trace_reads, "Trace every read");
  command->add_flag("--unconfined", disk->unconfined, "Follow paths and links that leave the disk");
}

/// Sees to it that the module, once loaded, confines paths or does not.
void SetConfinement(const DiskOptions& options) {
  constexpr const char* kVariable = "TESSEL_CPD_CLIENT_CONFINE";
  if (options.unconfined) {
    unsetenv(kVariable);
  } else {
    setenv(kVariable, "1", 1);
  }
}

fs::path CanonicalDirectory(const std::string& path, const char* what) {
  if (path.empty()) throw std::runtime_error(fmt::format("the {} is missing", what));
  std::error_code error;
  auto canonical = fs::canonical(path, error);
  if (error) throw std::runtime_error(fmt::format("{} {}: {}", what, path, error.message()));
  if (!fs::is_directory(canonical)) {
    throw std::runtime_error(fmt::format("{} {} is not a directory", what, path));
  }
  return canonical;
}

void CompleteOptions(DiskOptions* options) {
  SetConfinement(*options);
  const auto disk = CanonicalDirectory(options->disk, "disk");
  const std::string label = disk.has_filename() ? disk.filename().string() : "disk";
  options->disk = disk.string();
  if (options->name.empty()) options->name = label;
  if (options->label.empty()) options->label = label;
}

bool IsWithin(const fs::path& path, const fs::path& directory) {
  const auto [end, rest] =
      std::mismatch(directory.begin(), directory.end(), path.begin(), path.end());
  return end == directory.end();
}

fs::path CheckedMountPoint(const std::string& path, const fs::path& disk) {
  auto mount_point = CanonicalDirectory(path, "mount point");
  struct statx status {};
  if (statx(AT_FDCWD, mount_point.c_str(), 0, 0, &status) != 0) {
    throw std::runtime_error(fmt::format("mount point {}: {}", path, std::strerror(errno)));
  }
  if ((status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
    throw std::runtime_error(fmt::format("mount point {} is busy: something is mounted", path));
  }
  // The module would have to answer itself.
  if (IsWithin(mount_point, disk) || IsWithin(disk, mount_point)) {
    throw std::runtime_error(
        fmt::format("disk {} and mount point {} lie in each other", disk.string(), path));
  }
  if (access("/dev/fuse", R_OK | W_OK) != 0) {
    throw std::runtime_error(fmt::format("/dev/fuse: {}", std::strerror(errno)));
  }
  return mount_point;
}

void Mount(DiskOptions options, const std::string& mount_point_option) {
  CompleteOptions(&options);
  const auto mount_point = CheckedMountPoint(mount_point_option, options.disk).string();
  options.drive = mount_point;

  // Only the thread that serves the mount takes these. A script's background job starts with SIGINT
  // ignored; the mount must go with the script all the same.
  (void)std::signal(SIGINT, SIG_DFL);
  sigset_t stop_signals;
  sigemptyset(&stop_signals);
  for (const int stop : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&stop_signals, stop);
  pthread_sigmask(SIG_BLOCK, &stop_signals, nullptr);

  Redirection disk(options);
  {
    FuseMount mount(disk.session(), options, mount_point);
    const StatusLine status(disk.session(), options.bandwidth_kbps);
    mount.Serve(stop_signals);
  }
  PrintTable(disk.session().statistics());
}

/// Mounts a partition locally and shows that.
void MountDevice(const std::string& device, DiskOptions options, const std::string& mount_point) {
  const LocalMount local(device);
  options.disk = local.directory().string();
  Mount(std::move(options), mount_point);
}

int Run(int argc, char** argv) {
  CLI::App app("Redirects a directory through the driver module and plays the remote side.");
  app.require_subcommand(1);
  app.failure_message([](const CLI::App*, const CLI::Error& error) {
    return fmt::format("cpd-host: {}\n", error.what());
  });
  DiskOptions options;
  LogOptions log;
  std::string path = "/";
  std::string mount_point;
  std::string device;
  std::function<void()> run;

  auto* mount = app.add_subcommand("mount", "Show the disk as a file system");
  AddOptions(mount, &options, &log);
  mount->add_option("MOUNTPOINT", mount_point, "Where to mount");
  mount->add_option("--device", device, "Partition to mount locally instead of DISK, such as sdb1");
  mount->add_option("--name", options.name, "Name that is announced [the directory's]");
  mount->add_option("--label", options.label, "Label on the remote side [the directory's name]");
  mount->add_flag("--read-only", options.read_only, "Refuse every change; announced, too");
  mount->add_flag("!--no-batch", options.batch, "Send small writes one by one");
  mount->add_flag("!--no-prefetch", options.prefetch, "Do not read small files ahead");
  mount->add_flag("!--no-dir-cache", options.dir_cache, "List directories in full every time");
  mount->add_flag("--foreground")->description("Stay in the foreground; always so");
  mount->callback([&] {
    run = [&] {
      if (device.empty()) return Mount(options, mount_point);
      if (!mount_point.empty()) throw std::runtime_error("--device takes the place of DISK");
      MountDevice(device, options, options.disk);  // the one path given
    };
  });

  bool json = false;
  auto* disks = app.add_subcommand("disks", "List the USB disks of this machine");
  disks->add_flag("--json", json, "As a JSON array");
  disks->callback(
      [&] { run = [&] { json ? PrintDisksAsJson(FindDisks()) : PrintDisks(FindDisks()); }; });

  // The same without a mount, by packets alone.
  const auto add_tool = [&](const char* name, const char* description, auto print) {
    auto* tool = app.add_subcommand(name, description);
    AddOptions(tool, &options, &log);
    tool->callback([&, print] {
      run = [&, print] {
        CompleteOptions(&options);
        Redirection disk(options);
        print(disk.session());
      };
    });
    return tool;
  };
  add_tool("ls", "List a directory without a mount", [&](Session& session) {
    PrintListing(session, path);
  })->add_option("PATH", path, "Directory on the disk [/]");
  add_tool("cat", "Print a file without a mount",
           [&](Session& session) { PrintFile(session, path); })
      ->add_option("PATH", path, "File on the disk")
      ->required();
  add_tool("df", "Print the disk's sizes without a mount", PrintStatistics);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 1;
  }
  SetUpLog(log.level, log.file);
  run();
  return 0;
}

}  // namespace
}  // namespace cpd::host

int main(int argc, char** argv) {
  try {
    return cpd::host::Run(argc, argv);
  } catch (const std::exception& error) {
    fmt::print(stderr, "cpd-host: {}\n", error.what());
    return 1;
  }
}
