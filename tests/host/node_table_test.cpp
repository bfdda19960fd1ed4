// Nodes, names and paths as the kernel looks them up and the disk changes them.
#include "mount/node_table.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

constexpr auto kRoot = NodeTable::kRoot;

udisk_stat File(uint64_t inode, uint64_t links = 1, int64_t size = 0) {
  udisk_stat file{};
  file.st_mode = S_IFREG | 0644;
  file.st_ino = inode;
  file.st_nlink = links;
  file.st_size = size;
  file.st_mtim.tv_sec = static_cast<int64_t>(inode);
  return file;
}

udisk_stat Directory(uint64_t inode) {
  udisk_stat directory{};
  directory.st_mode = S_IFDIR | 0755;
  directory.st_ino = inode;
  directory.st_nlink = 2;
  return directory;
}

class Nodes : public testing::Test {
 protected:
  std::string PathOf(NodeTable::Id node) const {
    const auto file = nodes.Find(node);
    return file ? file->path : "none";
  }
  NodeTable nodes;
};

TEST_F(Nodes, AreTheSameForEachLookupOfAName) {
  const auto node = nodes.Lookup(kRoot, "a", File(1));
  EXPECT_EQ(nodes.Lookup(kRoot, "a", File(1)), node);
  EXPECT_EQ(PathOf(node), "/a");
}

TEST_F(Nodes, ShowTheLastAnswerForADirectoryThoughItWasAskedForBeforeAnother) {
  const auto asked = NodeTable::Clock::now() - 1ms;
  const auto directory = nodes.Lookup(kRoot, "dir", Directory(1));
  auto grown = Directory(1);
  grown.st_size = 77;
  EXPECT_TRUE(nodes.Update(directory, grown, asked));
  EXPECT_EQ(nodes.LastAttributes(directory)->st_size, 77);
}

TEST_F(Nodes, MoveWithARenamedDirectory) {
  const auto directory = nodes.Lookup(kRoot, "dir", Directory(1));
  const auto inner = nodes.Lookup(directory, "inner", Directory(2));
  const auto file = nodes.Lookup(inner, "file", File(3));
  nodes.Rename(kRoot, "dir", kRoot, "new");
  EXPECT_EQ(PathOf(file), "/new/inner/file");
  nodes.Rename(directory, "inner", kRoot, "top");
  EXPECT_EQ(PathOf(file), "/top/file");
}

TEST_F(Nodes, HaveNoPathOnceARenameHasReplacedThem) {
  const auto one = nodes.Lookup(kRoot, "one", File(1));
  const auto two = nodes.Lookup(kRoot, "two", File(2));
  nodes.Rename(kRoot, "one", kRoot, "two");
  EXPECT_EQ(PathOf(one), "/two");
  EXPECT_EQ(PathOf(two), "none");
  EXPECT_EQ(nodes.Lookup(kRoot, "two", File(1)), one);
}

TEST_F(Nodes, HaveNoPathBelowADirectoryWithoutAName) {
  const auto directory = nodes.Lookup(kRoot, "dir", Directory(1));
  const auto file = nodes.Lookup(directory, "file", File(2));
  nodes.Unlink(kRoot, "dir");
  EXPECT_EQ(PathOf(file), "none");
  EXPECT_EQ(nodes.ChildPath(directory, "other"), std::nullopt);
}

TEST_F(Nodes, AreSharedByHardLinksUnderTheNameSeenLast) {
  const auto one = nodes.Lookup(kRoot, "one", File(1, 2));
  EXPECT_EQ(nodes.Lookup(kRoot, "two", File(1, 2)), one);
  EXPECT_EQ(PathOf(one), "/two");
  nodes.Unlink(kRoot, "two");
  EXPECT_EQ(PathOf(one), "/one");
}

TEST_F(Nodes, AreNotSharedByFilesWithOneInodeButOneLinkEach) {
  EXPECT_NE(nodes.Lookup(kRoot, "one", File(1)), nodes.Lookup(kRoot, "two", File(1)));
}

TEST_F(Nodes, LoseTheirNameToAFileThatTookItOnTheDisk) {
  const auto before = nodes.Lookup(kRoot, "a", File(1));
  const auto after = nodes.Lookup(kRoot, "a", File(2));
  EXPECT_NE(after, before);
  EXPECT_EQ(PathOf(before), "none");
  EXPECT_EQ(PathOf(after), "/a");
}

