// Commands 102, 108 and 113: the attributes of a file, and the statistics of the disk.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "support/expectations.h"
#include "support/local_records.h"
#include "support/operator_fixture.h"

namespace cpd::test {
namespace {

// ---- 102 ----

class GetFileAttr : public OperatorTest {
 protected:
  /// Head, path and record of a reply that found its file.
  [[nodiscard]] std::string FoundPayload(const std::string& path) const {
    const FileAttrHead head{.path_length = static_cast<uint16_t>(path.size()), .attr_length = 120};
    return BytesOf(head) + path + BytesOf(StatOf(disk.Local(path)));
  }
};

TEST_F(GetFileAttr, OfAFileRepliesWithItsRecordInABufferOfExactlyThatSize) {
  disk.MakeFile("/a.txt", "12345");
  const Request request = AttrRequest{.path = "/a.txt"};
  ExpectReply(AskRaw(request), request, FoundPayload("/a.txt"), 16 + 6 + 120 + 4);
}

TEST_F(GetFileAttr, OfAMissingPathRepliesWithAttributeLengthZeroAndNoRecord) {
  const Request request = AttrRequest{.path = "/none"};
  const FileAttrHead head{.path_length = 5, .attr_length = 0};
  ExpectReply(AskRaw(request), request, BytesOf(head) + "/none", 16 + 5 + 0 + 4);
}

TEST_F(GetFileAttr, OfADirectoryRepliesWith120BytesWhoseModeHasTheDirectoryBit) {
  const auto reply = Ask(AttrRequest{.path = kKnownDir});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->attr_length, 120);
  EXPECT_EQ(reply->stat.st_mode & S_IFMT, static_cast<uint32_t>(S_IFDIR));
}

TEST_F(GetFileAttr, OfALinkDescribesTheLink) {
  disk.MakeLink("/link", "a target that is not there");
  const Request request = AttrRequest{.path = "/link"};
  ExpectReply(AskRaw(request), request, FoundPayload("/link"), 16 + 5 + 120 + 4);
}

TEST_F(GetFileAttr, OfAnEmptyPathDescribesTheDiskItself) {
  const Request request = AttrRequest{.path = ""};
  ExpectReply(AskRaw(request), request, FoundPayload(""), 16 + 0 + 120 + 4);
}

TEST_F(GetFileAttr, TakesAPathLongerThanAnyFileMayHave) {
  const Request request = AttrRequest{.path = "/" + std::string(65534, 'p')};
  const FileAttrHead head{.path_length = 65535, .attr_length = 0};
  ExpectReply(AskRaw(request), request, BytesOf(head) + request.payload.substr(4), 16 + 65535 + 4);
}

TEST_F(GetFileAttr, LogsPathFullPathAndSizeInThisOrder) {
  disk.MakeFile("/a.txt", "12345");
  Deliver(AttrRequest{.path = "/a.txt"});
  EXPECT_EQ(Log().Messages(), (Texts{"get_file_attr path name: /a.txt, size:6\\n",
                                     "get_attr full path: " + disk.Local("/a.txt") + "\\n",
                                     "get_attr send back file size: 5, buf_len:120\\n"}));
  for (const LogLine& line : Log().Lines()) {
    EXPECT_EQ(line.level, kDebug);
    EXPECT_EQ(line.file, "operator.cpp");
    EXPECT_EQ(line.function, "get_file_attr");
  }
}

TEST_F(GetFileAttr, OfAMissingPathLogsTheFailureBetweenItsOwnLines) {
  Deliver(AttrRequest{.path = "/none"});
  EXPECT_EQ(Log().Messages(), (Texts{"get_file_attr path name: /none, size:5\\n",
                                     "get_attr full path: " + disk.Local("/none") + "\\n",
                                     " lstat failed errno: No such file or directory",
                                     "get_attr send back file size: 0, buf_len:0\\n"}));
}

TEST_F(GetFileAttr, WithANulInThePathIsRefusedWithoutAReply) {
  const Request request = AttrRequest{.path = std::string("/a\0b", 4)};
  EXPECT_EQ(AskRaw(request), std::nullopt);
  EXPECT_EQ(Log().Messages(kDebug), Texts{"get_file_attr path name: /a, size:4\\n"});
  EXPECT_EQ(Log().Messages(kError), Texts{"get_file_attr path not match\\n"});
  EXPECT_EQ(udisk->get_file_attr(16, request.Packet().get()), -1);
}

TEST_F(GetFileAttr, WritesTheAttributeLengthIntoTheRequest) {
  Request request = AttrRequest{.path = kKnownFile};
  request.payload[2] = '\x55';
  const auto packet = request.Packet();
  udisk->get_file_attr(16, packet.get());
  const FileAttrHead head{.path_length = static_cast<uint16_t>(strlen(kKnownFile)),
                          .attr_length = 120};
  EXPECT_EQ(PayloadOf(*packet), BytesOf(head) + kKnownFile);
}

TEST_F(GetFileAttr, IgnoresTheRequestsAttributeLength) {
  Request request = AttrRequest{.path = "/none"};
  request.payload[2] = '\x78';
  const FileAttrHead head{.path_length = 5, .attr_length = 0};
  ExpectReply(AskRaw(request), request, BytesOf(head) + "/none", 16 + 5 + 4);
}

// ---- 108 ----

class GetXattr : public OperatorTest {
 protected:
  static std::string Head(uint16_t path_length, uint16_t name_length) {
    return BytesOf(XattrHead{
        .result = 0, .value_length = 0, .path_length = path_length, .name_length = name_length});
  }
};

TEST_F(GetXattr, RepliesWithTwelveZeroBytesTheLengthsAndTheName) {
  const Request request = XattrRequest{.path = "/known.txt", .name = "user.x"};
  ExpectReply(AskRaw(request), request, Head(10, 6) + "user.x", 16 + 10 + 6 + 16);
}

TEST_F(GetXattr, ZeroesWhatTheRequestHeldInItsResultFields) {
  Request request = XattrRequest{.path = "/known.txt", .name = "user.x"};
  request.payload.replace(0, 12, 12, '\x5a');
  const auto packet = request.Packet();
  udisk->get_xattr(16, packet.get());
  EXPECT_EQ(PayloadOf(*packet), Head(10, 6) + "/known.txtuser.x");
  ASSERT_EQ(device.Sent().size(), 1U);
  EXPECT_EQ(device.Sent()[0].payload, Head(10, 6) + "user.x");
}

TEST_F(GetXattr, OfAMissingFileRepliesAndLogsTheFullPath) {
  const std::string path = "/not/there";
  ASSERT_FALSE(disk.Exists(path));
  ASSERT_TRUE(Ask(XattrRequest{.path = path, .name = "user.x"}));
  EXPECT_EQ(Log().Messages(), Texts{"get_xattr full path: " + disk.Local(path) + "\\n"});
  EXPECT_EQ(Log().Lines()[0].level, kDebug);
  EXPECT_EQ(Log().Lines()[0].function, "get_xattr");
}

TEST_F(GetXattr, WithNoPathAndNoNameRepliesWithSixteenZeroBytes) {
  const Request request = XattrRequest{.path = "", .name = ""};
  ExpectReply(AskRaw(request), request, std::string(16, '\0'), 16 + 16);
}

TEST_F(GetXattr, WithANulInTheNameIsRefusedWithoutAReply) {
  const Request request = XattrRequest{.path = "/known.txt", .name = std::string("us\0er", 5)};
  EXPECT_EQ(AskRaw(request), std::nullopt);
  EXPECT_EQ(Log().Messages(), Texts{"get_xattr name length not match\\n"});
  EXPECT_EQ(Log().Lines()[0].level, kError);
  EXPECT_EQ(udisk->get_xattr(16, request.Packet().get()), -1);
}

TEST_F(GetXattr, WithANulInThePathRepliesAsUsual) {
  const Request request = XattrRequest{.path = std::string("/a\0b", 4), .name = "user.x"};
  ExpectReply(AskRaw(request), request, Head(4, 6) + "user.x", 16 + 4 + 6 + 16);
  EXPECT_EQ(Log().Messages(), Texts{"get_xattr full path: " + disk.Local("/a") + "\\n"});
}

TEST_F(GetXattr, TakesAPathAndANameOf65535Bytes) {
  const std::string longest(65535, 'x');
  const Request request = XattrRequest{.path = longest, .name = longest};
  ExpectReply(AskRaw(request), request, Head(65535, 65535) + longest, 16 + 65535 + 65535 + 16);
}

// ---- 113 ----

/// The volumes DATA, DATA2 and proc with the mount point /proc, whose statistics never change. The
/// cached statistics are marked with values that no file system reports.
class GetStatvfs : public OperatorTest {
 protected:
  GetStatvfs() {
    udisk->SetRootPath(nullptr, nullptr);
    udisk->SetRootPath("/", "DATA");
    udisk->SetRootPath("/", "DATA2");
    udisk->SetRootPath("/", "proc");
    for (const auto& volume : udisk->mVolumes) volume->stat = Mark(volume->label);
    Log().Clear();
  }

