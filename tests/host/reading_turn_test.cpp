// Which thread reads the kernel's next call.
#include "mount/reading_turn.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <future>
#include <latch>
#include <memory>
#include <thread>

namespace cpd::host {
namespace {

/// Another thread that takes the turn, and keeps it until the end.
class Reader {
 public:
  explicit Reader(ReadingTurn& turn)
      : thread_([this, &turn] {
          while (!turn.Take()) continue;
          taken_.set_value();
          ended_.wait();
          turn.BeginCall();
          ReadingTurn::PassOn();
        }) {}
  ~Reader() { ended_.count_down(); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  void Await() { has_taken_.wait(); }
  /// Whether it takes the turn while another thread could have lost it several times.
  bool TakesSoon() {
    return has_taken_.wait_for(ReadingTurn::kLongest * 5) == std::future_status::ready;
  }

 private:
  std::promise<void> taken_;
  std::future<void> has_taken_ = taken_.get_future();
  std::latch ended_{1};
  std::jthread thread_;
};

TEST(ReadingTurnTest, StaysWithTheThreadThatServesOneCallAfterTheOther) {
  constexpr int kCalls = 2000;
  std::array<int, 2> calls{};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, calls.data()), 0);
  ReadingTurn turn;
  std::atomic<int> changes = 0;
  std::atomic<std::thread::id> last{};
  const auto serve = [&] {
    for (;;) {
      if (!turn.Take()) continue;
      char call = 0;
      const bool is_call = read(calls[1], &call, 1) == 1;
      if (last.exchange(std::this_thread::get_id()) != std::this_thread::get_id()) ++changes;
      turn.BeginCall();
      if (!is_call) return ReadingTurn::PassOn();
      EXPECT_EQ(write(calls[1], &call, 1), 1);
    }
  };
  {
    const std::array<std::jthread, 4> threads{std::jthread(serve), std::jthread(serve),
                                              std::jthread(serve), std::jthread(serve)};
    char call = 0;
    for (int i = 0; i < kCalls; ++i) {
      if (write(calls[0], &call, 1) != 1 || read(calls[0], &call, 1) != 1) {
        ADD_FAILURE() << "call " << i << " is not served";
        break;
      }
    }
    // A thread that is suspended for long while it serves a call loses the turn.
    EXPECT_LE(changes, kCalls / 10);
    shutdown(calls[0], SHUT_RDWR);
  }
  close(calls[0]);
  close(calls[1]);
}

TEST(ReadingTurnTest, GoesToAnotherThreadBeforeAWait) {
  ReadingTurn turn;
  ASSERT_TRUE(turn.Take());
  turn.BeginCall();
  Reader other(turn);
  ReadingTurn::PassOn();
  other.Await();
}

TEST(ReadingTurnTest, GoesToOneThreadHoweverOftenItIsPassedOn) {
  ReadingTurn turn;
  ASSERT_TRUE(turn.Take());
  turn.BeginCall();
  ReadingTurn::PassOn();
  ReadingTurn::PassOn();
  auto first = std::make_unique<Reader>(turn);
  first->Await();
  Reader second(turn);
  EXPECT_FALSE(second.TakesSoon());
  first.reset();
  second.Await();
}

TEST(ReadingTurnTest, GoesToAnotherThreadIfOneCallTakesLong) {
  ReadingTurn turn;
  ASSERT_TRUE(turn.Take());
  turn.BeginCall();
  auto other = std::make_unique<Reader>(turn);
  other->Await();
  ReadingTurn::PassOn();  // has no effect: this thread has lost the turn
  Reader third(turn);
  EXPECT_FALSE(third.TakesSoon());
  other.reset();
  third.Await();
}

TEST(ReadingTurnTest, StaysWithAThreadThatNoCallHasReached) {
  ReadingTurn turn;
  ASSERT_TRUE(turn.Take());
  Reader other(turn);
  EXPECT_FALSE(other.TakesSoon());
  ASSERT_TRUE(turn.Take());  // after a read that failed
  ReadingTurn::PassOn();     // no call is served
  EXPECT_FALSE(other.TakesSoon());
  turn.BeginCall();  // wakes what watches over the calls
  other.Await();
}

}  // namespace
}  // namespace cpd::host
