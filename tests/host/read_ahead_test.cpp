// How the remote side's accelerators handle a driver's replies, well-formed or not.
#include <gtest/gtest.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cpd/packet.h"
#include "mount/listing_cache.h"
#include "mount/prefetch.h"
#include "mount/reading_run.h"
#include "mount/walk_ahead.h"
#include "remote/notice.h"
#include "remote/remote_files.h"
#include "remote/session.h"
#include "remote/statistics.h"
#include "support/idle_driver.h"
#include "wire.h"

namespace cpd::host {
namespace {

using std::chrono_literals::operator""h;
using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;

constexpr size_t kMemory = 32 << 20;  // of each cache

/// The bytes of a record.
template <class Record>
std::string Raw(const Record& record) {
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

udisk_stat Attributes(uint32_t mode, int64_t size, int64_t seconds = 1000) {
  udisk_stat attributes{};
  attributes.st_ino = S_ISDIR(mode) ? 7 : 8;
  attributes.st_nlink = 1;
  attributes.st_mode = mode;
  attributes.st_size = size;
  attributes.st_mtim.tv_sec = seconds;
  return attributes;
}

std::string Entry(const std::string& name, const udisk_stat& attributes) {
  return Raw(udisk_dir_entry{.attributes = attributes,
                             .name_len = static_cast<uint16_t>(name.size() + 1)}) +
         name + '\0';
}

std::string ListingReply(uint16_t count, const std::string& entries, const std::string& path) {
  return Raw(DirHead{.echoed = {},
                     .buf_len = static_cast<uint32_t>(entries.size()),
                     .path_length = static_cast<uint16_t>(path.size()),
                     .entry_count = count}) +
         path + entries;
}

/// Replies to each request with the payload that the test gives; without one, sends no reply.
class FakeDriver : public test::IdleDriver {
 public:
  using Answer = std::function<std::optional<std::string>(uint16_t command, std::string payload)>;

  FakeDriver(Session& session, Answer answer) : session_(session), answer_(std::move(answer)) {}

  /// Called on the session's own thread, too: it sends a probe when a reply takes long.
  int onEvent(std::unique_ptr<CpdPacket> packet, int /*flags*/) override {
    const std::lock_guard lock(mutex_);
    requests_.push_back(std::move(packet));
    return 0;
  }
  /// How many requests wait for a reply.
  [[nodiscard]] size_t requests() const {
    const std::lock_guard lock(mutex_);
    return requests_.size();
  }
  /// Replies to the requests so far.
  void Work() {
    for (const auto& request : TakeRequests()) {
      const CpdPacketHeader header = *request->header;
      const std::string bytes(reinterpret_cast<const char*>(request->buffer->data),
                              header.packetLen);
      const auto payload = answer_(header.cmd, bytes.substr(CPD_PACKET_HEADER_SIZE));
      if (!payload) continue;
      auto reply = std::make_unique<CpdPacket>(CPD_PACKET_HEADER_SIZE + payload->size());
      reply->InitHeader(header.devId, header.cmd, header.requestId);
      reply->AppendPayload(payload->data(), static_cast<uint32_t>(payload->size()));
      session_.Receive(std::move(reply));
    }
  }
  /// Never replies to the requests so far.
  void LoseRequests() { (void)TakeRequests(); }

 private:
  using Requests = std::vector<std::unique_ptr<CpdPacket>>;

  Requests TakeRequests() {
    const std::lock_guard lock(mutex_);
    return std::exchange(requests_, {});
  }

  Session& session_;
  Answer answer_;
  mutable std::mutex mutex_;
  Requests requests_;
};

class ReadAhead : public testing::Test {
 protected:
  ~ReadAhead() override { session_.Stop(); }

  void Answer(FakeDriver::Answer answer) {
    driver_ = std::make_unique<FakeDriver>(session_, std::move(answer));
    channel_.emplace(*driver_);
    session_.Start(&*channel_);
  }
  /// Replies until there are no more requests.
  void Work() {
    while (driver_->requests() > 0) driver_->Work();
  }
  int Asked(uint16_t command) const {
    const auto statistics = session_.statistics();
    const auto row = statistics.find(command);
    return row == statistics.end() ? 0 : static_cast<int>(row->second.requests);
  }

  Session session_{30s};
  std::unique_ptr<FakeDriver> driver_;
  std::optional<DriverChannel> channel_;
  RemoteFiles files_{session_};
};

// ---- Decoding ----

class SmallFiles : public ReadAhead {
 protected:
  static std::string Record(const std::string& path, const std::string& data) {
    ReadHead head{};
    head.size = static_cast<uint32_t>(data.size());
    head.path_length = static_cast<uint32_t>(path.size());
    return Raw(head) + path + data;
  }
  /// Asks for 4 bytes of /a and 3 of /b.
  Result<SmallFilesData> Ask(std::optional<std::string> reply) {
    Answer([&](uint16_t command, const std::string&) -> std::optional<std::string> {
      if (command == kSmallFileRead) return reply;
      return Raw(XattrHead{});
    });
    std::optional<Result<SmallFilesData>> result;
    files_.ReadSmallFiles({{"/a", 4}, {"/b", 3}}, [&](auto answer) { result = std::move(answer); });
    Work();
    if (!result) session_.Stop();
    return std::move(*result);
  }
  const std::string well_formed =
      Raw(SmallReadHead{2}) + Record("/a", "data") + Record("/b", "two");
};

TEST_F(SmallFiles, ComeInTheOrderOfTheRequest) {
  const auto result = Ask(well_formed);
  ASSERT_EQ(result.error, 0);
  EXPECT_EQ(result.value.bytes, (std::vector<std::string_view>{"data", "two"}));
}

TEST_F(SmallFiles, ThatCannotBeReadHaveNoBytes) {
  const auto result = Ask(Raw(SmallReadHead{2}) + Record("/a", "") + Record("/b", "two"));
  ASSERT_EQ(result.error, 0);
  EXPECT_EQ(result.value.bytes, (std::vector<std::string_view>{"", "two"}));
}

TEST_F(SmallFiles, AreRefusedFromAReplyCutAtAnyByte) {
  for (size_t size = 0; size < well_formed.size(); ++size) {
    EXPECT_EQ(Ask(well_formed.substr(0, size)).error, EIO) << size;
  }
}

TEST_F(SmallFiles, EndWithAnErrorWithoutAReply) { EXPECT_EQ(Ask(std::nullopt).error, EIO); }

TEST_F(SmallFiles, AreRefusedFromAReplyToAnotherRequest) {
  const auto b = Record("/b", "two");
  ReadHead elsewhere{};
  elsewhere.offset = 1;
  elsewhere.path_length = 2;
  ReadHead endless{};
  endless.size = 4;
  endless.path_length = 0xFFFFFFFF;
  const std::vector<std::string> answers = {
      Raw(SmallReadHead{1}) + Record("/a", "data"),
      Raw(SmallReadHead{3}) + Record("/a", "data") + b + b,
      Raw(SmallReadHead{2}) + b + Record("/a", "data"),
      Raw(SmallReadHead{2}) + Record("/c", "data") + b,
      Raw(SmallReadHead{2}) + Record("/a", "5data") + b,
      Raw(SmallReadHead{2}) + Raw(elsewhere) + "/a" + b,
      Raw(SmallReadHead{2}) + Raw(endless) + "/adata" + b,
  };
  for (size_t i = 0; i < answers.size(); ++i) EXPECT_EQ(Ask(answers[i]).error, EIO) << i;
}

class Listings : public ReadAhead {
 protected:
  Listings() {
    Answer([this](uint16_t command, const std::string& payload) -> std::optional<std::string> {
      if (command == kDirRead) return ListingReply(count_, entries_, path_);
      if (command == kCheckDir) return check_;
      if (command != kGetFileAttr) return Raw(XattrHead{});
      return Raw(FileAttrHead{.path_length = static_cast<uint16_t>(path_.size()),
                              .attr_length = sizeof(udisk_stat)}) +
             payload.substr(sizeof(FileAttrHead)) + Raw(directory_);
    });
  }
  Result<SharedListing> List() {
    std::optional<Result<SharedListing>> result;
    cache_.List(path_, [&](auto listing) { result = std::move(listing); });
    Work();
    return result.value_or(Result<SharedListing>{.error = -1});
  }

  std::string path_ = "/d";
  udisk_stat directory_ = Attributes(S_IFDIR | 0755, 100);
  std::string entries_ =
      Entry(".", directory_) + Entry("file", Attributes(S_IFREG | 0644, 4)) + '\0';
  uint16_t count_ = 2;
  std::optional<std::string> check_;  // the reply to a check
  ListingCache cache_{files_, true, kMemory};
};

TEST_F(Listings, AreCheckedWhenAskedForAgain) {
  const auto first = List();
  ASSERT_EQ(first.error, 0);
  EXPECT_EQ(List().value, first.value);
  EXPECT_EQ(Asked(kDirRead), 1);
  EXPECT_EQ(Asked(kCheckDir), 1);
}

TEST_F(Listings, ThatDifferReplaceTheOldOnes) {
  List();
  check_ = ListingReply(1, Entry("other", Attributes(S_IFREG, 1)) + '\0', "/d");
  const auto changed = List();
  ASSERT_EQ(changed.error, 0);
  ASSERT_EQ(changed.value->entries.size(), 1U);
  EXPECT_EQ(changed.value->entries[0].name, "other");
  EXPECT_EQ(Asked(kDirRead), 1);
}

TEST_F(Listings, AreFetchedAgainWhenTheDirectoryWasTouched) {
  List();
  directory_.st_mtim.tv_nsec = 1;
  EXPECT_EQ(List().error, 0);
  EXPECT_EQ(Asked(kDirRead), 2);
}

TEST_F(Listings, AreNotCachedWhenAChangeOvertookThem) {
  std::optional<Result<SharedListing>> result;
  cache_.List("/d", [&](auto listing) { result = std::move(listing); });
  cache_.NoteChange("/d/file", RemoteFiles::ChangeOf::kName);
  Work();
  ASSERT_TRUE(result && result->error == 0);
  List();
  EXPECT_EQ(Asked(kDirRead), 2);
  EXPECT_EQ(Asked(kCheckDir), 0);
}

TEST_F(Listings, AreFetchedAgainWhenAChangeOvertookTheirCheck) {
  List();
  std::optional<Result<SharedListing>> result;
  cache_.List("/d", [&](auto listing) { result = std::move(listing); });
  cache_.NoteChange("/d/file", RemoteFiles::ChangeOf::kName);
  Work();
  ASSERT_TRUE(result && result->error == 0);
  EXPECT_EQ(Asked(kDirRead), 2);
}

TEST_F(Listings, AreForgottenAfterAChangeInsideAboveOrBelow) {
  for (const char* changed : {"/d", "/d/file", "/d/sub/file", "/"}) {
    List();
    const int asked = Asked(kDirRead);
    cache_.NoteChange(changed, RemoteFiles::ChangeOf::kName);
    List();
    EXPECT_EQ(Asked(kDirRead), asked + 1) << changed;
  }
  const int asked = Asked(kDirRead);
  cache_.NoteChange("/d-other/file", RemoteFiles::ChangeOf::kName);
  List();
  EXPECT_EQ(Asked(kDirRead), asked);
}

TEST_F(Listings, AreNotCachedWhenTheirCountIsWrong) {
  count_ = 1;
  List();
  List();
  EXPECT_EQ(Asked(kCheckDir), 0);
}

TEST_F(Listings, AreRefusedWhenANameInThemCannotBeAFiles) {
  const auto file = Attributes(S_IFREG | 0644, 4);
  for (const auto& name :
       {std::string("../file"), std::string("/"), std::string(), std::string("two\0names", 9)}) {
    entries_ = Entry(".", directory_) + Entry(name, file) + '\0';
    EXPECT_EQ(List().error, EIO) << name;
  }
  entries_ = Entry(".", directory_) + Entry("cut", file).substr(0, sizeof(udisk_dir_entry) + 2);
  EXPECT_EQ(List().error, EIO);
}

TEST_F(Listings, EndWithAnErrorWhenTheReplyToACheckIsCut) {
  const auto good = ListingReply(2, entries_, "/d");
  for (size_t size = 0; size < good.size(); size += 7) {
    ASSERT_EQ((check_ = std::nullopt, List().error), 0);
    check_ = good.substr(0, size);
    EXPECT_EQ(List().error, EIO) << size;
  }
}

TEST_F(Listings, HaveNoAttributesWhereTheyRepeatTheEntryBefore) {
  const auto early = Attributes(S_IFREG | 0644, 4);
  auto other = early;
  other.st_ino = 9;
  auto elsewhere = early;
  elsewhere.st_dev = 1;  // the same number on another device
  entries_ = Entry("zeros", {}) + Entry(".", directory_) + Entry("early", early) +
             Entry("lost", early) + Entry("lost too", early) + Entry("other", other) +
             Entry("early again", early) + Entry("elsewhere", elsewhere) + '\0';
  count_ = 8;
  const auto listing = List().value;
  std::string without;
  for (const auto& entry : listing->entries) {
    if (!entry.HasAttributes()) without.append(entry.name).append(",");
  }
  EXPECT_EQ(without, "zeros,lost,lost too,");
}

TEST_F(Listings, AreNotCachedWhenAnEntryHasNoAttributes) {
  const auto file = Attributes(S_IFREG | 0644, 4);
  count_ = 3;
  for (const auto& doubtful :
       {Entry("lost", {}) + Entry(".", directory_) + Entry("file", file),
        Entry(".", directory_) + Entry("file", file) + Entry("lost", file)}) {
    entries_ = doubtful + '\0';
    ASSERT_EQ(List().value->entries.size(), 3U);
    ASSERT_EQ(List().value->entries.size(), 3U);
  }
  EXPECT_EQ(Asked(kDirRead), 4);
  EXPECT_EQ(Asked(kCheckDir), 0);
}

TEST_F(Listings, ShowTheRootAsItsOwnParent) {
  path_ = "/";
  const auto file = Attributes(S_IFREG | 0644, 4);
  entries_ = Entry(".", directory_) + Entry("file", file) + Entry("..", file) + '\0';
  count_ = 3;
  const auto listing = List().value;
  EXPECT_EQ(Raw(listing->entries[2].attributes), Raw(directory_));
  EXPECT_EQ(List().value, listing);
  EXPECT_EQ(Asked(kCheckDir), 1);
}

TEST_F(Listings, AreForgottenFromTheOldestOnWhenTheirMemoryIsUsedUp) {
  const size_t memory = List().value->memory();
  ListingCache small(files_, true, 3 * memory);
  const auto list = [&](int directory) {
    path_ = "/" + std::to_string(directory);
    const int asked = Asked(kDirRead);
    small.List(path_, [](const auto&) {});
    Work();
    return Asked(kDirRead) != asked;
  };
  for (int i = 0; i < 5; ++i) EXPECT_TRUE(list(i));
  for (int i = 4; i >= 2; --i) EXPECT_FALSE(list(i)) << i;
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(list(i)) << i;
}

TEST_F(Listings, AreNotKeptIfOneOfThemIsTooLargeForTheirMemory) {
  const size_t memory = List().value->memory();
  ListingCache small(files_, true, memory - 1);
  for (int i = 0; i < 3; ++i) {
    small.List("/d", [](const auto&) {});
    Work();
  }
  EXPECT_EQ(Asked(kCheckDir), 0);
}

// ---- Directories listed ahead ----

class Walks : public ReadAhead {
 protected:
  Walks() {
    for (int i = 0; i < 20; ++i) names_.push_back("/tree/" + std::to_string(100 + i));
    Answer([this](uint16_t command, const std::string& payload) -> std::optional<std::string> {
      if (command != kDirRead) return Raw(XattrHead{});
      DirHead head{};
      std::memcpy(&head, payload.data(), sizeof head);
      const auto path = payload.substr(sizeof head, head.path_length);
      asked_.push_back(path);
      const bool is_tree = path == "/tree";
      auto attributes = Attributes(S_IFDIR | 0755, 100);
      auto entries = Entry(".", attributes);
      for (const auto& name : names_) {
        ++attributes.st_ino;
        if (is_tree) entries += Entry(name.substr(6), attributes);
      }
      return ListingReply(is_tree ? 1 + names_.size() : 1, entries + '\0', path);
    });
  }
  ~Walks() override { session_.Stop(); }

  /// Replies as a driver that is far away would.
  void WorkFarAway() {
    while (driver_->requests() > 0) {
      std::this_thread::sleep_for(2ms);
      driver_->Work();
    }
  }
  void List(const std::string& path) {
    walk_.List(path, changes_, [this](const auto& result) {
      EXPECT_EQ(result.error, 0);
      ++shown_;
    });
  }
  void ListTree() {
    files_.GetAttributes("/", [](const auto&) {});  // shows how far away the driver is
    WorkFarAway();
    List("/tree");
    WorkFarAway();
    asked_.clear();
    shown_ = 0;
  }

  std::vector<std::string> names_;
  std::vector<std::string> asked_;  // paths
  int shown_ = 0;
  uint64_t changes_ = 0;
  ListingCache cache_{files_, false, kMemory};
  WalkAhead walk_{files_, cache_, true, kMemory};
};

TEST_F(Walks, AskForTheNextDirectoriesAfterTheOneThatAProgramLists) {
  ListTree();
  List(names_[0]);
  EXPECT_EQ(driver_->requests(), 1 + WalkAhead::kFirstReach);
  WorkFarAway();
  EXPECT_EQ(asked_, std::vector<std::string>(names_.begin(), names_.begin() + 5));
  EXPECT_EQ(shown_, 1);
  List(names_[1]);
  EXPECT_EQ(shown_, 2);  // without a reply
  EXPECT_EQ(files_.savings().listings_ahead_used, 1U);
}

TEST_F(Walks, ListEachDirectoryOnce) {
  ListTree();
  for (const auto& name : names_) {
    List(name);
    WorkFarAway();
  }
  EXPECT_EQ(shown_, 20);
  EXPECT_EQ(asked_, names_);
  EXPECT_EQ(files_.savings().listings_ahead, 19U);
  EXPECT_EQ(files_.savings().listings_ahead_used, 19U);
}

TEST_F(Walks, ReachFurtherWhileListingsComeJustInTime) {
  ListTree();
  List(names_[0]);
  WorkFarAway();
  List(names_[1]);
  EXPECT_EQ(driver_->requests(), 1 + WalkAhead::kFirstReach);
  WorkFarAway();
}

TEST_F(Walks, KeepNoMoreListingsThanTheirMemoryAllows) {
  names_.resize(8);
  ListTree();
  size_t memory = 0;
  walk_.List(names_[7], changes_,
             [&](const auto& result) { memory = result.value.listing->memory(); });
  WorkFarAway();
  const size_t names = names_.size() * (sizeof(std::string) + names_[0].capacity());
  WalkAhead small(files_, cache_, true, names + 2 * memory);
  int shown = 0;
  const auto list = [&](const std::string& path) {
    small.List(path, changes_, [&](const auto&) { ++shown; });
  };
  list("/tree");
  WorkFarAway();
  list(names_[0]);
  WorkFarAway();
  EXPECT_EQ(shown, 2);
  for (size_t i = 1; i <= 4; ++i) list(names_[i]);
  EXPECT_EQ(shown, 2 + 2);  // without a reply
  WorkFarAway();
  EXPECT_EQ(shown, 2 + 4);
}

TEST_F(Walks, GoOnAfterAListingThatTheMemoryDoesNotAllow) {
  names_.resize(2);
  ListTree();
  size_t memory = 0;
  walk_.List(names_[1], changes_,
             [&](const auto& result) { memory = result.value.listing->memory(); });
  WorkFarAway();
  WalkAhead small(files_, cache_, true, memory - 1);
  const auto list = [&](const std::string& path) {
    small.List(path, changes_, [](const auto&) {});
    WorkFarAway();
  };
  for (uint64_t round = 1; round <= 3; ++round) {
    list("/tree");
    list(names_[0]);
    EXPECT_EQ(files_.savings().listings_ahead, round);
    list(names_[1]);  // asked for again
  }
}

TEST_F(Walks, AreNotFollowedIfTheirNamesNeedMoreThanTheirMemory) {
  ListTree();
  WalkAhead small(files_, cache_, true, 2 * names_.size() * sizeof(std::string));
  for (const auto& path : {std::string("/tree"), names_[0]}) {
    small.List(path, changes_, [](const auto&) {});
    WorkFarAway();
  }
  EXPECT_EQ(asked_, (std::vector<std::string>{"/tree", names_[0]}));
}

TEST_F(Walks, WaitForAListingThatIsOnItsWay) {
  ListTree();
  List(names_[0]);
  List(names_[1]);
  EXPECT_EQ(shown_, 0);
  WorkFarAway();
  EXPECT_EQ(shown_, 2);
  EXPECT_EQ(std::ranges::count(asked_, names_[1]), 1);
}

TEST_F(Walks, DoNotShowWhatIsOlderThanAChange) {
  ListTree();
  List(names_[0]);
  WorkFarAway();
  ++changes_;
  List(names_[1]);
  EXPECT_EQ(shown_, 1);
  WorkFarAway();
  EXPECT_EQ(shown_, 2);
  EXPECT_EQ(std::ranges::count(asked_, names_[1]), 2);
  EXPECT_EQ(files_.savings().listings_ahead_used, 0U);
}

TEST_F(Walks, DoNotShowWhatIsOlderThanASecond) {
  ListTree();
  List(names_[0]);
  WorkFarAway();
  std::this_thread::sleep_for(WalkAhead::kTrusted);
  List(names_[1]);
  EXPECT_EQ(shown_, 1);
  WorkFarAway();
  EXPECT_EQ(shown_, 2);
  EXPECT_EQ(files_.savings().listings_ahead_used, 0U);
  EXPECT_EQ(files_.savings().listings_ahead_unused, WalkAhead::kFirstReach);
}

TEST_F(Walks, AskANearbyDiskForNothingMore) {
  List("/tree");
  Work();
  List(names_[0]);
  EXPECT_EQ(driver_->requests(), 1U);
  Work();
}

TEST_F(Walks, FollowTheOrderOfTheNamesAsWell) {
  std::ranges::reverse(names_);
  ListTree();
  std::ranges::reverse(names_);
  for (const auto& name : names_) {
    List(name);
    WorkFarAway();
  }
  EXPECT_EQ(shown_, 20);
  EXPECT_EQ(asked_, names_);
  EXPECT_EQ(files_.savings().listings_ahead_used, 19U);
}

TEST_F(Walks, KeepTheirOrderWhenAnotherProgramListsADirectoryInBetween) {
  std::ranges::reverse(names_);
  names_.push_back("/tree/000");
  ListTree();
  List(names_[0]);
  WorkFarAway();
  List("/tree/000");
  WorkFarAway();
  for (size_t i = 1; i < 20; ++i) {
    List(names_[i]);
    WorkFarAway();
  }
  EXPECT_EQ(shown_, 21);
  EXPECT_EQ(files_.savings().listings_ahead_used, 19U);
}

TEST_F(Walks, GoOnInOrderFromWhereAProgramBegins) {
  ListTree();
  List(names_[17]);
  List(names_[18]);
  EXPECT_EQ(driver_->requests(), 3U) << "names_[19] is not listed ahead";
  WorkFarAway();
  List(names_[19]);
  EXPECT_EQ(shown_, 3);
}

TEST_F(Walks, AskForNothingMoreInAnotherOrder) {
  ListTree();
  List(names_[18]);
  EXPECT_EQ(driver_->requests(), 1U);
  WorkFarAway();
}

// ---- Names that listings answer ----

/// A disk with the directory /d.
class KnownNames : public ReadAhead {
 protected:
  using ChangeOf = RemoteFiles::ChangeOf;
  /// What a question was answered with; `is_known` if without a request for it.
  struct Shown {
    int error = -1;
    int64_t size = -1;
    bool is_known = false;
  };

  void SetUp() override {
    for (const char* name : {"a", "b", "c", "d", "e"}) Make(name, 5);
    Answer([this](uint16_t command, std::string payload) -> std::optional<std::string> {
      if (command == kDirRead) {
        std::string entries = Entry(".", directory_);
        for (const auto& [name, attributes] : files_on_disk_) entries += Entry(name, attributes);
        return ListingReply(static_cast<uint16_t>(files_on_disk_.size() + 1), entries + '\0',
                            "/d") +
               std::string(surplus_, 's');
      }
      if (command == kCheckDir) return std::nullopt;  // it is unchanged
      FileAttrHead head{};
      std::memcpy(&head, payload.data(), sizeof head);
      const auto path = payload.substr(sizeof head, head.path_length);
      const auto* const found = Find(path);
      head.attr_length = found == nullptr ? 0 : sizeof *found;
      if (found == nullptr) return Raw(head) + path;
      auto attributes = *found;
      if (numbers_paths_ && !files_on_disk_.contains(path.substr(3))) attributes.st_ino += 1000;
      return Raw(head) + path + Raw(attributes);
    });
  }
  void Make(const std::string& name, int64_t size) {
    auto attributes = Attributes(S_IFREG | 0644, size);
    attributes.st_ino = ++last_inode_;
    files_on_disk_[name] = attributes;
  }
  static udisk_stat NewDirectory() {
    auto attributes = Attributes(S_IFDIR | 0755, 40);
    attributes.st_nlink = 2;
    attributes.st_atim = attributes.st_ctim = attributes.st_mtim;
    return attributes;
  }
  void List() {
    cache_.List("/d", [](const auto&) {});
    Work();
  }
  void Ask(const std::string& path, Shown* shown, const ListingCache::Asked& how = {}) {
    cache_.GetAttributes(path, how, [shown](const auto& result, const auto& asked) {
      *shown = {.error = result.error, .size = result.value.st_size, .is_known = asked.has_value()};
    });
  }
  /// Asks, and counts the requests that this takes.
  Shown Ask(const std::string& path, int* requests) {
    const int before = Asked(kGetFileAttr) + Asked(kDirRead);
    Shown shown;
    Ask(path, &shown);
    Work();
    *requests = Asked(kGetFileAttr) + Asked(kDirRead) - before;
    return shown;
  }
  void ExpectKnown(const std::string& path, int error, int64_t size = 0) {
    int requests = 0;
    const auto shown = Ask(path, &requests);
    EXPECT_EQ(shown.error, error) << path;
    EXPECT_EQ(shown.size, size) << path;
    EXPECT_TRUE(shown.is_known) << path;
    EXPECT_EQ(requests, 0) << path;
  }
  void ExpectAskedFor(const std::string& path, int error, int64_t size = 0) {
    int requests = 0;
    const auto shown = Ask(path, &requests);
    EXPECT_EQ(shown.error, error) << path;
    EXPECT_EQ(shown.size, size) << path;
    EXPECT_EQ(requests, 1) << path;
  }

  udisk_stat directory_ = Attributes(S_IFDIR | 0755, 100);
  std::map<std::string, udisk_stat> files_on_disk_;
  bool ignores_case_ = false;
  bool numbers_paths_ = false;  // each spelling has an inode of its own
  size_t surplus_ = 0;          // bytes after a listing, in its reply
  // A busy machine must not make names unknown.
  ListingCache cache_{files_, true, kMemory, 1h};

 private:
  const udisk_stat* Find(const std::string& path) {
    if (path == "/d") return &directory_;
    if (!path.starts_with("/d/")) return nullptr;
    for (const auto& [name, attributes] : files_on_disk_) {
      const bool is_it =
          ignores_case_ ? strcasecmp(name.c_str(), path.c_str() + 3) == 0 : name == path.substr(3);
      if (is_it) return &attributes;
    }
    return nullptr;
  }
  uint64_t last_inode_ = 100;
};

TEST_F(KnownNames, AreThoseOfAListing) {
  List();
  ExpectKnown("/d/a", 0, 5);
  ExpectKnown("/d", 0, 100);
  EXPECT_EQ(files_.savings().known, 2U);
}

TEST_F(KnownNames, AreForgottenAfterATime) {
  ListingCache cache(files_, true, kMemory, 20ms);
  cache.List("/d", [](const auto&) {});
  Work();
  std::this_thread::sleep_for(20ms);
  bool is_known = true;
  cache.GetAttributes("/d/a", {}, [&](const auto&, const auto& asked) { is_known = !!asked; });
  Work();
  EXPECT_FALSE(is_known);
}

TEST_F(KnownNames, DoNotIncludeMissingOnesBecauseTheClientMayHaveMadeThem) {
  List();
  ExpectAskedFor("/d/missing", ENOENT);
  Make("missing", 5);
  ExpectAskedFor("/d/missing", 0, 5);
}

TEST_F(KnownNames, DoNotIncludeMissingOnesOnADiskThatIgnoresCase) {
  ignores_case_ = true;
  List();
  cache_.NoteMade("/d/new", NewDirectory(), ListingCache::Clock::now());
  ExpectAskedFor("/d/new/x", ENOENT);
}

TEST_F(KnownNames, DoNotIncludeMissingOnesOnADiskThatIgnoresCaseAndNumbersPaths) {
  ignores_case_ = numbers_paths_ = true;
  List();
  cache_.NoteMade("/d/new", NewDirectory(), ListingCache::Clock::now());
  ExpectAskedFor("/d/new/x", ENOENT);
}

TEST_F(KnownNames, DoNotComeFromAReplyThatIsTooLongToKeep) {
  surplus_ = 33 << 20;
  List();
  ExpectAskedFor("/d/a", 0, 5);
}

TEST_F(KnownNames, AreNotListedAgainSoonIfTheMemoryDoesNotAllowTheListing) {
  ListingCache small(files_, true, 0, 20ms);
  const auto ask_for_many = [&] {
    for (const char name : {'a', 'b', 'c', 'd', 'e'}) {
      small.GetAttributes("/d/" + std::string(1, name), {}, [](const auto&, const auto&) {});
    }
    Work();
  };
  while (Asked(kDirRead) == 0) ask_for_many();
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(30ms);
    ask_for_many();
  }
  EXPECT_EQ(Asked(kDirRead), 1);
}

TEST_F(KnownNames, OnADiskThatIgnoresCaseAreAllForgottenAfterAChangeOfOne) {
  ignores_case_ = true;
  List();
  cache_.NoteChange("/d/A", ChangeOf::kFile);
  ExpectAskedFor("/d/a", 0, 5);
}

TEST_F(KnownNames, DoNotIncludeMissingOnesThatADiskMaySpellInOtherBytes) {
  List();
  cache_.NoteMade("/d/new", NewDirectory(), ListingCache::Clock::now());
  ExpectKnown("/d/new/e", ENOENT);
  ExpectAskedFor("/d/new/\xc3\xa9", ENOENT);
}

TEST_F(KnownNames, DoNotIncludeFilesWithSeveralNames) {
  files_on_disk_["a"].st_nlink = 2;
  List();
  ExpectAskedFor("/d/a", 0, 5);
}

TEST_F(KnownNames, ComeFromOneListingWhenManyAreAskedFor) {
  std::vector<Shown> shown(6);
  for (size_t i = 0; i < 5; ++i) Ask("/d/" + std::string(1, static_cast<char>('a' + i)), &shown[i]);
  Ask("/d/missing", &shown[5]);
  Work();
  for (size_t i = 0; i < 5; ++i) EXPECT_EQ(shown[i].size, 5) << i;
  EXPECT_EQ(shown[5].error, ENOENT);
  EXPECT_EQ(Asked(kDirRead), 1);
  // Two names, the missing one, and one in lower and in upper case.
  EXPECT_EQ(Asked(kGetFileAttr), 5);
  EXPECT_EQ(files_.savings().shared, 3U);
}

TEST_F(KnownNames, AreAskedForOneByOneForLongerInALargeDirectory) {
  for (int i = 0; i < 12; ++i) Make("file" + std::to_string(i), 1);
  constexpr int64_t kSize = 10 * ListingCache::kNamesOfLarge * ListingCache::kBytesOfName;
  for (int i = 0; i < 11; ++i) {
    Shown shown;
    EXPECT_EQ(Asked(kDirRead), 0) << i;
    Ask("/d/file" + std::to_string(i), &shown, {.directory_size = kSize});
    Work();
    EXPECT_EQ(shown.is_known, i == 10) << i;
  }
  EXPECT_EQ(Asked(kDirRead), 1);
}

TEST_F(KnownNames, AreAskedForOneByOneOnceTheDirectoryIsKnownToBeLarge) {
  Shown shown;
  Ask("/d/a", &shown);
  for (const char* path : {"/d/b", "/d/c", "/d/d", "/d/e"}) {
    Ask(path, &shown, {.directory_size = 1 << 20});
  }
  Work();
  EXPECT_EQ(Asked(kDirRead), 0);
}

/// A disk with many directories in /t, in which every name exists.
class NamesInManyDirectories : public ReadAhead {
 protected:
  NamesInManyDirectories() {
    Answer([this](uint16_t command, std::string payload) -> std::optional<std::string> {
      if (command == kDirRead) {
        std::string entries = Entry(".", Attributes(S_IFDIR | 0755, 100));
        auto file = file_;
        for (const char* name : {"a", "b", "c"}) {
          ++file.st_ino;
          entries += Entry(name, file);
        }
        DirHead head{};
        std::memcpy(&head, payload.data(), sizeof head);
        return ListingReply(4, entries + '\0', payload.substr(sizeof head, head.path_length));
      }
      FileAttrHead head{};
      std::memcpy(&head, payload.data(), sizeof head);
      head.attr_length = sizeof file_;
      return Raw(head) + payload.substr(sizeof head, head.path_length) + Raw(file_);
    });
  }
  /// @return how many directories this lists
  int Ask(const std::string& path, int64_t directory_size = 0) {
    const int before = Asked(kDirRead);
    cache_.GetAttributes(path, {.directory_size = directory_size}, [](const auto&, const auto&) {});
    Work();
    return Asked(kDirRead) - before;
  }
  void AskForSeveral(const std::string& directory) {
    for (const char* name : {"a", "b", "c"}) Ask(directory + "/" + name);
  }

