// Files that another process holds a lease on: a request waits until the lease ends, as a plain
// open does, and loses nothing.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <thread>

#include "support/failing_calls.h"
#include "support/operator_fixture.h"
#include "support/requests.h"

namespace cpd::test {
namespace {

using namespace std::chrono_literals;

/// Holds a lease that every open of the file breaks, and gives it up a while after the break began.
/// The kernel treats a lease of this process like one of another process.
class LeaseHolder {
 public:
  explicit LeaseHolder(const std::string& path)
      : signal_before_(signal(SIGIO, SIG_IGN)),
        fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC)),
        error_(fcntl(fd_, F_SETLEASE, F_WRLCK) == 0 ? 0 : errno) {
    if (error_ == 0) holder_ = std::thread([this] { GiveUpOnceAsked(); });
  }
  ~LeaseHolder() {
    ended_ = true;
    if (holder_.joinable()) holder_.join();
    close(fd_);
    signal(SIGIO, signal_before_);
  }
  LeaseHolder(const LeaseHolder&) = delete;
  LeaseHolder& operator=(const LeaseHolder&) = delete;

  /// The errno with which the lease was refused; 0 when it is held.
  [[nodiscard]] int error() const { return error_; }
  [[nodiscard]] bool GaveUp() const { return gave_up_; }

 private:
  void GiveUpOnceAsked() {
    while (!ended_ && fcntl(fd_, F_GETLEASE) == F_WRLCK) std::this_thread::sleep_for(1ms);
    if (ended_) return;
    std::this_thread::sleep_for(200ms);
    gave_up_ = true;
    fcntl(fd_, F_SETLEASE, F_UNLCK);
  }

  void (*const signal_before_)(int);
  const int fd_;
  const int error_;
  std::atomic<bool> ended_ = false;
  std::atomic<bool> gave_up_ = false;
  std::thread holder_;
};

struct Mode {
  const char* name;
  const char* confine;
};
std::ostream& operator<<(std::ostream& out, const Mode& mode) { return out << mode.name; }

class LeasedFile : public OperatorTest, public ::testing::WithParamInterface<Mode> {
 protected:
  LeasedFile() {
    setenv("TESSEL_CPD_CLIENT_CONFINE", GetParam().confine, 1);
    MakeOperator();
    unsetenv("TESSEL_CPD_CLIENT_CONFINE");
    Mount();
  }

  void SetUp() override {
    if (!StillServes()) GTEST_SKIP() << "no openat2 here";
    udisk->Idle();  // closes the mount point
    Log().Clear();
  }

  /// Runs `act` while there is a lease on the known file, and expects it to break the lease.
  void WhileLeased(const std::function<void()>& act) {
    const LeaseHolder holder(disk.Local(kKnownFile));
    if (holder.error() != 0) GTEST_SKIP() << "no leases here: " << strerror(holder.error());
    act();
    EXPECT_TRUE(holder.GaveUp());
    EXPECT_TRUE(Log().Messages(kError).empty());
    udisk->Idle();
  }
};

TEST_P(LeasedFile, IsCreatedAnew) {
  WhileLeased([&] { EXPECT_GE(Ask(CreateRequest{.path = kKnownFile})->result(), 0); });
  EXPECT_EQ(disk.ReadBack(kKnownFile), "");
}

TEST_P(LeasedFile, IsRead) {
  WhileLeased([&] { EXPECT_EQ(Ask(ReadRequest{.path = kKnownFile})->data, "known content"); });
  WhileLeased([&] {
    EXPECT_EQ(Ask(ReadRequest{.path = kKnownFile, .size = 1 << 20})->data, "known content");
  });
}

TEST_P(LeasedFile, IsWritten) {
  WhileLeased(
      [&] { EXPECT_EQ(Ask(WriteRequest{.path = kKnownFile, .data = "KNOWN"})->head.size, 5); });
  EXPECT_EQ(disk.ReadBack(kKnownFile), "KNOWN content");
}

