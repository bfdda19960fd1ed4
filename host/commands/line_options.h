// The options of the commands that work over a line to another machine.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "line/stream.h"

namespace cpd::host {

struct LineOptions {
  std::string via;          ///< shell command that is the line; empty = one that begins with `rsh`
  std::string rsh = "ssh";  ///< shell words that start a command on another machine
  std::string remote_program = "cpd-host";
  std::string port;
  std::string config;
  std::string identity;
  uint64_t window = kDefaultWindow;     ///< bytes
  std::chrono::seconds reconnect{300};  ///< 0 = a line that dropped is not replaced
  bool sandbox = true;
};

/// Adds the options of both ends of a line: --window, --no-sandbox.
void AddStreamOptions(CLI::App* command, LineOptions* options);
/// Adds --reconnect.
void AddReconnectOption(CLI::App* command, LineOptions* options);
/// Adds the options of the end that sets the line up, and --reconnect.
void AddDialOptions(CLI::App* command, LineOptions* options);

/// A place on another machine, as rsync and scp write it: [USER@]HOST:PATH.
struct RemotePlace {
  std::string host;  ///< with the user
  std::string path;
};
/// @return empty if the text names a local path: it has no colon, begins with one, or has a slash
///         before the first one
/// @throws std::runtime_error when the host would be taken for an option
std::optional<RemotePlace> ParseRemotePlace(const std::string& text);

/// The shell command that runs this program on another machine.
/// @param arguments  of the program there
std::string RemoteCommand(const LineOptions& options, const std::string& host,
                          const std::vector<std::string>& arguments);

}  // namespace cpd::host
