// What the commands share: where they leave their choice, and the options that concern a disk.
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
  std::function<void()> run;  ///< the chosen command; throws what went wrong
};

// Each adds one command. Its options live as long as the command.
void AddMountCommand(CLI::App* app, CommandLine* line);
void AddDisksCommand(CLI::App* app, CommandLine* line);
void AddLsCommand(CLI::App* app, CommandLine* line);
void AddCatCommand(CLI::App* app, CommandLine* line);
void AddDfCommand(CLI::App* app, CommandLine* line);

/// Adds DISK and the options of every command that opens a disk.
void AddDiskOptions(CLI::App* command, DiskOptions* disk, CommandLine* line);
/// Checks the disk's path, fills in the names that were left out, and tells the module whether to
/// confine paths; before the module is loaded.
/// @throws std::runtime_error when the path is not a directory
void CompleteOptions(DiskOptions* options);
/// @param what  how a message names it
/// @return the path without links and dots
/// @throws std::runtime_error when it is not a directory
std::string CanonicalDirectory(const std::string& path, const char* what);

}  // namespace cpd::host
