// Requests of the kernel whose programs are interrupted, with a test in the kernel's place.
#include "mount/kernel_request.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fuse.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/child_process.h"

namespace cpd::host {
namespace {

using test::Eventually;

/// Sends libfuse requests and takes the answers. Keeps each request until the test concludes it.
class InterruptedRequests : public testing::Test {
 protected:
  InterruptedRequests() {
    std::string name = "test";
    char* arguments[] = {name.data()};
    fuse_args args = FUSE_ARGS_INIT(1, arguments);
    fuse_lowlevel_ops operations{};
    operations.write = [](fuse_req_t request, fuse_ino_t, const char*, size_t size, off_t,
                          fuse_file_info*) { Keep(request, size); };
    operations.getattr = [](fuse_req_t request, fuse_ino_t, fuse_file_info*) { Keep(request, 0); };
    session_.reset(fuse_session_new(&args, &operations, sizeof operations, this));
    fuse_opt_free_args(&args);
    constexpr fuse_custom_io kHere{.writev = TakeAnswer,
                                   .read = ReadNothing,
                                   .splice_receive = nullptr,
                                   .splice_send = nullptr};
    fuse_session_custom_io(session_.get(), &kHere, open("/dev/null", O_RDWR | O_CLOEXEC));
    Send(FUSE_INIT, fuse_init_in{.major = FUSE_KERNEL_VERSION,
                                 .minor = FUSE_KERNEL_MINOR_VERSION,
                                 .max_readahead = 0,
                                 .flags = 0,
                                 .flags2 = 0,
                                 .unused = {}});
  }
  ~InterruptedRequests() override {
    while (!requests_.empty()) Conclude(requests_.begin()->first);
  }

  /// @return the number of the request
  uint64_t AskForAttributes() { return Send(FUSE_GETATTR, fuse_getattr_in{}); }
  uint64_t Write(uint32_t size) {
    fuse_write_in write{};
    write.size = size;
    return Send(FUSE_WRITE, write, size);
  }
  /// The kernel reports that the program that waits for a request got a signal.
  void Interrupt(uint64_t request) { Send(FUSE_INTERRUPT, fuse_interrupt_in{.unique = request}); }
  /// The disk has carried out a request.
  void Conclude(uint64_t request) { requests_.extract(request).mapped().ReplyError(0); }

  /// How many of these requests were answered with EINTR.
  size_t Interrupted(const std::vector<uint64_t>& requests) {
    const std::lock_guard lock(mutex_);
    return static_cast<size_t>(std::ranges::count_if(requests, [this](uint64_t request) {
      const auto answer = answers_.find(request);
      return answer != answers_.end() && answer->second == -EINTR;
    }));
  }

  /// Lets go of a request without an answer.
  void Lose(uint64_t request) { requests_.erase(request); }
  /// What the kernel was told.
  std::optional<int> AnswerTo(uint64_t request) {
    const std::lock_guard lock(mutex_);
    const auto answer = answers_.find(request);
    return answer == answers_.end() ? std::nullopt : std::optional(answer->second);
  }

  std::atomic<bool> is_cut_off = true;

 private:
  struct DestroySession {
    void operator()(fuse_session* session) const { fuse_session_destroy(session); }
  };

  static void Keep(fuse_req_t request, size_t data_size) {
    auto& self = *static_cast<InterruptedRequests*>(fuse_req_userdata(request));
    self.requests_.emplace(self.last_, KernelRequest(request, self.interruptions_, data_size));
  }
  static ssize_t TakeAnswer(int /*device*/, iovec* parts, int count, void* self) {
    fuse_out_header header{};
    std::memcpy(&header, parts[0].iov_base, sizeof header);
    auto& test = *static_cast<InterruptedRequests*>(self);
    const std::lock_guard lock(test.mutex_);
    test.answers_[header.unique] = header.error;
    ssize_t length = 0;
    for (int i = 0; i < count; ++i) length += static_cast<ssize_t>(parts[i].iov_len);
    return length;
  }
  static ssize_t ReadNothing(int /*device*/, void* /*buffer*/, size_t /*size*/, void* /*self*/) {
    return 0;
  }

