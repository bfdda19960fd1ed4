#include "line/remote_end.h"

#include <utility>

#include "line/signals_blocked.h"
#include "remote/announcement.h"
#include "remote/remote_files.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr auto kAnnouncementLimit = 10s;

// A directory check is the longest request: it carries a listing and a path.
static_assert(RemoteFiles::kLongestCheck + UINT16_MAX < kLargestRequest);

AnnouncedDisk AwaitAnnouncement(Connection& connection, Recording& recording) {
  using std::chrono::ceil, std::chrono::milliseconds, std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + kAnnouncementLimit;
  for (;;) {
    const auto left = ceil<milliseconds>(deadline - steady_clock::now());
    const auto packet = connection.AwaitPacket(left);
    connection.Taken(ChargeOf(packet->header->packetLen));
    recording.Note(*packet, Way::kFromModule);
    if (auto disk = ReadAnnouncement(*packet)) return *std::move(disk);
  }
}

}  // namespace

RemoteEnd::RemoteEnd(RemoteEndOptions options)
    : options_(std::move(options)), session_(options_.time_limit, options_.patience) {}

AnnouncedDisk RemoteEnd::disk() const {
  const std::lock_guard lock(mutex_);
  return disk_;
}

Hello RemoteEnd::OwnHello() const {
  return {.role = Role::kRemote, .window = options_.window, .session = options_.session};
}

void RemoteEnd::Begin(Connection& connection, const Hello& theirs,
                      std::function<void(const Ending&)> ended) {
  NoteDisk(theirs, AwaitAnnouncement(connection, options_.recording));
  options_.recording.Start();  // by now this side is in its sandbox
  connection.Start({.packet =
                        [this, &connection](std::unique_ptr<CpdPacket> packet) {
                          const uint64_t charge = ChargeOf(packet->header->packetLen);
                          options_.recording.Note(*packet, Way::kFromModule);
                          session_.Receive(std::move(packet));
                          connection.Taken(charge);
                        },
                    .room = [this] { session_.Proceed(); },
                    .notice = [this](const Notice& notice) { session_.Receive(notice); },
                    .ended = std::move(ended)});
  channel_.emplace(connection, options_.recording);
  channel_->Send(
      MountResponse(options_.drive, options_.label.empty() ? disk().name : options_.label));
  const SignalsBlocked blocked;  // for the thread that the session starts
  session_.Start(&*channel_);
}

void RemoteEnd::End(Connection& /*connection*/) { session_.Break(); }

void RemoteEnd::NoteDisk(const Hello& theirs, const AnnouncedDisk& disk) {
  std::optional<Hello> before;
  {
    const std::lock_guard lock(mutex_);
    before = std::exchange(before_, theirs);
    disk_ = disk;
  }
  if (!before) return options_.on_first(disk);
  if (before->disk != theirs.disk) return options_.on_renewal(Renewal::kDisk);
  if (before->life != theirs.life) options_.on_renewal(Renewal::kLife);
}

}  // namespace cpd::host
