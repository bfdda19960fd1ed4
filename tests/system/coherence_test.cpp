// What programs see while files change through the mount and on the client.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "support/mounted_disk.h"

namespace system_test {
namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;

// How long a change on the client may stay hidden, and what a busy machine adds.
constexpr auto kBound = 1000ms;
constexpr auto kDelay = 500ms;

/// What a name shows: a size that no other state has, and a mode.
struct State {
  bool exists = false;
  int64_t size = 0;
  mode_t mode = 0;

  bool operator==(const State&) const = default;
};

std::ostream& operator<<(std::ostream& out, const State& state) {
  if (!state.exists) return out << "nothing";
  return out << state.size << " bytes, mode " << std::oct << state.mode << std::dec;
}

State Look(const std::string& path) {
  struct stat attributes {};
  if (lstat(path.c_str(), &attributes) != 0) {
    EXPECT_EQ(errno, ENOENT) << path << ": " << strerror(errno);
    return {};
  }
  return {.exists = true, .size = attributes.st_size, .mode = attributes.st_mode & 0777};
}

/// The states that a name has had, with the times at which they ended at the latest.
class History {
 public:
  void Add(const State& state, bool is_through_mount) {
    states_.push_back({.state = state, .end = Clock::time_point::max()});
    if (states_.size() > 1) states_[states_.size() - 2].end = Clock::now();
    if (is_through_mount) first_allowed_ = states_.size() - 1;
  }
  const State& now() const { return states_.back().state; }
  /// Whether a look that began at `start` may have seen a state.
  bool Allows(const State& seen, Clock::time_point start) const {
    for (size_t i = first_allowed_; i < states_.size(); ++i) {
      if (states_[i].state == seen && states_[i].end >= start - kBound - kDelay) return true;
    }
    return false;
  }

 private:
  struct Entry {
    State state;
    Clock::time_point end;
  };
  std::vector<Entry> states_{{.state = {}, .end = Clock::time_point::max()}};
  size_t first_allowed_ = 0;
};

class Coherence : public MountTest, public testing::WithParamInterface<unsigned> {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    for (const char* directory : {"one", "two"}) fs::create_directory(disk / directory);
  }

  std::string AnyName() {
    return std::string(Chance(2) ? "one" : "two") + "/Name" + std::to_string(random_() % 8);
  }
  bool Chance(unsigned of) { return random_() % of == 0; }

  /// Changes a name below `root`. @return false when that failed, as it may for a name that the
  /// client has just changed
  bool Change(const std::string& root, const std::string& name) {
    const auto path = root + "/" + name;
    switch (random_() % 4) {
      case 0:
        return unlink(path.c_str()) == 0;
      case 1:
        return chmod(path.c_str(), 0600 + random_() % 8 * 8) == 0;
      case 2: {  // another file takes its place
        const auto passing = root + "/passing";
        return Write(passing, ++last_size_) && rename(passing.c_str(), path.c_str()) == 0;
      }
      default:
        return Write(path, ++last_size_);
    }
  }
  static bool Write(const std::string& path, int64_t size) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    const auto bytes = Bytes(size);
    const bool is_written = write(fd, bytes.data(), bytes.size()) == size;
    return close(fd) == 0 && is_written;
  }

  std::mt19937 random_{GetParam()};
  int64_t last_size_ = 0;
};

TEST_P(Coherence, ChangesThroughTheMountShowAtOnceAndThoseOnTheClientWithinASecond) {
  umask(022);
  MountedDisk mounted(disk.path());
  std::map<std::string, History> histories;
  for (int i = 0; i < 250; ++i) {
    const auto name = AnyName();
    auto& history = histories[name];
    if (Chance(3)) {
      const bool is_through_mount = Chance(2);
      const bool is_made = Change(is_through_mount ? mounted.path() : disk.path(), name);
      // Also after a failure: a write can fail after the file was truncated.
      history.Add(Look(disk / name), is_through_mount && is_made);
    } else {
      const auto start = Clock::now();
      const auto seen = Look(mounted / name);
      EXPECT_TRUE(history.Allows(seen, start))
          << "step " << i << ", " << name << ": saw " << seen << ", is " << history.now();
    }
    if (Chance(4)) usleep(random_() % 40'000);
    if (Chance(40)) Shell("ls -l " + (mounted / "one"));
  }
  usleep(1'100'000);
  for (const auto& [name, history] : histories) {
    EXPECT_EQ(Look(mounted / name), history.now()) << name;
  }
}

INSTANTIATE_TEST_SUITE_P(Seeds, Coherence, testing::Range(1U, 3U));

}  // namespace
}  // namespace system_test
