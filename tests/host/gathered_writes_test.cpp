// Small writes are sent together and in order, and none is lost silently.
#include "mount/gathered_writes.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "remote/session.h"
#include "support/idle_driver.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

template <class Head>
Head HeadOf(const CpdPacket& packet) {
  Head head{};
  std::memcpy(&head, packet.buffer->data + CPD_PACKET_HEADER_SIZE, sizeof head);
  return head;
}

/// A driver whose disk is a file in memory. Carries out requests in order, on a thread of its own,
/// unless it is held.
class MemoryDisk : public test::IdleDriver {
 public:
  explicit MemoryDisk(Session& session) : session_(session) {}

  int onEvent(std::unique_ptr<CpdPacket> packet, int /*flags*/) override {
    const std::lock_guard lock(mutex_);
    requests_.push_back(std::move(packet));
    wake_.notify_all();
    return 0;
  }

  void Hold() {
    Change([this] { is_held_ = true; });
  }
  void GoOn() {
    Change([this] { is_held_ = false; });
  }
  /// The next `count` batches fail after their first piece.
  void FailBatches(int count) {
    Change([=, this] { failing_batches_ = count; });
  }
  /// From now on every write fails, and no space is left.
  void Fill() {
    Change([this] { is_full_ = true; });
  }
  /// From now on every piece takes this long.
  void SlowDown(std::chrono::milliseconds each) {
    Change([=, this] { time_of_piece_ = each; });
  }

  std::string content() const {
    const std::lock_guard lock(mutex_);
    return content_;
  }
  int batches() const {
    const std::lock_guard lock(mutex_);
    return batches_;
  }
  /// How many pieces have been written or refused, in batches and by themselves.
  int pieces() const {
    const std::lock_guard lock(mutex_);
    return pieces_;
  }
  /// How many requests wait for the one that is being carried out.
  size_t waiting() const {
    const std::lock_guard lock(mutex_);
    return requests_.size();
  }
  /// Whether a sync is among the requests that wait.
  bool has_sync() const {
    const std::lock_guard lock(mutex_);
    return std::ranges::any_of(
        requests_, [](const auto& request) { return request->header->cmd == kFileFsync; });
  }
  /// How many pieces were written when a sync was carried out last; -1 if none was.
  int pieces_synced() const {
    const std::lock_guard lock(mutex_);
    return pieces_synced_;
  }
  /// How many requests for statistics have come.
  int questions() const {
    const std::lock_guard lock(mutex_);
    return questions_;
  }

 private:
  template <class What>
  void Change(What what) {
    const std::lock_guard lock(mutex_);
    what();
    wake_.notify_all();
  }

  void Work(const std::stop_token& stop) {
    while (true) {
      std::unique_ptr<CpdPacket> request;
      {
        std::unique_lock lock(mutex_);
        wake_.wait(lock, stop, [this] { return !is_held_ && !requests_.empty(); });
        if (stop.stop_requested()) return;
        request = std::move(requests_.front());
        requests_.pop_front();
        if (request->header->cmd == kGetStatvfs) ++questions_;
        if (request->header->cmd == kFileFsync) pieces_synced_ = pieces_;
        if (request->header->cmd == kFileWrite) Write(request.get(), &lock);
      }
      session_.Receive(Answer(std::move(request)));
    }
  }

  void Write(CpdPacket* request, std::unique_lock<std::mutex>* lock) {
    auto head = HeadOf<WriteHead>(*request);
    const std::string_view data(reinterpret_cast<const char*>(request->buffer->data) +
                                    CPD_PACKET_HEADER_SIZE + sizeof head + head.path_length,
                                static_cast<size_t>(head.size));
    const bool is_done = head.single != 0 ? Put(head.offset, data, lock) : PutBatch(data, lock);
    if (!is_done) head.size = 0;
    std::memcpy(request->buffer->data + CPD_PACKET_HEADER_SIZE, &head, sizeof head);
  }

  bool PutBatch(std::string_view pieces, std::unique_lock<std::mutex>* lock) {
    ++batches_;
    const bool fails = failing_batches_ > 0 && failing_batches_-- > 0;
    while (!pieces.empty()) {
      WritePieceHead head{};
      std::memcpy(&head, pieces.data(), sizeof head);
      const auto length = static_cast<size_t>(head.length);
      if (!Put(head.offset, pieces.substr(sizeof head, length), lock)) return false;
      if (fails) return false;
      pieces.remove_prefix(sizeof head + length);
    }
    return true;
  }

