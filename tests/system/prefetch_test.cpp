// Programs read many small files, which are read ahead and are never stale.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

constexpr int kFiles = 300;
constexpr size_t kSize = 4096;
// Longer than the time for which content that was read ahead may be used.
constexpr auto kTrustIsOver = 1300ms;

std::string Padded(int number) {
  const auto digits = std::to_string(number);
  return std::string(7 - digits.size(), '0') + digits;
}

std::string Name(int i) { return "file" + Padded(i); }

std::vector<std::string> NamesAsListed(const std::string& directory) {
  std::vector<std::string> names;
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir(directory.c_str()), &closedir);
  while (const dirent* entry = readdir(stream.get())) {
    if (entry->d_name[0] != '.') names.emplace_back(entry->d_name);
  }
  return names;
}

class Prefetch : public MountTest {
 protected:
  void MakeFiles(int count = kFiles, size_t size = kSize) {
    for (int i = 0; i < count; ++i) WriteFile(disk / Name(i), Bytes(size, i + 1));
  }
  /// Lists the directory and reads the first ten files by name, so that the next ones are read
  /// ahead.
  static void ReadBeginning(const MountedDisk& mounted) {
    NamesAsListed(mounted.path());
    for (int i = 0; i < 10; ++i) ReadFile(mounted / Name(i));
    std::this_thread::sleep_for(100ms);
  }
};

// Without prefetch each file costs a request 105. With prefetch only a few do, and some more on a
// slow machine, where content expires before it is used: the tests allow a quarter or half of them.

TEST_F(Prefetch, FilesReadByNameAreFetchedTogether) {
  MakeFiles();
  MountedDisk mounted(disk.path());
  NamesAsListed(mounted.path());
  for (int i = 0; i < kFiles; ++i) ASSERT_EQ(ReadFile(mounted / Name(i)), Bytes(kSize, i + 1)) << i;
  const auto ending = mounted.Unmount();
  EXPECT_GE(ending.Requests(123), 2) << ending.out;
  EXPECT_LE(ending.Requests(123), 30) << ending.out;
  EXPECT_LE(ending.Requests(105), kFiles / 4) << ending.out;
}

TEST_F(Prefetch, FilesReadInListingOrderAreFetchedTogether) {
  MakeFiles();
  MountedDisk mounted(disk.path());
  for (const auto& name : NamesAsListed(mounted.path())) {
    ASSERT_EQ(ReadFile(mounted / name), ReadFile(disk / name)) << name;
  }
  const auto ending = mounted.Unmount();
  EXPECT_LE(ending.Requests(123), 30) << ending.out;
  EXPECT_LE(ending.Requests(105), kFiles / 4) << ending.out;
}

TEST_F(Prefetch, SkippingSomeFilesDoesNotStopIt) {
  MakeFiles();
  MountedDisk mounted(disk.path());
  NamesAsListed(mounted.path());
  for (int i = 0; i < kFiles; i += 3) ASSERT_EQ(ReadFile(mounted / Name(i)), Bytes(kSize, i + 1));
  EXPECT_LE(mounted.Unmount().Requests(105), kFiles / 3 / 2);
}

TEST_F(Prefetch, FilesReadAgainAfterAnotherListingAreFetchedTogetherToo) {
  MakeFiles();
  MountedDisk mounted(disk.path());
  for (int round = 0; round < 2; ++round) {
    NamesAsListed(mounted.path());
    for (int i = 0; i < kFiles; ++i) ASSERT_EQ(ReadFile(mounted / Name(i)), Bytes(kSize, i + 1));
  }
  EXPECT_LE(mounted.Unmount().Requests(105), kFiles / 2);
}

TEST_F(Prefetch, CanBeSwitchedOff) {
  MakeFiles(100);
  MountedDisk mounted(disk.path(), {"--no-prefetch"});
  NamesAsListed(mounted.path());
  for (int i = 0; i < 100; ++i) ASSERT_EQ(ReadFile(mounted / Name(i)), Bytes(kSize, i + 1));
  const auto ending = mounted.Unmount();
  EXPECT_EQ(ending.Requests(123), 0) << ending.out;
  EXPECT_EQ(ending.Requests(105), 100) << ending.out;
}

TEST_F(Prefetch, ADirectoryThatNobodyListedIsReadFileByFile) {
  MakeFiles(100);
  MountedDisk mounted(disk.path());
  for (int i = 0; i < 100; ++i) ASSERT_EQ(ReadFile(mounted / Name(i)), Bytes(kSize, i + 1));
  EXPECT_EQ(mounted.Unmount().Requests(123), 0);
}

