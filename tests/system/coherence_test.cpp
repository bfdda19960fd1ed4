// What programs see while files change through the mount and on the client.
//
// COHERENCE_CHANGES sets the number of changes, and COHERENCE_SEED the seed. If the line in
// CPD_TEST_LINE is a slow one, COHERENCE_ROUND_TRIP says how many ms a round trip takes.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/mounted_disk.h"
#include "support/watchable_place.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

unsigned Setting(const char* name, unsigned otherwise) {
  const char* const value = getenv(name);
  return value == nullptr ? otherwise : static_cast<unsigned>(std::strtoul(value, nullptr, 10));
}

// What a busy machine adds to every bound.
constexpr auto kDelay = 500ms;
// Some files are longer than what is read whole when a file is opened.
constexpr int kLongFile = 6000;

/// What a name shows.
struct State {
  bool exists = false;
  bool is_directory = false;
  int64_t size = 0;
  mode_t mode = 0;
  timespec changed{};
  std::string content;
  ino_t inode = 0;
  bool has_links = false;  // or had some
  unsigned since = 0;      // the number of changes before it

  [[nodiscard]] bool LooksLike(const State& other) const {
    return exists == other.exists && is_directory == other.is_directory &&
           (is_directory ||
            (size == other.size && mode == other.mode && changed.tv_sec == other.changed.tv_sec &&
             changed.tv_nsec == other.changed.tv_nsec));
  }
  [[nodiscard]] bool Reads(const std::optional<std::string>& other) const {
    return exists == other.has_value() && (!exists || content == *other);
  }
  bool operator==(const State& other) const {
    return LooksLike(other) && content == other.content && inode == other.inode &&
           has_links == other.has_links;
  }
};

/// The beginnings of a file's blocks tell which write each comes from.
std::string Shown(const std::string& content) {
  std::string text = std::to_string(content.size()) + " bytes:";
  std::string last;
  for (size_t i = 0; i < content.size(); i += 16) {
    const auto block = content.substr(i, 16);
    if (block != last) text += " [" + block.substr(0, block.find('\n')) + "]";
    last = block;
  }
  return text;
}

std::string Shown(const State& state) {
  if (!state.exists) return "nothing";
  if (state.is_directory) return "a directory";
  std::array<char, 100> text{};
  std::snprintf(text.data(), text.size(), "inode %ju, mode %o, changed %ld.%09ld, ",
                uintmax_t{state.inode}, state.mode, state.changed.tv_sec, state.changed.tv_nsec);
  return text.data() + Shown(state.content);
}

State Look(const std::string& path) {
  struct stat attributes {};
  if (lstat(path.c_str(), &attributes) != 0) {
    EXPECT_TRUE(errno == ENOENT || errno == ENOTDIR) << path << ": " << strerror(errno);
    return {};
  }
  return {.exists = true,
          .is_directory = S_ISDIR(attributes.st_mode),
          .size = attributes.st_size,
          .mode = attributes.st_mode & 0777,
          .changed = attributes.st_mtim,
          .content = {},
          .inode = attributes.st_ino};
}

/// Nothing if there is no such file, or no longer: the client may just have put another in its
/// place, or none.
std::optional<std::string> Read(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    EXPECT_TRUE(errno == ENOENT || errno == ESTALE) << path << ": " << strerror(errno);
    return std::nullopt;
  }
  std::string content;
  std::array<char, 32 << 10> piece;
  ssize_t count = 0;
  while ((count = read(fd, piece.data(), piece.size())) > 0) {
    content.append(piece.data(), static_cast<size_t>(count));
  }
  const int error = count < 0 ? errno : 0;
  close(fd);
  if (error == ENOENT || error == ESTALE) return std::nullopt;
  EXPECT_EQ(error, 0) << path << ": " << strerror(error);
  return content;
}

