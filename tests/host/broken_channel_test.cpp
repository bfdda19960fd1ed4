// What a session does when its channel breaks and another one takes its place.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "remote/recovery.h"
#include "remote/remote_files.h"
#include "remote/session.h"
#include "support/child_process.h"
#include "support/requests.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;
using namespace test;  // NOLINT(google-build-using-namespace): the requests

/// Records what is sent, and has room until the test says otherwise.
class ScriptedChannel : public Channel {
 public:
  [[nodiscard]] bool CanBreak() const override { return true; }
  [[nodiscard]] bool HasRoom(size_t /*packet_length*/) override { return has_room; }
  void Send(const std::shared_ptr<CpdPacket>& packet) override { sent.emplace_back(*packet); }

  bool has_room = true;
  std::vector<SentPacket> sent;
};

udisk_stat FileWith(uint64_t inode, int64_t size = 0, int64_t time = 0) {
  udisk_stat attributes{};
  attributes.st_ino = inode;
  attributes.st_size = size;
  attributes.st_mtim.tv_sec = time;
  return attributes;
}

class BrokenChannel : public testing::Test {
 protected:
  using Found = std::optional<udisk_stat>;

  BrokenChannel() { session.Start(&channel); }
  ~BrokenChannel() override { session.Stop(); }

  /// Asks; the answer becomes the next one of `answers`: the reply's payload, or "none".
  void Ask(const Request& request, const Found& before = std::nullopt) {
    const size_t number = answers.size();
    answers.emplace_back();
    session.Ask(
        request.Packet(),
        [this, number](const std::unique_ptr<CpdPacket>& reply) {
          EXPECT_EQ(answers[number], "") << "answered twice";
          answers[number] = reply == nullptr ? "none" : SentPacket(*reply).payload;
        },
        before);
  }
  /// The commands that were sent through the present channel.
  std::vector<uint16_t> Sent() const {
    std::vector<uint16_t> commands;
    for (const auto& packet : channel.sent) commands.push_back(packet.cmd);
    return commands;
  }
  /// Replies to the packet that was sent at a place, with a payload.
  void Reply(size_t place, const std::string& payload) {
    Request reply{.cmd = channel.sent.at(place).cmd, .payload = payload};
    reply.request_id = channel.sent.at(place).request_id;
    session.Receive(reply.Packet());
  }
  /// Answers a look at a path.
  void Show(size_t place, const Found& found) {
    const FileAttrHead head{.path_length = 0,
                            .attr_length = static_cast<uint16_t>(found ? sizeof *found : 0)};
    ASSERT_EQ(channel.sent.at(place).cmd, kGetFileAttr);
    Reply(place, BytesOf(head) + (found ? BytesOf(*found) : ""));
  }
  std::string PathAt(size_t place) const {
    return channel.sent.at(place).payload.substr(sizeof(FileAttrHead));
  }
  void Break() {
    session.Break();
    channel.sent.clear();
  }
  void BreakAndStart() {
    Break();
    session.Start(&channel);
  }

  ScriptedChannel channel;
  Session session{60s, 300s};
  std::vector<std::string> answers;
};

TEST_F(BrokenChannel, AsksAgainWhatWasUnansweredInTheSameOrderAndThenWhatCameLater) {
  Ask(AttrRequest{.path = "/a"});
  Ask(ReadRequest{.path = "/b"});
  Ask(MakeDirRequest{.path = "/c"});
  Reply(0, "of a");
  Break();
  Ask(DirReadRequest{.path = "/d"});
  EXPECT_TRUE(channel.sent.empty());
  session.Start(&channel);
  EXPECT_EQ(Sent(), (std::vector<uint16_t>{kFileRead, kMakeDir, kDirRead}));
  for (size_t i = 0; i < 3; ++i) Reply(i, "reply " + std::to_string(i));
  EXPECT_EQ(answers, (std::vector<std::string>{"of a", "reply 0", "reply 1", "reply 2"}));
}

TEST_F(BrokenChannel, DeliversNothingThatTheOldChannelStillBrings) {
  Ask(AttrRequest{.path = "/a"});
  const auto old = channel.sent.front();
  BreakAndStart();
  Request late{.cmd = old.cmd, .payload = "late"};
  late.request_id = old.request_id;
  session.Receive(late.Packet());
  EXPECT_EQ(answers.front(), "");
  Reply(0, "new");
  Reply(0, "new again");
  EXPECT_EQ(answers.front(), "new");
}

