// The confined mode: no request leads out of the mount point.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/openat2.h>
#include <linux/seccomp.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <thread>

#include "file_manager_linux.h"
#include "support/expectations.h"
#include "support/fake_user.h"
#include "support/operator_fixture.h"
#include "support/requests.h"
#include "udisk.h"

namespace cpd::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr char kVariable[] = "TESSEL_CPD_CLIENT_CONFINE";
constexpr char kSecret[] = "SECRET of the client";
/// A regular file: every path below it is missing and cannot be made.
constexpr char kNoDirectory[] = "/f";

/// While an instance exists, the variable has this value; null = the variable is unset.
class Confine {
 public:
  explicit Confine(const char* value) {
    if (value != nullptr) {
      setenv(kVariable, value, 1);
    } else {
      unsetenv(kVariable);
    }
  }
  ~Confine() { unsetenv(kVariable); }
  Confine(const Confine&) = delete;
  Confine& operator=(const Confine&) = delete;
};

/// Everything that shows a change of a directory or of anything below it: contents, names, kinds,
/// owners, modes, link counts, and times of change.
std::map<std::string, std::string> Snapshot(const fs::path& top) {
  std::map<std::string, std::string> seen;
  const auto see = [&](const fs::path& path) {
    struct stat st {};
    ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
    std::ostringstream text;
    text << st.st_ino << ' ' << st.st_mode << ' ' << st.st_nlink << ' ' << st.st_uid << ' '
         << st.st_gid << ' ' << st.st_size << ' ' << st.st_mtim.tv_sec << '.' << st.st_mtim.tv_nsec
         << ' ' << st.st_ctim.tv_sec << '.' << st.st_ctim.tv_nsec << ' ';
    if (S_ISREG(st.st_mode)) text << std::ifstream(path, std::ios::binary).rdbuf();
    if (S_ISLNK(st.st_mode)) text << fs::read_symlink(path);
    seen[path] = text.str();
  };
  see(top);
  for (const auto& entry : fs::recursive_directory_iterator(top)) see(entry.path());
  return seen;
}

/// A path on which a plain operator leaves the disk and reaches a directory of Outside.
struct WayOut {
  std::string name;
  std::string path;
};

/// What a reply says of a file. It must be the same for all missing files.
struct Answer {
  uint16_t cmd = 0;
  uint32_t packet_len = 0;
  std::string payload;
  bool operator==(const Answer&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Answer& answer) {
  return out << answer.cmd << ", " << answer.packet_len
             << " bytes: " << ::testing::PrintToString(answer.payload);
}

std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string Backslashed(std::string path) {
  std::replace(path.begin() + 1, path.end(), '/', '\\');
  return path;
}

/// One request of every kind that names files, for files in the directory `at`.
std::vector<NamedRequest> RequestsIn(const std::string& at) {
  const std::string file = at + "/secret.txt";
  const std::vector<DirEntry> cached = {{.stat = {}, .name = "a.txt"}};
  return {
      {"102 file", AttrRequest{.path = file}},
      {"102 directory", AttrRequest{.path = at + "/."}},
      {"102 directory with a slash", AttrRequest{.path = at + "/"}},
      {"102 below", AttrRequest{.path = at + "/dir/"}},
      {"102 missing", AttrRequest{.path = at + "/none"}},
      {"103 new", CreateRequest{.path = at + "/new.txt"}},
      {"103 existing", CreateRequest{.path = file}},
      {"103 with missing parents", CreateRequest{.path = at + "/no/such/new.txt"}},
      {"105", ReadRequest{.path = file}},
      {"105 large", ReadRequest{.path = file, .size = 1 << 20}},
      {"105 directory", ReadRequest{.path = at}},
      {"106 single", WriteRequest{.path = file, .data = "overwritten"}},
      {"106 batch",
       BatchWriteRequest{.path = file, .pieces = {{.data = "over"}, {.offset = 4, .data = "."}}}},
      {"107", DirReadRequest{.path = at}},
      {"107 below", DirReadRequest{.path = at + "/dir"}},
      {"109", TruncateRequest{.path = file, .length = 3}},
      {"110", FsyncRequest{.path = file}},
      {"111", ChmodRequest{.path = file, .mode = 0777}},
      {"111 directory", ChmodRequest{.path = at, .mode = 0777}},
      {"112", ChownRequest{.path = file, .uid = 12, .gid = 34}},
      {"113", StatvfsRequest{.path = file}},
      {"114", MakeDirRequest{.path = at + "/new"}},
      {"114 with missing parents", MakeDirRequest{.path = at + "/no/such/new"}},
      {"114 backslashes", MakeDirRequest{.path = Backslashed(at + "/new")}},
      {"115", RemoveDirRequest{.path = at + "/empty"}},
      {"115 slash", RemoveDirRequest{.path = at + "/empty/"}},
      {"116 existing", LinkRequest{.path = file, .new_path = "/taken"}},
      {"116 new", LinkRequest{.path = kKnownFile, .new_path = at + "/new"}},
      {"117", UnlinkRequest{.path = file}},
      {"118 from", RenameRequest{.path = file, .new_path = "/taken"}},
      {"118 from directory", RenameRequest{.path = at + "/dir", .new_path = "/taken"}},
      {"118 to", RenameRequest{.path = kKnownFile, .new_path = at + "/new"}},
      {"118 onto", RenameRequest{.path = kKnownFile, .new_path = file}},
      {"118 directory to", RenameRequest{.path = kKnownDir, .new_path = at + "/new"}},
      {"119", FlushRequest{.path = file}},
      {"120", ReleaseRequest{.path = file}},
      {"121", CheckDirRequest{.path = at, .cached = EncodeEntries(cached), .cached_count = 1}},
      {"121 without a cache", CheckDirRequest{.path = at}},
      {"123", SmallReadRequest{.records = {{.path = file}, {.path = at + "/dir/inner.txt"}}}},
  };
}

/// One request of every kind that opens a file, for the same file.
std::vector<NamedRequest> OpeningRequests(const std::string& file) {
  return {
      {"103", CreateRequest{.path = file}},
      {"105", ReadRequest{.path = file}},
      {"105 large", ReadRequest{.path = file, .size = 1 << 20}},
      {"106 single", WriteRequest{.path = file, .data = "overwritten"}},
      {"106 batch", BatchWriteRequest{.path = file, .pieces = {{.data = "overwritten"}}}},
      {"107", DirReadRequest{.path = file}},
      {"109", TruncateRequest{.path = file, .length = 3}},
      {"110", FsyncRequest{.path = file}},
      {"120", ReleaseRequest{.path = file}},
      {"121 without a cache", CheckDirRequest{.path = file}},
      {"123", SmallReadRequest{.records = {{.path = file}}}},
  };
}

/// Whether the kernel has openat2; if not, errno says why.
bool KnowsOpenat2() {
  open_how how{};
  how.flags = O_PATH | O_CLOEXEC;
  const auto opened = static_cast<int>(syscall(SYS_openat2, AT_FDCWD, "/", &how, sizeof how));
  if (opened >= 0) close(opened);
  return opened >= 0;
}

/// Directories next to the disk, with a secret in them.
struct Outside {
  explicit Outside(const std::string& letter) : path(letter + "outside") {
    for (const char* top : {"outside", "DISK2"}) {
      const fs::path directory = letter + top;
      fs::create_directories(directory / "dir");
      fs::create_directories(directory / "empty");
      std::ofstream(directory / "secret.txt") << kSecret;
      std::ofstream(directory / "dir/inner.txt") << kSecret;
    }
  }
  const std::string path;
};

/// A disk in a directory with other files of the client, served by a plain and a confined operator.
class ConfinedTest : public OperatorTest {
 protected:
  ConfinedTest() {
    disk.MakeFile(kNoDirectory, "no directory");
    disk.MakeDir("/known/deep");
    MakePlain(nullptr);
    MakeConfined();
    Log().Clear();
  }