TEST_F(Nodes, LoseTheirNameWhenTheyGetAnotherFilesAttributes) {
  const auto node = nodes.Lookup(kRoot, "a", File(1));
  EXPECT_TRUE(nodes.Update(node, File(1, 1, 500)));
  EXPECT_FALSE(nodes.Update(node, File(2)));
  EXPECT_EQ(PathOf(node), "none");
}

TEST_F(Nodes, KeepWhatTheDiskHasShownSinceAnAnswerWasAskedFor) {
  const auto before = NodeTable::Clock::now();
  const auto node = nodes.Lookup(kRoot, "a", File(2, 1, 20));
  EXPECT_EQ(nodes.Lookup(kRoot, "a", File(1, 1, 10), before), node);
  EXPECT_TRUE(nodes.Update(node, File(1, 1, 10), before));
  nodes.Renew(node, File(1, 1, 10), before);
  EXPECT_EQ(nodes.LastAttributes(node)->st_size, 20);
  EXPECT_EQ(nodes.Find(node)->kernel_size, 20);
  const auto after = NodeTable::Clock::now() + 1ms;
  EXPECT_TRUE(nodes.Update(node, File(2, 1, 30), after));
  EXPECT_EQ(nodes.LastAttributes(node)->st_size, 30);
}

TEST_F(Nodes, KeepWhatThisMountHasWrittenUntilTheDiskIsAskedAgain) {
  const auto node = nodes.Lookup(kRoot, "a", File(1, 1, 10));
  nodes.Grow(node, 15);
  const auto asked = NodeTable::Clock::now() + 1ms;
  EXPECT_TRUE(nodes.IsOutdated(kRoot, "a"));
  EXPECT_EQ(nodes.Lookup(kRoot, "a", File(1, 1, 10), asked), node);
  EXPECT_EQ(nodes.LastAttributes(node)->st_size, 15);
  EXPECT_TRUE(nodes.IsOutdated(node));
  nodes.Lookup(kRoot, "a", File(1, 1, 15));
  EXPECT_FALSE(nodes.IsOutdated(node));
}

TEST_F(Nodes, RememberTheNameThatAnotherFileTookFromThem) {
  const auto directory = nodes.Lookup(kRoot, "dir", Directory(9));
  const auto file = nodes.Lookup(directory, "file", File(1));
  const auto unlinked = nodes.Lookup(directory, "unlinked", File(2));
  EXPECT_EQ(nodes.ReplacedName(file), std::nullopt);
  EXPECT_FALSE(nodes.Update(file, File(3)));
  EXPECT_EQ(nodes.ReplacedName(file), std::pair(directory, std::string("file")));
  nodes.Unlink(directory, "unlinked");
  EXPECT_EQ(nodes.ReplacedName(unlinked), std::nullopt);
}

TEST_F(Nodes, StayReplacedWhateverTakesTheirPlaceLater) {
  const auto file = nodes.Lookup(kRoot, "file", File(1));
  const auto linked = nodes.Lookup(kRoot, "linked", File(5, 2));
  nodes.Lookup(kRoot, "link", File(5, 2));
  EXPECT_FALSE(nodes.Update(file, File(3)));
  EXPECT_FALSE(nodes.Update(file, File(1)));  // with the same inode
  EXPECT_EQ(PathOf(file), "none");
  EXPECT_FALSE(nodes.Update(linked, File(6)));
  EXPECT_TRUE(nodes.Update(linked, File(5, 1)));  // by its other name
}

TEST_F(Nodes, KnowWhereTheKernelWouldAppend) {
  const auto kernel_size = [this](NodeTable::Id node) { return nodes.Find(node)->kernel_size; };
  const auto node = nodes.Lookup(kRoot, "a", File(1, 1, 100));
  EXPECT_EQ(kernel_size(node), 100);
  nodes.Update(node, File(1, 1, 500));  // the kernel does not hear of this
  EXPECT_EQ(kernel_size(node), 100);
  nodes.NoteTold(node);
  EXPECT_EQ(kernel_size(node), 500);
  nodes.Grow(node, 600);
  EXPECT_EQ(kernel_size(node), 600);
  nodes.NoteUntold(node);
  nodes.Grow(node, 700);
  EXPECT_EQ(kernel_size(node), -1);
}

