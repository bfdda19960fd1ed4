#include <fmt/format.h>

#include "commands/packet_command.h"

namespace cpd::host {
namespace {

void PrintStatistics(RemoteFiles& files, const std::string& path) {
  const auto disk =
      Await<udisk_statvfs>(path, [&](auto done) { files.GetStatistics(path, std::move(done)); });
  const auto mib = [&](uint64_t blocks) {
    return static_cast<double>(blocks) * static_cast<double>(disk.f_frsize) / (1U << 20);
  };
  fmt::print("size {:.1f} MiB, free {:.1f} MiB, available {:.1f} MiB; files {}, free {}\n",
             mib(disk.f_blocks), mib(disk.f_bfree), mib(disk.f_bavail), uint64_t{disk.f_files},
             uint64_t{disk.f_ffree});
}

}  // namespace

void AddDfCommand(CLI::App* app, CommandLine* line) {
  AddPacketCommand(app, line, "df", "Print the disk's sizes without a mount", nullptr,
                   PrintStatistics);
}

}  // namespace cpd::host
