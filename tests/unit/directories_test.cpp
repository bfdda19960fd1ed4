// Commands 107 and 121: directory listings, and the check whether one has changed.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "support/between_passes.h"
#include "support/compared_runs.h"
#include "support/expectations.h"
#include "support/local_records.h"
#include "support/operator_fixture.h"

namespace cpd::test {
namespace {

namespace fs = std::filesystem;

constexpr std::array<uint8_t, 8> kEchoed = {1, 2, 3, 4, 5, 6, 7, 8};

/// A listing and how many entries it has.
struct Listing {
  std::string bytes;
  size_t count = 0;
};

class Directories : public OperatorTest {
 protected:
  /// The reply to a request for a directory with this listing.
  static std::string ReplyPayload(const std::string& path, const Listing& listing) {
    DirHead head = {.echoed = {},
                    .buf_len = static_cast<uint32_t>(listing.bytes.size()),
                    .path_length = static_cast<uint16_t>(path.size()),
                    .entry_count = static_cast<uint16_t>(listing.count)};
    std::copy(kEchoed.begin(), kEchoed.end(), head.echoed);
    return BytesOf(head) + path + listing.bytes;
  }
  [[nodiscard]] Listing ListingOf(const std::string& path) const {
    const std::vector<DirEntry> entries = EntriesOf(disk.Local(path));
    return {.bytes = EncodeEntries(entries), .count = entries.size()};
  }
  void MakeSettledDir(const std::string& path) {
    disk.MakeDir(path);
    SettleAccessTime(disk.Local(path));
  }
  /// /dir with the files a to e.
  void MakeFilledDir() {
    MakeSettledDir("/dir");
    for (const char* name : {"/dir/a", "/dir/b", "/dir/c", "/dir/d", "/dir/e"}) {
      disk.MakeFile(name, name);
    }
  }
};

// ---- 107 ----

class DirRead : public Directories {};

TEST_F(DirRead, OfAnEmptyDirectoryRepliesWithTwoEntriesIn250Bytes) {
  MakeSettledDir("/empty");
  const Request request = DirReadRequest{.path = "/empty", .echoed = kEchoed};
  const auto sent = AskRaw(request);
  ExpectReply(sent, request, ReplyPayload("/empty", ListingOf("/empty")), 16 + 250 + 6 + 16);
  const DirReply reply = DirReply::Decode(*sent);
  EXPECT_EQ(reply.entry_count, 2);
  EXPECT_EQ(reply.buf_len, 250U);
}

TEST_F(DirRead, ListsFilesDirectoriesAndLinksInTheDirectorysOwnOrder) {
  MakeSettledDir("/dir");
  disk.MakeDir("/dir/sub");
  disk.MakeFile("/dir/file", "12345");
  disk.MakeFile("/dir/" + std::string(255, 'n'), "");
  disk.MakeFile("/dir/h\xc3\xa9 \n", "");
  disk.MakeLink("/dir/link", "nowhere at all");
  const Request request = DirReadRequest{.path = "/dir", .echoed = kEchoed};
  const Listing listing = ListingOf("/dir");
  ASSERT_EQ(listing.count, 7U);
  ExpectReply(AskRaw(request), request, ReplyPayload("/dir", listing),
              16 + listing.bytes.size() + 4 + 16);
}

TEST_F(DirRead, OfTheDiskItselfTakesAnEmptyPath) {
  const auto reply = Ask(DirReadRequest{.path = ""});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->Entries().size(), ListingOf("").count);
}

TEST_F(DirRead, OfAMissingDirectoryRepliesWithoutEntries) {
  const Request request = DirReadRequest{.path = "/none", .echoed = kEchoed};
  ExpectReply(AskRaw(request), request, ReplyPayload("/none", {}), 16 + 0 + 5 + 16);
  EXPECT_EQ(Log().Messages(), Texts{"dir_read opendir failed errno: No such file or directory"});
  EXPECT_EQ(Log().Lines()[0].level, kError);
  EXPECT_EQ(Log().Lines()[0].function, "UdiskReadDir");
}

TEST_F(DirRead, OfAFileRepliesWithoutEntries) {
  const Request request = DirReadRequest{.path = kKnownFile, .echoed = kEchoed};
  ExpectReply(AskRaw(request), request, ReplyPayload(kKnownFile, {}), 16 + strlen(kKnownFile) + 16);
}

TEST_F(DirRead, WithANulInThePathIsRefusedWithoutAReply) {
  disk.MakeDir("/ab");
  const Request request = DirReadRequest{.path = std::string("ab\0cd", 5)};
  EXPECT_EQ(AskRaw(request), std::nullopt);
  EXPECT_EQ(Log().Messages(), Texts{"dir_read dir not match\\n"});
  EXPECT_EQ(Log().Lines()[0].level, kError);
  EXPECT_EQ(Log().Lines()[0].function, "dir_read");
  EXPECT_EQ(udisk->dir_read(16, request.Packet().get()), -1);
}

TEST_F(DirRead, WritesLengthAndCountIntoTheRequest) {
  MakeFilledDir();
  Request request = DirReadRequest{.path = "/dir", .echoed = kEchoed};
  request.payload.replace(8, 4, 4, '\x5a');
  request.payload.replace(14, 2, 2, '\x5a');
  const auto packet = request.Packet();
  udisk->dir_read(16, packet.get());
  const Listing listing = ListingOf("/dir");
  EXPECT_EQ(PayloadOf(*packet) + listing.bytes, ReplyPayload("/dir", listing));
  ASSERT_EQ(device.Sent().size(), 1U);
  EXPECT_EQ(device.Sent()[0].payload, ReplyPayload("/dir", listing));
}

TEST_F(DirRead, LogsNothingOnSuccess) {
  ASSERT_TRUE(Ask(DirReadRequest{.path = kKnownDir}));
  EXPECT_EQ(Log().Messages(), Texts{});
}

TEST_F(DirRead, OfMoreThan65535EntriesWrapsTheCountAndKeepsTheLengthExact) {
  constexpr size_t kFiles = 65540;
  const fs::path memory = "/dev/shm";  // this many files would wear out a real disk
  const TempDisk many(fs::is_directory(memory) ? memory : fs::temp_directory_path());
  for (size_t i = 0; i < kFiles; ++i) {
    const int fd = creat(many.Local("/" + std::to_string(100000 + i)).c_str(), 0600);
    ASSERT_GE(fd, 0) << strerror(errno);
    close(fd);
  }
  udisk->SetRootPath(many.letter().c_str(), many.label().c_str());
  constexpr size_t kCount = kFiles + 2;  // with "." and ".."
  constexpr size_t kLength = 122 * kCount + 7 * kFiles + 2 + 3 + 1;
  const auto reply = Ask(DirReadRequest{.path = ""});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->entry_count, kCount - 65536);
  EXPECT_EQ(reply->buf_len, kLength);
  EXPECT_EQ(DecodeEntries(reply->listing, kCount).size(), kCount);
  // The check compares whole counts, so a cache with the wrapped count differs.
  EXPECT_TRUE(Ask(
      CheckDirRequest{.path = "", .cached = reply->listing, .cached_count = reply->entry_count}));
}