TEST_F(Prefetch, FilesBeyond64KiBAreReadByThemselves) {
  MakeFiles(20, (64 << 10) + 1);
  MountedDisk mounted(disk.path());
  NamesAsListed(mounted.path());
  for (int i = 0; i < 20; ++i) ASSERT_EQ(ReadFile(mounted / Name(i)), Bytes((64 << 10) + 1, i + 1));
  EXPECT_EQ(mounted.Unmount().Requests(123), 0);
}

TEST_F(Prefetch, FilesOfEverySizeUpTo64KiBAreReadCompletely) {
  for (int i = 0; i < 200; ++i) WriteFile(disk / Name(i), Bytes(size_t{331} * i, i + 1));
  WriteFile(disk / Name(200), Bytes(64 << 10, 201));
  MountedDisk mounted(disk.path());
  NamesAsListed(mounted.path());
  for (int i = 0; i < 200; ++i) {
    ASSERT_EQ(ReadFile(mounted / Name(i)), Bytes(size_t{331} * i, i + 1)) << i;
  }
  EXPECT_EQ(ReadFile(mounted / Name(200)), Bytes(64 << 10, 201));
  EXPECT_LE(mounted.Unmount().Requests(105), 60);
}

TEST_F(Prefetch, SubdirectoriesAndPipesAreLeftAlone) {
  MakeFiles(100);
  for (int i = 0; i < 100; i += 10) {
    fs::create_directory(disk / Name(i) + "d");
    ASSERT_EQ(mkfifo((disk / Name(i) + "p").c_str(), 0600), 0);
  }
  MountedDisk mounted(disk.path());
  NamesAsListed(mounted.path());
  for (int i = 0; i < 100; ++i) ASSERT_EQ(ReadFile(mounted / Name(i)), Bytes(kSize, i + 1)) << i;
  EXPECT_LE(mounted.Unmount().Requests(105), 50);
}

// ---- Changes through the mount ----

/// What a program does to files 20 and 21 after they were read ahead, and what file 20 must hold
/// then.
struct Change {
  const char* name;
  std::function<void(const MountedDisk& mounted)> make;
  std::string content;
};

void PrintTo(const Change& change, std::ostream* out) { *out << change.name; }

class PrefetchedFile : public Prefetch, public testing::WithParamInterface<Change> {};

TEST_P(PrefetchedFile, ShowsAChangeThroughTheMountAtOnce) {
  MakeFiles();
  for (const char* batching : {"--no-batch", "--no-dir-cache"}) {
    SCOPED_TRACE(batching);
    WriteFile(disk / Name(20), Bytes(kSize, 21));
    WriteFile(disk / Name(21), Bytes(kSize, 22));
    fs::remove(disk / "other name");
    MountedDisk mounted(disk.path(), {batching});
    ReadBeginning(mounted);
    GetParam().make(mounted);
    EXPECT_EQ(ReadFile(mounted / Name(20)), GetParam().content);
    const auto ending = mounted.Unmount();
    EXPECT_GE(ending.Requests(123), 1) << ending.out;
    EXPECT_EQ(ending.status, 0) << ending.err;
  }
}

void Overwrite(const std::string& path, const std::string& bytes, off_t offset = 0) {
  const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_EQ(pwrite(fd, bytes.data(), bytes.size(), offset), static_cast<ssize_t>(bytes.size()));
  ASSERT_EQ(close(fd), 0);
}

