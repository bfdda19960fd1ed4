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
#include <system_error>
#include <utility>

#include "fuse_mount.h"
#include "local_disks.h"
#include "log.h"
#include "options.h"
#include "packet_tools.h"
#include "paths.h"
#include "redirection.h"
#include "standard_error.h"
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
  command
      ->add_option("--timeout", disk->time_limit,
                   "How long an answer may take, beyond 10 s for pacing [30]")
      ->type_name("SECONDS")
      ->check(CLI::NonNegativeNumber);
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

fs::path CheckedMountPoint(const std::string& path, const std::string& disk) {
  auto mount_point = CanonicalDirectory(path, "mount point");
  struct statx status {};
  if (statx(AT_FDCWD, mount_point.c_str(), 0, 0, &status) != 0) {
    throw std::runtime_error(fmt::format("mount point {}: {}", path, std::strerror(errno)));
  }
  if ((status.stx_attributes & STATX_ATTR_MOUNT_ROOT) != 0) {
    throw std::runtime_error(fmt::format("mount point {} is busy: something is mounted", path));
  }
  // The module would have to answer itself.
  if (IsWithin(mount_point.string(), disk) || IsWithin(disk, mount_point.string())) {
    throw std::runtime_error(
        fmt::format("disk {} and mount point {} lie in each other", disk, path));
  }
  if (access("/dev/fuse", R_OK | W_OK) != 0) {
    throw std::runtime_error(fmt::format("/dev/fuse: {}", std::strerror(errno)));
  }
  return mount_point;
}

/// Only the thread that serves the mount takes these, when all stands that they take down.
sigset_t BlockStopSignals() {
  // A script's background job starts with SIGINT ignored; the mount must go with the script all the
  // same.
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
  const auto mount_point = CheckedMountPoint(mount_point_option, options.disk).string();
  options.drive = mount_point;

  Redirection disk(options);
  {
    FuseMount mount(disk.session(), options, mount_point);
    const StatusLine status(disk.session(), options.bandwidth_kbps);
    mount.Serve(stop_signals);
  }
  PrintTable(disk.session().statistics());
}

/// Mounts a partition locally and shows that.
void MountDevice(const std::string& device, DiskOptions options, const std::string& mount_point,
                 const sigset_t& stop_signals) {
  const LocalMount local(device);
  options.disk = local.directory().string();
  Mount(std::move(options), mount_point, stop_signals);
}

struct CommandLine {
  DiskOptions disk;
  LogOptions log;
  std::string mount_point;
  std::string device;
  std::string path = "/";
  bool json = false;
  std::function<void()> run;
};

void AddMountCommand(CLI::App* app, CommandLine* line) {
  auto* mount = app->add_subcommand("mount", "Show the disk as a file system");
  auto* disk = &line->disk;
  AddOptions(mount, disk, &line->log);
  mount->add_option("MOUNTPOINT", line->mount_point, "Where to mount");
  mount->add_option("--device", line->device,
                    "Partition to mount locally instead of DISK, such as sdb1");
  mount->add_option("--name", disk->name, "Name that is announced [the directory's]");
  mount->add_option("--label", disk->label, "Label on the remote side [the directory's name]");
  mount->add_flag("--read-only", disk->read_only, "Refuse every change; announced, too");
  mount->add_flag("!--no-batch", disk->batch, "Send small writes one by one");
  mount->add_flag("!--no-prefetch", disk->prefetch, "Do not read small files ahead");
  mount->add_flag("!--no-dir-cache", disk->dir_cache, "List directories in full every time");
  mount->add_flag("--foreground")->description("Stay in the foreground; always so");
  mount->callback([line] {
    line->run = [line] {
      const auto stop_signals = BlockStopSignals();
      (void)std::signal(SIGPIPE, SIG_IGN);  // whoever reads what is printed may go, the mount stays
      if (line->device.empty()) return Mount(line->disk, line->mount_point, stop_signals);
      if (!line->mount_point.empty()) throw std::runtime_error("--device takes the place of DISK");
      MountDevice(line->device, line->disk, line->disk.disk, stop_signals);  // the one path given
    };
  });
}

void AddDisksCommand(CLI::App* app, CommandLine* line) {
  auto* disks = app->add_subcommand("disks", "List the USB disks of this machine");
  disks->add_flag("--json", line->json, "As a JSON array");
  disks->callback([line] {
    line->run = [line] { line->json ? PrintDisksAsJson(FindDisks()) : PrintDisks(FindDisks()); };
  });
}

/// The same as a mount shows, by packets alone.
void AddTools(CLI::App* app, CommandLine* line) {
  const auto add_tool = [&](const char* name, const char* description, auto print) {
    auto* tool = app->add_subcommand(name, description);
    AddOptions(tool, &line->disk, &line->log);
    tool->callback([line, print] {
      line->run = [line, print] {
        CompleteOptions(&line->disk);
        Redirection disk(line->disk);
        print(disk.session());
      };
    });
    return tool;
  };
  add_tool("ls", "List a directory without a mount", [line](Session& session) {
    PrintListing(session, line->path);
  })->add_option("PATH", line->path, "Directory on the disk [/]");
  add_tool("cat", "Print a file without a mount",
           [line](Session& session) { PrintFile(session, line->path); })
      ->add_option("PATH", line->path, "File on the disk")
      ->required();
  add_tool("df", "Print the disk's sizes without a mount", PrintStatistics);
}

int Run(int argc, char** argv) {
  CLI::App app("Redirects a directory through the driver module and plays the remote side.");
  app.require_subcommand(1);
  app.failure_message([](const CLI::App*, const CLI::Error& error) {
    return fmt::format("cpd-host: {}\n", error.what());
  });
  CommandLine line;
  AddMountCommand(&app, &line);
  AddDisksCommand(&app, &line);
  AddTools(&app, &line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 1;
  }
  SetUpLog(line.log.level, line.log.file);
  line.run();
  if (std::fflush(stdout) != 0) {
    throw std::system_error(errno, std::generic_category(), "standard output");
  }
  return 0;
}

}  // namespace
}  // namespace cpd::host

int main(int argc, char** argv) {
  try {
    return cpd::host::Run(argc, argv);
  } catch (const std::exception& error) {
    cpd::host::PrintError(fmt::format("cpd-host: {}\n", error.what()));
    return 1;
  }
}
