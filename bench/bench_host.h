// The cheapest host that a driver can have: it drops traces and all log lines except errors, and
// hands replies to the thread that measures.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "cpd/device.h"
#include "cpd/driver.h"
#include "cpd/packet.h"
#include "handover.h"

namespace cpd::bench {

/// Sets whether error lines are printed to standard error, as they are by default.
void PrintErrors(bool print);

class BenchDevice : public CpdDevice {
 public:
  /// @param root    the disk's local path
  /// @param filter  decides which reads and writes are traced; null = none
  explicit BenchDevice(const std::string& root, std::shared_ptr<CpdPathFilter> filter = nullptr);

  std::shared_ptr<CpdDeviceBase> getDevBase() override { return base_; }
  int GetDevId() override;
  int SendPacket(std::unique_ptr<CpdPacket> packet, int flags) override;
  void ReportReadFail(const std::string& path) override;

  /// Waits for the next packet that the driver sends, and returns it.
  std::unique_ptr<CpdPacket> Take() { return sent_.Take(); }

 private:
  std::shared_ptr<CpdDeviceBase> base_;
  Handover<std::unique_ptr<CpdPacket>> sent_;
};

/// The bus event that announces a read bandwidth.
std::shared_ptr<CpdPacket> BandwidthEvent(uint32_t kbps);

/// An open driver that has announced its disk.
class BenchDriver {
 public:
  /// @param confined  whether it keeps paths beneath `root`; sets this process's environment
  explicit BenchDriver(const std::string& root, bool confined = false);
  ~BenchDriver();
  BenchDriver(const BenchDriver&) = delete;
  BenchDriver& operator=(const BenchDriver&) = delete;

  /// Queues a request.
  void Send(std::unique_ptr<CpdPacket> request);
  /// Queues a request that is given as its bytes.
  void Send(std::string_view request);
  void AnnounceBandwidth(uint32_t kbps) { driver_->onBusEvent(BandwidthEvent(kbps)); }
  std::unique_ptr<CpdPacket> TakeReply() { return device_.Take(); }

 private:
  BenchDevice device_;
  std::unique_ptr<CpdDriver> driver_;
};

}  // namespace cpd::bench
