// What the side with the disk notices of changes there, and what it tells of them.
#include "module/directory_watches.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <new>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "module/change_watch.h"
#include "remote/session.h"
#include "support/idle_driver.h"
#include "support/temp_disk.h"
#include "support/watchable_place.h"
#include "wire.h"

namespace cpd::host {

void PrintTo(const Notice& notice, std::ostream* out) {
  *out << static_cast<uint64_t>(notice.what) << ' ' << notice.path;
}

namespace {

namespace fs = std::filesystem;
using std::chrono_literals::operator""s;
using What = Notice::What;
using Notices = DirectoryWatches::Notices;
using test::TempDisk;

class Watches : public testing::Test {
 protected:
  Watches() {
    disk.MakeDir("/a/b");
    disk.MakeFile("/a/file", "content");
  }
  Notices Watch(const std::string& path) {
    Notices notices;
    watches.Watch(path, &notices);
    return notices;
  }
  bool IsWatched(const std::string& path) {
    const auto notices = Watch(path);
    return !notices.empty() && notices.back() == Notice{What::kWatched, path};
  }
  Notices Collect() {
    Notices notices;
    watches.Collect(&notices);
    return notices;
  }
  void Append(const std::string& path) const {
    std::ofstream(disk.Local(path), std::ios::app) << "more";
  }
  void Rename(const std::string& from, const std::string& to) const {
    fs::rename(disk.Local(from), disk.Local(to));
  }