INSTANTIATE_TEST_SUITE_P(
    , PrefetchedFile,
    testing::Values(
        Change{"Overwritten",
               [](const auto& mounted) { Overwrite(mounted / Name(20), Bytes(kSize, 7000)); },
               Bytes(kSize, 7000)},
        Change{"WrittenInTheMiddle",
               [](const auto& mounted) { Overwrite(mounted / Name(20), "new", 1000); },
               Bytes(kSize, 21).replace(1000, 3, "new")},
        Change{"Appended",
               [](const auto& mounted) { Overwrite(mounted / Name(20), "more", kSize); },
               Bytes(kSize, 21) + "more"},
        Change{"Rewritten",
               [](const auto& mounted) { WriteFile(mounted / Name(20), Bytes(kSize, 7001)); },
               Bytes(kSize, 7001)},
        Change{
            "Shortened",
            [](const auto& mounted) { ASSERT_EQ(truncate((mounted / Name(20)).c_str(), 100), 0); },
            Bytes(kSize, 21).substr(0, 100)},
        Change{"ShortenedAndExtended",
               [](const auto& mounted) {
                 ASSERT_EQ(truncate((mounted / Name(20)).c_str(), 100), 0);
                 ASSERT_EQ(truncate((mounted / Name(20)).c_str(), kSize), 0);
               },
               Bytes(kSize, 21).substr(0, 100) + std::string(kSize - 100, '\0')},
        Change{"Replaced",
               [](const auto& mounted) { fs::rename(mounted / Name(21), mounted / Name(20)); },
               Bytes(kSize, 22)},
        Change{"ReplacedByANewFile",
               [](const auto& mounted) {
                 WriteFile(mounted / "new", Bytes(kSize, 7002));
                 fs::rename(mounted / "new", mounted / Name(20));
               },
               Bytes(kSize, 7002)},
        Change{"RemovedAndMadeAnew",
               [](const auto& mounted) {
                 ASSERT_TRUE(fs::remove(mounted / Name(20)));
                 EXPECT_EQ(open((mounted / Name(20)).c_str(), O_RDONLY | O_CLOEXEC), -1);
                 EXPECT_EQ(errno, ENOENT);
                 WriteFile(mounted / Name(20), Bytes(kSize, 7003));
               },
               Bytes(kSize, 7003)},
        Change{"WrittenThroughAnotherName",
               [](const auto& mounted) {
                 fs::create_hard_link(mounted / Name(20), mounted / "other name");
                 Overwrite(mounted / "other name", Bytes(kSize, 7004));
               },
               Bytes(kSize, 7004)},
        Change{"WrittenWhileOpen",
               [](const auto& mounted) {
                 const int reader = open((mounted / Name(20)).c_str(), O_RDONLY | O_CLOEXEC);
                 Overwrite(mounted / Name(20), Bytes(kSize, 7005));
                 std::string seen(kSize, '\0');
                 EXPECT_EQ(pread(reader, seen.data(), kSize, 0), ssize_t{kSize});
                 EXPECT_EQ(seen, Bytes(kSize, 7005));
                 close(reader);
               },
               Bytes(kSize, 7005)}),
    [](const auto& test) { return test.param.name; });

TEST_F(Prefetch, FilesOfARenamedDirectoryAreReadAtTheirNewPath) {
  for (const char* directory : {"a", "b"}) {
    fs::create_directory(disk / directory);
    for (int i = 0; i < 100; ++i) {
      WriteFile(disk / directory + "/" + Name(i), Bytes(kSize, i + 1 + 1000 * directory[0]));
    }
  }
  MountedDisk mounted(disk.path());
  for (const char* directory : {"a", "b"}) {
    NamesAsListed(mounted / directory);
    for (int i = 0; i < 10; ++i) ReadFile(mounted / directory + "/" + Name(i));
  }
  fs::rename(mounted / "a", mounted / "c");
  fs::rename(mounted / "b", mounted / "a");
  for (int i = 10; i < 100; ++i) {
    ASSERT_EQ(ReadFile(mounted / "a/" + Name(i)), Bytes(kSize, i + 1 + 1000 * 'b')) << i;
    ASSERT_EQ(ReadFile(mounted / "c/" + Name(i)), Bytes(kSize, i + 1 + 1000 * 'a')) << i;
  }
}

/// A writer fills files with ever higher numbers; a reader must never see one that was replaced.
class PrefetchHammer : public Prefetch, public testing::WithParamInterface<const char*> {};

