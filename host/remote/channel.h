#pragma once

#include <chrono>
#include <cstddef>
#include <memory>

#include "cpd/driver.h"
#include "cpd/packet.h"

namespace cpd::host {

/// Carries a session's packets to the driver. Its operations are called under the session's lock,
/// and must not wait.
class Channel {
 public:
  virtual ~Channel() = default;

  /// Whether packets can get lost on the way, so that the session keeps them until they are
  /// answered.
  [[nodiscard]] virtual bool CanBreak() const = 0;
  /// Whether a packet of this length can be sent now. After it has returned false,
  /// Session::Proceed is called as soon as there is room.
  [[nodiscard]] virtual bool HasRoom(size_t packet_length) = 0;
  /// A channel that cannot break may take the packet's buffer.
  virtual void Send(const std::shared_ptr<CpdPacket>& packet) = 0;
  /// How long a packet and its answer are on their way at least, without the driver's work; 0 if
  /// that is not known.
  [[nodiscard]] virtual std::chrono::nanoseconds transit() const { return {}; }
};

/// Leads to a driver in this process.
class DriverChannel : public Channel {
 public:
  /// @param driver  must outlive the channel
  explicit DriverChannel(CpdDriver& driver) : driver_(driver) {}

  [[nodiscard]] bool CanBreak() const override { return false; }
  [[nodiscard]] bool HasRoom(size_t /*packet_length*/) override { return true; }
  void Send(const std::shared_ptr<CpdPacket>& packet) override {
    driver_.onEvent(std::make_unique<CpdPacket>(std::move(*packet)), 0);
  }

 private:
  CpdDriver& driver_;
};

}  // namespace cpd::host
