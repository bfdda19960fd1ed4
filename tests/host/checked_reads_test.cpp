// Reads wait for the proof that their path still leads to the same file.
#include "mount/checked_reads.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <numeric>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "mount/sequential_reads.h"
#include "remote/session.h"
#include "remote/statistics.h"
#include "support/idle_driver.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr size_t kPiece = 100;
constexpr size_t kMemory = 20'000;  // for one file's content, and not for two

/// A disk with one file. Carries out and answers each request when the test says so.
class OneFile : public test::IdleDriver {
 public:
  explicit OneFile(Session& session) : session_(session) {}

  int onEvent(std::unique_ptr<CpdPacket> packet, int /*flags*/) override {
    const std::lock_guard lock(mutex_);
    requests_.push_back(std::move(packet));
    return 0;
  }

  /// The commands of the requests that wait, the next one first.
  std::vector<uint16_t> waiting() const {
    std::vector<uint16_t> commands;
    const std::lock_guard lock(mutex_);
    for (const auto& request : requests_) commands.push_back(request->header->cmd);
    return commands;
  }
  /// @return false when no request waits
  bool AnswerNext() {
    std::unique_ptr<CpdPacket> request;
    {
      const std::lock_guard lock(mutex_);
      if (requests_.empty()) return false;
      request = std::move(requests_.front());
      requests_.pop_front();
    }
    session_.Receive(request->header->cmd == kFileRead ? Read(*request) : Look(*request));
    return true;
  }
  void AnswerAll() {
    while (AnswerNext()) {
    }
  }

  udisk_stat attributes{};
  std::string content;
  int looks = 0;  ///< how often the attributes were asked for

 private:
  static std::unique_ptr<CpdPacket> Reply(const CpdPacket& request, size_t size) {
    auto reply = std::make_unique<CpdPacket>(CPD_PACKET_HEADER_SIZE + size);
    reply->InitHeader(request.header->devId, request.header->cmd, request.header->requestId);
    return reply;
  }
  template <class Head>
  static Head HeadOf(const CpdPacket& request) {
    Head head{};
    std::memcpy(&head, request.buffer->data + CPD_PACKET_HEADER_SIZE, sizeof head);
    return head;
  }
  template <class Head>
  static const void* PathOf(const CpdPacket& request) {
    return request.buffer->data + CPD_PACKET_HEADER_SIZE + sizeof(Head);
  }

  std::unique_ptr<CpdPacket> Read(const CpdPacket& request) const {
    auto head = HeadOf<ReadHead>(request);
    const auto offset = std::min(static_cast<size_t>(head.offset), content.size());
    const auto data = content.substr(offset, head.size);
    head.size = static_cast<uint32_t>(data.size());
    auto reply = Reply(request, sizeof head + head.path_length + data.size());
    reply->AppendPayload(&head, sizeof head);
    reply->AppendPayload(PathOf<ReadHead>(request), head.path_length);
    reply->AppendPayload(data.data(), head.size);
    return reply;
  }
  std::unique_ptr<CpdPacket> Look(const CpdPacket& request) {
    ++looks;
    auto head = HeadOf<FileAttrHead>(request);
    head.attr_length = sizeof attributes;
    auto reply = Reply(request, sizeof head + head.path_length + sizeof attributes);
    reply->AppendPayload(&head, sizeof head);
    reply->AppendPayload(PathOf<FileAttrHead>(request), head.path_length);
    reply->AppendPayload(&attributes, sizeof attributes);
    return reply;
  }

  Session& session_;
  mutable std::mutex mutex_;  // the session may ask on a thread of its own
  std::deque<std::unique_ptr<CpdPacket>> requests_;
};

class CheckedReadsTest : public testing::Test {
 protected:
  struct Answer {
    int error;
    std::string bytes;
  };

  CheckedReadsTest() {
    session.Start(&channel);
    Put(1, std::string(100 * kPiece, 'a'));
    node = nodes.Lookup(NodeTable::kRoot, "file", disk.attributes);
  }
  ~CheckedReadsTest() override { session.Stop(); }

  /// Puts a file in the place of the one on the disk.
  void Put(uint64_t inode, const std::string& content) {
    disk.attributes.st_mode = S_IFREG | 0644;
    disk.attributes.st_nlink = 1;
    disk.attributes.st_ino = inode;
    disk.attributes.st_mtim.tv_sec = static_cast<int64_t>(inode);
    disk.attributes.st_size = static_cast<int64_t>(content.size());
    disk.content = content;
  }
  void Read(size_t piece = 0) {
    reads.Read(node, *nodes.Find(node), static_cast<int64_t>(piece * kPiece), kPiece,
               [this](int error, std::string_view bytes) {
                 answers.push_back({.error = error, .bytes = std::string(bytes)});
               });
  }
  std::vector<int> Errors() const {
    std::vector<int> errors;
    for (const auto& answer : answers) errors.push_back(answer.error);
    return errors;
  }