TEST_P(PrefetchHammer, AReaderNeverSeesWhatAFinishedWriteHasReplaced) {
  constexpr int kHammered = 60;
  const auto content = [](int number) {
    std::string bytes;
    while (bytes.size() < kSize) bytes += Padded(number) + ' ';
    return bytes;
  };
  for (int i = 0; i < kHammered; ++i) WriteFile(disk / Name(i), content(0));
  MountedDisk mounted(disk.path(), {GetParam()});

  std::array<std::atomic<int>, kHammered> written{};
  std::atomic<bool> stop = false;
  std::thread writer([&] {
    for (int number = 1; !stop; ++number) {
      const int file = number * 7 % kHammered;
      Overwrite(mounted / Name(file), content(number));
      written[file] = number;
      if (number % 8 == 0) std::this_thread::sleep_for(2ms);  // gives readers time to read ahead
    }
  });
  int reads = 0;
  const auto end = std::chrono::steady_clock::now() + 1500ms;
  while ((reads <= kHammered || std::chrono::steady_clock::now() < end) && !HasFailure()) {
    NamesAsListed(mounted.path());
    for (int i = 0; i < kHammered; ++i, ++reads) {
      const int least = written[i];
      const auto seen = ReadFile(mounted / Name(i));
      const int number = seen.empty() ? -1 : std::stoi(seen);
      EXPECT_GE(number, least) << Name(i);
      EXPECT_EQ(seen, content(number)) << Name(i);
    }
  }
  stop = true;
  writer.join();
  for (int i = 0; i < kHammered; ++i) {
    EXPECT_EQ(ReadFile(mounted / Name(i)), content(written[i])) << i;
  }
  const auto ending = mounted.Unmount();
  EXPECT_GE(ending.Requests(123), 1) << ending.out;
  EXPECT_EQ(ending.status, 0) << ending.err;
}

INSTANTIATE_TEST_SUITE_P(, PrefetchHammer, testing::Values("--no-batch", "--no-dir-cache"),
                         [](const auto& test) {
                           return test.param == std::string("--no-batch") ? "WithSingleWrites"
                                                                          : "WithBatches";
                         });

// ---- Changes on the disk ----

TEST_F(Prefetch, AChangeOnTheDiskShowsASecondLater) {
  MakeFiles();
  MountedDisk mounted(disk.path());
  ReadBeginning(mounted);
  WriteFile(disk / Name(20), Bytes(kSize, 8000));
  WriteFile(disk / Name(21), Bytes(kSize + 500, 8001));
  WriteFile(disk / Name(22), Bytes(kSize - 500, 8002));
  fs::rename(disk / Name(24), disk / Name(23));
  std::this_thread::sleep_for(kTrustIsOver);
  EXPECT_EQ(ReadFile(mounted / Name(20)), Bytes(kSize, 8000));
  EXPECT_EQ(ReadFile(mounted / Name(21)), Bytes(kSize + 500, 8001));
  EXPECT_EQ(ReadFile(mounted / Name(22)), Bytes(kSize - 500, 8002));
  EXPECT_EQ(ReadFile(mounted / Name(23)), Bytes(kSize, 25));
  EXPECT_EQ(ReadFile(mounted / Name(25)), Bytes(kSize, 26));
  EXPECT_EQ(mounted.Unmount().status, 0);
}

TEST_F(Prefetch, FilesThatGrowOrShrinkAfterTheyWereListedAreNeverCutShort) {
  MakeFiles();
  MountedDisk mounted(disk.path());
  NamesAsListed(mounted.path());
  const auto content = [](int i) {
    if (i < kFiles / 3) return Bytes(kSize, i + 1);
    return Bytes(i < kFiles / 3 * 2 ? kSize + 100 : kSize - 100, i + 9000);
  };
  // Change the files after the listing, so that the replies differ from it.
  for (int i = kFiles / 3; i < kFiles; ++i) WriteFile(disk / Name(i), content(i));
  std::this_thread::sleep_for(kTrustIsOver);
  for (int i = 0; i < kFiles; ++i) ASSERT_EQ(ReadFile(mounted / Name(i)), content(i)) << i;
  EXPECT_GE(mounted.Unmount().Requests(123), 1);
}

// Batches of 16 and 32 files, and then ever smaller ones: about 80 files. A slow machine may use
// one of the last batches in time, which adds a few; without shrinking they would be all 300.
TEST_F(Prefetch, FetchesLessAndLessForASlowReader) {
  MakeFiles();
  MountedDisk mounted(disk.path());
  // Batches are larger if even the shortest round trip took a millisecond. Of 50, one is shorter
  // even on a busy machine.
  for (int i = 0; i < 50; ++i) Statvfs(mounted.path());
  NamesAsListed(mounted.path());
  for (int i = 0; i < 12; ++i) {
    ASSERT_EQ(ReadFile(mounted / Name(i)), Bytes(kSize, i + 1)) << i;
    if (i >= 3) std::this_thread::sleep_for(kTrustIsOver);
  }
  const auto ending = mounted.Unmount();
  EXPECT_GE(ending.Count("files read ahead"), 16) << ending.out;
  EXPECT_LE(ending.Count("files read ahead"), 120) << ending.out;
}

}  // namespace
}  // namespace system_test
