#include "module/redirection.h"

#include <fmt/format.h>

#include <limits>
#include <stdexcept>
#include <string_view>

#include "wire.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr auto kAnnouncementLimit = 10s;
// The module lifts the limit when it has heard no bandwidth for 5 s.
constexpr auto kBandwidthInterval = 1s;

std::string_view CutTo16Bits(std::string_view text) {
  return text.substr(0, std::numeric_limits<uint16_t>::max());
}

}  // namespace

Redirection::Redirection(const DiskOptions& options)
    : trace_(options.trace),
      session_(options.time_limit),
      device_(options, session_, trace_),
      module_(options.module),
      driver_(module_.Open(&device_, options.policy)) {
  session_.Start(driver_.get());
  if (!session_.WaitForAnnouncement(kAnnouncementLimit)) {
    throw std::runtime_error(fmt::format("the module did not announce the disk within {} s",
                                         kAnnouncementLimit.count()));
  }
  AnswerAnnouncement(options);
  if (options.bandwidth_kbps != 0) {
    AnnounceBandwidth(options.bandwidth_kbps);  // before the first read
    bandwidth_ = std::make_unique<Periodic>(
        kBandwidthInterval, [this, kbps = options.bandwidth_kbps] { AnnounceBandwidth(kbps); });
  }
}

Redirection::~Redirection() { session_.Stop(); }

void Redirection::AnnounceBandwidth(uint32_t kbps) {
  auto event = std::make_shared<CpdPacket>(CPD_PACKET_HEADER_SIZE + sizeof kbps);
  event->InitHeader(Session::kDeviceId, kBusReadBandwidth, 0);
  event->AppendPayload(&kbps, sizeof kbps);
  driver_->onBusEvent(std::move(event));
}

void Redirection::AnswerAnnouncement(const DiskOptions& options) {
  const auto drive = CutTo16Bits(options.drive);
  const auto label = CutTo16Bits(options.label);
  const MountResponseHead head{.label_length = static_cast<uint16_t>(label.size()),
                               .drive_length = static_cast<uint16_t>(drive.size())};
  auto answer = std::make_unique<CpdPacket>(CPD_PACKET_HEADER_SIZE + sizeof head + drive.size() +
                                            label.size());
  answer->InitHeader(Session::kDeviceId, kMountResponse, 0);
  answer->AppendPayload(&head, sizeof head);
  answer->AppendPayload(drive.data(), head.drive_length);
  answer->AppendPayload(label.data(), head.label_length);
  session_.Tell(std::move(answer));
}

}  // namespace cpd::host