  void SetUp() override {
    if (!KnowsOpenat2()) GTEST_SKIP() << "no openat2 here: " << strerror(errno);
  }

  void MakePlain(const char* value) {
    const Confine off(value);
    plain = std::make_unique<UDiskOperator>(&device);
    plain->SetRootPath(disk.letter().c_str(), disk.label().c_str());
  }
  void MakeConfined() {
    const Confine on("1");
    MakeOperator();
    Mount();
  }

  /// The name of the directory that holds the disk and `outside`.
  [[nodiscard]] std::string Parent() const {
    return fs::path(disk.root()).parent_path().filename();
  }

  /// Makes the links that some ways out need, and returns all ways out.
  std::vector<WayOut> WaysOut() {
    const std::string letter = disk.letter();
    disk.MakeLink("/absolute", outside.path);
    disk.MakeLink("/relative", "../outside");
    disk.MakeLink("/slashed", "../outside/");
    disk.MakeLink("/winding", "known/.././known/deep/../../../outside");
    disk.MakeLink("/ odd\n\xff", outside.path);
    disk.MakeLink("/known/absolute", outside.path);
    disk.MakeLink("/known/relative", "../../outside");
    disk.MakeLink("/parent", "..");
    disk.MakeLink("/root", "/");
    disk.MakeLink("/top", letter);
    disk.MakeLink("/known/up", "..");
    disk.MakeLink("/sibling", "../DISK2");
    disk.MakeLink("/through", letter + "DISK/../outside");
    disk.MakeLink("/chain-1", "chain-2");
    disk.MakeLink("/chain-2", "known/chain-3");
    disk.MakeLink("/known/chain-3", "../../outside");
    disk.MakeLink("/chain-a", "known/chain-b/.");
    disk.MakeLink("/known/chain-b", outside.path);
    disk.MakeLink("/proc-root", "/proc/self/root");
    disk.MakeLink("/proc-thread", "/proc/thread-self/root");
    disk.MakeLink("/proc-cwd", "/proc/self/cwd");
    disk.MakeLink("/proc-fd", "/proc/self/fd/" + std::to_string(descriptor_.get()));
    disk.MakeLink("/dev-fd", "/dev/fd/" + std::to_string(descriptor_.get()));
    std::string far_up = "/known";
    for (int i = 0; i < 64; ++i) far_up += "/..";
    return {
        {"above the disk", "/../outside"},
        {"two slashes after", "/..//outside"},
        {"two slashes before", "//../outside"},
        {"slashes all over", "////..////outside////"},
        {"dot before", "/./../outside"},
        {"dot after", "/.././outside"},
        {"dot at the end", "/../outside/."},
        {"slash at the end", "/../outside/"},
        {"up at the end", "/../outside/dir/.."},
        {"down and up twice", "/known/../../outside"},
        {"down and up with dots", "/known/.././../outside"},
        {"down and up with slashes", "/known//..//..//outside"},
        {"deeper down and up", "/known/deep/../../../outside"},
        {"up between", "/known/../known/../../outside"},
        {"out and back in", "/../DISK/../outside"},
        {"out and in and down", "/../DISK/known/../../outside"},
        {"two up", "/../../" + Parent() + "/outside"},
        {"far up", far_up + outside.path},
        {"no slash in front: a sibling", "2/../outside"},
        {"no slash in front: down and up in a sibling", "2/dir/.."},
        {"absolute link", "/absolute"},
        {"absolute link with a slash", "/absolute/"},
        {"absolute link with a dot", "/absolute/."},
        {"relative link", "/relative"},
        {"relative link with a slash", "/relative/"},
        {"relative link, down and up", "/relative/dir/.."},
        {"relative link, then up", "/relative/../outside"},
        {"link that ends with a slash", "/slashed"},
        {"link with detours of its own", "/winding"},
        {"link with an odd name", "/ odd\n\xff"},
        {"absolute link below", "/known/absolute"},
        {"relative link below", "/known/relative"},
        {"link below, reached by detours", "/./known/deep/..//relative/."},
        {"link to the parent", "/parent/outside"},
        {"link to the parent and in and out", "/parent/DISK/../outside"},
        {"link to the root", "/root" + outside.path},
        {"link in the middle", "/top/outside"},
        {"link in the middle, back in", "/top/DISK/known/../../outside"},
        {"up after a link inside", "/known/up/../outside"},
        {"link to a sibling", "/sibling"},
        {"link through the disk", "/through"},
        {"chain of links", "/chain-1"},
        {"chain to an absolute link", "/chain-a"},
        {"process's root", "/proc-root" + outside.path},
        {"thread's root", "/proc-thread" + outside.path},
        {"process's directory", "/proc-cwd/outside"},
        {"process's descriptor", "/proc-fd"},
        {"descriptor through /dev", "/dev-fd"},
    };
  }

  /// An operator's reply, if there is one, without statistics of the file system and without the
  /// local path that 114 echoes.
  std::optional<Answer> AnswerOf(UDiskOperator* served, const Request& request) {
    device.TakeSent();
    served->EventHandle(request.Packet());
    const std::vector<SentPacket> sent = device.TakeSent();
    EXPECT_LE(sent.size(), 1U) << "more than one reply";
    if (sent.empty()) return std::nullopt;
    std::string payload = sent[0].payload;
    if (request.cmd == kGetStatvfs) payload.resize(request.payload.size());
    if (request.cmd == kMakeDir) payload.resize(sizeof(MakeDirHead));
    return Answer{sent[0].cmd, request.cmd == kGetStatvfs ? 0 : sent[0].packet_len, payload};
  }

  /// Expects the confined operator to answer every request for the directory `at` as the plain one
  /// answers it for a missing directory, and to change nothing.
  void ExpectMissing(const std::string& at) { ExpectMissing(at, RequestsIn); }
  void ExpectMissing(const std::string& at,
                     std::vector<NamedRequest> (*requests_on)(const std::string&)) {
    ASSERT_GT(at.size(), strlen(kNoDirectory));
    std::string missing = std::string(kNoDirectory) + "/";
    missing.resize(at.size(), 'm');
    const auto before = Snapshot(disk.letter());
    const auto requests = requests_on(at);
    const auto references = requests_on(missing);
    for (size_t i = 0; i < requests.size(); ++i) {
      SCOPED_TRACE(requests[i].name);
      std::optional<Answer> answer = AnswerOf(udisk.get(), requests[i].request);
      const std::optional<Answer> expected = AnswerOf(plain.get(), references[i].request);
      if (answer) {
        answer->payload =
            Replaced(Replaced(answer->payload, at, missing), Backslashed(at), Backslashed(missing));
      }
      EXPECT_EQ(answer, expected);
    }
    EXPECT_TRUE(Snapshot(disk.letter()) == before) << "something was touched";
  }

  std::string Read(UDiskOperator* served, const std::string& path) {
    device.TakeSent();
    served->EventHandle(static_cast<Request>(ReadRequest{.path = path}).Packet());
    const std::vector<SentPacket> sent = device.TakeSent();
    return sent.size() == 1 ? ReadReply::Decode(sent[0]).data : "no reply";
  }
  std::string Read(const std::string& path) { return Read(udisk.get(), path); }

  const Outside outside{disk.letter()};
  std::unique_ptr<UDiskOperator> plain;

 private:
  // Two ways out lead through links in /proc: to the process's working directory, and to a
  // directory that it has open.
  class WorkingDirectory {
   public:
    explicit WorkingDirectory(const fs::path& path) { fs::current_path(path); }
    ~WorkingDirectory() { fs::current_path(before_); }
    WorkingDirectory(const WorkingDirectory&) = delete;
    WorkingDirectory& operator=(const WorkingDirectory&) = delete;

