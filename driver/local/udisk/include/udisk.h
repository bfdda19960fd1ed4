// The driver of one redirected disk, and the module's descriptor.
#pragma once

#include <glib.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "cpd/driver.h"

namespace cpd {

class UDiskOperator;
class UDiskService;

/// Queues request packets and feeds them to the operator, one at a time in arrival order, on its
/// own worker thread. The host calls Close before it deletes a running driver. No exception leaves
/// the operations of CpdDriver, whatever the host's own operations throw.
class UDiskDriver : public CpdRawDriver {
 public:
  /// @param device  not owned; outlives the driver
  /// @param policy  cut to 127 characters; may be null
  UDiskDriver(CpdDevice* device, const char* policy);
  /// Does not stop the driver; Close does.
  ~UDiskDriver() override;
  UDiskDriver(const UDiskDriver&) = delete;
  UDiskDriver& operator=(const UDiskDriver&) = delete;

  int onEvent(std::unique_ptr<CpdPacket> packet, int flags) override;
  int GetState() override;
  int onBusEvent(std::shared_ptr<CpdPacket> packet) override;
  int onPolicyChange(const std::string& policy) override;
  int Control(void* request, uint16_t* status) override;
  int Close(signed char reason) override;
  std::string GetDriverKind() override;
  std::shared_ptr<DriverObj> GetDriverObj() override;

  /// Starts worker and service. @return 0, or -1 after undoing what was started
  /// @throws std::system_error  "thread constructor failed…" when the worker cannot be started
  int Init();
  /// The worker's loop.
  void DataEventHandle();
  /// @return 0 when `devId` is the device's id, else -1
  int OnEvent(signed char devId, int event, unsigned char* data, int len);
  int policy_setting(const char* policy);  ///< does nothing: 0

 private:
  // Wakes the worker, which has been told to stop, and waits until it has ended. After a second it
  // gives up a request of many calls.
  void JoinWorker();
  void ReleaseQueue();  // frees the queue, which is empty
  std::shared_ptr<UDiskOperator> CopyOperator();

  std::shared_ptr<UDiskOperator> mOperator;  // guarded by mMutex
  GQueue* mQueue = nullptr;                  // of CpdPacket*, owned; guarded by mMutex
  uint32_t mReserved = 0;
  std::condition_variable mWake;
  std::mutex mMutex;
  std::atomic<bool> mStop = false;
  CpdDevice* mDevice;
  char mPolicy[128] = {};  // guarded by mMutex
  std::unique_ptr<std::thread> mWorker;
  std::unique_ptr<UDiskService> mService;
  bool mAbandoned = false;       // guarded by mMutex; a failed Init ends the worker with it
  bool mWorkerEnded = false;     // guarded by mMutex
  std::condition_variable mEnd;  // notified when the worker ends
  std::mutex mClosing;           // held by Close, so that a second one waits for the first
};

/// The module's open function. @return null on failure; the caller owns the driver
CpdDriver* udisk_open(CpdDevice* device, const std::string& policy);

}  // namespace cpd

/// The module's descriptor, its only exported symbol.
extern "C" __attribute__((visibility("default"))) const cpd::CpdDriverModule CPD_DRV_MODULE;
