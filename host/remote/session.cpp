#include "remote/session.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "remote/at_end.h"
#include "remote/recovery.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr auto kProbeAfter = 1s;
// A module that paces reads may sleep this long before it replies: for the largest read at the
// lowest rate.
constexpr auto kPacingAllowance = 10s;
constexpr size_t kMostNotices = 1024;  // between two answers
// A packet that is on its way for longer waits in a queue, which counts as work, or the other side
// lies.
constexpr Session::Clock::duration kLongestTransit = 500ms;

std::unique_ptr<CpdPacket> AttributesRequest(std::string_view path) {
  FileAttrHead head{};
  head.path_length = static_cast<uint16_t>(path.size());
  auto request = std::make_unique<CpdPacket>(CPD_PACKET_HEADER_SIZE + sizeof head + path.size());
  request->InitHeader(Session::kDeviceId, kGetFileAttr, 0);
  request->AppendPayload(&head, sizeof head);
  request->AppendPayload(path.data(), head.path_length);
  return request;
}

/// The attributes in a reply to a request for them; empty if there is no such file.
/// @return false when the reply is missing or malformed
bool ReadAttributes(const CpdPacket* reply, std::optional<udisk_stat>* attributes) {
  FileAttrHead head;
  if (reply == nullptr || reply->PayloadSize() < sizeof head) return false;
  const uint8_t* const payload = reply->GetPayload();
  std::memcpy(&head, payload, sizeof head);
  if (head.attr_length == 0) return true;
  const size_t offset = sizeof head + head.path_length;
  if (reply->PayloadSize() < offset + sizeof(udisk_stat)) return false;
  std::memcpy(&attributes->emplace(), payload + offset, sizeof(udisk_stat));
  return true;
}

}  // namespace

std::unique_ptr<CpdPacket> Session::Probe(uint32_t id) {
  const XattrHead head{};
  auto probe = std::make_unique<CpdPacket>(CPD_PACKET_HEADER_SIZE + sizeof head);
  probe->InitHeader(kDeviceId, kGetXattr, id);
  probe->AppendPayload(&head, sizeof head);
  return probe;
}

Session::Session(std::chrono::seconds time_limit, std::chrono::seconds patience)
    : time_limit_(time_limit + kPacingAllowance), patience_(patience) {}

// ---- The channel ----

void Session::Start(Channel* channel) {
  Receive(Notice{.what = Notice::What::kAll});
  const std::lock_guard lock(mutex_);
  notices_.clear();
  if (watch_ == nullptr) watch_ = std::make_unique<Periodic>(100ms, [this] { Watch(); });
  channel_ = channel;
  broken_.reset();
  is_refusing_ = false;
  if (!lost_.empty()) return LookIntoLocked();
  SendWaitingLocked();
}

void Session::Break() {
  Requests given_up;
  {
    const std::lock_guard lock(mutex_);
    if (channel_ == nullptr) return;
    channel_ = nullptr;
    for (auto& request : outstanding_) {
      if (!request.is_question) lost_.push_back(std::move(request));
    }
    first_id_ += static_cast<uint32_t>(outstanding_.size());
    outstanding_.clear();
    doubts_.clear();
    probing_ = false;
    broken_ = Clock::now();
    if (!waits_) given_up = TakeAllLocked();
  }
  GiveUp(given_up);
}

void Session::GiveUpWhile(const std::function<void()>& change) {
  Requests given_up;
  {
    const std::lock_guard lock(mutex_);
    is_refusing_ = true;
    given_up = TakeAllLocked();
  }
  GiveUp(given_up);
  AwaitDelivery();
  change();
  const std::lock_guard lock(mutex_);
  is_refusing_ = !waits_;
}

void Session::StopWaiting() {
  Requests given_up;
  {
    const std::lock_guard lock(mutex_);
    waits_ = false;
    if (channel_ == nullptr) given_up = TakeAllLocked();
  }
  GiveUp(given_up);
}

void Session::Proceed() {
  const std::lock_guard lock(mutex_);
  SendWaitingLocked();
}

void Session::Stop() {
  Requests given_up;
  {
    const std::lock_guard lock(mutex_);
    is_stopped_ = true;
    channel_ = nullptr;
    given_up = TakeAllLocked();
  }
  GiveUp(given_up);
  AwaitDelivery();
}

// ---- Requests and replies ----

void Session::Ask(std::unique_ptr<CpdPacket> request, Done done,
                  const std::optional<udisk_stat>& before) {
  {
    const std::lock_guard lock(mutex_);
    if (!is_stopped_ && !is_refusing_ && request->header != nullptr) {
      if (outstanding_.empty() && waiting_.empty()) waiting_since_ = Clock::now();
      const uint16_t command = request->header->cmd;
      waiting_.push_back({.command = command,
                          .packet = std::move(request),
                          .done = std::move(done),
                          .before = before,
                          .sent = {}});
      return SendWaitingLocked();
    }
  }
  done(nullptr);
}