  bool Put(int64_t offset, std::string_view data, std::unique_lock<std::mutex>* lock) {
    if (time_of_piece_ != 0ms) {
      lock->unlock();
      std::this_thread::sleep_for(time_of_piece_);
      lock->lock();
    }
    ++pieces_;
    if (is_full_) return false;
    const auto at = static_cast<size_t>(offset);
    content_.resize(std::max(content_.size(), at + data.size()), '.');
    content_.replace(at, data.size(), data);
    return true;
  }

  std::unique_ptr<CpdPacket> Answer(std::unique_ptr<CpdPacket> request) const {
    auto answer = std::make_unique<CpdPacket>(request->header->packetLen + sizeof(udisk_stat));
    answer->InitHeader(request->header->devId, request->header->cmd, request->header->requestId);
    if (request->header->cmd == kGetFileAttr) {
      auto head = HeadOf<FileAttrHead>(*request);
      head.attr_length = sizeof(udisk_stat);
      udisk_stat attributes{};
      attributes.st_mode = S_IFREG | 0666;
      answer->AppendPayload(&head, sizeof head);
      answer->AppendPayload(request->buffer->data + CPD_PACKET_HEADER_SIZE + sizeof head,
                            head.path_length);
      answer->AppendPayload(&attributes, sizeof attributes);
      return answer;
    }
    answer->AppendPayload(request->buffer->data + CPD_PACKET_HEADER_SIZE,
                          request->header->packetLen - CPD_PACKET_HEADER_SIZE);
    if (request->header->cmd == kGetStatvfs) {
      udisk_statvfs statistics{};
      statistics.f_bsize = statistics.f_frsize = 4096;
      statistics.f_bavail = is_full_ ? 0 : 1 << 30;
      answer->AppendPayload(&statistics, sizeof statistics);
    }
    return answer;
  }

  Session& session_;
  mutable std::mutex mutex_;
  std::condition_variable_any wake_;
  std::deque<std::unique_ptr<CpdPacket>> requests_;
  std::string content_;
  int batches_ = 0;
  int failing_batches_ = 0;
  int pieces_ = 0;
  int pieces_synced_ = -1;
  int questions_ = 0;
  std::chrono::milliseconds time_of_piece_{0};
  bool is_held_ = false;
  bool is_full_ = false;
  std::jthread worker_{[this](const std::stop_token& stop) { Work(stop); }};
};

class GatheredWritesTest : public testing::Test {
 protected:
  GatheredWritesTest() {
    session.Start(&channel);
    udisk_stat attributes{};
    attributes.st_mode = S_IFREG | 0644;
    node = nodes.Lookup(NodeTable::kRoot, "file", attributes);
    WriteThrough(0, "");
  }
  ~GatheredWritesTest() override { session.Stop(); }

  bool Add(int64_t offset, std::string_view data) {
    const auto pass = gate.Enter();
    return writes.Add(node, 0, offset, data);
  }
  /// Waits until the write and the question that follows it are answered.
  Outcome WriteThrough(int64_t offset, std::string_view data) {
    Outcome outcome{};
    std::promise<void> answered;
    writes.Drain(node);
    {
      const auto pass = gate.Enter();
      writes.WriteThrough(*nodes.Find(node), offset, data, [&](Outcome it) { outcome = it; });
      files.GetAttributes("/", [&](const Result<udisk_stat>&) { answered.set_value(); });
    }
    answered.get_future().wait();
    return outcome;
  }
  /// What became of a write that was sent by itself.
  struct Sent {
    bool is_taken = false;
    std::shared_ptr<std::atomic<int>> error = std::make_shared<std::atomic<int>>(kWaiting);

    [[nodiscard]] bool is_acknowledged() const { return *error != kWaiting; }
  };
  static constexpr int kWaiting = -1;

  Sent SendEarly(int64_t offset, std::string_view data) {
    Sent sent;
    const auto pass = gate.Enter();
    sent.is_taken = writes.SendEarly(node, *nodes.Find(node), offset, data,
                                     [error = sent.error](int it) { *error = it; });
    return sent;
  }
  /// Sends large writes until one is not acknowledged at once. @return all of them
  std::vector<Sent> SendUntilThereIsNoRoom() {
    std::vector<Sent> all;
    do {
      all.push_back(SendEarly(static_cast<int64_t>(all.size()) * kLarge, large));
    } while (all.back().is_acknowledged() && all.size() < 1000);
    return all;
  }
  /// Sends what is gathered as a batch of its own.
  void SendNow() {
    const auto pass = gate.Enter();
    writes.Send();
  }

