#include <sys/stat.h>

#include <cerrno>
#include <cstdio>

#include "commands/packet_command.h"

namespace cpd::host {
namespace {

constexpr uint32_t kReadSize = 1U << 20;

void PrintFile(RemoteFiles& files, const std::string& path) {
  const auto attributes =
      Await<udisk_stat>(path, [&](auto done) { files.GetAttributes(path, std::move(done)); });
  // A link's size is that of its text. The file that it leads to ends where a read gets nothing; a
  // read that fails gets nothing, either, so the first one has to get something.
  const bool is_link = S_ISLNK(attributes.st_mode);
  int64_t offset = 0;
  while (is_link || offset < attributes.st_size) {
    const auto data = Await<FileData>(
        path, [&](auto done) { files.Read(path, offset, kReadSize, std::move(done)); });
    if (data.bytes.empty()) {
      if (is_link && offset > 0) return;
      throw std::system_error(EIO, std::generic_category(), path);
    }
    if (std::fwrite(data.bytes.data(), 1, data.bytes.size(), stdout) != data.bytes.size()) {
      throw std::system_error(errno, std::generic_category(), "standard output");
    }
    offset += static_cast<int64_t>(data.bytes.size());
  }
}

}  // namespace

void AddCatCommand(CLI::App* app, CommandLine* line) {
  AddPacketCommand(app, line, "cat", "Print a file without a mount", "File on the disk", PrintFile)
      ->required();
}

}  // namespace cpd::host
