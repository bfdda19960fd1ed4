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
  Result Replay(const std::string& options = "--fast") const {
    return Shell(CPD_HOST " replay " + capture + " " + (copy / "disk") + " " + options, kHang);
  }

  TempDir copy;
  const std::string capture = copy / "capture";
};

TEST_F(Captures, OfATourAreReplayedWithoutADifference) {
  Tour({"--record", capture}, true);
  Tour({"--record", capture, "--bandwidth", "100000"}, false);
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

TEST_F(Captures, OfBothSidesOfALineAreShownByWireshark) {
  if (!HasTshark()) GTEST_SKIP() << "no tshark here";
  const auto served = copy / "served";
  const TempDir mount_point;
  {
    // The side with the disk opens its file before it shuts itself in.
    Process mount({CPD_HOST, "mount", "--via",
                   "exec " CPD_HOST " serve " + Quoted(disk.path()) + " --record " + served,
                   mount_point.path(), "--record", capture},
                  copy / "out", copy / "err");
    ASSERT_TRUE(Eventually([&] { return IsMounted(mount_point.path()); }))
        << ReadFile(copy / "err");
    EXPECT_EQ(
        Shell("ls -lR " + mount_point.path() + " && cat " + mount_point.path() +
              "/*.* | md5sum && cd " + mount_point.path() +
              " && echo one >new && echo two >>new && sync new && mv new old && ln old twin && "
              "chmod 600 old && truncate -s 2 old && rm old twin && mkdir made && rmdir made && "
              "df .")
            .status,
        0);
    EXPECT_EQ(Shell("umount " + mount_point.path()).status, 0);
    EXPECT_EQ(mount.Wait(), 0) << ReadFile(copy / "err");
    // The other side may still be writing.
    EXPECT_EQ(Shell("flock " + served + " true").status, 0);
  }
  for (const auto& file : {capture, served}) {
    const auto summary = Tshark("-r " + file);
    std::set<std::string> commands;
    std::istringstream lines(summary);
    const std::regex shown(" CPD +[0-9]+ +([a-z_]+)( .*)?$");
    for (std::string line; std::getline(lines, line);) {
      std::smatch parts;
      EXPECT_TRUE(std::regex_search(line, parts, shown)) << line;
      if (!parts.empty()) commands.insert(parts[1]);
    }
    for (const char* command :
         {"mount_remote", "small_file_notice", "mount_response", "get_file_attr", "dir_read",
          "file_create", "file_read", "file_write", "file_truncate", "file_fsync", "file_chmod",
          "set_rename", "set_link", "set_unlink", "make_dir", "remove_dir", "get_statvfs"}) {
      EXPECT_EQ(commands.count(command), 1U) << command << " in " << file;
    }
    EXPECT_EQ(Tshark("-r " + file +
                     " -Y 'cpd.malformed || _ws.malformed || cpd.unknown || cpd.excess || "
                     "_ws.lua.error'"),
              "");
    const auto answers =
        Tshark("-r " + file + " -T fields -e cpd.time -Y 'cpd.answer_to && cpd.time >= 0'");
    EXPECT_GT(std::ranges::count(answers, '\n'), 10) << answers;
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