  Session session{30s};
  OneFile disk{session};
  DriverChannel channel{disk};
  RemoteFiles files{session};
  NodeTable nodes;
  CheckedReads reads{files, nodes,
                     [this](NodeTable::Id id, const udisk_stat& attributes) {
                       return nodes.Update(id, attributes);
                     },
                     kMemory};
  NodeTable::Id node = 0;
  std::vector<Answer> answers;
};

using Commands = std::vector<uint16_t>;

// ---- Parts of files ----

TEST_F(CheckedReadsTest, HoldDataUntilAQuestionSentAfterTheReadIsAnswered) {
  Read();
  ASSERT_EQ(disk.waiting(), (Commands{kFileRead, kGetFileAttr}));
  disk.AnswerNext();
  EXPECT_TRUE(answers.empty());
  disk.AnswerNext();
  ASSERT_EQ(Errors(), std::vector<int>{0});
  EXPECT_EQ(answers[0].bytes, std::string(kPiece, 'a'));
}

TEST_F(CheckedReadsTest, DoNotTakeTheAnswerToAnEarlierQuestionForAProof) {
  Read(0);
  disk.AnswerNext();
  Read(1);  // after the first one's question, which is still under way
  ASSERT_EQ(disk.waiting(), (Commands{kGetFileAttr, kFileRead}));
  disk.AnswerNext();  // shows the first file
  ASSERT_EQ(Errors(), std::vector<int>{0});
  Put(2, std::string(100 * kPiece, 'b'));
  ASSERT_EQ(disk.waiting(), (Commands{kFileRead, kGetFileAttr}));
  disk.AnswerNext();
  EXPECT_EQ(answers.size(), 1U);
  disk.AnswerNext();
  EXPECT_EQ(Errors(), (std::vector<int>{0, ESTALE}));
  EXPECT_EQ(answers[1].bytes, "");
}

TEST_F(CheckedReadsTest, FailIfTheFileIsReplacedBetweenReadAndQuestion) {
  Read();
  disk.AnswerNext();
  Put(2, std::string(100 * kPiece, 'b'));
  disk.AnswerNext();
  EXPECT_EQ(Errors(), std::vector<int>{ESTALE});
}

TEST_F(CheckedReadsTest, ShareAQuestionWhileOneIsUnderWay) {
  for (size_t i = 0; i < CheckedReads::kWindow; ++i) Read(i);
  // The first has a question of its own; the others wait for its answer.
  ASSERT_EQ(disk.waiting().size(), CheckedReads::kWindow + 1);
  for (size_t i = 0; i <= CheckedReads::kWindow; ++i) {
    EXPECT_LE(answers.size(), 1U);
    disk.AnswerNext();
  }
  EXPECT_EQ(disk.waiting(), Commands{kGetFileAttr});  // one for all others
  disk.AnswerAll();
  EXPECT_EQ(Errors(), std::vector<int>(CheckedReads::kWindow, 0));
  EXPECT_EQ(disk.looks, 2);
}

TEST_F(CheckedReadsTest, AskAsSoonAsAWindowOfThemWaits) {
  constexpr size_t kWaiting = CheckedReads::kWindow;
  for (size_t i = 0; i < kWaiting; ++i) Read(i);
  EXPECT_NE(disk.waiting().back(), kGetFileAttr);
  Read(kWaiting);
  EXPECT_EQ(disk.waiting().back(), kGetFileAttr);
  EXPECT_EQ(disk.waiting().size(), 1 + kWaiting + 2);
  disk.AnswerAll();
  EXPECT_EQ(Errors(), std::vector<int>(1 + kWaiting, 0));
  EXPECT_EQ(disk.looks, 2);
}

TEST_F(CheckedReadsTest, AllThatShareAQuestionFailIfItShowsAnotherFile) {
  for (size_t i = 0; i < 4; ++i) Read(i);
  disk.AnswerNext();
  disk.AnswerNext();  // the first question
  Put(2, std::string(100 * kPiece, 'b'));
  disk.AnswerAll();
  EXPECT_EQ(Errors(), (std::vector<int>{0, ESTALE, ESTALE, ESTALE}));
}

