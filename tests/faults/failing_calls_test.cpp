// Lets each system call of the file layer fail, and compares the reply, the log and the traces.
#include "support/failing_calls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "support/expectations.h"
#include "support/fake_user.h"
#include "support/fault_table.h"
#include "support/local_records.h"
#include "support/log_and_trace.h"
#include "support/operator_fixture.h"
#include "support/requests.h"

namespace cpd::test {
namespace {

struct Errno {
  int value;
  const char* name;
};
constexpr std::array kErrors{
    Errno{EIO, "EIO"},       Errno{ENOSPC, "ENOSPC"}, Errno{EMFILE, "EMFILE"},
    Errno{ENOMEM, "ENOMEM"}, Errno{EACCES, "EACCES"}, Errno{EROFS, "EROFS"},
    Errno{EINTR, "EINTR"},   Errno{ENODEV, "ENODEV"}, Errno{EPERM, "EPERM"}};

std::ostream& operator<<(std::ostream& out, const Errno& error) { return out << error.name; }

class FaultTest : public OperatorTest {
 protected:
  FaultTest() {
    device.base().SetFilter(std::make_shared<FakeFilter>([](const std::string&) { return true; }));
  }

  /// Switches to confined mode, in which every call fails on a kernel without openat2.
  void Confine() {
    setenv("TESSEL_CPD_CLIENT_CONFINE", "1", 1);
    MakeOperator();
    unsetenv("TESSEL_CPD_CLIENT_CONFINE");
    Mount();
    udisk->Idle();  // closes the mount point
    Log().Clear();
  }

