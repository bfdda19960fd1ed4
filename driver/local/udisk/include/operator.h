// The operator: serves the requests of one redirected disk.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "cpd/driver_obj.h"
#include "file_manager_linux.h"
#include "udisk_log.h"
#include "wire.h"

namespace cpd {

class CpdDevice;
class CpdPacket;

/// Wall-clock milliseconds.
uint64_t getCurrentTime();

/// A byte budget that grows with every millisecond. Once a debt takes 32 ms or more to refill,
/// consume sleeps until it is paid off. All times are wall-clock milliseconds, all amounts are
/// bytes. One thread at a time.
struct TokenBucket {
  int64_t tokens = 0;             ///< the budget; negative = a debt
  int64_t capacity = 0;           ///< upper bound of tokens
  int64_t refillPerMs = 0;        ///< 0 = not configured yet
  int64_t lastRefillMs = 0;       ///< 0 = never
  uint32_t bw = 0;                ///< kbps that the rate was computed from
  int64_t lastSummaryMs = 0;      ///< start of the summary period; 0 = none yet
  int64_t summaryStartBytes = 0;  ///< totalBytes at that time
  int64_t totalBytes = 0;         ///< ever consumed
  int64_t calls = 0;              ///< in this summary period, as are the next three
  int64_t sleeps = 0;
  int64_t carries = 0;
  int64_t totalSlept = 0;
  std::atomic<bool> stopping = false;  ///< set by any thread; no further sleep starts

  /// Derives the rate from `kbps`; keeps the tokens and the time of the last refill.
  void updateRate(uint32_t kbps) {
    if (kbps == bw) return;
    // Contract: the log shows kbps / 8, even where the stored refill is raised to 1.
    UDISK_DEBUG("[TokenBucket] updateRate: %u kbps -> refillPerMs=%lld, oldBw=%u", kbps,
                static_cast<long long>(kbps >> 3), bw);
    bw = kbps;
    refillPerMs = kbps < 8 ? 1 : kbps >> 3;
    capacity = std::max<int64_t>(refillPerMs * kBurstMs, kMinBurst);
  }

  /// Charges `bytes`. Sleeps off a debt of 32 ms or more; carries a smaller one to the next call.
  void consume(uint32_t bytes) {
    if (refillPerMs < 1) return;
    const auto now = static_cast<int64_t>(getCurrentTime());
    if (lastRefillMs < 1) {
      tokens = capacity;
    } else if (now > lastRefillMs) {
      refill(now - lastRefillMs);
    }
    lastRefillMs = now;
    tokens -= bytes;
    totalBytes += bytes;
    ++calls;
    if (tokens < 0) {
      const int64_t wait_ms = (refillPerMs - tokens - 1) / refillPerMs;
      if (wait_ms < kMinSleepMs) {
        ++carries;
        return;
      }
      sleepOff(wait_ms);
    }
    summarize(now);
  }

 private:
  static constexpr int64_t kBurstMs = 200;
  static constexpr int64_t kMinBurst = 0x40000;
  static constexpr int64_t kMinSleepMs = 32;
  static constexpr int64_t kSummaryMs = 5000;
  /// The longest single sleep. Close waits for one of them at most, however large the debt is.
  static constexpr uint32_t kMostSleepUs = 1'000'000;
  /// The most that a jump of the clock adds or removes: far above any budget, far below overflow.
  static constexpr int64_t kMostBytes = int64_t{1} << 60;

  void refill(int64_t elapsed_ms) {
    int64_t gained = 0;
    if (__builtin_mul_overflow(refillPerMs, elapsed_ms, &gained) || gained > kMostBytes ||
        gained < -kMostBytes) {
      gained = elapsed_ms < 0 ? -kMostBytes : kMostBytes;
    }
    tokens = std::min(std::max(tokens, -kMostBytes) + gained, capacity);
  }

  void sleepOff(int64_t wait_ms) {
    ++sleeps;
    const auto begin = static_cast<int64_t>(getCurrentTime());
    // In 32 bits: of a debt that takes more than 71 minutes, only a part is slept off.
    auto left = static_cast<uint32_t>(wait_ms) * 1000U;
    while (left > 0 && !stopping) {
      const uint32_t piece = std::min(left, kMostSleepUs);
      usleep(piece);
      left -= piece;
    }
    const auto end = static_cast<int64_t>(getCurrentTime());
    // Contract: a clock that was set back takes tokens away.
    refill(end - lastRefillMs);
    lastRefillMs = end;
    totalSlept += end - begin;
  }

