#include "loads.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench_host.h"
#include "file_manager_linux.h"
#include "handover.h"
#include "operator.h"
#include "support/requests.h"

namespace cpd::bench {

namespace {

constexpr int kAttributeFiles = 10'000;

void Expect(bool holds, const char* what) {
  if (!holds) throw std::runtime_error(std::string("benchmark: ") + what);
}

double ProcessorSeconds() {
  struct timespec now {};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

template <class Work>
Seconds SecondsOf(const Work& work) {
  const auto begin = std::chrono::steady_clock::now();
  const double processor_begin = ProcessorSeconds();
  work();
  const double processor = ProcessorSeconds() - processor_begin;
  return {std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count(),
          processor};
}

/// Keeps `outstanding` operations in flight until all have been answered.
template <class Send, class Await>
Seconds SecondsOfLoop(int operations, int outstanding, const Send& send, const Await& await) {
  return SecondsOf([&] {
    const int ahead = std::min(outstanding, operations);
    for (int i = 0; i < ahead; ++i) send();
    for (int done = 0; done < operations; ++done) {
      await();
      if (done + ahead < operations) send();
    }
  });
}

/// Offsets that run through the big file again and again.
class OffsetWalk {
 public:
  explicit OffsetWalk(size_t bytes) : bytes_(bytes) {}
  int64_t Next() {
    const size_t offset = at_;
    at_ += bytes_;
    if (at_ + bytes_ > SampleDisk::kBigFileSize) at_ = 0;
    return static_cast<int64_t>(offset);
  }

 private:
  size_t bytes_;
  size_t at_ = 0;
};

std::vector<std::string> AttributePaths(SampleDisk& disk) {
  const std::string directory = disk.Directory(kAttributeFiles);
  std::vector<std::string> paths;
  paths.reserve(kAttributeFiles);
  for (int i = 0; i < kAttributeFiles; ++i) {
    paths.push_back(directory + "/" + SampleDisk::FileName(i));
  }
  return paths;
}

}  // namespace

// ---- Limit ----

namespace {

struct FreeDeleter {
  void operator()(void* block) const { std::free(block); }
};

/// A heap block that the threads hand to each other.
struct Block {
  int64_t offset;
  const char* path;
  char bytes[];
};
using BlockPtr = std::unique_ptr<Block, FreeDeleter>;

BlockPtr MakeBlock(const char* path, int64_t offset, size_t bytes) {
  BlockPtr block(static_cast<Block*>(std::malloc(sizeof(Block) + bytes)));
  Expect(block != nullptr, "out of memory");
  block->offset = offset;
  block->path = path;
  return block;
}

class Limit {
 public:
  Limit(SampleDisk& disk, FileWork work)
      : work_(work), offsets_(work.bytes), paths_{disk.root() + disk.big_file()} {
    if (work_.kind == FileWork::kAttributes) {
      paths_ = AttributePaths(disk);
      for (std::string& path : paths_) path.insert(0, disk.root());
    }
    worker_ = std::thread([this] { Work(); });
  }
  ~Limit() {
    requests_.Put(nullptr);
    worker_.join();
  }
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

  void Send() {
    const size_t request_bytes = kHead + data_.size();
    const std::string& path = paths_[next_++ % paths_.size()];
    BlockPtr request = MakeBlock(path.c_str(), offsets_.Next(), request_bytes);
    std::memcpy(request->bytes + kHead, data_.data(), data_.size());
    requests_.Put(std::move(request));
  }
  void Await() { Expect(replies_.Take() != nullptr, "a bare call failed"); }

 private:
  static constexpr size_t kHead = 64;

  void Work() {
    while (const BlockPtr request = requests_.Take()) {
      switch (work_.kind) {
        case FileWork::kAttributes:
          replies_.Put(Attributes(*request));
          break;
        case FileWork::kRead:
          replies_.Put(Read(*request));
          break;
        case FileWork::kWrite:
          replies_.Put(Write(*request));
          break;
      }
    }
  }

  static BlockPtr Attributes(const Block& request) {
    struct stat st {};
    if (::lstat(request.path, &st) != 0) return nullptr;
    BlockPtr reply = MakeBlock(request.path, 0, sizeof st);
    std::memcpy(reply->bytes, &st, sizeof st);
    return reply;
  }

