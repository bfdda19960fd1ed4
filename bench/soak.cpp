// udisk_soak [SECONDS [DRIVERS]]   by default 60 s and 64 drivers
//
// Many drivers in one process under mixed traffic, bandwidth announcements and policy changes,
// opened and closed at random. Prints resident memory, descriptors and threads. Ends with 1 when
// they grow after the warm-up, or when descriptors and threads are left over at the end.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench_host.h"
#include "cpd/device.h"
#include "cpd/driver.h"
#include "cpd/packet.h"
#include "sample_disk.h"
#include "support/requests.h"
#include "udisk.h"

namespace cpd::bench {
namespace {

using Clock = std::chrono::steady_clock;

// ---- The host: replies are counted and dropped ----

std::atomic<uint64_t> g_replies = 0;

class EveryPath : public CpdPathFilter {
 public:
  std::shared_ptr<CpdPathMatch> MatchPath(const std::string& /*path*/) override {
    return std::make_shared<CpdPathMatch>();
  }
};

class SoakDevice : public BenchDevice {
 public:
  using BenchDevice::BenchDevice;
  int SendPacket(std::unique_ptr<CpdPacket> /*packet*/, int /*flags*/) override {
    g_replies.fetch_add(1, std::memory_order_relaxed);
    return 0;
  }
};

// ---- Traffic ----

/// A good request for each command, except those that clear the mount point.
std::vector<std::string> Traffic() {
  std::vector<std::string> requests;
  for (const test::NamedRequest& named : test::OneRequestPerCommand()) {
    if (named.request.cmd == kMountRemote || named.request.cmd == kUmountRemote) continue;
    requests.push_back(named.request.Bytes());
  }
  requests.push_back(test::Request(test::ReadRequest{.path = "/big", .size = 256 << 10}).Bytes());
  requests.push_back(test::Request(test::DirReadRequest{.path = "/files"}).Bytes());
  return requests;
}

/// One disk and its driver, which comes and goes. Callable from any thread.
class Slot {
 public:
  explicit Slot(const std::string& root)
      : root_(root), device_(root, std::make_shared<EveryPath>()) {
    std::filesystem::create_directories(root + test::kKnownDir);
    std::ofstream(root + test::kKnownFile) << "known content";
    std::ofstream(root + "/big") << std::string(1 << 20, 'x');
    std::filesystem::create_directory(root + "/files");
    for (int i = 0; i < 50; ++i) std::ofstream(root + "/files/" + std::to_string(i)) << i;
    driver_ = Open();
  }
  ~Slot() { Close(driver_); }
  Slot(const Slot&) = delete;
  Slot& operator=(const Slot&) = delete;

  void Send(const std::string& request) {
    if (const auto driver = Driver()) driver->onEvent(test::PacketOf(request), 0);
  }
  void AnnounceBandwidth(uint32_t kbps) {
    if (const auto driver = Driver()) driver->onBusEvent(BandwidthEvent(kbps));
  }
  void ChangePolicy(const std::string& policy) {
    if (const auto driver = Driver()) driver->onPolicyChange(policy);
  }
  /// Closes the driver while it is working, and opens another.
  void Reopen() {
    std::shared_ptr<CpdDriver> old;
    {
      const std::lock_guard lock(mutex_);
      old.swap(driver_);
    }
    if (old == nullptr) return;  // another thread is reopening it
    Close(old);
    old.reset();
    auto fresh = Open();
    const std::lock_guard lock(mutex_);
    driver_ = std::move(fresh);
  }

 private:
  std::shared_ptr<CpdDriver> Driver() {
    const std::lock_guard lock(mutex_);
    return driver_;
  }
  std::shared_ptr<CpdDriver> Open() {
    return std::shared_ptr<CpdDriver>(udisk_open(&device_, "policy"));
  }
  static void Close(const std::shared_ptr<CpdDriver>& driver) {
    if (driver != nullptr) driver->Close(0);
  }

