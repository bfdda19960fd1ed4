// Messages that carry descriptors.
#include "line/passed_message.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace cpd::host {
namespace {

class PassedMessageTest : public testing::Test {
 protected:
  PassedMessageTest() {
    std::array<int, 2> ends{};
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
      throw std::runtime_error("socketpair");
    }
    one = Descriptor(ends[0]);
    other = Descriptor(ends[1]);
  }
  static auto CountOpen() {
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  }

  Descriptor one;
  Descriptor other;
  const Descriptor null{open("/dev/null", O_RDONLY | O_CLOEXEC)};
};

TEST_F(PassedMessageTest, KeepsItsBoundsAndItsDescriptors) {
  ASSERT_TRUE(SendPassed(one.get(), "first", std::array{null.get(), one.get()}));
  ASSERT_TRUE(SendPassed(one.get(), "second"));
  const auto first = ReceivePassed(other.get(), 100);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->bytes, "first");
  ASSERT_EQ(first->descriptors.size(), 2U);
  struct stat sent {};
  struct stat received {};
  ASSERT_EQ(fstat(null.get(), &sent), 0);
  ASSERT_EQ(fstat(first->descriptors[0].get(), &received), 0);
  EXPECT_EQ(sent.st_rdev, received.st_rdev);
  EXPECT_NE(fcntl(first->descriptors[0].get(), F_GETFD) & FD_CLOEXEC, 0);
  const auto second = ReceivePassed(other.get(), 6);
  ASSERT_TRUE(second);
  EXPECT_EQ(second->bytes, "second");
  EXPECT_TRUE(second->descriptors.empty());
}

TEST_F(PassedMessageTest, IsDroppedWithItsDescriptorsWhenItIsTooLong) {
  ASSERT_TRUE(SendPassed(one.get(), "seven..", std::array{null.get()}));
  const auto before = CountOpen();
  EXPECT_FALSE(ReceivePassed(other.get(), 6));
  EXPECT_EQ(errno, EMSGSIZE);
  EXPECT_EQ(CountOpen(), before);
}

TEST_F(PassedMessageTest, IsDroppedWithItsDescriptorsWhenTheyAreTooMany) {
  constexpr size_t kCount = kMostDescriptors + 1;
  alignas(cmsghdr) std::array<char, CMSG_SPACE(kCount * sizeof(int))> room{};
  char byte = 'x';
  iovec text{.iov_base = &byte, .iov_len = 1};
  msghdr message{};
  message.msg_iov = &text;
  message.msg_iovlen = 1;
  message.msg_control = room.data();
  message.msg_controllen = room.size();
  cmsghdr* head = CMSG_FIRSTHDR(&message);
  head->cmsg_level = SOL_SOCKET;
  head->cmsg_type = SCM_RIGHTS;
  head->cmsg_len = CMSG_LEN(kCount * sizeof(int));
  std::fill_n(reinterpret_cast<int*>(CMSG_DATA(head)), kCount, null.get());
  ASSERT_EQ(sendmsg(one.get(), &message, 0), 1);
  const auto before = CountOpen();
  EXPECT_FALSE(ReceivePassed(other.get(), 6));
  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(CountOpen(), before);
}

// The kernel first reports a reset connection, and only then delivers the message.
TEST_F(PassedMessageTest, ArrivesFromAPeerThatEndedWithAMessageUnread) {
  ASSERT_TRUE(SendPassed(one.get(), "unread"));
  ASSERT_TRUE(SendPassed(other.get(), "last"));
  other.Close();
  const auto last = ReceivePassed(one.get(), 10);
  ASSERT_TRUE(last);
  EXPECT_EQ(last->bytes, "last");
  EXPECT_FALSE(ReceivePassed(one.get(), 10));
  EXPECT_EQ(errno, EPIPE);
}

TEST_F(PassedMessageTest, CannotBeSentToAPeerThatHasEnded) {
  ASSERT_TRUE(SendPassed(one.get(), "unread"));
  other.Close();
  EXPECT_FALSE(SendPassed(one.get(), "late"));
  EXPECT_EQ(errno, EPIPE);
}

}  // namespace
}  // namespace cpd::host