  const udisk_stat file_ = Attributes(S_IFREG | 0644, 5);
  ListingCache cache_{files_, true, kMemory, 1h};
};

TEST_F(NamesInManyDirectories, AreListedAtTheFirstQuestionOnceSeveralWereAskedForBeside) {
  AskForSeveral("/t/1");
  for (const char* directory : {"/t/2", "/t/3", "/t/4", "/t/5", "/t/6", "/t/7"}) {
    EXPECT_EQ(Ask(directory + std::string("/a")), 1) << directory;
    const int before = Asked(kGetFileAttr);
    EXPECT_EQ(Ask(directory + std::string("/b")), 0) << directory;
    EXPECT_EQ(Asked(kGetFileAttr), before) << directory;
  }
  EXPECT_EQ(Ask("/other/directory/a"), 0);
}

TEST_F(NamesInManyDirectories, AreAskedForOneByOneAgainIfTheFirstIsTheOnlyOne) {
  AskForSeveral("/t/1");
  for (size_t i = 0; i < ListingCache::kMostGuesses; ++i) {
    EXPECT_EQ(Ask("/t/" + std::to_string(2 + i) + "/a"), 1) << i;
  }
  EXPECT_EQ(Ask("/t/9/a"), 0);
}

TEST_F(NamesInManyDirectories, AreAskedForOneByOneForLongerInLargeOnes) {
  AskForSeveral("/t/1");
  constexpr int64_t kSize = ListingCache::kNamesOfGuess * ListingCache::kBytesOfName;
  EXPECT_EQ(Ask("/t/2/a", kSize), 0);
  EXPECT_EQ(Ask("/t/2/b", kSize), 1);
}

TEST_F(KnownNames, AreAskedForOneByOneWhenTheListingFails) {
  std::vector<Shown> shown(3);
  for (size_t i = 0; i < 3; ++i) Ask("/other/" + std::to_string(i), &shown[i]);
  session_.Stop();
  for (const auto& each : shown) EXPECT_EQ(each.error, EIO);
  cache_.AwaitAnswers();
}

TEST_F(KnownNames, AreNotAwaitedAnyMoreThoughPassingThemOnFailed) {
  Shown shown;
  Ask("/d/a", &shown);
  Ask("/d/b", &shown);
  cache_.GetAttributes("/d/c", {}, [](const auto&, const auto&) { throw std::bad_alloc(); });
  EXPECT_EQ(Asked(kDirRead), 1);
  EXPECT_THROW(Work(), std::bad_alloc);
  Work();
  cache_.AwaitAnswers();
}

TEST_F(KnownNames, AreAskedForAgainAfterAChangeOfThemAndNoOthers) {
  List();
  Make("a", 6);
  cache_.NoteChange("/d/a", ChangeOf::kFile);
  ExpectAskedFor("/d/a", 0, 6);
  ExpectKnown("/d/b", 0, 5);
}

TEST_F(KnownNames, DoNotComeFromAListingThatAChangeOvertook) {
  List();
  cache_.List("/d", [](const auto&) {});
  cache_.NoteChange("/d/a", ChangeOf::kName);
  Work();
  cache_.List("/d", [](const auto&) {});
  cache_.NoteChange("/d/a", ChangeOf::kName);
  Work();
  Make("a", 6);
  ExpectAskedFor("/d/a", 0, 6);
  ExpectKnown("/d/b", 0, 5);
}

TEST_F(KnownNames, AreNotTakenFromAListingOfADirectoryThatHasMoved) {
  cache_.List("/d", [](const auto&) {});
  cache_.NoteChange("/d", ChangeOf::kName);
  Work();
  ExpectAskedFor("/d/a", 0, 5);
}

TEST_F(KnownNames, AreAskedForAgainWhenTheDiskHasShownSomethingElse) {
  List();
  auto other = files_on_disk_["a"];
  cache_.NoteShown("/d/a", {.value = other});
  ExpectKnown("/d/a", 0, 5);
  other.st_mode = S_IFREG | 0600;
  cache_.NoteShown("/d/a", {.value = other});
  cache_.NoteShown("/d/b", {.error = ENOENT});
  for (const char* name : {"/d/a", "/d/b"}) ExpectAskedFor(name, 0, 5);
  ExpectKnown("/d/c", 0, 5);
}

TEST_F(KnownNames, IncludeWhatThisMountHasMade) {
  List();
  const auto now = ListingCache::Clock::now();
  cache_.NoteChange("/d/new", ChangeOf::kName);
  cache_.NoteMade("/d/new", Attributes(S_IFREG | 0644, 7), now);
  ExpectKnown("/d/new", 0, 7);
  ExpectAskedFor("/d", 0, 100);  // its times have changed
}

TEST_F(KnownNames, IncludeThatADirectoryJustMadeIsEmpty) {
  List();
  const auto now = ListingCache::Clock::now();
  cache_.NoteChange("/d/new", ChangeOf::kName);
  cache_.NoteMade("/d/new", NewDirectory(), now);
  ExpectKnown("/d/new", 0, 40);
  ExpectKnown("/d/new/x", ENOENT);
  cache_.NoteChange("/d/new/x", ChangeOf::kName);
  ExpectAskedFor("/d/new/x", ENOENT);
  ExpectKnown("/d/new/y", ENOENT);
}

TEST_F(KnownNames, DoNotIncludeMissingOnesInADirectoryThatWasThereBefore) {
  List();
  auto written = NewDirectory();
  ++written.st_mtim.tv_nsec;
  ++written.st_ctim.tv_nsec;
  auto moved = NewDirectory();
  ++moved.st_ctim.tv_nsec;
  auto with_directories = NewDirectory();
  ++with_directories.st_nlink;
  for (const auto& there : {written, moved, with_directories}) {
    cache_.NoteMade("/d/new", there, ListingCache::Clock::now());
    ExpectKnown("/d/new", 0, 40);
    ExpectAskedFor("/d/new/x", ENOENT);
    cache_.NoteChange("/d/new", ChangeOf::kName);
  }
}

TEST_F(KnownNames, IncludeThatADirectoryIsEmptyWhenItsModeWasSetAfterItWasMade) {
  List();
  auto attributes = NewDirectory();
  ++attributes.st_ctim.tv_nsec;
  cache_.NoteMade("/d/new", attributes, ListingCache::Clock::now(), true);
  ExpectKnown("/d/new/x", ENOENT);
}

TEST_F(KnownNames, IncludeWhatTheDiskShowedAfterAChangeInADirectoryThatWasNotListed) {
  cache_.NoteChange("/d/a", ChangeOf::kFile);
  cache_.NoteChanged("/d/a", files_on_disk_["a"], ListingCache::Clock::now());
  ExpectKnown("/d/a", 0, 5);
  ExpectAskedFor("/d/missing", ENOENT);
  ExpectKnown("/d/a", 0, 5);
  cache_.NoteChange("/d/a", ChangeOf::kFile);
  ExpectAskedFor("/d/a", 0, 5);
}

TEST_F(KnownNames, IncludeNothingShownAfterAChangeThatHasGrownOld) {
  cache_.NoteChanged("/d/a", files_on_disk_["a"], ListingCache::Clock::now() - 1h);
  ExpectAskedFor("/d/a", 0, 5);
}

TEST_F(KnownNames, IncludeNothingShownInADirectoryThatHasMoved) {
  cache_.NoteChanged("/d/a", files_on_disk_["a"], ListingCache::Clock::now());
  cache_.NoteChange("/d", ChangeOf::kName);
  ExpectAskedFor("/d/a", 0, 5);
}

TEST_F(KnownNames, IncludeOneOfTwoThatMayBeTheSameInADirectoryThatWasNotListed) {
  cache_.NoteChanged("/d/a", files_on_disk_["a"], ListingCache::Clock::now());
  cache_.NoteChanged("/d/b", files_on_disk_["b"], ListingCache::Clock::now());
  ExpectAskedFor("/d/a", 0, 5);
  ExpectKnown("/d/b", 0, 5);
}

TEST_F(KnownNames, IncludeADirectoryInWhichANameWasChanged) {
  cache_.NoteChange("/d/new", ChangeOf::kName);
  cache_.Refresh("/d");
  Shown shown;
  Ask("/d", &shown);  // waits for the same answer
  cache_.NoteChange("/d/new", ChangeOf::kName);
  Work();
  EXPECT_EQ(shown.size, 100);
  EXPECT_TRUE(shown.is_known);
  EXPECT_EQ(Asked(kGetFileAttr), 1);
  ExpectKnown("/d", 0, 100);
}

TEST_F(KnownNames, IncludeADirectoryAsItIsAfterTheLastChange) {
  cache_.Refresh("/d");
  Work();
  cache_.NoteChange("/d/new", ChangeOf::kName);
  directory_.st_size = 101;
  cache_.Refresh("/d");
  cache_.Refresh("/d");
  Work();
  ExpectKnown("/d", 0, 101);
  cache_.NoteChange("/d/new", ChangeOf::kName);
  ExpectAskedFor("/d", 0, 101);
}

TEST_F(KnownNames, AreAskedForWhenADirectoryCouldNotBeRefreshed) {
  cache_.Refresh("/other");
  Shown shown;
  Ask("/other", &shown);
  Work();
  EXPECT_EQ(shown.error, ENOENT);
  EXPECT_FALSE(shown.is_known);
  cache_.AwaitAnswers();
}

TEST_F(KnownNames, AreNotAskedForWithoutACache) {
  ListingCache cache(files_, false, kMemory);
  cache.Refresh("/d");
  cache.NoteChanged("/d/a", files_on_disk_["a"], ListingCache::Clock::now());
  Work();
  EXPECT_EQ(Asked(kGetFileAttr), 0);
  cache.GetAttributes("/d/a", {}, [](const auto&, const auto&) {});
  Work();
  EXPECT_EQ(Asked(kGetFileAttr), 1);
}

TEST_F(KnownNames, DoNotComeFromAttributesAskedForBeforeAListingUnderWay) {
  List();
  const auto before = ListingCache::Clock::now();
  cache_.List("/d", [](const auto&) {});
  cache_.NoteMade("/d/a", Attributes(S_IFREG | 0644, 4), before);
  Work();
  ExpectAskedFor("/d/a", 0, 5);
  ExpectKnown("/d/b", 0, 5);
}

TEST_F(KnownNames, AreAskedForByThemselvesAfterADoubt) {
  List();
  cache_.Doubt("/d/a");
  int requests = 0;
  EXPECT_FALSE(Ask("/d/a", &requests).is_known);
  EXPECT_EQ(requests, 1);
  ExpectKnown("/d/b", 0, 5);
}

TEST_F(KnownNames, AreNotListedWhenOneNameIsAskedForAgainAndAgain) {
  for (int i = 0; i < 5; ++i) ExpectAskedFor("/d/a", 0, 5);
  EXPECT_EQ(Asked(kDirRead), 0);
}

TEST_F(KnownNames, AreGoneWithTheDisk) {
  List();
  cache_.ForgetDisk();
  ExpectAskedFor("/d/a", 0, 5);
}

TEST_F(KnownNames, DoNotCountWhenTheDiskMustBeAsked) {
  List();
  const int before = Asked(kGetFileAttr);
  Shown shown;
  Ask("/d/a", &shown, {.must_ask = true});
  Work();
  EXPECT_EQ(shown.size, 5);
  EXPECT_FALSE(shown.is_known);
  EXPECT_EQ(Asked(kGetFileAttr), before + 1);
}

/// The side with the disk tells of its changes.
class ToldNames : public KnownNames {
 protected:
  using What = Notice::What;

