#include "line/disk_end.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "cpd/log.h"
#include "line/asked_data.h"
#include "line/signals_blocked.h"
#include "line/stream.h"
#include "remote/session.h"
#include "wire.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr uint32_t kProbeId = 0x50524f42;
/// What requests take in addition to their packets and replies, in bytes.
constexpr uint64_t kSpareMemory = 5 << 20;

}  // namespace

// The lock is held while the request goes to the driver, so that requests_ has the driver's order.
// The driver only queues it.
void Intake::HandOver(std::unique_ptr<CpdPacket> request, CpdDriver& driver) {
  const std::lock_guard lock(mutex_);
  const auto add = [&](std::unique_ptr<CpdPacket> packet, bool is_probe, uint64_t charge) {
    requests_.push_back({.command = packet->header->cmd,
                         .id = packet->header->requestId,
                         .charge = charge,
                         .is_probe = is_probe});
    driver.onEvent(std::move(packet), 0);
  };
  const uint64_t charge = ChargeOf(request->header->packetLen);
  add(std::move(request), false, charge);
  since_probe_ += charge;
  if (since_probe_ < threshold_) return;
  since_probe_ = 0;
  add(Session::Probe(kProbeId), true, 0);
}

bool Intake::NoteReply(const CpdPacket& reply) {
  uint64_t charge = 0;
  bool is_probe = false;
  {
    const std::lock_guard lock(mutex_);
    const auto answered = std::ranges::find_if(requests_, [&](const Request& request) {
      return request.command == reply.header->cmd && request.id == reply.header->requestId;
    });
    if (answered == requests_.end()) return true;
    is_probe = answered->is_probe;
    const auto end = std::next(answered);
    for (auto request = requests_.begin(); request != end; ++request) charge += request->charge;
    requests_.erase(requests_.begin(), end);
  }
  taken_(charge);
  return !is_probe;
}

Hello DiskEnd::OwnHello() const {
  const auto identity = identifier_.Now();
  return {.role = Role::kDisk,
          .largest = kLargestRequest,
          .window = options_.window,
          .session = options_.session,
          .disk = identity.disk,
          .life = identity.life};
}

void DiskEnd::Begin(Connection& connection, const Hello& theirs,
                    std::function<void(const Ending&)> ended) {
  options_.enter(theirs.session);
  const auto intake =
      std::make_shared<Intake>([&connection](uint64_t charge) { connection.Taken(charge); },
                               std::min<uint64_t>(options_.window, theirs.window) / 8);
  const SignalsBlocked blocked;
  recording_.Start();
  changes_.Start([&connection](const Notice& notice) { return connection.Send(notice); });
  // The module's packets are handled on its worker. While the line takes nothing, the worker waits
  // here, and so does everything that is queued for it.
  disk_.emplace(
      options_.disk, trace_, [this, &connection, intake](std::unique_ptr<CpdPacket> packet) {
        if (!changes_.NoteReply(*packet) || !intake->NoteReply(*packet)) return;
        if (packet->header->packetLen > std::min(connection.their_largest(), kLargestPacket)) {
          tesselLogPrint(0, 7, "CPD_HOST",
                         "a reply of %u bytes to command %u is longer than the other side takes",
                         packet->header->packetLen, packet->header->cmd);
          return;
        }
        Note(*packet, Way::kFromModule);
        connection.SendWhenRoom(std::move(packet));
      });
  watching_.emplace(500ms, [this, &connection] { Watch(connection); });
  connection.Start({.packet =
                        [this, intake](std::unique_ptr<CpdPacket> packet) {
                          // By now all threads have their stacks, which count, too.
                          memory_.Set(options_.window + kMostUnwritten +
                                      uint64_t{2} * kLargestPacket + kSpareMemory +
                                      recording_.memory());
                          const uint64_t asked = DataAskedFor(*packet);
                          if (asked > kMostData) {
                            throw StreamError(fmt::format("a request for {} bytes", asked));
                          }
                          Note(*packet, Way::kToModule);
                          changes_.Precede(*packet, disk_->driver());
                          intake->HandOver(std::move(packet), disk_->driver());
                        },
                    .room = [] {},
                    .ended = std::move(ended)});
}

Traffic DiskEnd::traffic() const {
  const std::lock_guard lock(mutex_);
  return traffic_;
}

void DiskEnd::Note(const CpdPacket& packet, Way way) {
  recording_.Note(packet, way);
  const std::lock_guard lock(mutex_);
  traffic_.requests += way == Way::kToModule ? 1 : 0;
  traffic_.Count(packet.header->cmd, packet.header->packetLen);
}

void DiskEnd::Watch(Connection& connection) {
  const auto state = watch_.Look();
  if (state == DiskWatch::State::kThere) return;
  if (!options_.awaits_disk) {
    connection.SayGoodbye(Farewell::kFailed, "the disk was unmounted");
  } else if (state == DiskWatch::State::kMountedAnew) {
    connection.GiveUp("the disk was mounted anew");
  }
}

// Each uses the other. Closing the connection first stops its use of the driver, and ends the
// driver's wait for room, so that the driver can be closed, too.
void DiskEnd::End(Connection& connection) {
  watching_.reset();
  connection.Close();
  disk_.reset();
  changes_.Stop();
}

}  // namespace cpd::host