  Session session{5s};
  MemoryDisk disk{session};
  DriverChannel channel{disk};
  RemoteFiles files{session};
  NodeTable nodes;
  RenameGate gate;
  std::mutex mutex;
  std::vector<int> failures;  // guarded by mutex
  GatheredWrites writes{files, nodes, gate, [this](NodeTable::Id, int error) {
                          const std::lock_guard lock(mutex);
                          failures.push_back(error);
                        }};
  NodeTable::Id node = 0;

  static constexpr int64_t kLarge = 128 << 10;
  const std::string large = std::string(kLarge, 'L');
};

// ---- Small ones ----

TEST_F(GatheredWritesTest, AreSentInOnePacket) {
  {
    const auto pass = gate.Enter();  // keeps the sender from sending
    ASSERT_TRUE(writes.Add(node, 0, 0, "abc"));
    ASSERT_TRUE(writes.Add(node, 3, 6, "ghi"));
    ASSERT_TRUE(writes.Add(node, 9, 1, "X"));
  }
  writes.Drain(node);
  EXPECT_EQ(disk.content(), "aXc...ghi");
  EXPECT_EQ(disk.batches(), 1);
}

TEST_F(GatheredWritesTest, AreSentSoonWithoutAFurtherCall) {
  ASSERT_TRUE(Add(0, "abc"));
  for (int i = 0; i < 500 && disk.content().empty(); ++i) std::this_thread::sleep_for(10ms);
  EXPECT_EQ(disk.content(), "abc");
}

/// The threads of this process.
std::set<std::string> Threads() {
  std::set<std::string> threads;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
    threads.insert(thread.path());
  }
  return threads;
}

/// How often a thread has gone to sleep.
int64_t Sleeps(const std::string& thread) {
  std::ifstream status(thread + "/status");
  const std::string key = "voluntary_ctxt_switches:";
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with(key)) return std::stoll(line.substr(key.size()));
  }
  return -1;
}

TEST_F(GatheredWritesTest, DoNotEachWakeTheSenderIfOthersSendThem) {
  const auto before = Threads();
  GatheredWrites own(files, nodes, gate, [](NodeTable::Id, int) {});
  auto sender = Threads();
  std::erase_if(sender, [&](const auto& thread) { return before.contains(thread); });
  ASSERT_EQ(sender.size(), 1U);
  {
    const auto pass = gate.Enter();
    own.WriteThrough(*nodes.Find(node), 0, "a", [](Outcome) {});
  }
  const auto asked = [this] {
    std::promise<void> answered;
    files.GetAttributes("/", [&](const Result<udisk_stat>&) { answered.set_value(); });
    answered.get_future().wait();
  };
  asked();  // so the disk's spare room is known
  const auto begin = std::chrono::steady_clock::now();
  const int64_t sleeps = Sleeps(*sender.begin());
  constexpr int kWrites = 2000;
  for (int i = 0; i < kWrites; ++i) {
    {
      const auto pass = gate.Enter();
      if (own.Add(node, 0, i, "b")) {
        own.Send();
      } else {  // on a busy machine, what is known of the disk may have grown old
        own.WriteThrough(*nodes.Find(node), i, "b", [](Outcome) {});
        asked();
      }
    }
    own.Drain(node);
  }
  // Each time, it may be woken by a write, sleep until that is due, and find a lock held.
  const auto intervals =
      (std::chrono::steady_clock::now() - begin) / GatheredWrites::kLongestGathered + 1;
  EXPECT_LE(Sleeps(*sender.begin()) - sleeps, 6 * intervals);
}

TEST_F(GatheredWritesTest, DoNotTakeALargePiece) {
  EXPECT_FALSE(Add(0, std::string(4097, 'x')));
  EXPECT_TRUE(Add(0, std::string(4096, 'x')));
}

TEST_F(GatheredWritesTest, TakeOnlyAFewMebibytesForASlowDisk) {
  int taken = 0;
  // A busy machine may make the disk look slow at first.
  for (int attempt = 0; attempt < 20 && taken <= 100; ++attempt) {
    disk.GoOn();
    for (int i = 0; i < 10; ++i) WriteThrough(0, "");
    disk.Hold();
    for (taken = 0; taken < 10'000 && Add(taken * 5000, std::string(4096, 'x')); ++taken) {
    }
  }
  EXPECT_LT(taken, 1000);
  EXPECT_GT(taken, 100);
  disk.GoOn();
  writes.Drain(node);
  EXPECT_TRUE(Add(0, "x"));
}

