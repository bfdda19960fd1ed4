#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "capture/answers.h"
#include "capture/capture_reader.h"
#include "capture/heads.h"
#include "capture/pace.h"
#include "commands/command.h"
#include "commands/shown_name.h"
#include "module/redirection.h"
#include "remote/session.h"
#include "wire.h"

namespace cpd::host {
namespace {

struct ReplayOptions {
  DiskOptions disk;
  std::string capture;
  bool fast = false;
};

/// A request that was sent again.
class Asked {
 public:
  explicit Asked(RecordedPacket recorded) : request(std::move(recorded)) {}

  void Finish(std::unique_ptr<CpdPacket> answer) {
    const std::lock_guard lock(mutex_);
    answer_ = std::move(answer);
    is_done_ = true;
    done_.notify_one();
  }
  /// Waits for the answer. @return null if there is none
  const CpdPacket* Await() {
    std::unique_lock lock(mutex_);
    done_.wait(lock, [this] { return is_done_; });
    return answer_.get();
  }

  const RecordedPacket request;

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  bool is_done_ = false;               // guarded by mutex_
  std::unique_ptr<CpdPacket> answer_;  // guarded by mutex_ until is_done_
};

bool IsAnswer(const CpdPacketHeader& answer, const CpdPacketHeader& request) {
  return answer.cmd == request.cmd && answer.requestId == request.requestId;
}

/// If a check gets no answer, the listing that it carries is right. A check has the layout of an
/// answer, and is taken for one.
std::optional<std::string_view> AnswerOr(std::optional<std::string_view> answer,
                                         const RecordedPacket& request) {
  if (answer || HeaderOf(request.bytes).cmd != kCheckDir) return answer;
  return request.bytes;
}

/// Sends a capture's requests to the module in their order, and compares the answers. The answers
/// of the capture say when the next request can go: requests that were sent while another one was
/// under way are sent like that again.
class Replay {
 public:
  explicit Replay(const ReplayOptions& options) : options_(options) {}

  void Take(RecordedPacket packet) {
    const auto header = HeaderOf(packet.bytes);
    if (packet.section != section_) Renew();
    section_ = packet.section;
    if (packet.way == Way::kToModule) {
      // The answer to the announcement is given to each disk that is opened.
      if (header.cmd != kMountResponse) Ask(std::move(packet));
      return;
    }
    const auto answered = std::ranges::find_if(asked_, [&](const auto& asked) {
      return IsAnswer(header, HeaderOf(asked->request.bytes));
    });
    if (answered != asked_.end()) return Compare(answered, packet);
    if (header.cmd == kMountRemote) return Renew();
    if (header.cmd != kSmallFileNotice) {
      throw std::runtime_error(fmt::format("packet {} answers no request", packet.number));
    }
  }

  /// For a disk that was opened anew, and at the end. What became of requests without an answer is
  /// not in the capture: they are carried out, and not compared.
  void Renew() {
    for (const auto& asked : asked_) asked->Await();
    asked_.clear();
    disk_.reset();
  }

  /// Prints the counts.
  /// @throws std::runtime_error if answers differ
  void Conclude() const {
    const std::chrono::duration<double> elapsed = Clock::now() - began_;
    fmt::print("{} requests in {:.3f} s, {} answers compared, {} different\n", requests_,
               elapsed.count(), answers_, differences_);
    if (differences_ == 0) return;
    throw std::runtime_error(fmt::format("{} {}", differences_,
                                         differences_ == 1 ? "answer differs" : "answers differ"));
  }

 private:
  using Clock = Pace::Clock;
  using AskedRequests = std::deque<std::shared_ptr<Asked>>;

  void Ask(RecordedPacket request) {
    if (!disk_) {
      disk_.emplace(options_.disk);
      pace_.emplace(request.time, Clock::now());
    }
    if (!options_.fast) std::this_thread::sleep_until(pace_->DueAt(request.time));
    auto packet = std::make_unique<CpdPacket>();
    if (packet->Parse(reinterpret_cast<uint8_t*>(request.bytes.data()),
                      static_cast<int>(request.bytes.size()), true) != 0) {
      throw std::runtime_error(fmt::format("packet {} is malformed", request.number));
    }
    packet->header->devId = Session::kDeviceId;
    const auto asked = asked_.emplace_back(std::make_shared<Asked>(std::move(request)));
    ++requests_;
    disk_->session().Ask(std::move(packet), [asked](std::unique_ptr<CpdPacket> answer) {
      asked->Finish(std::move(answer));
    });
  }