TEST_F(Nodes, KnowTheSizeOfTheirDirectory) {
  auto attributes = Directory(1);
  attributes.st_size = 4096;
  const auto directory = nodes.Lookup(kRoot, "dir", attributes);
  const auto file = nodes.Lookup(directory, "file", File(2));
  EXPECT_EQ(nodes.DirectorySize(file), 4096);
  nodes.Unlink(directory, "file");
  EXPECT_EQ(nodes.DirectorySize(file), 0);
  EXPECT_EQ(nodes.DirectorySize(kRoot), 0);
}

TEST_F(Nodes, EndWhereThisMountHasWrittenUntilTheDiskIsAskedAgain) {
  const auto end = [this](NodeTable::Id node) { return nodes.Find(node)->end; };
  const auto node = nodes.Lookup(kRoot, "a", File(1, 1, 100));
  nodes.Grow(node, 600);
  nodes.Update(node, File(1, 1, 100));  // may have been asked for before the write
  EXPECT_EQ(end(node), 600);
  const auto before = NodeTable::Clock::now();
  nodes.Grow(node, 200);
  nodes.Update(node, File(1, 1, 100));
  nodes.ForgetEnd(node, before);  // asked for before the second write
  EXPECT_EQ(end(node), 600);
  nodes.ForgetEnd(node, NodeTable::Clock::now());
  EXPECT_EQ(end(node), 100);
  nodes.Update(node, File(1, 1, 800));
  EXPECT_EQ(end(node), 800);
}

TEST_F(Nodes, LetEachLookupBeTakenOnce) {
  const auto never = NodeTable::Clock::time_point();
  const auto node = nodes.Lookup(kRoot, "a", File(1));
  EXPECT_NE(nodes.TakeLookup(node), never);
  EXPECT_EQ(nodes.TakeLookup(node), never);
  nodes.Lookup(kRoot, "a", File(1));
  EXPECT_NE(nodes.TakeLookup(node), never);
}

TEST_F(Nodes, KnowWhetherThisMountHasChangedThemSinceSomeTime) {
  const auto before = NodeTable::Clock::now();
  const auto node = nodes.Lookup(kRoot, "a", File(1));
  const auto other = nodes.Lookup(kRoot, "b", File(2));
  EXPECT_FALSE(nodes.IsChangedSince(node, before));
  nodes.NoteChange(node);
  nodes.Grow(other, 700);
  EXPECT_TRUE(nodes.IsChangedSince(node, before));
  EXPECT_TRUE(nodes.IsChangedSince(other, before));
  const auto after = NodeTable::Clock::now() + std::chrono::nanoseconds(1);
  EXPECT_FALSE(nodes.IsChangedSince(node, after));
  EXPECT_FALSE(nodes.IsChangedSince(other, after));
}

TEST_F(Nodes, StayTheSameWhenTheDiskOnlyRenumbersThem) {
  const auto node = nodes.Lookup(kRoot, "a", File(1, 1, 500));
  auto renumbered = File(1, 1, 500);
  renumbered.st_ino = 99;
  EXPECT_TRUE(nodes.Update(node, renumbered));
  EXPECT_EQ(nodes.Lookup(kRoot, "a", renumbered), node);
  const auto directory = nodes.Lookup(kRoot, "dir", Directory(5));
  EXPECT_EQ(nodes.Lookup(kRoot, "dir", Directory(6)), directory);
}

TEST_F(Nodes, AreTheSameFileWhenOnlyWrittenOrRenamedOrChangedHere) {
  auto file = File(1, 1, 500);
  file.st_ctim = file.st_mtim;
  const auto node = nodes.Lookup(kRoot, "a", file);
  file.st_mtim.tv_sec = file.st_ctim.tv_sec = 70;  // written in place
  EXPECT_TRUE(nodes.Update(node, file));
  file.st_ctim.tv_sec = 80;  // renamed, or given another mode
  EXPECT_TRUE(nodes.Update(node, file));
  nodes.NoteChange(node);
  file.st_mtim.tv_sec = 90;  // written through the mount, and given another mode
  file.st_ctim.tv_sec = 91;
  EXPECT_TRUE(nodes.Update(node, file));
}

