#include "capture/recording.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "capture/heads.h"
#include "cpd/log.h"

namespace cpd::host {
namespace {

using namespace std::chrono_literals;

// Packets are gathered for this long, so that the writer's thread does not have to run once for
// each of them.
constexpr auto kGathering = 100ms;
constexpr size_t kPlenty = 1 << 20;  // but no longer than until this many bytes wait

[[noreturn]] void Refuse(const std::string& path, const std::string& why) {
  throw std::runtime_error(fmt::format("cannot record to {}: {}", path, why));
}

/// Fails if there is something other than a capture in the file.
void CheckContent(const std::string& path) {
  const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "re"), &std::fclose);
  BlockType type{};
  if (file == nullptr) return;  // this process may be allowed to write it, but not to read it
  if (std::fread(&type, sizeof type, 1, file.get()) != 1 || type != BlockType::kSection) {
    Refuse(path, "there is something in it, and no capture");
  }
}

FILE* OpenForAppending(const std::string& path) {
  struct stat status {};
  if (stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0) {
    CheckContent(path);
  }
  // Nobody else should read what the disk holds.
  const int descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  if (descriptor < 0) Refuse(path, std::strerror(errno));
  FILE* const file = fdopen(descriptor, "a");
  if (file == nullptr) {
    close(descriptor);
    Refuse(path, std::strerror(errno));
  }
  // Without a buffer. What is in one would be written when the file is closed, even after GiveUp
  // has cut the file.
  (void)std::setvbuf(file, nullptr, _IONBF, 0);
  return file;
}

std::string SectionOf(const DiskOptions& options) {
  std::string comment = "disk";
  if (!options.disk.empty()) comment += ' ' + options.disk;
  if (!options.drive.empty()) comment += " on " + options.drive;
  return SectionStart(comment, options.name);
}

uint64_t Nanoseconds(std::chrono::nanoseconds duration) {
  return static_cast<uint64_t>(duration.count());
}

}  // namespace

Recording::Recording(const DiskOptions& options, size_t most_waiting)
    : path_(options.record),
      section_(SectionOf(options)),
      data_bytes_(options.record_bytes),
      most_waiting_(most_waiting),
      began_(Nanoseconds(std::chrono::system_clock::now().time_since_epoch())),
      file_(path_.empty() ? nullptr : OpenForAppending(path_), &std::fclose) {}

Recording::~Recording() {
  if (file_ == nullptr) return;
  if (writer_.joinable()) {
    {
      const std::lock_guard lock(mutex_);
      is_ending_ = true;
    }
    changed_.notify_one();
    writer_.join();
  } else if (!blocks_.empty()) {
    Begin();
    Write(blocks_);
  }
  if (missing_all_ > 0) {
    tesselLogPrint(0, 7, "CPD_HOST", "%llu packets are missing in %s, which was too slow for them",
                   static_cast<unsigned long long>(missing_all_), path_.c_str());
  }
}

void Recording::Start() {
  if (file_ == nullptr || writer_.joinable()) return;
  // A file that reaches the limit of file sizes must not end the process by SIGXFSZ either.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    writer_ = std::thread([this] { Run(); });
  } catch (const std::exception& error) {
    tesselLogPrint(0, 7, "CPD_HOST", "nothing is recorded: %s", error.what());
    const std::lock_guard lock(mutex_);
    is_over_ = true;
    blocks_.clear();
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Recording::Note(const CpdPacket& packet, Way way) {
  if (file_ == nullptr) return;
  bool wakes = false;
  {
    const std::lock_guard lock(mutex_);
    if (is_over_) return;
    const size_t before = waiting_;
    const bool was_empty = blocks_.empty();
    try {
      AddLocked(packet, way);
    } catch (const std::bad_alloc&) {
      ++missing_;
      ++missing_all_;
    }
    wakes = (was_empty && !blocks_.empty()) || (before < kPlenty && waiting_ >= kPlenty);
  }
  if (wakes) changed_.notify_one();
}

void Recording::AddLocked(const CpdPacket& packet, Way way) {
  const uint32_t original = packet.header->packetLen;
  std::string_view bytes(reinterpret_cast<const char*>(packet.buffer->data),
                         std::min<uint64_t>(packet.buffer->capacity, original));
  if (data_bytes_) bytes = bytes.substr(0, LengthWithoutData(bytes, way) + *data_bytes_);
  if (waiting_ > 0 && waiting_ + bytes.size() > most_waiting_) {
    ++missing_;
    ++missing_all_;
    return;
  }
  blocks_.push_back(PacketBlocks({.time = began_ + Nanoseconds(Clock::now() - steady_began_),
                                  .way = way,
                                  .bytes = bytes,
                                  .original = original,
                                  .missing = missing_}));
  waiting_ += blocks_.back().size();
  missing_ = 0;
}

uint64_t Recording::memory() const {
  // What waits, a longer packet, and what many small blocks take in addition to their bytes.
  return file_ == nullptr ? 0 : uint64_t{3} * most_waiting_;
}

void Recording::Run() {
  std::unique_lock lock(mutex_);
  while (!is_over_) {
    changed_.wait(lock, [this] { return !blocks_.empty() || is_ending_; });
    changed_.wait_for(lock, kGathering, [this] { return waiting_ >= kPlenty || is_ending_; });
    if (blocks_.empty()) return;
    const auto blocks = std::exchange(blocks_, {});
    lock.unlock();
    Begin();
    Write(blocks);
    lock.lock();
    for (const auto& block : blocks) waiting_ -= block.size();
  }
}

/// Begins the section with its first packet, when no older process of the same session can be
/// writing to the file any more.
void Recording::Begin() {
  if (std::exchange(has_begun_, true)) return;
  const int descriptor = fileno(file_.get());
  if (flock(descriptor, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) return GiveUp(EBUSY);
  struct stat status {};
  whole_ = fstat(descriptor, &status) == 0 ? status.st_size : 0;
  Write({section_});
}

void Recording::Write(const Blocks& blocks) {
  {
    const std::lock_guard lock(mutex_);
    if (is_over_) return;
  }
  const auto write = [this](std::string_view bytes) {
    if (std::fwrite(bytes.data(), 1, bytes.size(), file_.get()) != bytes.size()) return false;
    whole_ += static_cast<int64_t>(bytes.size());
    return true;
  };
  std::string batch;  // of small blocks
  const auto flush = [&] { return write(std::exchange(batch, {})); };
  for (const auto& block : blocks) {
    if (batch.size() + block.size() > kPlenty && !flush()) return GiveUp(errno);
    if (block.size() <= kPlenty) {
      batch += block;
    } else if (!write(block)) {
      return GiveUp(errno);
    }
  }
  if (!flush()) GiveUp(errno);
}

void Recording::GiveUp(int error) {
  tesselLogPrint(0, 7, "CPD_HOST", "nothing more is recorded to %s: %s", path_.c_str(),
                 std::strerror(error));
  // So that the file ends with a whole block. A pipe has no length.
  if (error != EBUSY) (void)!ftruncate(fileno(file_.get()), whole_);
  const std::lock_guard lock(mutex_);
  is_over_ = true;
  blocks_.clear();
}

}  // namespace cpd::host
