// The process that starts the line's command, and cleans up after a process that was killed.
#include "line/starter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "line/passed_message.h"
#include "line/pidfd.h"
#include "line/sandbox.h"
#include "support/child_process.h"
#include "support/own_runtime_directory.h"

namespace cpd::host {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;
using test::ChildProcess;
using test::Eventually;

std::string ContentOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<pid_t> ChildrenOf(pid_t process) {
  const std::string number = std::to_string(process);
  std::ifstream file("/proc/" + number + "/task/" + number + "/children");
  return {std::istream_iterator<pid_t>(file), {}};
}

/// The process that does the work of another process's Starter.
pid_t StarterOf(pid_t process) {
  std::vector<pid_t> workers;
  EXPECT_TRUE(Eventually([&] {
    const auto children = ChildrenOf(process);
    if (children.size() == 1) workers = ChildrenOf(children.front());
    return workers.size() == 1;
  }));
  // To kill, -1 would mean every process.
  if (workers.empty()) throw std::runtime_error("there is no starter");
  return workers.front();
}

/// Whether a process still runs. One that has ended does not, even before its new parent reaps it.
bool Runs(pid_t process) {
  const std::string stat = ContentOf("/proc/" + std::to_string(process) + "/stat");
  return !stat.empty() && stat.find(") Z ") == std::string::npos;
}

std::string ReadAll(int fd) {
  std::string text;
  std::array<char, 4096> piece{};
  for (ssize_t length = 0; (length = read(fd, piece.data(), piece.size())) > 0;) {
    text.append(piece.data(), static_cast<size_t>(length));
  }
  return text;
}

std::string ReadLine(int fd) {
  std::string text;
  for (char byte = 0; read(fd, &byte, 1) == 1 && byte != '\n';) text += byte;
  return text;
}

void WriteAll(int fd, const std::string& text) {
  for (size_t done = 0; done < text.size();) {
    const ssize_t length = write(fd, text.data() + done, text.size() - done);
    ASSERT_GT(length, 0);
    done += static_cast<size_t>(length);
  }
}

/// What a command writes when it is given no input.
std::string OutputOf(const std::string& command) {
  Starter starter(command, "");
  auto line = starter.Start();
  line.out.Close();
  std::string output = ReadAll(line.in.get());
  EXPECT_EQ(line.Ended(10s), 0);
  return output;
}

std::optional<int> StatusOf(const std::string& command) {
  Starter starter(command, "");
  return starter.Start().Ended(10s);
}

/// Starts a line, unless the answer is late again because the machine is busy.
bool Starts(Starter& starter, std::optional<StartedLine>* line) {
  try {
    line->emplace(starter.Start());
    return true;
  } catch (const std::runtime_error&) {
    return false;
  }
}

/// Why no line can be started; empty if one was.
std::string FailureOf(Starter& starter) {
  try {
    starter.Start();
    return {};
  } catch (const std::runtime_error& error) {
    return error.what();
  }
}

/// A copy of the socket by which a starter is asked.
Descriptor SocketOf(pid_t worker) {
  const Descriptor process(pidfd_open(worker, 0));
  for (const auto& file : fs::directory_iterator("/proc/" + std::to_string(worker) + "/fd")) {
    const int number = std::stoi(file.path().filename().string());
    std::error_code error;
    const bool is_socket = fs::read_symlink(file, error).string().starts_with("socket:");
    if (number > STDERR_FILENO && is_socket) {
      return Descriptor(pidfd_getfd(process.get(), number, 0));
    }
  }
  return {};
}

/// While an instance exists, this process can open only so many more files.
class FilesLeft {
 public:
  explicit FilesLeft(rlim_t count) {
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before_), 0);
    const Descriptor next(dup(STDERR_FILENO));
    const rlimit limit{.rlim_cur = static_cast<rlim_t>(next.get()) + count,
                       .rlim_max = before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  ~FilesLeft() { EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before_), 0); }
  FilesLeft(const FilesLeft&) = delete;
  FilesLeft& operator=(const FilesLeft&) = delete;

 private:
  rlimit before_{};
};

/// A signal set as /proc shows it.
std::string SignalSet(const std::string& status, const std::string& name) {
  const size_t place = status.find(name + ":\t");
  return place == std::string::npos ? "" : status.substr(place + name.size() + 2, 16);
}

class StarterTest : public testing::Test {
 protected:
  const test::ScratchDirectory scratch;
  const fs::path directory = scratch.path();
};

