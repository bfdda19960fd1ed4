// Commands that read the disk by packets alone, for machines where nothing can be mounted.
#pragma once

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "commands/command.h"
#include "module/redirection.h"
#include "remote/remote_files.h"

namespace cpd::host {

/// The disk that a command reads, and a path on it.
struct PathOptions {
  DiskOptions disk;
  std::string path = "/";
};

/// Adds a command that opens the disk and calls `print` with its files.
/// @param path_help  help text of the option PATH; null = the command has no PATH
inline CLI::Option* AddPacketCommand(
    CLI::App* app, CommandLine* line, const char* name, const char* description,
    const char* path_help, std::function<void(RemoteFiles& files, const std::string& path)> print) {
  auto* command = app->add_subcommand(name, description);
  const auto options = std::make_shared<PathOptions>();
  AddDiskOptions(command, &options->disk, line);
  AddTimeoutOption(command, &options->disk);
  command->callback([line, options, print = std::move(print)] {
    line->run = [options, print] {
      CompleteOptions(&options->disk);
      Redirection disk(options->disk);
      RemoteFiles files(disk.session());
      // Paths in the protocol begin with '/', the disk's root.
      const auto& path = options->path;
      print(files, path.starts_with('/') ? path : '/' + path);
    };
  });
  return path_help == nullptr ? nullptr : command->add_option("PATH", options->path, path_help);
}

/// Calls `ask` and waits for the result.
/// @param what  what an error message names, such as the path
/// @throws std::system_error with the result's errno
template <class T, class Ask>
T Await(const std::string& what, Ask ask) {
  // Shared, because the thread that sets the value may still be inside set_value when get returns.
  const auto promise = std::make_shared<std::promise<Result<T>>>();
  ask([promise](Result<T> result) { promise->set_value(std::move(result)); });
  auto result = promise->get_future().get();
  if (result.error != 0) {
    throw std::system_error(result.error, std::generic_category(), what);
  }
  return std::move(result.value);
}

}  // namespace cpd::host