// ---- 121 ----

class CheckDir : public Directories {
 protected:
  /// A check of /dir against these entries.
  static CheckDirRequest Check(const std::vector<DirEntry>& entries) {
    return {.path = "/dir",
            .cached = EncodeEntries(entries),
            .cached_count = static_cast<uint16_t>(entries.size()),
            .echoed = kEchoed};
  }
  std::vector<DirEntry> Listed() {
    const auto reply = Ask(DirReadRequest{.path = "/dir"});
    return reply ? reply->Entries() : std::vector<DirEntry>{};
  }
  /// Expects the full listing of /dir as the reply.
  void ExpectListing(const CheckDirRequest& request) {
    const Listing listing = ListingOf("/dir");
    ExpectReply(AskRaw(request), request, ReplyPayload("/dir", listing),
                16 + listing.bytes.size() + 4 + 16);
  }
  void ExpectNoUpdate(const CheckDirRequest& request) {
    Log().Clear();
    EXPECT_EQ(AskRaw(request), std::nullopt);
    ASSERT_FALSE(Log().Messages().empty());
    EXPECT_EQ(Log().Messages().back(), "========== not update==========");
  }
  /// Runs `change`, then restores the modification time of /dir.
  template <class Change>
  void WithoutTouchingTheDirectory(const Change& change) {
    const auto before = fs::last_write_time(disk.Local("/dir"));
    change();
    fs::last_write_time(disk.Local("/dir"), before);
  }
};

