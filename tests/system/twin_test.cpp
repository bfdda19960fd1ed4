// The same random operations run in step on a mounted disk and on a plain directory. Every call
// must have the same outcome on both, and both must hold the same tree.
//
// A second test does this over a line that drops again and again.
//
// TWIN_OPERATIONS sets the number of operations; TWIN_SEED repeats a run, given its printed seed.
#include <fcntl.h>
#include <rapidcheck.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iomanip>
#include <iostream>
#include <map>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

// Permitted differences between the twins. Everything else is compared.
//  - Not tried, because the mount refuses them: symbolic links, special files, extended attributes,
// renames with flags, fallocate; and setting times, which it accepts without effect.
//  - Not compared: times, inode numbers, allocated blocks; the size of directories.
//  - Directories are not kept open, because a removed one cannot be listed on the mount.
//  - No directory is removed or replaced while a file that was removed from it is still open (see
// HoldsAHiddenFile).
//  - Set-user-ID and set-group-ID bits are not used, because the mount never sets them.

// ---- Operations ----

constexpr int kSlots = 6;  // files open at the same time
constexpr size_t kOperationsPerDisk = 400;
constexpr size_t kOperationsPerComparison = 20;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kOperationsWithDrops = 2'000;  // each new line starts a program, which takes long
#else
constexpr size_t kOperationsWithDrops = 20'000;
#endif

enum class Kind {
  kOpen,
  kClose,
  kRead,
  kPread,
  kWrite,
  kPwrite,
  kSeek,
  kTruncateOpen,
  kSync,
  kChmodOpen,
  kStatOpen,
  kTruncate,
  kChmod,
  kChown,
  kMakeDirectory,
  kRemoveDirectory,
  kUnlink,
  kLink,
  kRename,
  kStat,
  kList,
};

/// One call. It has the arguments of every kind, so that any operation can run at any time.
struct Operation {
  Kind kind{};
  int slot{};
  std::string path;
  std::string new_path;
  int flags{};
  mode_t mode{};
  off_t offset{};
  size_t size{};
  off_t length{};
  int whence{};
  unsigned content{};
};

std::string FlagNames(int flags) {
  static const std::map<int, std::string> names = {
      {O_CREAT, "O_CREAT"}, {O_EXCL, "O_EXCL"}, {O_TRUNC, "O_TRUNC"}, {O_APPEND, "O_APPEND"}};
  constexpr std::array<const char*, 3> access{"O_RDONLY", "O_WRONLY", "O_RDWR"};
  std::string text = access.at(flags & O_ACCMODE);
  for (const auto& [flag, name] : names) {
    if ((flags & flag) != 0) text += '|' + name;
  }
  return text;
}

std::string Octal(mode_t mode) {
  std::ostringstream text;
  text << '0' << std::oct << mode;
  return text.str();
}

std::string Shown(const Operation& o) {
  const auto call = [&](const char* name, const auto&... arguments) {
    std::ostringstream text;
    text << name << '(';
    const char* separator = "";
    ((text << separator << arguments, separator = ", "), ...);
    text << ')';
    return text.str();
  };
  const std::string fd = "fd[" + std::to_string(o.slot) + ']';
  const auto path = std::quoted(o.path);
  const auto new_path = std::quoted(o.new_path);
  const auto bytes = call("Bytes", o.size, o.content);
  switch (o.kind) {
    case Kind::kOpen:
      return fd + " = " + call("open", path, FlagNames(o.flags), Octal(o.mode));
    case Kind::kClose:
      return call("close", fd);
    case Kind::kRead:
      return call("read", fd, o.size);
    case Kind::kPread:
      return call("pread", fd, o.size, o.offset);
    case Kind::kWrite:
      return call("write", fd, bytes);
    case Kind::kPwrite:
      return call("pwrite", fd, bytes, o.offset);
    case Kind::kSeek:
      return call("lseek", fd, o.offset, o.whence);
    case Kind::kTruncateOpen:
      return call("ftruncate", fd, o.length);
    case Kind::kSync:
      return call("fsync", fd);
    case Kind::kChmodOpen:
      return call("fchmod", fd, Octal(o.mode));
    case Kind::kStatOpen:
      return call("fstat", fd);
    case Kind::kTruncate:
      return call("truncate", path, o.length);
    case Kind::kChmod:
      return call("chmod", path, Octal(o.mode));
    case Kind::kChown:
      return call("chown", path, o.content, o.content);
    case Kind::kMakeDirectory:
      return call("mkdir", path, Octal(o.mode));
    case Kind::kRemoveDirectory:
      return call("rmdir", path);
    case Kind::kUnlink:
      return call("unlink", path);
    case Kind::kLink:
      return call("link", path, new_path);
    case Kind::kRename:
      return call("rename", path, new_path);
    case Kind::kStat:
      return call("lstat", path);
    case Kind::kList:
      return call("readdir", path);
  }
  return "";
}

