#include "packet_tools.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include <cstdio>
#include <ctime>
#include <future>
#include <memory>
#include <system_error>

#include "attributes.h"
#include "remote_files.h"
#include "session.h"

namespace cpd::host {
namespace {

constexpr uint32_t kReadSize = 1U << 20;

/// Asks and waits for the answer.
template <class T, class Ask>
T Await(const std::string& what, Ask ask) {
  // Shared: the thread that sets the value may still be in the promise when the value is there.
  const auto promise = std::make_shared<std::promise<Result<T>>>();
  ask([promise](Result<T> result) { promise->set_value(std::move(result)); });
  auto result = promise->get_future().get();
  if (result.error != 0) {
    throw std::system_error(result.error, std::generic_category(), what);
  }
  return std::move(result.value);
}

/// Every path of the protocol begins at the disk's root.
std::string FromRoot(const std::string& path) { return path.starts_with('/') ? path : '/' + path; }

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

}  // namespace

void PrintListing(Session& session, const std::string& path) {
  RemoteFiles files(session);
  const auto listing =
      Await<Listing>(path, [&](auto done) { files.List(FromRoot(path), std::move(done)); });
  for (const auto& [attributes, name] : listing.entries) {
    const auto changed = static_cast<time_t>(attributes.st_mtim.tv_sec);
    tm local{};
    localtime_r(&changed, &local);
    fmt::print("{}{:04o} {:3} {:5} {:5} {:12} {:%F %T} {}\n", TypeLetter(attributes.st_mode),
               attributes.st_mode & kPermissions, uint64_t{attributes.st_nlink},
               uint32_t{attributes.st_uid}, uint32_t{attributes.st_gid},
               int64_t{attributes.st_size}, local, name);
  }
}

void PrintFile(Session& session, const std::string& path) {
  RemoteFiles files(session);
  const auto attributes = Await<udisk_stat>(
      path, [&](auto done) { files.GetAttributes(FromRoot(path), std::move(done)); });
  int64_t offset = 0;
  while (offset < attributes.st_size) {
    const auto data = Await<FileData>(
        path, [&](auto done) { files.Read(FromRoot(path), offset, kReadSize, std::move(done)); });
    if (data.bytes.empty()) {
      throw std::system_error(EIO, std::generic_category(), path);
    }
    if (std::fwrite(data.bytes.data(), 1, data.bytes.size(), stdout) != data.bytes.size()) {
      throw std::system_error(errno, std::generic_category(), "standard output");
    }
    offset += static_cast<int64_t>(data.bytes.size());
  }
}

void PrintStatistics(Session& session) {
  RemoteFiles files(session);
  const auto disk =
      Await<udisk_statvfs>("/", [&](auto done) { files.GetStatistics("/", std::move(done)); });
  const auto mib = [&](uint64_t blocks) {
    return static_cast<double>(blocks) * static_cast<double>(disk.f_frsize) / (1U << 20);
  };
  fmt::print("size {:.1f} MiB, free {:.1f} MiB, available {:.1f} MiB; files {}, free {}\n",
             mib(disk.f_blocks), mib(disk.f_bfree), mib(disk.f_bavail), uint64_t{disk.f_files},
             uint64_t{disk.f_ffree});
}

}  // namespace cpd::host
