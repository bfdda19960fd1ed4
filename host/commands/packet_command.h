// Commands that read the disk by packets alone, where no file system can be mounted.
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

/// The disk of such a command and a path on it.
struct PathOptions {
  DiskOptions disk;
  std::string path = "/";
};

/// Adds a command that opens the disk and calls `print` with its files.
/// @param path_help  describes the option PATH; null: there is none
inline CLI::Option* AddPacketCommand(CLI::App* app, CommandLine* line, const char* name,
                                     const char* description, const char* path_help,
                                     void (*print)(RemoteFiles& files, const std::string& path)) {
  auto* command = app->add_subcommand(name, description);
  const auto options = std::make_shared<PathOptions>();
  AddDiskOptions(command, &options->disk, line);
  command->callback([line, options, print] {
    line->run = [options, print] {
      CompleteOptions(&options->disk);
      Redirection disk(options->disk);
      RemoteFiles files(disk.session());
      // Every path of the protocol begins at the disk's root.
      const auto& path = options->path;
      print(files, path.starts_with('/') ? path : '/' + path);
    };
  });
  return path_help == nullptr ? nullptr : command->add_option("PATH", options->path, path_help);
}

/// Asks and waits for the answer.
/// @param what  how a message names what was asked for
/// @throws std::system_error when the disk does not give it
template <class T, class Ask>
T Await(const std::string& what, Ask ask) {
  // Shared: the thread that sets the value may still be in the promise when the value is there.
  const auto promise = std::make_shared<std::promise<Result<T>>>();
  ask([promise](Result<T> result) { promise->set_value(std::move(result)); });
  auto result = promise->get_future().get();
  if (result.error != 0) {
    throw std::system_error(result.error, std::generic_category(), what);
  }
  return std::move(result.value);
}

}  // namespace cpd::host
