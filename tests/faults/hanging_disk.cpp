// A disk that hangs on request: hanging-disk MOUNT_POINT mounts a file system that holds one file
// and a directory.
// After SIGUSR1 every call blocks until SIGUSR2. Once a signal has taken effect, an h or an r is
// written to standard output; a call that begins to block writes a b. SIGTERM unmounts.
#include <fuse3/fuse.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view kFile = "/known.txt";
constexpr std::string_view kDirectory = "/dir";
constexpr std::string_view kContent = "known content";

std::atomic<bool> g_hangs = false;

void Tell(char letter) {
  if (write(STDOUT_FILENO, &letter, 1) != 1) _exit(1);
}

void OnSignal(int signal) {
  const int error = errno;
  g_hangs = signal == SIGUSR1;
  Tell(g_hangs ? 'h' : 'r');
  errno = error;
}

/// Every call passes here.
void Gate() {
  if (!g_hangs) return;
  Tell('b');
  while (g_hangs) usleep(1000);
}

void* Initialise(fuse_conn_info* /*connection*/, fuse_config* config) {
  // The kernel caches nothing, so every request reaches the disk.
  config->entry_timeout = config->attr_timeout = config->negative_timeout = 0;
  config->direct_io = 1;
  return nullptr;
}

int GetAttributes(const char* path, struct stat* out, fuse_file_info* /*file*/) {
  Gate();
  if (path == std::string_view("/") || path == kDirectory) {
    out->st_mode = S_IFDIR | 0755;
    out->st_nlink = 2;
    return 0;
  }
  if (path != kFile) return -ENOENT;
  out->st_mode = S_IFREG | 0644;
  out->st_nlink = 1;
  out->st_size = kContent.size();
  return 0;
}

int ReadDirectory(const char* /*path*/, void* buffer, fuse_fill_dir_t fill, off_t /*offset*/,
                  fuse_file_info* /*file*/, fuse_readdir_flags /*flags*/) {
  Gate();
  for (const char* name : {".", "..", kFile.data() + 1}) {
    fill(buffer, name, nullptr, 0, fuse_fill_dir_flags{});
  }
  return 0;
}

int Open(const char* /*path*/, fuse_file_info* /*file*/) {
  Gate();
  return 0;
}

int Read(const char* /*path*/, char* buffer, size_t size, off_t offset, fuse_file_info* /*file*/) {
  Gate();
  const auto at = std::min(static_cast<size_t>(offset), kContent.size());
  return static_cast<int>(kContent.copy(buffer, size, at));
}

int Statistics(const char* /*path*/, struct statvfs* out) {
  Gate();
  out->f_bsize = out->f_frsize = 4096;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  struct sigaction action {};
  action.sa_handler = OnSignal;
  action.sa_flags = SA_RESTART;
  sigaction(SIGUSR1, &action, nullptr);
  sigaction(SIGUSR2, &action, nullptr);

  fuse_operations operations{};
  operations.init = Initialise;
  operations.getattr = GetAttributes;
  operations.readdir = ReadDirectory;
  operations.open = Open;
  operations.read = Read;
  operations.statfs = Statistics;
  char in_foreground[] = "-f";
  char* arguments[] = {argv[0], in_foreground, argv[1], nullptr};
  return fuse_main(3, arguments, &operations, nullptr);
}