// ---- Lines ----

TEST_F(StarterTest, CarriesBytesBothWays) {
  Starter starter("cat", "");
  auto line = starter.Start();
  std::string sent;
  for (int i = 0; sent.size() < 3'000'000; ++i) sent += std::to_string(i);
  std::thread writer([&] {
    WriteAll(line.out.get(), sent);
    line.out.Close();
  });
  EXPECT_EQ(ReadAll(line.in.get()), sent);
  writer.join();
  EXPECT_EQ(line.Ended(10s), 0);
}

TEST_F(StarterTest, RunsPipelines) {
  Starter starter("tr a-z A-Z | cat | sed s/O/0/", "");
  auto line = starter.Start();
  WriteAll(line.out.get(), "hello\n");
  line.out.Close();
  EXPECT_EQ(ReadAll(line.in.get()), "HELL0\n");
  EXPECT_EQ(line.Ended(10s), 0);
}

TEST_F(StarterTest, RunsSeveralLinesAtOnce) {
  Starter starter("cat", "");
  auto first = starter.Start();
  auto second = starter.Start();
  WriteAll(second.out.get(), "second\n");
  WriteAll(first.out.get(), "first\n");
  EXPECT_EQ(ReadLine(first.in.get()), "first");
  EXPECT_EQ(ReadLine(second.in.get()), "second");
  first.out.Close();
  EXPECT_EQ(first.Ended(10s), 0);
  EXPECT_EQ(second.Ended(0s), std::nullopt);
  second.out.Close();
  EXPECT_EQ(second.Ended(10s), 0);
}

TEST_F(StarterTest, RefusesAFifthLine) {
  Starter starter("cat", "");
  std::vector<StartedLine> lines;
  for (int i = 0; i < 4; ++i) lines.push_back(starter.Start());
  EXPECT_THROW(starter.Start(), std::runtime_error);
  lines.back().out.Close();
  EXPECT_EQ(lines.back().Ended(10s), 0);
  auto next = starter.Start();
  next.out.Close();
  EXPECT_EQ(next.Ended(10s), 0);
}

TEST_F(StarterTest, SaysHowACommandEnded) {
  EXPECT_EQ(StatusOf("exit 7"), 7);
  EXPECT_EQ(StatusOf("kill -9 $$"), 128 + SIGKILL);
  EXPECT_EQ(StatusOf("/no/such/program 2>/dev/null"), 127);
  EXPECT_EQ(StatusOf("true | exit 3"), 3);
}

TEST_F(StarterTest, KeepsTheStatusAndWaitsNoLongerThanAsked) {
  Starter starter("read line; exit 5", "");
  auto line = starter.Start();
  const auto begin = Clock::now();
  EXPECT_EQ(line.Ended(50ms), std::nullopt);
  EXPECT_GE(Clock::now() - begin, 50ms);
  line.out.Close();
  EXPECT_EQ(line.Ended(10s), 5);
  EXPECT_EQ(line.Ended(0s), 5);
}

TEST_F(StarterTest, StartsFromSeveralThreads) {
  Starter starter("cat", "");
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&starter, text = std::to_string(i)] {
      for (int round = 0; round < 10; ++round) {
        auto line = starter.Start();
        WriteAll(line.out.get(), text + "\n");
        EXPECT_EQ(ReadLine(line.in.get()), text);
        starter.End(line);
        EXPECT_EQ(line.Ended(10s), 128 + SIGTERM);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// ---- What a command inherits ----

TEST_F(StarterTest, LetsACommandIgnoreTheInterruptAndNothingElse) {
  sigset_t blocked;
  sigset_t before;
  sigemptyset(&blocked);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&blocked, signal);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);
  const auto old_pipe = std::signal(SIGPIPE, SIG_IGN);
  const auto old_child = std::signal(SIGCHLD, SIG_IGN);
  std::optional<Starter> starter(std::in_place, "cat /proc/self/status; exit 7", "");
  (void)std::signal(SIGCHLD, old_child);
  (void)std::signal(SIGPIPE, old_pipe);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);

  auto line = starter->Start();
  const std::string status = ReadAll(line.in.get());
  EXPECT_EQ(SignalSet(status, "SigIgn"), "0000000000000002");
  EXPECT_EQ(SignalSet(status, "SigBlk"), "0000000000000000");
  EXPECT_EQ(line.Ended(10s), 7) << "SIGCHLD is still ignored";
}