  /// The error lines so far, their numbers shown as '#'.
  static Texts Errors() {
    Texts errors;
    for (const LogLine& line : Log().Lines()) {
      if (line.level == kError) {
        errors.push_back(WithoutNumbers(line.function + ": " + line.message));
      }
    }
    return errors;
  }
  /// The traces so far: the event, and the message without its place in the source.
  [[nodiscard]] Texts Traced() const {
    Texts traced;
    for (const Trace& trace : device.base().Traces()) {
      const std::string& message = trace.fields.at("message");
      traced.push_back(trace.event + ": " + message.substr(message.find("] ") + 2));
    }
    return traced;
  }
};

// ---- Every call with every error ----

const std::string kReadTrace = "LOCAL_UDISK_READ_FILE_SUCCESS: udisk readFile success";

Texts RedirError(const std::string& text) { return {"LOCAL_DEVICE_REDIR_ERROR: " + text}; }

/// The trace of a failed write.
Texts WriteFailure(int error) {
  if (error == EACCES || error == EROFS) {
    return {"LOCAL_UDISK_WRITE_FILE_DISK_ACCESS_DENIED: udisk writeFile fail Permission exception"};
  }
  return {"LOCAL_UDISK_WRITE_FILE_FAIL: udisk writeFile fail"};
}

/// A system call that fails while a request is served, and the expected outcome.
struct Case {
  std::string name;
  FaultRow row;
  Request request;
  CallFault fault;  ///< its error comes from the test parameter
  /// The reply's payload; no function = no reply.
  std::function<std::string(const Request&, const TempDisk&)> reply;
  Texts errors = {};  ///< the error lines; %m = the text of the failed call's errno
  std::function<Texts(int error)> traces = [](int) { return Texts{}; };
};

std::ostream& operator<<(std::ostream& out, const Case& c) { return out << c.name; }

/// The request's own payload with its result field set.
template <class Field>
auto Echo(size_t at, Field result) {
  return
      [=](const Request& request, const TempDisk&) { return Patched(request.payload, at, result); };
}

std::string AsSent(const Request& request, const TempDisk& /*disk*/) { return request.payload; }

/// The payload of a listing: a head with this count and the listing's length, path and listing.
std::string ListingPayload(const Request& request, const std::string& path, uint16_t count,
                           const std::string& listing) {
  const std::string head = request.payload.substr(0, sizeof(DirHead));
  return Patched(Patched(head, 8, static_cast<uint32_t>(listing.size())), 14, count) + path +
         listing;
}

/// A listing of the disk, after `change` has edited its entries.
std::string DiskListing(const Request& request, const TempDisk& disk,
                        const std::function<void(std::vector<DirEntry>*)>& change) {
  std::vector<DirEntry> entries = EntriesOf(disk.Local("/"));
  change(&entries);
  return ListingPayload(request, "/", static_cast<uint16_t>(entries.size()),
                        EncodeEntries(entries));
}

const Texts kReadOpenError{R"(UdiskReadFile: file_read failed res:# errno: %m\n)"};
const Texts kReadError{R"(UdiskReadFile: file_read failed res: -#, fd = # errno: %m\n)"};

const std::vector<WritePiece> kTwoPieces{{.offset = 0, .data = "KNOW"},
                                         {.offset = 6, .data = "CONT"}};

/// Entries of the disk: ".", "..", the known file and the known directory.
constexpr int kDiskEntries = 4;

std::vector<Case> Cases() {
  const Texts no_errors;
  return {
      {.name = "AttributesWhoseLstatFails",
       .row = {"length 0, as for a missing file", "` lstat failed errno: …`", "nothing"},
       .request = AttrRequest{.path = kKnownFile},
       .fault = {.call = "lstat"},
       .reply = Echo(2, uint16_t{0}),
       .errors = {"UdiskGetFileInformation:  lstat failed errno: %m"}},

      {.name = "ACreateWhoseOpenFails",
       .row = {"-1", "`file_create failed errno: …`, and a `LOCAL_DEVICE_REDIR_ERROR` trace",
               "nothing"},
       .request = CreateRequest{.path = "/new.txt"},
       .fault = {.call = "open"},
       .reply = Echo(12, int32_t{-1}),
       .errors = {R"(UdiskCreateFile: file_create failed errno: %m\n)"},
       .traces = [](int) { return RedirError("udisk CreatFile fail"); }},
      {.name = "ACreateWhoseMkdirFails",
       .row = {"-1", "`file_create failed errno: No such file or directory`, and the trace",
               "nothing"},
       .request = CreateRequest{.path = "/new/file.txt"},
       .fault = {.call = "mkdir"},
       .reply = Echo(12, int32_t{-1}),
       .errors = {R"(UdiskCreateFile: file_create failed errno: No such file or directory\n)"},
       .traces = [](int) { return RedirError("udisk CreatFile fail"); }},
      {.name = "ACreateWhoseStatFails",
       .row = {"-1", "the same", "nothing"},
       .request = CreateRequest{.path = "/new/file.txt"},
       .fault = {.call = "stat"},
       .reply = Echo(12, int32_t{-1}),
       .errors = {R"(UdiskCreateFile: file_create failed errno: No such file or directory\n)"},
       .traces = [](int) { return RedirError("udisk CreatFile fail"); }},

      {.name = "AReadWhoseOpenFails",
       .row = {"0 bytes", "`file_read failed res:0 errno: …`", "nothing"},
       .request = ReadRequest{.path = kKnownFile},
       .fault = {.call = "open"},
       .reply = Echo(12, uint32_t{0}),
       .errors = kReadOpenError,
       .traces = [](int) { return Texts{kReadTrace}; }},
      {.name = "AReadWhosePreadFails",
       .row = {"0 bytes", "`file_read failed res: -1, fd = … errno: …`", "nothing"},
       .request = ReadRequest{.path = kKnownFile},
       .fault = {.call = "pread"},
       .reply = Echo(12, uint32_t{0}),
       .errors = kReadError,
       .traces = [](int) { return Texts{kReadTrace}; }},
      {.name = "AReadWhoseCloseFails",
       .row = {"its data", "nothing", "nothing"},
       .request = ReadRequest{.path = kKnownFile},
       .fault = {.call = "close"},
       .reply =
           [](const Request& request, const TempDisk&) {
             return Patched(request.payload, 12, uint32_t{13}) + "known content";
           },
       .traces = [](int) { return Texts{kReadTrace}; }},

      {.name = "AWriteWhoseOpenFails",
       .row = {"0 bytes", "`write file fail errno:…`, `file_write failed, res: 0`", "nothing"},
       .request = WriteRequest{.path = kKnownFile, .data = "data"},
       .fault = {.call = "open"},
       .reply =
           [](const Request& request, const TempDisk&) {
             return Patched(request.payload, 8, int32_t{0}).substr(0, request.payload.size() - 4);
           },
       .errors = {"UdiskWriteFile: write file fail errno:%m \\n",
                  "file_write: file_write failed, res: #"},
       .traces = WriteFailure},
      {.name = "AWriteWhosePwriteFails",
       .row = {"0 bytes", "`pwrite failed res: -1, fd = … errno: …`, `file_write failed, res: -1`",
               "nothing"},
       .request = WriteRequest{.path = kKnownFile, .data = "data"},
       .fault = {.call = "pwrite"},
       .reply =
           [](const Request& request, const TempDisk&) {
             return Patched(request.payload, 8, int32_t{0}).substr(0, request.payload.size() - 4);
           },
       .errors = {R"(UdiskWriteFile: pwrite failed res: -#, fd = # errno: %m\n)",
                  "file_write: file_write failed, res: -#"},
       .traces = WriteFailure},
      {.name = "ABatchWhoseOpenFails",
       .row =
           {"0 bytes",
            "`write file fail errno:…`, `file_write failed size: …, result: 0`, `file_write failed, res: …`",
            "nothing"},
       .request = BatchWriteRequest{.path = kKnownFile, .pieces = kTwoPieces},
       .fault = {.call = "open"},
       .reply =
           [](const Request& request, const TempDisk&) {
             return Patched(request.payload, 8, int32_t{0}).substr(0, 24 + sizeof kKnownFile - 1);
           },
       .errors = {"UdiskWriteFile: write file fail errno:%m \\n",
                  "file_write: file_write failed size: #, result: #",
                  "file_write: file_write failed, res: #"},
       .traces = WriteFailure},
      {.name = "ABatchWhoseSecondPwriteFails",
       .row =
           {"0 bytes, though the first piece is written",
            "`pwrite failed res: -1, fd = … errno: …`, `file_write failed size: …, result: -1`, `file_write failed, res: …`",
            "nothing"},
       .request = BatchWriteRequest{.path = kKnownFile, .pieces = kTwoPieces},
       .fault = {.call = "pwrite", .after = 1},
       .reply =
           [](const Request& request, const TempDisk& disk) {
             EXPECT_EQ(disk.ReadBack(kKnownFile), "KNOWn content") << "the first piece is written";
             return Patched(request.payload, 8, int32_t{0}).substr(0, 24 + sizeof kKnownFile - 1);
           },
       .errors = {R"(UdiskWriteFile: pwrite failed res: -#, fd = # errno: %m\n)",
                  "file_write: file_write failed size: #, result: -#",
                  "file_write: file_write failed, res: #"},
       .traces = WriteFailure},

      {.name = "AListingWhoseOpendirFails",
       .row = {"an empty directory", "`dir_read opendir failed errno: …`", "nothing"},
       .request = DirReadRequest{.path = "/"},
       .fault = {.call = "opendir"},
       .reply = [](const Request& request,
                   const TempDisk&) { return ListingPayload(request, "/", 0, ""); },
       .errors = {"UdiskReadDir: dir_read opendir failed errno: %m"}},
      {.name = "AListingWhoseReaddirFails",
       .row = {"the entries before the failure", "`dir_read readdir failed errno: …`", "nothing"},
       .request = DirReadRequest{.path = "/"},
       .fault = {.call = "readdir"},
       .reply = [](const Request& request,
                   const TempDisk&) { return ListingPayload(request, "/", 0, std::string(1, 0)); },
       .errors = {"UdiskReadDir: dir_read readdir failed errno: %m"}},
      {.name = "AListingWhoseSecondPassFails",
       .row = {"all entries, those after the failure as zeros",
               "`dir_read readdir failed errno: …`", "nothing"},
       .request = DirReadRequest{.path = "/"},
       .fault = {.call = "readdir", .after = kDiskEntries + 1},
       .reply =
           [](const Request& request, const TempDisk& disk) {
             const size_t length = EncodeEntries(EntriesOf(disk.Local("/"))).size();
             return ListingPayload(request, "/", kDiskEntries, std::string(length, '\0'));
           },
       .errors = {"UdiskReadDir: dir_read readdir failed errno: %m"}},
      {.name = "AListingWhoseLstatsFail",
       .row = {"all names, zeros for their attributes", "nothing", "nothing"},
       .request = DirReadRequest{.path = "/"},
       .fault = {.call = "lstat"},
       .reply =
           [](const Request& request, const TempDisk& disk) {
             return DiskListing(request, disk, [](std::vector<DirEntry>* entries) {
               for (DirEntry& entry : *entries) entry.stat = {};
             });
           }},
      {.name = "AListingWhoseLaterLstatsFail",
       .row = {"all names, the attributes of the entry before", "nothing", "nothing"},
       .request = DirReadRequest{.path = "/"},
       .fault = {.call = "lstat", .after = 1},
       .reply =
           [](const Request& request, const TempDisk& disk) {
             return DiskListing(request, disk, [](std::vector<DirEntry>* entries) {
               for (DirEntry& entry : *entries) entry.stat = entries->front().stat;
             });
           }},

      {.name = "ACheckWhoseOpendirFails",
       .row = {"an empty directory", "`dir_read opendir failed errno: …`", "nothing"},
       .request = CheckDirRequest{.path = "/",
                                  .cached = EncodeEntries({{.stat = {}, .name = "gone"}}),
                                  .cached_count = 1},
       .fault = {.call = "opendir"},
       .reply = [](const Request& request,
                   const TempDisk&) { return ListingPayload(request, "/", 0, ""); },
       .errors = {"UdiskReadDir: dir_read opendir failed errno: %m"}},
      {.name = "ACheckOfAnEmptyListingWhoseOpendirFails",
       .row = {"no answer: nothing changed", "`dir_read opendir failed errno: …`", "nothing"},
       .request = CheckDirRequest{.path = "/"},
       .fault = {.call = "opendir"},
       .reply = nullptr,
       .errors = {"UdiskReadDir: dir_read opendir failed errno: %m"}},

      {.name = "ATruncateThatFails",
       .row = {"-1", "`truncate failed offset:… errno: …`", "nothing"},
       .request = TruncateRequest{.path = kKnownFile, .length = 4},
       .fault = {.call = "truncate"},
       .reply = Echo(12, int32_t{-1}),
       .errors = {R"(UdiskTruncate: truncate failed offset:# errno: %m\n)"}},
      {.name = "AnFsyncWhoseOpenFails",
       .row = {"-1", "nothing", "nothing"},
       .request = FsyncRequest{.path = kKnownFile},
       .fault = {.call = "open"},
       .reply = Echo(8, int32_t{-1})},
      {.name = "AnFsyncThatFails",
       .row = {"-1", "nothing", "nothing"},
       .request = FsyncRequest{.path = kKnownFile},
       .fault = {.call = "fsync"},
       .reply = Echo(8, int32_t{-1})},
      {.name = "AnFsyncWhoseCloseFails",
       .row = {"0", "nothing", "nothing"},
       .request = FsyncRequest{.path = kKnownFile},
       .fault = {.call = "close"},
       .reply = AsSent},
      {.name = "AChmodThatFails",
       .row = {"-1", "nothing", "nothing"},
       .request = ChmodRequest{.path = kKnownFile, .mode = 0600},
       .fault = {.call = "chmod"},
       .reply = Echo(0, int32_t{-1})},
      {.name = "AChownThatFails",
       .row = {"-1", "nothing", "nothing"},
       .request = ChownRequest{.path = kKnownFile},
       .fault = {.call = "chown"},
       .reply = Echo(12, int32_t{-1})},
      {.name = "AReleaseWhoseOpenFails",
       .row = {"its own request, as always", "nothing", "a sync: the remote side cannot know"},
       .request = ReleaseRequest{.path = kKnownFile},
       .fault = {.call = "open"},
       .reply = AsSent},
      {.name = "AReleaseWhoseFsyncFails",
       .row = {"its own request, as always", "nothing", "a sync: the remote side cannot know"},
       .request = ReleaseRequest{.path = kKnownFile},
       .fault = {.call = "fsync"},
       .reply = AsSent},

      {.name = "AMakeDirWhoseMkdirFails",
       .row = {"-1", "a `LOCAL_DEVICE_REDIR_ERROR` trace", "nothing"},
       .request = MakeDirRequest{.path = "/new"},
       .fault = {.call = "mkdir"},
       .reply =
           [](const Request& request, const TempDisk& disk) {
             return Patched(request.payload.substr(0, sizeof(MakeDirHead)), 0, int32_t{-1}) +
                    disk.root().substr(0, 4);
           },
       .traces = [](int) { return RedirError("udisk make_dir fail"); }},
      {.name = "AMakeDirWhoseStatFails",
       .row = {"-1", "the trace", "nothing"},
       .request = MakeDirRequest{.path = "/new"},
       .fault = {.call = "stat"},
       .reply =
           [](const Request& request, const TempDisk& disk) {
             return Patched(request.payload.substr(0, sizeof(MakeDirHead)), 0, int32_t{-1}) +
                    disk.root().substr(0, 4);
           },
       .traces = [](int) { return RedirError("udisk make_dir fail"); }},
      {.name = "ARemoveDirThatFails",
       .row = {"-1", "the trace", "nothing"},
       .request = RemoveDirRequest{.path = kKnownDir},
       .fault = {.call = "rmdir"},
       .reply = Echo(2, int16_t{-1}),
       .traces = [](int) { return RedirError("udisk remove_dir fail"); }},
      {.name = "ALinkThatFails",
       .row = {"-1", "nothing", "nothing"},
       .request = LinkRequest{.path = kKnownFile, .new_path = "/linked.txt"},
       .fault = {.call = "link"},
       .reply = Echo(0, int32_t{-1})},
      {.name = "AnUnlinkThatFails",
       .row = {"-1", "`set unlink error: …`", "nothing"},
       .request = UnlinkRequest{.path = kKnownFile},
       .fault = {.call = "unlink"},
       .reply = Echo(2, int16_t{-1}),
       .errors = {"set_unlink: set unlink error: %m"}},
      {.name = "ARenameThatFails",
       .row = {"-1", "the trace", "nothing"},
       .request = RenameRequest{.path = kKnownFile, .new_path = "/renamed.txt"},
       .fault = {.call = "rename"},
       .reply = Echo(0, int32_t{-1}),
       .traces = [](int) { return RedirError("udisk set_rename fail"); }},

      {.name = "ASmallReadWhoseOpenFails",
       .row = {"0 bytes in that record", "`file_read failed res:0 errno: …`", "nothing"},
       .request = SmallReadRequest{.records = {{.path = kKnownFile}}},
       .fault = {.call = "open"},
       .reply = Echo(4 + 12, uint32_t{0}),
       .errors = kReadOpenError},
      {.name = "ASmallReadWhosePreadFails",
       .row = {"0 bytes in that record", "`file_read failed res: -1, fd = … errno: …`", "nothing"},
       .request = SmallReadRequest{.records = {{.path = kKnownFile}}},
       .fault = {.call = "pread"},
       .reply = Echo(4 + 12, uint32_t{0}),
       .errors = kReadError},
  };
}

class FailingCall : public FaultTest,
                    public ::testing::WithParamInterface<std::tuple<Case, Errno>> {
 protected:
  void ExpectReported(const Case& c, const CallFault& fault) {
    SettleAccessTime(disk.root());  // listing the disk must not change what is compared
    std::optional<SentPacket> sent;
    {
      const FailingCalls failing(fault);
      sent = AskRaw(c.request);
      EXPECT_GE(failing.Affected(), 1) << "no call failed";
    }
    ASSERT_EQ(sent.has_value(), c.reply != nullptr);
    if (sent) {
      EXPECT_EQ(sent->cmd, c.request.cmd);
      EXPECT_EQ(sent->request_id, c.request.request_id);
      const std::string payload = c.reply(c.request, disk);
      EXPECT_TRUE(sent->payload == payload)
          << ::testing::PrintToString(sent->payload) << "\n instead of\n"
          << ::testing::PrintToString(payload);
    }
    Texts errors = c.errors;
    for (std::string& line : errors) {
      const size_t at = line.find("%m");
      if (at != std::string::npos) line.replace(at, 2, std::strerror(fault.error));
    }
    EXPECT_EQ(Errors(), errors);
    EXPECT_EQ(Traced(), c.traces(fault.error));
    const auto next = Ask(ReadRequest{.path = kKnownFile});
    EXPECT_TRUE(next && next->data.size() == 13) << "the next request is not served";
  }
};

TEST_P(FailingCall, IsReportedToTheRemoteSideAndInTheLog) {
  const auto& [c, error] = GetParam();
  CallFault fault = c.fault;
  fault.error = error.value;
  ExpectReported(c, fault);
}

INSTANTIATE_TEST_SUITE_P(, FailingCall,
                         ::testing::Combine(::testing::ValuesIn(Cases()),
                                            ::testing::ValuesIn(kErrors)),
                         [](const auto& test) {
                           return std::get<0>(test.param).name + "_" + std::get<1>(test.param).name;
                         });

// ---- The same in confined mode ----

class ConfinedFailingCall : public FailingCall {
 protected:
  ConfinedFailingCall() { Confine(); }
  void SetUp() override {
    if (syscall(SYS_openat2, AT_FDCWD, ".", nullptr, 0) == -1 && errno == ENOSYS) {
      GTEST_SKIP() << "this kernel has no openat2";
    }
  }
};

TEST_P(ConfinedFailingCall, IsReportedToTheRemoteSideAndInTheLog) {
  const auto& [c, error] = GetParam();
  CallFault fault = c.fault;
  fault.error = error.value;
  ExpectReported(c, fault);
}

/// The cases whose failing call is made for a file on the disk. Where stat fails, plain mode makes
/// the call for a directory above the disk.
std::vector<Case> CasesOnTheDisk() {
  std::vector<Case> cases = Cases();
  std::erase_if(cases, [](const Case& c) { return c.fault.call == "stat"; });
  for (Case& c : cases) {
    if (c.fault.call == "open") c.fault.call = "openat2";
  }
  cases.push_back(
      {.name = "AReadWhoseMountPointCannotBeOpened",
       .row = {"0 bytes (confined mode only)", "`file_read failed res:0 errno: …`", "nothing"},
       .request = ReadRequest{.path = kKnownFile},
       .fault = {.call = "open", .times = 1},
       .reply = Echo(12, uint32_t{0}),
       .errors = kReadOpenError,
       .traces = [](int) { return Texts{kReadTrace}; }});
  return cases;
}

INSTANTIATE_TEST_SUITE_P(, ConfinedFailingCall,
                         ::testing::Combine(::testing::ValuesIn(CasesOnTheDisk()),
                                            ::testing::ValuesIn(kErrors)),
                         [](const auto& test) {
                           return std::get<0>(test.param).name + "_" + std::get<1>(test.param).name;
                         });

/// Turns "AReadWhoseOpenFails" into "a read whose open fails".
std::string Words(const std::string& name) {
  std::string words;
  for (const char c : name) {
    if (std::isupper(c) != 0 && !words.empty()) words += ' ';
    words += static_cast<char>(std::tolower(c));
  }
  return words;
}

TEST(FaultTable, HasARowForEachOfTheseFaults) {
  std::vector<Case> cases = Cases();
  cases.push_back(CasesOnTheDisk().back());
  for (const Case& c : cases) ExpectFaultRow(Words(c.name), c.row);
}

// ---- Calls whose failure has an effect of its own ----

class FailingCallWithItsOwnEffect : public FaultTest,
                                    public ::testing::WithParamInterface<Errno> {};

TEST_P(FailingCallWithItsOwnEffect, StatisticsWhoseStatvfsAndStatfsFailAreZero) {
  ExpectFaultRow("statistics whose statvfs and statfs fail", {"zeros", "nothing", "nothing"});
  const StatvfsRequest request{.path = "/"};
  udisk->modified = 1;  // otherwise the statistics are not refreshed
  const FailingCalls statvfs({.call = "statvfs", .error = GetParam().value});
  const FailingCalls statfs({.call = "statfs", .error = GetParam().value});
  const auto reply = Ask(request);
  ASSERT_TRUE(reply && reply->records.size() == 1);
  EXPECT_EQ(BytesOf(reply->records[0]), BytesOf(udisk_statvfs{}));
  EXPECT_EQ(statvfs.Affected(), 1);
  EXPECT_EQ(statfs.Affected(), 1);
  EXPECT_EQ(Errors(), Texts{});
}

TEST_P(FailingCallWithItsOwnEffect, AMountWhoseMkdirFailsIsAcknowledged) {
  ExpectFaultRow("a mount whose mkdir fails",
                 {"its acknowledgement", "`mkdir res: -1`", "nothing"});
  const FakeUser user(1000, disk.root());
  const MountRequest request{.name = "Stick"};
  const FailingCalls failing({.call = "mkdir", .error = GetParam().value});
  const auto reply = Ask(request);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->name, "Stick");
  EXPECT_EQ(failing.Affected(), 1);
  EXPECT_TRUE(Log().Has(kDebug, "mkdir res: -1"));
}

TEST_P(FailingCallWithItsOwnEffect, ACreateWhoseFirstOpenFailsSucceedsAndLeavesItsDescriptorOpen) {
  ExpectFaultRow(
      "a create whose first open fails",
      {"a descriptor number: the second one succeeded, and stays open unless paths are confined",
       "nothing", "nothing"});
  const CreateRequest request{.path = "/new.txt"};
  const FailingCalls failing({.call = "open", .error = GetParam().value, .times = 1});
  const auto reply = Ask(request);
  ASSERT_TRUE(reply && reply->result() >= 0);
  EXPECT_TRUE(disk.Exists("/new.txt"));
  EXPECT_EQ(Errors(), Texts{});
  EXPECT_EQ(close(reply->result()), 0) << "it was closed already";
}

TEST_P(FailingCallWithItsOwnEffect, TheErrorOfAReadIsNotThatOfTheCloseAfterIt) {
  const FailingCalls pread({.call = "pread", .error = GetParam().value});
  const FailingCalls close({.call = "close", .error = EBADF});
  ASSERT_TRUE(Ask(ReadRequest{.path = kKnownFile}));
  EXPECT_EQ(close.Affected(), 1);
  EXPECT_EQ(Errors(), Texts{R"(UdiskReadFile: file_read failed res: -#, fd = # errno: )" +
                            std::string(std::strerror(GetParam().value)) + R"(\n)"});
}

TEST_P(FailingCallWithItsOwnEffect, TheErrorOfAWriteIsNotThatOfTheCloseAfterIt) {
  const FailingCalls pwrite({.call = "pwrite", .error = GetParam().value});
  const FailingCalls close({.call = "close", .error = EBADF});
  ASSERT_TRUE(Ask(WriteRequest{.path = kKnownFile, .data = "data"}));
  EXPECT_EQ(close.Affected(), 1);
  EXPECT_EQ(Errors().at(0), R"(UdiskWriteFile: pwrite failed res: -#, fd = # errno: )" +
                                std::string(std::strerror(GetParam().value)) + R"(\n)");
  EXPECT_EQ(Traced(), WriteFailure(GetParam().value));
}

TEST_P(FailingCallWithItsOwnEffect, TheErrorOfAConfinedUnlinkIsNotThatOfTheCloseAfterIt) {
  Confine();
  if (!StillServes()) GTEST_SKIP() << "this kernel has no openat2";
  const FailingCalls unlink({.call = "unlink", .error = GetParam().value});
  const FailingCalls close({.call = "close", .error = EBADF});
  ASSERT_TRUE(Ask(UnlinkRequest{.path = kKnownFile}));
  EXPECT_GE(close.Affected(), 1);
  EXPECT_EQ(Errors(),
            Texts{"set_unlink: set unlink error: " + std::string(std::strerror(GetParam().value))});
}

TEST_P(FailingCallWithItsOwnEffect, ALargeReadWhoseFstatFailsGetsItsData) {
  ExpectFaultRow("a large read whose fstat fails",
                 {"its data, 1 MiB at most", "nothing", "nothing"});
  const FailingCalls failing({.call = "fstat", .error = GetParam().value});
  const auto reply = Ask(ReadRequest{.path = kKnownFile, .size = 1 << 20});
  ASSERT_TRUE(reply);
  EXPECT_EQ(failing.Affected(), 1);
  EXPECT_EQ(reply->data, "known content");
}

TEST_P(FailingCallWithItsOwnEffect, ASmallReadWhoseStatFailsGetsItsDataUnlessAccessIsDenied) {
  ExpectFaultRow(
      "a small read whose stat fails",
      {"its data, 1 MiB at most; for EACCES 0 bytes in that record", "nothing", "nothing"});
  const std::string expected = GetParam().value == EACCES ? "" : "known content";
  const FailingCalls failing({.call = "stat", .error = GetParam().value});
  const auto reply = Ask(SmallReadRequest{.records = {{.path = kKnownFile}}});
  ASSERT_TRUE(reply && reply->records.size() == 1);
  EXPECT_EQ(failing.Affected(), 1);
  EXPECT_EQ(reply->records[0].result, expected.size());
  EXPECT_EQ(reply->records[0].data, expected);
  EXPECT_EQ(Errors(), Texts{});
}

TEST_P(FailingCallWithItsOwnEffect, ACloseIsAnsweredOnceTheSyncHasBeenTried) {
  const FailingCalls failing({.call = "fsync", .error = GetParam().value});
  int synced_before = -1;
  device.OnSend([&](const SentPacket&) { synced_before = failing.Affected(); });
  EXPECT_TRUE(Ask(ReleaseRequest{.path = kKnownFile}));
  EXPECT_EQ(synced_before, 1);
}

INSTANTIATE_TEST_SUITE_P(, FailingCallWithItsOwnEffect, ::testing::ValuesIn(kErrors),
                         [](const auto& test) { return test.param.name; });

// ---- Sizes that are not known ----

class EndlessDirectory : public FaultTest {};

TEST_F(EndlessDirectory, IsListedAsOneThatCannotBeRead) {
  ExpectFaultRow(
      "a directory without an end",
      {"a listing without entries", "`dir_read: no packet holds the listing`", "nothing"});
  {
    const FailingCalls endless({.call = "readdir"});
    const auto reply = Ask(DirReadRequest{.path = "/"});
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->entry_count, 0);
    EXPECT_EQ(Errors(), Texts{"UdiskReadDir: dir_read: no packet holds the listing"});
    EXPECT_LE(endless.Affected(), INT32_MAX / 122) << "more entries than the longest packet holds";
  }
  EXPECT_TRUE(StillServes());
}

