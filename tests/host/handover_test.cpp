// A newer process hands its line to the one that holds the mount.
#include "line/handover.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <future>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>

#include "line/passed_message.h"
#include "line/sandbox.h"
#include "support/child_process.h"
#include "support/own_runtime_directory.h"

namespace cpd::host {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::ChildProcess;

struct Pipe {
  Pipe() {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
    reader = Descriptor(ends[0]);
    writer = Descriptor(ends[1]);
  }
  Descriptor reader;
  Descriptor writer;
};

class HandoverTest : public testing::Test {
 protected:
  /// Offers the line on a thread of its own.
  [[nodiscard]] std::future<std::optional<Handover>> Offer(const std::string& hello = "hello") {
    return std::async(std::launch::async, [this, hello] {
      return OfferLine(directory, mount_point, input.reader.get(), output.writer.get(), hello, 10s);
    });
  }
  [[nodiscard]] static OfferedLine Accept(const HandoverListener& listener) {
    EXPECT_TRUE(WaitReadable(listener.fd(), Clock::now() + 10s));
    auto offered = listener.Accept();
    if (!offered) throw std::runtime_error("no offer");
    return std::move(*offered);
  }
  /// A connection to the listener that offers nothing yet.
  [[nodiscard]] Descriptor Connect() const {
    for (const auto& entry : fs::directory_iterator(directory.PathOf("."))) {
      if (!entry.is_socket()) continue;
      sockaddr_un address{};
      address.sun_family = AF_UNIX;
      directory.PathOf(entry.path().filename().string())
          .copy(address.sun_path, sizeof address.sun_path - 1);
      Descriptor made(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
      EXPECT_EQ(connect(made.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
      return made;
    }
    throw std::runtime_error("no socket");
  }
  [[nodiscard]] auto Files() const {
    return std::distance(fs::directory_iterator(directory.PathOf(".")), fs::directory_iterator());
  }

  const test::OwnRuntimeDirectory own;
  const fs::path scratch = own.path();
  const RuntimeDirectory directory;
  const std::string mount_point = "/tmp/no such mount point";
  Pipe input;
  Pipe output;
};

TEST_F(HandoverTest, LetsANewerProcessListenAsSoonAsItsWaitEnds) {
  for (int i = 0; i < 300; ++i) {
    std::optional<HandoverListener> listener(std::in_place, directory, mount_point);
    auto newer = std::async(std::launch::async, [this, offer = Offer()]() mutable {
      const auto handover = offer.get();
      EXPECT_EQ(handover->verdict, Verdict::kTakeOver);
      handover->Wait();
      const HandoverListener next(directory, mount_point);
    });
    listener->MakeWayFor(Accept(*listener));
    listener.reset();
    ASSERT_NO_THROW(newer.get()) << i;
  }
}

TEST_F(HandoverTest, FindsNobodyWhenNobodyHoldsTheMount) {
  EXPECT_FALSE(Offer().get());
  EXPECT_EQ(Files(), 0);
}

TEST_F(HandoverTest, PassesTheLineAndWhatWasReadFromIt) {
  const HandoverListener listener(directory, mount_point);
  std::string hello(kLongestHello, 'h');
  hello[7] = '\0';
  auto offer = Offer(hello);
  const OfferedLine line = Accept(listener);
  EXPECT_EQ(line.hello, hello);
  ASSERT_EQ(write(input.writer.get(), "in", 2), 2);
  ASSERT_EQ(write(line.out.get(), "out", 3), 3);
  std::array<char, 8> bytes{};
  EXPECT_EQ(read(line.in.get(), bytes.data(), bytes.size()), 2);
  EXPECT_EQ(read(output.reader.get(), bytes.data(), bytes.size()), 3);
  EXPECT_NE(fcntl(line.in.get(), F_GETFD) & FD_CLOEXEC, 0);
  line.Answer(Verdict::kAdopted);
  EXPECT_EQ(offer.get()->verdict, Verdict::kAdopted);
}

TEST_F(HandoverTest, PassesOnEachVerdict) {
  const HandoverListener listener(directory, mount_point);
  for (const Verdict verdict : {Verdict::kAdopted, Verdict::kRefused, Verdict::kTakeOver}) {
    auto offer = Offer();
    Accept(listener).Answer(verdict);
    EXPECT_EQ(offer.get()->verdict, verdict);
  }
}

TEST_F(HandoverTest, TakesAVerdictOfALaterVersionForARefusal) {
  const HandoverListener listener(directory, mount_point);
  auto offer = Offer();
  Accept(listener).Answer(static_cast<Verdict>(200));
  EXPECT_EQ(offer.get()->verdict, Verdict::kRefused);
}

TEST_F(HandoverTest, LastsUntilTheHolderIsDoneWithTheLine) {
  const HandoverListener listener(directory, mount_point);
  auto offer = Offer();
  std::optional<OfferedLine> line = Accept(listener);
  line->Answer(Verdict::kAdopted);
  const auto handover = offer.get();
  auto end = std::async(std::launch::async, [&] { handover->Wait(); });
  EXPECT_EQ(end.wait_for(50ms), std::future_status::timeout);
  line.reset();
  EXPECT_EQ(end.wait_for(10s), std::future_status::ready);
}

TEST_F(HandoverTest, LeavesNoFile) {
  { const HandoverListener listener(directory, mount_point); }
  EXPECT_EQ(Files(), 0);
}

TEST_F(HandoverTest, KnowsAMountPointByEveryPathToItsDirectory) {
  fs::create_directory(scratch / "real");
  fs::create_directory_symlink("real", scratch / "link");
  const auto place = scratch.string();
  const HandoverListener listener(directory, place + "/real/mount");
  const auto offer = [&](const std::string& path) {
    auto answer = std::async(std::launch::async, [&, path] {
      return OfferLine(directory, path, input.reader.get(), output.writer.get(), "hello", 10s);
    });
    if (WaitReadable(listener.fd(), Clock::now() + 100ms)) {
      Accept(listener).Answer(Verdict::kAdopted);
    }
    return answer.get().has_value();
  };
  EXPECT_TRUE(offer(place + "/link/mount"));
  EXPECT_TRUE(offer(place + "/real/mount/"));
  EXPECT_TRUE(offer(place + "/real/mount//./"));
  EXPECT_TRUE(offer(place + "/link/../real/./mount"));
  EXPECT_FALSE(offer(place + "/real/other"));
  EXPECT_FALSE(offer(place + "/mount"));
  EXPECT_THROW(offer(place + "/real/mount/.."), std::runtime_error);
  EXPECT_THROW(offer(place + "/none/mount"), std::runtime_error);
  EXPECT_THROW(offer("/"), std::runtime_error);
}

// The mount point is a link to itself, so that every look at it fails, as on a mount without a
// line.
TEST_F(HandoverTest, DoesNotLookAtTheMountPoint) {
  const auto place = (scratch / "mount").string();
  fs::create_symlink("mount", place);
  const HandoverListener listener(directory, place);
  EXPECT_GE(listener.fd(), 0);
}

TEST_F(HandoverTest, HasOneHolderPerMountPoint) {
  ChildProcess holder([&] { static HandoverListener listener(directory, mount_point); });
  try {
    const HandoverListener second(directory, mount_point);
    FAIL() << "two listen";
  } catch (const std::runtime_error& error) {
    EXPECT_NE(std::string(error.what()).find(std::to_string(holder.pid())), std::string::npos)
        << error.what();
  }
  const HandoverListener other(directory, mount_point + "2");
}

TEST_F(HandoverTest, TakesThePlaceOfAKilledHolder) {
  ChildProcess([&] { static HandoverListener listener(directory, mount_point); }).End(SIGKILL);
  EXPECT_EQ(Files(), 2);
  EXPECT_FALSE(Offer().get()) << "nobody listens any more";
  const HandoverListener listener(directory, mount_point);
  auto offer = Offer();
  Accept(listener).Answer(Verdict::kAdopted);
  EXPECT_TRUE(offer.get());
}

TEST_F(HandoverTest, FindsNobodyWhenTheHolderEndsBeforeItAnswers) {
  std::optional<HandoverListener> listener(std::in_place, directory, mount_point);
  auto offer = Offer();
  { const OfferedLine dropped = Accept(*listener); }
  EXPECT_FALSE(offer.get());
  offer = Offer();
  EXPECT_TRUE(WaitReadable(listener->fd(), Clock::now() + 10s));
  listener.reset();
  EXPECT_FALSE(offer.get());
}

TEST_F(HandoverTest, GivesUpOnAHolderThatDoesNotAnswer) {
  const HandoverListener listener(directory, mount_point);
  EXPECT_THROW((void)OfferLine(directory, mount_point, input.reader.get(), output.writer.get(),
                               "hello", 50ms),
               std::runtime_error);
}

TEST_F(HandoverTest, AcceptReturnsAtOnceWithoutAnOffer) {
  const HandoverListener listener(directory, mount_point);
  EXPECT_FALSE(listener.Accept());
}

TEST_F(HandoverTest, DropsOffersThatMakeNoSense) {
  const HandoverListener listener(directory, mount_point);
  const int fd = input.reader.get();
  const auto accepts = [&](const std::string& bytes, std::span<const int> descriptors) {
    const Descriptor connection = Connect();
    EXPECT_TRUE(SendPassed(connection.get(), bytes, descriptors));
    return listener.Accept().has_value();
  };
  EXPECT_TRUE(accepts("hello", std::array{fd, fd}));
  const auto open_before = std::distance(fs::directory_iterator("/proc/self/fd"), {});
  EXPECT_FALSE(accepts("hello", {}));
  EXPECT_FALSE(accepts("hello", std::array{fd}));
  EXPECT_FALSE(accepts("hello", std::array{fd, fd, fd}));
  EXPECT_FALSE(accepts(std::string(kLongestHello + 1, 'h'), std::array{fd, fd}));
  EXPECT_EQ(std::distance(fs::directory_iterator("/proc/self/fd"), {}), open_before);
  { const Descriptor silent = Connect(); }
  EXPECT_FALSE(listener.Accept());
}

TEST_F(HandoverTest, DropsAConnectionThatStaysSilentForASecond) {
  const HandoverListener listener(directory, mount_point);
  const Descriptor silent = Connect();
  const auto begin = Clock::now();
  EXPECT_FALSE(listener.Accept());
  EXPECT_GE(Clock::now() - begin, 1s);
  EXPECT_LT(Clock::now() - begin, 5s);
}

// The directory keeps other users out. This opens it, to see what the socket does by itself.
TEST_F(HandoverTest, TakesNoLineFromAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root, to become another user";
  const HandoverListener listener(directory, mount_point);
  for (const fs::path& path : {scratch, scratch / "cpd-host"}) chmod(path.c_str(), 0777);
  for (const auto& entry : fs::directory_iterator(scratch / "cpd-host")) {
    chmod(entry.path().c_str(), 0777);
  }
  ChildProcess other([&] {
    ASSERT_EQ(setuid(65534), 0);
    static const Descriptor connection = Connect();
    ASSERT_TRUE(
        SendPassed(connection.get(), "hello", std::array{input.reader.get(), output.writer.get()}));
  });
  EXPECT_TRUE(WaitReadable(listener.fd(), Clock::now() + 10s));
  EXPECT_FALSE(listener.Accept());
}

TEST_F(HandoverTest, WorksForAProcessInItsSandbox) {
  EXPECT_TRUE(ChildProcess::Succeeds([&] {
    const HandoverListener listener(directory, mount_point);
    std::array<int, 2> ready{};
    ASSERT_EQ(pipe(ready.data()), 0);
    const pid_t newer = fork();
    if (newer == 0) {
      char byte = 0;
      (void)!read(ready[0], &byte, 1);
      const auto answer =
          OfferLine(directory, mount_point, input.reader.get(), output.writer.get(), "hello", 10s);
      _exit(answer && answer->verdict == Verdict::kAdopted ? 0 : 1);
    }
    EnterSandbox({.writable = {directory.path()}});
    ASSERT_EQ(write(ready[1], "!", 1), 1);
    Accept(listener).Answer(Verdict::kAdopted);
    int status = -1;
    waitpid(newer, &status, 0);
    EXPECT_EQ(status, 0);
  }));
  EXPECT_EQ(Files(), 0);
}

}  // namespace
}  // namespace cpd::host
