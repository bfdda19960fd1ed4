#include "udisk.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "caught.h"
#include "cpd/device.h"
#include "cpd/packet.h"
#include "operator.h"
#include "service.h"
#include "thread_signals.h"
#include "udisk_log.h"

namespace cpd {

namespace {

/// How long Close waits before it gives up a request of many calls.
constexpr std::chrono::seconds kGraceOfRequests{1};

struct FreeDeleter {
  void operator()(void* block) const { std::free(block); }
};
/// A link of the queue. It comes from malloc, because GLib ends the process when memory runs out.
using QueueLink = std::unique_ptr<GList, FreeDeleter>;

std::unique_ptr<CpdPacket> PopHead(GQueue* queue) {
  const QueueLink link(g_queue_pop_head_link(queue));
  return std::unique_ptr<CpdPacket>(static_cast<CpdPacket*>(link->data));
}

}  // namespace

// ---- Life ----

CpdDriver* udisk_open(CpdDevice* device, const std::string& policy) {
  UDISK_DEBUG("client udisk open\n");
  try {
    auto driver = std::make_unique<UDiskDriver>(device, policy.c_str());
    if (driver->Init() != -1) return driver.release();
  } catch (...) {  // for lack of a thread or memory: no exception may reach the host
  }
  UDISK_ERROR("udisk_open Init failed");
  return nullptr;
}

UDiskDriver::UDiskDriver(CpdDevice* device, const char* policy) : mDevice(device) {
  if (policy != nullptr) (void)std::snprintf(mPolicy, sizeof mPolicy, "%s", policy);
}

UDiskDriver::~UDiskDriver() { mDevice = nullptr; }

int UDiskDriver::Init() {
  UDISK_DEBUG("client udisk init\n");
  mOperator = std::make_shared<UDiskOperator>(mDevice);
  mStop = false;
  mAbandoned = false;
  mWorkerEnded = false;
  mQueue = g_queue_new();
  if (mQueue == nullptr) {
    mOperator.reset();
    return -1;
  }
  const auto give_up = [this] {
    mService.reset();
    ReleaseQueue();
    mOperator.reset();
  };
  try {
    mService = std::make_unique<UDiskService>(mDevice, mOperator.get());
    mWorker = std::make_unique<std::thread>(&UDiskDriver::DataEventHandle, this);
  } catch (const std::system_error& error) {
    give_up();
    throw std::system_error(error.code(), "thread constructor failed");
  } catch (...) {
    give_up();
    throw;
  }
  UDISK_DEBUG("client udisk init service\n");
  if (mService->StartLoop() == -1) {
    mService.reset();
    // A flag of its own ends the worker: mStop stays false when Init fails.
    {
      const std::lock_guard lock(mMutex);
      mAbandoned = true;
    }
    JoinWorker();
    ReleaseQueue();
    mOperator.reset();
    return -1;
  }
  mOperator->TryTrace("UDISK_DRIVER_OPEN", "udisk driver open success");
  UDISK_DEBUG("client udisk init success\n");
  return 0;
}

int UDiskDriver::Close(signed char /*reason*/) {
  UDISK_DEBUG("udisk client close\n");
  const std::lock_guard closing(mClosing);
  if (mService != nullptr) {
    mService->StopLoop();
    mService.reset();
  }
  if (mWorker != nullptr) {
    mStop = true;
    mOperator->tokenBucket.stopping = true;
    JoinWorker();
  }
  ReleaseQueue();
  if (auto udisk_operator = CopyOperator(); udisk_operator != nullptr) {
    udisk_operator->Idle();  // the worker, which used to call it, is gone
    udisk_operator->TryTrace("UDISK_DRIVER_CLOSE", "udisk driver close success");
    udisk_operator->LetGoOfDevice();  // the host may hold the operator longer than the device
    const std::lock_guard lock(mMutex);
    mOperator.reset();  // not destroyed under the lock: udisk_operator still holds it
  }
  UDISK_DEBUG("udisk client close out\n");
  return 0;
}

void UDiskDriver::JoinWorker() {
  {
    std::unique_lock lock(mMutex);  // else the worker could miss the notification
    mWake.notify_one();
    if (!mEnd.wait_for(lock, kGraceOfRequests, [this] { return mWorkerEnded; })) {
      mOperator->GiveUp();
    }
  }
  mWorker->join();
  mWorker.reset();
}

void UDiskDriver::ReleaseQueue() {
  const std::lock_guard lock(mMutex);
  if (mQueue != nullptr) g_queue_free(mQueue);  // empty: the worker was its last user
  mQueue = nullptr;
}

std::shared_ptr<UDiskOperator> UDiskDriver::CopyOperator() {
  const std::lock_guard lock(mMutex);
  return mOperator;
}

// ---- Worker ----

void UDiskDriver::DataEventHandle() {
  BlockSignalsOfWrites();
  std::unique_lock lock(mMutex);
  for (;;) {
    if (g_queue_is_empty(mQueue) && !mStop && !mAbandoned) {
      mWake.wait_for(lock, std::chrono::seconds(1));
    }
    if (mStop || mAbandoned) {
      while (!g_queue_is_empty(mQueue)) PopHead(mQueue);
      mWorkerEnded = true;
      mEnd.notify_one();
      return;
    }
    if (g_queue_is_empty(mQueue)) {
      lock.unlock();
      mOperator->Idle();
      lock.lock();
      continue;
    }
    std::unique_ptr<CpdPacket> packet = PopHead(mQueue);
    lock.unlock();
    mOperator->EventHandle(std::move(packet));
    lock.lock();
  }
}

// ---- Called by the host ----

int UDiskDriver::onEvent(std::unique_ptr<CpdPacket> packet, int /*flags*/) {
  if (packet == nullptr) return -1;
  int own_id = 0;
  try {
    own_id = mDevice->GetDevId();
  } catch (...) {
    UDISK_ERROR("onEvent failed: %s", CaughtText());
    return -1;
  }
  const int packet_id = packet->header != nullptr ? packet->header->devId : 0;
  if (own_id != packet_id) {
    UDISK_ERROR("this packet is other device myDevId: %d, DevId: %d\n", own_id, packet_id);
    return -1;
  }
  QueueLink link(static_cast<GList*>(std::malloc(sizeof(GList))));
  if (link == nullptr) {
    UDISK_ERROR("onEvent failed: no memory to queue the request");
    return -1;
  }
  const std::lock_guard lock(mMutex);
  if (mQueue == nullptr || mStop) return 0;  // closing or not open: dropped
  *link = {.data = packet.release(), .next = nullptr, .prev = nullptr};
  g_queue_push_tail_link(mQueue, link.release());
  // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): the queue owns the link now, no leak
  mWake.notify_one();
  return 0;
}

int UDiskDriver::GetState() { return 0; }

int UDiskDriver::onBusEvent(std::shared_ptr<CpdPacket> packet) {
  const auto udisk_operator = CopyOperator();
  if (udisk_operator != nullptr) udisk_operator->BusEventHandle(packet);
  return 0;
}

int UDiskDriver::onPolicyChange(const std::string& policy) {
  const std::lock_guard lock(mMutex);
  (void)std::snprintf(mPolicy, sizeof mPolicy, "%s", policy.c_str());
  return 0;
}

int UDiskDriver::Control(void* /*request*/, uint16_t* status) {
  constexpr uint16_t kNotSupported = 0x1506;
  *status = kNotSupported;
  return -1;
}

std::string UDiskDriver::GetDriverKind() { return "RawDrv"; }

std::shared_ptr<DriverObj> UDiskDriver::GetDriverObj() { return CopyOperator(); }

// ---- Not in the driver interface ----

int UDiskDriver::OnEvent(signed char devId, int /*event*/, unsigned char* /*data*/, int /*len*/) {
  if (mDevice->GetDevId() == devId) return 0;
  UDISK_ERROR("this msg is invalid\n");
  return -1;
}

int UDiskDriver::policy_setting(const char* /*policy*/) { return 0; }

}  // namespace cpd

const cpd::CpdDriverModule CPD_DRV_MODULE = {
    .open = &cpd::udisk_open,
    .reserved = nullptr,
    .version = 2,
    .any = {0xFFFF, 0xFFFF},
    .name = "udisk-redir",
};
