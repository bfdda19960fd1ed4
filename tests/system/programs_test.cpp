// Programs that depend on every byte work on a mounted disk as on any other.
#include <unistd.h>

#include <filesystem>
#include <string>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

class Programs : public MountTest {
 protected:
  /// Skips the test if a program is missing.
  static void Need(const std::string& program) {
    if (Shell("command -v " + program).status != 0) GTEST_SKIP() << program << " is not installed";
  }

  /// Runs commands in a directory; the test fails if one of them fails.
  static std::string Run(const std::string& directory, const std::string& commands) {
    const auto result = Shell("set -e; cd " + Quoted(directory) + "\n" + commands, 600s);
    EXPECT_EQ(result.status, 0) << commands << '\n' << result.output;
    return result.output;
  }

  static void ExpectSameTree(const std::string& want, const std::string& got) {
    EXPECT_EQ(Run("/", "diff -r --brief " + Quoted(want) + " " + Quoted(got)), "");
    // Compare modes, too, but not the sizes of directories, which depend on the file system.
    const std::string list = "find . -type d -printf '%m %P\\n' -o -printf '%m %s %P\\n' | sort";
    EXPECT_EQ(Run(got, list), Run(want, list));
  }

  static void ExpectCleanEnd(MountedDisk& mounted) {
    const auto ending = mounted.Unmount();
    EXPECT_EQ(ending.status, 0) << ending.err;
  }

