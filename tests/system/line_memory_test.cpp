// A hostile other side cannot make a process of a line need 64 MiB.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <random>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "descriptor.h"
#include "line/stream.h"
#include "support/line_peer.h"
#include "support/mounted_disk.h"
#include "support/requests.h"

namespace system_test {
namespace fs = std::filesystem;
namespace host = cpd::host;

namespace {

using cpd::test::BytesOf;

constexpr size_t kMostMemory = 64 << 20;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

/// A command of the host's that speaks on standard input and output; the test is its other side.
class Victim {
 public:
  Victim(std::vector<std::string> arguments, const std::string& log) {
    (void)signal(SIGPIPE, SIG_IGN);
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) std::abort();
    line_ = host::Descriptor(ends[0]);
    const host::Descriptor its_end(ends[1]);
    fcntl(line_.get(), F_SETFL, O_NONBLOCK);
    arguments.insert(arguments.begin(), CPD_HOST);
    std::vector<char*> argv;
    for (auto& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    std::array<int, 2> started{};
    if (pipe2(started.data(), O_CLOEXEC) != 0) std::abort();
    pid_ = fork();
    if (pid_ != 0) {
      // The pipe closes when the program is started. Until then, its memory is the test's.
      close(started[1]);
      char none = 0;
      (void)!read(started[0], &none, 1);
      close(started[0]);
      return;
    }
    dup2(its_end.get(), STDIN_FILENO);
    dup2(its_end.get(), STDOUT_FILENO);
    dup2(open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644), STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
  }
  ~Victim() {
    line_.Close();
    kill(pid_, SIGTERM);
    Eventually([&] { return HasEnded(); });
    if (HasEnded()) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Victim(const Victim&) = delete;
  Victim& operator=(const Victim&) = delete;

  /// Sends until all is sent, the line has taken nothing for a moment, or it is closed.
  /// @return how many bytes were sent
  size_t Send(std::string_view bytes) {
    size_t all = 0;
    while (all < bytes.size() && Awaits(POLLOUT)) {
      const ssize_t sent = write(line_.get(), bytes.data() + all, bytes.size() - all);
      if (sent <= 0) break;
      all += static_cast<size_t>(sent);
    }
    return all;
  }
  /// Waits, without reading, for the hello and the announcement of the disk. Before that, the
  /// module does not know its disk, and every request fails.
  [[nodiscard]] bool HasAnnounced() const {
    return Eventually([&] {
      int unread = 0;
      return ioctl(line_.get(), FIONREAD, &unread) == 0 &&
             static_cast<size_t>(unread) > sizeof(host::Hello);
    });
  }
  /// Reads until nothing has come for a moment. @return how many bytes came
  size_t Drain() {
    size_t all = 0;
    while (Awaits(POLLIN)) {
      const ssize_t got = read(line_.get(), buffer_.data(), buffer_.size());
      if (got <= 0) break;
      all += static_cast<size_t>(got);
    }
    return all;
  }
  [[nodiscard]] bool HasEnded() {
    if (!has_ended_) has_ended_ = waitpid(pid_, nullptr, WNOHANG) == pid_;
    return has_ended_;
  }
  /// The most memory that the process has needed, in bytes. Once it has ended, this is the most
  /// that an earlier call has seen.
  size_t Peak() {
    std::ifstream status("/proc/" + std::to_string(pid_) + "/status");
    for (std::string key; status >> key;) {
      size_t peak = 0;
      if (key == "VmHWM:" && status >> peak) peak_ = std::max(peak_, peak);
    }
    return peak_ << 10;
  }
  /// Waits until the process has nothing to do any more.
  void Settle() {
    std::string before;
    Eventually([&] {
      usleep(300'000);
      // User and system time are the 14th and 15th word.
      std::ifstream stat("/proc/" + std::to_string(pid_) + "/stat");
      std::string word;
      std::string now;
      for (int i = 1; i <= 15 && stat >> word; ++i) now = i == 14 ? word : now + ' ' + word;
      Peak();
      return std::exchange(before, now) == now;
    });
  }

 private:
  [[nodiscard]] bool Awaits(short event) const {
    pollfd polled{.fd = line_.get(), .events = event, .revents = 0};
    return poll(&polled, 1, 250) == 1;
  }

  host::Descriptor line_;
  pid_t pid_ = -1;
  bool has_ended_ = false;
  size_t peak_ = 0;  // KiB
  std::vector<char> buffer_ = std::vector<char>(1 << 20);
};

std::string HelloBytes(host::Role role) {
  auto hello = cpd::test::HelloOf(role, UINT64_MAX);
  hello.largest = UINT32_MAX;
  // A new session each time: a serve ends an older one of its session, and tests run in parallel.
  std::random_device random;
  for (auto& byte : hello.session) byte = static_cast<uint8_t>(random());
  return BytesOf(hello);
}

std::string RequestBytes(cpd::test::Request request) {
  request.dev_id = 1;
  return request.Bytes();
}

// ---- The disk's side ----

struct Attack {
  const char* name;
  /// What is on the disk.
  std::function<void(const TempDir& disk)> prepare;
  std::vector<std::string> requests;
  /// The least that the process must be made to hold: with less, the test would show nothing.
  size_t least_peak;
};

std::string LongName(int number) {
  return std::to_string(100'000 + number) + std::string(244, 'n');
}

/// A listing has 373 bytes for each of these names.
void MakeNames(const std::string& directory, int count) {
  fs::create_directory(directory);
  WriteFile(directory + "/file", "");
  for (int i = 0; i < count; ++i) {
    ASSERT_EQ(mknod((directory + "/" + LongName(i)).c_str(), S_IFREG | 0644, 0), 0);
  }
}

std::vector<Attack> Attacks() {
  using namespace cpd::test;
  const auto list = RequestBytes(DirReadRequest{.path = "/names"});
  const auto read = RequestBytes(ReadRequest{.path = "/large", .size = host::kMostData});
  SmallReadRequest small_reads;
  for (int i = 0; i < 4; ++i) small_reads.records.push_back({.path = "/large", .size = 1 << 20});
  // A cached listing that differs, and nearly fills the longest request.
  std::string entry(sizeof(cpd::udisk_dir_entry), '\0');
  const uint16_t name_length = 251;
  entry.replace(offsetof(cpd::udisk_dir_entry, name_len), 2, BytesOf(name_length));
  entry += std::string(name_length - 1, 'x') + '\0';
  std::string cached;
  const uint16_t cached_count = 22'000;
  for (int i = 0; i < cached_count; ++i) cached += entry;
  const auto check = RequestBytes(
      CheckDirRequest{.path = "/names", .cached = cached, .cached_count = cached_count});
  const auto write =
      RequestBytes(WriteRequest{.path = "/written", .data = std::string((8 << 20) - 4096, 'w')});

  const auto make_large = [](const TempDir& disk) { WriteFile(disk / "large", Bytes(8 << 20)); };
  const auto make_names = [](int count) {
    return [count](const TempDir& disk) {
      WriteFile(disk / "large", Bytes(8 << 20));
      MakeNames(disk / "names", count);
    };
  };
  return {
      {"LargeReads", make_large, std::vector(30, read), 10 << 20},
      {"ManySmallFiles", make_large, std::vector(30, RequestBytes(small_reads)), 10 << 20},
      {"TheLongestListings", make_names(44'000), std::vector(10, list), 36 << 20},
      {"ListingsThatAreTooLong", make_names(60'000), std::vector(10, list), 26 << 20},
      {"ListingsOfAHugeDirectory", make_names(170'000), std::vector(10, list), 0},
      {"ACheckAndAWrite", make_names(44'000), {list, check, write}, 30 << 20},
      {"WritesAfterListings", make_names(44'000), {list, list, write, write}, 30 << 20},
      {"ListingsAmongReads",
       make_names(44'000),
       {read, list, read, read, list, list, write, write},
       26 << 20},
  };
}

class HostileAttach : public testing::TestWithParam<Attack> {};

TEST_P(HostileAttach, CannotMakeAServeNeed64MiB) {
  if (kIsSanitized) GTEST_SKIP() << "a sanitizer needs more memory than what it tests";
  if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 0);
  const TempDir place;
  const TempDir disk;
  GetParam().prepare(disk);
  Victim serve({"serve", disk.path(), "--log-level", "off"}, place / "log");
  serve.Send(HelloBytes(host::Role::kRemote));
  ASSERT_TRUE(serve.HasAnnounced());
  std::string requests;
  for (const auto& request : GetParam().requests) requests += request;
  EXPECT_EQ(serve.Send(requests), requests.size());
  EXPECT_TRUE(Eventually([&] { return serve.Peak() >= GetParam().least_peak; })) << serve.Peak();
  serve.Settle();
  EXPECT_LT(serve.Peak(), kMostMemory) << "nothing was read";
  for (int i = 0; i < 2; ++i) {
    serve.Drain();
    serve.Settle();
  }
  EXPECT_LT(serve.Peak(), kMostMemory) << "nothing was reported as taken";
  std::cout << serve.Peak() / 1024 << " KiB\n";
}

INSTANTIATE_TEST_SUITE_P(Asks, HostileAttach, testing::ValuesIn(Attacks()),
                         [](const auto& attack) { return std::string(attack.param.name); });

class LongListing : public MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 0);
    setenv("CPD_TEST_LINE", "exec", 1);
  }
  ~LongListing() override { unsetenv("CPD_TEST_LINE"); }

  /// Makes files with names of 44 bytes.
  static void MakeFiles(const std::string& directory, int count) {
    fs::create_directory(directory);
    for (int i = 0; i < count; ++i) {
      const auto name = std::to_string(100'000 + i) + std::string(38, 'n');
      ASSERT_EQ(mknod((directory + "/" + name).c_str(), S_IFREG | 0644, 0), 0);
    }
  }
};

TEST_F(LongListing, Has100000NamesOf44BytesOverALine) {
  MakeFiles(disk / "names", 100'000);
  const MountedDisk mounted(disk.path());
  const auto names = Shell("ls -U " + (mounted / "names") + " | wc -l");
  EXPECT_EQ(names.output, "100000\n");
}

TEST_F(LongListing, FailsWhenItIsTooLongForALineAndTheMountGoesOn) {
  MakeFiles(disk / "many", 102'000);
  MakeFiles(disk / "few", 3);
  const MountedDisk mounted(disk.path());
  const auto names = Shell("ls -U " + (mounted / "many"));
  EXPECT_NE(names.status, 0);
  EXPECT_NE(names.output.find("Input/output error"), std::string::npos) << names.output;
  EXPECT_EQ(Shell("ls -U " + (mounted / "few") + " | wc -l").output, "3\n");
}

// ---- The side that mounts ----

std::string PacketBytes(size_t length, uint16_t command) {
  return cpd::test::BytesOfPacket(*cpd::test::PacketOf(length, command));
}

struct Flood {
  const char* name;
  std::string bytes;
  int times;
};

std::vector<Flood> Floods() {
  const auto longest = PacketBytes(host::kLargestPacket, cpd::kFileRead);
  const auto impossible =
      cpd::test::Patched(PacketBytes(64, cpd::kFileRead), 8, uint32_t{0xfffffff0});
  const auto pong =
      cpd::test::ControlBytes(host::Control::kPong, 1, std::string(host::kLongestText, 't'));
  return {
      {"OfLargeReplies", longest, 10},
      {"OfSmallReplies", PacketBytes(64, cpd::kGetFileAttr), 200'000},
      {"OfAnnouncements", PacketBytes(60'000, cpd::kMountRemote), 1000},
      {"OfPings", cpd::test::ControlBytes(host::Control::kPing, 1), 200'000},
      {"OfTexts", pong, 10'000},
      {"WithoutAnEnd", longest.substr(0, longest.size() - 100), 1},
      {"ThatClaimsTooMuch", impossible, 1},
  };
}

class HostileServe : public testing::TestWithParam<Flood> {};

TEST_P(HostileServe, CannotMakeAnAttachNeed64MiB) {
  if (kIsSanitized) GTEST_SKIP() << "a sanitizer needs more memory than what it tests";
  if (!WhyNoFuse().empty()) GTEST_SKIP() << WhyNoFuse();
  const TempDir place;
  const auto mount_point = place / "mnt";
  fs::create_directory(mount_point);
  {
    Victim attach({"attach", mount_point, "--log-level", "off"}, place / "log");
    attach.Send(HelloBytes(host::Role::kDisk));
    const std::string name = "disk";
    const cpd::MountHead head{.name_length = static_cast<uint16_t>(name.size())};
    attach.Send(RequestBytes(
        {.cmd = cpd::kMountRemote, .payload = BytesOf(head) + name + std::string(2, '\0')}));
    ASSERT_TRUE(Eventually([&] { return IsMounted(mount_point); })) << ReadFile(place / "log");
    attach.Peak();
    for (int i = 0; i < GetParam().times; ++i) attach.Send(GetParam().bytes);
    attach.Settle();
    EXPECT_LT(attach.Peak(), kMostMemory);
    EXPECT_GT(attach.Peak(), 1U << 20) << "it was not measured";
    std::cout << attach.Peak() / 1024 << " KiB\n";
  }
  EXPECT_TRUE(Eventually([&] { return !IsMounted(mount_point); }));
}

INSTANTIATE_TEST_SUITE_P(Sends, HostileServe, testing::ValuesIn(Floods()),
                         [](const auto& flood) { return std::string(flood.param.name); });

}  // namespace
}  // namespace system_test