TEST_P(LeasedFile, IsWrittenInPieces) {
  WhileLeased([&] {
    EXPECT_NE(Ask(BatchWriteRequest{.path = kKnownFile,
                                    .pieces = {{.data = "KN"}, {.offset = 2, .data = "OWN"}}})
                  ->head.size,
              0);
  });
  EXPECT_EQ(disk.ReadBack(kKnownFile), "KNOWN content");
}

TEST_P(LeasedFile, IsTruncated) {
  WhileLeased(
      [&] { EXPECT_EQ(Ask(TruncateRequest{.path = kKnownFile, .length = 5})->result(), 0); });
  EXPECT_EQ(disk.ReadBack(kKnownFile), "known");
}

TEST_P(LeasedFile, IsSynced) {
  WhileLeased([&] { EXPECT_EQ(Ask(FsyncRequest{.path = kKnownFile})->result(), 0); });
}

TEST_P(LeasedFile, IsSyncedWhenItIsClosed) {
  WhileLeased([&] {
    const FailingCalls fsync({.call = "fsync", .error = EIO});
    EXPECT_TRUE(Ask(ReleaseRequest{.path = kKnownFile}));
    EXPECT_EQ(fsync.Affected(), 1);
  });
}

TEST_P(LeasedFile, IsReadAsASmallFile) {
  WhileLeased([&] {
    EXPECT_EQ(Ask(SmallReadRequest{.records = {{.path = kKnownFile}}})->records.at(0).data,
              "known content");
  });
}

TEST_P(LeasedFile, ThatCannotBeReopenedFailsWithTheReasonOfTheOpen) {
  WhileLeased([&] {
    const FailingCalls open(
        {.call = "open", .error = EIO, .after = GetParam().confine[0] == '0' ? 2 : 1, .times = 1});
    EXPECT_EQ(Ask(ReadRequest{.path = kKnownFile})->result, 0U);
    EXPECT_EQ(Log().Messages(kError),
              std::vector<std::string>{"file_read failed res:0 errno: Input/output error\\n"});
    Log().Clear();
    EXPECT_EQ(Ask(ReadRequest{.path = kKnownFile})->data, "known content");
  });
}

INSTANTIATE_TEST_SUITE_P(, LeasedFile, ::testing::Values(Mode{"Plain", "0"}, Mode{"Confined", "1"}),
                         [](const auto& test) { return std::string(test.param.name); });

// ---- Other meanings of EAGAIN ----

TEST_P(LeasedFile, IsNotConfusedWithABusyFifo) {
  ASSERT_EQ(mkfifo(disk.Local("/fifo").c_str(), 0600), 0);
  const bool confined = GetParam().confine[0] != '0';
  const FailingCalls open(
      {.call = confined ? "openat2" : "open", .error = EAGAIN, .times = 1});  // a FIFO that is busy
  EXPECT_EQ(Ask(ReadRequest{.path = "/fifo"})->result, 0U);
  EXPECT_EQ(Log().Messages(kError),
            std::vector<std::string>{std::string("file_read failed res:0 errno: ") +
                                     strerror(confined ? ENOENT : EAGAIN) + "\\n"});
}

class RenamesMeanwhile : public LeasedFile {};

TEST_P(RenamesMeanwhile, DisturbNoRequest) {
  const FailingCalls openat2({.call = "openat2", .error = EAGAIN, .times = 150});
  EXPECT_EQ(Ask(ReadRequest{.path = kKnownFile})->data, "known content");
  EXPECT_EQ(openat2.Affected(), 150);
}

TEST_P(RenamesMeanwhile, ThatNeverEndMakeTheFileMissing) {
  const FailingCalls openat2({.call = "openat2", .error = EAGAIN});
  EXPECT_EQ(Ask(WriteRequest{.path = kKnownFile, .data = "x"})->head.size, 0);
  EXPECT_EQ(Log().Messages(kError).at(0), "write file fail errno:No such file or directory \\n");
  EXPECT_LE(openat2.Affected(), 1000);
}

INSTANTIATE_TEST_SUITE_P(, RenamesMeanwhile, ::testing::Values(Mode{"Confined", "1"}),
                         [](const auto& test) { return std::string(test.param.name); });

}  // namespace
}  // namespace cpd::test