  ToldNames() {
    session_.Listen([this](const Notice& notice) {
      for (auto* const cache : {&cache_, &short_}) cache->Take(notice);
    });
  }

  void Tell(What what, const std::string& path = "/d") {
    session_.Receive(Notice{.what = what, .path = path});
  }
  /// Lists the directory with both caches.
  void ListWatched() {
    for (auto* const cache : {&cache_, &short_}) {
      cache->List("/d", [](const auto&) {});
      Tell(What::kWatched);
      Work();
    }
  }
  /// Whether a name is known although the listing is too old, because something else was just
  /// asked. A pause of the machine between the two does not count.
  bool StaysKnown(const std::string& path) {
    std::this_thread::sleep_for(kShort);
    for (int tries = 0; tries < 100; ++tries) {
      const auto begin = ListingCache::Clock::now();
      files_.GetAttributes("/d/unrelated", [](const auto&) {});
      Work();
      bool is_known = false;
      bool is_young = false;
      short_.GetAttributes(path, {}, [&](const auto& /*result*/, const auto& asked) {
        is_known = asked.has_value();
        is_young = asked && *asked >= begin;
      });
      Work();
      if (is_known) return is_young;
      if (ListingCache::Clock::now() - begin < kShort / 2) return false;
    }
    return false;
  }

