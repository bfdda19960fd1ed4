#include <fmt/format.h>

#include <string>
#include <vector>

#include "commands/command.h"
#include "commands/shown_name.h"
#include "disks/local_disks.h"
#include "module/json.h"

namespace cpd::host {
namespace {

void PrintDisks(const std::vector<LocalDisk>& disks) {
  constexpr const char* kRow = "{:<8} {:<9} {:>5} {:<12} {:<32} {}\n";
  fmt::print(kRow, "disk", "removable", "class", "partition", "label", "type");
  for (const LocalDisk& disk : disks) {
    const char* const removable = disk.removable ? "yes" : "no";
    if (disk.partitions.empty()) {
      fmt::print(kRow, disk.name, removable, disk.interface_class, "-", "-", "-");
    }
    for (const Partition& partition : disk.partitions) {
      fmt::print(kRow, disk.name, removable, disk.interface_class, partition.device,
                 ShownName(partition.label), partition.type);
    }
  }
}

void PrintDisksAsJson(const std::vector<LocalDisk>& disks) {
  std::string out;
  for (const LocalDisk& disk : disks) {
    std::string partitions;
    for (const Partition& partition : disk.partitions) {
      partitions += fmt::format(R"({}{{"device":{},"label":{},"type":{}}})",
                                partitions.empty() ? "" : ",", JsonString(partition.device),
                                JsonString(partition.label), JsonString(partition.type));
    }
    out += fmt::format(R"({}{{"disk":{},"removable":{},"interfaceClass":{},"partitions":[{}]}})",
                       out.empty() ? "" : ",", JsonString(disk.name), disk.removable,
                       disk.interface_class, partitions);
  }
  fmt::print("[{}]\n", out);
}

}  // namespace

void AddDisksCommand(CLI::App* app, CommandLine* line) {
  auto* disks = app->add_subcommand("disks", "List the USB disks of this machine");
  const auto json = std::make_shared<bool>(false);
  disks->add_flag("--json", *json, "Print a JSON array");
  disks->callback([line, json] {
    line->run = [json] { *json ? PrintDisksAsJson(FindDisks()) : PrintDisks(FindDisks()); };
  });
}

}  // namespace cpd::host