  /// Compares the answer to this request, and the silence of those before it.
  void Compare(const AskedRequests::iterator& answered, const RecordedPacket& answer) {
    const auto end = std::next(answered);
    for (auto asked = asked_.begin(); asked != end; ++asked) {
      const bool is_silent = asked != answered;
      const auto* const now = (*asked)->Await();
      CompareOne((*asked)->request, is_silent ? (*asked)->request.number : answer.number,
                 is_silent ? std::nullopt : std::optional<std::string_view>(answer.bytes), now);
    }
    ++answers_;
    asked_.erase(asked_.begin(), end);
  }

  /// @param number  of the packet that a difference is reported for
  void CompareOne(const RecordedPacket& request, uint64_t number,
                  std::optional<std::string_view> recorded, const CpdPacket* answer) {
    std::optional<std::string_view> bytes;
    if (answer != nullptr) {
      bytes = {reinterpret_cast<const char*>(answer->buffer->data),
               std::min<uint64_t>(answer->header->packetLen, answer->buffer->capacity)};
    }
    const auto before = AnswerOr(recorded, request);
    const auto now = AnswerOr(bytes, request);
    std::string why;
    if (before && now) {
      why = DifferenceOf(*before, *now);
    } else if (before) {
      why = "there is no answer";
    } else if (now) {
      why = "there is an answer, where there was none";
    }
    if (why.empty()) return;
    ++differences_;
    const uint16_t command = HeaderOf(request.bytes).cmd;
    const char* const name = CommandName(command);
    fmt::print("packet {}: {} {}: {}\n", number, name == nullptr ? std::to_string(command) : name,
               ShownName(PathOf(request.bytes)), why);
  }

  const ReplayOptions& options_;
  std::optional<Redirection> disk_;  // opened for its first request
  std::optional<Pace> pace_;         // of the requests to this disk
  AskedRequests asked_;              // in the capture's order; their answers have not come up yet
  uint64_t section_ = 0;
  const Clock::time_point began_ = Clock::now();
  uint64_t requests_ = 0;
  uint64_t answers_ = 0;
  uint64_t differences_ = 0;
};

/// Calls `take` with each packet of the capture.
template <class Take>
void ForEachPacket(const std::string& path, Take take) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error(std::strerror(errno));
  CaptureReader reader(file);
  while (auto packet = reader.Next()) take(*std::move(packet));
}

/// Fails before anything is changed on the disk, if the capture cannot be replayed to its end.
void Check(const std::string& path) {
  bool has_requests = false;
  ForEachPacket(path, [&](const RecordedPacket& packet) {
    if (packet.missing > 0) {
      throw CaptureError(
          fmt::format("{} packets are missing before packet {}", packet.missing, packet.number));
    }
    if (packet.way != Way::kToModule) return;
    has_requests = true;
    if (packet.bytes.size() < packet.original) {
      throw CaptureError(
          fmt::format("packet {} is a request that is not recorded in full", packet.number));
    }
  });
  if (!has_requests) throw CaptureError("it has no requests");
}

void Run(ReplayOptions options) {
  CompleteOptions(&options.disk);
  try {
    Check(options.capture);
  } catch (const std::exception& error) {
    throw std::runtime_error(fmt::format("cannot replay {}: {}", options.capture, error.what()));
  }
  Replay replay(options);
  ForEachPacket(options.capture, [&](RecordedPacket packet) { replay.Take(std::move(packet)); });
  replay.Renew();
  replay.Conclude();
}

}  // namespace

void AddReplayCommand(CLI::App* app, CommandLine* line) {
  auto* replay = app->add_subcommand(
      "replay", "Send a capture's requests to a disk, which they change, and compare the answers");
  const auto options = std::make_shared<ReplayOptions>();
  replay->add_option("FILE", options->capture, "Capture, from --record")->required();
  AddDiskOptions(replay, &options->disk, line);
  AddTimeoutOption(replay, &options->disk);
  replay->add_flag("--fast", options->fast, "Do not wait as long as the capture did");
  replay->callback([line, options] { line->run = [options] { Run(*options); }; });
}

}  // namespace cpd::host