  [[nodiscard]] BlockPtr Read(const Block& request) const {
    BlockPtr reply = MakeBlock(request.path, request.offset, work_.bytes);
    const int fd = ::open(request.path, O_RDONLY | O_CLOEXEC);
    const ssize_t got = ::pread(fd, reply->bytes, work_.bytes, request.offset);
    ::close(fd);
    return got == static_cast<ssize_t>(work_.bytes) ? std::move(reply) : nullptr;
  }

  [[nodiscard]] BlockPtr Write(const Block& request) const {
    const int fd = ::open(request.path, O_WRONLY | O_CLOEXEC);
    const ssize_t put = ::pwrite(fd, request.bytes + kHead, work_.bytes, request.offset);
    ::close(fd);
    if (put != static_cast<ssize_t>(work_.bytes)) return nullptr;
    return MakeBlock(request.path, request.offset, kHead);
  }

  FileWork work_;
  // The data of a write's request.
  std::string data_ = std::string(work_.kind == FileWork::kWrite ? work_.bytes : 0, 'y');
  OffsetWalk offsets_;
  std::vector<std::string> paths_;
  size_t next_ = 0;
  Handover<BlockPtr> requests_;
  Handover<BlockPtr> replies_;
  std::thread worker_;
};

}  // namespace

Load LimitLoop(SampleDisk& disk, FileWork work, int outstanding) {
  return [limit = std::make_shared<Limit>(disk, work), outstanding](int operations) {
    return SecondsOfLoop(
        operations, outstanding, [&] { limit->Send(); }, [&] { limit->Await(); });
  };
}

// ---- Module ----

namespace {

class Module {
 public:
  Module(SampleDisk& disk, FileWork work, bool confined)
      : work_(work), offsets_(work.bytes), driver_(disk.root(), confined) {
    for (const test::Request& request : Requests(disk)) requests_.push_back(request.Bytes());
  }

  void Send() {
    std::string& request = requests_[next_++ % requests_.size()];
    if (work_.kind != FileWork::kAttributes) {  // both heads start with the offset
      static_assert(offsetof(ReadHead, offset) == 0 && offsetof(WriteHead, offset) == 0);
      const int64_t offset = offsets_.Next();
      std::memcpy(request.data() + CPD_PACKET_HEADER_SIZE, &offset, sizeof offset);
    }
    driver_.Send(request);
  }
  void Await() { Expect(Succeeded(*driver_.TakeReply()), "a request failed"); }

 private:
  [[nodiscard]] std::vector<test::Request> Requests(SampleDisk& disk) const {
    std::vector<test::Request> requests;
    switch (work_.kind) {
      case FileWork::kAttributes:
        for (const std::string& path : AttributePaths(disk)) {
          requests.push_back(test::AttrRequest{.path = path});
        }
        break;
      case FileWork::kRead:
        requests.push_back(
            test::ReadRequest{.path = disk.big_file(), .size = static_cast<uint32_t>(work_.bytes)});
        break;
      case FileWork::kWrite:
        requests.push_back(
            test::WriteRequest{.path = disk.big_file(), .data = std::string(work_.bytes, 'y')});
        break;
    }
    return requests;
  }

  [[nodiscard]] bool Succeeded(const CpdPacket& reply) const {
    if (work_.kind == FileWork::kAttributes) return reply.header->packetLen > sizeof(udisk_stat);
    if (work_.kind == FileWork::kRead) return reply.header->packetLen > work_.bytes;
    WriteHead head;
    std::memcpy(&head, reply.GetPayload(), sizeof head);
    return head.size == static_cast<int32_t>(work_.bytes);
  }

  FileWork work_;
  OffsetWalk offsets_;
  std::vector<std::string> requests_;
  size_t next_ = 0;
  BenchDriver driver_;
};

}  // namespace

Load ModuleLoop(SampleDisk& disk, FileWork work, int outstanding, bool confined) {
  return [module = std::make_shared<Module>(disk, work, confined), outstanding](int operations) {
    return SecondsOfLoop(
        operations, outstanding, [&] { module->Send(); }, [&] { module->Await(); });
  };
}

Load DisksLoop(SampleDisk& disk, FileWork work, int disks) {
  std::vector<std::shared_ptr<Module>> modules;
  modules.reserve(disks);
  for (int i = 0; i < disks; ++i) modules.push_back(std::make_shared<Module>(disk, work, false));
  return [modules, disks](int operations) {
    size_t sent = 0;
    size_t answered = 0;
    return SecondsOfLoop(
        operations, disks, [&] { modules[sent++ % modules.size()]->Send(); },
        [&] { modules[answered++ % modules.size()]->Await(); });
  };
}

// ---- Directories ----

namespace {

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};

/// Sends requests for a directory one at a time. An attribute request after each shows when it is
/// done, because a check that finds no change has no reply.
class Directories {
 public:
  explicit Directories(SampleDisk& disk)
      : driver_(disk.root()), probe_(test::Request(test::AttrRequest{.path = "/"}).Bytes()) {}

