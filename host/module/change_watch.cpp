#include "module/change_watch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <exception>
#include <functional>
#include <optional>
#include <string_view>
#include <utility>

#include "remote/session.h"
#include "wire.h"

namespace cpd::host {
namespace {

constexpr uint32_t kProbeId = 0x57415443;

/// The directory that a request lists; nothing for any other request, nor for a path that is too
/// long to be watched.
std::optional<std::string> ListedBy(const CpdPacket& request) {
  if (request.header->cmd != kDirRead && request.header->cmd != kCheckDir) return std::nullopt;
  DirHead head;
  std::string_view left(reinterpret_cast<const char*>(request.buffer->data),
                        request.buffer->capacity);
  left.remove_prefix(CPD_PACKET_HEADER_SIZE);
  if (left.size() < sizeof head) return std::nullopt;
  std::memcpy(&head, left.data(), sizeof head);
  const auto path = left.substr(sizeof head, head.path_length);
  if (path.size() > DirectoryWatches::kLongestPath) return std::nullopt;
  return std::string(path);
}

}  // namespace

void ChangeWatch::Start(Tell tell) {
  Stop();
  wake_ = Descriptor(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (watches_.descriptor() < 0 || !wake_.ok()) return;
  thread_ = std::jthread([this](const std::stop_token& stop) { Run(stop); });
  {
    const std::lock_guard lock(mutex_);
    tell_ = std::move(tell);
  }
  const std::lock_guard lock(queue_mutex_);
  is_started_ = true;
}

void ChangeWatch::Stop() {
  {
    const std::lock_guard lock(queue_mutex_);
    is_started_ = false;
    listed_.clear();
  }
  if (thread_.joinable()) {
    thread_.request_stop();
    const uint64_t one = 1;
    (void)!write(wake_.get(), &one, sizeof one);
    thread_.join();
  }
  const std::lock_guard lock(mutex_);
  tell_ = nullptr;
  is_all_due_ = false;
  watches_.Forget();
}

void ChangeWatch::Precede(const CpdPacket& request, CpdDriver& driver) {
  auto directory = ListedBy(request);
  if (!directory) return;
  const std::lock_guard lock(queue_mutex_);
  if (!is_started_ || listed_.size() == kMostListed) return;
  listed_.push_back(*std::move(directory));
  driver.onEvent(Session::Probe(kProbeId), 0);
}

bool ChangeWatch::NoteReply(const CpdPacket& reply) {
  std::optional<std::string> listed;
  if (reply.header->cmd == kGetXattr && reply.header->requestId == kProbeId) {
    const std::lock_guard lock(queue_mutex_);
    if (!listed_.empty()) {
      listed = std::move(listed_.front());
      listed_.pop_front();
    }
  }
  const std::lock_guard lock(mutex_);
  TellLocked(listed);
  return !listed;
}

/// Tells what has changed, and watches a directory that is about to be listed.
void ChangeWatch::TellLocked(const std::optional<std::string>& listed) {
  if (!tell_) return;
  const auto give_up = [this] {
    watches_.Forget();
    is_all_due_ = true;
  };
  const auto tell_all = [this] {
    if (is_all_due_) tell_({.what = Notice::What::kAll});
    is_all_due_ = false;
  };
  try {
    tell_all();
    DirectoryWatches::Notices notices;
    if (listed) {
      watches_.Watch(*listed, &notices);
    } else {
      watches_.Collect(&notices);
    }
    if (!std::ranges::all_of(notices, std::ref(tell_))) {
      give_up();
      tell_all();
    }
  } catch (...) {
    give_up();
    throw;
  }
}

void ChangeWatch::Run(const std::stop_token& stop) {
  std::array<pollfd, 2> events{{{.fd = wake_.get(), .events = POLLIN, .revents = 0},
                                {.fd = watches_.descriptor(), .events = POLLIN, .revents = 0}}};
  while (!stop.stop_requested()) {
    if (poll(events.data(), events.size(), -1) < 0 && errno != EINTR) return;
    if (poll(events.data(), 1, static_cast<int>(kPause.count())) > 0) return;
    const std::lock_guard lock(mutex_);
    try {
      TellLocked(std::nullopt);
    } catch (const std::exception&) {
      // There is too little memory. The next answer does not pass before kAll.
    }
  }
}

}  // namespace cpd::host
