#include <chrono>
#include <exception>
#include <memory>
#include <optional>

#include "commands/command.h"
#include "commands/line_command.h"
#include "commands/line_options.h"
#include "commands/stop_signals.h"
#include "line/disk_end.h"
#include "line/fence.h"
#include "line/line_keeper.h"
#include "line/runtime_directory.h"
#include "line/sandbox.h"
#include "line/standard_line.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

/// How long an older process may take to end: it may be carrying out a request that takes long.
constexpr auto kOlderProcessLimit = 20s;

struct ServeOptions {
  DiskOptions disk;
  LineOptions line;
};

void Serve(ServeOptions options) {
  const StopSignals stop_signals;
  StandardLine source;
  const RuntimeDirectory directory;
  Fence fence(directory);
  std::optional<DiskEnd> disk;
  try {
    CompleteOptions(&options.disk);
    disk.emplace(DiskEnd::Options{.disk = options.disk,
                                  .window = options.line.window,
                                  .enter =
                                      [&](const Id128& session) {
                                        if (!fence.Enter(session, kOlderProcessLimit)) {
                                          throw std::runtime_error(
                                              "an older process of this session does not end");
                                        }
                                      },
                                  .awaits_disk = true});
    if (options.line.sandbox) {
      EnterSandbox({.disk = options.disk.disk,
                    .read_only = options.disk.read_only,
                    .writable = {directory.PathOf(".")},
                    .inotify = disk->inotify(),
                    .ends_processes = true});
    }
  } catch (const std::exception& error) {
    Refuse(source.Next(), Role::kDisk, error.what());
    throw ToldError(error.what());
  }
  LineKeeper keeper(source, *disk, kFirstHelloLimit, false);
  Connect(keeper, stop_signals);
  KeepUntilStopped(keeper, stop_signals);
}

}  // namespace

void AddServeCommand(CLI::App* app, CommandLine* line) {
  auto* serve = app->add_subcommand("serve", "Serve the disk over standard input and output");
  const auto options = std::make_shared<ServeOptions>();
  AddDiskOptions(serve, &options->disk, line);
  AddNamingOptions(serve, &options->disk);
  AddStreamOptions(serve, &options->line);
  serve->callback([line, options] {
    line->is_far = true;
    line->run = [options] { Serve(*options); };
  });
}

}  // namespace cpd::host
