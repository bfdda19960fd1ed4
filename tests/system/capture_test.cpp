// What `--record` writes is shown by Wireshark, and replayed on an equal disk without a difference.
#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

bool HasTshark() { return Shell("command -v tshark").status == 0; }

/// What tshark prints, without its warning against root.
std::string Tshark(const std::string& arguments) {
  return Shell("tshark " + arguments +
               " -X lua_script:" DISSECTOR " 2>&1 | grep -v '^Running as user'")
      .output;
}

/// Expects that Wireshark names each packet's command, finds nothing malformed, and shows how long
/// answers took.
/// @param commands  must be among them
void ExpectShown(const std::string& capture, const std::vector<std::string>& commands) {
  SCOPED_TRACE(capture);
  std::set<std::string> shown;
  size_t timed = 0;
  std::istringstream lines(
      Tshark("-r " + capture + " -T fields -e _ws.col.Protocol -e _ws.col.Info -e cpd.time"));
  const std::regex fields("CPD\t([a-z_]+)( [^\t]*)?\t([0-9.]*)");
  for (std::string line; std::getline(lines, line);) {
    std::smatch parts;
    EXPECT_TRUE(std::regex_match(line, parts, fields)) << line;
    if (parts.empty()) continue;
    shown.insert(parts[1]);
    if (parts[3].length() > 0) ++timed;
  }
  for (const auto& command : commands) EXPECT_EQ(shown.count(command), 1U) << command;
  EXPECT_GT(timed, 10U);
  EXPECT_EQ(Tshark("-r " + capture +
                   " -Y 'cpd.malformed || _ws.malformed || cpd.unknown || cpd.excess || "
                   "_ws.lua.error'"),
            "");
}

