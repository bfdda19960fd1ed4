// Processes of a test's own.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

namespace cpd::test {

/// Looks every 5 ms whether a condition has come true, for ten seconds.
inline bool Eventually(const std::function<bool()>& condition) {
  using std::chrono::steady_clock;
  const auto deadline = steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

/// A process that runs `prepare` and then waits to be ended. The constructor returns once `prepare`
/// has returned; the test fails if `prepare` throws or an expectation in it fails.
class ChildProcess {
 public:
  explicit ChildProcess(const std::function<void()>& prepare) {
    std::array<int, 2> ready{};
    EXPECT_EQ(pipe(ready.data()), 0);
    pid_ = fork();
    if (pid_ == 0) {
      close(ready[0]);
      Run([&] {
        prepare();
        if (testing::Test::HasFailure()) return;
        (void)!write(ready[1], "!", 1);
        close(ready[1]);
        while (true) pause();
      });
    }
    close(ready[1]);
    char byte = 0;
    EXPECT_EQ(read(ready[0], &byte, 1), 1) << "the process ended early";
    close(ready[0]);
  }
  ~ChildProcess() {
    if (pid_ > 0) End(SIGKILL);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  [[nodiscard]] pid_t pid() const { return pid_; }
  /// Sends a signal, unless it is 0, and waits for the end.
  /// @return the status, as of waitpid
  int End(int signal) {
    if (signal != 0) kill(pid_, signal);
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return status;
  }

  /// Runs `body` in several processes at once.
  /// @return whether it returned in each of them and no expectation of it failed
  static bool Succeeds(const std::function<void()>& body, int count = 1) {
    std::vector<pid_t> processes;
    for (int i = 0; i < count; ++i) {
      processes.push_back(fork());
      if (processes.back() == 0) Run(body);
    }
    bool good = true;
    for (const pid_t process : processes) {
      int status = 0;
      waitpid(process, &status, 0);
      EXPECT_FALSE(WIFSIGNALED(status)) << "signal " << WTERMSIG(status);
      good = good && status == 0;
    }
    return good;
  }

 private:
  [[noreturn]] static void Run(const std::function<void()>& body) {
    try {
      body();
    } catch (const std::exception& error) {
      ADD_FAILURE() << error.what();
    }
    (void)fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }

  pid_t pid_ = -1;
};

}  // namespace cpd::test