TEST_F(GatheredWritesTest, OfALoggerDoNotPileUpOnASlowDisk) {
  disk.SlowDown(5ms);
  WriteThrough(0, "");
  size_t most_waiting = 0;
  std::string expected;
  for (int i = 0; i < 300; ++i) {
    const auto line = std::to_string(1'000'000 + i) + "\n";
    const auto end = static_cast<int64_t>(expected.size());
    if (!Add(end, line)) {
      ASSERT_EQ(WriteThrough(end, line), Outcome::kDone);
    }
    expected += line;
    most_waiting = std::max(most_waiting, disk.waiting());
    std::this_thread::sleep_for(500us);
  }
  // One packet is carried out; the lines that come meanwhile make the next. Statistics come, too.
  EXPECT_LE(most_waiting, 2U);
  writes.Drain(node);
  EXPECT_EQ(disk.content(), expected);
}

TEST_F(GatheredWritesTest, AreNeverMoreThanASlowDiskCarriesOutInATenthOfASecond) {
  disk.SlowDown(5ms);
  for (int i = 0; i < 10; ++i) WriteThrough(0, "");  // so that its present speed is known
  const int before = disk.pieces();
  int most = 0;
  int taken = 0;
  int written_through = 0;
  for (; taken + written_through < 150;) {
    const int64_t offset = (taken + written_through) * 100;
    if (Add(offset, "0123456789")) {
      ++taken;
      if (taken % 7 == 0) SendNow();  // as any other request does
    } else {
      ASSERT_EQ(WriteThrough(offset, "0123456789"), Outcome::kDone);
      ++written_through;
    }
    most = std::max(most, taken + written_through - (disk.pieces() - before));
  }
  EXPECT_LE(most, 21);  // 20, and one to spare: the fast first write still counts a little
  EXPECT_GT(taken, written_through);
}

TEST_F(GatheredWritesTest, AskForStatisticsRarely) {
  const auto begin = std::chrono::steady_clock::now();
  for (int i = 0; i < 2000; ++i) {
    if (!Add(i * 100, "0123456789")) {
      ASSERT_EQ(WriteThrough(i * 100, "0123456789"), Outcome::kDone);
    }
    if (i % 10 == 0) SendNow();
  }
  writes.Drain(node);
  EXPECT_LE(disk.questions(), (std::chrono::steady_clock::now() - begin) / 500ms + 2);
}

TEST_F(GatheredWritesTest, AreWrittenThroughOnAFullDisk) {
  disk.Fill();
  std::this_thread::sleep_for(600ms);  // until statistics are requested again
  EXPECT_EQ(WriteThrough(0, "abc"), Outcome::kRefused);
  EXPECT_FALSE(Add(0, "abc"));
  EXPECT_EQ(failures, std::vector<int>{});
}

TEST_F(GatheredWritesTest, AreWrittenThroughAfterTheDiskHasFailed) {
  writes.NoteFailure(EIO);
  EXPECT_FALSE(Add(0, "abc"));
}

TEST_F(GatheredWritesTest, AreWrittenOneByOneWhenTheirBatchFails) {
  disk.FailBatches(1);
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(Add(i * 4, "abc"));
  writes.Drain(node);
  EXPECT_EQ(disk.content(), "abc.abc.abc.abc.abc");
  EXPECT_EQ(failures, std::vector<int>{});
}

TEST_F(GatheredWritesTest, SentAfterAFailedBatchStillComeLast) {
  disk.Hold();
  disk.FailBatches(1);
  ASSERT_TRUE(Add(0, "1111"));
  ASSERT_TRUE(Add(8, "1111"));
  SendNow();
  ASSERT_TRUE(Add(8, "2222"));
  SendNow();
  ASSERT_TRUE(Add(10, "33"));
  SendNow();
  disk.GoOn();
  writes.Drain(node);
  EXPECT_EQ(disk.content(), "1111....2233");
  EXPECT_EQ(failures, std::vector<int>{});
}

TEST_F(GatheredWritesTest, AreWrittenAgainBeforeAMoveThatAwaitsThem) {
  disk.Hold();
  disk.FailBatches(1);
  ASSERT_TRUE(Add(0, "abc"));
  ASSERT_TRUE(Add(6, "ghi"));
  const auto move = gate.BeginMove();
  writes.Send();
  disk.GoOn();
  writes.AwaitAnswers();
  EXPECT_EQ(disk.content(), "abc...ghi");
  EXPECT_EQ(failures, std::vector<int>{});
}