TEST_F(CheckDir, WithTheEntriesOfTheLastReplyGetsNoReply) {
  MakeFilledDir();
  const auto listed = Ask(DirReadRequest{.path = "/dir"});
  ASSERT_TRUE(listed);
  ExpectNoUpdate({.path = "/dir", .cached = listed->listing, .cached_count = listed->entry_count});
}

TEST_F(CheckDir, WithTheEntriesInAnyOtherOrderGetsNoReply) {
  MakeFilledDir();
  std::vector<DirEntry> entries = Listed();
  std::reverse(entries.begin(), entries.end());
  ExpectNoUpdate(Check(entries));
  std::rotate(entries.begin(), entries.begin() + 3, entries.end());
  ExpectNoUpdate(Check(entries));
}

TEST_F(CheckDir, WithoutTheSpareByteGetsNoReply) {
  MakeFilledDir();
  CheckDirRequest request = Check(Listed());
  request.cached.pop_back();
  ExpectNoUpdate(request);
}

TEST_F(CheckDir, LogsEachCachedEntryThatItFoundInTheOrderOfTheCache) {
  MakeFilledDir();
  std::vector<DirEntry> entries = Listed();
  std::reverse(entries.begin(), entries.end());
  Log().Clear();
  Deliver(Check(entries));
  Texts expected = {"cache_file_count:7", "check_dir dir: /dir, size:4\\n",
                    "check dir full path: " + disk.Local("/dir") + "\\n"};
  for (const DirEntry& entry : entries) {
    expected.push_back("found dirFileName:" + entry.name + ",cacheFileName:" + entry.name);
  }
  expected.emplace_back("========== not update==========");
  EXPECT_EQ(Log().Messages(), expected);
  for (const LogLine& line : Log().Lines()) {
    EXPECT_EQ(line.level, kDebug);
    EXPECT_EQ(line.file, "operator.cpp");
    EXPECT_EQ(line.function, line.message.starts_with("found ") ? "compare_cache" : "check_dir");
  }
}

TEST_F(CheckDir, AfterTheSizeOfAFileChangedGetsAFullReply) {
  MakeFilledDir();
  const std::vector<DirEntry> entries = Listed();
  const auto before = fs::last_write_time(disk.Local("/dir/c"));
  disk.MakeFile("/dir/c", "longer than it was");
  fs::last_write_time(disk.Local("/dir/c"), before);
  Log().Clear();
  ExpectListing(Check(entries));
  EXPECT_TRUE(Log().Has(kDebug, "not found dirFileName:c,cacheFileName:c"));
}

TEST_F(CheckDir, AfterTheModificationTimeOfAFileChangedGetsAFullReply) {
  MakeFilledDir();
  const std::vector<DirEntry> entries = Listed();
  const auto before = fs::last_write_time(disk.Local("/dir/c"));
  fs::last_write_time(disk.Local("/dir/c"), before + std::chrono::seconds(1));
  ExpectListing(Check(entries));
}

TEST_F(CheckDir, AfterAFileWasAddedGetsAFullReply) {
  MakeFilledDir();
  const std::vector<DirEntry> entries = Listed();
  WithoutTouchingTheDirectory([&] { disk.MakeFile("/dir/f", ""); });
  Log().Clear();
  ExpectListing(Check(entries));
  EXPECT_EQ(Log().Messages(),
            (Texts{"cache_file_count:7", "check_dir dir: /dir, size:4\\n",
                   "check dir full path: " + disk.Local("/dir") + "\\n",
                   "check_dir send back size: " +
                       std::to_string(16 + ListingOf("/dir").bytes.size() + 4 + 16) + "\\n"}));
}

TEST_F(CheckDir, AfterAFileWasRemovedGetsAFullReply) {
  MakeFilledDir();
  const std::vector<DirEntry> entries = Listed();
  WithoutTouchingTheDirectory([&] { disk.Remove("/dir/c"); });
  ExpectListing(Check(entries));
}

TEST_F(CheckDir, AfterAFileWasRenamedGetsAFullReply) {
  MakeFilledDir();
  const std::vector<DirEntry> entries = Listed();
  WithoutTouchingTheDirectory(
      [&] { fs::rename(disk.Local("/dir/c"), disk.Local("/dir/renamed")); });
  Log().Clear();
  ExpectListing(Check(entries));
  EXPECT_TRUE(Log().Has(kDebug, "found name:c,not found"));
}