  static constexpr auto kShort = 20ms;
  ListingCache short_{files_, true, kMemory, kShort};
};

TEST_F(ToldNames, StayKnownAsOfTheLastQuestion) {
  ListWatched();
  EXPECT_TRUE(StaysKnown("/d/a"));
  EXPECT_TRUE(StaysKnown("/d"));
}

TEST_F(ToldNames, AreForgottenWithoutAQuestion) {
  ListWatched();
  std::this_thread::sleep_for(kShort);
  bool is_known = true;
  short_.GetAttributes("/d/a", {}, [&](const auto&, const auto& asked) { is_known = !!asked; });
  Work();
  EXPECT_FALSE(is_known);
}

TEST_F(ToldNames, AreForgottenWhenTheDirectoryIsNoLongerWatched) {
  ListWatched();
  Tell(What::kUnwatched, "/other");
  EXPECT_TRUE(StaysKnown("/d/a"));
  Tell(What::kUnwatched);
  EXPECT_FALSE(StaysKnown("/d/a"));
}

TEST_F(ToldNames, AreForgottenWhenChangesMayHaveGoneUnnoticed) {
  ListWatched();
  session_.Receive(Notice{.what = What::kAll});
  EXPECT_FALSE(StaysKnown("/d/a"));
}

TEST_F(ToldNames, AreForgottenOnAnotherLine) {
  ListWatched();
  session_.Break();
  session_.Start(&*channel_);
  EXPECT_FALSE(StaysKnown("/d/a"));
}

TEST_F(ToldNames, OfAListingAskedForAgainOnAnotherLineAreNotWatched) {
  struct Line : DriverChannel {
    explicit Line(CpdDriver& to) : DriverChannel(to), driver(to) {}
    [[nodiscard]] bool CanBreak() const override { return true; }
    void Send(const std::shared_ptr<CpdPacket>& packet) override {
      driver.onEvent(std::unique_ptr<CpdPacket>(packet->Clone()), 0);
    }
    CpdDriver& driver;
  } line(*driver_);
  session_.Break();
  session_.Start(&line);
  short_.List("/d", [](const auto&) {});
  Tell(What::kWatched);
  session_.Break();
  driver_->LoseRequests();
  session_.Start(&line);
  Work();
  EXPECT_EQ(Asked(kDirRead), 2);
  EXPECT_FALSE(StaysKnown("/d/a"));
}

TEST_F(ToldNames, DoNotIncludeAttributesOfSubdirectories) {
  files_on_disk_["sub"] = Attributes(S_IFDIR | 0755, 40);
  files_on_disk_["sub"].st_ino = 200;
  ListWatched();
  EXPECT_TRUE(StaysKnown("/d/a"));
  EXPECT_FALSE(StaysKnown("/d/sub"));
}

TEST_F(ToldNames, AreAskedForWhenTheyHaveChangedAndNoOthers) {
  ListWatched();
  Make("a", 6);
  Tell(What::kFile, "/d/a");
  ExpectAskedFor("/d/a", 0, 6);
  ExpectKnown("/d/b", 0, 5);
  EXPECT_TRUE(StaysKnown("/d/b"));
  EXPECT_FALSE(StaysKnown("/d/a"));
  Tell(What::kName, "/d");
  ExpectAskedFor("/d/b", 0, 5);
}

TEST_F(ToldNames, AreAllForgottenWhenAFileChangesUnderANameThatIsNotListed) {
  ListWatched();
  Tell(What::kFile, "/d/b");
  EXPECT_TRUE(StaysKnown("/d/a"));
  Tell(What::kName, "/d/new");
  Tell(What::kFile, "/d/new");
  EXPECT_TRUE(StaysKnown("/d/a"));
  Tell(What::kFile, "/d/A");  // perhaps another name of the same file
  EXPECT_FALSE(StaysKnown("/d/a"));
}

TEST_F(ToldNames, DoNotComeFromAnAnswerOlderThanItsNotice) {
  ListWatched();
  const auto now = ListingCache::Clock::now();
  files_.GetAttributes("/d/new", [&](const auto&) {
    cache_.NoteMade("/d/new", Attributes(S_IFREG | 0644, 7), now);
  });
  Make("new", 8);
  Tell(What::kFile, "/d/new");  // which the answer to the question does not show yet
  Work();
  ExpectAskedFor("/d/new", 0, 8);
}

TEST_F(ToldNames, IncludeWhatThisMountHasMadeThoughItIsTold) {
  ListWatched();
  Make("new", 7);
  cache_.NoteChange("/d/new", ChangeOf::kName);
  Tell(What::kName, "/d/new");  // before the answer to the request that made it
  files_.GetStatistics("/d/new",
                       [&](const auto&) { cache_.NoteChange("/d/new", ChangeOf::kName); });
  const auto now = ListingCache::Clock::now();
  files_.GetAttributes("/d/new", [&](const Result<udisk_stat>& made) {
    cache_.NoteMade("/d/new", made.value, now);
  });
  Work();
  ExpectKnown("/d/new", 0, 7);
  ExpectKnown("/d/a", 0, 5);
  EXPECT_EQ(files_.savings().told, 1U);
}

TEST_F(ToldNames, AreNotKeptOfADirectoryThatChangesWithoutEndWhileItIsListed) {
  cache_.List("/d", [](const auto&) {});
  for (int i = 0; i < 5000; ++i) Tell(What::kName, "/d/new" + std::to_string(i));
  Work();
  ExpectAskedFor("/d/a", 0, 5);
}

// ---- Which files come next ----

class Runs : public testing::Test {
 protected:
  static SharedListing List(const std::vector<std::string>& names, int64_t size = 100,
                            uint32_t mode = S_IFREG | 0644) {
    Listing listing;
    static std::vector<std::unique_ptr<std::string>> kept;
    for (const auto& name : names) {
      kept.push_back(std::make_unique<std::string>(name));
      listing.entries.push_back({Attributes(mode, size), *kept.back()});
    }
    return std::make_shared<const Listing>(std::move(listing));
  }
  static std::vector<std::string> Numbered(int count) {
    std::vector<std::string> names;
    for (int i = 0; i < count; ++i) names.push_back(std::to_string(1000 + i));
    return names;
  }
  static std::vector<std::string> Next(ReadingRun* run) {
    std::vector<std::string> names;
    for (const auto& file : run->NextBatch()) names.emplace_back(file.name);
    return names;
  }
};

TEST_F(Runs, BeginWithTheThirdFileInARow) {
  ReadingRun run(List(Numbered(100)));
  run.Step("1000");
  run.Step("1001");
  EXPECT_TRUE(Next(&run).empty());
  run.Step("1002");
  const auto next = Next(&run);
  ASSERT_EQ(next.size(), 16U);
  EXPECT_EQ(next.front(), "1003");
}

TEST_F(Runs, FollowTheNamesWhenTheListingIsReversed) {
  auto names = Numbered(100);
  std::reverse(names.begin(), names.end());
  ReadingRun run(List(names));
  for (const char* name : {"1000", "1001", "1002"}) run.Step(name);
  const auto next = Next(&run);
  ASSERT_FALSE(next.empty());
  EXPECT_EQ(next.front(), "1003");
}

TEST_F(Runs, BeginWithTheFirstFileOfTheOrderThatIsExpected) {
  auto names = Numbered(100);
  std::reverse(names.begin(), names.end());
  using Way = ReadingRun::Way;
  ReadingRun listed(List(names), Way::kListed);
  listed.Step("1099");
  ASSERT_FALSE(Next(&listed).empty());
  ReadingRun sorted(List(names), Way::kSorted);
  sorted.Step("1000");
  EXPECT_EQ(Next(&sorted).front(), "1001");
  ReadingRun elsewhere(List(names), Way::kListed);
  elsewhere.Step("1050");
  EXPECT_TRUE(Next(&elsewhere).empty());
}

TEST_F(Runs, TakeFewBatchesFarAway) {
  const auto names = Numbered(1000);
  ReadingRun run(List(names), ReadingRun::Way::kListed, true);
  size_t fetched = 1;
  int batches = 0;
  for (const auto& name : names) {
    run.Step(name);
    const auto next = Next(&run);
    fetched += next.size();
    if (!next.empty()) ++batches;
  }
  EXPECT_EQ(fetched, names.size());
  EXPECT_LE(batches, 3);
}

TEST_F(Runs, DoNotBeginWithFilesFarApartOrUnknown) {
  ReadingRun run(List(Numbered(100)));
  for (const char* name : {"1000", "1050", "1010", "1090", "none", "1030"}) run.Step(name);
  EXPECT_TRUE(Next(&run).empty());
}

TEST_F(Runs, NameEveryFileOnce) {
  const auto names = Numbered(1000);
  ReadingRun run(List(names));
  std::vector<std::string> got;
  for (const auto& name : names) {
    run.Step(name);
    for (const auto& next : Next(&run)) got.push_back(next);
  }
  EXPECT_EQ(got, std::vector<std::string>(names.begin() + 3, names.end()));
}

TEST_F(Runs, FetchAMebibyteAtMostAtOnce) {
  ReadingRun run(List(Numbered(1000), ReadingRun::kLargestFile));
  for (int i = 0; i < 500; ++i) {
    run.Step(std::to_string(1000 + i));
    EXPECT_LE(Next(&run).size(), 16U);
  }
}

TEST_F(Runs, LeaveOutEmptyLargeAndSpecialFiles) {
  ReadingRun empty(List(Numbered(100), 0));
  ReadingRun large(List(Numbered(100), ReadingRun::kLargestFile + 1));
  ReadingRun fifos(List(Numbered(100), 100, S_IFIFO | 0644));
  ReadingRun links(List(Numbered(100), 100, S_IFLNK | 0777));
  for (auto* run : {&empty, &large, &fifos, &links}) {
    for (const char* name : {"1000", "1001", "1002"}) run->Step(name);
    EXPECT_TRUE(Next(run).empty());
  }
}

TEST_F(Runs, EndWhenNoBatchIsUsed) {
  ReadingRun run(List(Numbered(1000)));
  for (const char* name : {"1000", "1001", "1002"}) run.Step(name);
  int batches = 0;
  for (; !Next(&run).empty() && batches < 100; ++batches) run.SlowDown();
  EXPECT_LE(batches, 8);
}

// ---- Content that is on its way ----

class OnItsWay : public ReadAhead {
 protected:
  static constexpr int kFiles = 5;