TEST_F(Nodes, AreAnotherFileWhenARenamedOneHasTheirInode) {
  auto file = File(1, 1, 500);
  const auto node = nodes.Lookup(kRoot, "a", file);
  file.st_mtim.tv_sec = 70;
  file.st_ctim.tv_sec = 71;
  EXPECT_FALSE(nodes.Update(node, file));
}

TEST_F(Nodes, AreAnotherFileWhenOneOfTheSameSizeAndTimeTookTheirName) {
  auto file = File(1, 1, 500);
  const auto node = nodes.Lookup(kRoot, "a", file);
  file.st_ino = 2;
  file.st_ctim.tv_sec = 71;
  EXPECT_FALSE(nodes.Update(node, file));
}

TEST_F(Nodes, MayGoOnAsTheFileThatTookTheirName) {
  const auto node = nodes.Lookup(kRoot, "a", File(1));
  nodes.Renew(node, File(2));
  EXPECT_EQ(nodes.Lookup(kRoot, "a", File(2)), node);
  nodes.Renew(node, Directory(3));
  EXPECT_EQ(nodes.LastAttributes(node)->st_ino, 2U);
}

TEST_F(Nodes, WithSeveralNamesDoNotGoOnAsAnotherFile) {
  const auto node = nodes.Lookup(kRoot, "one", File(1, 2));
  nodes.Lookup(kRoot, "two", File(1, 2));
  nodes.Renew(node, File(2));
  EXPECT_EQ(nodes.LastAttributes(node)->st_ino, 1U);
}

TEST_F(Nodes, KeepTheirLastAttributesWithoutAName) {
  const auto node = nodes.Lookup(kRoot, "a", File(1, 1, 500));
  nodes.Unlink(kRoot, "a");
  EXPECT_FALSE(nodes.Find(node).has_value());
  EXPECT_EQ(nodes.LastAttributes(node)->st_size, 500);
  EXPECT_FALSE(nodes.LastAttributes(99).has_value());
}

TEST_F(Nodes, HaveTheModeThatTheyAreAboutToGet) {
  const auto node = nodes.Lookup(kRoot, "a", File(1));
  nodes.SetMode(node, S_IFDIR | 04755);
  EXPECT_EQ(nodes.Find(node)->attributes.st_mode, S_IFREG | 04755U);
  nodes.SetMode(99, 0600);  // an unknown node is ignored
}

TEST_F(Nodes, AreForgottenWithTheLastReference) {
  const auto directory = nodes.Lookup(kRoot, "dir", Directory(1));
  const auto file = nodes.Lookup(directory, "file", File(2));
  nodes.Lookup(directory, "file", File(2));
  nodes.Forget(directory, 1);  // its child still needs it
  nodes.Forget(file, 1);
  EXPECT_EQ(PathOf(file), "/dir/file");
  nodes.Forget(file, 1);
  EXPECT_EQ(PathOf(file), "none");
  EXPECT_EQ(PathOf(directory), "none");
}

TEST_F(Nodes, AreFoundOnlyUnderTheirHiddenNameOnceHidden) {
  const auto directory = nodes.Lookup(kRoot, "dir", Directory(1));
  const auto node = nodes.Lookup(directory, "a", File(2));
  nodes.Hide(directory, "a", "hidden");
  EXPECT_TRUE(nodes.Find(node)->is_hidden);
  EXPECT_TRUE(nodes.IsHidden(directory, "hidden"));
  EXPECT_FALSE(nodes.IsHidden(directory, "a"));
  EXPECT_EQ(nodes.HiddenNames(directory), std::vector<std::string>{"hidden"});
  EXPECT_EQ(nodes.HiddenPaths(), std::vector<std::string>{"/dir/hidden"});
  nodes.Show(directory, "hidden", "a");
  EXPECT_EQ(PathOf(node), "/dir/a");
  EXPECT_EQ(nodes.HiddenPaths(), std::vector<std::string>{});
}

TEST_F(Nodes, WithOnlyOneNameAreDistinguishedFromThoseWithMore) {
  const auto node = nodes.Lookup(kRoot, "one", File(1, 2));
  EXPECT_EQ(nodes.NodeIfOnlyName(kRoot, "one"), node);
  nodes.Lookup(kRoot, "two", File(1, 2));
  EXPECT_EQ(nodes.NodeIfOnlyName(kRoot, "one"), std::nullopt);
  EXPECT_EQ(nodes.NodeIfOnlyName(kRoot, "none"), std::nullopt);
}