TEST_F(BrokenChannel, LooksBeforeItAsksAnythingAgain) {
  Ask(ReadRequest{.path = "/b"});
  Ask(CreateRequest{.path = "/new"});
  Ask(AttrRequest{.path = "/c"});
  BreakAndStart();
  ASSERT_EQ(Sent(), (std::vector<uint16_t>{kGetFileAttr}));
  EXPECT_EQ(PathAt(0), "/new");
  Show(0, std::nullopt);
  EXPECT_EQ(Sent(), (std::vector<uint16_t>{kGetFileAttr, kFileRead, kFileCreate, kGetFileAttr}));
  EXPECT_EQ(answers, (std::vector<std::string>{"", "", ""}));
}

TEST_F(BrokenChannel, AnswersACreateThatWasCarriedOut) {
  const Request create = CreateRequest{.path = "/new"};
  Ask(create);
  BreakAndStart();
  Show(0, FileWith(1));
  EXPECT_EQ(answers.front(), create.payload);
  EXPECT_EQ(channel.sent.size(), 1U) << "it is not asked again";
}

TEST_F(BrokenChannel, LooksAgainWhenTheNextChannelBreaksDuringTheLook) {
  Ask(CreateRequest{.path = "/one"});
  Ask(CreateRequest{.path = "/two"});
  BreakAndStart();
  EXPECT_EQ(channel.sent.size(), 2U);
  Show(0, FileWith(1));
  BreakAndStart();
  ASSERT_EQ(Sent(), (std::vector<uint16_t>{kGetFileAttr, kGetFileAttr}));
  EXPECT_EQ(PathAt(0), "/one");
  EXPECT_EQ(PathAt(1), "/two");
  Show(0, FileWith(1));
  EXPECT_EQ(answers, (std::vector<std::string>{"", ""}));
  Show(1, std::nullopt);
  EXPECT_NE(answers[0], "");
  EXPECT_EQ(answers[1], "");
  EXPECT_EQ(Sent(), (std::vector<uint16_t>{kGetFileAttr, kGetFileAttr, kFileCreate}));
}

TEST_F(BrokenChannel, AsksAgainWhenTheLookFails) {
  Ask(CreateRequest{.path = "/new"});
  BreakAndStart();
  Reply(0, "");  // malformed
  EXPECT_EQ(Sent(), (std::vector<uint16_t>{kGetFileAttr, kFileCreate}));
}

TEST_F(BrokenChannel, AsksOnceMoreWhatASecondBreakLeavesUnanswered) {
  Ask(CreateRequest{.path = "/new"});
  for (int i = 0; i < 3; ++i) {
    BreakAndStart();
    Show(0, std::nullopt);
    EXPECT_EQ(Sent(), (std::vector<uint16_t>{kGetFileAttr, kFileCreate}));
  }
  Reply(1, "created");
  EXPECT_EQ(answers.front(), "created");
}

TEST_F(BrokenChannel, SendsARemovalRenameOrLinkAfterAllBeforeItIsAnswered) {
  for (const Request& removal :
       {Request(UnlinkRequest{.path = "/a"}), Request(RemoveDirRequest{.path = "/a"}),
        Request(RenameRequest{.path = "/a", .new_path = "/b"}),
        Request(LinkRequest{.path = "/a", .new_path = "/b"})}) {
    channel.sent.clear();
    Ask(ReadRequest{.path = "/r"});
    Ask(removal);
    Ask(AttrRequest{.path = "/b"});
    EXPECT_EQ(Sent(), (std::vector<uint16_t>{kFileRead}));
    Reply(0, "read");
    EXPECT_EQ(Sent(), (std::vector<uint16_t>{kFileRead, removal.cmd, kGetFileAttr}));
    Reply(1, "done");
    Reply(2, "seen");
  }
}

TEST_F(BrokenChannel, WaitsForRoomAndKeepsTheOrder) {
  channel.has_room = false;
  Ask(ReadRequest{.path = "/a"});
  Ask(AttrRequest{.path = "/b"});
  EXPECT_TRUE(channel.sent.empty());
  channel.has_room = true;
  session.Proceed();
  EXPECT_EQ(Sent(), (std::vector<uint16_t>{kFileRead, kGetFileAttr}));
}