TEST_F(StarterTest, LeavesHangupIgnoredForACommandUnderNohup) {
  const auto old = std::signal(SIGHUP, SIG_IGN);
  EXPECT_EQ(SignalSet(OutputOf("cat /proc/self/status"), "SigIgn"), "0000000000000003");
  (void)std::signal(SIGHUP, old);
}

TEST_F(StarterTest, GivesACommandNoDescriptorButItsThree) {
  const Descriptor inherited(open("/dev/null", O_RDONLY));  // without O_CLOEXEC
  Starter starter("ls /proc/self/fd | tr '\\n' ' '", "");
  auto first = starter.Start();
  auto second = starter.Start();
  EXPECT_EQ(ReadAll(first.in.get()), "0 1 2 3 ");  // ls has the directory open
  EXPECT_EQ(ReadAll(second.in.get()), "0 1 2 3 ");
}

TEST_F(StarterTest, KeepsACommandInTheTerminalsProcessGroup) {
  const std::string group = OutputOf("ps -o pgid=,sid= -p $$ | tr -s ' '");
  std::istringstream numbers(group);
  pid_t process_group = 0;
  pid_t session = 0;
  numbers >> process_group >> session;
  EXPECT_EQ(process_group, getpgrp()) << group;
  EXPECT_EQ(session, getsid(0)) << group;
}

TEST_F(StarterTest, WorksWhenTheStandardDescriptorsAreClosed) {
  EXPECT_TRUE(ChildProcess::Succeeds([] {
    for (const int fd : {0, 1, 2}) close(fd);
    EXPECT_EQ(OutputOf("cat; echo done; echo error >&2"), "done\n");
  }));
}

// ---- Ending ----

TEST_F(StarterTest, EndsEveryProgramOfAPipeline) {
  Starter starter("sh -c 'echo $$; exec sleep 1000' | cat; echo never", "");
  auto line = starter.Start();
  const pid_t sleeper = std::stoi(ReadLine(line.in.get()));
  EXPECT_TRUE(Runs(sleeper));
  const auto begin = Clock::now();
  starter.End(line);
  EXPECT_EQ(line.Ended(10s), 128 + SIGTERM);
  EXPECT_LT(Clock::now() - begin, 900ms);
  EXPECT_TRUE(Eventually([&] { return !Runs(sleeper); }));
}

TEST_F(StarterTest, KillsAfterASecondWhatIgnoresTheSignal) {
  Starter starter("trap '' TERM; sh -c 'echo $$; while :; do sleep 0.1; done' | cat", "");
  auto line = starter.Start();
  const pid_t first = std::stoi(ReadLine(line.in.get()));
  const auto begin = Clock::now();
  starter.End(line);
  EXPECT_EQ(line.Ended(500ms), std::nullopt);
  EXPECT_EQ(line.Ended(10s), 128 + SIGKILL);
  EXPECT_GE(Clock::now() - begin, 1s);
  EXPECT_TRUE(Eventually([&] { return !Runs(first); }));
}

TEST_F(StarterTest, EndsOneLineAndLeavesTheOthers) {
  Starter starter("cat", "");
  auto first = starter.Start();
  auto second = starter.Start();
  starter.End(first);
  EXPECT_EQ(first.Ended(10s), 128 + SIGTERM);
  starter.End(first);
  WriteAll(second.out.get(), "still there\n");
  EXPECT_EQ(ReadLine(second.in.get()), "still there");
}

TEST_F(StarterTest, LeavesNothingWhenDestroyed) {
  const auto descriptors = [] {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
  };
  const auto before = descriptors();
  pid_t command = 0;
  {
    Starter starter("echo $$; exec sleep 1000", "");
    for (int i = 0; i < 3; ++i) {
      auto line = starter.Start();
      command = std::stoi(ReadLine(line.in.get()));
    }
  }
  EXPECT_FALSE(Runs(command));
  EXPECT_TRUE(ChildrenOf(getpid()).empty());
  EXPECT_EQ(descriptors(), before);
}

TEST_F(StarterTest, IsReplacedWhenItIsKilledAndItsCommandsEnd) {
  Starter starter("echo $$; exec sleep 1000", "");
  for (int i = 0; i < 3; ++i) {
    auto line = starter.Start();
    const pid_t command = std::stoi(ReadLine(line.in.get()));
    kill(StarterOf(getpid()), SIGKILL);
    EXPECT_EQ(line.Ended(10s), 128 + SIGKILL);
    EXPECT_TRUE(Eventually([&] { return !Runs(command); }));
    starter.End(line);
  }
}