TEST_F(CheckedReadsTest, ThatCameOutShortAreRepeatedWhenTheFileHasGrown) {
  Put(1, "short");
  Read();
  disk.AnswerNext();
  Put(1, std::string(kPiece, 'a'));  // written in place
  disk.attributes.st_mtim.tv_sec = disk.attributes.st_ctim.tv_sec = 9;
  disk.AnswerNext();
  EXPECT_TRUE(answers.empty());
  disk.AnswerAll();
  ASSERT_EQ(Errors(), std::vector<int>{0});
  EXPECT_EQ(answers[0].bytes, std::string(kPiece, 'a'));
}

TEST_F(CheckedReadsTest, ThatGiveNothingFailIfTheFileIsUnchanged) {
  disk.content.clear();  // a failed read looks like the end of the file
  Read();
  disk.AnswerAll();
  EXPECT_EQ(Errors(), std::vector<int>{EIO});
}

TEST_F(CheckedReadsTest, AreAwaited) {
  Read(0);
  Read(1);
  auto waiting = std::async(std::launch::async, [this] { reads.AwaitAnswers(); });
  while (!disk.waiting().empty()) {
    EXPECT_EQ(waiting.wait_for(20ms), std::future_status::timeout);
    disk.AnswerNext();
  }
  waiting.wait();
  EXPECT_EQ(answers.size(), 2U);
}

TEST_F(CheckedReadsTest, EndThoughPassingTheirDataOnFails) {
  reads.Read(node, *nodes.Find(node), 0, kPiece,
             [](int, std::string_view) { throw std::bad_alloc(); });
  EXPECT_THROW(disk.AnswerAll(), std::bad_alloc);
  reads.AwaitAnswers();
}

// ---- Large files, in a row ----

class SequentialReadsTest : public CheckedReadsTest {
 protected:
  static constexpr int64_t kStep = SequentialReads::kPiece;
  static constexpr int64_t kSteps = 110;
  static constexpr size_t kMemory = 8 << 20;

  explicit SequentialReadsTest(std::chrono::milliseconds distance = 10ms) : distance_(distance) {
    Put(1, Numbers());
    nodes.Update(node, disk.attributes);
    files.GetAttributes("/", [](const auto&) {});  // shows how far away the disk is
    Answer();
  }
  ~SequentialReadsTest() override { session.Stop(); }

  /// Answers as a disk that is far away would.
  void Answer() {
    std::this_thread::sleep_for(distance_);
    disk.AnswerAll();
  }
  /// Content in which no two places are alike.
  static const std::string& Numbers() {
    static const std::string numbers = [] {
      std::vector<int64_t> places(static_cast<size_t>(kSteps * kStep) / sizeof(int64_t));
      std::iota(places.begin(), places.end(), 0);
      std::string bytes(static_cast<size_t>(kSteps * kStep), '\0');
      std::memcpy(bytes.data(), places.data(), bytes.size());
      return bytes + "end";
    }();
    return numbers;
  }
  void ReadAt(int64_t offset, int64_t size, SequentialReads* from,
              std::chrono::milliseconds later = 0ms) {
    from->Read(node, *nodes.Find(node), offset, static_cast<uint32_t>(size),
               CheckedReads::Clock::now() + later, [this](int error, std::string_view bytes) {
                 answers.push_back({.error = error, .bytes = std::string(bytes)});
               });
  }
  void ReadAt(int64_t offset, int64_t size) { ReadAt(offset, size, &sequential); }
  /// Reads steps in a row, the first ones of the file.
  void ReadSteps(int64_t count) {
    for (int64_t i = 0; i < count; ++i) {
      ReadAt(i * kStep, kStep);
      Answer();
    }
  }
  void ExpectAnswer(int64_t offset, int64_t size) {
    ASSERT_FALSE(answers.empty());
    EXPECT_EQ(answers.back().error, 0);
    const auto wanted = std::string_view(disk.content)
                            .substr(static_cast<size_t>(offset), static_cast<size_t>(size));
    EXPECT_TRUE(answers.back().bytes == wanted) << offset;
  }
  int64_t Waiting() const { return std::ranges::count(disk.waiting(), kFileRead); }

  // A busy machine must not make the pieces too old.
  SequentialReads sequential{files, reads, nodes, true, kMemory, 1h};

 private:
  const std::chrono::milliseconds distance_;
};

/// So far away that the delays of a busy machine count little.
class DistantSequentialReadsTest : public SequentialReadsTest {
 protected:
  DistantSequentialReadsTest() : SequentialReadsTest(150ms) {}
};