using TraceId = OperatorTest;

TEST_F(TraceId, IsMadeEvenWhenNoFileCanBeOpened) {
  const FailingCalls fault({.call = "open", .error = EMFILE});
  EXPECT_NO_THROW(udisk->TraceCpdDevice("E", &device, true, "what happened", "", ""));
  EXPECT_EQ(fault.Affected(), 1) << "the source of random numbers";
  const std::vector<Trace> traces = device.base().Traces();
  ASSERT_EQ(traces.size(), 1U);
  EXPECT_EQ(traces[0].id.size(), 16U);
}

class UnknownSize : public FaultTest {};

TEST_F(UnknownSize, CountsAsOneMebibyte) {
  constexpr uint32_t kTaken = 1 << 20;
  constexpr uint32_t kAsked = kTaken + 1;
  disk.MakeFile("/large.txt", std::string(kAsked, 'x'));
  const FailingCalls fstat({.call = "fstat", .error = EIO});
  const FailingCalls stat({.call = "stat", .error = EIO});
  const auto large = Ask(ReadRequest{.path = "/large.txt", .size = kAsked});
  ASSERT_TRUE(large);
  EXPECT_EQ(large->data.size(), kTaken);
  const auto small = Ask(SmallReadRequest{.records = {{.path = "/large.txt", .size = kAsked}}});
  ASSERT_TRUE(small && small->records.size() == 1);
  EXPECT_EQ(small->records[0].data.size(), kTaken);
}