class Captures : public MountTest {
 protected:
  Captures() {
    WriteFile(disk / "hello.txt", "Hello from a disk.\n");
    WriteFile(disk / "shopping list.txt", "milk\nbread\n");
    fs::create_directory(disk / "photos");
    for (const char* name : {"photo 1.jpg", "photo 2.jpg", "photo 3.jpg"}) {
      WriteFile((disk / "photos/") + name, Bytes(100'000));
    }
    WriteFile(disk / "film.mp4", Bytes(3'000'000));
    fs::copy(disk.path(), copy / "disk", fs::copy_options::recursive);
  }

  /// Looks at the disk as the tour does.
  void Tour(const std::vector<std::string>& options, bool reads_hello) {
    MountedDisk mounted(disk.path(), options);
    const auto shown = mounted.path();
    EXPECT_EQ(Shell("ls -l " + shown + " " + shown + "/photos && df " + shown).status, 0);
    if (reads_hello) {
      EXPECT_EQ(ReadFile(mounted / "hello.txt"), "Hello from a disk.\n");
    }
    EXPECT_EQ(ReadFile(mounted / "film.mp4"), Bytes(3'000'000));
    EXPECT_EQ(mounted.Unmount().status, 0);
  }
  /// Records what run.sh shows, with and without a mount.
  void TourEverything() {
    Tour({"--record", capture}, true);
    Tour({"--record", capture, "--bandwidth", "100000"}, false);
    for (const std::string command : {"ls", "cat", "df"}) {
      const auto arguments = Quoted(disk.path()) + (command == "cat" ? " film.mp4" : "");
      EXPECT_EQ(
          Shell(CPD_HOST " " + command + " " + arguments + " --record " + capture + " >/dev/null")
              .status,
          0)
          << command;
    }
  }
  Result Replay(const std::string& options = "--fast") const {
    return Shell(CPD_HOST " replay " + capture + " " + (copy / "disk") + " " + options, kHang);
  }

  TempDir copy;
  const std::string capture = copy / "capture";
};

TEST_F(Captures, OfATourAreReplayedWithoutADifference) {
  TourEverything();
  const auto replayed = Replay();
  EXPECT_EQ(replayed.status, 0) << replayed.output;
  EXPECT_NE(replayed.output.find(" 0 different"), std::string::npos) << replayed.output;

  // One byte of one file is another one.
  WriteFile(copy / "disk/hello.txt", "Hello from a Disk.\n");
  const auto changed = Replay();
  EXPECT_EQ(changed.status, 1);
  EXPECT_NE(changed.output.find(" /hello.txt: data differs at byte 13\n"), std::string::npos)
      << changed.output;
  EXPECT_NE(changed.output.find(" 1 different"), std::string::npos) << changed.output;
}

TEST_F(Captures, OfATourAreShownByWireshark) {
  if (!HasTshark()) GTEST_SKIP() << "no tshark here";
  TourEverything();
  ExpectShown(capture, {"mount_remote", "small_file_notice", "mount_response", "get_file_attr",
                        "dir_read", "file_read", "get_statvfs"});
}

TEST_F(Captures, OfAGitCloneAreReplayedInTheirOrder) {
  const TempDir place;
  const auto repository = place / "repository";
  const auto made = Shell("git init -q " + repository + " && cd " + repository +
                          " && seq 1000 >a && mkdir b && seq 9 >b/c && git add -A && "
                          "git -c user.name=a -c user.email=a@b commit -qm one 2>&1");
  ASSERT_EQ(made.status, 0) << made.output;
  {
    MountedDisk mounted(disk.path(), {"--record", capture});
    const auto cloned =
        Shell("git clone -q --no-hardlinks " + repository + " " + (mounted / "clone") +
              " && git -C " + (mounted / "clone") + " status 2>&1");
    EXPECT_EQ(cloned.status, 0) << cloned.output;
    EXPECT_EQ(mounted.Unmount().status, 0);
  }
  const auto replayed = Replay();
  EXPECT_EQ(replayed.status, 0) << replayed.output;
  EXPECT_EQ(Shell("diff -r " + (disk / "clone") + " " + (copy / "disk/clone")).status, 0);
}

TEST_F(Captures, AreReplayedAtTheirOwnPace) {
  {
    MountedDisk mounted(disk.path(), {"--record", capture});
    EXPECT_EQ(
        Shell("stat " + (mounted / "hello.txt") + " && sleep 0.7 && stat " + (mounted / "film.mp4"))
            .status,
        0);
    EXPECT_EQ(mounted.Unmount().status, 0);
  }
  const auto began = std::chrono::steady_clock::now();
  const auto replayed = Replay("");
  EXPECT_EQ(replayed.status, 0) << replayed.output;
  EXPECT_GE(std::chrono::steady_clock::now() - began, 600ms);
}

TEST_F(Captures, ThatAreBrokenAreRefusedBeforeAnythingIsDone) {
  {
    MountedDisk mounted(disk.path(), {"--record", capture});
    WriteFile(mounted / "new.txt", "new");
    EXPECT_EQ(mounted.Unmount().status, 0);
  }
  const auto whole = ReadFile(capture);
  WriteFile(capture, whole.substr(0, whole.size() - 1));
  const auto cut = Replay();
  EXPECT_EQ(cut.status, 1);
  EXPECT_NE(cut.output.find("the capture ends within a block"), std::string::npos) << cut.output;
  WriteFile(capture, "a letter");
  const auto other = Replay();
  EXPECT_EQ(other.status, 1);
  EXPECT_EQ(other.output, "cpd-host: cannot replay " + capture + ": it is no capture\n");
  EXPECT_FALSE(fs::exists(copy / "disk/new.txt"));
}

TEST_F(Captures, WhoseWritesAreCutAreRefusedBeforeAnythingIsDone) {
  {
    MountedDisk mounted(disk.path(), {"--record", capture, "--record-bytes", "0"});
    WriteFile(mounted / "new.txt", "new");
    EXPECT_EQ(mounted.Unmount().status, 0);
  }
  const auto replayed = Replay();
  EXPECT_EQ(replayed.status, 1);
  EXPECT_NE(replayed.output.find("is a request that is not recorded in full"), std::string::npos)
      << replayed.output;
  EXPECT_FALSE(fs::exists(copy / "disk/new.txt"));
}

/// Does on a mount what needs most of the commands.
Result UseMostCommands(const std::string& mount_point) {
  return Shell("ls -lR " + mount_point + " && cat " + mount_point + "/*.* | md5sum && cd " +
               mount_point +
               " && echo one >new && echo two >>new && sync new && mv new old && ln old twin && "
               "chmod 600 old && truncate -s 2 old && rm old twin && mkdir made && rmdir made && "
               "df .");
}

const std::vector<std::string> kMostCommands{
    "mount_remote", "small_file_notice", "mount_response", "get_file_attr", "dir_read",
    "file_create",  "file_read",         "file_write",     "file_truncate", "file_fsync",
    "file_chmod",   "set_rename",        "set_link",       "set_unlink",    "make_dir",
    "remove_dir",   "get_statvfs"};

TEST_F(Captures, OfBothSidesOfALineAreShownByWireshark) {
  if (!HasTshark()) GTEST_SKIP() << "no tshark here";
  const TempDir mount_point;
  const auto far = copy / "far";
  const std::string record = " --record " + Quoted(far);
  const std::string here = Quoted(disk.path());
  const std::string there = Quoted(mount_point.path());
  // Over there, the command opens its file before it shuts itself in.
  const std::vector<std::vector<std::string>> commands{
      {CPD_HOST, "mount", "--via", "exec " CPD_HOST " serve " + here + record, mount_point.path()},
      {CPD_HOST, "redirect", "--via", "exec " CPD_HOST " attach " + there + record, disk.path()}};
  for (auto command : commands) {
    SCOPED_TRACE(command[1]);
    command.insert(command.end(), {"--record", capture});
    Process near(command, copy / "out", copy / "err");
    ASSERT_TRUE(Eventually([&] { return IsMounted(mount_point.path()); }))
        << ReadFile(copy / "err");
    EXPECT_EQ(UseMostCommands(mount_point.path()).status, 0);
    EXPECT_EQ(Shell("umount " + mount_point.path()).status, 0);
    EXPECT_EQ(near.Wait(), 0) << ReadFile(copy / "err");
    // The other side may still be writing.
    EXPECT_EQ(Shell("flock " + far + " true").status, 0);
    for (const auto& file : {capture, far}) {
      ExpectShown(file, kMostCommands);
      fs::remove(file);
    }
  }
}

TEST_F(Captures, HaveEveryFieldOfTheProtocolInWireshark) {
  if (!HasTshark()) GTEST_SKIP() << "no tshark here";
  // Of all that Wireshark knows, only these: the whole list takes a sanitizer a minute to search.
  const auto known = Shell("tshark -G fields -X lua_script:" DISSECTOR " | grep 'cpd[.]'").output;
  const auto has = [&](const std::string& of, const std::string& field) {
    return known.find("\tcpd." + of + "." + field + "\t") != std::string::npos;
  };
  std::ifstream document(PROTOCOL_DOCUMENT);
  const std::regex heading("## [0-9]+ ([a-z_]+)");
  const std::regex row("\\| [0-9+ NPT]* \\| [^|]* \\| `([a-z_0-9]+)` \\|.*");
  std::string command;
  size_t fields = 0;
  for (std::string line; std::getline(document, line);) {
    std::smatch parts;
    if (line == "# The stream between two machines") break;
    if (std::regex_match(line, parts, heading)) command = parts[1];
    if (line.starts_with("## Bus event")) command.clear();
    if (command.empty() || !std::regex_match(line, parts, row)) continue;
    ++fields;
    EXPECT_TRUE(has(command, parts[1]) || has("piece", parts[1])) << command << " " << parts[1];
  }
  EXPECT_GT(fields, 50U);
}

}  // namespace
}  // namespace system_test