void Session::Tell(std::unique_ptr<CpdPacket> packet) {
  const std::lock_guard lock(mutex_);
  if (channel_ == nullptr || packet->header == nullptr) return;
  auto& counters = statistics_[packet->header->cmd];
  ++counters.requests;
  counters.bytes += packet->header->packetLen;
  channel_->Send(std::move(packet));
}

void Session::Receive(std::unique_ptr<CpdPacket> packet) {
  if (packet == nullptr || packet->header == nullptr) return;
  const CpdPacketHeader header = *packet->header;
  Requests silent;
  Done done;
  {
    const std::lock_guard lock(mutex_);
    // An id out of range belongs to a request that was given up, or that this session never sent.
    const uint32_t place = header.requestId - first_id_;
    if (place >= outstanding_.size() || outstanding_[place].command != header.cmd) return;

    const auto now = Clock::now();
    TakeFrontLocked(place, &silent);
    auto& answered = outstanding_.front();
    auto& counters = statistics_[header.cmd];
    ++counters.replies;
    counters.bytes += header.packetLen;
    counters.durations.Add(now - answered.sent);
    lowest_.Add(now - answered.sent);
    told_until_ = answered.sent;
    round_trip_ = lowest_.value();
    done = std::move(answered.done);
    transit_ = std::min(channel_->transit(), kLongestTransit);
    const auto arrived = answered.sent + transit_.load();
    time_of_answer_ = now - std::clamp(arrived, waiting_since_, now);
    outstanding_.pop_front();
    ++first_id_;
    waiting_since_ = now;
    ++delivering_;
    if (outstanding_.empty()) SendWaitingLocked();
  }
  const AtEnd delivered([this] { CountDelivered(); });
  for (auto& request : silent) request.done(nullptr);
  done(std::move(packet));
  TellAgain();
}

void Session::Receive(const Notice& notice) {
  std::shared_ptr<const Listener> listener;
  {
    const std::lock_guard lock(mutex_);
    if (is_stopped_ || listener_ == nullptr) return;
    listener = listener_;
    if (notices_.size() == kMostNotices) notices_ = {{.what = Notice::What::kAll}};
    // A watch that is told of again might have ended meanwhile.
    if (notice.what != Notice::What::kWatched) notices_.push_back(notice);
    const bool is_change = notice.what == Notice::What::kFile || notice.what == Notice::What::kName;
    if (is_change) ++savings_.told;
    ++delivering_;
  }
  const AtEnd delivered([this] { CountDelivered(); });
  (*listener)(notice);
}

void Session::TellAgain() {
  std::vector<Notice> notices;
  std::shared_ptr<const Listener> listener;
  {
    const std::lock_guard lock(mutex_);
    if (notices_.empty()) return;
    notices.swap(notices_);
    listener = listener_;
  }
  for (const auto& notice : notices) (*listener)(notice);
}

void Session::Listen(Listener listener) {
  const std::lock_guard lock(mutex_);
  listener_ = std::make_shared<const Listener>(std::move(listener));
}

bool Session::IsCutOff() const {
  const std::lock_guard lock(mutex_);
  return broken_.has_value();
}

Statistics Session::statistics() const {
  const std::lock_guard lock(mutex_);
  return statistics_;
}

void Session::SendWaitingLocked() {
  if (channel_ == nullptr || !lost_.empty()) return;
  while (!waiting_.empty()) {
    const auto& next = waiting_.front();
    if (channel_->CanBreak() && IsSentAlone(next.command) && !outstanding_.empty()) return;
    if (!channel_->HasRoom(next.packet->header->packetLen)) return;
    auto request = std::move(waiting_.front());
    waiting_.pop_front();
    SendLocked(std::move(request));
  }
}

// The request goes to the channel under the lock, so that outstanding_ has the driver's order.
void Session::SendLocked(Request request) {
  const auto now = Clock::now();
  if (outstanding_.empty()) waiting_since_ = now;
  const auto packet = request.packet;
  packet->header->requestId = first_id_ + static_cast<uint32_t>(outstanding_.size());
  auto& counters = statistics_[request.command];
  ++counters.requests;
  counters.bytes += packet->header->packetLen;
  request.sent = now;
  if (!channel_->CanBreak()) request.packet.reset();
  outstanding_.push_back(std::move(request));
  channel_->Send(packet);
}

void Session::TakeFrontLocked(size_t count, Requests* taken) {
  for (; count > 0; --count) {
    taken->push_back(std::move(outstanding_.front()));
    outstanding_.pop_front();
    ++first_id_;
  }
}

