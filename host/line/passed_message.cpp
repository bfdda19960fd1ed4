#include "line/passed_message.h"

#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace cpd::host {
namespace {

/// Room for the descriptors of a message, aligned as the kernel wants it.
union Control {
  cmsghdr head;
  std::array<char, CMSG_SPACE(kMostDescriptors * sizeof(int))> room;
};

}  // namespace

bool SendPassed(int socket, std::string_view bytes, std::span<const int> descriptors) {
  iovec text{.iov_base = const_cast<char*>(bytes.data()), .iov_len = bytes.size()};
  Control control{};
  msghdr message{};
  message.msg_iov = &text;
  message.msg_iovlen = 1;
  if (!descriptors.empty()) {
    message.msg_control = &control;
    message.msg_controllen = CMSG_SPACE(descriptors.size_bytes());
    cmsghdr* head = CMSG_FIRSTHDR(&message);
    head->cmsg_level = SOL_SOCKET;
    head->cmsg_type = SCM_RIGHTS;
    head->cmsg_len = CMSG_LEN(descriptors.size_bytes());
    std::memcpy(CMSG_DATA(head), descriptors.data(), descriptors.size_bytes());
  }
  ssize_t sent = 0;
  do {
    sent = sendmsg(socket, &message, MSG_NOSIGNAL);
    // A peer that has died with unread messages resets the connection once, then it is gone.
  } while (sent < 0 && (errno == EINTR || errno == ECONNRESET));
  return sent >= 0;
}

std::optional<PassedMessage> ReceivePassed(int socket, size_t most) {
  PassedMessage received;
  received.bytes.resize(most);
  iovec text{.iov_base = received.bytes.data(), .iov_len = most};
  Control control{};
  msghdr message{};
  message.msg_iov = &text;
  message.msg_iovlen = 1;
  ssize_t length = 0;
  do {
    message.msg_control = &control;
    message.msg_controllen = sizeof control;
    length = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
    // A peer that dies with unread messages resets the connection. What it has sent can still be
    // read, and then comes the end.
  } while (length < 0 && (errno == EINTR || errno == ECONNRESET));
  if (length == 0) errno = EPIPE;
  if (length <= 0) return std::nullopt;
  for (cmsghdr* head = CMSG_FIRSTHDR(&message); head != nullptr;
       head = CMSG_NXTHDR(&message, head)) {
    if (head->cmsg_level != SOL_SOCKET || head->cmsg_type != SCM_RIGHTS) continue;
    std::array<int, kMostDescriptors> descriptors{};
    const size_t bytes = head->cmsg_len - CMSG_LEN(0);
    std::memcpy(descriptors.data(), CMSG_DATA(head), bytes);
    for (size_t i = 0; i < bytes / sizeof(int); ++i)
      received.descriptors.emplace_back(descriptors[i]);
  }
  if ((message.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
    received.descriptors.clear();
    errno = (message.msg_flags & MSG_TRUNC) != 0 ? EMSGSIZE : EMFILE;
    return std::nullopt;
  }
  received.bytes.resize(static_cast<size_t>(length));
  return received;
}

}  // namespace cpd::host