TEST_F(CheckDir, AfterOnlyAChmodOfAFileGetsNoReply) {
  MakeFilledDir();
  const std::vector<DirEntry> entries = Listed();
  ASSERT_EQ(chmod(disk.Local("/dir/c").c_str(), 0), 0);
  ExpectNoUpdate(Check(entries));
}

TEST_F(CheckDir, AfterOnlyNanosecondsAndTheAccessTimeChangedGetsNoReply) {
  MakeFilledDir();
  const std::string path = disk.Local("/dir/c");
  const std::array<timespec, 2> early = {{{.tv_sec = 1000, .tv_nsec = 1}, {1000, 1}}};
  const std::array<timespec, 2> late = {{{.tv_sec = 2000, .tv_nsec = 2}, {1000, 999'999'999}}};
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), early.data(), 0), 0);
  const std::vector<DirEntry> entries = Listed();
  ASSERT_EQ(utimensat(AT_FDCWD, path.c_str(), late.data(), 0), 0);
  ExpectNoUpdate(Check(entries));
}

TEST_F(CheckDir, WithoutACacheGetsAFullReply) {
  MakeFilledDir();
  ExpectListing(Check({}));
}

TEST_F(CheckDir, OfAMissingDirectoryRepliesWithoutEntries) {
  const DirEntry entry = {.stat = {}, .name = "a"};
  const CheckDirRequest request{
      .path = "/none", .cached = EncodeEntries({entry}), .cached_count = 1, .echoed = kEchoed};
  ExpectReply(AskRaw(request), request, ReplyPayload("/none", {}), 16 + 0 + 5 + 16);
  EXPECT_EQ(Log().Messages(), (Texts{"cache_file_count:1", "check_dir dir: /none, size:5\\n",
                                     "check dir full path: " + disk.Local("/none") + "\\n",
                                     "dir_read opendir failed errno: No such file or directory",
                                     "check_dir send back size: 37\\n"}));
}

TEST_F(CheckDir, OfAMissingDirectoryAgainstAnEmptyCacheGetsNoReply) {
  ExpectNoUpdate({.path = "/none"});
}

TEST_F(CheckDir, WithANulInThePathIsRefusedWithoutAReply) {
  disk.MakeDir("/ab");
  const Request request = CheckDirRequest{.path = std::string("ab\0cd", 5)};
  EXPECT_EQ(AskRaw(request), std::nullopt);
  EXPECT_EQ(Log().Messages(kDebug), (Texts{"cache_file_count:0", "check_dir dir: ab, size:5\\n"}));
  EXPECT_EQ(Log().Messages(kError), Texts{"check dir not match\\n"});
  EXPECT_EQ(udisk->check_dir(16, request.Packet().get()), -1);
}

TEST_F(CheckDir, ReturnsMinusOneIfNothingChangedAndOtherwiseWhatSendPacketReturned) {
  MakeFilledDir();
  const std::vector<DirEntry> entries = Listed();
  device.SetSendResult(9);
  EXPECT_EQ(udisk->check_dir(16, Request(Check(entries)).Packet().get()), -1);
  EXPECT_EQ(udisk->check_dir(16, Request(Check({})).Packet().get()), 9);
}

TEST_F(CheckDir, WritesLengthAndCountIntoTheRequestWhenItReplies) {
  MakeFilledDir();
  const Request request = Check({{.stat = {}, .name = "a"}});
  const auto packet = request.Packet();
  udisk->check_dir(16, packet.get());
  const std::string start = ReplyPayload("/dir", ListingOf("/dir")).substr(0, 16 + 4);
  EXPECT_EQ(PayloadOf(*packet), start + request.payload.substr(start.size()));
}