// ---- How many calls a request makes ----

class CallCount : public FaultTest {};

TEST_F(CallCount, OfAnXattrRequestIsZero) {
  const FailingCalls open({.call = "open", .error = EIO});
  const FailingCalls stat({.call = "stat", .error = EIO});
  const FailingCalls lstat({.call = "lstat", .error = EIO});
  const FailingCalls getxattr({.call = "getxattr", .error = EIO});
  const FailingCalls lgetxattr({.call = "lgetxattr", .error = EIO});
  EXPECT_TRUE(Ask(XattrRequest{.path = kKnownFile, .name = "user.x"}));
  for (const FailingCalls* call : {&open, &stat, &lstat, &getxattr, &lgetxattr}) {
    EXPECT_EQ(call->Affected(), 0);
  }
}

TEST_F(CallCount, OfAFlushIsZero) {
  const FailingCalls open({.call = "open", .error = EIO});
  const FailingCalls fsync({.call = "fsync", .error = EIO});
  EXPECT_TRUE(Ask(FlushRequest{.path = kKnownFile}));
  EXPECT_EQ(open.Affected() + fsync.Affected(), 0);
}

TEST_F(CallCount, OfACreateInAnExistingDirectoryIsOneOpen) {
  const FailingCalls another_open({.call = "open", .error = EIO, .after = 1});
  const FailingCalls stat({.call = "stat", .error = EIO});
  const FailingCalls mkdir({.call = "mkdir", .error = EIO});
  const auto reply = Ask(CreateRequest{.path = "/new.txt"});
  ASSERT_TRUE(reply && reply->result() >= 0);
  EXPECT_TRUE(disk.Exists("/new.txt"));
  EXPECT_EQ(another_open.Affected() + stat.Affected() + mkdir.Affected(), 0);
}