TEST_F(StarterTest, IsReplacedThreeTimesWhenItFailsAndSaysHowItEnded) {
  const fs::path said = directory / "said";
  const std::string ended = "cpd-starter: ended by signal 6; ";
  std::string expected;
  EXPECT_TRUE(ChildProcess::Succeeds([&] {
    const Descriptor file(open(said.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600));
    dup2(file.get(), STDERR_FILENO);
    Starter starter("cat", "");
    for (const std::string successor : {"another", "another", "another", "nothing"}) {
      auto line = starter.Start();
      kill(StarterOf(getpid()), SIGABRT);
      EXPECT_EQ(line.Ended(10s), 128 + SIGKILL);
      expected += ended + successor + " takes its place\n";
      EXPECT_TRUE(Eventually([&] { return ContentOf(said) == expected; })) << ContentOf(said);
    }
    EXPECT_EQ(FailureOf(starter), "the process that starts the line has ended");
  }));
}

TEST_F(StarterTest, KeepsItsCommandsWhenTheProcessThatWouldReplaceItIsKilled) {
  pid_t worker = 0;
  {
    Starter starter("echo $$; cat", "");
    auto line = starter.Start();
    ReadLine(line.in.get());
    worker = StarterOf(getpid());
    kill(ChildrenOf(getpid()).front(), SIGKILL);
    WriteAll(line.out.get(), "works\n");
    EXPECT_EQ(ReadLine(line.in.get()), "works");
    starter.Start();
  }
  EXPECT_TRUE(Eventually([&] { return !Runs(worker); }));
}

TEST_F(StarterTest, SaysWhetherItHasEndedOrIsStuck) {
  Starter starter("cat", "", 300ms);
  const pid_t worker = StarterOf(getpid());
  kill(worker, SIGSTOP);
  EXPECT_EQ(FailureOf(starter), "the process that starts the line is stuck");
  kill(ChildrenOf(getpid()).front(), SIGKILL);
  kill(worker, SIGKILL);
  EXPECT_TRUE(Eventually([&] { return !Runs(worker); }));
  EXPECT_EQ(FailureOf(starter), "the process that starts the line has ended");
}

TEST_F(StarterTest, SaysThatTheProcessItWorksForHasTooManyFilesOpenAndGoesOn) {
  EXPECT_TRUE(ChildProcess::Succeeds([] {
    Starter starter("cat", "");
    std::string failure;
    try {
      const FilesLeft left(2);
      starter.Start();
    } catch (const std::runtime_error& error) {
      // The limit is gone by now: a sanitizer opens a pipe to check the type of an object.
      failure = error.what();
    }
    EXPECT_EQ(failure, "cannot start the line: Too many open files");
    auto line = starter.Start();
    line.out.Close();
    EXPECT_EQ(line.Ended(10s), 0);
  }));
}

TEST_F(StarterTest, LeavesAProcessThatIsStuckToEndByItself) {
  pid_t process = 0;
  pid_t worker = 0;
  {
    Starter starter("cat", "", 100ms);
    worker = StarterOf(getpid());
    process = ChildrenOf(getpid()).front();
    kill(worker, SIGSTOP);
    EXPECT_THROW(starter.Start(), std::runtime_error);
    // Fills the socket: a call then waits for room, and the destructor cannot send anything either.
    for (auto begin = Clock::now(); Clock::now() - begin < 50ms;) {
      begin = Clock::now();
      starter.Release();
    }
  }
  EXPECT_TRUE(Runs(worker));
  kill(worker, SIGCONT);
  EXPECT_EQ(waitpid(process, nullptr, 0), process);
}

TEST_F(StarterTest, RefusesAnAnswerWithoutTheDescriptorsOfALine) {
  Starter starter("cat", "");
  const pid_t worker = StarterOf(getpid());
  const Descriptor socket = SocketOf(worker);
  if (!socket.ok()) GTEST_SKIP() << "cannot copy the starter's socket: " << std::strerror(errno);
  kill(worker, SIGSTOP);
  struct {
    uint32_t id = 1;
    int32_t error = 0;
  } answer;
  EXPECT_TRUE(SendPassed(socket.get(), {reinterpret_cast<const char*>(&answer), sizeof answer}));
  EXPECT_EQ(FailureOf(starter), "cannot start the line: Bad message");
  const int one = STDERR_FILENO;
  answer.id = 2;
  EXPECT_TRUE(
      SendPassed(socket.get(), {reinterpret_cast<const char*>(&answer), sizeof answer}, {&one, 1}));
  EXPECT_EQ(FailureOf(starter), "cannot start the line: Bad message");
  kill(worker, SIGCONT);
}