TEST_F(CheckDir, WithAMalformedCacheGetsAFullReply) {
  MakeFilledDir();
  const std::vector<DirEntry> entries = Listed();
  ASSERT_EQ(entries.size(), 7U);
  const CheckDirRequest good = Check(entries);
  const size_t last_entry = EncodeEntries({entries.begin(), entries.end() - 1}).size() - 1;

  CheckDirRequest request = good;
  request.cached.replace(120, 2, "\xff\xff");
  ExpectListing(request);  // the first name reaches past the end

  request = good;
  const auto too_long = static_cast<uint16_t>(entries.back().name.size() + 3);
  request.cached = Patched(good.cached, last_entry + 120, too_long);
  ExpectListing(request);  // the last name reaches one byte past its NUL and the spare byte

  request = good;
  request.cached.replace(120, 2, std::string(2, '\0'));
  ExpectListing(request);  // a name of no bytes has no NUL

  request = good;
  request.cached.replace(last_entry + 120, 2, std::string(2, '\0'));
  ExpectListing(request);  // likewise in the last entry, with the old name's bytes left over

  request = good;
  request.cached[last_entry + 122 + 1] = 'x';
  ExpectListing(request);  // a name without its NUL

  for (const size_t length :
       {size_t{0}, size_t{1}, size_t{119}, size_t{120}, size_t{121}, size_t{122}, last_entry,
        last_entry + 1, last_entry + 122, last_entry + 123}) {
    SCOPED_TRACE(length);
    request = good;
    request.cached.resize(length);
    ExpectListing(request);  // fewer entries than counted
  }
  ExpectNoUpdate(good);
}

TEST_F(CheckDir, OfADirectoryWhoseNamesGrowLongerWhileItIsReadGetsAFullReply) {
  MakeSettledDir("/dir");
  const std::string short_names = "abcdefgh";
  for (const char name : short_names) disk.MakeFile("/dir/" + std::string(1, name), "");
  const CheckDirRequest check = Check(Listed());
  const BetweenPasses grows([&] {
    for (const char name : short_names) {
      disk.Remove("/dir/" + std::string(1, name));
      disk.MakeFile("/dir/" + std::string(250, name), "");
    }
  });
  const auto reply = Ask(check);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->entry_count, check.cached_count) << "as the first pass counted them";
  EXPECT_EQ(reply->listing.size(), check.cached.size());
}

TEST_F(CheckDir, WithACacheLengthLargerThanItsEntriesGetsNoReply) {
  MakeFilledDir();
  CheckDirRequest request = Check(Listed());
  request.cached += std::string(1000, '\xff');
  ExpectNoUpdate(request);
}

TEST_F(CheckDir, WithACachedNameLongerThanAnyFilesGetsAFullReply) {
  MakeFilledDir();
  std::vector<DirEntry> entries = Listed();
  for (const size_t length : {1023U, 1024U, 2000U, 65534U}) {
    SCOPED_TRACE(length);
    entries[0].name = std::string(length, 'n');
    ExpectListing(Check(entries));
  }
}

// ---- The comparison ----

class CompareCache : public OperatorTest {
 protected:
  static DirEntry Entry(const std::string& name, int64_t size = 1, int64_t seconds = 1,
                        int64_t nanoseconds = 1) {
    DirEntry entry = {.stat = {}, .name = name};
    entry.stat.st_size = size;
    entry.stat.st_mtim = {.tv_sec = seconds, .tv_nsec = nanoseconds};
    return entry;
  }
  int Compare(const std::vector<DirEntry>& cached, const std::vector<DirEntry>& current) {
    Log().Clear();
    return udisk->compare_cache(static_cast<int>(cached.size()), static_cast<int>(current.size()),
                                EncodeEntries(cached).data(), EncodeEntries(current).data());
  }
  static std::string Found(const std::string& name) {
    return "found dirFileName:" + name + ",cacheFileName:" + name;
  }
};

TEST_F(CompareCache, OfTheSameEntriesInTheSameOrderIsOne) {
  EXPECT_EQ(Compare({Entry("a"), Entry("b")}, {Entry("a"), Entry("b")}), 1);
  EXPECT_EQ(Log().Messages(), (Texts{Found("a"), Found("b")}));
  EXPECT_EQ(Log().Messages(kDebug).size(), 2U);
}

TEST_F(CompareCache, OfTheSameEntriesInAnyOrderIsOne) {
  const std::vector<DirEntry> current = {Entry("a"), Entry("b"), Entry("c"), Entry("d")};
  std::vector<DirEntry> cached = current;
  const auto by_name = [](const DirEntry& x, const DirEntry& y) { return x.name < y.name; };
  do {
    Texts in_the_caches_order;
    for (const DirEntry& entry : cached) in_the_caches_order.push_back(Found(entry.name));
    EXPECT_EQ(Compare(cached, current), 1);
    EXPECT_EQ(Log().Messages(), in_the_caches_order);
  } while (std::next_permutation(cached.begin(), cached.end(), by_name));
}