TEST_F(CallCount, OfAReleaseThatCannotBeCopiedIsZero) {
  const FailingCalls open({.call = "open", .error = EIO});
  const FailingCalls fsync({.call = "fsync", .error = EIO});
  const auto packet = Request(ReleaseRequest{.path = kKnownFile}).Packet();
  ++packet->header->packetLen;  // one byte past the buffer
  EXPECT_EQ(udisk->file_release(0, packet.get()), -1);
  EXPECT_EQ(open.Affected() + fsync.Affected(), 0);
}

// ---- Requests of many calls, given up ----

class GivenUpRequest : public FaultTest {
 protected:
  /// Serves a request that is given up during the third call of this name.
  void Serve(const std::string& call, const Request& request) {
    Log().Clear();
    const FailingCalls third(
        {.call = call, .after = 2, .times = 1, .action = [&] { udisk->GiveUp(); }});
    const FailingCalls fourth({.call = call, .error = EIO, .after = 3});
    EXPECT_FALSE(AskRaw(request)) << "answered as if it were done";
    EXPECT_EQ(third.Affected(), 1);
    EXPECT_EQ(fourth.Affected(), 0) << "it went on";
    EXPECT_EQ(Errors(), Texts{std::string("EventHandle: ") + CommandName(request.cmd) +
                              " failed: given up, the disk is being closed"});
  }
};

