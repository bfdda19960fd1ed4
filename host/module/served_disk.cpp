#include "module/served_disk.h"

#include <utility>

#include "cpd/packet.h"
#include "wire.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

// The module lifts the limit when it has heard no bandwidth for 5 s.
constexpr auto kBandwidthInterval = 1s;

}  // namespace

ServedDisk::ServedDisk(const DiskOptions& options, TraceFile& trace, HostDevice::Deliver deliver)
    : device_(options, std::move(deliver), trace),
      module_(options.module),
      driver_(module_.Open(&device_, options.policy)) {
  if (options.bandwidth_kbps == 0) return;
  AnnounceBandwidth(options.bandwidth_kbps);  // before the first read
  bandwidth_ = std::make_unique<Periodic>(
      kBandwidthInterval, [this, kbps = options.bandwidth_kbps] { AnnounceBandwidth(kbps); });
}

void ServedDisk::AnnounceBandwidth(uint32_t kbps) {
  auto event = std::make_shared<CpdPacket>(CPD_PACKET_HEADER_SIZE + sizeof kbps);
  event->InitHeader(static_cast<uint8_t>(device_.GetDevId()), kBusReadBandwidth, 0);
  event->AppendPayload(&kbps, sizeof kbps);
  driver_->onBusEvent(std::move(event));
}

}  // namespace cpd::host
