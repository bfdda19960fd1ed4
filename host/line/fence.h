// Only one process serves a session.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <optional>

#include "line/runtime_directory.h"

namespace cpd::host {

/// When a line drops, the other side dials again and another process begins to serve the session,
/// perhaps before the first has noticed the drop. An old request, carried out now, would overwrite
/// what newer ones have done. So the newer process ends the older one, and waits for its end,
/// before it touches the disk.
class Fence {
 public:
  using SessionId = std::array<uint8_t, 16>;

  /// @param directory  opened before the sandbox; must outlive this
  explicit Fence(const RuntimeDirectory& directory) : directory_(directory) {}

  /// Sends SIGTERM to the process that serves the session, and waits until it has ended. It is not
  /// killed, because a request that it carries out must not stay half done. From then on this
  /// process serves the session, until destruction. Call it once, from any thread; inside the
  /// sandbox it opens and removes a file of the directory, and needs pidfd_open and
  /// pidfd_send_signal.
  /// @return false when the older process still runs after `limit`
  /// @throws std::runtime_error when the lock cannot be made
  [[nodiscard]] bool Enter(const SessionId& session, std::chrono::milliseconds limit);

 private:
  const RuntimeDirectory& directory_;
  std::optional<LockFile> lock_;
};

}  // namespace cpd::host