  TempDisk disk{test::WatchablePlace()};
  DirectoryWatches watches{disk.root()};
};

TEST_F(Watches, TellOfWhateverChangesInADirectory) {
  ASSERT_TRUE(IsWatched("/a"));
  EXPECT_EQ(Collect(), Notices{});
  Append("/a/file");
  EXPECT_EQ(Collect(), (Notices{{What::kFile, "/a/file"}}));
  fs::permissions(disk.Local("/a/file"), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(Collect(), (Notices{{What::kFile, "/a/file"}}));
  fs::resize_file(disk.Local("/a/file"), 1);
  EXPECT_EQ(Collect(), (Notices{{What::kFile, "/a/file"}}));
  fs::create_directory(disk.Local("/a/new"));
  EXPECT_EQ(Collect(), (Notices{{What::kName, "/a/new"}}));
  Rename("/a/file", "/a/other");
  EXPECT_EQ(Collect(), (Notices{{What::kName, "/a/file"}, {What::kName, "/a/other"}}));
  disk.Remove("/a/other");
  EXPECT_EQ(Collect(), (Notices{{What::kName, "/a/other"}}));
  fs::permissions(disk.Local("/a"), fs::perms::owner_all);
  EXPECT_EQ(Collect(), (Notices{{What::kFile, "/a"}}));
}

TEST_F(Watches, TellOfManyChangesOfAFileOnce) {
  ASSERT_TRUE(IsWatched("/a"));
  for (int i = 0; i < 10; ++i) {
    Append("/a/file");
    fs::permissions(disk.Local("/a/file"), i % 2 == 0 ? fs::perms::all : fs::perms::owner_all);
  }
  EXPECT_EQ(Collect(), (Notices{{What::kFile, "/a/file"}}));
}

TEST_F(Watches, TellOfANameBeforeWhatHappenedToItsFile) {
  ASSERT_TRUE(IsWatched("/a"));
  Append("/a/new");
  Append("/a/file");
  EXPECT_EQ(Collect(),
            (Notices{{What::kName, "/a/new"}, {What::kFile, "/a/file"}, {What::kFile, "/a/new"}}));
}

TEST_F(Watches, TellOfWhatHappenedBeforeAWatchBeforeThatWatch) {
  ASSERT_TRUE(IsWatched("/a"));
  Append("/a/file");
  EXPECT_EQ(Watch("/a/b"), (Notices{{What::kFile, "/a/file"}, {What::kWatched, "/a/b"}}));
}

TEST_F(Watches, OfADirectoryTellNothingOfThoseBelowOrAbove) {
  ASSERT_TRUE(IsWatched("/a"));
  disk.MakeFile("/a/b/file", "");
  disk.MakeFile("/file", "");
  EXPECT_EQ(Collect(), Notices{});
}

TEST_F(Watches, TellThatADirectoryAboveHasMovedAndNothingOfItAnyMore) {
  ASSERT_TRUE(IsWatched("/a/b"));
  EXPECT_EQ(watches.size(), 3U);
  Rename("/a", "/c");
  disk.MakeFile("/c/b/file", "");
  const auto notices = Collect();
  EXPECT_NE(std::ranges::find(notices, Notice{What::kName, "/a"}), notices.end());
  EXPECT_EQ(std::ranges::find(notices, Notice{What::kName, "/a/b/file"}), notices.end());
  EXPECT_EQ(watches.size(), 1U);
  disk.MakeFile("/c/b/another", "");
  EXPECT_EQ(Collect(), Notices{});
}

TEST_F(Watches, AreOfTheDirectoryThatHasThePathNow) {
  ASSERT_TRUE(IsWatched("/a"));
  Rename("/a", "/old");
  disk.MakeDir("/a");
  ASSERT_TRUE(IsWatched("/a"));
  disk.MakeFile("/old/file", "");
  disk.MakeFile("/a/file", "");
  EXPECT_EQ(Collect(), (Notices{{What::kName, "/a/file"}}));
}

TEST_F(Watches, FollowADirectoryThatHasMovedAfterItsNewPathWasListed) {
  ASSERT_TRUE(IsWatched("/a"));
  Rename("/a", "/c");
  ASSERT_TRUE(IsWatched("/c"));
  disk.MakeFile("/c/new", "");
  const auto notices = Collect();
  EXPECT_NE(std::ranges::find(notices, Notice{What::kName, "/c/new"}), notices.end());
}

TEST_F(Watches, EndWithTheDirectory) {
  ASSERT_TRUE(IsWatched("/a/b"));
  disk.Remove("/a/b");
  EXPECT_EQ(Collect(), (Notices{{What::kName, "/a/b"}}));
  EXPECT_EQ(watches.size(), 2U);
  EXPECT_FALSE(IsWatched("/a/b"));
}

TEST_F(Watches, AreLimitedToTheLatest) {
  for (const char* path : {"/1", "/2", "/3"}) disk.MakeDir(path);
  DirectoryWatches few(disk.root(), 3);
  Notices notices;
  for (const char* path : {"/1", "/2", "/1", "/3"}) few.Watch(path, &notices);
  EXPECT_EQ(notices, (Notices{{What::kWatched, "/1"},
                              {What::kWatched, "/2"},
                              {What::kWatched, "/1"},
                              {What::kUnwatched, "/2"},
                              {What::kWatched, "/3"}}));
  notices.clear();
  disk.MakeFile("/1/file", "");
  disk.MakeFile("/2/file", "");
  few.Collect(&notices);
  EXPECT_EQ(notices, (Notices{{What::kName, "/1/file"}}));
}

TEST_F(Watches, AreNotSetOnADirectoryTooDeepForTheLimit) {
  DirectoryWatches few(disk.root(), 2);
  Notices notices;
  few.Watch("/a/b", &notices);
  EXPECT_EQ(notices, Notices{});
}

TEST_F(Watches, GiveUpWhenThereIsTooMuchToTell) {
  ASSERT_TRUE(IsWatched("/a"));
  for (size_t i = 0; i <= DirectoryWatches::kMostNotices; ++i) {
    disk.MakeFile("/a/" + std::to_string(i), "");
  }
  const auto notices = Collect();
  ASSERT_FALSE(notices.empty());
  EXPECT_EQ(notices.back(), Notice{What::kAll});
  EXPECT_EQ(watches.size(), 0U);
  EXPECT_EQ(Collect(), Notices{});
  EXPECT_TRUE(IsWatched("/a"));
}

TEST_F(Watches, GiveUpWhenTheKernelHasDroppedChanges) {
  size_t most = 0;
  std::ifstream("/proc/sys/fs/inotify/max_queued_events") >> most;
  if (most == 0 || most > 100'000) GTEST_SKIP() << "the kernel queues " << most << " changes";
  ASSERT_TRUE(IsWatched("/a"));
  for (size_t i = 0; i <= most; ++i) {  // the kernel merges equal changes only if they are adjacent
    ASSERT_EQ(chmod(disk.Local(i % 2 == 0 ? "/a/b" : "/a/file").c_str(), 0700), 0);
  }
  EXPECT_EQ(Collect().back(), Notice{What::kAll});
  EXPECT_EQ(watches.size(), 0U);
  EXPECT_TRUE(IsWatched("/a"));
}

TEST_F(Watches, LeaveNoDescriptorOpen) {
  const test::DescriptorCheck check;
  ASSERT_TRUE(IsWatched("/a/b"));
  ASSERT_FALSE(IsWatched("/a/file"));
  ASSERT_FALSE(IsWatched("/missing"));
  watches.Forget();
  ASSERT_TRUE(IsWatched("/a/b"));
}

TEST_F(Watches, AreNotSetThroughLinksNorOutsideTheDisk) {
  disk.MakeLink("/link", "a");
  disk.MakeLink("/out", "/");
  fs::create_directory(disk.letter() + "outside");
  for (const std::string path : {"/link", "/link/b", "/out", "/out/tmp", "/..", "/../outside",
                                 "/a/../a", "/a/", "//a", "/./a", "a", "", "/missing", "/a/file"}) {
    EXPECT_FALSE(IsWatched(path)) << path;
  }
  EXPECT_FALSE(IsWatched(std::string("/a\0b", 4)));
  EXPECT_FALSE(IsWatched('/' + std::string(DirectoryWatches::kLongestPath, 'x')));
  EXPECT_TRUE(IsWatched("/a"));
}

TEST_F(Watches, AreNotSetTooDeep) {
  std::string path;
  for (size_t i = 0; i < DirectoryWatches::kDeepest; ++i) path += "/d";
  disk.MakeDir(path + "/d");
  EXPECT_TRUE(IsWatched(path));
  EXPECT_FALSE(IsWatched(path + "/d"));
}

TEST_F(Watches, AreNotSetOnAFileSystemThatChangesByItself) {
  DirectoryWatches of_processes("/proc");
  Notices notices;
  of_processes.Watch("/", &notices);
  EXPECT_EQ(notices, Notices{});
}

TEST_F(Watches, DoNotKeepADiskFromBeingUnmountedAndTellOfIt) {
  if (mount("none", disk.Local("/a").c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "cannot mount: " << std::strerror(errno);
  }
  DirectoryWatches mounted(disk.Local("/a"));
  Notices notices;
  mounted.Watch("/", &notices);
  EXPECT_EQ(notices, (Notices{{What::kWatched, "/"}}));
  EXPECT_EQ(umount(disk.Local("/a").c_str()), 0) << std::strerror(errno);
  notices.clear();
  mounted.Collect(&notices);
  EXPECT_EQ(notices, (Notices{{What::kAll}}));
  EXPECT_EQ(mounted.size(), 0U);
}

TEST_F(Watches, AreNotSetOnWhatIsMountedBelow) {
  if (mount("none", disk.Local("/a/b").c_str(), "tmpfs", 0, "size=1m") != 0) {
    GTEST_SKIP() << "cannot mount: " << std::strerror(errno);
  }
  EXPECT_FALSE(IsWatched("/a/b"));
  EXPECT_EQ(umount(disk.Local("/a/b").c_str()), 0);
}

// ---- In order with a driver's answers ----

/// Keeps the requests until the test lets it answer them.
class Driver : public test::IdleDriver {
 public:
  int onEvent(std::unique_ptr<CpdPacket> packet, int /*flags*/) override {
    requests.push_back(std::move(packet));
    return 0;
  }
  std::vector<std::unique_ptr<CpdPacket>> requests;
};

class Telling : public testing::Test {
 protected:
  Telling() {
    disk.MakeDir("/a");
    changes.Start([this](const Notice& notice) {
      const std::lock_guard lock(mutex);
      if (fails) throw std::bad_alloc();
      if (!has_room && notice.what != What::kAll) return false;
      told.push_back(notice);
      came.notify_all();
      return true;
    });
  }
  ~Telling() override { changes.Stop(); }

  static std::unique_ptr<CpdPacket> Request(uint16_t command, const std::string& path,
                                            const std::string& rest = {}) {
    DirHead head{};
    head.buf_len = static_cast<uint32_t>(rest.size());
    head.path_length = static_cast<uint16_t>(path.size());
    const auto payload = path + rest;
    auto packet =
        std::make_unique<CpdPacket>(CPD_PACKET_HEADER_SIZE + sizeof head + payload.size());
    packet->InitHeader(1, command, 7);
    packet->AppendPayload(&head, sizeof head);
    packet->AppendPayload(payload.data(), static_cast<uint32_t>(payload.size()));
    return packet;
  }
  void Send(std::unique_ptr<CpdPacket> request) {
    changes.Precede(*request, driver);
    driver.onEvent(std::move(request), 0);
  }
  /// Answers the oldest request. @return whether the answer is to be passed on
  bool Answer() {
    const auto request = std::move(driver.requests.front());
    driver.requests.erase(driver.requests.begin());
    return changes.NoteReply(*request);
  }
  Notices Told() {
    const std::lock_guard lock(mutex);
    return std::exchange(told, {});
  }

  TempDisk disk{test::WatchablePlace()};
  Driver driver;
  std::mutex mutex;
  std::condition_variable came;
  Notices told;
  bool has_room = true;
  bool fails = false;
  ChangeWatch changes{disk.root()};
};

TEST_F(Telling, BeginsBeforeADirectoryIsListedOrChecked) {
  for (const auto command : {kDirRead, kCheckDir}) {
    Send(Request(command, "/a", command == kCheckDir ? "entries" : ""));
    ASSERT_EQ(driver.requests.size(), 2U);
    EXPECT_EQ(Told(), Notices{});
    EXPECT_FALSE(Answer());
    EXPECT_EQ(Told(), (Notices{{What::kWatched, "/a"}}));
    EXPECT_TRUE(Answer());
  }
}

TEST_F(Telling, LeavesOtherRequestsAlone) {
  Send(Request(kGetFileAttr, "/a"));
  Send(Request(kGetXattr, "/a"));
  EXPECT_EQ(driver.requests.size(), 2U);
  EXPECT_TRUE(Answer());
  EXPECT_TRUE(Answer());
}

TEST_F(Telling, ComesBeforeTheNextAnswer) {
  Send(Request(kDirRead, "/a"));
  Answer();
  Answer();
  Told();
  Send(Request(kGetFileAttr, "/a/file"));
  disk.MakeFile("/a/file", "");
  Answer();
  const auto notices = Told();
  EXPECT_NE(std::ranges::find(notices, Notice{What::kName, "/a/file"}), notices.end());
}

TEST_F(Telling, NeedsNoAnswer) {
  Send(Request(kDirRead, "/a"));
  Answer();
  Answer();
  disk.MakeFile("/a/file", "");
  std::unique_lock lock(mutex);
  EXPECT_TRUE(came.wait_for(lock, 30s, [this] {
    return std::ranges::find(told, Notice{What::kName, "/a/file"}) != told.end();
  }));
}

TEST_F(Telling, IsOfNothingAnyMoreWhenThereWasNoRoomForANotice) {
  Send(Request(kDirRead, "/a"));
  Answer();
  Told();
  {
    const std::lock_guard lock(mutex);
    has_room = false;
  }
  disk.MakeFile("/a/file", "");
  Answer();
  {
    // The watch's own thread may have been faster.
    std::unique_lock lock(mutex);
    EXPECT_TRUE(came.wait_for(lock, 30s, [this] { return !told.empty(); }));
    has_room = true;
  }
  EXPECT_EQ(Told(), (Notices{{What::kAll}}));
  disk.MakeFile("/a/another", "");
  EXPECT_TRUE(changes.NoteReply(*Request(kGetFileAttr, "/a")));
  EXPECT_EQ(Told(), Notices{});
}

TEST_F(Telling, HoldsAnswersBackUntilItIsSaidThatAChangeWasNotTold) {
  Send(Request(kDirRead, "/a"));
  Answer();
  Told();
  const auto set_fails = [this](bool value) {
    const std::lock_guard lock(mutex);
    fails = value;
  };
  set_fails(true);
  disk.MakeFile("/a/file", "");
  for (int i = 0; i < 2; ++i) {
    EXPECT_THROW((void)changes.NoteReply(*Request(kGetFileAttr, "/a")), std::bad_alloc) << i;
  }
  set_fails(false);
  disk.MakeFile("/a/another", "");
  EXPECT_TRUE(changes.NoteReply(*Request(kGetFileAttr, "/a")));
  EXPECT_EQ(Told(), (Notices{{What::kAll}}));
  Send(Request(kDirRead, "/a"));
  while (!driver.requests.empty()) Answer();
  EXPECT_EQ(Told(), (Notices{{What::kWatched, "/a"}}));
}

TEST_F(Telling, IsOfFewDirectoriesWhenManyListingsAreDue) {
  constexpr size_t kRequests = 2 * ChangeWatch::kMostListed;
  for (size_t i = 0; i < kRequests; ++i) Send(Request(kDirRead, "/a"));
  EXPECT_EQ(driver.requests.size(), kRequests + ChangeWatch::kMostListed);
  size_t passed_on = 0;
  while (!driver.requests.empty()) passed_on += Answer() ? 1 : 0;
  EXPECT_EQ(passed_on, kRequests);
  EXPECT_EQ(Told().size(), ChangeWatch::kMostListed);
  Send(Request(kDirRead, "/a"));
  EXPECT_EQ(driver.requests.size(), 2U);
}

TEST_F(Telling, IsNotOfPathsThatAreTooLong) {
  Send(Request(kDirRead, '/' + std::string(DirectoryWatches::kLongestPath, 'a')));
  EXPECT_EQ(driver.requests.size(), 1U);
}

// Requests of the other side may have the probes' id.
TEST_F(Telling, AnswersEveryRequestEvenIfOneLooksLikeAProbe) {
  Send(Request(kDirRead, "/a"));
  const uint32_t id = driver.requests.front()->header->requestId;
  while (!driver.requests.empty()) Answer();
  Send(Session::Probe(id));
  EXPECT_TRUE(Answer());
  Send(Session::Probe(id));
  Send(Request(kDirRead, "/a"));
  Send(Session::Probe(id));
  Told();
  std::vector<bool> passed_on;
  while (!driver.requests.empty()) passed_on.push_back(Answer());
  EXPECT_EQ(passed_on, (std::vector<bool>{false, true, true, true}));
  EXPECT_EQ(Told(), (Notices{{What::kWatched, "/a"}}));
}

TEST_F(Telling, EndsWhenItIsStopped) {
  Send(Request(kDirRead, "/a"));
  changes.Stop();
  EXPECT_TRUE(changes.NoteReply(*Session::Probe(1)));
  driver.requests.clear();
  Send(Request(kDirRead, "/a"));
  EXPECT_EQ(driver.requests.size(), 1U);
  EXPECT_EQ(Told(), Notices{});
}

TEST_F(Telling, TakesRequestsThatAreCutForThoseOfNoDirectory) {
  const auto whole = Request(kDirRead, "/a");
  for (size_t size = CPD_PACKET_HEADER_SIZE; size < whole->buffer->capacity; ++size) {
    auto cut = std::make_unique<CpdPacket>(size);
    std::memcpy(cut->buffer->data, whole->buffer->data, size);
    Send(std::move(cut));
    while (!driver.requests.empty()) Answer();
    for (const auto& notice : Told()) EXPECT_EQ(notice.path, "/");
  }
}

}  // namespace
}  // namespace cpd::host
