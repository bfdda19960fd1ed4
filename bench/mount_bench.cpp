// udisk_mount_bench [TURNS]          compares the mount with each of two accelerators (gathered
//                                    writes, small files read ahead) to the mount without it
// udisk_mount_bench --files [TURNS]  the second of these for other numbers of files
// udisk_mount_bench --line [TURNS]   compares a mount over a line without delay to the mount in one
//                                    process
//
// Prints a table as udisk_bench --ratios does.
#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "ratio_table.h"
#include "sample_disk.h"
#include "support/mounted_disk.h"

namespace cpd::bench {
namespace {

using system_test::MountedDisk;

constexpr int kPieces = 256;
constexpr int kPieceBytes = 100;
constexpr int kFiles = 10'000;
constexpr size_t kFileBytes = 4096;

void Expect(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(std::string("benchmark: ") + what);
}

double SecondsOf(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

/// Writes pieces all over a file and syncs it.
double WritePieces(const std::string& path, int count) {
  const std::string piece(kPieceBytes, 'p');
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  Expect(fd >= 0, "open failed");
  const double seconds = SecondsOf([&] {
    for (int i = 0; i < count; ++i) {
      // The pieces are neither in order nor adjacent.
      const off_t offset = off_t{i} * 7919 % count * 10'000;
      Expect(pwrite(fd, piece.data(), kPieceBytes, offset) == kPieceBytes, "pwrite failed");
    }
    Expect(fsync(fd) == 0, "fsync failed");
  });
  close(fd);
  return seconds;
}

/// Lists a directory and reads all its files.
double ReadFiles(const std::string& path, int count) {
  std::string buffer(2 * kFileBytes, '\0');
  return SecondsOf([&] {
    std::vector<std::string> names;
    DIR* const directory = opendir(path.c_str());
    Expect(directory != nullptr, "opendir failed");
    while (const dirent* entry = readdir(directory)) {
      if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
    }
    closedir(directory);
    Expect(names.size() == static_cast<size_t>(count), "files are missing");
    std::string file = path + "/";
    const size_t prefix = file.size();
    for (const std::string& name : names) {
      file.replace(prefix, std::string::npos, name);
      const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC);
      Expect(read(fd, buffer.data(), buffer.size()) == ssize_t{kFileBytes}, "read failed");
      close(fd);
    }
  });
}

/// Reads a file from its start to its end, past the kernel's cache if asked.
template <size_t kSize, int kFlags = 0>
double ReadThrough(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | kFlags);
  Expect(fd >= 0, "open failed");
  void* buffer = nullptr;
  Expect(posix_memalign(&buffer, 4096, kSize) == 0, "no memory");
  const double seconds = SecondsOf([&] {
    size_t sum = 0;
    while (const ssize_t count = read(fd, buffer, kSize)) {
      Expect(count > 0, "read failed");
      sum += static_cast<size_t>(count);
    }
    Expect(sum == SampleDisk::kBigFileSize, "bytes are missing");
  });
  free(buffer);
  close(fd);
  return seconds;
}

/// Writes a new file of the same size, and syncs it.
template <size_t kSize>
double WriteThrough(const std::string& path) {
  const std::string block(kSize, 'w');
  const int fd = open((path + ".new").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  Expect(fd >= 0, "open failed");
  const double seconds = SecondsOf([&] {
    for (size_t done = 0; done < SampleDisk::kBigFileSize; done += kSize) {
      Expect(write(fd, block.data(), kSize) == ssize_t{kSize}, "write failed");
    }
    Expect(fsync(fd) == 0, "fsync failed");
  });
  close(fd);
  return seconds;
}

struct Row {
  const char* name;
  const char* without;  ///< the option that switches the accelerator off
  const char* target;   ///< on the disk
  double (*work)(const std::string& path, int operations);
  int operations;
  double bound;  ///< less than was measured on one machine; 1 = no gain
};

/// Mounts anew for every turn, so that the kernel's caches are empty.
bool PrintRow(const Row& row, const SampleDisk& disk, int turns) {
  Turns taken;
  for (int i = 0; i < turns; ++i) {
    const auto seconds = [&](const std::vector<std::string>& options) {
      MountedDisk mount(disk.root(), options);
      return row.work(mount / row.target, row.operations);
    };
    const double slow = seconds({row.without});
    const double fast = seconds({});
    taken.base_rates.push_back(row.operations / slow);
    taken.rates.push_back(row.operations / fast);
    taken.ratios.push_back(slow / fast);
  }
  return PrintRatioRow(row.name, taken, {.is_most = false, .value = row.bound});
}

/// What the line costs. Mounts anew for every turn, as above.
bool PrintLineRow(const char* name, double (*work)(const std::string& path), const SampleDisk& disk,
                  int turns) {
  constexpr double kMegabytes = SampleDisk::kBigFileSize / 1e6;
  Turns taken;
  for (int i = 0; i < turns; ++i) {
    const auto seconds = [&](const char* line) {
      if (line == nullptr) {
        unsetenv("CPD_TEST_LINE");
      } else {
        setenv("CPD_TEST_LINE", line, 1);
      }
      MountedDisk mount(disk.root());
      return work(mount / disk.big_file().substr(1));
    };
    const double near = seconds(nullptr);
    const double far = seconds("exec");
    taken.base_rates.push_back(kMegabytes / near);
    taken.rates.push_back(kMegabytes / far);
    taken.ratios.push_back(near / far);
  }
  return PrintRatioRow(name, taken, {.is_most = false, .value = 0.8});
}

int RunLine(int turns) {
  const SampleDisk disk("/dev/shm");
  PrintRatioHeader("in one process, MB", "over a line, MB");
  bool ok = PrintLineRow("read 64 MiB, 64 KiB each", ReadThrough<64 << 10>, disk, turns);
  ok &= PrintLineRow("the same past the kernel's cache", ReadThrough<64 << 10, O_DIRECT>, disk,
                     turns);
  ok &= PrintLineRow("read 64 MiB, 1 MiB each", ReadThrough<1 << 20>, disk, turns);
  ok &= PrintLineRow("the same past the kernel's cache, 1 MiB each", ReadThrough<1 << 20, O_DIRECT>,
                     disk, turns);
  ok &=
      PrintLineRow("write 64 MiB, 64 KiB each, then an fsync", WriteThrough<64 << 10>, disk, turns);
  ok &= PrintLineRow("write 64 MiB, 1 MiB each, then an fsync", WriteThrough<1 << 20>, disk, turns);
  return ok ? 0 : 1;
}

int Run(int turns) {
  SampleDisk disk("/dev/shm");
  const std::string directory = disk.Directory(kFiles, kFileBytes);
  PrintRatioHeader("without", "with");
  bool ok = PrintRow(
      {"256 pieces of 100 bytes, then an fsync", "--no-batch", "big", WritePieces, kPieces, 1.2},
      disk, turns);
  ok &= PrintRow({"10 000 files of 4 KiB, listed and read", "--no-prefetch", directory.c_str() + 1,
                  ReadFiles, kFiles, 1.7},
                 disk, turns);
  return ok ? 0 : 1;
}

/// Reading ahead must not slow a program down that reads only a few files.
int RunFiles(int turns) {
  SampleDisk disk("/dev/shm");
  PrintRatioHeader("without", "with");
  bool ok = true;
  for (const int count : {10, 100, 1000, kFiles}) {
    const std::string name = std::to_string(count) + " files of 4 KiB, listed and read";
    const std::string directory = disk.Directory(count, kFileBytes);
    ok &= PrintRow({name.c_str(), "--no-prefetch", directory.c_str() + 1, ReadFiles, count, 0.8},
                   disk, turns);
  }
  return ok ? 0 : 1;
}

}  // namespace
}  // namespace cpd::bench

int main(int argc, char** argv) {
  try {
    const std::string_view mode = argc > 1 ? argv[1] : "";
    const int place = mode.starts_with("--") ? 2 : 1;
    const int turns = argc > place ? std::atoi(argv[place]) : 9;
    if (mode == "--line") return cpd::bench::RunLine(turns);
    if (mode == "--files") return cpd::bench::RunFiles(turns);
    return cpd::bench::Run(turns);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "udisk_mount_bench: %s\n", error.what());
    return 2;
  }
}