// ---- Late answers ----

TEST_F(StarterTest, DropsAnAnswerThatComesTooLateAndEndsItsCommand) {
  const fs::path file = directory / "commands";
  Starter starter("echo $$ >>" + file.string() + "; exec cat", "", 300ms);
  const pid_t worker = StarterOf(getpid());
  kill(worker, SIGSTOP);
  EXPECT_THROW(starter.Start(), std::runtime_error);
  kill(worker, SIGCONT);
  std::optional<StartedLine> line;
  ASSERT_TRUE(Eventually([&] { return Starts(starter, &line); }));
  WriteAll(line->out.get(), "answered\n");
  EXPECT_EQ(ReadLine(line->in.get()), "answered");

  std::ifstream commands(file);
  const std::vector<pid_t> started(std::istream_iterator<pid_t>(commands), {});
  EXPECT_TRUE(Eventually([&] { return std::ranges::count_if(started, Runs) <= 1; }));
  starter.End(*line);
  EXPECT_EQ(line->Ended(10s), 128 + SIGTERM) << "the line is another command's";
}

TEST_F(StarterTest, IsAskedAgainWhenItsAnswerIsLateAndEndsWhatItStartedFirst) {
  const std::string file = directory / "processes";
  // Nothing but a signal ends the command: not the end of its streams.
  Starter starter("trap '' PIPE; echo $$ >>" + file + "; echo started 2>/dev/null; exec sleep 1000",
                  "", 5s);
  const pid_t worker = StarterOf(getpid());
  kill(worker, SIGSTOP);
  std::thread late([&] {
    std::this_thread::sleep_for(1200ms);  // past a fifth of the limit, when it is asked again
    kill(worker, SIGCONT);
  });
  const auto line = starter.Start();
  late.join();
  EXPECT_EQ(ReadLine(line.in.get()), "started");
  const auto running = [&] {
    std::ifstream commands(file);
    const std::vector<pid_t> started(std::istream_iterator<pid_t>(commands), {});
    return std::ranges::count_if(started, Runs);
  };
  EXPECT_TRUE(Eventually([&] { return running() == 1; }));
}

TEST_F(StarterTest, UnmountsOnceEvenIfItIsAskedTwiceBecauseItsAnswerIsLate) {
  const fs::path place = directory / "mount";
  fs::create_directory(place);
  for (const char* name : {"below", "above"}) {
    if (mount("starter-test", place.c_str(), "tmpfs", 0, nullptr) != 0) {
      GTEST_SKIP() << "cannot mount: " << std::strerror(errno);
    }
    std::ofstream(place / name) << "content";
  }
  {
    Starter starter("cat", place.string(), 200ms);
    const pid_t worker = StarterOf(getpid());
    kill(worker, SIGSTOP);
    starter.Unmount();
    EXPECT_TRUE(fs::exists(place / "above"));
    kill(worker, SIGCONT);
    std::optional<StartedLine> line;
    EXPECT_TRUE(Eventually([&] { return Starts(starter, &line); }));
  }  // it has carried out everything by now
  EXPECT_FALSE(fs::exists(place / "above"));
  EXPECT_TRUE(fs::exists(place / "below"));
  umount2(place.c_str(), MNT_DETACH);
}

// ---- The process ----

TEST_F(StarterTest, OutlivesTheSignalsThatEndTheOtherProcess) {
  Starter starter("cat", "");
  ASSERT_EQ(ChildrenOf(getpid()).size(), 1U);
  const pid_t process = ChildrenOf(getpid()).front();
  auto line = starter.Start();  // from here on the signals are ignored
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) kill(process, signal);
  WriteAll(line.out.get(), "works\n");
  EXPECT_EQ(ReadLine(line.in.get()), "works");
  auto next = starter.Start();
  next.out.Close();
  EXPECT_EQ(next.Ended(10s), 0);
  EXPECT_EQ(ContentOf("/proc/" + std::to_string(process) + "/comm"), "cpd-starter\n");
}

