#include "line/fence.h"

#include <fmt/format.h>

#include <csignal>
#include <string>
#include <thread>

#include "line/pidfd.h"

namespace cpd::host {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

bool Fence::Enter(const SessionId& session, std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  const std::string name = fmt::format("serve-{:02x}", fmt::join(session, ""));
  pid_t asked = 0;
  while (true) {
    LockHolder holder;
    if (auto lock = LockFile::Try(directory_, name, &holder)) {
      lock_.emplace(std::move(*lock));
      return true;
    }
    if (holder.number != asked && holder.process.ok()) {
      pidfd_send_signal(holder.process.get(), SIGTERM, nullptr, 0);
      asked = holder.number;
    }
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(20ms);
  }
}

}  // namespace cpd::host