/// The states that a name has had, with the times at which they ended at the latest.
class History {
 public:
  void Add(State state, bool is_through_mount) {
    const auto now = Clock::now();
    if (state == this->now()) return;
    states_.back().end = now;
    states_.push_back({.state = std::move(state), .end = Clock::time_point::max()});
    if (is_through_mount) first_allowed_ = states_.size() - 1;
    // Old states would only take memory.
    const auto first =
        std::ranges::find_if(states_, [&](const auto& entry) { return entry.end >= now - kHang; });
    const auto gone = std::min<size_t>(first - states_.begin(), first_allowed_);
    states_.erase(states_.begin(), states_.begin() + static_cast<std::ptrdiff_t>(gone));
    first_allowed_ -= gone;
  }
  [[nodiscard]] const State& now() const { return states_.back().state; }
  /// Whether a look that began at `start` may have seen a state. @param age  how long before the
  /// look that state had ended
  template <class IsIt>
  bool Allows(Clock::time_point start, Clock::duration bound, const IsIt& is_it,
              Clock::duration* age) const {
    // A change through one name of a file may show late under another. If the client has removed
    // the name that the mount uses, the others may seem to be gone until the kernel asks again.
    const bool had_links = std::ranges::any_of(states_, [&](const auto& entry) {
      return entry.state.has_links && entry.end >= start - bound - kDelay;
    });
    if (had_links) return true;
    for (size_t i = states_.size(); i-- > first_allowed_;) {
      const auto& [state, end] = states_[i];
      if (!is_it(state)) continue;
      if (end > start) return true;
      *age = std::max(*age, start - end);
      return start - end <= bound + kDelay;
    }
    return false;
  }
  [[nodiscard]] std::string Shown(Clock::time_point start) const {
    std::string text;
    for (size_t i = std::max(first_allowed_, states_.size() - std::min<size_t>(states_.size(), 6));
         i < states_.size(); ++i) {
      const auto age =
          std::chrono::duration_cast<std::chrono::milliseconds>(start - states_[i].end);
      text +=
          "\n  " + system_test::Shown(states_[i].state) +
          (states_[i].end > start ? "" : ", until " + std::to_string(age.count()) + " ms before");
    }
    return text;
  }

 private:
  struct Entry {
    State state;
    Clock::time_point end;
  };
  std::vector<Entry> states_{{.state = {}, .end = Clock::time_point::max()}};
  size_t first_allowed_ = 0;
};

class Coherence : public MountTest, public testing::WithParamInterface<const char*> {
 protected:
  Coherence() {
    for (const std::string directory : {"one", "two"}) {
      fs::create_directory(disk_ / directory);
      for (const std::string below : {"", "/sub"}) {
        directories_.push_back(directory + below);
        names_.push_back(directory + below);
        for (int i = 0; i < 5; ++i) {
          files_.push_back(directory + below + "/Name" + std::to_string(i));
          names_.push_back(files_.back());
        }
      }
    }
    NoteChanges(false);
  }

  bool Chance(unsigned of) { return random_() % of == 0; }
  template <class Values>
  const auto& AnyOf(const Values& values) {
    return values[random_() % values.size()];
  }

  // ---- Changes ----