TEST_F(CompareCache, OfDifferentCountsIsZeroWithoutALogLine) {
  EXPECT_EQ(Compare({Entry("a")}, {Entry("a"), Entry("b")}), 0);
  EXPECT_EQ(Log().Messages(), Texts{});
  EXPECT_EQ(Compare({Entry("a"), Entry("b")}, {Entry("a")}), 0);
  EXPECT_EQ(Log().Messages(), Texts{});
}

TEST_F(CompareCache, StopsAtADifferentSize) {
  EXPECT_EQ(Compare({Entry("a"), Entry("b", 2), Entry("c")}, {Entry("a"), Entry("b"), Entry("c")}),
            0);
  EXPECT_EQ(Log().Messages(), (Texts{Found("a"), "not found dirFileName:b,cacheFileName:b"}));
}

TEST_F(CompareCache, OfDifferentModificationSecondsIsZero) {
  EXPECT_EQ(Compare({Entry("a", 1, 1)}, {Entry("a", 1, 2)}), 0);
  EXPECT_EQ(Log().Messages(), Texts{"not found dirFileName:a,cacheFileName:a"});
}

TEST_F(CompareCache, ComparesAll64BitsOfSizeAndSeconds) {
  constexpr int64_t kHigh = int64_t{1} << 32;
  EXPECT_EQ(Compare({Entry("a", 1, 1)}, {Entry("a", 1 + kHigh, 1)}), 0);
  EXPECT_EQ(Compare({Entry("a", 1, 1)}, {Entry("a", 1, 1 + kHigh)}), 0);
}

TEST_F(CompareCache, OfEntriesThatDifferInAnythingElseIsOne) {
  DirEntry other = Entry("a", 1, 1, 999'999'999);
  other.stat.st_mode = 0100777;
  other.stat.st_uid = other.stat.st_gid = 4711;
  other.stat.st_ino = other.stat.st_nlink = 4711;
  other.stat.st_dev = other.stat.st_rdev = other.stat.st_blocks = other.stat.st_blksize = 4711;
  other.stat.st_atim = other.stat.st_ctim = {.tv_sec = 4711, .tv_nsec = 4711};
  EXPECT_EQ(Compare({Entry("a")}, {other}), 1);
  EXPECT_EQ(Log().Messages(), Texts{Found("a")});
}

TEST_F(CompareCache, StopsAtANameThatIsMissing) {
  EXPECT_EQ(Compare({Entry("a"), Entry("x"), Entry("b")}, {Entry("a"), Entry("b"), Entry("c")}), 0);
  EXPECT_EQ(Log().Messages(), (Texts{Found("a"), "found name:x,not found"}));
}

TEST_F(CompareCache, DistinguishesANameFromItsPrefix) {
  EXPECT_EQ(Compare({Entry("ab")}, {Entry("abc")}), 0);
  EXPECT_EQ(Log().Messages(), Texts{"found name:ab,not found"});
  EXPECT_EQ(Compare({Entry("abc")}, {Entry("ab")}), 0);
  EXPECT_EQ(Compare({Entry("AB")}, {Entry("ab")}), 0);
}

TEST_F(CompareCache, CountsADuplicateInTheCacheAgain) {
  EXPECT_EQ(Compare({Entry("a"), Entry("a")}, {Entry("a"), Entry("b")}), 1);
  EXPECT_EQ(Log().Messages(), (Texts{Found("a"), Found("a")}));
}

TEST_F(CompareCache, ComparesEachDuplicateInTheCache) {
  EXPECT_EQ(Compare({Entry("a"), Entry("a", 2)}, {Entry("a"), Entry("b")}), 0);
  EXPECT_EQ(Log().Messages(), (Texts{Found("a"), "not found dirFileName:a,cacheFileName:a"}));
}

TEST_F(CompareCache, CountsADuplicateInTheListingAgain) {
  EXPECT_EQ(Compare({Entry("a"), Entry("a")}, {Entry("a"), Entry("a")}), 0);
  EXPECT_EQ(Log().Messages(),
            (Texts{Found("a"), Found("a"), Found("a"), Found("a"), "add new file"}));
}

TEST_F(CompareCache, ComparesEachDuplicateInTheListing) {
  EXPECT_EQ(Compare({Entry("a"), Entry("b")}, {Entry("a"), Entry("a", 2)}), 0);
  EXPECT_EQ(Log().Messages(), (Texts{Found("a"), "not found dirFileName:a,cacheFileName:a"}));
}