TEST_F(SequentialReadsTest, AreAheadOfAProgramThatHasReadAPieceInARow) {
  ReadAt(0, kStep);
  EXPECT_EQ(Waiting(), 1);
  Answer();
  ReadAt(kStep, kStep);
  EXPECT_EQ(Waiting(), 1 + SequentialReads::kFirstReach / kStep);
  Answer();
  ExpectAnswer(kStep, kStep);
  ReadAt(2 * kStep, kStep);
  EXPECT_EQ(answers.size(), 3U);  // without a reply
  ExpectAnswer(2 * kStep, kStep);
  EXPECT_EQ(files.savings().pieces_ahead_used, 1U);
}

TEST_F(SequentialReadsTest, AskForWhatAProgramWaitsForFirst) {
  ReadSteps(1);
  ReadAt(kStep, kStep);
  disk.AnswerNext();
  EXPECT_EQ(answers.size(), 1U);
  disk.AnswerNext();  // a question that covers the read
  EXPECT_EQ(answers.size(), 2U);
}

TEST_F(SequentialReadsTest, GiveEveryByteWhateverTheSizesOfTheReads) {
  int64_t offset = 100;
  for (int64_t size :
       {1000, 300'000, 1 << 20, 4096, 131'072, 200'000, 1 << 20, 1 << 20, 7, 100'000}) {
    ReadAt(offset, size);
    Answer();
    ExpectAnswer(offset, size);
    offset += size;
  }
}

TEST_F(SequentialReadsTest, EndWithTheFile) {
  const auto end = static_cast<int64_t>(disk.content.size());
  for (int64_t offset = end - 3 * kStep; offset < end; offset += kStep) {
    ReadAt(offset, kStep);
    Answer();
    ExpectAnswer(offset, kStep);
  }
  ReadAt(end, kStep);
  Answer();
  ExpectAnswer(end, 0);
}

TEST_F(DistantSequentialReadsTest, ReachFurtherWhileAProgramHasToWait) {
  int64_t most = 0;
  const int64_t more = 2 * SequentialReads::kFirstReach / kStep;
  for (int64_t step = 0, round = 0; most <= more && round < 10; ++round) {
    // The program goes on until it has to wait.
    while (answers.size() == static_cast<size_t>(step)) ReadAt(step++ * kStep, kStep);
    most = std::max(most, Waiting());
    Answer();
  }
  EXPECT_GT(most, more);
  EXPECT_LE(most, SequentialReads::kLongestReach / kStep + 1);
}

TEST_F(SequentialReadsTest, AreNotAheadOfReadsHereAndThere) {
  for (const int64_t step : {50, 3, 99, 20, 70}) {
    ReadAt(step * kStep, kStep);
    EXPECT_EQ(Waiting(), 1);
    Answer();
  }
  EXPECT_EQ(files.savings().pieces_ahead, 0U);
}

TEST_F(SequentialReadsTest, AreNotAheadOfAFewSmallReadsInARow) {
  for (int64_t i = 0; i < 10; ++i) {
    ReadAt(i * 4096, 4096);
    EXPECT_EQ(Waiting(), 1);
    Answer();
  }
}

TEST_F(SequentialReadsTest, AreNotAheadOfASlowProgram) {
  SequentialReads usual(files, reads, nodes, true, kMemory);
  for (int64_t i = 0; i < 5; ++i) {
    ReadAt(i * kStep / 2, kStep / 2, &usual, i * 800ms);
    EXPECT_EQ(Waiting(), 1);
    Answer();
  }
}

TEST_F(SequentialReadsTest, AreNotAheadInAFileThatIsWritten) {
  for (int64_t i = 0; i < 5; ++i) {
    ReadAt(i * kStep, kStep);
    EXPECT_EQ(Waiting(), 1);
    Answer();
    nodes.Grow(node, 0);
  }
  EXPECT_EQ(files.savings().pieces_ahead, 0U);
}

TEST_F(SequentialReadsTest, TakeLittleMemoryWhenTheDiskDoesNotAnswer) {
  const auto& savings = files.savings();
  for (int64_t i = 0; i < 50; ++i) {
    node = nodes.Lookup(NodeTable::kRoot, "file" + std::to_string(i), disk.attributes);
    for (int64_t step = 0; step < 3; ++step) ReadAt(step * kStep, kStep);
    sequential.Forget(node);
  }
  EXPECT_GT(savings.pieces_ahead, 10U);
  EXPECT_LE(savings.pieces_ahead, kMemory / static_cast<size_t>(kStep));
}