  OnItsWay() {
    for (int i = 0; i < kFiles; ++i) names_.push_back(std::to_string(i));
    Answer([](uint16_t command, const std::string& payload) -> std::optional<std::string> {
      if (command != kSmallFileRead) return Raw(XattrHead{});
      std::string answer = payload.substr(0, sizeof(SmallReadHead));
      for (size_t at = answer.size(); at < payload.size();) {
        ReadHead head{};
        std::memcpy(&head, payload.data() + at, sizeof head);
        const auto path = payload.substr(at + sizeof head, head.path_length);
        at += sizeof head + path.size();
        head.size = head.path_length;
        answer += Raw(head) + path + path;
      }
      return answer;
    });
  }
  ~OnItsWay() override { session_.Stop(); }

  SharedListing List() const {
    Listing listing;
    for (const auto& name : names_) listing.entries.push_back({known_, name});
    return std::make_shared<const Listing>(std::move(listing));
  }
  /// Reads all files of a directory in order, so that the files of the next directory are expected
  /// in the same order.
  void ReadFirstDirectory() { ReadFirstDirectory(prefetch_); }
  void ReadFirstDirectory(Prefetch& prefetch) {
    prefetch.Listed("/a", List());
    for (const auto& name : names_) prefetch.ReadToItsEnd("/a/" + name);
    Work();
    prefetch.Listed("/b", List());
  }
  bool Await(const std::string& path) {
    return prefetch_.Await(path, known_, [this](const std::string_view* content, auto /*asked*/) {
      contents_.push_back(content == nullptr ? "none" : std::string(*content));
    });
  }