  /// Makes `count` files of all sizes up to 20 KB, some of them executable, in directories of 50.
  static void MakeTree(const std::string& root, int count) {
    for (int i = 0; i < count; ++i) {
      const auto directory = root + "/module" + std::to_string(i / 50) + "/src";
      fs::create_directories(directory);
      const auto file = directory + "/file" + std::to_string(i) + (i % 3 == 0 ? ".cpp" : ".h");
      WriteFile(file, Bytes(static_cast<size_t>(i) * 7919 % 20'000, i));
      if (i % 10 == 0) fs::permissions(file, fs::perms{0755});
    }
    fs::create_directories(root + "/empty/nested");
    WriteFile(root + "/empty file", "");
  }

  TempDir place;
};

TEST_F(Programs, GitKeepsARepositoryAndServesClones) {
  Need("git");
  if (IsSkipped()) return;
  const std::string git =
      "export HOME=/nonexistent GIT_CONFIG_NOSYSTEM=1 GIT_AUTHOR_NAME=a GIT_AUTHOR_EMAIL=a@b "
      "GIT_COMMITTER_NAME=a GIT_COMMITTER_EMAIL=a@b\n";
  MountedDisk mounted(disk.path());
  Run(mounted.path(), git + "git init -q repository");
  MakeTree(mounted / "repository", 2000);
  Run(mounted / "repository",
      git + "git add -A && git commit -q -m first && git fsck --strict --no-progress");
  Run(mounted / "repository",
      git +
          "git mv module1 renamed && git commit -q -m second && git gc -q && "
          "git fsck --strict --no-progress");
  EXPECT_EQ(Run(mounted / "repository", git + "git status --porcelain"), "");
  EXPECT_EQ(Run(mounted / "repository", git + "git ls-files | wc -l"), "2001\n");
  Run(place.path(), git + "git clone -q " + (mounted / "repository") + " clone");
  ExpectCleanEnd(mounted);
  EXPECT_EQ(Run("/", "diff -r --brief -x .git -x empty " + (disk / "repository") + " " +
                         (place / "clone")),
            "");
  EXPECT_EQ(Run(disk / "repository", git + "git fsck --strict --no-progress"), "");
}

TEST_F(Programs, TarUnpacksASourceTree) {
  Need("tar");
  if (IsSkipped()) return;
  MakeTree(place / "source", 1000);
  Run(place.path(), "tar cf source.tar source");
  MountedDisk mounted(disk.path());
  Run(mounted.path(), "tar xpf " + (place / "source.tar"));
  ExpectSameTree(place / "source", mounted / "source");
  ExpectCleanEnd(mounted);
  ExpectSameTree(place / "source", disk / "source");
}

TEST_F(Programs, SqliteInsertsInTransactions) {
  Need("sqlite3");
  if (IsSkipped()) return;
  std::string script =
      "CREATE TABLE t (id INTEGER PRIMARY KEY, text TEXT); CREATE INDEX i ON t "
      "(text);\n";
  for (int transaction = 0; transaction < 100; ++transaction) {
    script += "BEGIN;\n";
    for (int i = 0; i < 100; ++i) {
      script += "INSERT INTO t (text) VALUES (hex(randomblob(40)));\n";
    }
    // Every tenth transaction deletes all rows and rolls that back, which reads the journal.
    script += transaction % 10 == 9 ? "SAVEPOINT s; DELETE FROM t; ROLLBACK TO s; COMMIT;\n"
                                    : "COMMIT;\n";
  }
  script += "BEGIN; UPDATE t SET text = ''; ROLLBACK;\n";
  WriteFile(place / "script", script);
  const std::string check =
      "PRAGMA integrity_check; SELECT count(*), count(DISTINCT text), max(id) FROM t;";
  const std::string fine = "ok\n10000|10000|10000\n";
  MountedDisk mounted(disk.path());
  EXPECT_EQ(Run(mounted.path(), "sqlite3 -bail database <" + (place / "script")), "");
  EXPECT_EQ(Run(mounted.path(), "sqlite3 database '" + check + "'"), fine);
  EXPECT_FALSE(fs::exists(mounted / "database-journal"));
  ExpectCleanEnd(mounted);
  EXPECT_EQ(Run(disk.path(), "sqlite3 database '" + check + "'"), fine);
}

TEST_F(Programs, CpCopiesTheSystemsHeaders) {
  // Links are followed, because the mount cannot make any. Dangling links are left out.
  Shell("cp -rL /usr/include " + (place / "include") + " 2>/dev/null", 600s);
  ASSERT_GT(std::stoi(Run(place.path(), "find include -type f | wc -l")), 0);
  MountedDisk mounted(disk.path());
  Run(place.path(), "cp -r include " + mounted.path());
  ExpectSameTree(place / "include", mounted / "include");
  ExpectCleanEnd(mounted);
  ExpectSameTree(place / "include", disk / "include");
}

TEST_F(Programs, RsyncTransfersWhatDiffersAndNothingElse) {
  Need("rsync");
  if (IsSkipped()) return;
  MakeTree(place / "source", 500);
  WriteFile(place / "source/large", Bytes(3'000'000));
  MountedDisk mounted(disk.path());
  const std::string sync = "rsync -r --checksum --perms --delete --itemize-changes ";
  const std::string both = (place / "source/") + " " + (mounted / "copy");
  Run("/", sync + both);
  EXPECT_EQ(Run("/", sync + both), "") << "a file is transferred again";
  WriteFile(place / "source/empty file", "not any more");
  Run(place / "source", "rm -r module0; printf x | dd of=large bs=1 seek=2000000 conv=notrunc");
  Run("/", sync + "--no-whole-file --inplace " + both);
  ExpectSameTree(place / "source", mounted / "copy");
  ExpectCleanEnd(mounted);
  ExpectSameTree(place / "source", disk / "copy");
}

class Fio : public Programs {
 protected:
  void SetUp() override {
    Programs::SetUp();
    if (!IsSkipped()) Need("fio");
  }
  /// Two jobs write files of blocks with checksums, and read them back.
  static void WriteAndVerify(const std::string& directory, const std::string& options) {
    const auto output =
        Run(directory,
            "fio --name=job --numjobs=2 --group_reporting --directory=. --ioengine=psync "
            "--fallocate=none --verify=crc32c --verify_fatal=1 --end_fsync=1 " +
                options);
    EXPECT_NE(output.find("err= 0"), std::string::npos) << output;
  }
};

TEST_F(Fio, VerifiesRandomWrites) {
  MountedDisk mounted(disk.path());
  WriteAndVerify(mounted.path(), "--rw=randwrite --bs=4k --size=24m");
  ExpectCleanEnd(mounted);
}

TEST_F(Fio, VerifiesRandomWritesOfOddSizes) {
  MountedDisk mounted(disk.path());
  WriteAndVerify(mounted.path(), "--rw=randwrite --bsrange=512-200k --bs_unaligned --size=24m");
  ExpectCleanEnd(mounted);
}

TEST_F(Fio, VerifiesSequentialWrites) {
  MountedDisk mounted(disk.path());
  WriteAndVerify(mounted.path(), "--rw=write --bs=1m --size=64m");
  ExpectCleanEnd(mounted);
}

}  // namespace
}  // namespace system_test
