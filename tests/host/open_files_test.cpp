// What a handle reports of writes that a program believes done.
#include "mount/open_files.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

namespace cpd::host {
namespace {

constexpr NodeTable::Id kFile = 7;
constexpr NodeTable::Id kOther = 8;

class Losses : public testing::Test {
 protected:
  OpenFiles files;
};

TEST_F(Losses, AreReportedOnceByEveryHandleOfTheFile) {
  const auto writer = files.Open(kFile);
  const auto reader = files.Open(kFile);
  const auto other = files.Open(kOther);
  files.NoteWrite(kFile);
  files.LoseUnsynced();
  EXPECT_EQ(files.TakeFailureOrLoss(writer), EIO);
  EXPECT_EQ(files.TakeFailureOrLoss(writer), 0);
  EXPECT_EQ(files.TakeFailureOrLoss(reader), EIO);
  EXPECT_EQ(files.TakeFailureOrLoss(reader), 0);
  EXPECT_EQ(files.TakeFailureOrLoss(other), 0);
}

TEST_F(Losses, AreReportedAgainOnlyAfterAnotherWrite) {
  const auto writer = files.Open(kFile);
  files.NoteWrite(kFile);
  files.LoseUnsynced();
  EXPECT_EQ(files.TakeFailureOrLoss(writer), EIO);
  files.LoseUnsynced();
  EXPECT_EQ(files.TakeFailureOrLoss(writer), 0);
  files.NoteWrite(kFile);
  files.LoseUnsynced();
  EXPECT_EQ(files.TakeFailureOrLoss(writer), EIO);
}

TEST_F(Losses, AreNotReportedByAHandleThatIsOpenedLater) {
  const auto writer = files.Open(kFile);
  files.NoteWrite(kFile);
  files.LoseUnsynced();
  const auto later = files.Open(kFile);
  EXPECT_EQ(files.TakeFailureOrLoss(later), 0);
  EXPECT_EQ(files.TakeFailureOrLoss(writer), EIO);
}

TEST_F(Losses, DoNotMakeAWriteFail) {
  const auto writer = files.Open(kFile);
  files.NoteWrite(kFile);
  files.LoseUnsynced();
  EXPECT_EQ(files.TakeFailure(writer), 0);
  EXPECT_EQ(files.TakeFailureOrLoss(writer), EIO);
}

TEST_F(Losses, DoNotConcernWritesThatWereSynced) {
  const auto writer = files.Open(kFile);
  files.NoteWrite(kFile);
  files.NoteSynced(kFile, files.LastWrite());
  files.LoseUnsynced();
  EXPECT_EQ(files.TakeFailureOrLoss(writer), 0);
}

TEST_F(Losses, ConcernAWriteThatWasAnsweredAfterTheSyncWasSent) {
  const auto writer = files.Open(kFile);
  files.NoteWrite(kFile);
  const auto sent = files.LastWrite();
  files.NoteWrite(kFile);
  files.NoteSynced(kFile, sent);
  files.LoseUnsynced();
  EXPECT_EQ(files.TakeFailureOrLoss(writer), EIO);
}

TEST_F(Losses, DoNotConcernSyncedWritesWhenAnEarlierSyncIsAnsweredLater) {
  const auto writer = files.Open(kFile);
  files.NoteWrite(kFile);
  const auto first = files.LastWrite();
  files.NoteWrite(kFile);
  files.NoteSynced(kFile, files.LastWrite());
  files.NoteSynced(kFile, first);
  files.LoseUnsynced();
  EXPECT_EQ(files.TakeFailureOrLoss(writer), 0);
}

TEST_F(Losses, ConcernAFileThatWasOpenedAgainWhileItsSyncWasOnItsWay) {
  const auto first = files.Open(kFile);
  files.NoteWrite(kFile);
  files.NoteWrite(kFile);
  const auto sent = files.LastWrite();
  files.Close(first);
  const auto second = files.Open(kFile);
  files.NoteWrite(kFile);
  files.NoteSynced(kFile, sent);
  files.LoseUnsynced();
  EXPECT_EQ(files.TakeFailureOrLoss(second), EIO);
}

TEST_F(Losses, AreReportedTogetherWithAFailedWrite) {
  const auto writer = files.Open(kFile);
  files.NoteWrite(kFile);
  files.NoteFailure(kFile, ENOSPC);
  files.LoseUnsynced();
  EXPECT_EQ(files.TakeFailureOrLoss(writer), ENOSPC);
  EXPECT_EQ(files.TakeFailureOrLoss(writer), 0);
}

TEST_F(Losses, ThatDidNotReachTheProgramAreReportedAgainButNotByAWrite) {
  const auto writer = files.Open(kFile);
  files.NoteWrite(kFile);
  files.LoseUnsynced();
  files.PutBack(writer, files.TakeFailureOrLoss(writer));
  EXPECT_EQ(files.TakeFailure(writer), 0);
  EXPECT_EQ(files.TakeFailureOrLoss(writer), EIO);
  EXPECT_EQ(files.TakeFailureOrLoss(writer), 0);
}

TEST_F(Losses, ThatDidNotReachTheProgramAreNotErasedByASuccessThatDidNotReachIt) {
  const auto writer = files.Open(kFile);
  files.NoteWrite(kFile);
  files.LoseUnsynced();
  files.PutBack(writer, files.TakeFailureOrLoss(writer));
  files.PutBack(writer, 0);
  EXPECT_EQ(files.TakeFailureOrLoss(writer), EIO);
}

TEST_F(Losses, StayWithTheFileThatAHandleLeaves) {
  const auto writer = files.Open(kFile);
  const auto reader = files.Open(kFile);
  files.NoteWrite(kFile);
  files.LoseUnsynced();
  files.MoveTo(writer, kOther);
  EXPECT_EQ(files.TakeFailureOrLoss(writer), 0);
  EXPECT_EQ(files.TakeFailureOrLoss(reader), EIO);
}

TEST_F(Losses, OfAWholeDiskAreReportedInsteadOfItsFailedWrites) {
  const auto writer = files.Open(kFile);
  files.NoteWrite(kFile);
  files.NoteFailure(kFile, ENOSPC);
  files.LoseDisk();
  EXPECT_EQ(files.TakeFailure(writer), 0);
  EXPECT_EQ(files.TakeFailureOrLoss(writer), EIO);
  EXPECT_EQ(files.TakeFailureOrLoss(writer), 0);
}

TEST_F(Losses, OfAWholeDiskIncludeTheContentThatHandlesHold) {
  const auto reader = files.Open(kFile);
  files.SetContent(reader, std::make_shared<CheckedReads::Content>());
  files.LoseDisk();
  EXPECT_EQ(files.ContentOf(reader), nullptr);
}

}  // namespace
}  // namespace cpd::host