Session::Requests Session::TakeAllLocked() {
  Requests all = std::exchange(lost_, {});
  TakeFrontLocked(outstanding_.size(), &all);
  std::ranges::move(waiting_, std::back_inserter(all));
  waiting_.clear();
  doubts_.clear();
  if (broken_) is_refusing_ = true;
  if (!all.empty()) ++delivering_;
  return all;
}

/// Gives up what TakeAllLocked has taken.
void Session::GiveUp(const Requests& requests) {
  if (requests.empty()) return;
  const AtEnd delivered([this] { CountDelivered(); });
  for (const auto& request : requests) request.done(nullptr);
}

void Session::CountDelivered() {
  --delivering_;
  delivering_.notify_all();
}

/// Waits until no thread runs Done functions or the listener.
void Session::AwaitDelivery() const {
  for (int others = delivering_; others != 0; others = delivering_) delivering_.wait(others);
}

// ---- After a break ----

/// Asks what became of the lost requests that must not be sent twice.
void Session::LookIntoLocked() {
  doubts_.clear();
  for (const auto& request : lost_) {
    auto& doubt = doubts_.emplace_back();
    if (!IsUnrepeatable(request.command)) continue;
    const auto paths = PathsToLookAt(*request.packet);
    doubt = std::make_shared<Doubt>(Doubt{
        .found = std::vector<std::optional<udisk_stat>>(paths.size()), .unanswered = paths.size()});
    for (size_t i = 0; i < paths.size(); ++i) AskForLocked(doubt, i, paths[i]);
  }
  (void)SettleLocked();  // if there was nothing to ask
}

void Session::AskForLocked(const std::shared_ptr<Doubt>& doubt, size_t index,
                           std::string_view path) {
  const auto note = [this, doubt, index](const std::unique_ptr<CpdPacket>& reply) {
    Concluded concluded;
    {
      const std::lock_guard lock(mutex_);
      // The channel broke meanwhile: the next one asks anew.
      if (std::ranges::find(doubts_, doubt) == doubts_.end()) return;
      if (!ReadAttributes(reply.get(), &doubt->found[index])) doubt->is_unknown = true;
      --doubt->unanswered;
      concluded = SettleLocked();
    }
    for (auto& [done, answer] : concluded) done(std::move(answer));
  };
  SendLocked({.command = kGetFileAttr,
              .packet = AttributesRequest(path),
              .done = note,
              .before = {},
              .sent = {},
              .is_question = true});
}

/// Once everything is known about the lost requests: puts those that are to be sent again in front
/// of the waiting ones.
/// @return the others, with their replies
Session::Concluded Session::SettleLocked() {
  if (std::ranges::any_of(doubts_,
                          [](const auto& doubt) { return doubt && doubt->unanswered > 0; })) {
    return {};
  }
  Concluded concluded;
  Requests again;
  for (size_t i = 0; i < doubts_.size(); ++i) {
    auto& request = lost_[i];
    const auto& doubt = doubts_[i];
    auto reply = doubt == nullptr || doubt->is_unknown
                     ? nullptr
                     : LostReply(*request.packet, request.before, doubt->found);
    if (reply == nullptr) {
      again.push_back(std::move(request));
    } else {
      concluded.emplace_back(std::move(request.done), std::move(reply));
    }
  }
  waiting_.insert(waiting_.begin(), std::move_iterator(again.begin()),
                  std::move_iterator(again.end()));
  lost_.clear();
  doubts_.clear();
  SendWaitingLocked();
  return concluded;
}

// ---- Time limits ----

void Session::Watch() {
  Requests given_up;
  {
    const std::lock_guard lock(mutex_);
    const auto now = Clock::now();
    if (broken_) {
      if (now - *broken_ >= patience_) given_up = TakeAllLocked();
    } else if (channel_ != nullptr && !(outstanding_.empty() && waiting_.empty())) {
      const auto waited = now - waiting_since_;
      if (waited >= time_limit_) {
        given_up = TakeAllLocked();
      } else if (waited >= kProbeAfter && !probing_) {
        SendProbeLocked();
      }
    }
  }
  GiveUp(given_up);
}

void Session::SendProbeLocked() {
  auto probe = Probe(0);
  if (!channel_->HasRoom(probe->header->packetLen)) return;
  probing_ = true;
  SendLocked({.command = kGetXattr,
              .packet = std::move(probe),
              .done =
                  [this](const std::unique_ptr<CpdPacket>&) {
                    const std::lock_guard lock(mutex_);
                    probing_ = false;
                  },
              .before = {},
              .sent = {},
              .is_question = true});
}

}  // namespace cpd::host