TEST_F(Nodes, OfAnotherDiskAreOtherNodes) {
  const auto directory = nodes.Lookup(kRoot, "directory", Directory(10));
  const auto file = nodes.Lookup(directory, "file", File(11));
  const auto linked = nodes.Lookup(kRoot, "linked", File(12, 2));
  nodes.Lookup(kRoot, "removed", File(13));
  nodes.Hide(kRoot, "removed", "hidden");
  const auto known = nodes.ForgetDisk();
  for (const auto node : {directory, file, linked}) {
    EXPECT_EQ(PathOf(node), "none");
    EXPECT_FALSE(nodes.LastAttributes(node));
  }
  EXPECT_TRUE(nodes.HiddenPaths().empty());
  EXPECT_EQ(PathOf(kRoot), "/");
  EXPECT_EQ(known.nodes.size(), 5U);
  EXPECT_EQ(std::ranges::count(known.names, std::pair(directory, std::string("file"))), 1);
  EXPECT_EQ(known.names.size(), 4U);

  EXPECT_NE(nodes.Lookup(kRoot, "directory", Directory(10)), directory);
  // Inodes of different disks may have equal numbers.
  EXPECT_NE(nodes.Lookup(kRoot, "other", File(12, 2)), linked);
}

TEST_F(Nodes, OfAnEarlierDiskMayBeForgotten) {
  const auto directory = nodes.Lookup(kRoot, "directory", Directory(10));
  nodes.ForgetDisk();
  const auto now = nodes.Lookup(kRoot, "directory", Directory(10));
  nodes.Forget(directory, 1);
  EXPECT_EQ(PathOf(now), "/directory");
  EXPECT_EQ(PathOf(kRoot), "/");
}

TEST_F(Nodes, HaveCurrentAttributesUntilTheMountChangesTheFile) {
  const auto file = nodes.Lookup(kRoot, "file", File(10));
  const auto inode = [this](const std::string& name) {
    const auto attributes = nodes.CurrentAttributes(kRoot, name);
    return attributes ? std::optional<uint64_t>(attributes->st_ino) : std::nullopt;
  };
  EXPECT_EQ(inode("file"), 10U);
  EXPECT_EQ(inode("other"), std::nullopt);
  nodes.Grow(file, 1);
  EXPECT_EQ(inode("file"), std::nullopt);
  nodes.Update(file, File(10));
  EXPECT_EQ(inode("file"), 10U);
  nodes.NoteChange(file);
  EXPECT_EQ(inode("file"), std::nullopt);
}

TEST_F(Nodes, OfDirectoriesHaveCurrentAttributesUntilTheyLoseAName) {
  const auto directory = nodes.Lookup(kRoot, "directory", Directory(10));
  nodes.Lookup(directory, "file", File(11));
  EXPECT_TRUE(nodes.CurrentAttributes(kRoot, "directory"));
  nodes.Unlink(directory, "file");
  EXPECT_FALSE(nodes.CurrentAttributes(kRoot, "directory"));
}

/// How much memory this process has in use, in bytes.
size_t MemoryInUse() {
  std::ifstream statm("/proc/self/statm");
  size_t size = 0;
  size_t resident = 0;
  statm >> size >> resident;
  return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

TEST_F(Nodes, LeaveNoMemoryBehindWhenTheKernelForgetsThem) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a sanitizer's allocator keeps what is freed";
#endif
  constexpr uint64_t kNodes = 50'000;
  malloc_trim(0);  // the nodes would fit into what earlier tests of this process have freed
  const auto before = MemoryInUse();
  std::vector<std::unique_ptr<std::string>> others;  // allocated between the nodes
  for (uint64_t i = 1; i <= kNodes; ++i) {
    nodes.Lookup(kRoot, "a file with a longer name " + std::to_string(i), File(i));
    if (i % 1000 == 0) others.push_back(std::make_unique<std::string>(100, 'x'));
  }
  const auto most = MemoryInUse();
  for (uint64_t i = 1; i <= kNodes; ++i) nodes.Forget(kRoot + i, 1);
  EXPECT_GT(most, before + kNodes * 300);
  EXPECT_LT(MemoryInUse(), before + (most - before) / 2);
}

}  // namespace
}  // namespace cpd::host