TEST_F(SequentialReadsTest, AreNotAheadWhenSwitchedOff) {
  SequentialReads off(files, reads, nodes, false, kMemory);
  for (int64_t i = 0; i < 3; ++i) {
    ReadAt(i * kStep, kStep, &off);
    EXPECT_EQ(Waiting(), 1);
    Answer();
  }
}

TEST_F(SequentialReadsTest, AskAgainAfterAChangeThroughTheMount) {
  ReadSteps(2);
  disk.content.replace(2 * kStep, 3, "new");
  nodes.Grow(node, 0);  // as any write
  ReadAt(2 * kStep, kStep);
  EXPECT_EQ(answers.size(), 2U);
  Answer();
  ExpectAnswer(2 * kStep, kStep);
  EXPECT_GT(files.savings().pieces_ahead_unused, 0U);
}

// The kernel keeps what it gets, and would not ask again after a change that it knows of.
TEST_F(SequentialReadsTest, AskAgainAfterAChangeThatTheDiskHasShown) {
  ReadSteps(2);
  disk.content.replace(2 * kStep, 3, "new");
  ++disk.attributes.st_mtim.tv_nsec;
  disk.attributes.st_ctim = disk.attributes.st_mtim;
  ASSERT_TRUE(nodes.Update(node, disk.attributes));
  ReadAt(2 * kStep, kStep);
  EXPECT_EQ(answers.size(), 2U);
  Answer();
  ExpectAnswer(2 * kStep, kStep);
}

TEST_F(SequentialReadsTest, EndWithAFileThatIsCutOnTheDisk) {
  ReadSteps(2);
  disk.content.resize(2 * kStep + 10);
  disk.attributes.st_size = 2 * kStep + 10;
  ReadAt(3 * kStep, kStep);
  Answer();
  ReadAt(2 * kStep, kStep);
  Answer();
  ExpectAnswer(2 * kStep, kStep);
}

// A bad block can take a disk many seconds.
TEST_F(SequentialReadsTest, AskForWhatFailedOnlyWhenAProgramWantsIt) {
  ReadSteps(1);
  ReadAt(kStep, kStep);
  const auto whole = std::exchange(disk.content, disk.content.substr(0, 3 * kStep));
  Answer();  // the fourth piece fails
  ReadAt(2 * kStep, kStep);
  EXPECT_EQ(answers.back().error, 0);
  disk.content = whole;
  Answer();
  const auto asked = files.savings().pieces_ahead.load();
  ReadAt(3 * kStep, kStep);
  EXPECT_EQ(Waiting(), 1);
  EXPECT_EQ(files.savings().pieces_ahead, asked);
  Answer();
  ExpectAnswer(3 * kStep, kStep);
  ReadAt(4 * kStep, kStep);  // the next place may be bad as well
  EXPECT_EQ(Waiting(), 1);
  EXPECT_EQ(files.savings().pieces_ahead, asked);
}

TEST_F(SequentialReadsTest, GiveOneVersionOfAFileThatIsWrittenOnTheDisk) {
  ReadSteps(1);
  ReadAt(kStep, 3 * kStep);
  disk.AnswerNext();
  disk.AnswerNext();
  disk.content.assign(disk.content.size(), 'n');
  ++disk.attributes.st_mtim.tv_nsec;
  disk.attributes.st_ctim = disk.attributes.st_mtim;
  Answer();
  ExpectAnswer(kStep, 3 * kStep);
  const auto ahead = files.savings().pieces_ahead.load();
  ReadAt(4 * kStep, kStep);
  Answer();
  ReadAt(5 * kStep, kStep);  // the file is perhaps still being written
  EXPECT_EQ(Waiting(), 1);
  EXPECT_EQ(files.savings().pieces_ahead, ahead);
}

TEST_F(SequentialReadsTest, StayAheadWhileTheFileIsReadElsewhereToo) {
  ReadSteps(2);
  for (const int64_t step : {50, 51, 52}) {
    ReadAt(step * kStep, kStep);
    EXPECT_EQ(Waiting(), 1);
    Answer();
  }
  ReadAt(2 * kStep, kStep);
  EXPECT_EQ(answers.size(), 6U);  // without a reply
  ExpectAnswer(2 * kStep, kStep);
}