  void summarize(int64_t now) {
    if (now - lastSummaryMs < kSummaryMs) return;
    if (lastSummaryMs >= 1) {
      // In 128 bits, because the product can exceed 64 bits after a long period.
      const __int128 period_bytes = static_cast<__int128>(totalBytes) - summaryStartBytes;
      const __int128 throughput = period_bytes * 1000 / (now - lastSummaryMs) / 1024;
      UDISK_DEBUG_OF(
          consume,
          "[TokenBucket] SUMMARY: throughput=%lldKB/s calls=%lld sleeps=%lld carries=%lld totalSlept=%lldms bw=%ukbps tokens=%lld refillPerMs=%lld",
          static_cast<long long>(throughput), static_cast<long long>(calls),
          static_cast<long long>(sleeps), static_cast<long long>(carries),
          static_cast<long long>(totalSlept), bw, static_cast<long long>(tokens),
          static_cast<long long>(refillPerMs));
    }
    lastSummaryMs = now;
    summaryStartBytes = totalBytes;
    calls = sleeps = carries = totalSlept = 0;
  }
};

/// Whether a path has the suffix of an office or temporary file, whose length has no limit.
/// Contract: the suffix need only begin with a known one, so ".document" counts; ".DOC" does not.
bool check_microsoft_suffix(const char* name);

/// A volume of the disk.
struct VolumeRecord {
  char label[256];     ///< NUL-terminated: SetRootPath takes 255 bytes at most
  udisk_statvfs stat;  ///< as of the last refresh
};
static_assert(sizeof(VolumeRecord) == 368);

/// Which of the two bulk reads asks for pacing. kFile applies a forced bandwidth before it drops a
/// stale one, kSmallFiles afterwards.
enum class BulkRead { kFile, kSmallFiles };

/// Serves one disk: resolves request paths under the local mount point, runs the handlers, holds
/// the throttle. Request handlers run on the driver's worker thread, one at a time; SetRootPath,
/// BusEventHandle, TraceCpdDevice, TryTrace, GiveUp and the virtual operations may run on other
/// threads meanwhile.
class UDiskOperator : public UdiskOperatorInf {
 public:
  /// Reads the throttle's and the confined mode's settings from the environment.
  /// @param device  not owned; may be null
  explicit UDiskOperator(CpdDevice* device);
  ~UDiskOperator() override;
  UDiskOperator(const UDiskOperator&) = delete;
  UDiskOperator& operator=(const UDiskOperator&) = delete;

  int GetCID() override;
  int GetVid() override;
  int GetPid() override;
  std::string GetDrvName() override;  ///< Contract: the remote mount point, not a driver's name.
  int GetDeviceId() override;
  void Stop() override;
  std::string GetRemoteMountPoint() override;
  std::string GetLocalMountPoint() override;

  /// Hands a request to its handler; unknown commands are dropped. Worker thread only. @return 0
  int EventHandle(std::unique_ptr<CpdPacket> packet);
  /// Closes what would keep the disk from being unmounted. The worker calls it when no request has
  /// arrived for a second, and Close calls it once the worker has ended.
  void Idle();
  /// Ends the current request and all later ones between two of their calls, without a reply. A
  /// request of a single call is not affected. Any thread.
  void GiveUp();
  /// From now on the device is not used, as if there were none. When this returns, GetDeviceId does
  /// not use it on any thread either. The worker must have ended.
  void LetGoOfDevice();
  /// Takes an announced bandwidth. Any thread. @return 0
  int BusEventHandle(const std::shared_ptr<CpdPacket>& packet);
  /// Sets the mount point to `letter` followed by `label` and adds a volume; with a null argument,
  /// or more than 255 bytes together, clears both. Any thread. @return 0; -1 when cleared
  int SetRootPath(const char* letter, const char* label);
  /// Hands a trace record to the host, or drops it when the device is gone. Any thread.
  /// @param path   detail of the record; empty = none
  /// @param extra  not used
  void TraceCpdDevice(std::string event, CpdDevice* device, bool success, std::string message,
                      const std::string& path, const std::string& extra);

  /// Traces a success. Logs a failure to do so instead of throwing, as its callers must not fail.
  void TryTrace(const char* event, const char* message);

  /// Paces a bulk read of `bytes` to the announced bandwidth, by sleeping. Worker thread only.
  void throttleRead(uint32_t bytes, BulkRead kind = BulkRead::kFile);