   private:
    const fs::path before_ = fs::current_path();
  };
  class OpenDirectory {
   public:
    explicit OpenDirectory(const std::string& path)
        : fd_(open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {}
    ~OpenDirectory() { close(fd_); }
    OpenDirectory(const OpenDirectory&) = delete;
    OpenDirectory& operator=(const OpenDirectory&) = delete;
    [[nodiscard]] int get() const { return fd_; }

   private:
    const int fd_;
  };
  const WorkingDirectory working_directory_{disk.letter()};
  const OpenDirectory descriptor_{outside.path};
};

// ---- Ways out ----

TEST_F(ConfinedTest, NoWayLeadsOut) {
  const std::vector<WayOut> ways = WaysOut();
  EXPECT_GE(ways.size(), 40U);
  for (const WayOut& way : ways) {
    SCOPED_TRACE(way.name + ": " + way.path);
    ExpectMissing(way.path);
  }
}

TEST_F(ConfinedTest, EveryWayLeadsOutWhenTheVariableIsUnsetEmptyOrZero) {
  const std::vector<WayOut> ways = WaysOut();
  for (const char* value : {static_cast<const char*>(nullptr), "0", ""}) {
    MakePlain(value);
    for (const WayOut& way : ways) {
      SCOPED_TRACE(way.name + ": " + way.path + ", " + (value != nullptr ? value : "unset"));
      EXPECT_EQ(Read(plain.get(), way.path + "/secret.txt").substr(0, 6), "SECRET");
      const auto made = AnswerOf(
          plain.get(), static_cast<Request>(MakeDirRequest{.path = way.path + "/empty/x"}));
      ASSERT_TRUE(made);
      EXPECT_EQ(made->payload.substr(0, 4), std::string(4, '\0'));
      EXPECT_EQ(fs::remove(outside.path + "/empty/x") + fs::remove(disk.letter() + "DISK2/empty/x"),
                1);
    }
  }
}

TEST_F(ConfinedTest, EveryOtherValueConfines) {
  for (const char* value :
       {"1", "2", "-1", " 7", "1x", "true", "yes", "on", "no", "00", " ", "0x1", "4294967296"}) {
    const Confine on(value);
    MakeOperator();
    Mount();
    EXPECT_EQ(Read("/../outside/secret.txt"), "") << value;
    EXPECT_EQ(Read(kKnownFile), "known content") << value;
  }
}

TEST_F(ConfinedTest, TheDirectoriesAboveTheDiskAreMissing) {
  for (const char* up : {"/..", "/../", "/../.", "//..", "/./..", "/known/../..", "/..//..",
                         "/.."
                         "/../../../.."}) {
    SCOPED_TRACE(up);
    const auto before = Snapshot(disk.letter());
    EXPECT_EQ(Ask(AttrRequest{.path = up})->attr_length, 0);
    EXPECT_EQ(Ask(DirReadRequest{.path = up})->entry_count, 0);
    EXPECT_FALSE(Ask(CheckDirRequest{.path = up}));
    EXPECT_EQ(Ask(ChmodRequest{.path = up, .mode = 0777})->result(), -1);
    EXPECT_EQ(Ask(ChownRequest{.path = up, .uid = 1})->result(), -1);
    EXPECT_EQ(Ask(MakeDirRequest{.path = up})->head.result, -1);
    EXPECT_EQ(Ask(RemoveDirRequest{.path = up})->result(), -1);
    EXPECT_EQ(Ask(RenameRequest{.path = up, .new_path = "/taken"})->result, -1);
    EXPECT_EQ(Ask(RenameRequest{.path = kKnownDir, .new_path = up})->result, -1);
    EXPECT_EQ(Ask(CreateRequest{.path = up})->result(), -1);
    EXPECT_TRUE(Snapshot(disk.letter()) == before);
  }
}

TEST_F(ConfinedTest, APathWithoutALeadingSlashDoesNotReachASibling) {
  EXPECT_EQ(Read(plain.get(), "2/secret.txt"), kSecret);
  const auto before = Snapshot(disk.letter());
  for (const NamedRequest& named : RequestsIn("2")) {
    const std::optional<Answer> answer = AnswerOf(udisk.get(), named.request);
    EXPECT_FALSE(answer && answer->payload.find("SECRET") != std::string::npos) << named.name;
  }
  EXPECT_EQ(Ask(AttrRequest{.path = "2"})->attr_length, 0);
  EXPECT_EQ(Ask(MakeDirRequest{.path = "3/made"})->head.result, -1);
  EXPECT_EQ(Ask(CreateRequest{.path = "3"})->result(), -1);
  EXPECT_TRUE(Snapshot(disk.letter()) == before);
}

TEST_F(ConfinedTest, APathWithoutALeadingSlashIsServedIfTheMountPointEndsWithOne) {
  const std::string root = disk.root() + "/";
  udisk->SetRootPath(root.c_str(), "");
  EXPECT_EQ(Read("known.txt"), "known content");
  EXPECT_EQ(Read(kKnownFile), "known content");
  EXPECT_EQ(Read("../outside/secret.txt"), "");
}

TEST_F(ConfinedTest, ALinkToAFileOutsideIsNotOpened) {
  disk.MakeLink("/file-absolute", outside.path + "/secret.txt");
  disk.MakeLink("/file-relative", "../outside/secret.txt");
  disk.MakeLink("/known/file", "../../outside/secret.txt");
  disk.MakeLink("/file-chain", "known/file");
  for (const char* path :
       {"/file-absolute", "/file-relative", "/known/file", "/file-chain", "/known/../file-chain"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(Read(plain.get(), path), kSecret);
    ExpectMissing(path, OpeningRequests);
    EXPECT_EQ(Ask(ChmodRequest{.path = path, .mode = 0777})->result(), -1);
    EXPECT_EQ(Ask(ChownRequest{.path = path, .uid = 1})->result(), -1);
  }
}

TEST_F(ConfinedTest, ALinkToTheOutsideIsItselfOnTheDisk) {
  disk.MakeLink("/link", "../outside/secret.txt");
  const auto before = Snapshot(outside.path);
  EXPECT_EQ(Ask(AttrRequest{.path = "/link"})->stat.st_mode, S_IFLNK | 0777);
  EXPECT_EQ(Ask(LinkRequest{.path = "/link", .new_path = "/twin"})->result, 0);
  EXPECT_EQ(Ask(RenameRequest{.path = "/link", .new_path = "/known/link"})->result, 0);
  EXPECT_TRUE(fs::is_symlink(disk.Local("/known/link")));
  EXPECT_EQ(Ask(UnlinkRequest{.path = "/known/link"})->result(), 0);
  EXPECT_EQ(Ask(UnlinkRequest{.path = "/twin"})->result(), 0);
  EXPECT_FALSE(disk.Exists("/known/link"));
  EXPECT_TRUE(Snapshot(outside.path) == before);
}

TEST_F(ConfinedTest, NothingIsMadeThroughADanglingLink) {
  disk.MakeLink("/dangling", "../outside/new");
  disk.MakeLink("/dangling-absolute", outside.path + "/new");
  const auto before = Snapshot(disk.letter());
  for (const std::string link : {"/dangling", "/dangling-absolute"}) {
    for (const char* rest : {"", "/", "/below", "/below/below"}) {
      SCOPED_TRACE(link + rest);
      EXPECT_EQ(Ask(CreateRequest{.path = link + rest})->result(), -1);
      EXPECT_EQ(Ask(MakeDirRequest{.path = link + rest})->head.result, -1);
      EXPECT_EQ(Ask(LinkRequest{.path = kKnownFile, .new_path = link + rest})->result, -1);
    }
  }
  EXPECT_TRUE(Snapshot(disk.letter()) == before);
}

TEST_F(ConfinedTest, BackslashesInADirectoryToBeMadeDoNotLeadOut) {
  const auto before = Snapshot(outside.path);
  disk.MakeLink("/relative", "../outside");
  for (const char* path :
       {"/..\\outside\\made", "\\..\\outside\\made", "\\..\\outside/made\\",
        "/known\\..\\..\\outside\\made", "/relative\\made", "/no\\..\\..\\outside\\made",
        "/no/..\\../outside/made", "2\\made", "/..\\..\\..\\..\\..\\made-by-a-test"}) {
    EXPECT_EQ(Ask(MakeDirRequest{.path = path})->head.result, -1) << path;
  }
  // When a file is opened, a backslash is part of a name; when its missing parents are made, it
  // is a separator.
  for (const char* path :
       {"/no\\..\\..\\outside\\made/x", "/..\\outside\\made/x", "/relative\\made/x", "2\\made/x"}) {
    EXPECT_EQ(Ask(CreateRequest{.path = path})->result(), -1) << path;
  }
  EXPECT_TRUE(Snapshot(outside.path) == before);
  EXPECT_EQ(std::distance(fs::directory_iterator(disk.letter()), fs::directory_iterator()), 3);
}

TEST_F(ConfinedTest, TheNameOfAMountMakesNoDirectoryOutsideOfHome) {
  const std::string home = disk.letter() + "outside/dir";
  const FakeUser user(1000, home);
  const auto before = Snapshot(outside.path);
  for (const char* name : {"../made", "./../made", "../../outside/empty/made"}) {
    EXPECT_EQ(Ask(MountRequest{.name = name})->name, name);
  }
  EXPECT_TRUE(Snapshot(outside.path) == before);
}

TEST_F(ConfinedTest, AListingOfTheDiskShowsNothingOfTheDirectoryAbove) {
  struct stat above {};
  ASSERT_EQ(stat(disk.letter().c_str(), &above), 0);
  for (const char* path : {"", "/", "/.", "/known/.."}) {
    const std::vector<DirEntry> entries = Ask(DirReadRequest{.path = path})->Entries();
    EXPECT_EQ(entries.size(), 5U) << path;
    for (const DirEntry& entry : entries) {
      EXPECT_NE(entry.stat.st_ino, above.st_ino) << path << ": " << entry.name;
    }
  }
  // One level down, ".." is the disk itself, and is shown.
  struct stat top {};
  ASSERT_EQ(stat(disk.root().c_str(), &top), 0);
  const std::vector<DirEntry> below = Ask(DirReadRequest{.path = kKnownDir})->Entries();
  const auto up = std::ranges::find(below, "..", &DirEntry::name);
  ASSERT_NE(up, below.end());
  EXPECT_EQ(+up->stat.st_ino, top.st_ino);
}

// ---- Special files ----

TEST_F(ConfinedTest, FifosAndSocketsLookLikeMissingFiles) {
  ASSERT_EQ(mkfifo(disk.Local("/fifo").c_str(), 0666), 0);
  ASSERT_EQ(mkfifo(disk.Local("/full").c_str(), 0666), 0);
  disk.MakeLink("/known/fifo", "../full");
  const int full = open(disk.Local("/full").c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  ASSERT_EQ(write(full, kSecret, strlen(kSecret)), static_cast<ssize_t>(strlen(kSecret)));
  const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
  disk.Local("/socket").copy(address.sun_path, sizeof address.sun_path - 1);
  ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 1), 0);

  const auto begin = Clock::now();
  for (const char* path : {"/fifo", "/full", "/known/fifo", "/socket"}) {
    SCOPED_TRACE(path);
    ExpectMissing(path, OpeningRequests);
  }
  EXPECT_LT(Clock::now() - begin, kPatience);

  char left[100] = {};
  EXPECT_EQ(read(full, left, sizeof left), static_cast<ssize_t>(strlen(kSecret)));
  EXPECT_STREQ(left, kSecret);
  close(full);
  close(listener);
}

TEST_F(ConfinedTest, DevicesLookLikeMissingFiles) {
  constexpr int kMemoryDevices = 1;
  for (const auto& [path, minor] :
       std::map<const char*, int>{{"/null", 3}, {"/zero", 5}, {"/void", 7}}) {
    if (mknod(disk.Local(path).c_str(), S_IFCHR | 0666, makedev(kMemoryDevices, minor)) != 0) {
      GTEST_SKIP() << "cannot make a device node: " << strerror(errno);
    }
  }
  for (const char* path : {"/null", "/zero", "/void"}) {
    SCOPED_TRACE(path);
    ExpectMissing(path, OpeningRequests);
  }
}

TEST_F(ConfinedTest, SpecialFilesCanStillBeRenamedAndRemoved) {
  ASSERT_EQ(mkfifo(disk.Local("/fifo").c_str(), 0600), 0);
  EXPECT_EQ(Ask(AttrRequest{.path = "/fifo"})->stat.st_mode, S_IFIFO | 0600);
  EXPECT_EQ(Ask(ChmodRequest{.path = "/fifo", .mode = 0640})->result(), 0);
  EXPECT_EQ(Ask(RenameRequest{.path = "/fifo", .new_path = "/pipe"})->result, 0);
  EXPECT_EQ(Ask(UnlinkRequest{.path = "/pipe"})->result(), 0);
}

// ---- Races ----

/// Runs something again and again on a thread of its own.
class Meanwhile {
 public:
  explicit Meanwhile(std::function<void()> action)
      : thread_([this, action = std::move(action)] {
          while (!stop_) {
            action();
            ++rounds_;
          }
        }) {}
  ~Meanwhile() { Stop(); }
  Meanwhile(const Meanwhile&) = delete;
  Meanwhile& operator=(const Meanwhile&) = delete;
  void Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }
  [[nodiscard]] uint64_t Rounds() const { return rounds_; }