TEST_F(GatheredWritesTest, ThatFailAgainAreReportedBeforeADrainEnds) {
  disk.Fill();
  disk.Hold();  // so that the first has not failed before the second is added
  ASSERT_TRUE(Add(0, "abc"));
  ASSERT_TRUE(Add(9, "abc"));
  disk.GoOn();
  writes.Drain(node);
  EXPECT_EQ(failures, (std::vector<int>{ENOSPC, ENOSPC}));
}

TEST_F(GatheredWritesTest, ToAFileWithoutANameAreReported) {
  ASSERT_TRUE(Add(0, "abc"));
  nodes.Unlink(NodeTable::kRoot, "file");
  writes.Drain(node);
  EXPECT_EQ(failures, std::vector<int>{ESTALE});
}

TEST_F(GatheredWritesTest, WithoutAnAnswerAreReported) {
  disk.Hold();
  ASSERT_TRUE(Add(0, "abc"));
  SendNow();
  session.Stop();
  writes.Drain(node);
  EXPECT_EQ(failures, std::vector<int>{EIO});
}

// ---- Large ones ----

using LargeWritesTest = GatheredWritesTest;

TEST_F(LargeWritesTest, AreAcknowledgedBeforeTheyAreCarriedOut) {
  disk.Hold();
  const auto sent = SendEarly(0, large);
  EXPECT_TRUE(sent.is_taken);
  EXPECT_EQ(*sent.error, 0);
  EXPECT_EQ(disk.content(), "");
  disk.GoOn();
  writes.Drain();
  EXPECT_TRUE(disk.content() == large);
}

TEST_F(LargeWritesTest, AreAcknowledgedOnlyWhileAFewMebibytesAreUnanswered) {
  disk.Hold();
  const auto all = SendUntilThereIsNoRoom();
  EXPECT_GT(all.size(), 4U);
  EXPECT_LE(all.size(), (8U << 20) / kLarge);
  const auto next = SendEarly(0, large);
  EXPECT_TRUE(next.is_taken);
  EXPECT_FALSE(next.is_acknowledged());
  disk.GoOn();
  writes.Drain();
  EXPECT_EQ(*all.back().error, 0);
  EXPECT_EQ(*next.error, 0);
}

TEST_F(LargeWritesTest, AreAcknowledgedWhenThereIsRoomAgainAndNotOnlyWhenAllAreAnswered) {
  disk.Hold();
  const int before = disk.pieces();
  const auto all = SendUntilThereIsNoRoom();
  disk.SlowDown(5ms);
  disk.GoOn();
  while (!all.back().is_acknowledged()) std::this_thread::yield();
  EXPECT_LT(disk.pieces() - before, static_cast<int>(all.size()) - 1);
  writes.Drain();
}

TEST_F(LargeWritesTest, ToASlowDiskAreAcknowledgedWhenTheyAreCarriedOut) {
  disk.SlowDown(150ms);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(WriteThrough(0, large), Outcome::kDone);
  const int before = disk.pieces();
  const auto sent = SendEarly(0, large);
  EXPECT_TRUE(sent.is_taken);
  EXPECT_FALSE(sent.is_acknowledged());
  writes.Drain();
  EXPECT_EQ(*sent.error, 0);
  EXPECT_EQ(disk.pieces(), before + 1);
}

TEST_F(LargeWritesTest, ThatFailAfterTheyWereAcknowledgedAreReportedOnce) {
  disk.Hold();
  const auto sent = SendEarly(0, large);
  disk.Fill();
  disk.GoOn();
  writes.Drain();
  EXPECT_EQ(*sent.error, 0);
  EXPECT_EQ(failures, std::vector<int>{ENOSPC});
}

TEST_F(LargeWritesTest, ThatFailBeforeTheyWereAcknowledgedAreNotReportedAgain) {
  disk.Hold();
  const auto all = SendUntilThereIsNoRoom();
  disk.Fill();
  disk.GoOn();
  writes.Drain();
  int acknowledged = 0;
  for (const auto& sent : all) acknowledged += *sent.error == 0 ? 1 : 0;
  EXPECT_EQ(failures, std::vector<int>(static_cast<size_t>(acknowledged), ENOSPC));
  EXPECT_FALSE(SendEarly(0, large).is_taken) << "a full disk is trusted";
}

TEST_F(LargeWritesTest, AreNotTakenOnADiskThatFails) {
  writes.NoteFailure(EIO);
  EXPECT_FALSE(SendEarly(0, large).is_taken);
}

