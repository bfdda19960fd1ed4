// cpd-host: serves a disk through the driver module and plays the remote side, in one process or on
// two machines.

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <system_error>

#include "commands/command.h"
#include "line/frame_reader.h"
#include "line/line_keeper.h"
#include "module/host_log.h"
#include "module/standard_error.h"

namespace cpd::host {
namespace {

int Run(int argc, char** argv) {
  CLI::App app(
      "Serves a disk through the driver module and plays the remote side, in one process or on two "
      "machines.");
  app.require_subcommand(1);
  app.failure_message([](const CLI::App*, const CLI::Error& error) {
    return fmt::format("cpd-host: {}\n", error.what());
  });
  CommandLine line;
  AddMountCommand(&app, &line);
  AddRedirectCommand(&app, &line);
  AddServeCommand(&app, &line);
  AddAttachCommand(&app, &line);
  AddDisksCommand(&app, &line);
  AddLsCommand(&app, &line);
  AddCatCommand(&app, &line);
  AddDfCommand(&app, &line);
  AddXattrCommand(&app, &line);
  AddReplayCommand(&app, &line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 1;
  }
  SetUpLog(line.log_level, line.log_file);
  // The side that the user has started shows what either side has told the other.
  try {
    line.run();
  } catch (const ToldError&) {
    if (!line.is_far) throw;
    return 1;
  } catch (const EndedError& error) {
    if (!line.is_far || error.ending().kind != Ending::Kind::kFarewell) throw;
    return 2;
  }
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
  } catch (const cpd::host::StreamError& error) {
    cpd::host::PrintError(fmt::format("cpd-host: {}\n", error.what()));
    return 2;
  } catch (const std::exception& error) {
    cpd::host::PrintError(fmt::format("cpd-host: {}\n", error.what()));
    return 1;
  }
}