  /// The time to build the request is not counted: that is the remote side's work.
  Seconds Measure(int operations, const test::Request& request, bool replied) {
    const std::string bytes = request.Bytes();
    Seconds sum;
    for (int i = 0; i < operations; ++i) {
      auto packet = test::PacketOf(bytes);
      const Seconds seconds = SecondsOf([&] {
        driver_.Send(std::move(packet));
        driver_.Send(probe_);
        if (replied) Expect(driver_.TakeReply()->header->cmd == request.cmd, "no listing came");
        Expect(driver_.TakeReply()->header->cmd == kGetFileAttr, "an unexpected reply came");
      });
      sum.elapsed += seconds.elapsed;
      sum.processor += seconds.processor;
    }
    return sum;
  }

  /// Lists a directory with a request.
  test::DirReply List(const std::string& path) {
    driver_.Send(test::Request(test::DirReadRequest{.path = path}).Bytes());
    return test::DirReply::Decode(test::SentPacket(*driver_.TakeReply()));
  }

 private:
  BenchDriver driver_;
  std::string probe_;
};

/// Lists a directory with the file layer.
std::shared_ptr<_UDISK_DIR_ATTR> List(const std::string& path) {
  std::shared_ptr<_UDISK_DIR_ATTR> listing(new _UDISK_DIR_ATTR{}, [](_UDISK_DIR_ATTR* made) {
    std::free(made->buf);
    delete made;
  });
  Expect(FileManagerLinux().UdiskReadDir(path.c_str(), listing.get()) == 0, "no listing");
  return listing;
}

}  // namespace

Load BareWalk(SampleDisk& disk, int files) {
  return [path = disk.root() + disk.Directory(files)](int operations) {
    return SecondsOf([&] {
      for (int i = 0; i < operations; ++i) {
        const std::unique_ptr<DIR, DirCloser> dir(::opendir(path.c_str()));
        Expect(dir != nullptr, "opendir failed");
        while (::readdir(dir.get()) != nullptr) {
        }
        ::rewinddir(dir.get());
        std::string entry_path = path + "/";
        const size_t prefix = entry_path.size();
        struct stat st {};
        while (const dirent* entry = ::readdir(dir.get())) {
          entry_path.replace(prefix, std::string::npos, entry->d_name);
          Expect(::lstat(entry_path.c_str(), &st) == 0, "lstat failed");
        }
      }
    });
  };
}

Load DirRead(SampleDisk& disk, int files) {
  return [directories = std::make_shared<Directories>(disk),
          path = disk.Directory(files)](int operations) {
    return directories->Measure(operations, test::DirReadRequest{.path = path}, true);
  };
}

Load DirCheck(SampleDisk& disk, int files) {
  auto directories = std::make_shared<Directories>(disk);
  const std::string path = disk.Directory(files);
  const test::DirReply known = directories->List(path);
  return
      [directories, request = test::Request(test::CheckDirRequest{
                        .path = path, .cached = known.listing, .cached_count = known.entry_count})](
          int operations) { return directories->Measure(operations, request, false); };
}

Load ListAndCompare(SampleDisk& disk, int files) {
  const std::string path = disk.root() + disk.Directory(files);
  return
      [path, known = List(path), judge = std::make_shared<UDiskOperator>(nullptr)](int operations) {
        return SecondsOf([&] {
          for (int i = 0; i < operations; ++i) {
            const auto now = List(path);
            const auto count = static_cast<int>(known->entry_count);
            Expect(judge->compare_cache(count, static_cast<int>(now->entry_count), known->buf,
                                        now->buf) == 1,
                   "the directory changed");
          }
        });
      };
}

Load Compare(SampleDisk& disk, int files) {
  const std::string path = disk.root() + disk.Directory(files);
  return [known = List(path), now = List(path),
          judge = std::make_shared<UDiskOperator>(nullptr)](int operations) {
    return SecondsOf([&] {
      const auto count = static_cast<int>(known->entry_count);
      for (int i = 0; i < operations; ++i) {
        Expect(judge->compare_cache(count, count, known->buf, now->buf) == 1, "listings differ");
      }
    });
  };
}

}  // namespace cpd::bench