TEST_F(LargeWritesTest, AreNotOverwrittenByAFailedBatchThatIsWrittenAgain) {
  disk.Hold();
  disk.FailBatches(1);
  ASSERT_TRUE(Add(0, "1111"));
  ASSERT_TRUE(Add(8, "1111"));
  std::jthread writer([this] {
    writes.Drain(node);
    EXPECT_TRUE(SendEarly(4, large).is_taken);
  });
  std::this_thread::sleep_for(20ms);
  disk.GoOn();
  writer.join();
  writes.Drain();
  EXPECT_TRUE(disk.content() == "1111" + large);
}

TEST_F(LargeWritesTest, DoNotHoldUpADrainOfTheFile) {
  disk.Hold();
  ASSERT_TRUE(SendEarly(0, large).is_taken);
  writes.Drain(node);
  EXPECT_EQ(disk.content(), "");
  disk.GoOn();
}

TEST_F(LargeWritesTest, WithoutAnAnswerAreReported) {
  disk.Hold();
  ASSERT_EQ(*SendEarly(0, large).error, 0);
  session.Stop();
  writes.Drain();
  EXPECT_EQ(failures, std::vector<int>{EIO});
}

// ---- Waiting for the answers ----

using WrittenFileTest = GatheredWritesTest;

TEST_F(WrittenFileTest, HasItsAnswersAtOnceWhenNothingWasWritten) {
  disk.Hold();
  bool is_answered = false;
  writes.WhenAnswered(node, [&] { is_answered = true; });
  EXPECT_TRUE(is_answered);
  disk.GoOn();
}

TEST_F(WrittenFileTest, HasItsAnswersOnceWhatFailedIsWrittenAgainAndReported) {
  disk.Hold();
  ASSERT_TRUE(Add(0, "abc"));
  ASSERT_EQ(*SendEarly(10, large).error, 0);
  SendNow();
  disk.Fill();
  std::promise<std::vector<int>> answered;
  writes.WhenAnswered(node, [&] {
    const std::lock_guard lock(mutex);
    answered.set_value(failures);
  });
  auto when_answered = answered.get_future();
  EXPECT_EQ(when_answered.wait_for(20ms), std::future_status::timeout);
  disk.GoOn();
  EXPECT_EQ(when_answered.get(), (std::vector<int>{ENOSPC, ENOSPC}));
}

TEST_F(WrittenFileTest, IsNotWrittenEarlyWhileSomebodyWaitsForItsAnswers) {
  disk.Hold();
  ASSERT_EQ(*SendEarly(0, large).error, 0);
  writes.WhenAnswered(node, [] {});
  EXPECT_FALSE(SendEarly(0, large).is_taken);
  EXPECT_FALSE(Add(0, "abc"));
  disk.GoOn();
  writes.Drain();
  EXPECT_TRUE(Add(0, "abc"));
}

TEST_F(WrittenFileTest, IsSyncedInOneRoundTripWithItsWrites) {
  disk.Hold();
  ASSERT_TRUE(Add(0, "abc"));
  ASSERT_EQ(*SendEarly(3, large).error, 0);
  const int before = disk.pieces();
  std::promise<Outcome> synced;
  {
    const auto pass = gate.Enter();
    writes.Send();
    writes.Sync(node, *nodes.Find(node), [&](Outcome outcome) { synced.set_value(outcome); });
  }
  EXPECT_TRUE(disk.has_sync()) << "it waits for the answers to the writes";
  disk.GoOn();
  EXPECT_EQ(synced.get_future().get(), Outcome::kDone);
  EXPECT_EQ(disk.pieces_synced(), before + 2);
}

TEST_F(WrittenFileTest, IsSyncedAgainAfterWhatFailedIsWrittenAgain) {
  disk.Hold();
  disk.FailBatches(1);
  ASSERT_TRUE(Add(0, "abc"));
  ASSERT_TRUE(Add(9, "abc"));
  std::promise<Outcome> synced;
  {
    const auto pass = gate.Enter();
    writes.Send();
    writes.Sync(node, *nodes.Find(node), [&](Outcome outcome) { synced.set_value(outcome); });
  }
  disk.GoOn();
  EXPECT_EQ(synced.get_future().get(), Outcome::kDone);
  EXPECT_EQ(disk.pieces_synced(), disk.pieces());
  EXPECT_EQ(disk.content(), "abc......abc");
  EXPECT_EQ(failures, std::vector<int>{});
}

}  // namespace
}  // namespace cpd::host