TEST_F(CompareCache, ComparesTheDuplicatesInTheOrderOfTheListing) {
  const std::vector<DirEntry> cached(40, Entry("a"));
  std::vector<DirEntry> current = cached;
  std::fill(current.begin() + 20, current.end(), Entry("a", 2));
  EXPECT_EQ(Compare(cached, current), 0);
  Texts expected(20, Found("a"));
  expected.emplace_back("not found dirFileName:a,cacheFileName:a");
  EXPECT_EQ(Log().Messages(), expected);
}

TEST_F(CompareCache, StopsAtAMissingNameAfterADuplicateInTheListing) {
  EXPECT_EQ(Compare({Entry("a"), Entry("b")}, {Entry("a"), Entry("a")}), 0);
  EXPECT_EQ(Log().Messages(), (Texts{Found("a"), Found("a"), "found name:b,not found"}));
}

TEST_F(CompareCache, OfVeryManyDuplicatesTakesFewSteps) {
  const std::vector<DirEntry> duplicates(10'000, Entry("a"));
  EXPECT_EQ(Compare(duplicates, duplicates), 0);
  EXPECT_LT(Log().Messages().size(), 200'000U);
  EXPECT_EQ(Log().Messages().back(), "add new file");
}

/// Names of 16 bytes that all have the same std::hash, which has no key: the second half of each
/// name cancels the effect of the first.
Texts CollidingNames(size_t count) {
  constexpr uint64_t kFactor = 0xc6a4a7935bd1e995;
  constexpr uint64_t kInverse = 0x5f7a0ea7e59b19bd;
  static_assert(kFactor * kInverse == 1);
  constexpr uint64_t kStart = 0xc70f6907 ^ (16 * kFactor);
  constexpr auto kMix = [](uint64_t value) { return value ^ (value >> 47); };
  Texts names;
  for (uint64_t seed = 1; names.size() < count; ++seed) {
    const uint64_t first = seed * 0x9e3779b97f4a7c15;
    const uint64_t second =
        kMix(((kStart ^ (kMix(first * kFactor) * kFactor)) * kFactor) * kInverse) * kInverse;
    const std::string name = BytesOf(first) + BytesOf(second);
    if (name.find('\0') == std::string::npos) names.push_back(name);
  }
  return names;
}

TEST_F(CompareCache, OfNamesThatCollideTakesFewSteps) {
  const Texts names = CollidingNames(4096);
  const std::hash<std::string_view> hash;
  ASSERT_TRUE(std::ranges::all_of(
      names, [&](const std::string& name) { return hash(name) == hash(names[0]); }));
  std::vector<DirEntry> entries;
  for (const std::string& name : names) entries.push_back(Entry(name));
  const std::string listing = EncodeEntries(entries);
  const auto count = static_cast<int>(entries.size());
  const uint64_t before = ComparedRuns();
  EXPECT_EQ(udisk->compare_cache(count, count, listing.data(), listing.data()), 1);
  const uint64_t compared = ComparedRuns() - before;
  EXPECT_GE(compared, names.size());
  EXPECT_LE(compared, 100 * names.size()) << "the square is " << names.size() * names.size();
}

TEST_F(CompareCache, OfTwoEmptyListingsIsOne) {
  EXPECT_EQ(udisk->compare_cache(0, 0, nullptr, nullptr), 1);
  EXPECT_EQ(Log().Messages(), Texts{});
}

TEST_F(CompareCache, OfNegativeCountsIsZero) {
  const std::string one = EncodeEntries({Entry("a")});
  EXPECT_EQ(udisk->compare_cache(-1, -1, one.data(), one.data()), 0);
  EXPECT_EQ(Log().Messages(), Texts{"add new file"});
  Log().Clear();
  EXPECT_EQ(udisk->compare_cache(-1, 1, one.data(), one.data()), 0);
  EXPECT_EQ(Log().Messages(), Texts{});
}

TEST_F(CompareCache, EndsANameAtItsFirstNul) {
  // A record whose name field holds "ab", a NUL, and further characters.
  const DirEntry longer = Entry(std::string("ab\0cd", 5));
  EXPECT_EQ(Compare({longer, Entry("x")}, {Entry("ab"), Entry("x")}), 1);
  EXPECT_EQ(Log().Messages(), (Texts{Found("ab"), Found("x")}));
}

}  // namespace
}  // namespace cpd::test
