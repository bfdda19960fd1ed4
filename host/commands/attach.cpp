#include <csignal>
#include <cstring>
#include <exception>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "capture/recording.h"
#include "commands/command.h"
#include "commands/far_mount.h"
#include "commands/line_command.h"
#include "commands/line_options.h"
#include "commands/stop_signals.h"
#include "line/handover.h"
#include "line/offered_lines.h"
#include "line/runtime_directory.h"
#include "line/standard_line.h"
#include "line/starter.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr auto kHandoverLimit = 5s;

struct AttachOptions {
  DiskOptions disk;
  LineOptions line;
  std::string mount_point;
  bool makes_directory = false;
};

/// Gives the line to the process that holds the mount, if there is one.
/// @return whether that process uses it
bool HandOver(const RuntimeDirectory& directory, const AttachOptions& options, const Line& line) {
  const auto handover = OfferLine(directory, options.mount_point, line.in.get(), line.out.get(),
                                  line.received, kHandoverLimit);
  if (!handover) return false;
  if (handover->verdict == Verdict::kRefused) {
    throw std::runtime_error("mount point " + options.mount_point +
                             " is in use by another redirection");
  }
  handover->Wait();
  return handover->verdict == Verdict::kAdopted;
}

void Attach(const AttachOptions& options) {
  const StopSignals stop_signals;
  StandardLine standard;
  Line line = standard.Next();
  const RuntimeDirectory directory;
  DiskOptions disk = options.disk;
  Hello hello;
  std::string mount_point;
  std::optional<Recording> recording;
  try {
    {
      const MortalWhile mortal(stop_signals);
      line.received = ReadHello(line.in.get(), kFirstHelloLimit);
      std::memcpy(&hello, line.received.data(), sizeof hello);
      if (HandOver(directory, options, line) || hello.is_ended != 0) return;
    }
    if (options.makes_directory) std::filesystem::create_directories(options.mount_point);
    mount_point = CheckedMountPoint(options.mount_point);
    disk.drive = mount_point;
    recording.emplace(disk);
  } catch (const StreamError& error) {
    Refuse(std::move(line), Role::kRemote, error.what());
    throw;
  } catch (const std::exception& error) {
    Refuse(std::move(line), Role::kRemote, error.what());
    throw ToldError(error.what());
  }
  Starter starter("", mount_point);
  HandoverListener listener(directory, options.mount_point);
  OfferedLines source(std::move(line), hello, listener);
  MountOverLine(source,
                {.disk = disk,
                 .line = options.line,
                 .mount_point = mount_point,
                 .shown = "",
                 .session = {},
                 .starter = &starter,
                 .recording = &*recording,
                 .runtime_directory = directory.PathOf("."),
                 .on_serve =
                     [&](LineKeeper& keeper) {
                       source.Listen([&] { keeper.GiveUpLine(); }, [] { kill(getpid(), SIGTERM); });
                     }},
                stop_signals);
}

}  // namespace

void AddAttachCommand(CLI::App* app, CommandLine* line) {
  auto* attach = app->add_subcommand(
      "attach", "Mount the disk that standard input and output lead to; `redirect` starts this");
  const auto options = std::make_shared<AttachOptions>();
  attach->add_option("MOUNTPOINT", options->mount_point, "Where to mount")->required();
  attach->add_flag("--make-directory", options->makes_directory,
                   "Make MOUNTPOINT if it is missing; it stays");
  AddLogOptions(attach, line);
  AddRecordOptions(attach, &options->disk);
  AddMountOptions(attach, &options->disk);
  AddStreamOptions(attach, &options->line);
  AddReconnectOption(attach, &options->line);
  attach->callback([line, options] {
    line->is_far = true;
    line->run = [options] { Attach(*options); };
  });
}

}  // namespace cpd::host
