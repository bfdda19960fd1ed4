// Shared by the commands: the chosen command, and the options of those that open a disk.
#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <memory>
#include <string>

#include "module/host_log.h"
#include "options.h"

namespace cpd::host {

/// What the command line asks for.
struct CommandLine {
  LogLevel log_level = LogLevel::kError;
  std::string log_file;       ///< empty = standard error
  std::function<void()> run;  ///< the chosen command; throws std::exception on failure
  bool is_far = false;        ///< whether another cpd-host has started this one
};

// Each adds one command, which owns its options.
void AddMountCommand(CLI::App* app, CommandLine* line);
void AddServeCommand(CLI::App* app, CommandLine* line);
void AddAttachCommand(CLI::App* app, CommandLine* line);
void AddRedirectCommand(CLI::App* app, CommandLine* line);
void AddDisksCommand(CLI::App* app, CommandLine* line);
void AddLsCommand(CLI::App* app, CommandLine* line);
void AddCatCommand(CLI::App* app, CommandLine* line);
void AddDfCommand(CLI::App* app, CommandLine* line);
void AddXattrCommand(CLI::App* app, CommandLine* line);
void AddReplayCommand(CLI::App* app, CommandLine* line);

/// Adds an option that turns something off. In --help, CLI11's own such flags show "{false}".
/// @param value  set to false if the option is given
void AddOffFlag(CLI::App* command, const std::string& name, bool* value, const std::string& text);
/// Adds DISK and the options of every command that opens a disk.
void AddDiskOptions(CLI::App* command, DiskOptions* disk, CommandLine* line);
/// Adds --log and --log-level.
void AddLogOptions(CLI::App* command, CommandLine* line);
/// Adds --record, --record-bytes.
void AddRecordOptions(CLI::App* command, DiskOptions* disk);
/// Adds --timeout, for a command that waits for replies.
void AddTimeoutOption(CLI::App* command, DiskOptions* disk);
/// Adds the options of the mount itself: --label, --allow-other, --sync, --no-batch, --no-prefetch,
/// --no-dir-cache, --no-watch, --cache-memory.
void AddMountOptions(CLI::App* command, DiskOptions* disk);
/// Adds the options that the announcement carries: --name, --read-only.
void AddNamingOptions(CLI::App* command, DiskOptions* disk);
/// Checks the disk's path, fills in missing names, and sets or clears the environment variable that
/// makes the module confine paths. Must be called before the module opens the disk.
/// @throws std::runtime_error when the path is not a directory
void CompleteOptions(DiskOptions* options);
/// @param what  what an error message calls the directory
/// @return the absolute path, with links and dots resolved
/// @throws std::runtime_error when it is not a directory
std::string CanonicalDirectory(const std::string& path, const char* what);

}  // namespace cpd::host