  std::vector<std::string> names_;
  udisk_stat known_ = Attributes(S_IFREG | 0644, 4);  // a file holds its own path, of 4 bytes
  std::vector<std::string> contents_;
  Prefetch prefetch_{files_, true, kMemory};
};

TEST_F(OnItsWay, IsTheRestOfADirectoryOnceItsFirstFileIsRead) {
  ReadFirstDirectory();
  ASSERT_EQ(Asked(kSmallFileRead), 1);
  prefetch_.ReadToItsEnd("/b/0");
  EXPECT_EQ(Asked(kSmallFileRead), 2);
  EXPECT_EQ(files_.savings().files_ahead, 2U + 4U);
}

TEST_F(OnItsWay, IsUsedWhenItArrives) {
  ReadFirstDirectory();
  prefetch_.ReadToItsEnd("/b/0");
  ASSERT_TRUE(Await("/b/1"));
  ASSERT_TRUE(Await("/b/2"));
  EXPECT_TRUE(contents_.empty());
  Work();
  EXPECT_EQ(contents_, (std::vector<std::string>{"/b/1", "/b/2"}));
  EXPECT_EQ(files_.savings().files_ahead_used, 2U);
  EXPECT_FALSE(Await("/b/1"));
}

TEST_F(OnItsWay, IsOfNoUseOnceForgotten) {
  ReadFirstDirectory();
  prefetch_.ReadToItsEnd("/b/0");
  ASSERT_TRUE(Await("/b/1"));
  prefetch_.Forget("/b/1");
  EXPECT_FALSE(Await("/b/1"));
  Work();
  EXPECT_EQ(contents_, std::vector<std::string>{"none"});
}

TEST_F(OnItsWay, IsOfNoUseWithoutAnAnswer) {
  ReadFirstDirectory();
  prefetch_.ReadToItsEnd("/b/0");
  ASSERT_TRUE(Await("/b/1"));
  session_.Stop();
  EXPECT_EQ(contents_, std::vector<std::string>{"none"});
}

TEST_F(OnItsWay, IsNoMoreThanTheMemoryAllows) {
  constexpr size_t kOfFile = 401;  // with a path and a content of four bytes
  Prefetch small(files_, true, 2 * 3 * kOfFile);
  ReadFirstDirectory(small);
  const uint64_t before = files_.savings().files_ahead;
  EXPECT_EQ(files_.savings().files_ahead_unused, 0U);
  small.ReadToItsEnd("/b/0");
  EXPECT_EQ(files_.savings().files_ahead, before + 3);
  EXPECT_EQ(files_.savings().files_ahead_unused, before);  // they made room
  Work();
}

TEST_F(OnItsWay, IsNothingOfADirectoryWhoseListingIsTooLargeForTheMemory) {
  Prefetch small(files_, true, 2 * (List()->memory() - 1));
  ReadFirstDirectory(small);
  EXPECT_EQ(files_.savings().files_ahead, 0U);
}

TEST_F(OnItsWay, IsNotForAFileThatHasChangedSinceItWasListed) {
  ReadFirstDirectory();
  prefetch_.ReadToItsEnd("/b/0");
  ++known_.st_mtim.tv_sec;
  EXPECT_FALSE(Await("/b/1"));
}

}  // namespace
}  // namespace cpd::host