  /// Request handlers, in the order of their commands.
  /// @param header_length  room for the reply's packet header
  /// @return SendPacket's result, or -1 when no reply is sent
  int64_t mount_remote(unsigned char header_length, CpdPacket* request);
  int64_t umount_remote(unsigned char header_length, CpdPacket* request);
  int64_t get_file_attr(unsigned char header_length, CpdPacket* request);
  int64_t file_create(unsigned char header_length, CpdPacket* request);
  int64_t file_open(unsigned char header_length, CpdPacket* request);  ///< does nothing: 0
  int64_t file_read(unsigned char header_length, CpdPacket* request);
  int64_t file_write(unsigned char header_length, CpdPacket* request);
  int64_t dir_read(unsigned char header_length, CpdPacket* request);
  int64_t get_xattr(unsigned char header_length, CpdPacket* request);
  int64_t file_truncate(unsigned char header_length, CpdPacket* request);
  int64_t file_fsync(unsigned char header_length, CpdPacket* request);
  int64_t file_chmod(unsigned char header_length, CpdPacket* request);
  int64_t file_chown(unsigned char header_length, CpdPacket* request);
  int64_t get_statvfs(unsigned char header_length, CpdPacket* request);
  int64_t make_dir(unsigned char header_length, CpdPacket* request);
  int64_t remove_dir(unsigned char header_length, CpdPacket* request);
  int64_t set_link(unsigned char header_length, CpdPacket* request);
  int64_t set_unlink(unsigned char header_length, CpdPacket* request);
  int64_t set_rename(unsigned char header_length, CpdPacket* request);
  int64_t file_flush(unsigned char header_length, CpdPacket* request);
  int64_t file_release(unsigned char header_length, CpdPacket* request);
  int64_t check_dir(unsigned char header_length, CpdPacket* request);
  /// @return 0 when a reply was sent; -2 when a record's head is incomplete, -3 when its path is
  ///         empty or too long, -1 in every other case
  int64_t small_file_read(unsigned char header_length, CpdPacket* request);
  int64_t mount_response(unsigned char header_length, CpdPacket* request);

  /// Compares the names, sizes and modification seconds of two listings of `cache_count` and
  /// `dir_count` packed entries. Both must hold that many whole entries, each with a
  /// NUL-terminated name. @return 1 = the same, 0 = different
  int compare_cache(int cache_count, int dir_count, const void* cached, const void* current);

  // ---- State ----

  std::atomic<CpdDevice*> mDevice;  ///< null once the driver is closed
  std::unique_ptr<FileManagerLinux> mFileManager;
  char mMountPoint[256] = "/media/";                  // guarded by mLock
  std::string mMountDrive;                            // guarded by mLock
  std::list<std::shared_ptr<VolumeRecord>> mVolumes;  // guarded by mLock
  int64_t lastWriteEnd = 0;                           ///< end of the latest write; nothing reads it
  int32_t modified = 0;  ///< free space may have changed since get_statvfs last refreshed

  std::atomic<uint32_t> readBwKbps = 0;     ///< 0 = unthrottled
  std::atomic<int64_t> lastReadMs = 0;      ///< start of the last file_read
  std::atomic<int64_t> lastBwUpdateMs = 0;  ///< when readBwKbps was last announced or forced
  std::atomic<int64_t> lastBwTraceMs = 0;
  std::atomic<int64_t> bwEventMs = 0;
  TokenBucket tokenBucket;
  bool legacyThrottle = true;
  int32_t forceBw = 0;          ///< kbps from the environment; 0 = none
  uint32_t legacyBytes = 0;     ///< bytes in the current legacy period
  int64_t legacyOverrunMs = 0;  ///< by how much the last legacy period overran
  std::list<void*> mReservedLists[2];

 private:
  std::string CopyMountPoint();
  DiskRoot CopyDiskRoot();
  /// A consistent copy of the mount point and its volumes.
  std::pair<std::string, std::list<std::shared_ptr<VolumeRecord>>> CopyMount();
  void throttleLegacy(uint32_t bytes, uint32_t kbps, BulkRead kind);
  /// Traces a read or write of a file if the host's path filter matches it.
  /// @return whether it matches
  bool TraceFile(const char* event, bool success, const char* text, const char* relative_path,
                 const char* function = __builtin_FUNCTION(), int line = __builtin_LINE());
  void TraceError(const std::string& message);
  int WriteBatch(const char* path, std::string_view batch, uint32_t* error);
  int64_t Send(std::unique_ptr<CpdPacket> reply);
  int64_t SendCopy(const CpdPacket* request);

  /// The mount point of confined paths; empty until SetRootPath has set a disk. (mMountPoint starts
  /// as the directory in which disks are mounted.) Guarded by mLock.
  DiskRoot mDiskRoot;
  std::mutex mLock;
  std::mutex mDeviceLock;  // held while GetDeviceId uses the device
};

}  // namespace cpd
