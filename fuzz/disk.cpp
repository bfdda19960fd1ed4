#include "disk.h"

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string_view>
#include <utility>

#include "finding.h"
#include "jail.h"
#include "support/requests.h"

namespace cpd::fuzz {

namespace {

bool g_changed = true;  // used on the jail's thread only, as is the next
size_t g_bytes = 0;

void MakeFile(const std::string& path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

}  // namespace

void MakeDisk() {
  if (!std::exchange(g_changed, false)) return;
  g_bytes = 0;
  EmptyJail();
  mkdir("/home", 0755);
  MakeFile("/home/secret", kSecret);
  mkdir("/media", 0755);
  mkdir("/media/other", 0755);
  MakeFile("/media/other/disk", kSecret);
  mkdir("/dev", 0755);
  MakeFile("/dev/urandom", "not random at all");  // where trace ids come from
  mkdir("/DISK", 0755);
  mkdir("/DISK/known", 0755);
  MakeFile("/DISK/known.txt", "known content");
  MakeFile("/DISK/known/a.txt", "");
  MakeFile("/DISK/big.doc", "");
  Expect(truncate("/DISK/big.doc", 300'000) == 0, "the disk takes a sparse file");
  Expect(mkfifo("/DISK/fifo", 0644) == 0, "the disk takes a FIFO");
  Expect(symlink("/home", "/DISK/out") == 0 && symlink("loop", "/DISK/loop") == 0,
         "the disk takes links");
}

void DiskChanged(size_t bytes) {
  g_changed = true;
  g_bytes += bytes;
}

size_t BytesOnDisk() { return g_bytes; }

std::string StateBeside() {
  std::string state;
  for (const char* path : {"/", "/home", "/home/secret", "/media", "/media/other",
                           "/media/other/disk", "/dev", "/dev/urandom"}) {
    struct stat st {};
    if (lstat(path, &st) == 0) {
      state += test::BytesOf(st.st_ino) + test::BytesOf(st.st_ctim) + test::BytesOf(st.st_size);
    }
  }
  return state;
}

size_t OpenDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(descriptors), end(descriptors)));
}

}  // namespace cpd::fuzz