  template <class Body>
  uint64_t Send(uint32_t code, const Body& body, size_t data_size = 0) {
    fuse_in_header header{};
    header.len = static_cast<uint32_t>(sizeof header + sizeof body + data_size);
    header.opcode = code;
    header.unique = ++last_;
    header.nodeid = FUSE_ROOT_ID;
    std::string message(header.len, '\0');
    std::memcpy(message.data(), &header, sizeof header);
    std::memcpy(message.data() + sizeof header, &body, sizeof body);
    fuse_buf buffer{};
    buffer.size = message.size();
    buffer.mem = message.data();
    fuse_session_process_buf(session_.get(), &buffer);
    return header.unique;
  }

  std::unique_ptr<fuse_session, DestroySession> session_;
  uint64_t last_ = 0;
  std::mutex mutex_;
  std::map<uint64_t, int> answers_;  // guarded by mutex_; the error of each
  Interruptions interruptions_{[this] { return is_cut_off.load(); }};
  std::map<uint64_t, KernelRequest> requests_;
};

TEST_F(InterruptedRequests, AreAnsweredOnceTheDiskCannotBeReached) {
  is_cut_off = false;
  const auto request = AskForAttributes();
  Interrupt(request);
  EXPECT_EQ(Interrupted({request}), 0U);
  is_cut_off = true;
  EXPECT_TRUE(Eventually([&] { return Interrupted({request}) == 1; }));
}

TEST_F(InterruptedRequests, WaitWhileThoseBeforeHoldTooMuch) {
  constexpr uint32_t kSize = 1 << 20;
  constexpr size_t kMost = Interruptions::kMostHeld / kSize;
  std::vector<uint64_t> writes;
  for (size_t i = 0; i < 2 * kMost; ++i) {
    writes.push_back(Write(kSize));
    Interrupt(writes.back());
  }
  // Something small still has room, and its answer shows that all those before were looked at.
  const auto small = AskForAttributes();
  Interrupt(small);
  ASSERT_TRUE(Eventually([&] { return Interrupted({small}) == 1; }));
  EXPECT_GE(Interrupted(writes), kMost / 2);
  EXPECT_LE(Interrupted(writes), kMost);

  for (const auto write : writes) {
    if (Interrupted({write}) == 1) Conclude(write);
  }
  EXPECT_TRUE(Eventually([&] { return Interrupted(writes) > kMost; })) << "the room is not free";
}

TEST_F(InterruptedRequests, AreLimitedAlsoIfTheyBringNoData) {
  constexpr size_t kMost = Interruptions::kMostHeld / Interruptions::kHeldByEach;
  std::vector<uint64_t> requests;
  for (size_t i = 0; i < kMost + 100; ++i) {
    requests.push_back(AskForAttributes());
    Interrupt(requests.back());
  }
  EXPECT_TRUE(Eventually([&] { return Interrupted(requests) >= kMost; }));
  std::this_thread::sleep_for(std::chrono::milliseconds(250));
  EXPECT_EQ(Interrupted(requests), kMost);
  Conclude(requests.front());
  EXPECT_TRUE(Eventually([&] { return Interrupted(requests) > kMost; }));
}

TEST_F(InterruptedRequests, FailIfTheyAreLostWithoutAnAnswer) {
  is_cut_off = false;
  const auto request = AskForAttributes();
  Lose(request);
  EXPECT_EQ(AnswerTo(request), -EIO);

  const auto interrupted = AskForAttributes();
  Interrupt(interrupted);
  Lose(interrupted);
  EXPECT_TRUE(Eventually([&] { return AnswerTo(interrupted) == -EIO; }));

  const auto answered = AskForAttributes();
  Interrupt(answered);
  is_cut_off = true;
  ASSERT_TRUE(Eventually([&] { return AnswerTo(answered) == -EINTR; }));
  Lose(answered);
  EXPECT_EQ(AnswerTo(answered), -EINTR) << "answered twice";
}

}  // namespace
}  // namespace cpd::host