TEST_F(StarterTest, HoldsNothingOfTheOtherProcessOpen) {
  std::array<int, 2> pipe_ends{};
  ASSERT_EQ(pipe2(pipe_ends.data(), O_CLOEXEC), 0);
  const Descriptor reader(pipe_ends[0]);
  Descriptor low(pipe_ends[1]);
  Descriptor high(fcntl(pipe_ends[1], F_DUPFD_CLOEXEC, 200));
  Starter starter("cat", "");
  auto line = starter.Start();
  low.Close();
  high.Close();
  EXPECT_TRUE(WaitReadable(reader.get(), Clock::now() + 10s)) << "no end of file";
}

TEST_F(StarterTest, WorksForAProcessInItsSandbox) {
  EXPECT_TRUE(ChildProcess::Succeeds([] {
    Starter starter("cat", "/no/such/mount");
    EnterSandbox({});
    auto line = starter.Start();
    WriteAll(line.out.get(), "from the sandbox\n");
    EXPECT_EQ(ReadLine(line.in.get()), "from the sandbox");
    starter.SayOnDeath("words");
    starter.UnmountOnDeath();
    starter.End(line);
    EXPECT_EQ(line.Ended(10s), 128 + SIGTERM);
  }));
}

// ---- Death ----

TEST_F(StarterTest, SendsTheLastWordsWhenTheProcessIsKilled) {
  const fs::path file = directory / "words";
  const std::string words(Starter::kLongestLastWords, 'w');
  ChildProcess process([&] {
    static Starter starter(
        "cat >" + file.string() + ".new && mv " + file.string() + ".new " + file.string(), "");
    starter.SayOnDeath("replaced");
    starter.SayOnDeath(words);
  });
  process.End(SIGKILL);
  EXPECT_TRUE(Eventually([&] { return fs::exists(file); }));
  EXPECT_EQ(ContentOf(file), words);
}

TEST_F(StarterTest, EndsTheRunningLineBeforeTheLastWords) {
  const fs::path log = directory / "log";
  ChildProcess process([&] {
    static Starter starter("echo start >>" + log.string() + "; trap 'echo end >>" + log.string() +
                               "; exit' TERM; while read line; do echo $line >>" + log.string() +
                               "; done; sleep 0.2; [ \"$line\" ] || echo closed >>" + log.string(),
                           "");
    static auto line = starter.Start();
    starter.SayOnDeath("words\n");
    ASSERT_TRUE(Eventually([&] { return ContentOf(log) == "start\n"; }));
  });
  process.End(SIGKILL);
  EXPECT_TRUE(Eventually([&] { return ContentOf(log).ends_with("words\nclosed\n"); }));
  EXPECT_EQ(ContentOf(log), "start\nend\nstart\nwords\nclosed\n");
}

TEST_F(StarterTest, EndsAsSoonAsTheLastWordsAreTaken) {
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  ChildProcess process([&] {
    static Starter starter("cat", "");
    starter.SayOnDeath("words");
    const pid_t child = ChildrenOf(getpid()).front();
    ASSERT_EQ(write(ends[1], &child, sizeof child), static_cast<ssize_t>(sizeof child));
  });
  pid_t starter_process = 0;
  ASSERT_EQ(read(ends[0], &starter_process, sizeof starter_process),
            static_cast<ssize_t>(sizeof starter_process));
  for (const int end : ends) close(end);
  const auto before = Clock::now();
  process.End(SIGKILL);
  EXPECT_TRUE(Eventually([&] { return !Runs(starter_process); }));
  EXPECT_LT(Clock::now() - before, 5s);
}

TEST_F(StarterTest, SaysNothingOnceReleased) {
  const fs::path file = directory / "words";
  pid_t starter_process = 0;
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe(ends.data()), 0);
  ChildProcess process([&] {
    static Starter starter("cat >" + file.string(), "");
    starter.SayOnDeath("words");
    starter.Release();
    const pid_t child = ChildrenOf(getpid()).front();
    ASSERT_EQ(write(ends[1], &child, sizeof child), static_cast<ssize_t>(sizeof child));
  });
  ASSERT_EQ(read(ends[0], &starter_process, sizeof starter_process),
            static_cast<ssize_t>(sizeof starter_process));
  for (const int end : ends) close(end);
  process.End(SIGKILL);
  EXPECT_TRUE(Eventually([&] { return !Runs(starter_process); }));
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(StarterTest, SaysNothingAfterAnOrderlyEnd) {
  const fs::path file = directory / "words";
  {
    Starter starter("cat >" + file.string(), "");
    starter.SayOnDeath("words");
  }
  EXPECT_FALSE(fs::exists(file));
}