  static udisk_statvfs Mark(const std::string& label) {
    udisk_statvfs mark = {};
    mark.f_bsize = 1000 + label.size();
    mark.f_namemax = static_cast<unsigned char>(label[0]);
    return mark;
  }
  static std::string Cached(const std::string& label) { return BytesOf(Mark(label)); }
  static std::string Refreshed() { return BytesOf(StatvfsOf("/proc")); }

  /// What follows head and path in the reply for this path.
  std::string RecordsFor(const std::string& path) {
    const auto sent = AskRaw(StatvfsRequest{.path = path});
    if (!sent) return "no reply";
    const std::string start = Start(path);
    EXPECT_EQ(sent->payload.substr(0, start.size()), start);
    return sent->payload.substr(std::min(start.size(), sent->payload.size()));
  }
  /// Head and path of every reply.
  static std::string Start(const std::string& path) {
    return BytesOf(StatvfsHead{.path_length = static_cast<uint32_t>(path.size()),
                               .record_length = 112}) +
           path;
  }
};

TEST_F(GetStatvfs, WithTheFlagSetRepliesWithEveryMatchingVolumeRefreshedFromTheMountPoint) {
  udisk->modified = 1;
  EXPECT_EQ(RecordsFor("DATA/x"), Refreshed() + Refreshed());
}

TEST_F(GetStatvfs, WithTheFlagClearRepliesWithTheCachedRecordOfTheFirstMatchOnly) {
  EXPECT_EQ(RecordsFor("DATA/x"), Cached("DATA"));
}

TEST_F(GetStatvfs, OfAPathThatBeginsWithASlashUsesTheEmptyLabel) {
  EXPECT_EQ(RecordsFor("/x"), Cached("DATA"));
  EXPECT_TRUE(
      Log().Has(kDebug, "get_statvfs file_name: /x, full path: /proc/x,name len:2, label: \\n"));
  udisk->modified = 1;
  EXPECT_EQ(RecordsFor("/x"), Refreshed() + Refreshed() + Refreshed());
}

TEST_F(GetStatvfs, OfAnEmptyPathOrOneWithoutASlashUsesTheEmptyLabel) {
  EXPECT_EQ(RecordsFor(""), Cached("DATA"));
  EXPECT_EQ(RecordsFor("DATA2"), Cached("DATA"));
}

TEST_F(GetStatvfs, MatchesLabelsThatBeginWithTheRequestedOne) {
  EXPECT_EQ(RecordsFor("D/x"), Cached("DATA"));
  EXPECT_EQ(RecordsFor("DATA2/x"), Cached("DATA2"));
  EXPECT_EQ(RecordsFor("pr/x/y"), Cached("proc"));
}

TEST_F(GetStatvfs, OfAnUnknownLabelRepliesWithoutARecord) {
  const Request request = StatvfsRequest{.path = "OTHER/x"};
  ExpectReply(AskRaw(request), request, Start("OTHER/x"), 16 + 7 + 120);
  EXPECT_EQ(RecordsFor("DATA23/x"), "");
  EXPECT_EQ(RecordsFor("data/x"), "");
}

TEST_F(GetStatvfs, WithTheFlagSetAndAnUnknownLabelRepliesWithoutARecordAndClearsTheFlag) {
  udisk->modified = 1;
  EXPECT_EQ(RecordsFor("OTHER/x"), "");
  EXPECT_EQ(udisk->modified, 0);
  EXPECT_EQ(RecordsFor("DATA/x"), Cached("DATA")) << "without a match nothing is refreshed";
}

TEST_F(GetStatvfs, KeepsWhatItRefreshed) {
  udisk->modified = 1;
  RecordsFor("DATA/x");
  EXPECT_EQ(udisk->modified, 0);
  EXPECT_EQ(RecordsFor("DATA/x"), Refreshed());
  EXPECT_EQ(RecordsFor("proc/x"), Cached("proc")) << "another label is not refreshed";
}

TEST_F(GetStatvfs, WithoutVolumesRepliesWithoutARecord) {
  udisk->SetRootPath(nullptr, nullptr);
  EXPECT_EQ(RecordsFor("DATA/x"), "");
  udisk->modified = 1;
  EXPECT_EQ(RecordsFor("DATA/x"), "");
}

TEST_F(GetStatvfs, LooksForTheLabelInTheFirst256CharactersOnly) {
  const std::string longest(255, 'L');
  udisk->SetRootPath("", longest.c_str());
  udisk->mVolumes.back()->stat = Mark(longest);
  EXPECT_EQ(RecordsFor(longest + "/x"), Cached(longest));
  EXPECT_EQ(RecordsFor(longest + "L/x"), Cached("DATA")) << "a slash after that does not count";
}

TEST_F(GetStatvfs, SendsOneRecordInABufferOfExactlyThatSize) {
  Request request = StatvfsRequest{.path = "DATA/x"};
  request.payload[4] = '\x55';
  request.request_id = 0xdeadbeef;
  ExpectReply(AskRaw(request), request, Start("DATA/x") + Cached("DATA"), 16 + 6 + 120);
}

TEST_F(GetStatvfs, LogsThePathsAndTheCapacity) {
  Deliver(StatvfsRequest{.path = "DATA/x"});
  EXPECT_EQ(
      Log().Messages(),
      (Texts{"get_statvfs file_name: DATA/x, full path: /procDATA/x,name len:6, label: DATA\\n",
             "get_statvfs send back size:142, buf len: 112"}));
  for (const LogLine& line : Log().Lines()) {
    EXPECT_EQ(line.level, kDebug);
    EXPECT_EQ(line.function, "get_statvfs");
  }
}

TEST_F(GetStatvfs, LogsTheSameCapacityWhenItSendsSeveralRecords) {
  udisk->modified = 1;
  Deliver(StatvfsRequest{.path = "DATA/x"});
  EXPECT_TRUE(Log().Has(kDebug, "get_statvfs send back size:142, buf len: 112"));
}

TEST_F(GetStatvfs, WritesTheRecordLengthIntoTheRequest) {
  const auto packet = Request(StatvfsRequest{.path = "OTHER/x"}).Packet();
  udisk->get_statvfs(16, packet.get());
  EXPECT_EQ(PayloadOf(*packet), Start("OTHER/x"));
}

TEST_F(GetStatvfs, OfTheDiskCarriesWhatTheSystemReports) {
  udisk->SetRootPath(nullptr, nullptr);
  Mount();
  udisk->modified = 1;
  const auto reply = Ask(StatvfsRequest{.path = "DISK/x"});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->record_length, 112U);
  EXPECT_EQ(reply->path, "DISK/x");
  ASSERT_EQ(reply->records.size(), 1U);
  udisk_statvfs got = reply->records[0];
  udisk_statvfs want = StatvfsOf(disk.root());
  for (udisk_statvfs* record : {&got, &want}) {  // other programs use the disk meanwhile
    record->f_bfree = record->f_bavail = record->f_ffree = record->f_favail = 0;
  }
  EXPECT_EQ(BytesOf(got), BytesOf(want));
}

}  // namespace
}  // namespace cpd::test