  /// Content that no other write has.
  std::string Content() {
    std::array<char, 17> block{};
    std::snprintf(block.data(), block.size(), "%015u\n", ++last_write_);
    const int blocks = Chance(10) ? kLongFile : 1 + static_cast<int>(random_() % 8);
    std::string content;
    for (int i = 0; i < blocks; ++i) content += block.data();
    return content;
  }
  bool Write(const std::string& path, const std::string& content, int flags) {
    const int fd = open(path.c_str(), O_WRONLY | O_CLOEXEC | flags, 0644);
    if (fd < 0) return false;
    const bool is_written =
        write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size());
    if (close(fd) == 0 && is_written) return true;
    // What the disk has not taken may be read for as long as the client's change may stay hidden.
    failed_[path] = Clock::now();
    return false;
  }
  /// Renames something below `root`. Through the mount, what may be seen late of it moves along.
  bool Rename(const std::string& root, const std::string& from, const std::string& to) {
    if (rename((root + "/" + from).c_str(), (root + "/" + to).c_str()) != 0) return false;
    if (root == disk_.path() || from == to) return true;
    const bool is_same = Look(disk_ / from).exists;  // two links of one file
    if (is_same) return true;
    for (const auto& name : names_) {
      if (name != from && !name.starts_with(from + "/")) continue;
      histories_[to + name.substr(from.size())] = std::exchange(histories_[name], {});
    }
    return true;
  }

  /// Changes something below `root`. @return false when that failed, as it may for a name that the
  /// client has just changed
  bool Change(const std::string& root) {
    const auto name = AnyOf(files_);
    const auto path = root + "/" + name;
    const auto other = AnyOf(files_);
    switch (random_() % 14) {
      case 0:
      case 1:
        return Write(path, Content(), O_CREAT | O_TRUNC);
      case 2:
        return Write(path, Content(), 0);
      case 3:
        return Write(path, Content(), O_APPEND);
      case 4:
        return truncate(path.c_str(), static_cast<off_t>(random_() % 8 * 16)) == 0;
      case 5:
      case 6: {  // another file takes its place
        const auto passing = root + "/passing";
        return Write(passing, Content(), O_CREAT | O_TRUNC) &&
               rename(passing.c_str(), path.c_str()) == 0;
      }
      case 7:
        return Rename(root, name, other);
      case 8:
        return unlink(path.c_str()) == 0;
      case 9:
        return chmod(path.c_str(), 0600 + random_() % 8 * 8) == 0;
      case 10: {
        if (root != disk_.path()) return false;  // the mount cannot set times
        const std::array<timespec, 2> times{
            {{.tv_sec = 1, .tv_nsec = 0}, {.tv_sec = ++last_time_, .tv_nsec = 0}}};
        return utimensat(AT_FDCWD, path.c_str(), times.data(), 0) == 0;
      }
      case 11: {
        if (!Chance(4)) return false;
        if (link(path.c_str(), (root + "/" + other).c_str()) != 0) return false;
        linked_.insert(Look(disk_ / other).inode);
        return true;
      }
      case 12: {
        const auto sub = root + (Chance(2) ? "/one/sub" : "/two/sub");
        if (Chance(2)) return mkdir(sub.c_str(), 0755) == 0;
        if (rmdir(sub.c_str()) == 0) return true;
        std::error_code error;
        return fs::remove_all(sub, error) > 0 && !error;
      }
      default: {
        const std::string from = Chance(2) ? "one/sub" : "two/sub";
        return Rename(root, from, from == "one/sub" ? "two/sub" : "one/sub");
      }
    }
  }
  /// Adds what the disk shows now to the histories.
  void NoteChanges(bool is_through_mount) {
    for (const auto& name : names_) {
      auto state = Look(disk_ / name);
      if (state.exists && !state.is_directory) state.content = Read(disk_ / name).value_or("");
      state.has_links = state.exists && linked_.contains(state.inode);
      state.since = changes_;
      if (state.exists && !(state == histories_[name].now())) {
        files_states_[state.inode].push_back(state);
      }
      histories_[name].Add(std::move(state), is_through_mount);
    }
  }

  // ---- Looks ----

  template <class IsIt>
  void Expect(const std::string& name, Clock::time_point start, const IsIt& is_it,
              const std::function<std::string()>& seen) {
    ++looks_;
    // A name that should show another file already may show what its old file is by now.
    const auto is_it_by_now = [&](const State& state) {
      if (is_it(state)) return true;
      if (!state.exists) return false;
      return std::ranges::any_of(files_states_[state.inode], [&](const State& later) {
        return later.since >= state.since && is_it(later);
      });
    };
    const auto& history = histories_[name];
    if (history.Allows(start, bound_, is_it_by_now, &oldest_)) return;
    if (start - failed_[mount_ + "/" + name] < bound_ + kDelay) return;
    ADD_FAILURE() << "after " << changes_ << " changes, " << name << ": saw " << seen() << "; was"
                  << history.Shown(start);
  }
  void LookAtSomething() {
    const auto start = Clock::now();
    switch (random_() % 5) {
      case 0: {
        const auto name = AnyOf(files_);
        const auto seen = Read(mount_ + "/" + name);
        return Expect(
            name, start, [&](const State& state) { return state.Reads(seen); },
            [&] { return seen ? Shown(*seen) : "nothing"; });
      }
      case 1: {
        const auto directory = AnyOf(directories_);
        std::set<std::string> seen;
        auto* const entries = opendir((mount_ + "/" + directory).c_str());
        const bool is_there = entries != nullptr;
        while (is_there) {
          const auto* const entry = readdir(entries);
          if (entry == nullptr) break;
          seen.insert(entry->d_name);
        }
        if (is_there) closedir(entries);
        Expect(
            directory, start, [&](const State& state) { return state.exists == is_there; },
            [&] { return is_there ? "a directory" : "nothing"; });
        for (const auto& name : names_) {
          if (fs::path(name).parent_path() != directory) continue;
          const bool exists = seen.contains(fs::path(name).filename());
          Expect(
              name, start, [&](const State& state) { return state.exists == exists; },
              [&] { return exists ? "an entry" : "no entry"; });
        }
        return;
      }
      default: {
        const auto name = AnyOf(names_);
        const auto seen = Look(mount_ + "/" + name);
        return Expect(
            name, start, [&](const State& state) { return state.LooksLike(seen); },
            [&] { return Shown(seen); });
      }
    }
  }

  const TempDir disk_{cpd::test::WatchablePlace()};
  const std::chrono::milliseconds bound_ =
      1000ms + std::chrono::milliseconds(Setting("COHERENCE_ROUND_TRIP", 0));
  std::mt19937 random_{Setting("COHERENCE_SEED", 1)};
  std::vector<std::string> directories_;
  std::vector<std::string> files_;
  std::vector<std::string> names_;  // both
  std::map<std::string, History> histories_;
  std::set<ino_t> linked_;
  std::map<ino_t, std::vector<State>> files_states_;
  std::map<std::string, Clock::time_point> failed_;  // when the last write to a path did
  std::string mount_;
  unsigned last_write_ = 0;
  time_t last_time_ = 0;
  unsigned changes_ = 0;
  unsigned looks_ = 0;
  Clock::duration oldest_{};
};