TEST_F(SequentialReadsTest, MakeRoomWhenAProgramPauses) {
  constexpr size_t kFew = 4;
  SequentialReads small(files, reads, nodes, true, kFew * kStep, 1s);
  const auto read = [&](std::chrono::milliseconds later) {
    const auto before = files.savings().pieces_ahead.load();
    for (int64_t i = 0; i < 4; ++i) ReadAt(i * kStep, kStep, &small, later), Answer();
    return files.savings().pieces_ahead - before;
  };
  EXPECT_GT(read(0ms), 0U);
  node = nodes.Lookup(NodeTable::kRoot, "other", disk.attributes);
  EXPECT_GT(read(2000ms), 1U);
}

TEST_F(SequentialReadsTest, AskAgainWhenWhatCameIsTooOld) {
  SequentialReads brief(files, reads, nodes, true, kMemory, 400ms);
  for (int64_t i = 0; i < 2; ++i) ReadAt(i * kStep, kStep, &brief), Answer();
  EXPECT_GT(files.savings().pieces_ahead, 0U);
  std::this_thread::sleep_for(200ms);
  ReadAt(2 * kStep, 10, &brief);  // the program goes on
  Answer();
  ASSERT_EQ(answers.size(), 3U);
  std::this_thread::sleep_for(250ms);
  ReadAt(2 * kStep + 10, kStep - 10, &brief);
  EXPECT_EQ(answers.size(), 3U);
  Answer();
  ExpectAnswer(2 * kStep + 10, kStep - 10);
}

TEST_F(SequentialReadsTest, FailWhenTheFileIsReplaced) {
  ReadSteps(1);
  Put(2, std::string(disk.content.size(), 'b'));
  ReadAt(kStep, kStep);
  Answer();
  ASSERT_EQ(answers.size(), 2U);
  EXPECT_EQ(answers.back().error, ESTALE);
  EXPECT_EQ(answers.back().bytes, "");
}

TEST_F(SequentialReadsTest, AreNotAheadForAWhileAfterAFileWasReplaced) {
  ReadSteps(1);
  Put(2, disk.content);
  ReadAt(kStep, kStep);
  Answer();
  const auto ahead = files.savings().pieces_ahead.load();
  node = nodes.Lookup(NodeTable::kRoot, "file", disk.attributes);
  ReadSteps(4);
  EXPECT_EQ(answers.back().error, 0);
  EXPECT_EQ(files.savings().pieces_ahead, ahead);
}

TEST_F(SequentialReadsTest, AreForgottenWithTheLastHandle) {
  ReadSteps(2);
  sequential.Forget(node);
  ReadAt(2 * kStep, kStep);
  EXPECT_EQ(Waiting(), 1);
  Answer();
  EXPECT_EQ(files.savings().pieces_ahead_unused, files.savings().pieces_ahead);
}

TEST_F(SequentialReadsTest, MayBeForgottenWhileTheyAreOnTheirWay) {
  ReadSteps(1);
  ReadAt(kStep, kStep);
  sequential.Forget(node);
  ReadAt(2 * kStep, kStep);
  Answer();
  EXPECT_EQ(answers.size(), 3U);
  ExpectAnswer(2 * kStep, kStep);
  EXPECT_EQ(files.savings().pieces_ahead_used, 0U);
}

TEST_F(SequentialReadsTest, FailWhenTheSessionStops) {
  ReadSteps(1);
  ReadAt(kStep, kStep);
  session.Stop();
  ASSERT_EQ(answers.size(), 2U);
  EXPECT_EQ(answers.back().error, EIO);
}

TEST_F(SequentialReadsTest, KeepToAFewFiles) {
  for (size_t i = 0; i < 2 * SequentialReads::kMostStreams; ++i) {
    const auto before = files.savings().pieces_ahead.load();
    node = nodes.Lookup(NodeTable::kRoot, "file" + std::to_string(i), disk.attributes);
    ReadSteps(3);
    EXPECT_EQ(files.savings().pieces_ahead > before, i < SequentialReads::kMostStreams) << i;
  }
  EXPECT_EQ(files.savings().pieces_ahead_unused, 0U);
}

// ---- Small files, whole ----

class FetchedFiles : public CheckedReadsTest {
 protected:
  FetchedFiles() { Put(1, "content"), nodes.Update(node, disk.attributes); }

  /// Lets Fetch find content on its way.
  void SendAhead() {
    ahead = [this](const NodeTable::File&, CheckedReads::Arrived to) {
      arrived = std::move(to);
      return true;
    };
  }
  void Fetch() {
    reads.Fetch(node, *nodes.Find(node), ahead,
                [this](int error, const CheckedReads::SharedContent& content) {
                  answers.push_back(
                      {.error = error, .bytes = content == nullptr ? "none" : content->bytes});
                });
  }