 private:
  std::atomic<bool> stop_ = false;
  std::atomic<uint64_t> rounds_ = 0;
  std::thread thread_;
};

TEST_F(ConfinedTest, ALinkThatIsSwappedInMeanwhileDoesNotLeadOut) {
  constexpr auto kRace = std::chrono::seconds(10);
  const std::string inside = "inside the disk!";
  disk.MakeDir("/swapped/empty");
  disk.MakeFile("/swapped/secret.txt", inside);
  disk.MakeLink("/link", "../outside");
  disk.MakeDir("/a/b/c");
  disk.MakeDir("/d");
  const auto before = Snapshot(outside.path);
  const auto siblings = Snapshot(disk.letter() + "DISK2");

  const std::string swapped = disk.Local("/swapped");
  const std::string link = disk.Local("/link");
  const std::string deep = disk.Local("/a/b/c");
  const std::string shallow = disk.Local("/c");
  Meanwhile flips([&] {
    renameat2(AT_FDCWD, swapped.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
    // Moves up the directory from which ".." is being resolved.
    rename(deep.c_str(), shallow.c_str());
    rename(shallow.c_str(), deep.c_str());
  });

  int let_in = 0;
  int kept_out = 0;
  int strange = 0;
  const auto expect_inside = [&](const std::string& data) {
    // The file may be empty, because it was just created.
    if (data == inside) ++let_in;
    if (data.empty()) ++kept_out;
    if (!data.empty() && data != inside) ++strange;
  };
  struct stat directory {};
  struct stat secret {};
  ASSERT_EQ(stat(outside.path.c_str(), &directory), 0);
  ASSERT_EQ(stat((outside.path + "/secret.txt").c_str(), &secret), 0);
  const std::string file = "/swapped/secret.txt";
  const std::string up = "/a/b/c/../../../../outside";
  const auto end = Clock::now() + kRace;
  while (Clock::now() < end) {
    Ask(WriteRequest{.path = file, .data = inside});
    expect_inside(Ask(ReadRequest{.path = file})->data);
    expect_inside(Ask(ReadRequest{.path = file, .size = 1 << 20})->data);
    expect_inside(Ask(SmallReadRequest{.records = {{.path = file}}})->records.at(0).data);
    // A name follows the two bytes of its length. Only `outside` has an entry "dir".
    const std::string listing = Ask(DirReadRequest{.path = "/swapped"})->listing;
    if (listing.find("secret.txt") != std::string::npos) ++let_in;
    if (listing.find(std::string("\0dir", 4)) != std::string::npos) ++strange;
    strange += static_cast<int>(Ask(DirReadRequest{.path = "/swapped/dir"})->entry_count);
    Ask(CreateRequest{.path = "/swapped/new.txt"});
    Ask(UnlinkRequest{.path = "/swapped/new.txt"});
    Ask(TruncateRequest{.path = file, .length = inside.size()});
    Ask(FsyncRequest{.path = file});
    Ask(ChmodRequest{.path = file, .mode = 0600});
    Ask(ChownRequest{.path = file, .uid = 0});
    Ask(MakeDirRequest{.path = "/swapped/made/below"});
    Ask(RemoveDirRequest{.path = "/swapped/made/below"});
    Ask(RemoveDirRequest{.path = "/swapped/made"});
    Ask(LinkRequest{.path = file, .new_path = "/taken"});
    Ask(UnlinkRequest{.path = "/taken"});
    Ask(RenameRequest{.path = "/f", .new_path = "/swapped/f"});
    Ask(RenameRequest{.path = "/f", .new_path = "/swapped/"});
    Ask(RenameRequest{.path = "/d", .new_path = "/swapped/d/"});
    Ask(RenameRequest{.path = "/swapped/d/", .new_path = "/d"});
    Ask(LinkRequest{.path = file, .new_path = "/swapped/"});
    Ask(RenameRequest{.path = "/swapped/f", .new_path = "/f"});
    Ask(RemoveDirRequest{.path = "/swapped/empty/"});
    strange += Ask(AttrRequest{.path = "/swapped/"})->stat.st_ino == directory.st_ino ? 1 : 0;
    strange += Ask(AttrRequest{.path = file})->stat.st_ino == secret.st_ino ? 1 : 0;
    strange += static_cast<int>(Ask(ReadRequest{.path = up + "/secret.txt"})->result);
    strange += static_cast<int>(Ask(AttrRequest{.path = up})->attr_length);
    strange += Ask(MakeDirRequest{.path = up + "/made"})->head.result == 0 ? 1 : 0;
    if (!disk.Exists("/f")) disk.MakeFile("/f", "no directory");
    Log().Clear();
  }
  flips.Stop();

  EXPECT_GT(flips.Rounds(), 100U);
  EXPECT_GT(let_in, 0);
  EXPECT_GT(kept_out, 0);
  EXPECT_EQ(strange, 0);
  EXPECT_TRUE(Snapshot(outside.path) == before);
  EXPECT_TRUE(Snapshot(disk.letter() + "DISK2") == siblings);
  EXPECT_EQ(std::distance(fs::directory_iterator(disk.letter()), fs::directory_iterator()), 3);
}

TEST_F(ConfinedTest, RenamesOnTheDiskDoNotDisturbPathsThatGoUp) {
  disk.MakeDir("/here");
  std::atomic<bool> ended = false;
  std::thread storm([&] {
    while (!ended) {
      rename(disk.Local("/here").c_str(), disk.Local("/there").c_str());
      rename(disk.Local("/there").c_str(), disk.Local("/here").c_str());
    }
  });
  std::string path = kKnownFile;
  for (int i = 0; i < 20; ++i) path = "/known/.." + path;
  int missed = 0;
  for (int i = 0; i < 5000; ++i) {
    if (Read(path) != "known content") ++missed;
  }
  ended = true;
  storm.join();
  EXPECT_EQ(missed, 0);
}

// ---- No mount point ----

TEST_F(ConfinedTest, EverythingIsMissingWhileTheMountPointIsEmpty) {
  const FakeUser user(1000, disk.letter() + "outside/empty");
  const auto no_mount = [&](const std::string& reason) {
    SCOPED_TRACE(reason);
    ASSERT_EQ(udisk->GetLocalMountPoint(), "");
    ExpectMissing(outside.path);
    ExpectMissing(disk.root());
    EXPECT_EQ(Read(disk.Local(kKnownFile)), "");
    EXPECT_EQ(Ask(AttrRequest{.path = "/"})->attr_length, 0);
    EXPECT_EQ(Ask(AttrRequest{.path = ""})->attr_length, 0);
    EXPECT_EQ(Ask(DirReadRequest{.path = "/"})->entry_count, 0);
    Mount();
    EXPECT_EQ(Read(kKnownFile), "known content");
  };
  Ask(MountRequest{.name = "made"});
  no_mount("100");
  Ask(UmountRequest{.name = "made"});
  no_mount("101");
  udisk->SetRootPath("", "");  // as after bad parameters
  no_mount("bad parameters");
  udisk->SetRootPath(std::string(256, 'x').c_str(), "");
  no_mount("too long");
}

TEST_F(ConfinedTest, EverythingIsMissingUntilADiskIsSet) {
  const Confine confine("1");
  MakeOperator();
  EXPECT_EQ(udisk->GetLocalMountPoint(), "/media/") << "the parent of mount points, not a disk";
  for (const char* path : {"", "/", "."}) {
    EXPECT_EQ(Ask(AttrRequest{.path = path})->attr_length, 0) << path;
    EXPECT_EQ(Ask(DirReadRequest{.path = path})->entry_count, 0) << path;
  }
  Mount();
  EXPECT_EQ(Read(kKnownFile), "known content");
}

TEST_F(ConfinedTest, EverythingIsMissingWhileTheDiskIsGone) {
  fs::rename(disk.root(), disk.letter() + "gone");
  const auto before = Snapshot(disk.letter());
  EXPECT_EQ(Ask(MakeDirRequest{.path = "/made"})->head.result, -1);
  EXPECT_EQ(Ask(CreateRequest{.path = "/made.txt"})->result(), -1);
  EXPECT_EQ(Ask(AttrRequest{.path = "/"})->attr_length, 0);
  EXPECT_TRUE(Snapshot(disk.letter()) == before) << "a mount point was made";
  fs::rename(disk.letter() + "gone", disk.root());
  EXPECT_EQ(Ask(CreateRequest{.path = "/made.txt"})->path, "/made.txt");
  EXPECT_TRUE(disk.Exists("/made.txt"));
}

// ---- What stays inside ----

TEST_F(ConfinedTest, LinksAndDotDotThatStayInsideWork) {
  disk.MakeFile("/known/deep/a.txt", "deep content");
  disk.MakeLink("/to-file", "known/deep/a.txt");
  disk.MakeLink("/to-dir", "known/deep");
  disk.MakeLink("/known/back", "../known/deep/../deep");
  disk.MakeLink("/chain", "to-dir");
  for (const char* path :
       {"/to-file", "/to-dir/a.txt", "/known/back/a.txt", "/chain/a.txt", "/known/../to-file",
        "/known/deep/../deep/a.txt", "//known//.//deep//a.txt", "/chain/../deep/a.txt",
        "/known/deep/../../known/deep/./a.txt"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(Read(path), "deep content");
    EXPECT_EQ(Ask(WriteRequest{.path = path, .data = "DEEP"})->head.size, 4);
    EXPECT_EQ(disk.ReadBack("/known/deep/a.txt"), "DEEP content");
    EXPECT_EQ(Ask(ChmodRequest{.path = path, .mode = 0640})->result(), 0);
    EXPECT_EQ(Ask(TruncateRequest{.path = path, .length = 12})->result(), 0);
    EXPECT_EQ(Ask(FsyncRequest{.path = path})->result(), 0);
    EXPECT_EQ(Ask(CreateRequest{.path = path})->path, path);
    disk.MakeFile("/known/deep/a.txt", "deep content");
  }
  for (const char* path : {"/to-dir", "/to-dir/", "/chain", "/known/back/.", "/known/deep/"}) {
    SCOPED_TRACE(path);
    EXPECT_EQ(Ask(DirReadRequest{.path = path})->entry_count, 3);
    const std::string made = std::string(path) + "/made/below";
    EXPECT_EQ(Ask(MakeDirRequest{.path = made})->head.result, 0);
    EXPECT_TRUE(disk.IsDir("/known/deep/made/below"));
    EXPECT_EQ(Ask(RemoveDirRequest{.path = made + "/"})->result(), 0);
    EXPECT_EQ(Ask(RemoveDirRequest{.path = std::string(path) + "/made"})->result(), 0);
  }
  EXPECT_EQ(Ask(RenameRequest{.path = "/to-dir/a.txt", .new_path = "/known/../b.txt"})->result, 0);
  EXPECT_EQ(Ask(LinkRequest{.path = "/known/../b.txt", .new_path = "/chain/a.txt"})->result, 0);
  EXPECT_EQ(Ask(UnlinkRequest{.path = "/known/back/../../b.txt"})->result(), 0);
  EXPECT_EQ(Read("/to-file"), "deep content");
}

TEST_F(ConfinedTest, ASlashAfterALinkMeansTheDirectoryAsInPlainMode) {
  disk.MakeLink("/to-dir", "known");
  disk.MakeLink("/to-file", "known.txt");
  for (const char* path :
       {"/to-dir/", "/to-dir/.", "/to-dir", "/known/", "/to-file/", "/known.txt/", "/none/"}) {
    const Request request = AttrRequest{.path = path};
    const std::optional<SentPacket> confined = AskRaw(request);
    std::swap(udisk, plain);
    const std::optional<SentPacket> expected = AskRaw(request);
    std::swap(udisk, plain);
    EXPECT_EQ(confined->payload, expected->payload) << path;
  }
}

TEST_F(ConfinedTest, ASlashAfterANewNameDemandsADirectoryAsInPlainMode) {
  disk.MakeFile("/file", "file");
  disk.MakeDir("/moved");
  disk.MakeDir("/target");
  disk.MakeLink("/link", "target");
  for (const char* path : {"/new/", "/new//", "/moved/", "/link/", "/", "", "/.", "/moved/.."}) {
    EXPECT_EQ(Ask(RenameRequest{.path = "/file", .new_path = path})->result, -1) << path;
    EXPECT_EQ(Ask(LinkRequest{.path = "/file", .new_path = path})->result, -1) << path;
  }
  EXPECT_EQ(disk.ReadBack("/file"), "file");
  EXPECT_FALSE(disk.Exists("/new"));
  EXPECT_EQ(Ask(RenameRequest{.path = "/moved", .new_path = "/link/"})->result, -1);
  EXPECT_EQ(Ask(RenameRequest{.path = "/moved", .new_path = "/new/"})->result, 0);
  EXPECT_TRUE(disk.Exists("/new"));
}

TEST_F(ConfinedTest, ModesAreThoseOfPlainModeWithoutTheSetIdBits) {
  const auto mode_of = [&](UDiskOperator* served, const Request& request, const std::string& path) {
    AnswerOf(served, request);
    struct stat st {};
    EXPECT_EQ(lstat(disk.Local(path).c_str(), &st), 0) << path;
    return st.st_mode;
  };
  constexpr mode_t kSetIds = S_ISUID | S_ISGID;
  for (const uint32_t mode : {0644U, 0100644U, 0104755U, 0102755U, 0107777U, 0xffffffffU, 0U}) {
    SCOPED_TRACE(mode);
    const auto created = [&](UDiskOperator* served, const std::string& path) {
      return mode_of(served, CreateRequest{.path = path, .mode = mode}, path);
    };
    const auto changed = [&](UDiskOperator* served, const std::string& path) {
      return mode_of(served, ChmodRequest{.path = path, .mode = static_cast<uint16_t>(mode)}, path);
    };
    const auto made = [&](UDiskOperator* served, const std::string& path) {
      return mode_of(served, MakeDirRequest{.path = path, .mode = static_cast<int16_t>(mode)},
                     path);
    };
    EXPECT_EQ(created(udisk.get(), "/confined"), created(plain.get(), "/plain") & ~kSetIds);
    EXPECT_EQ(changed(udisk.get(), "/confined"), changed(plain.get(), "/plain") & ~kSetIds);
    EXPECT_EQ(made(udisk.get(), "/confined-dir"), made(plain.get(), "/plain-dir") & ~kSetIds);
    EXPECT_EQ(changed(udisk.get(), "/confined-dir"), changed(plain.get(), "/plain-dir") & ~kSetIds);
    for (const char* path : {"/confined", "/plain", "/confined-dir", "/plain-dir"}) {
      disk.Remove(path);
    }
  }
}

TEST_F(ConfinedTest, ACreateThatMakesItsDirectoriesLeavesNothingOpen) {
  for (int i = 0; i < 100; ++i) {
    EXPECT_GE(Ask(CreateRequest{.path = "/new/" + std::to_string(i) + "/file"})->result(), 0);
  }
  udisk->Idle();
  EXPECT_TRUE(disk.Exists("/new/99/file"));
}  // the fixture checks the number of descriptors

TEST_F(ConfinedTest, ADeepTreeIsWalkedDownAndUp) {
  std::string deep;
  for (int i = 0; i < 60; ++i) deep += "/level " + std::to_string(i);
  EXPECT_EQ(Ask(MakeDirRequest{.path = deep})->head.result, 0);
  EXPECT_GE(Ask(CreateRequest{.path = deep + "/and/more.txt"})->result(), 0);
  EXPECT_EQ(Ask(WriteRequest{.path = deep + "/and/more.txt", .data = "down"})->head.size, 4);
  EXPECT_EQ(Read(deep + "/and/../and/more.txt"), "down");
  std::string and_up = deep;
  for (int i = 0; i < 60; ++i) and_up += "/..";
  EXPECT_EQ(Read(and_up + kKnownFile), "known content");
  EXPECT_EQ(Read(and_up + "/../outside/secret.txt"), "");
}

TEST_F(ConfinedTest, NamesAreTakenAsTheyAre) {
  for (const std::string& name :
       Texts{" ", "...", "..a", "a..", ".a", "-rf", "new\nline", "back\\slash", "%s%n", "\xff\xfe",
             "\u00e4\u20ac", "$(touch x)", std::string(255, 'n')}) {
    SCOPED_TRACE(name);
    const std::string path = "/" + name;
    const std::string renamed = "/known/" + name;
    EXPECT_GE(Ask(CreateRequest{.path = path})->result(), 0);
    EXPECT_EQ(Ask(WriteRequest{.path = path, .data = name})->head.size,
              static_cast<int32_t>(name.size()));
    EXPECT_EQ(Ask(RenameRequest{.path = path, .new_path = renamed})->result, 0);
    EXPECT_EQ(Read(renamed), name);
    EXPECT_EQ(Ask(AttrRequest{.path = renamed})->stat.st_size, static_cast<int64_t>(name.size()));
    EXPECT_EQ(Ask(DirReadRequest{.path = kKnownDir})->entry_count, 4);
    EXPECT_EQ(Ask(UnlinkRequest{.path = renamed})->result(), 0);
    EXPECT_FALSE(disk.Exists(path) || disk.Exists(renamed));
  }
}

TEST_F(ConfinedTest, OrdinaryRequestsAreAnsweredAsInPlainMode) {
  const FakeUser user(1000, outside.path);
  const TempDisk other;  // for the plain operator, so that both start with the same files
  other.MakeFile(kKnownFile, "known content");
  other.MakeDir(kKnownDir);
  disk.Remove("/known/deep");
  const auto answer = [&](UDiskOperator* served, const TempDisk& on, const Request& request) {
    served->SetRootPath(on.letter().c_str(), on.label().c_str());
    std::optional<Answer> reply = AnswerOf(served, request);
    // Inode and descriptor numbers, times, and the order of entries may differ.
    if (reply &&
        (request.cmd == kGetFileAttr || request.cmd == kDirRead || request.cmd == kCheckDir)) {
      reply->payload.resize(std::min(reply->payload.size(), request.payload.size()));
      if (request.cmd == kCheckDir) reply->payload.resize(sizeof(DirHead) + strlen(kKnownDir));
    }
    if (request.cmd == kFileCreate) {
      const auto result = reply->payload.substr(offsetof(CreateHead, result), 4);
      EXPECT_NE(result, std::string(4, '\xff'));
      reply->payload = Patched(reply->payload, offsetof(CreateHead, result), 0);
    }
    return reply;
  };
  for (const NamedRequest& named : OneRequestPerCommand()) {
    EXPECT_EQ(answer(udisk.get(), disk, named.request), answer(plain.get(), other, named.request))
        << named.name;
  }
  EXPECT_EQ(disk.ReadBack(kKnownFile), other.ReadBack(kKnownFile));
}

// ---- Long paths ----

size_t DirectoriesWalked() {
  const std::vector<LogLine> lines = Log().Lines();
  return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [](const LogLine& line) {
    return line.message.starts_with("pszDir:");
  }));
}

TEST_F(ConfinedTest, APathThatIsTooLongIsRefusedBeforeItIsWalked) {
  // Paths of slashes, and of components that all exist.
  std::string dots;
  while (dots.size() < 1 << 20) dots += "/.";
  for (const std::string& path :
       {std::string(1 << 20, '/'), Backslashed(std::string(1 << 20, '/')), dots,
        std::string(PATH_MAX, '/') + "new/file", std::string(PATH_MAX - disk.root().size(), '/')}) {
    Log().Clear();
    EXPECT_EQ(Ask(CreateRequest{.path = path})->result(), -1);
    EXPECT_EQ(Log().Messages(kError), Texts{"file_create failed errno: File name too long\\n"});
    EXPECT_EQ(Ask(MakeDirRequest{.path = path.substr(0, 65535)})->head.result, -1);
    EXPECT_EQ(DirectoriesWalked(), 0U);
  }
  EXPECT_FALSE(disk.Exists("/new"));
}

TEST_F(ConfinedTest, APathThatIsTooLongIsAnsweredAsInPlainMode) {
  std::string at = "/known";
  while (at.size() < PATH_MAX) at += "/.";
  for (const NamedRequest& named : RequestsIn(at)) {
    SCOPED_TRACE(named.name);
    Log().Clear();
    const std::optional<Answer> expected = AnswerOf(plain.get(), named.request);
    const Texts errors = Log().Messages(kError);
    Log().Clear();
    EXPECT_EQ(AnswerOf(udisk.get(), named.request), expected);
    EXPECT_EQ(Log().Messages(kError), errors);
  }
}

TEST_F(ConfinedTest, APathOfTheGreatestLengthIsServed) {
  std::string path = kKnownFile;
  while (disk.Local(path).size() + 1 < PATH_MAX) path = "/" + path;
  EXPECT_EQ(Read(path), "known content");
  EXPECT_EQ(Read("/" + path), "");
}

TEST_F(ConfinedTest, ConsecutiveSlashesAreOneStepOfTheWalk) {
  for (const char slash : {'/', '\\'}) {
    Log().Clear();
    const std::string name = slash == '/' ? "/new" : "/other";
    EXPECT_EQ(Ask(MakeDirRequest{.path = name + std::string(1000, slash) + "below"})->head.result,
              0);
    EXPECT_EQ(DirectoriesWalked(), 2U) << "the disk and the directory";
    EXPECT_TRUE(disk.IsDir(name + "/below"));
  }
}

// ---- A disk that goes and comes back ----

/// A disk in memory, mounted on a directory.
class MemoryDisk {
 public:
  explicit MemoryDisk(std::string at) : at_(std::move(at)) {
    mounted_ = mount("test", at_.c_str(), "tmpfs", 0, "size=1m") == 0;
  }
  ~MemoryDisk() {
    if (mounted_) umount2(at_.c_str(), MNT_DETACH);
  }
  MemoryDisk(const MemoryDisk&) = delete;
  MemoryDisk& operator=(const MemoryDisk&) = delete;
  [[nodiscard]] bool ok() const { return mounted_; }
  /// @return false when it is busy
  bool Unmount() {
    if (umount2(at_.c_str(), 0) == 0) mounted_ = false;
    return !mounted_;
  }
  bool WaitForUnmount() {
    const auto end = Clock::now() + kPatience;
    while (!Unmount() && Clock::now() < end) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return !mounted_;
  }

