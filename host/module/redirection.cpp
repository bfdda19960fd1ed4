#include "module/redirection.h"

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

#include "remote/announcement.h"
#include "wire.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr auto kAnnouncementLimit = 10s;

}  // namespace

Redirection::Redirection(const DiskOptions& options)
    : recording_(options),
      session_(options.time_limit),
      trace_(options.trace),
      changes_(options.disk),
      disk_(options, trace_,
            [this](std::unique_ptr<CpdPacket> packet) {
              if (!changes_.NoteReply(*packet)) return;
              recording_.Note(*packet, Way::kFromModule);
              // A second announcement is ignored: it changes nothing.
              if (packet->header->cmd != kMountRemote) return session_.Receive(std::move(packet));
              if (!std::exchange(is_announced_, true)) announced_.set_value();
            }),
      channel_(disk_.driver(), recording_, changes_) {
  recording_.Start();
  if (announced_.get_future().wait_for(kAnnouncementLimit) != std::future_status::ready) {
    throw std::runtime_error(fmt::format("the module did not announce the disk within {} s",
                                         kAnnouncementLimit.count()));
  }
  session_.Start(&channel_);
  session_.Tell(MountResponse(options.drive, options.label));
}

void Redirection::WatchChanges() {
  changes_.Start([this](const Notice& notice) {
    session_.Receive(notice);
    return true;
  });
}

Redirection::~Redirection() { session_.Stop(); }

}  // namespace cpd::host