  CheckedReads::Ahead ahead = [](const auto&, const auto&) { return false; };
  CheckedReads::Arrived arrived;
};

TEST_F(FetchedFiles, TakeContentThatIsOnItsWay) {
  SendAhead();
  Fetch();
  EXPECT_TRUE(answers.empty());
  const std::string_view content = "CONTENT";
  arrived(&content, std::chrono::steady_clock::now());
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(answers[0].bytes, "CONTENT");
  EXPECT_TRUE(disk.waiting().empty());
}

TEST_F(FetchedFiles, AreReadWhenWhatWasOnItsWayIsOfNoUse) {
  SendAhead();
  Fetch();
  arrived(nullptr, {});
  ASSERT_EQ(disk.waiting(), Commands{kFileRead});
  disk.AnswerAll();
  EXPECT_EQ(answers[0].bytes, "content");
}

TEST_F(FetchedFiles, AreReadWhenTheFileHasChangedSinceItWasOpened) {
  const std::string_view outdated = "CONTENT";
  for (const auto& change : std::vector<std::function<void()>>{[this] { nodes.NoteChange(node); },
                                                               [this] {
                                                                 ++disk.attributes.st_mtim.tv_sec;
                                                                 nodes.Update(node,
                                                                              disk.attributes);
                                                               }}) {
    SendAhead();
    nodes.Update(node, disk.attributes);
    Fetch();
    change();
    arrived(&outdated, std::chrono::steady_clock::now());
    ASSERT_EQ(disk.waiting(), Commands{kFileRead});
    disk.AnswerAll();
    EXPECT_EQ(answers.back().bytes, "content");
    reads.Forget(node);
  }
}

TEST_F(FetchedFiles, NeedOneRequest) {
  Fetch();
  ASSERT_EQ(disk.waiting(), Commands{kFileRead});
  disk.AnswerNext();
  ASSERT_EQ(answers.size(), 1U);
  EXPECT_EQ(answers[0].bytes, "content");
  ASSERT_NE(reads.Find(node), nullptr);
  EXPECT_EQ(reads.Find(node)->bytes, "content");
}

TEST_F(FetchedFiles, AreNotReadWholeWithoutMemoryForTheirContent) {
  Put(1, std::string(kMemory - 1000, 'a'));
  nodes.Update(node, disk.attributes);
  Fetch();
  disk.AnswerAll();
  ASSERT_NE(reads.Find(node), nullptr);
  const auto other = nodes.Lookup(NodeTable::kRoot, "other", disk.attributes);
  const auto fetch_other = [&] {
    bool has_content = false;
    reads.Fetch(other, *nodes.Find(other), ahead,
                [&](int error, const CheckedReads::SharedContent& content) {
                  EXPECT_EQ(error, 0);
                  has_content = content != nullptr;
                });
    disk.AnswerAll();
    return has_content;
  };
  EXPECT_FALSE(fetch_other());
  reads.Forget(node);
  EXPECT_TRUE(fetch_other());
}

TEST_F(FetchedFiles, AreReadAgainUntilContentAndAttributesAgree) {
  Fetch();
  Put(1, "content that is longer");
  disk.attributes.st_ctim.tv_sec = disk.attributes.st_mtim.tv_sec;
  disk.AnswerAll();
  ASSERT_EQ(Errors(), std::vector<int>{0});
  EXPECT_EQ(answers[0].bytes, "content that is longer");
}

TEST_F(FetchedFiles, AreNoLongerGivenAfterAWriteThatWasUnderWay) {
  Fetch();
  disk.AnswerAll();
  ASSERT_NE(reads.Find(node), nullptr);
  nodes.Grow(node, 1);  // within the file, whose size does not show the write
  EXPECT_EQ(reads.Find(node), nullptr);
}

TEST_F(FetchedFiles, ThatWereReplacedFail) {
  Fetch();
  Put(2, "another");
  disk.content += "!";  // so that its length shows that it is another file
  disk.AnswerAll();
  EXPECT_EQ(Errors(), std::vector<int>{ESTALE});
  EXPECT_EQ(reads.Find(node), nullptr);
}

TEST_F(FetchedFiles, ThatAreChangedMeanwhileAreOnlyForTheProgramThatOpenedThem) {
  Fetch();
  reads.Forget(node);
  disk.AnswerAll();
  ASSERT_EQ(Errors(), std::vector<int>{0});
  EXPECT_EQ(answers[0].bytes, "content");
  EXPECT_EQ(reads.Find(node), nullptr);
}