// Lets rapidcheck print the operations that led to a difference.
void showValue(const std::vector<Operation>& operations, std::ostream& out) {
  for (const auto& operation : operations) out << Shown(operation) << '\n';
}

// ---- Generators ----

namespace gen = rc::gen;

/// There are few names, so that operations hit the same ones. Any may be a file, a directory or
/// free.
rc::Gen<std::string> Path() {
  const auto name =
      gen::elementOf(std::vector<std::string>{"a", "b", "c.tmp", "Gr\u00fc\u00dfe \\ x"});
  return gen::map(gen::tuple(gen::weightedElement<int>({{5, 1}, {4, 2}, {1, 3}}), name, name, name),
                  [](const std::tuple<int, std::string, std::string, std::string>& names) {
                    const auto& [depth, first, second, third] = names;
                    std::string path = first;
                    if (depth > 1) path += '/' + second;
                    if (depth > 2) path += '/' + third;
                    return path;
                  });
}

rc::Gen<int> OpenFlags() {
  const auto maybe = [](int flag) { return gen::weightedElement<int>({{2, 0}, {1, flag}}); };
  return gen::map(gen::tuple(gen::weightedElement<int>({{1, O_RDONLY}, {1, O_WRONLY}, {4, O_RDWR}}),
                             gen::weightedElement<int>({{1, 0}, {3, O_CREAT}}), maybe(O_EXCL),
                             maybe(O_TRUNC), maybe(O_APPEND)),
                  [](const std::tuple<int, int, int, int, int>& flags) {
                    const auto& [access, create, exclusive, truncate, append] = flags;
                    // Without O_CREAT, O_EXCL is undefined.
                    return access | create | (create != 0 ? exclusive : 0) | truncate | append;
                  });
}

/// Permissions that keep the files accessible for the test's own user; root needs none.
rc::Gen<mode_t> Mode() {
  std::vector<mode_t> modes{0755, 0700, 0777, 0751};
  if (geteuid() == 0) modes.insert(modes.end(), {0644, 0600, 0666, 0640, 0444, 0000, 01777});
  return gen::elementOf(modes);
}