 private:
  const std::string at_;
  bool mounted_ = false;
};

TEST_F(ConfinedTest, AnotherDiskAtTheSamePlaceIsWrittenAtOnce) {
  EXPECT_EQ(Read(kKnownFile), "known content");
  {
    MemoryDisk another(disk.root());
    if (!another.ok()) GTEST_SKIP() << "cannot mount: " << strerror(errno);
    disk.MakeFile("/b.txt", "B");
    EXPECT_EQ(Ask(WriteRequest{.path = "/b.txt", .data = "C"})->head.size, 1);
    EXPECT_EQ(disk.ReadBack("/b.txt"), "C");
    EXPECT_GE(Ask(CreateRequest{.path = "/c.txt"})->result(), 0);
    EXPECT_TRUE(disk.Exists("/c.txt"));
    EXPECT_EQ(Read("/b.txt"), "C");
  }
  EXPECT_EQ(Ask(MakeDirRequest{.path = "/made"})->head.result, 0);
  EXPECT_TRUE(disk.IsDir("/made"));
  EXPECT_FALSE(disk.Exists("/c.txt"));
  EXPECT_EQ(Read(kKnownFile), "known content");
}

TEST_F(ConfinedTest, EverythingIsMissingWhileTheDiskIsUnmounted) {
  {
    MemoryDisk memory(disk.root());
    if (!memory.ok()) GTEST_SKIP() << "cannot mount: " << strerror(errno);
    disk.MakeFile(kKnownFile, "in memory");
    Mount();
    EXPECT_EQ(Read(kKnownFile), "in memory");
    udisk->Idle();
    EXPECT_TRUE(memory.Unmount());
  }
  const auto before = Snapshot(disk.letter());
  EXPECT_EQ(Read(plain.get(), kKnownFile), "known content") << "in the bare mount point";
  EXPECT_EQ(Read(kKnownFile), "");
  EXPECT_EQ(Ask(AttrRequest{.path = "/"})->attr_length, 0);
  EXPECT_EQ(Ask(DirReadRequest{.path = "/"})->entry_count, 0);
  for (const NamedRequest& named : OneRequestPerCommand()) {
    if (named.request.cmd == kMountRemote || named.request.cmd == kUmountRemote) continue;
    AnswerOf(udisk.get(), named.request);
  }
  EXPECT_TRUE(Snapshot(disk.letter()) == before) << "the mount point was changed";

  const MemoryDisk again(disk.root());
  ASSERT_TRUE(again.ok());
  disk.MakeFile(kKnownFile, "again");
  EXPECT_EQ(Read(kKnownFile), "again");
  EXPECT_EQ(Ask(WriteRequest{.path = kKnownFile, .data = "AGAIN"})->head.size, 5);
  EXPECT_EQ(disk.ReadBack(kKnownFile), "AGAIN");
  udisk->Idle();
}

TEST_F(ConfinedTest, ADiskThatWasNotAMountWhenItWasSetNeedNotBecomeOne) {
  EXPECT_EQ(Read(kKnownFile), "known content");
  MemoryDisk memory(disk.root());
  if (!memory.ok()) GTEST_SKIP() << "cannot mount: " << strerror(errno);
  EXPECT_TRUE(memory.Unmount());
  EXPECT_EQ(Ask(WriteRequest{.path = kKnownFile, .data = "KNOWN"})->head.size, 5);
  Mount();
  EXPECT_EQ(Read(kKnownFile), "KNOWN content");
}

TEST_F(ConfinedTest, AnotherDiskAtTheSamePlaceIsReadWithin100Milliseconds) {
  EXPECT_EQ(Read(kKnownFile), "known content");
  MemoryDisk another(disk.root());
  if (!another.ok()) GTEST_SKIP() << "cannot mount: " << strerror(errno);
  disk.MakeFile(kKnownFile, "another's content");
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(Read(kKnownFile), "another's content");
}

TEST_F(ConfinedTest, AnotherMountPointIsReadAtOnce) {
  const TempDisk another;
  another.MakeFile(kKnownFile, "another's content");
  std::string mount_point = disk.root();
  FileManagerLinux files([&] { return DiskRoot{.path = mount_point}; });
  const auto read = [&] {
    std::array<char, 64> buffer{};
    uint32_t error = 0;
    files.UdiskReadFile((mount_point + kKnownFile).c_str(), buffer.data(), 0, buffer.size(),
                        &error);
    return std::string(buffer.data());
  };
  EXPECT_EQ(read(), "known content");
  mount_point = another.root();
  EXPECT_EQ(read(), "another's content");
}

TEST_F(ConfinedTest, AfterAnIdleSecondTheDiskCanBeUnmounted) {
  MemoryDisk memory(disk.root());
  if (!memory.ok()) GTEST_SKIP() << "cannot mount: " << strerror(errno);
  disk.MakeFile(kKnownFile, "in memory");
  device.base().SetParams(DeviceParams(disk.root()));
  const Confine on("1");
  const std::unique_ptr<UDiskDriver> driver(
      static_cast<UDiskDriver*>(udisk_open(&device, "policy")));
  ASSERT_NE(driver, nullptr);
  ASSERT_TRUE(device.WaitForPackets(2));
  const auto ask = [&](const Request& request) {
    device.TakeSent();
    driver->onEvent(request.Packet(), 0);
    return device.WaitForPackets(1) ? device.TakeSent().at(0).payload : "no reply";
  };

  for (const Request& request : {Request(ReadRequest{.path = kKnownFile}),
                                 Request(WriteRequest{.path = kKnownFile, .data = "IN"}),
                                 Request(DirReadRequest{.path = "/"})}) {
    MemoryDisk again(disk.root());
    ASSERT_TRUE(again.ok());
    disk.MakeFile(kKnownFile, "in memory again");
    ask(request);
    EXPECT_TRUE(again.WaitForUnmount()) << request.cmd;
  }
  EXPECT_NE(ask(ReadRequest{.path = kKnownFile}).find("in memory"), std::string::npos);
  driver->Close(0);
  EXPECT_TRUE(memory.WaitForUnmount()) << "a closed driver keeps the disk busy";
}

// ---- A kernel that cannot confine ----

/// Makes openat2 fail with ENOSYS on the calling thread, for good.
bool ForgetOpenat2() {
  sock_filter filter[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat2, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog program{.len = std::size(filter), .filter = filter};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_F(ConfinedTest, WithoutOpenat2EverythingIsMissingInsideToo) {
  bool forgotten = false;
  std::thread([&] {
    forgotten = ForgetOpenat2();
    if (!forgotten) return;
    disk.MakeDir("/tree/dir");
    disk.MakeDir("/tree/empty");
    disk.MakeFile("/tree/secret.txt", "of the disk");
    EXPECT_EQ(Read(plain.get(), "/tree/secret.txt"), "of the disk");
    ExpectMissing("/tree");
    ExpectMissing("/../outside");
    EXPECT_EQ(Ask(AttrRequest{.path = "/"})->attr_length, 0);
    EXPECT_EQ(Ask(DirReadRequest{.path = "/"})->entry_count, 0);
  }).join();
  if (!forgotten) GTEST_SKIP() << "no system call filters here: " << strerror(errno);
  EXPECT_EQ(Read(kKnownFile), "known content") << "on a thread with openat2";
}

// ---- Log ----

size_t LinesAboutConfining() {
  const std::vector<LogLine> lines = Log().Lines();
  return static_cast<size_t>(std::count_if(lines.begin(), lines.end(), [](const LogLine& line) {
    return line.message.find("CONFINE") != std::string::npos;
  }));
}

TEST_F(ConfinedTest, OneDebugLineSaysWhetherPathsAreConfined) {
  for (const auto& [value, shown] : {std::pair{static_cast<const char*>(nullptr), "not set"},
                                     std::pair{"", ""}, std::pair{"0", "0"}}) {
    Log().Clear();
    MakePlain(value);
    EXPECT_EQ(LinesAboutConfining(), 1U);
    EXPECT_EQ(Log().Count(kDebug, std::string("[UDisk] CONFINE=") + shown +
                                      ": paths may lead out of the mount point"),
              1U);
  }
  Log().Clear();
  MakeConfined();
  Read(kKnownFile);
  EXPECT_EQ(LinesAboutConfining(), 1U);
  EXPECT_EQ(Log().Count(kDebug, "[UDisk] CONFINE=1: no path leads out of the mount point"), 1U);
}

/// The descriptors on which this process has `path` open.
std::vector<int> DescriptorsOf(const std::string& path) {
  std::vector<int> descriptors;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (fs::read_symlink(entry.path(), gone) != path) continue;
    descriptors.push_back(std::stoi(entry.path().filename()));
  }
  return descriptors;
}

TEST_F(ConfinedTest, TheOpenMountPointIsNotPassedToOtherPrograms) {
  Read(kKnownFile);
  const std::vector<int> open = DescriptorsOf(disk.root());
  ASSERT_EQ(open.size(), 1U);
  EXPECT_EQ(fcntl(open[0], F_GETFD), FD_CLOEXEC);
  udisk->Idle();
}

TEST_F(ConfinedTest, TheMountPointIsClosedWhenItIsCleared) {
  Read(kKnownFile);
  EXPECT_EQ(DescriptorsOf(disk.root()).size(), 1U);
  udisk->SetRootPath(nullptr, nullptr);
  EXPECT_TRUE(DescriptorsOf(disk.root()).empty());
}

TEST_F(ConfinedTest, TheMountPointIsClosedByCloseAlthoughTheHostHoldsTheOperator) {
  udisk->Idle();  // else it has the mount point open, too
  device.base().SetParams(DeviceParams(disk.root()));
  const Confine on("1");
  const std::unique_ptr<CpdDriver> driver(udisk_open(&device, "policy"));
  ASSERT_NE(driver, nullptr);
  ASSERT_TRUE(device.WaitForPackets(2));
  driver->onEvent(Request(ReadRequest{.path = kKnownFile}).Packet(), 0);
  EXPECT_TRUE(device.WaitForPackets(3)) << "notice, announcement, reply";
  const std::shared_ptr<DriverObj> held = driver->GetDriverObj();
  driver->Close(0);
  EXPECT_TRUE(DescriptorsOf(disk.root()).empty());
}

TEST_F(ConfinedTest, ChangingTheVariableLaterChangesNothing) {
  const Confine off("0");
  EXPECT_EQ(Read("/../outside/secret.txt"), "");
  setenv(kVariable, "1", 1);
  EXPECT_EQ(Read(plain.get(), "/../outside/secret.txt"), kSecret);
}

TEST_F(ConfinedTest, AWayOutIsLoggedAsAMissingFile) {
  disk.MakeLink("/link", "/etc");
  disk.MakeLink("/magic", "/proc/self/exe");
  ASSERT_EQ(mkfifo(disk.Local("/fifo").c_str(), 0600), 0);
  for (const char* path : {"/../outside/secret.txt", "/link/passwd", "/magic", "/fifo", "/none"}) {
    SCOPED_TRACE(path);
    Log().Clear();
    Read(path);
    EXPECT_EQ(Log().Messages(kError),
              Texts{"file_read failed res:0 errno: No such file or directory\\n"});
    Log().Clear();
    Ask(WriteRequest{.path = std::string(path) + "/below", .data = "x"});
    Ask(DirReadRequest{.path = std::string(path) + "/below"});
    Ask(AttrRequest{.path = std::string(path) + "/below/below"});
    Ask(TruncateRequest{.path = std::string(path) + "/below", .length = 1});
    for (const std::string& line : Log().Messages(kError)) {
      EXPECT_EQ(line.find("cross-device"), std::string::npos) << line;
      EXPECT_EQ(line.find("Bad file descriptor"), std::string::npos) << line;
    }
  }
}

}  // namespace
}  // namespace cpd::test
