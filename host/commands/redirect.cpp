#include <fmt/format.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "commands/command.h"
#include "commands/line_command.h"
#include "commands/line_options.h"
#include "commands/status.h"
#include "commands/stop_signals.h"
#include "commands/usb_redirection.h"
#include "line/dialer.h"
#include "line/disk_end.h"
#include "line/disk_identity.h"
#include "line/line_keeper.h"
#include "line/sandbox.h"

namespace cpd::host {
namespace {

struct RedirectOptions {
  DiskOptions disk;
  LineOptions line;
  std::string place;  ///< [USER@]HOST:MOUNTPOINT
  bool makes_directory = false;
  bool usb = false;
  std::string match;
};

/// What the program on the other machine is started with.
std::vector<std::string> AttachArguments(const RedirectOptions& options,
                                         const std::string& mount_point) {
  std::vector<std::string> arguments{"attach", mount_point,
                                     fmt::format("--window={}", options.line.window),
                                     fmt::format("--reconnect={}", options.line.reconnect.count())};
  if (options.makes_directory) arguments.emplace_back("--make-directory");
  if (!options.line.sandbox) arguments.emplace_back("--no-sandbox");
  return arguments;
}

std::string LineCommand(const RedirectOptions& options) {
  if (options.line.via.empty() == options.place.empty()) {
    throw std::runtime_error("give one of [USER@]HOST:MOUNTPOINT and --via");
  }
  if (!options.line.via.empty()) return options.line.via;
  const auto place = ParseRemotePlace(options.place);
  if (!place) {
    throw std::runtime_error(
        fmt::format("{} does not name another machine: write [USER@]HOST:MOUNTPOINT, or use mount",
                    options.place));
  }
  return RemoteCommand(options.line, place->host, AttachArguments(options, place->path));
}

void Redirect(RedirectOptions options) {
  const StopSignals stop_signals;
  const auto command = LineCommand(options);
  CompleteOptions(&options.disk);
  Dialer source(command);
  DiskEnd disk({.disk = options.disk, .window = options.line.window, .session = RandomId()});
  if (options.line.sandbox) {
    EnterSandbox({.disk = options.disk.disk,
                  .read_only = options.disk.read_only,
                  .inotify = disk.inotify()});
  }
  LineKeeper keeper(source, disk, kFirstHelloLimit, options.line.reconnect.count() != 0);
  Connect(keeper, stop_signals);
  // Not earlier: a user who gives up at ssh's prompt does not want to see a second prompt.
  source.SayGoodbyeOnDeath(disk.OwnHello());
  bool was_told = false;
  try {
    const StatusLine status([&] { return disk.traffic(); }, options.disk.bandwidth_kbps,
                            [&] { return keeper.state(); });
    was_told = KeepUntilStopped(keeper, stop_signals);
  } catch (const EndedError& error) {
    if (error.ending().kind == Ending::Kind::kNonsense) source.starter().ActAtEnd();
    throw;
  }
  // Without a goodbye, the mount would wait for another line. So the starter dials once more.
  if (!was_told) source.starter().ActAtEnd();
}

/// The options that each USB disk is redirected with: those that were given, except --usb and
/// --match.
std::vector<std::string> ArgumentsOfEach(const CLI::App& redirect) {
  std::vector<std::string> arguments;
  for (const auto* const option : redirect.get_options()) {
    const auto& name = option->get_name();
    if (option->count() == 0 || option->get_positional() || name == "--usb" || name == "--match") {
      continue;
    }
    arguments.push_back(name);
    if (option->get_items_expected() > 0) arguments.push_back(option->as<std::string>());
  }
  return arguments;
}

void RedirectUsb(const RedirectOptions& options, std::vector<std::string> arguments) {
  if (!options.disk.disk.empty() && !options.place.empty()) {
    throw std::runtime_error("give either --usb or DISK, not both");
  }
  const StopSignals stop_signals;
  const auto& place = options.disk.disk;  // the only place given
  if (!ParseRemotePlace(place)) {
    throw std::runtime_error(
        fmt::format("{} does not name another machine: write [USER@]HOST:DIRECTORY", place));
  }
  RedirectUsbDisks({.match = options.match, .place = place, .arguments = std::move(arguments)},
                   stop_signals);
}

}  // namespace

void AddRedirectCommand(CLI::App* app, CommandLine* line) {
  auto* redirect =
      app->add_subcommand("redirect", "Show a disk of this machine on another machine");
  const auto options = std::make_shared<RedirectOptions>();
  AddDiskOptions(redirect, &options->disk, line);
  redirect->add_option("PLACE", options->place, "[USER@]HOST:MOUNTPOINT, where to mount it");
  AddNamingOptions(redirect, &options->disk);
  AddStreamOptions(redirect, &options->line);
  AddDialOptions(redirect, &options->line);
  redirect->add_flag("--make-directory", options->makes_directory,
                     "Make MOUNTPOINT there if it is missing; it stays");
  redirect
      ->add_flag("--usb", options->usb,
                 "Redirect every USB disk that is plugged in, to HOST:DIRECTORY/LABEL")
      ->excludes("--via", "--record");
  redirect->add_option("--match", options->match, "With --usb: only the disk of this label or UUID")
      ->type_name("LABEL|UUID");
  redirect->callback([redirect, line, options] {
    line->run = [redirect, options] {
      if (options->usb) return RedirectUsb(*options, ArgumentsOfEach(*redirect));
      Redirect(*options);
    };
  });
}

}  // namespace cpd::host