TEST_F(BrokenChannel, DropsWhatNeedsNoAnswerWhileThereIsNoChannel) {
  Break();
  session.Tell(Request(FlushRequest{.path = "/a"}).Packet());
  session.Start(&channel);
  EXPECT_TRUE(channel.sent.empty());
}

TEST_F(BrokenChannel, GivesUpWhatIsUnansweredWhenItStopsWaiting) {
  Ask(ReadRequest{.path = "/a"});
  Ask(UnlinkRequest{.path = "/b"});
  Break();
  EXPECT_EQ(answers, (std::vector<std::string>{"", ""}));
  session.StopWaiting();
  EXPECT_EQ(answers, (std::vector<std::string>{"none", "none"}));
  Ask(ReadRequest{.path = "/c"});
  EXPECT_EQ(answers.back(), "none");
}

TEST_F(BrokenChannel, GivesUpAtTheNextBreakOnceItHasStoppedWaiting) {
  session.StopWaiting();
  Ask(ReadRequest{.path = "/a"});
  EXPECT_EQ(answers.front(), "");
  Break();
  EXPECT_EQ(answers.front(), "none");
}

TEST_F(BrokenChannel, GivesUpAndRefusesAfterItsPatienceAndWorksAgainWithAChannel) {
  Session impatient(60s, 0s);
  impatient.Start(&channel);
  std::atomic<int> given_up = 0;
  const auto count = [&](const std::unique_ptr<CpdPacket>& reply) {
    if (reply == nullptr) ++given_up;
  };
  impatient.Ask(Request(CreateRequest{.path = "/a"}).Packet(), count);
  impatient.Break();
  EXPECT_TRUE(Eventually([&] { return given_up == 1; }));
  impatient.Ask(Request(ReadRequest{.path = "/b"}).Packet(), count);
  EXPECT_EQ(given_up, 2);
  channel.sent.clear();
  impatient.Start(&channel);
  EXPECT_TRUE(channel.sent.empty()) << "what was given up is not looked into";
  impatient.Ask(Request(ReadRequest{.path = "/c"}).Packet(), count);
  EXPECT_EQ(Sent(), (std::vector<uint16_t>{kFileRead}));
  impatient.Stop();
  EXPECT_EQ(given_up, 3);
}

TEST_F(BrokenChannel, AsksAnotherDiskNothingThatWasMeantForTheFirst) {
  Ask(ReadRequest{.path = "/a"});
  Ask(UnlinkRequest{.path = "/b"});
  Break();
  Ask(CreateRequest{.path = "/c"});
  EXPECT_EQ(answers, (std::vector<std::string>{"", "", ""}));
  session.GiveUpWhile([this] {
    EXPECT_EQ(answers, (std::vector<std::string>{"none", "none", "none"}));
    Ask(TruncateRequest{.path = "/d"});
    EXPECT_EQ(answers.back(), "none");
  });
  session.Start(&channel);
  EXPECT_TRUE(channel.sent.empty());
  EXPECT_EQ(answers.size(), 4U);
}

TEST_F(BrokenChannel, AsksAnotherDiskNoFollowUpOfARequestToTheFirst) {
  session.Ask(Request(LinkRequest{.path = "/a", .new_path = "/b"}).Packet(),
              [this](const std::unique_ptr<CpdPacket>&) {
                Ask(RenameRequest{.path = "/a", .new_path = "/b"});
              });
  Break();
  session.GiveUpWhile([] {});
  session.Start(&channel);
  EXPECT_EQ(answers, std::vector<std::string>{"none"});
  EXPECT_TRUE(channel.sent.empty());
}

TEST_F(BrokenChannel, AsksAnotherDiskWhatIsAskedAfterTheChange) {
  Break();
  session.GiveUpWhile([] {});
  Ask(ReadRequest{.path = "/a"});
  EXPECT_EQ(answers.front(), "");
  session.Start(&channel);
  EXPECT_EQ(Sent(), (std::vector<uint16_t>{kFileRead}));
}

