#include "ratios.h"

#include <sched.h>

#include <functional>
#include <vector>

#include "loads.h"
#include "ratio_table.h"

namespace cpd::bench {

namespace {

/// While an instance exists, this thread and those that it starts run on one core.
class PinnedToOneCore {
 public:
  explicit PinnedToOneCore(bool pinned) {
    sched_getaffinity(0, sizeof before_, &before_);
    if (!pinned) return;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof one, &one);
  }
  ~PinnedToOneCore() { sched_setaffinity(0, sizeof before_, &before_); }
  PinnedToOneCore(const PinnedToOneCore&) = delete;
  PinnedToOneCore& operator=(const PinnedToOneCore&) = delete;

 private:
  cpu_set_t before_{};
};

struct Row {
  std::string name;
  int operations;  ///< per turn; enough for some hundredths of a second
  std::function<Load()> make_base;
  std::function<Load()> make_compared;
  enum Kind { kShareOfTheBasesRate, kTimesTheBasesTime } kind;
  double bound;  ///< the lowest allowed share of the rate, or the highest multiple of the time
  bool one_core = true;  ///< pinned to one core; false where parallel work is measured
};

/// @param memory_disk  takes the writes, so that no write-back disturbs a measurement
std::vector<Row> Rows(SampleDisk& disk, SampleDisk& memory_disk) {
  std::vector<Row> rows;
  struct FileRow {
    const char* name;
    FileWork work;
    int operations;
    double bound;
  };
  for (const FileRow& row : {FileRow{"get_file_attr", {FileWork::kAttributes}, 60'000, 0.75},
                             {"file_read of 4 KiB", {FileWork::kRead, 4 << 10}, 50'000, 0.8},
                             {"file_read of 64 KiB", {FileWork::kRead, 64 << 10}, 15'000, 0.9},
                             {"file_read of 256 KiB", {FileWork::kRead, 256 << 10}, 3'000, 0.9},
                             {"file_read of 1 MiB", {FileWork::kRead, 1 << 20}, 1'000, 0.9},
                             {"file_write of 4 KiB", {FileWork::kWrite, 4 << 10}, 50'000, 0.8},
                             {"file_write of 64 KiB", {FileWork::kWrite, 64 << 10}, 15'000, 0.9},
                             {"file_write of 1 MiB", {FileWork::kWrite, 1 << 20}, 1'000, 0.9}}) {
    SampleDisk& target = row.work.kind == FileWork::kWrite ? memory_disk : disk;
    for (const int outstanding : {32, 1}) {
      const bool alone = outstanding == 1;
      rows.push_back(
          {.name =
               std::string(row.name) + (alone ? ", 1 outstanding, one core" : ", 32 outstanding"),
           .operations = alone ? row.operations / 2 : row.operations,
           .make_base = [&target, work = row.work,
                         outstanding] { return LimitLoop(target, work, outstanding); },
           .make_compared = [&target, work = row.work,
                             outstanding] { return ModuleLoop(target, work, outstanding); },
           .kind = Row::kShareOfTheBasesRate,
           .bound = alone ? 0.9 : row.bound,
           .one_core = alone});
    }
  }
  static constexpr FileWork kSmallRead{FileWork::kRead, 4 << 10};
  rows.push_back({.name = "file_read of 4 KiB, confined, against plain, one core",
                  .operations = 25'000,
                  .make_base = [&disk] { return ModuleLoop(disk, kSmallRead, 1); },
                  .make_compared = [&disk] { return ModuleLoop(disk, kSmallRead, 1, true); },
                  .kind = Row::kShareOfTheBasesRate,
                  .bound = 0.85});
  constexpr int kMany = 10'000;
  constexpr int kVeryMany = 100'000;
  rows.push_back({.name = "dir_read of 10 000 files, against the bare walk",
                  .operations = 10,
                  .make_base = [&disk] { return BareWalk(disk, kMany); },
                  .make_compared = [&disk] { return DirRead(disk, kMany); },
                  .kind = Row::kShareOfTheBasesRate,
                  .bound = 0.9});
  rows.push_back({.name = "check_dir of 10 000 unchanged files, against dir_read",
                  .operations = 10,
                  .make_base = [&disk] { return DirRead(disk, kMany); },
                  .make_compared = [&disk] { return DirCheck(disk, kMany); },
                  .kind = Row::kTimesTheBasesTime,
                  .bound = 2});
  rows.push_back({.name = "listing and comparison of 100 000 files, against 10 000",
                  .operations = 1,
                  .make_base = [&disk] { return ListAndCompare(disk, kMany); },
                  .make_compared = [&disk] { return ListAndCompare(disk, kVeryMany); },
                  .kind = Row::kTimesTheBasesTime,
                  .bound = 12});
  return rows;
}

/// On one core, processor time is elapsed time without the time of other programs.
double Time(const Row& row, const Load& load) {
  const Seconds seconds = load(row.operations);
  return row.one_core ? seconds.processor : seconds.elapsed;
}

bool PrintRow(const Row& row, int turns) {
  const PinnedToOneCore pinned(row.one_core);
  const Load base = row.make_base();
  const Load compared = row.make_compared();
  base(row.operations);  // warms up caches and heap
  compared(row.operations);
  Turns taken;
  for (int i = 0; i < turns; ++i) {
    const double base_seconds = Time(row, base);
    const double seconds = Time(row, compared);
    taken.base_rates.push_back(row.operations / base_seconds);
    taken.rates.push_back(row.operations / seconds);
    taken.ratios.push_back(row.kind == Row::kShareOfTheBasesRate ? base_seconds / seconds
                                                                 : seconds / base_seconds);
  }
  return PrintRatioRow(row.name, taken,
                       {.is_most = row.kind == Row::kTimesTheBasesTime, .value = row.bound});
}

}  // namespace

bool PrintRatios(SampleDisk& disk, int turns, const std::string& filter) {
  SampleDisk memory_disk("/dev/shm");
  PrintRatioHeader("base", "measured");
  bool all_ok = true;
  for (const Row& row : Rows(disk, memory_disk)) {
    if (row.name.find(filter) != std::string::npos) all_ok &= PrintRow(row, turns);
  }
  return all_ok;
}

}  // namespace cpd::bench
