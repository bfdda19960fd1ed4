// udisk_bench [Google Benchmark options]   rates of every load
// udisk_bench --ratios [TURNS [FILTER]]    the driver against the limit; 1 = out of bounds
// udisk_bench --memory                     resident memory over a million requests
// udisk_bench --pace                       the rate of reads while the announced one changes
// udisk_bench --reads N                    N unpaced reads of 4 KiB, for counting system calls
#include <benchmark/benchmark.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "bench_host.h"
#include "loads.h"
#include "ratios.h"
#include "sample_disk.h"
#include "support/requests.h"

namespace cpd::bench {
namespace {

void RegisterLoad(const std::string& name, int operations, std::function<Load()> make) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [operations, make = std::move(make)](benchmark::State& state) {
                                 const Load load = make();
                                 load(operations);  // warms up caches and heap
                                 for (auto _ : state)
                                   state.SetIterationTime(load(operations).elapsed);
                                 state.SetItemsProcessed(state.iterations() * operations);
                               })
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

void RegisterLoads(SampleDisk& disk) {
  struct FileLoad {
    const char* name;
    FileWork work;
  };
  for (const FileLoad& load : {FileLoad{"get_file_attr", {FileWork::kAttributes}},
                               {"file_read/4KiB", {FileWork::kRead, 4 << 10}},
                               {"file_read/64KiB", {FileWork::kRead, 64 << 10}},
                               {"file_read/256KiB", {FileWork::kRead, 256 << 10}},
                               {"file_read/1MiB", {FileWork::kRead, 1 << 20}},
                               {"file_write/4KiB", {FileWork::kWrite, 4 << 10}},
                               {"file_write/64KiB", {FileWork::kWrite, 64 << 10}},
                               {"file_write/1MiB", {FileWork::kWrite, 1 << 20}}}) {
    for (const int outstanding : {32, 1}) {
      const int operations = load.work.bytes <= (64 << 10) ? 2000 : 200;
      const std::string name =
          std::string(load.name) + "/outstanding:" + std::to_string(outstanding);
      RegisterLoad(name + "/limit", operations, [&disk, work = load.work, outstanding] {
        return LimitLoop(disk, work, outstanding);
      });
      RegisterLoad(name + "/module", operations, [&disk, work = load.work, outstanding] {
        return ModuleLoop(disk, work, outstanding);
      });
    }
  }
  for (const int disks : {1, 2, 4, 8, 16, 32, 64}) {
    RegisterLoad("file_read/4KiB/disks:" + std::to_string(disks), 2000, [&disk, disks] {
      return DisksLoop(disk, {FileWork::kRead, 4 << 10}, disks);
    });
  }
  for (const int files : {10, 100, 1000, 10'000, 50'000}) {
    const std::string how = "/" + std::to_string(files);
    RegisterLoad("bare_walk" + how, 1, [&disk, files] { return BareWalk(disk, files); });
    RegisterLoad("dir_read" + how, 1, [&disk, files] { return DirRead(disk, files); });
    RegisterLoad("check_dir" + how, 1, [&disk, files] { return DirCheck(disk, files); });
  }
  for (const int files : {10'000, 100'000}) {
    RegisterLoad("compare_cache/" + std::to_string(files), 1,
                 [&disk, files] { return Compare(disk, files); });
  }
}

int ResidentKiB() {
  std::ifstream status("/proc/self/status");
  for (std::string key; status >> key;) {
    if (int value = 0; key == "VmRSS:" && status >> value) return value;
  }
  return 0;
}

/// Prints resident memory after every hundred thousand of a million mixed requests.
void PrintMemory(SampleDisk& disk) {
  constexpr int kStep = 100'000;
  constexpr int kOutstanding = 32;
  const Load attributes = ModuleLoop(disk, {FileWork::kAttributes}, kOutstanding);
  const Load small_reads = ModuleLoop(disk, {FileWork::kRead, 4 << 10}, kOutstanding);
  const Load large_reads = ModuleLoop(disk, {FileWork::kRead, 1 << 20}, kOutstanding);
  const Load listings = DirRead(disk, 100);
  std::puts("| requests | resident, MiB |\n|--:|--:|");
  for (int done = 0; done <= 10 * kStep; done += kStep) {
    if (done > 0) {
      attributes(kStep / 2);
      small_reads(kStep / 2 - 2000);
      large_reads(1000);
      listings(1000);
    }
    std::printf("| %d | %.1f |\n", done, ResidentKiB() / 1024.0);
  }
}

/// Prints how fast reads of 64 KiB are, one after the other, in each tenth of a second.
void PrintPace(SampleDisk& disk) {
  using Clock = std::chrono::steady_clock;
  constexpr std::array<uint32_t, 3> kSteps{8'000, 80'000, 20'000};  // kbps
  constexpr int kSecondsPerStep = 4;
  constexpr auto kSlot = std::chrono::milliseconds(100);
  constexpr size_t kSlotsPerStep = kSecondsPerStep * 10;
  constexpr uint32_t kBytes = 64 << 10;
  const std::string request =
      test::Request(test::ReadRequest{.path = disk.big_file(), .size = kBytes}).Bytes();
  BenchDriver driver(disk.root());
  driver.AnnounceBandwidth(kSteps.front());  // before the first read
  const auto begin = Clock::now();
  std::thread announcer([&] {
    auto next = begin;
    for (const uint32_t kbps : kSteps) {
      for (int i = 0; i < kSecondsPerStep; ++i) {
        driver.AnnounceBandwidth(kbps);
        std::this_thread::sleep_until(next += std::chrono::seconds(1));
      }
    }
  });
  std::array<double, kSteps.size() * kSlotsPerStep> read{};  // kbit in each slot
  for (;;) {
    driver.Send(request);
    driver.TakeReply();
    const auto slot = static_cast<size_t>((Clock::now() - begin) / kSlot);
    if (slot >= read.size()) break;
    read[slot] += kBytes * 8e-3;
  }
  announcer.join();
  std::puts("| seconds | announced, kbps | read, kbps |\n|--:|--:|--:|");
  for (size_t slot = 0; slot < read.size(); ++slot) {
    std::printf("| %.1f | %u | %.0f |\n", static_cast<double>(slot) / 10,
                kSteps[slot / kSlotsPerStep], read[slot] * 10);
  }
}

int Run(int argc, char** argv) {
  SampleDisk disk;
  const std::string_view mode = argc > 1 ? argv[1] : "";
  if (mode == "--ratios") {
    constexpr int kTurns = 15;
    return PrintRatios(disk, argc > 2 ? std::atoi(argv[2]) : kTurns, argc > 3 ? argv[3] : "") ? 0
                                                                                              : 1;
  }
  if (mode == "--memory") {
    PrintMemory(disk);
    return 0;
  }
  if (mode == "--pace") {
    PrintPace(disk);
    return 0;
  }
  if (mode == "--reads" && argc > 2) {
    ModuleLoop(disk, {FileWork::kRead, 4 << 10}, 1)(std::atoi(argv[2]));
    return 0;
  }
  RegisterLoads(disk);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

}  // namespace
}  // namespace cpd::bench

int main(int argc, char** argv) {
  try {
    return cpd::bench::Run(argc, argv);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "udisk_bench: %s\n", error.what());
    return 2;
  }
}
