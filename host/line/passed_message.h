// Messages between processes of this machine that carry open descriptors.
#pragma once

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"

namespace cpd::host {

/// At most this many descriptors travel with a message.
inline constexpr size_t kMostDescriptors = 4;

struct PassedMessage {
  std::string bytes;
  std::vector<Descriptor> descriptors;
};

/// Sends one message on a SOCK_SEQPACKET socket.
/// @param bytes  not empty: an empty message reads as the end
/// @param descriptors  at most kMostDescriptors; they stay open here
/// @return false, with errno: EPIPE when the other end is gone
bool SendPassed(int socket, std::string_view bytes, std::span<const int> descriptors = {});

/// Waits for the next message on a SOCK_SEQPACKET socket.
/// @param most  the longest text that is taken, in bytes
/// @return nothing, with errno: EPIPE when the other end is gone, EMSGSIZE when it sends a longer
///         text, EMFILE when it sends more descriptors than kMostDescriptors, or than this process
///         may have open
std::optional<PassedMessage> ReceivePassed(int socket, size_t most);

}  // namespace cpd::host
