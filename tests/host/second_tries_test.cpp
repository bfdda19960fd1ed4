// The kernel repeats a call that ended with ESTALE once.
#include "mount/second_tries.h"

#include <gtest/gtest.h>

#include <memory>

namespace cpd::host {
namespace {

class SecondTriesTest : public testing::Test {
 protected:
  static constexpr pid_t kThread = 100;
  static constexpr pid_t kOther = 101;
  static constexpr NodeTable::Id kNode = 7;
  const SecondTries::Name name{NodeTable::kRoot, "file"};
  SecondTries tries;
};

TEST_F(SecondTriesTest, FindWhatTheThreadLooksUpAfterwards) {
  tries.Expect(kThread, name);
  EXPECT_FALSE(tries.HasFound(kThread, kNode));
  const auto content = std::make_shared<const CheckedReads::Content>();
  tries.NoteLookup(kThread, name, kNode, content);
  EXPECT_TRUE(tries.HasFound(kThread, kNode));
  EXPECT_TRUE(tries.IsFound(kNode));
  const auto found = tries.Take(kThread, kNode);
  ASSERT_TRUE(found);
  EXPECT_EQ(found->content, content);
}

TEST_F(SecondTriesTest, EndWhenTheyAreTaken) {
  tries.Expect(kThread, name);
  tries.NoteLookup(kThread, name, kNode, nullptr);
  EXPECT_TRUE(tries.Take(kThread, kNode));
  EXPECT_FALSE(tries.Take(kThread, kNode));
  EXPECT_FALSE(tries.IsFound(kNode));
  EXPECT_FALSE(tries.Wants(kThread, name));
}

TEST_F(SecondTriesTest, AreNotForOtherThreadsOrNodes) {
  tries.Expect(kThread, name);
  tries.NoteLookup(kOther, name, kNode, nullptr);
  EXPECT_FALSE(tries.IsFound(kNode));
  tries.NoteLookup(kThread, name, kNode, nullptr);
  EXPECT_FALSE(tries.Take(kOther, kNode));
  EXPECT_FALSE(tries.Take(kThread, kNode + 1));
  EXPECT_TRUE(tries.Take(kThread, kNode));
}

TEST_F(SecondTriesTest, AreNotForThreadsThatCannotBeToldApart) {
  tries.Expect(0, name);
  tries.NoteLookup(0, name, kNode, nullptr);
  EXPECT_FALSE(tries.Wants(0, name));
  EXPECT_FALSE(tries.Take(0, kNode));
}

TEST_F(SecondTriesTest, WantTheContentOfOneNameAtMost) {
  tries.Expect(kThread, name);
  EXPECT_TRUE(tries.Wants(kThread, name));
  EXPECT_FALSE(tries.Wants(kOther, name));
  EXPECT_FALSE(tries.Wants(kThread, {NodeTable::kRoot, "another"}));
  tries.Expect(kThread, std::nullopt);
  EXPECT_FALSE(tries.Wants(kThread, name));
}

TEST_F(SecondTriesTest, KeepOnlyTheLatestLookup) {
  tries.Expect(kThread, name);
  tries.NoteLookup(kThread, {NodeTable::kRoot, "directory"}, kNode, nullptr);  // on the way
  tries.NoteLookup(kThread, name, kNode + 1, nullptr);
  EXPECT_FALSE(tries.IsFound(kNode));
  EXPECT_TRUE(tries.Take(kThread, kNode + 1));
}

TEST_F(SecondTriesTest, MayLookTheWantedNameUpTwice) {
  tries.Expect(kThread, name);
  tries.NoteLookup(kThread, name, kNode, nullptr);
  tries.NoteLookup(kThread, name, kNode, nullptr);
  EXPECT_TRUE(tries.Take(kThread, kNode));
}

TEST_F(SecondTriesTest, EndWhenTheThreadsNextCallLooksUpAnotherName) {
  tries.Expect(kThread, name);
  tries.NoteLookup(kThread, name, kNode, nullptr);
  tries.NoteLookup(kThread, {NodeTable::kRoot, "another"}, kNode + 1, nullptr);
  EXPECT_FALSE(tries.IsFound(kNode));
  EXPECT_FALSE(tries.Take(kThread, kNode + 1));
  EXPECT_FALSE(tries.Wants(kThread, name));
}

}  // namespace
}  // namespace cpd::host
