// Answers are compared as a user compares disks: times, inodes and free space do not count.
#include "capture/answers.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "support/requests.h"
#include "wire.h"

namespace cpd::host {
namespace {

using test::BytesOf;
using test::DirEntry;
using test::Patched;
using test::Request;

constexpr size_t kHeader = 16;

udisk_stat FileOfSize(int64_t size) {
  udisk_stat attributes{};
  attributes.st_ino = 7;
  attributes.st_nlink = 1;
  attributes.st_size = size;
  attributes.st_mode = 0100644;
  attributes.st_mtim = {.tv_sec = 1'700'000'000, .tv_nsec = 5};
  return attributes;
}

/// The same file on another disk.
udisk_stat Elsewhere(udisk_stat attributes) {
  attributes.st_dev = 9;
  attributes.st_ino = 8;
  attributes.st_blocks = 16;
  attributes.st_blksize = 512;
  attributes.st_atim = attributes.st_mtim = attributes.st_ctim = {.tv_sec = 1, .tv_nsec = 1};
  return attributes;
}

std::string Attributes(const udisk_stat& attributes) {
  Request answer = test::AttrRequest{.path = "/file"};
  answer.payload = Patched(answer.payload, offsetof(FileAttrHead, attr_length), uint16_t{120});
  answer.payload += BytesOf(attributes);
  return answer.Bytes();
}

std::string Listing(const std::vector<DirEntry>& entries) {
  const Request answer =
      test::CheckDirRequest{.path = "/",
                            .cached = test::EncodeEntries(entries),
                            .cached_count = static_cast<uint16_t>(entries.size())};
  return answer.Bytes();
}

std::string Data(const std::string& data) {
  Request answer = test::ReadRequest{.path = "/file", .size = static_cast<uint32_t>(data.size())};
  answer.payload += data;
  return answer.Bytes();
}

TEST(Answers, AboutEqualFilesOnDifferentDisksAreEqual) {
  const auto file = FileOfSize(11);
  EXPECT_EQ(DifferenceOf(Attributes(file), Attributes(Elsewhere(file))), "");
  auto directory = file;
  directory.st_mode = 040755;
  auto other = Elsewhere(directory);
  other.st_size = 4096;
  other.st_nlink = 5;
  EXPECT_EQ(DifferenceOf(Attributes(directory), Attributes(other)), "");
}

TEST(Answers, AboutAnotherFileSayWhatDiffers) {
  const auto file = FileOfSize(11);
  EXPECT_EQ(DifferenceOf(Attributes(file), Attributes(FileOfSize(12))), "size was 11, is 12");
  auto mode = file;
  mode.st_mode = 0100600;
  EXPECT_EQ(DifferenceOf(Attributes(file), Attributes(mode)), "mode was 100644, is 100600");
  auto links = file;
  links.st_nlink = 2;
  EXPECT_EQ(DifferenceOf(Attributes(file), Attributes(links)), "links was 1, is 2");
  const Request missing = test::AttrRequest{.path = "/file"};
  EXPECT_EQ(DifferenceOf(Attributes(file), missing.Bytes()), "file was there, is missing");
}

TEST(Answers, WithOtherDataSayWhere) {
  EXPECT_EQ(DifferenceOf(Data("hello"), Data("hello")), "");
  EXPECT_EQ(DifferenceOf(Data("hello"), Data("heLlo")), "data differs at byte 2");
  EXPECT_EQ(DifferenceOf(Data("hello"), Data("hell")), "length of the data was 5, is 4");
  Request small = test::SmallReadRequest{.records = {{.path = "/file", .size = 5}}};
  small.payload += "hello";
  Request other = small;
  other.payload.back() = 'O';
  EXPECT_EQ(DifferenceOf(small.Bytes(), other.Bytes()), "data of /file differs at byte 4");
}

TEST(Answers, WithAListingInAnotherOrderAreEqual) {
  const DirEntry first{.stat = FileOfSize(1), .name = "a"};
  const DirEntry second{.stat = FileOfSize(2), .name = "b"};
  const DirEntry moved{.stat = Elsewhere(FileOfSize(2)), .name = "b"};
  EXPECT_EQ(DifferenceOf(Listing({first, second}), Listing({moved, first})), "");
  const DirEntry longer{.stat = FileOfSize(3), .name = "b"};
  EXPECT_EQ(DifferenceOf(Listing({first, second}), Listing({longer, first})),
            "b: size was 2, is 3");
  EXPECT_EQ(DifferenceOf(Listing({first, second}), Listing({first})),
            "number of entries was 2, is 1");
  const DirEntry renamed{.stat = FileOfSize(2), .name = "c"};
  EXPECT_EQ(DifferenceOf(Listing({first, second}), Listing({first, renamed})), "entry was b, is c");
}

TEST(Answers, DifferInTheirResults) {
  const Request unlink = test::UnlinkRequest{.path = "/file"};
  const auto failed = Patched(unlink.Bytes(), kHeader + offsetof(RemoveHead, result), int16_t{-1});
  EXPECT_EQ(DifferenceOf(unlink.Bytes(), failed), "result was 0, is -1");
  const Request write = test::WriteRequest{.path = "/file", .data = "five!"};
  const auto full = Patched(write.Bytes(), kHeader + offsetof(WriteHead, size), int32_t{0});
  EXPECT_EQ(DifferenceOf(write.Bytes(), full), "size was 5, is 0");
}

TEST(Answers, AreEqualWhateverDescriptorAndMountPointTheyName) {
  const Request create = test::CreateRequest{.path = "/file"};
  const auto result = [&](int32_t value) {
    return Patched(create.Bytes(), kHeader + offsetof(CreateHead, result), value);
  };
  EXPECT_EQ(DifferenceOf(result(3), result(12)), "");
  EXPECT_EQ(DifferenceOf(result(3), result(-1)), "result was success, is failure");
  const Request here = test::MakeDirRequest{.path = "/mnt"};
  const Request there = test::MakeDirRequest{.path = "/tmp"};
  EXPECT_EQ(DifferenceOf(here.Bytes(), there.Bytes()), "");
}

TEST(Answers, WithOtherFreeSpaceAreEqual) {
  Request before = test::StatvfsRequest{.path = "/"};
  Request now = before;
  udisk_statvfs room{};
  room.f_bsize = 4096;
  room.f_bavail = 100;
  before.payload += BytesOf(room);
  room.f_bavail = room.f_bfree = 50;
  now.payload += BytesOf(room);
  EXPECT_EQ(DifferenceOf(before.Bytes(), now.Bytes()), "");
  EXPECT_EQ(DifferenceOf(before.Bytes(), before.Bytes() + BytesOf(room)), "it has other parts");
}

TEST(Answers, ThatWereCutAreComparedAsFarAsTheyGo) {
  const auto whole = Data("hello");
  const auto cut = whole.substr(0, whole.size() - 3);
  EXPECT_EQ(DifferenceOf(cut, Data("heaps")), "");
  EXPECT_EQ(DifferenceOf(cut, Data("jello")), "data differs at byte 0");
  EXPECT_EQ(DifferenceOf(cut, Data("hell")), "length of the data was 5, is 4");
  const auto listing = Listing({{.stat = FileOfSize(1), .name = "a"}});
  const auto heads = listing.substr(0, listing.size() - 100);
  EXPECT_EQ(DifferenceOf(heads, Listing({{.stat = FileOfSize(2), .name = "b"}})), "");
  EXPECT_EQ(DifferenceOf(heads, Listing({})), "number of entries was 1, is 0");
}

}  // namespace
}  // namespace cpd::host