TEST_F(BrokenChannel, WaitsForNoOtherDiskOnceItHasStoppedWaiting) {
  Break();
  session.GiveUpWhile([this] { session.StopWaiting(); });
  Ask(ReadRequest{.path = "/a"});
  EXPECT_EQ(answers.front(), "none");
}

// The answer to a question may be on its way through the session when the channel breaks.
TEST_F(BrokenChannel, ForgetsNothingWhenTheChannelBreaksWhileAnAnswerArrives) {
  for (int round = 0; round < 300; ++round) {
    Session racing(60s, 300s);
    ScriptedChannel first;
    racing.Start(&first);
    std::atomic<int> answered = 0;
    racing.Ask(Request(CreateRequest{.path = "/new"}).Packet(),
               [&](const std::unique_ptr<CpdPacket>&) { ++answered; });
    racing.Break();
    racing.Start(&first);
    Request look{.cmd = kGetFileAttr, .payload = BytesOf(FileAttrHead{})};
    look.request_id = first.sent.back().request_id;
    std::atomic<bool> go = false;
    std::thread answer([&] {
      auto packet = look.Packet();
      while (!go) continue;
      racing.Receive(std::move(packet));
    });
    go = true;
    racing.Break();
    answer.join();
    racing.StopWaiting();
    ASSERT_EQ(answered, 1) << "round " << round;
  }
}

// Somebody may have made a new file with the same name while there was no channel.
TEST_F(BrokenChannel, RemovesOnlyTheFileThatHadTheName) {
  RemoteFiles files(session);
  std::vector<Outcome> outcomes;
  const auto note = [&](Outcome outcome) { outcomes.push_back(outcome); };
  files.Unlink("/a", note, FileWith(1, 10, 1000));
  BreakAndStart();
  Show(0, FileWith(2, 20, 2000));
  EXPECT_EQ(outcomes, std::vector(1, Outcome::kDone));
  EXPECT_EQ(channel.sent.size(), 1U);

  channel.sent.clear();
  files.RemoveDirectory("/a", note, FileWith(1, 10, 1000));
  BreakAndStart();
  Show(0, FileWith(2, 20, 2000));
  EXPECT_EQ(outcomes, std::vector(2, Outcome::kDone));
  EXPECT_EQ(channel.sent.size(), 1U);
}

TEST_F(BrokenChannel, RenamesOnlyTheFileThatHadTheName) {
  RemoteFiles files(session);
  std::vector<Outcome> outcomes;
  files.Rename(
      "/a", "/b", [&](Outcome outcome) { outcomes.push_back(outcome); }, FileWith(1, 10, 1000));
  BreakAndStart();
  Show(0, FileWith(2, 20, 2000));
  Show(1, FileWith(1, 10, 1000));
  EXPECT_EQ(outcomes, std::vector(1, Outcome::kDone));
  EXPECT_EQ(channel.sent.size(), 2U);
}

TEST_F(BrokenChannel, RemovesWhatIsThereWhenNothingIsKnownOfTheFile) {
  RemoteFiles files(session);
  files.Unlink("/a", [](Outcome) {});
  BreakAndStart();
  Show(0, FileWith(2, 20, 2000));
  EXPECT_EQ(Sent(), (std::vector<uint16_t>{kGetFileAttr, kSetUnlink}));
  Reply(1, BytesOf(RemoveHead{}));  // so that nothing is under way when `files` goes
}

// ---- What became of a request ----

class LostRequest : public testing::Test {
 protected:
  using Found = std::optional<udisk_stat>;

  static bool WasDone(const Request& request, const Found& before, const std::vector<Found>& now) {
    const auto packet = request.Packet();
    EXPECT_EQ(PathsToLookAt(*packet).size(), now.size());
    const auto reply = LostReply(*packet, before, now);
    if (reply == nullptr) return false;
    EXPECT_EQ(SentPacket(*reply).payload, request.payload);
    return true;
  }

  const Found mine = FileWith(1, 10, 1000);
  const Found other = FileWith(2, 20, 2000);
  const Found nothing;
};