rc::Gen<off_t> Length() {
  const std::vector<off_t> around_the_cap{(10 << 20) - 1, 10 << 20, (10 << 20) + 1, 12'345'678};
  return gen::weightedOneOf<off_t>({{5, gen::just<off_t>(0)},
                                    {10, gen::inRange<off_t>(0, 2000)},
                                    {10, gen::inRange<off_t>(0, 70'000)},
                                    {1, gen::elementOf(around_the_cap)}});
}

rc::Gen<Operation> AnyOperation() {
  const auto kind = gen::weightedElement<Kind>({{16, Kind::kOpen},
                                                {5, Kind::kClose},
                                                {6, Kind::kRead},
                                                {6, Kind::kPread},
                                                {10, Kind::kWrite},
                                                {10, Kind::kPwrite},
                                                {4, Kind::kSeek},
                                                {4, Kind::kTruncateOpen},
                                                {3, Kind::kSync},
                                                {1, Kind::kChmodOpen},
                                                {5, Kind::kStatOpen},
                                                {3, Kind::kTruncate},
                                                {3, Kind::kChmod},
                                                {1, Kind::kChown},
                                                {8, Kind::kMakeDirectory},
                                                {3, Kind::kUnlink},
                                                {3, Kind::kRemoveDirectory},
                                                {4, Kind::kLink},
                                                {8, Kind::kRename},
                                                {4, Kind::kStat},
                                                {3, Kind::kList}});
  const auto offset = gen::weightedOneOf<off_t>({{4, gen::inRange<off_t>(0, 1000)},
                                                 {4, gen::inRange<off_t>(0, 70'000)},
                                                 {1, gen::inRange<off_t>(0, 2'000'000)}});
  const auto size = gen::weightedOneOf<size_t>({{6, gen::inRange<size_t>(0, 300)},
                                                {3, gen::inRange<size_t>(0, 20'000)},
                                                {1, gen::inRange<size_t>(0, 300'000)}});
  return gen::build<Operation>(
      gen::set(&Operation::kind, kind), gen::set(&Operation::slot, gen::inRange(0, kSlots)),
      gen::set(&Operation::path, Path()), gen::set(&Operation::new_path, Path()),
      gen::set(&Operation::flags, OpenFlags()), gen::set(&Operation::mode, Mode()),
      gen::set(&Operation::offset, offset), gen::set(&Operation::size, size),
      gen::set(&Operation::length, Length()),
      gen::set(&Operation::whence, gen::element(SEEK_SET, SEEK_CUR, SEEK_END)),
      gen::set(&Operation::content, gen::inRange(1U, 1000U)));
}

rc::Gen<std::vector<Operation>> Operations() {
  const auto operations = gen::resize(
      rc::kNominalSize, gen::container<std::vector<Operation>>(kOperationsPerDisk, AnyOperation()));
  return gen::shrink(gen::noShrink(operations), [](std::vector<Operation> sequence) {
    return rc::shrink::removeChunks(std::move(sequence));
  });
}

// ---- Twins ----

/// What a call did, in a form that can be compared between the two sides.
struct Outcome {
  int64_t result{};
  int error{};  ///< errno after a failure
  std::string data{};

  bool operator==(const Outcome&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Outcome& outcome) {
  if (outcome.result < 0) return out << "failed: " << strerror(outcome.error);
  out << outcome.result;
  if (!outcome.data.empty()) out << ' ' << std::quoted(outcome.data.substr(0, 200));
  return out;
}

std::string Described(const struct stat& file) {
  std::ostringstream text;
  text << "mode " << std::oct << file.st_mode << std::dec << " links " << file.st_nlink << " user "
       << file.st_uid << " group " << file.st_gid;
  if (!S_ISDIR(file.st_mode)) text << " size " << file.st_size;
  return text.str();
}

Outcome OutcomeOf(int64_t result) { return {.result = result, .error = result < 0 ? errno : 0}; }

Outcome OutcomeOf(int64_t result, const struct stat& file) {
  auto outcome = OutcomeOf(result);
  if (result == 0) outcome.data = Described(file);
  return outcome;
}

Outcome OutcomeOfRead(size_t size, const std::function<ssize_t(char*)>& read) {
  std::string bytes(size, '\0');
  auto outcome = OutcomeOf(read(bytes.data()));
  if (outcome.result > 0) outcome.data = bytes.substr(0, static_cast<size_t>(outcome.result));
  return outcome;
}

/// The names in a directory; those of directories end with a slash.
std::vector<std::string> Names(const std::string& directory, std::error_code& error) {
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(directory, error)) {
    names.push_back(entry.path().filename().string() + (entry.is_directory() ? "/" : ""));
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// A directory on which operations run.
class Side {
 public:
  explicit Side(std::string root) : mRoot(std::move(root)) { mOpen.fill(-1); }
  ~Side() { CloseAll(); }
  Side(const Side&) = delete;
  Side& operator=(const Side&) = delete;

  Outcome Do(const Operation& o) {
    const std::string path = mRoot + '/' + o.path;
    const std::string new_path = mRoot + '/' + o.new_path;
    int& fd = mOpen.at(o.slot);
    struct stat file {};
    switch (o.kind) {
      case Kind::kOpen:
        return Open(path, o.flags, o.mode, fd);
      case Kind::kClose:
        return OutcomeOf(close(std::exchange(fd, -1)));
      case Kind::kRead:
        return OutcomeOfRead(o.size, [&](char* into) { return read(fd, into, o.size); });
      case Kind::kPread:
        return OutcomeOfRead(o.size, [&](char* into) { return pread(fd, into, o.size, o.offset); });
      case Kind::kWrite:
        return OutcomeOf(write(fd, Bytes(o.size, o.content).data(), o.size));
      case Kind::kPwrite:
        return OutcomeOf(pwrite(fd, Bytes(o.size, o.content).data(), o.size, o.offset));
      case Kind::kSeek:
        return OutcomeOf(lseek(fd, o.offset, o.whence));
      case Kind::kTruncateOpen:
        return OutcomeOf(ftruncate(fd, o.length));
      case Kind::kSync:
        return OutcomeOf(fsync(fd));
      case Kind::kChmodOpen:
        return OutcomeOf(fchmod(fd, o.mode));
      case Kind::kStatOpen: {
        const int result = fstat(fd, &file);
        return OutcomeOf(result, file);
      }
      case Kind::kTruncate:
        return OutcomeOf(truncate(path.c_str(), o.length));
      case Kind::kChmod:
        return OutcomeOf(chmod(path.c_str(), o.mode));
      case Kind::kChown:
        return OutcomeOf(chown(path.c_str(), o.content, o.content));
      case Kind::kMakeDirectory:
        return OutcomeOf(mkdir(path.c_str(), o.mode));
      case Kind::kRemoveDirectory:
        return OutcomeOf(rmdir(path.c_str()));
      case Kind::kUnlink:
        return OutcomeOf(unlink(path.c_str()));
      case Kind::kLink:
        return OutcomeOf(link(path.c_str(), new_path.c_str()));
      case Kind::kRename:
        return OutcomeOf(rename(path.c_str(), new_path.c_str()));
      case Kind::kStat: {
        const int result = lstat(path.c_str(), &file);
        return OutcomeOf(result, file);
      }
      case Kind::kList: {
        std::error_code error;
        std::string names;
        for (const auto& name : Names(path, error)) names += name + '\n';
        return {.result = error ? -1 : 0, .error = error.value(), .data = names};
      }
    }
    return {};
  }

  void CloseAll() {
    for (int& fd : mOpen) {
      if (fd >= 0) close(std::exchange(fd, -1));
    }
  }

 private:
  static Outcome Open(const std::string& path, int flags, mode_t mode, int& fd) {
    const int opened = open(path.c_str(), flags | O_CLOEXEC, mode);
    if (opened < 0) return OutcomeOf(opened);
    struct stat file {};
    fstat(opened, &file);
    if (S_ISDIR(file.st_mode)) {
      close(opened);
    } else {
      if (fd >= 0) close(fd);
      fd = opened;
    }
    return {.data = Described(file)};
  }

  const std::string mRoot;
  std::array<int, kSlots> mOpen;
};

/// Everything below a directory: maps each path to its attributes and content.
using Tree = std::map<std::string, std::string>;

void AddTree(const std::string& root, const std::string& path, Tree& tree) {
  std::error_code ignored;  // a directory that cannot be listed counts as empty
  for (std::string name : Names(root + path, ignored)) {
    if (name.back() == '/') name.pop_back();
    std::string below = path;
    below.append("/").append(name);
    struct stat file {};
    if (lstat((root + below).c_str(), &file) != 0) {
      tree[below] = strerror(errno);
      continue;
    }
    tree[below] = Described(file);
    if (S_ISDIR(file.st_mode)) {
      AddTree(root, below, tree);
    } else {
      tree[below] += " content " + std::to_string(std::hash<std::string>()(ReadFile(root + below)));
    }
  }
}

/// @return the first difference, in words; empty when there is none
std::string Difference(const std::string& plain, const std::string& shown) {
  Tree want;
  Tree got;
  AddTree(plain, "", want);
  AddTree(shown, "", got);
  const auto text_of = [](const Tree& tree, const std::string& path) {
    const auto found = tree.find(path);
    return found == tree.end() ? "nothing" : found->second;
  };
  std::set<std::string> paths;
  for (const auto* tree : {&want, &got}) {
    for (const auto& [path, text] : *tree) paths.insert(path);
  }
  for (const auto& path : paths) {
    if (text_of(want, path) == text_of(got, path)) continue;
    return path + ": " + text_of(want, path) + " on the plain side, " + text_of(got, path) +
           " on the disk";
  }
  return "";
}

/// A file that is removed while it is open stays on the disk under a hidden name.
bool HoldsAHiddenFile(const std::string& directory) {
  std::error_code ignored;
  const auto names = Names(directory, ignored);
  return std::any_of(names.begin(), names.end(),
                     [](const auto& name) { return name.starts_with(".fuse_hidden"); });
}

bool IsPermittedToDiffer(const Operation& operation, const std::string& disk) {
  if (operation.kind == Kind::kRemoveDirectory)
    return HoldsAHiddenFile(disk + '/' + operation.path);
  return operation.kind == Kind::kRename && HoldsAHiddenFile(disk + '/' + operation.new_path);
}

/// Runs the operations on both sides. @return the first difference, in words
/// @param disturb  called before each operation
std::string RunInStep(const std::vector<Operation>& operations, const std::string& disk,
                      const std::string& mount_point, const std::string& plain,
                      const std::function<void(const Operation&)>& disturb) {
  Side mounted_side(mount_point);
  Side plain_side(plain);
  for (size_t i = 0; i < operations.size(); ++i) {
    const auto& operation = operations[i];
    if (!IsPermittedToDiffer(operation, disk)) {
      const auto want = plain_side.Do(operation);
      disturb(operation);
      const auto got = mounted_side.Do(operation);
      if (got != want) {
        std::ostringstream text;
        text << Shown(operation) << "\nplain: " << want << "\nmount: " << got;
        return text.str();
      }
    }
    const bool is_last = i + 1 == operations.size();
    if ((i + 1) % kOperationsPerComparison != 0 && !is_last) continue;
    const auto difference = Difference(plain, mount_point);
    if (!difference.empty()) return Shown(operation) + "\nthen, through the mount: " + difference;
  }
  return "";
}

size_t WantedOperations(size_t otherwise) {
  const char* const wanted = getenv("TWIN_OPERATIONS");
  return wanted == nullptr ? otherwise : std::stoul(wanted);
}

// The umask of the programs on the mount is another one. The modes of the files that they make must
// not depend on the host's.
constexpr mode_t kUmaskOfHost = 022;

/// Spoils the line before one in seventy operations: it drops at once, or first swallows a
/// request or its answer.
class Disturber {
 public:
  Disturber() {
    const auto prefix = "exec " CUT_LINE " --control " + control_ + " --";
    setenv("CPD_TEST_LINE", prefix.c_str(), 1);
  }
  ~Disturber() { unsetenv("CPD_TEST_LINE"); }
  Disturber(const Disturber&) = delete;
  Disturber& operator=(const Disturber&) = delete;

  void operator()(const Operation& operation) const {
    if (operation.content % kEvery != 0) return;
    constexpr std::array<const char*, 3> words{"cut", "mute", "deaf"};
    const auto next = place_ / "next";
    WriteFile(next, words.at(operation.content / kEvery % words.size()));
    fs::rename(next, control_);
  }
  /// How often the line has dropped.
  [[nodiscard]] size_t drops() const {
    const auto done = ReadFile(control_ + ".done");
    return static_cast<size_t>(std::ranges::count(done, '\n'));
  }

 private:
  static constexpr unsigned kEvery = 70;

  const TempDir place_;
  const std::string control_ = place_ / "control";
};

/// @return the first difference, in words
std::string CompareOnNewDisk(
    const std::vector<Operation>& operations,
    const std::function<void(const Operation&)>& disturb = [](const Operation&) {}) {
  const TempDir disk;
  const TempDir plain;
  umask(kUmaskOfHost);
  MountedDisk mounted(disk.path());
  umask(0);
  auto difference = RunInStep(operations, disk.path(), mounted.path(), plain.path(), disturb);
  if (!difference.empty()) return difference;
  const auto ending = mounted.Unmount();
  if (ending.status != 0) return "the host failed: " + ending.err;
  const auto left = Difference(plain.path(), disk.path());
  return left.empty() ? "" : "after the end: " + left;
}

using Twins = MountTest;

/// @param compare  runs operations on a new disk and returns the first difference, in words
void ExpectEqualTwins(
    size_t operations,
    const std::function<std::string(const std::vector<Operation>& operations)>& compare) {
  // Work in memory: thousands of syncs and removed trees would wear the machine's own disk.
  if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 0);
  const size_t disks = (operations + kOperationsPerDisk - 1) / kOperationsPerDisk;
  const char* const seed = getenv("TWIN_SEED");
  const std::string parameters = "max_success=" + std::to_string(disks) +
                                 (seed == nullptr ? "" : " seed=" + std::string(seed));
  setenv("RC_PARAMS", parameters.c_str(), 0);
  const mode_t umask_before = umask(0);
  bool is_first = true;
  EXPECT_TRUE(rc::check("a mounted disk and a plain directory stay equal", [&] {
    const auto difference = compare(*Operations());
    if (difference.empty()) return;
    // Shrinking takes a while and may find another difference, so print the first one now.
    if (std::exchange(is_first, false)) std::cerr << difference << '\n';
    RC_FAIL(difference);
  }));
  umask(umask_before);
}

TEST_F(Twins, StayEqualThroughRandomOperations) {
  ExpectEqualTwins(WantedOperations(20'000),
                   [](const auto& operations) { return CompareOnNewDisk(operations); });
}

TEST_F(Twins, StayEqualOverALineThatDropsAtRandomMoments) {
  const size_t operations = WantedOperations(kOperationsWithDrops);
  size_t drops = 0;
  ExpectEqualTwins(operations, [&](const auto& sequence) {
    const Disturber disturber;
    const auto difference = CompareOnNewDisk(sequence, std::ref(disturber));
    drops += disturber.drops();
    return difference;
  });
  std::cout << drops << " drops\n";
  // In a short run, chance may cause few of them.
  EXPECT_GE(drops, operations < 20'000 ? 1 : operations / 100);
}

}  // namespace
}  // namespace system_test
