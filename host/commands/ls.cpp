#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <ctime>

#include "commands/packet_command.h"
#include "commands/shown_name.h"
#include "remote/attributes.h"

namespace cpd::host {
namespace {

char TypeLetter(uint32_t mode) {
  switch (mode & S_IFMT) {
    case S_IFDIR:
      return 'd';
    case S_IFLNK:
      return 'l';
    case S_IFREG:
      return '-';
    default:
      return '?';
  }
}

void PrintListing(RemoteFiles& files, const std::string& path) {
  const auto listing = Await<Listing>(path, [&](auto done) { files.List(path, std::move(done)); });
  for (const auto& entry : listing.entries) {
    const auto& [attributes, name] = entry;
    if (!entry.HasAttributes()) {
      fmt::print("{:5} {:>3} {:>5} {:>5} {:>12} {:>19} {}\n", "?????", "?", "?", "?", "?", "?",
                 ShownName(name));
      continue;
    }
    const auto changed = static_cast<time_t>(attributes.st_mtim.tv_sec);
    tm local{};
    localtime_r(&changed, &local);
    fmt::print("{}{:04o} {:3} {:5} {:5} {:12} {:%F %T} {}\n", TypeLetter(attributes.st_mode),
               attributes.st_mode & kPermissions, uint64_t{attributes.st_nlink},
               uint32_t{attributes.st_uid}, uint32_t{attributes.st_gid},
               int64_t{attributes.st_size}, local, ShownName(name));
  }
}

}  // namespace

void AddLsCommand(CLI::App* app, CommandLine* line) {
  AddPacketCommand(app, line, "ls", "List a directory without a mount", "Directory on the disk [/]",
                   PrintListing);
}

}  // namespace cpd::host