TEST_F(FetchedFiles, AreAwaited) {
  Fetch();
  auto waiting = std::async(std::launch::async, [this] { reads.AwaitAnswers(); });
  EXPECT_EQ(waiting.wait_for(20ms), std::future_status::timeout);
  disk.AnswerAll();
  waiting.wait();
}

// ---- Small files, together with a look-up ----

class FilesLookedUp : public FetchedFiles {
 protected:
  void LookAndRead() {
    reads.LookAndRead("/file", [this](const auto& result) { look = result; });
  }

  std::optional<Result<CheckedReads::Look>> look;
};

TEST_F(FilesLookedUp, ComeWithTheirContent) {
  LookAndRead();
  EXPECT_EQ(disk.waiting(), (Commands{kGetFileAttr, kFileRead, kGetFileAttr}));
  disk.AnswerAll();
  ASSERT_TRUE(look);
  EXPECT_EQ(look->error, 0);
  ASSERT_NE(look->value.content, nullptr);
  EXPECT_EQ(look->value.content->bytes, "content");
  EXPECT_TRUE(reads.Use(node, look->value.content));
  EXPECT_EQ(reads.Find(node), look->value.content);
}

TEST_F(FilesLookedUp, EndThoughPassingThemOnFails) {
  reads.LookAndRead("/file", [](const auto&) { throw std::bad_alloc(); });
  EXPECT_THROW(disk.AnswerAll(), std::bad_alloc);
  reads.Fetch(node, *nodes.Find(node), ahead,
              [](int, const CheckedReads::SharedContent&) { throw std::bad_alloc(); });
  EXPECT_THROW(disk.AnswerAll(), std::bad_alloc);
  reads.AwaitAnswers();
}

TEST_F(FilesLookedUp, AreLookedAtAgainIfTheyWereReplacedMeanwhile) {
  for (const int before : {1, 2}) {
    LookAndRead();
    for (int i = 0; i < before; ++i) disk.AnswerNext();
    Put(10 + before, "another");
    disk.AnswerAll();
    ASSERT_TRUE(look && look->value.content != nullptr);
    EXPECT_EQ(uint64_t{look->value.attributes.st_ino}, uint64_t{disk.attributes.st_ino});
    EXPECT_EQ(look->value.content->bytes, "another");
  }
}

TEST_F(FilesLookedUp, HaveNoContentIfTheyAreLargeOrNotRegularOrReplacedAtEveryLook) {
  Put(1, std::string(CheckedReads::kLargestContent + 1, 'a'));
  LookAndRead();
  disk.AnswerAll();
  EXPECT_TRUE(look && look->error == 0 && look->value.content == nullptr);

  Put(1, "content");
  disk.attributes.st_mode = S_IFIFO | 0644;
  LookAndRead();
  disk.AnswerAll();
  EXPECT_TRUE(look && look->error == 0 && look->value.content == nullptr);

  look.reset();
  LookAndRead();
  uint64_t inode = 1;
  for (; !disk.waiting().empty() && inode < 1000; ++inode) {
    Put(inode, "content");
    disk.AnswerNext();
  }
  EXPECT_TRUE(look && look->error == 0 && look->value.content == nullptr);
  EXPECT_LT(inode, 1000U);
}

TEST_F(FilesLookedUp, AreNotUsedOnceTheNodeHasChanged) {
  LookAndRead();
  disk.AnswerAll();
  const auto content = look->value.content;
  nodes.NoteChange(node);
  EXPECT_FALSE(reads.Use(node, content));
  nodes.Update(node, disk.attributes);  // still looks the same: a change within a clock tick
  EXPECT_FALSE(reads.Use(node, content));
  LookAndRead();
  disk.AnswerAll();
  EXPECT_TRUE(reads.Use(node, look->value.content));
  Put(1, "longer content");
  disk.attributes.st_ctim = disk.attributes.st_mtim;
  nodes.Update(node, disk.attributes);
  EXPECT_FALSE(reads.Use(node, look->value.content));
}

TEST_F(FilesLookedUp, AreAwaited) {
  LookAndRead();
  auto waiting = std::async(std::launch::async, [this] { reads.AwaitAnswers(); });
  EXPECT_EQ(waiting.wait_for(20ms), std::future_status::timeout);
  disk.AnswerAll();
  waiting.wait();
}

}  // namespace
}  // namespace cpd::host