TEST_F(GivenUpRequest, OfSmallFilesEndsBetweenTwoSizesAndBetweenTwoReads) {
  const SmallReadRequest nine{.records = std::vector<SmallRead>(9, {.path = kKnownFile})};
  Serve("pread", nine);
  MakeOperator();
  Mount();
  Serve("stat", nine);  // for the sizes, before the first read
}

TEST_F(GivenUpRequest, OfABatchOfWritesEndsBetweenTwoPieces) {
  Serve("pwrite", BatchWriteRequest{.path = kKnownFile,
                                    .pieces = {{0, "a"}, {1, "b"}, {2, "c"}, {3, "d"}, {4, "e"}}});
  EXPECT_EQ(disk.ReadBack(kKnownFile), "abcwn content");
}

TEST_F(GivenUpRequest, OfAListingOrItsCheckEndsBetweenTwoEntries) {
  for (const char* name : {"/1", "/2", "/3", "/4", "/5"})
    disk.MakeFile(kKnownDir + std::string(name), "");
  Serve("lstat", DirReadRequest{.path = kKnownDir});
  MakeOperator();
  Mount();
  Serve("lstat", CheckDirRequest{.path = kKnownDir});
}

TEST_F(GivenUpRequest, ThatMakesDirectoriesEndsBetweenTwoOfThem) {
  Serve("mkdir", MakeDirRequest{.path = "/a/b/c/d/e"});
  EXPECT_TRUE(disk.Exists("/a/b/c"));
  EXPECT_FALSE(disk.Exists("/a/b/c/d"));
  MakeOperator();
  Mount();
  Serve("mkdir", CreateRequest{.path = "/f/g/h/i/file"});
  EXPECT_FALSE(disk.Exists("/f/g/h/i"));
}