TEST_F(StarterTest, RefusesLastWordsThatAreTooLong) {
  Starter starter("cat", "");
  EXPECT_THROW(starter.SayOnDeath(std::string(Starter::kLongestLastWords + 1, 'w')),
               std::length_error);
}

TEST_F(StarterTest, WaitsTenSecondsForTheLastWordsToBeTaken) {
  const fs::path file = directory / "process";
  ChildProcess process([&] {
    static Starter starter("trap '' TERM; echo $$ >" + file.string() + "; yes; sleep 1000", "");
    starter.SayOnDeath("words");
  });
  const auto begin = Clock::now();
  process.End(SIGKILL);
  ASSERT_TRUE(Eventually([&] { return ContentOf(file).ends_with("\n"); }));
  const pid_t command = std::stoi(ContentOf(file));
  std::this_thread::sleep_until(begin + 9s);
  EXPECT_TRUE(Runs(command));
  EXPECT_TRUE(Eventually([&] { return !Runs(command); }));
}

TEST_F(StarterTest, UnmountsWhenTheProcessIsKilled) {
  const fs::path place = directory / "mount";
  fs::create_directory(place);
  if (mount("starter-test", place.c_str(), "tmpfs", 0, nullptr) != 0) {
    GTEST_SKIP() << "cannot mount: " << std::strerror(errno);
  }
  std::ofstream(place / "file") << "open";
  const std::ifstream open_file(place / "file");  // busy
  ChildProcess process([&] {
    static Starter starter("cat", place.string());
    starter.UnmountOnDeath();
  });
  EXPECT_TRUE(fs::exists(place / "file"));
  process.End(SIGKILL);
  EXPECT_TRUE(Eventually([&] { return !fs::exists(place / "file"); }));
  umount2(place.c_str(), MNT_DETACH);
}

TEST_F(StarterTest, UnmountsAlsoWhenItHasReplacedOneThatWasKilled) {
  const fs::path place = directory / "mount";
  fs::create_directory(place);
  if (mount("starter-test", place.c_str(), "tmpfs", 0, nullptr) != 0) {
    GTEST_SKIP() << "cannot mount: " << std::strerror(errno);
  }
  std::ofstream(place / "file") << "content";
  ChildProcess process([&] {
    static Starter starter("cat", place.string());
    starter.UnmountOnDeath();
    starter.Start();  // its answer shows that the request before it has arrived
  });
  kill(StarterOf(process.pid()), SIGKILL);
  process.End(SIGKILL);
  EXPECT_TRUE(Eventually([&] { return !fs::exists(place / "file"); }));
  umount2(place.c_str(), MNT_DETACH);
}

TEST_F(StarterTest, SendsTheLastWordsAlsoWhenItHasReplacedOneThatWasKilled) {
  const fs::path file = directory / "words";
  ChildProcess process([&] {
    static Starter starter("cat >>" + file.string(), "");
    starter.SayOnDeath("last words");
    starter.Start();
  });
  kill(StarterOf(process.pid()), SIGKILL);
  process.End(SIGKILL);
  EXPECT_TRUE(Eventually([&] { return ContentOf(file) == "last words"; }));
}

TEST_F(StarterTest, UnmountsWithFusermountWhereItIsNotRoot) {
  // A program of that name that notes its arguments.
  const fs::path file = directory / "arguments";
  std::ofstream(directory / "fusermount3")
      << "#!/bin/sh\necho \"$@\" >" << file.string() << ".new\nmv " << file.string() << ".new "
      << file.string() << "\n";
  for (const fs::path& path : {directory, directory / "fusermount3"}) {
    chmod(path.c_str(), 0777);
  }
  ChildProcess process([&] {
    setenv("PATH", (directory.string() + ":/usr/bin:/bin").c_str(), 1);
    ASSERT_TRUE(geteuid() != 0 || setuid(65534) == 0);
    static Starter starter("cat", "/mnt/-it's there");
    starter.UnmountOnDeath();
  });
  process.End(SIGKILL);
  EXPECT_TRUE(Eventually([&] { return fs::exists(file); }));
  EXPECT_EQ(ContentOf(file), "-u -z -- /mnt/-it's there\n");
}

}  // namespace
}  // namespace cpd::host
