// A disk that loses a file between readdir and lstat. losing-disk MOUNT_POINT mounts a file system
// with early.txt, which holds "TTTT", and late.txt, which has 5000 bytes. The first lstat of
// late.txt after a listing fails. SIGTERM unmounts.
#include <fuse3/fuse.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <map>
#include <string>

namespace {

const std::map<std::string, std::string> kFiles = {{"/early.txt", "TTTT"},
                                                   {"/late.txt", std::string(5000, 'l')}};
constexpr const char* kLosable = "/late.txt";

std::atomic<bool> g_loses = false;

void* Initialise(fuse_conn_info* connection, fuse_config* config) {
  // Nothing is cached, so that every lstat reaches this program.
  config->entry_timeout = config->attr_timeout = config->negative_timeout = 0;
  connection->want &= ~static_cast<unsigned>(FUSE_CAP_READDIRPLUS);
  return nullptr;
}

int GetAttributes(const char* path, struct stat* out, fuse_file_info* /*file*/) {
  if (path == std::string("/")) {
    out->st_mode = S_IFDIR | 0755;
    out->st_nlink = 2;
    return 0;
  }
  const auto file = kFiles.find(path);
  if (file == kFiles.end() || (file->first == kLosable && g_loses.exchange(false))) return -ENOENT;
  out->st_mode = S_IFREG | 0644;
  out->st_nlink = 1;
  out->st_size = static_cast<off_t>(file->second.size());
  return 0;
}

int ReadDirectory(const char* /*path*/, void* buffer, fuse_fill_dir_t fill, off_t /*offset*/,
                  fuse_file_info* /*file*/, fuse_readdir_flags /*flags*/) {
  for (const char* name : {".", ".."}) fill(buffer, name, nullptr, 0, fuse_fill_dir_flags{});
  for (const auto& [path, content] : kFiles) {
    fill(buffer, path.c_str() + 1, nullptr, 0, fuse_fill_dir_flags{});
  }
  g_loses = true;
  return 0;
}

int Read(const char* path, char* buffer, size_t size, off_t offset, fuse_file_info* /*file*/) {
  const auto& content = kFiles.at(path);
  return static_cast<int>(
      content.copy(buffer, size, std::min(static_cast<size_t>(offset), content.size())));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  fuse_operations operations{};
  operations.init = Initialise;
  operations.getattr = GetAttributes;
  operations.readdir = ReadDirectory;
  operations.read = Read;
  char in_foreground[] = "-f";
  char* arguments[] = {argv[0], in_foreground, argv[1], nullptr};
  return fuse_main(3, arguments, &operations, nullptr);
}
