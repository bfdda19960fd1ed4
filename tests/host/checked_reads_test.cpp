// Reads wait for the proof that their path still leads to the same file.
#include "mount/checked_reads.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "remote/session.h"
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
    requests_.push_back(std::move(packet));
    return 0;
  }

  /// The commands of the requests that wait, the next one first.
  std::vector<uint16_t> waiting() const {
    std::vector<uint16_t> commands;
    for (const auto& request : requests_) commands.push_back(request->header->cmd);
    return commands;
  }
  void AnswerNext() {
    const auto request = std::move(requests_.front());
    requests_.pop_front();
    session_.Receive(request->header->cmd == kFileRead ? Read(*request) : Look(*request));
  }
  void AnswerAll() {
    while (!requests_.empty()) AnswerNext();
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