TEST_F(LostRequest, MustBeLookedIntoOrSentAloneOnlyWhereItCannotBeRepeated) {
  std::vector<uint16_t> unrepeatable;
  std::vector<uint16_t> alone;
  for (const auto& row : kCommandNames) {
    if (IsUnrepeatable(row.code)) unrepeatable.push_back(row.code);
    if (IsSentAlone(row.code)) alone.push_back(row.code);
  }
  EXPECT_EQ(unrepeatable,
            (std::vector<uint16_t>{kFileCreate, kRemoveDir, kSetLink, kSetUnlink, kSetRename}));
  EXPECT_EQ(alone, (std::vector<uint16_t>{kRemoveDir, kSetLink, kSetUnlink, kSetRename}));
}

TEST_F(LostRequest, NamesItsPaths) {
  const auto paths = [](const Request& request) {
    const auto packet = request.Packet();
    const auto found = PathsToLookAt(*packet);
    return std::vector<std::string>(found.begin(), found.end());
  };
  EXPECT_EQ(paths(CreateRequest{.path = "/a"}), std::vector<std::string>{"/a"});
  EXPECT_EQ(paths(UnlinkRequest{.path = "/a"}), std::vector<std::string>{"/a"});
  EXPECT_EQ(paths(RemoveDirRequest{.path = "/a"}), std::vector<std::string>{"/a"});
  EXPECT_EQ(paths(RenameRequest{.path = "/a", .new_path = "/bc"}),
            (std::vector<std::string>{"/a", "/bc"}));
  EXPECT_EQ(paths(LinkRequest{.path = "/a", .new_path = "/bc"}),
            (std::vector<std::string>{"/a", "/bc"}));
  EXPECT_TRUE(paths(ReadRequest{.path = "/a"}).empty());
}

TEST_F(LostRequest, CreatedTheFileThatIsThere) {
  const Request create = CreateRequest{.path = "/a"};
  EXPECT_TRUE(WasDone(create, nothing, {mine}));
  EXPECT_FALSE(WasDone(create, nothing, {nothing}));
}

TEST_F(LostRequest, RemovedTheFileThatNoLongerHasItsName) {
  for (const Request& request :
       {Request(UnlinkRequest{.path = "/a"}), Request(RemoveDirRequest{.path = "/a"})}) {
    EXPECT_TRUE(WasDone(request, mine, {nothing}));
    EXPECT_TRUE(WasDone(request, nothing, {nothing}));
    EXPECT_FALSE(WasDone(request, mine, {mine}));
    EXPECT_TRUE(WasDone(request, mine, {other})) << "somebody else has made a new one";
    EXPECT_FALSE(WasDone(request, nothing, {other})) << "nothing tells it from the old one";
    const Found renumbered = FileWith(7, 10, 1000);
    EXPECT_FALSE(WasDone(request, mine, {renumbered})) << "its inode number has changed";
    const Found grown = FileWith(1, 99, 3000);
    EXPECT_FALSE(WasDone(request, mine, {grown})) << "somebody has written to it";
  }
}

TEST_F(LostRequest, LinkedTheFileThatHasBothNames) {
  const Request link = LinkRequest{.path = "/a", .new_path = "/b"};
  EXPECT_TRUE(WasDone(link, mine, {mine, mine}));
  EXPECT_FALSE(WasDone(link, mine, {mine, nothing}));
  EXPECT_FALSE(WasDone(link, mine, {mine, other})) << "somebody else's file has the new name";
  EXPECT_FALSE(WasDone(link, mine, {nothing, mine}));
}

TEST_F(LostRequest, RenamedTheFileThatHasTheNewName) {
  const Request rename = RenameRequest{.path = "/a", .new_path = "/b"};
  EXPECT_TRUE(WasDone(rename, mine, {nothing, mine}));
  EXPECT_TRUE(WasDone(rename, nothing, {nothing, mine}));
  EXPECT_FALSE(WasDone(rename, mine, {mine, nothing}));
  EXPECT_FALSE(WasDone(rename, mine, {mine, other})) << "the new name is another file's";
  EXPECT_FALSE(WasDone(rename, mine, {nothing, nothing})) << "somebody has removed it";
  EXPECT_TRUE(WasDone(rename, mine, {other, mine})) << "somebody has made a new one";
  EXPECT_FALSE(WasDone(rename, nothing, {other, mine}));
  EXPECT_FALSE(WasDone(rename, mine, {mine, mine})) << "both names are one file's";
}

}  // namespace
}  // namespace cpd::host