// ---- Short transfers ----

class ShortTransfer : public FaultTest {};

TEST_F(ShortTransfer, OfAReadIsAnsweredWithWhatWasRead) {
  const FailingCalls shortened({.call = "pread", .at_most = 5});
  const auto reply = Ask(ReadRequest{.path = kKnownFile});
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->result, 5U);
  EXPECT_EQ(reply->data, "known");
  EXPECT_EQ(shortened.Affected(), 1) << "one call per request";
  EXPECT_EQ(Errors(), Texts{});
}

TEST_F(ShortTransfer, OfASmallReadIsAnsweredWithWhatWasRead) {
  ExpectFaultRow("a short transfer of a read, or of a small read",
                 {"what was read", "nothing", "nothing"});
  const FailingCalls shortened({.call = "pread", .at_most = 5, .times = 1});
  const auto reply = Ask(SmallReadRequest{.records = {{.path = kKnownFile}, {.path = kKnownFile}}});
  ASSERT_TRUE(reply && reply->records.size() == 2);
  EXPECT_EQ(reply->records[0].data, "known");
  EXPECT_EQ(reply->records[1].data, "known content");
  EXPECT_EQ(Errors(), Texts{});
}

TEST_F(ShortTransfer, OfAWriteIsAFailure) {
  ExpectFaultRow("a short transfer of a write",
                 {"0 bytes, though some are written", "`file_write failed, res: …`", "nothing"});
  const FailingCalls shortened({.call = "pwrite", .at_most = 3});
  const auto reply = Ask(WriteRequest{.path = kKnownFile, .data = "matter"});
  ASSERT_TRUE(reply);
  EXPECT_EQ(int{reply->head.size}, 0);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "matwn content");
  EXPECT_EQ(shortened.Affected(), 1) << "one call per request";
  EXPECT_EQ(Errors(), Texts{"file_write: file_write failed, res: #"});
  EXPECT_EQ(Traced(), WriteFailure(0));
}

TEST_F(ShortTransfer, OfAPieceEndsItsBatch) {
  ExpectFaultRow(
      "a short transfer of a piece of a batch",
      {"0 bytes, though the pieces before and some bytes are written",
       "`file_write failed size: …, result: …`, `file_write failed, res: …`", "nothing"});
  const FailingCalls shortened({.call = "pwrite", .at_most = 3});
  const auto reply = Ask(BatchWriteRequest{.path = kKnownFile, .pieces = kTwoPieces});
  ASSERT_TRUE(reply);
  EXPECT_EQ(int{reply->head.size}, 0);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "KNOwn content");
  EXPECT_EQ(shortened.Affected(), 1) << "the second piece is not written";
  EXPECT_EQ(Errors(), (Texts{"file_write: file_write failed size: #, result: #",
                             "file_write: file_write failed, res: #"}));
  EXPECT_EQ(Traced(), WriteFailure(0));
}

}  // namespace
}  // namespace cpd::test
