// Whichever process of a line is killed in the middle of whatever work: all that a returned fsync
// promised is on the disk, and nothing is left over. The work does not even notice, unless the
// killed process had the mount or was the command that set the line up.
#include <signal.h>

#include <algorithm>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <tuple>
#include <vector>

#include "line_processes.h"
#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

// ---- The processes ----

enum class Fate {
  kWorkGoesOn,
  kMountComesBack,  ///< the work fails
  kAllEnds,
};

struct Target {
  const char* name;
  const char* command;  ///< an argument on the process's command line
  /// Which of the processes with that argument, in the order in which they started.
  size_t index;
  bool is_redirection;
  Fate fate;
};

// A command starts the process that watches its starter, and that one starts the starter.
constexpr size_t kFirst = 0;
constexpr size_t kWatcher = 1;
constexpr size_t kStarter = 2;

const std::vector<Target>& Targets() {
  static const std::vector<Target> targets{
      {"Mount", "mount", kFirst, false, Fate::kAllEnds},
      {"StarterOfMount", "mount", kStarter, false, Fate::kWorkGoesOn},
      {"WatcherOfMount", "mount", kWatcher, false, Fate::kWorkGoesOn},
      {"LineOfMount", "-c", kFirst, false, Fate::kWorkGoesOn},
      {"Serve", "serve", kFirst, false, Fate::kWorkGoesOn},
      {"Redirect", "redirect", kFirst, true, Fate::kAllEnds},
      {"StarterOfRedirect", "redirect", kStarter, true, Fate::kWorkGoesOn},
      {"LineOfRedirect", "-c", kFirst, true, Fate::kWorkGoesOn},
      {"Attach", "attach", kFirst, true, Fate::kMountComesBack},
      {"StarterOfAttach", "attach", kStarter, true, Fate::kWorkGoesOn},
  };
  return targets;
}

// ---- The work ----

/// Shell commands that do a piece of work, $i, in the directory $work, and end with 0 once all of
/// it is synced; and commands that tell whether it is all there.
struct Work {
  const char* name;
  int pieces;
  const char* prepare;  ///< in the directory $source, which is not on the disk
  const char* piece;
  const char* check;
};

const std::vector<Work>& Works() {
  static const std::vector<Work> works{
      {"Records", 60, "true", R"(echo "record $i" >>$work/log && sync $work/log)",
       R"(grep -qx "record $i" $work/log)"},
      {"Copying", 8,
       "for n in $(seq 60); do mkdir -p d$((n % 7)) && head -c $((n * 1500)) /dev/urandom "
       ">d$((n % 7))/$n || exit 1; done",
       "cp -r $source $work/copy$i && find $work/copy$i -type f -exec sync {} +",
       "diff -r $source $work/copy$i"},
      {"Cloning", 6,
       "git init -q && for n in $(seq 40); do head -c 9000 /dev/urandom >$n; done && git add . && "
       "git -c user.name=n -c user.email=e commit -q -m one",
       // Git makes missing directories above a clone, but does not begin in a missing one.
       "git -C $work -c core.fsync=all clone -q --no-local $source clone$i",
       "git -C $work/clone$i fsck --strict --no-progress && "
       "test $(git -C $work/clone$i rev-parse HEAD) = $(git -C $source rev-parse HEAD)"},
      {"Transactions", 30, "true",
       R"sh(sqlite3 -bail $work/db "PRAGMA synchronous=FULL; PRAGMA cache_size=10;
          CREATE TABLE IF NOT EXISTS t(n INTEGER PRIMARY KEY, b BLOB);
          BEGIN; INSERT INTO t VALUES($i, randomblob(200000));
          UPDATE t SET b = randomblob(30000) WHERE n = $i / 2; COMMIT;")sh",
       R"sh(test "$(sqlite3 $work/db "PRAGMA integrity_check; SELECT n FROM t WHERE n = $i" |
            tr '\n' ' ')" = "ok $i ")sh"},
  };
  return works;
}

// ---- The tests ----

class LineKills : public LineProcesses,
                  public testing::WithParamInterface<std::tuple<Target, Work>> {
 protected:
  // $work is a directory on the disk, so that the work fails once the disk is no longer mounted.
  std::string Variables(const std::string& disk_or_mount) const {
    return "export HOME=" + place.path() + "; source=" + source.path() + "; work=" + disk_or_mount +
           "/work; ";
  }
  size_t Promised() const {
    const auto pieces = ReadFile(promised);
    return static_cast<size_t>(std::ranges::count(pieces, '\n'));
  }

  const TempDir source;
  const std::string promised = place / "promised";
};

TEST_P(LineKills, LoseNothingThatWasSynced) {
  const auto& target = std::get<0>(GetParam());
  const auto& work = std::get<1>(GetParam());
  fs::create_directory(disk / "work");
  ASSERT_EQ(Shell("cd " + source.path() + " && " + work.prepare).status, 0);
  target.is_redirection ? StartRedirect() : StartMount();

  auto working = std::async(std::launch::async, [&] {
    return Shell(Variables(mount_point) + "for i in $(seq " + std::to_string(work.pieces) +
                 "); do { " + work.piece + "; } && echo $i >>" + promised + " || exit 1; done");
  });
  ASSERT_TRUE(Eventually([&] { return Promised() >= 2; }));
  usleep(10'000);  // into the next piece
  auto processes = ProcessesOf(target.command);
  std::ranges::sort(processes);
  ASSERT_GT(processes.size(), target.index);
  kill(processes[target.index], SIGKILL);
  EXPECT_LT(Promised(), static_cast<size_t>(work.pieces))
      << "the work was too fast to be disturbed";
  const auto result = working.get();

  switch (target.fate) {
    case Fate::kWorkGoesOn:
      EXPECT_EQ(result.status, 0) << result.output << ReadFile(place / "err");
      EXPECT_EQ(Promised(), work.pieces);
      ExpectEndsWhenAsked();
      break;
    case Fate::kMountComesBack:
      EXPECT_NE(result.status, 0);
      ExpectServed();
      ExpectEndsWhenAsked();
      break;
    case Fate::kAllEnds:
      EXPECT_NE(result.status, 0);
      EXPECT_EQ(host->Wait(), 128 + SIGKILL);
      ExpectCleanSoon();
      break;
  }
  const auto checked = Shell(Variables(disk.path()) + "for i in $(cat " + promised + "); do { " +
                             work.check + "; } || { echo piece $i is missing; exit 1; }; done");
  EXPECT_EQ(checked.status, 0) << checked.output;
}

INSTANTIATE_TEST_SUITE_P(OfEach, LineKills,
                         testing::Combine(testing::ValuesIn(Targets()), testing::ValuesIn(Works())),
                         [](const auto& parameters) {
                           return std::string(std::get<0>(parameters.param).name) + "During" +
                                  std::get<1>(parameters.param).name;
                         });

}  // namespace
}  // namespace system_test