  const std::string root_;
  SoakDevice device_;
  std::mutex mutex_;
  std::shared_ptr<CpdDriver> driver_;  // guarded by mutex_
};

/// The body of one of the host's threads; runs until it is told to stop.
void Drive(std::deque<Slot>& slots, const std::vector<std::string>& traffic, unsigned seed,
           const std::atomic<bool>& stop) {
  std::mt19937 random(seed);
  const auto any = [&](size_t count) { return random() % count; };
  constexpr uint32_t kTooFastToPace = 100'000'000;
  while (!stop) {
    Slot& slot = slots[any(slots.size())];
    for (size_t i = any(32); i > 0; --i) slot.Send(traffic[any(traffic.size())]);
    switch (any(200)) {
      case 0:
        slot.Reopen();
        break;
      case 1:
        slot.ChangePolicy(std::string(any(300), 'p'));
        break;
      case 2:
        slot.AnnounceBandwidth(any(2) == 0 ? 0 : kTooFastToPace);
        break;
      default:
        break;
    }
    // The drivers are slower than this thread, and their queues must not grow.
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
}

// ---- Resources that must not grow ----

struct Usage {
  size_t resident_kib;
  size_t descriptors;
  size_t threads;
};

size_t Entries(const char* directory) {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(directory)) ++count;
  return count;
}

Usage Measure() {
  std::ifstream status("/proc/self/status");
  size_t resident = 0;
  for (std::string key; status >> key;) {
    if (key == "VmRSS:") status >> resident;
  }
  return {resident, Entries("/proc/self/fd"), Entries("/proc/self/task")};
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

size_t MedianResident(std::vector<Usage> samples) {
  std::ranges::nth_element(samples, samples.begin() + samples.size() / 2, {}, &Usage::resident_kib);
  return samples[samples.size() / 2].resident_kib;
}

/// @return whether the last third of a run needs no more than the middle third, apart from a spare
bool IsFlat(const std::vector<Usage>& samples, size_t drivers) {
  const auto third = static_cast<std::ptrdiff_t>(samples.size() / 3);
  if (third == 0) return true;
  const std::vector<Usage> middle(samples.begin() + third, samples.begin() + 2 * third);
  const std::vector<Usage> last(samples.begin() + 2 * third, samples.end());
  const auto most = [](const std::vector<Usage>& of, auto member) {
    return (*std::ranges::max_element(of, {}, member)).*member;
  };
  bool flat = true;
  const auto check = [&](const char* what, size_t before, size_t after, size_t spare) {
    std::printf("%-12s middle %zu, last %zu\n", what, before, after);
    if (after > before + spare) flat = false;
  };
  if (kSanitized) {
    std::puts("resident     not judged: a sanitizer uses memory of its own");
  } else {
    constexpr size_t kSpareKib = 4096;
    const size_t before = MedianResident(middle);
    check("resident KiB", before, MedianResident(last), before / 20 + kSpareKib);
  }
  // A request holds some descriptors, and a driver that starts has a second thread; the spare
  // covers these. Real leaks show at the end.
  check("descriptors", most(middle, &Usage::descriptors), most(last, &Usage::descriptors),
        3 * drivers);
  check("threads", most(middle, &Usage::threads), most(last, &Usage::threads), drivers);
  return flat;
}

int Run(std::chrono::seconds length, int drivers) {
  constexpr int kHostThreads = 4;
  PrintErrors(false);  // expected: a request fails when another has just renamed its file
  const SampleDisk place;
  const std::vector<std::string> traffic = Traffic();
  std::thread([] {}).join();  // the first thread makes a sanitizer start its own
  const Usage before = Measure();
  std::vector<Usage> samples;
  {
    std::deque<Slot> slots;
    for (int i = 0; i < drivers; ++i) slots.emplace_back(place.root() + "/" + std::to_string(i));
    std::atomic<bool> stop = false;
    std::vector<std::jthread> hosts;
    for (unsigned i = 0; i < kHostThreads; ++i) {
      hosts.emplace_back([&, i] { Drive(slots, traffic, i, stop); });
    }
    const auto begin = Clock::now();
    for (auto next = begin; next - begin < length;) {
      std::this_thread::sleep_until(next += std::chrono::seconds(1));
      samples.push_back(Measure());
      const Usage& now = samples.back();
      std::printf("%4lld s  %8zu KiB  %4zu descriptors  %4zu threads  %10llu replies\n",
                  static_cast<long long>(
                      std::chrono::duration_cast<std::chrono::seconds>(next - begin).count()),
                  now.resident_kib, now.descriptors, now.threads,
                  static_cast<unsigned long long>(g_replies.load()));
    }
    stop = true;
  }
  const bool flat = IsFlat(samples, static_cast<size_t>(drivers));
  const Usage after = Measure();
  std::printf("before %zu descriptors, %zu threads; after %zu, %zu\n", before.descriptors,
              before.threads, after.descriptors, after.threads);
  const bool back = after.descriptors == before.descriptors && after.threads == before.threads;
  std::puts(flat && back ? "flat" : "NOT FLAT");
  return flat && back ? 0 : 1;
}

}  // namespace
}  // namespace cpd::bench

int main(int argc, char** argv) {
  try {
    const std::chrono::seconds length(argc > 1 ? std::atoi(argv[1]) : 60);
    return cpd::bench::Run(length, argc > 2 ? std::atoi(argv[2]) : 64);
  } catch (const std::exception& error) {
    (void)std::fprintf(stderr, "udisk_soak: %s\n", error.what());
    return 1;
  }
}
