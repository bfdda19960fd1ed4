#include <fmt/format.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <system_error>

#include "commands/command.h"
#include "mount/cache_memory.h"

namespace cpd::host {
namespace {

namespace fs = std::filesystem;

/// Sets or clears the variable that the module reads when it opens a disk.
void SetConfinement(const DiskOptions& options) {
  constexpr const char* kVariable = "TESSEL_CPD_CLIENT_CONFINE";
  if (options.unconfined) {
    unsetenv(kVariable);
  } else {
    setenv(kVariable, "1", 1);
  }
}

}  // namespace

void AddOffFlag(CLI::App* command, const std::string& name, bool* value, const std::string& text) {
  command->add_flag_callback(
      name, [value] { *value = false; }, text);
}

void AddLogOptions(CLI::App* command, CommandLine* line) {
  static const std::map<std::string, LogLevel> levels = {
      {"debug", LogLevel::kDebug}, {"error", LogLevel::kError}, {"off", LogLevel::kOff}};
  command->add_option("--log", line->log_file, "Log file [standard error]");
  command->add_option("--log-level", line->log_level, "debug, error or off [error]")
      ->transform(CLI::Transformer(levels, CLI::ignore_case));
}

void AddTimeoutOption(CLI::App* command, DiskOptions* disk) {
  command
      ->add_option("--timeout", disk->time_limit,
                   "Time limit for a reply; 10 s are added for pacing [30]")
      ->type_name("SECONDS")
      ->check(CLI::NonNegativeNumber);
}

void AddRecordOptions(CLI::App* command, DiskOptions* disk) {
  auto* const record =
      command->add_option("--record", disk->record, "File for the packets, for Wireshark");
  command
      ->add_option("--record-bytes", disk->record_bytes,
                   "How much of a packet's file data or listing is recorded [all]")
      ->type_name("BYTES")
      ->needs(record);
}

void AddDiskOptions(CLI::App* command, DiskOptions* disk, CommandLine* line) {
  command->add_option("DISK", disk->disk, "Directory to redirect, such as a mounted USB disk");
  command->add_option("--module", disk->module, "Driver module [../lib/cpd/udisk-redir.so]");
  command->add_option("--policy", disk->policy, "Policy text for the module");
  command->add_option("--bandwidth", disk->bandwidth_kbps, "Read bandwidth to announce, in kbps")
      ->type_name("KBPS");
  command->add_option("--trace", disk->trace, "File for trace events, one JSON object per line");
  command->add_flag("--trace-reads", disk->trace_reads, "Trace every read and write");
  AddRecordOptions(command, disk);
  command->add_flag("--unconfined", disk->unconfined, "Follow paths and links that leave the disk");
  AddLogOptions(command, line);
}

void AddNamingOptions(CLI::App* command, DiskOptions* disk) {
  command->add_option("--name", disk->name, "Name to announce [the directory's name]");
  command->add_flag("--read-only", disk->read_only,
                    "Refuse every change, and announce the disk as read-only");
}

void AddMountOptions(CLI::App* command, DiskOptions* disk) {
  command->add_option("--label", disk->label, "Label on the remote side [the directory's name]");
  command->add_flag("--allow-other", disk->allow_other,
                    "Let other users use the mount; see README, Limits");
  AddOffFlag(command, "--sync", &disk->early,
             "Let nothing count as done before the disk has done it");
  AddOffFlag(command, "--no-batch", &disk->batch, "Send small writes one by one");
  AddOffFlag(command, "--no-prefetch", &disk->prefetch,
             "Do not read files or list directories ahead");
  AddOffFlag(command, "--no-dir-cache", &disk->dir_cache,
             "List directories in full every time, and ask for every name");
  AddOffFlag(command, "--no-watch", &disk->watch,
             "Do not heed what is told of changes: trust a listing for names for a second only");
  command
      ->add_option("--cache-memory", disk->cache_mib,
                   "Memory that the caches may take together, in MiB [64]")
      ->check(CLI::Range(1U, CacheMemory::kMostMib).description(""))
      ->type_name("MIB");
}

std::string CanonicalDirectory(const std::string& path, const char* what) {
  if (path.empty()) throw std::runtime_error(fmt::format("no {} given", what));
  std::error_code error;
  auto canonical = fs::canonical(path, error);
  if (error) throw std::runtime_error(fmt::format("{} {}: {}", what, path, error.message()));
  if (!fs::is_directory(canonical)) {
    throw std::runtime_error(fmt::format("{} {} is not a directory", what, path));
  }
  return canonical.string();
}

void CompleteOptions(DiskOptions* options) {
  SetConfinement(*options);
  const fs::path disk = CanonicalDirectory(options->disk, "disk");
  const std::string label = disk.has_filename() ? disk.filename().string() : "disk";
  options->disk = disk.string();
  if (options->name.empty()) options->name = label;
  if (options->label.empty()) options->label = label;
}

}  // namespace cpd::host