TEST_P(Coherence, ChangesThroughTheMountShowAtOnceAndThoseOnTheClientWithinASecond) {
  umask(022);
  std::vector<std::string> options;
  if (*GetParam() != '\0') options.emplace_back(GetParam());
  MountedDisk mounted(disk_.path(), options);
  mount_ = mounted.path();
  const unsigned wanted = Setting("COHERENCE_CHANGES", 40);
  while (changes_ < wanted && !HasFailure()) {
    if (Chance(4)) {
      const bool is_through_mount = Chance(2);
      const bool is_made = Change(is_through_mount ? mount_ : disk_.path());
      changes_ += is_made ? 1 : 0;
      // Also after a failure: a write can fail after the file was truncated.
      NoteChanges(is_through_mount && is_made);
    } else {
      LookAtSomething();
    }
    if (Chance(8)) usleep(random_() % 40'000);
    if (wanted > 1000 && Chance(300)) usleep(1'000'000 + random_() % 2'000'000);
  }
  std::this_thread::sleep_for(bound_ + 100ms);
  for (const auto& name : names_) {
    const auto& now = histories_[name].now();
    if (now.has_links) continue;
    EXPECT_TRUE(Look(mounted / name).LooksLike(now)) << name << ": is " << Shown(now);
    if (now.is_directory) continue;
    EXPECT_TRUE(now.Reads(Read(mounted / name))) << name;
  }
  const auto oldest = std::chrono::duration_cast<std::chrono::milliseconds>(oldest_);
  std::cout << changes_ << " changes, " << looks_ << " looks, the latest sight of a change "
            << oldest.count() << " ms after it\n";
}

INSTANTIATE_TEST_SUITE_P(Options, Coherence, testing::Values("", "--no-watch"),
                         [](const auto& test) {
                           return std::string(*test.param == '\0' ? "Watching" : "NotWatching");
                         });

}  // namespace
}  // namespace system_test
