// The host in tests: it records what a driver sends, logs and traces, and answers as a test sets.
// Everything here may be called from any thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cpd/device.h"
#include "support/requests.h"

namespace cpd::test {

/// The limit of every wait: far longer than anything takes, so it only ends a test that hangs.
inline constexpr std::chrono::seconds kPatience{20};

// ---- Log ----

inline constexpr int kDebug = 5;
inline constexpr int kError = 7;

/// A line: `file function(line): "word" "message"`.
struct LogLine {
  int channel = 0;
  int level = 0;
  std::string tag;
  std::string raw;  ///< the whole line

  std::string file;  ///< empty, as are the next four, when the line does not have that form
  std::string function;
  int line = 0;
  std::string word;
  std::string message;  ///< without its quotes; an escape is two characters
};

class LogRecorder {
 public:
  void Add(int channel, int level, const char* tag, std::string raw);
  void Clear();
  [[nodiscard]] std::vector<LogLine> Lines() const;
  /// The messages of a level, or of all levels, in order.
  [[nodiscard]] std::vector<std::string> Messages(std::optional<int> level = std::nullopt) const;
  [[nodiscard]] size_t Count(int level, const std::string& message) const;
  [[nodiscard]] bool Has(int level, const std::string& message) const;
  /// The bytes of all lines that were ever added. Clear does not reset this.
  [[nodiscard]] uint64_t BytesEver() const;

 private:
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
  uint64_t bytes_ever_ = 0;
};

/// Records what is passed to tesselLogPrint.
LogRecorder& Log();
/// How often CpdTracer::GetInstance was called.
int TracerCalls();

// ---- Device ----

struct Trace {
  std::string id;
  std::optional<std::string> detail;  ///< set by TraceEventDetail only
  std::string event;
  std::map<std::string, std::string> fields;
};

/// Matches the paths of a set, or those for which a predicate holds.
class FakeFilter : public CpdPathFilter {
 public:
  explicit FakeFilter(std::vector<std::string> paths);
  explicit FakeFilter(std::function<bool(const std::string&)> matches);
  std::shared_ptr<CpdPathMatch> MatchPath(const std::string& path) override;

 private:
  std::function<bool(const std::string&)> matches_;
};

class FakeBase : public CpdDeviceBase {
 public:
  std::string GetDeviceParams() override;
  void TraceEvent(const std::string& id, const std::string& event,
                  const std::map<std::string, std::string>& fields) override;
  void TraceEventDetail(const std::string& id, const std::string& detail, const std::string& event,
                        const std::map<std::string, std::string>& fields) override;
  std::shared_ptr<CpdPathFilter> GetPathFilter() override;

  void SetParams(std::string params);
  void SetFilter(std::shared_ptr<CpdPathFilter> filter);
  /// Called within each trace, on the tracer's thread, without a lock held.
  void OnTrace(std::function<void(const Trace&)> action);
  [[nodiscard]] std::vector<Trace> Traces() const;
  /// The traces of one event, whose name is given with the LOCAL_ prefix.
  [[nodiscard]] std::vector<Trace> Traces(const std::string& event) const;

 private:
  mutable std::mutex mutex_;
  std::string params_;
  std::shared_ptr<CpdPathFilter> filter_;
  std::vector<Trace> traces_;
  std::function<void(const Trace&)> on_trace_;

  void Record(const Trace& trace);
};

class FakeDevice : public CpdDevice {
 public:
  std::shared_ptr<CpdDeviceBase> getDevBase() override;
  int GetDevId() override;
  int SendPacket(std::unique_ptr<CpdPacket> packet, int flags) override;
  void ReportReadFail(const std::string& path) override;

  /// The device's base, even after DropBase.
  [[nodiscard]] FakeBase& base() const { return *base_; }
  void SetId(int id);
  /// Makes getDevBase return the base `more` more times, and then null.
  void DropBase(int more = 0);
  void SetSendResult(int result);
  /// Whether SendPacket keeps the packet or lets it be destroyed (the default).
  void KeepPackets(bool keep);
  /// Called within SendPacket, on the sender's thread, without a lock held.
  void OnSend(std::function<void(const SentPacket&)> action);

  [[nodiscard]] std::vector<SentPacket> Sent() const;
  /// Returns the packets sent so far, and forgets them.
  std::vector<SentPacket> TakeSent();
  /// Waits for `count` packets, for kPatience at most. @return whether they came
  [[nodiscard]] bool WaitForPackets(size_t count) const;
  [[nodiscard]] std::vector<std::string> ReportedReadFails() const;

 private:
  const std::shared_ptr<FakeBase> base_ = std::make_shared<FakeBase>();
  mutable std::mutex mutex_;
  mutable std::condition_variable sent_something_;
  int id_ = kDeviceId;
  std::optional<int> base_answers_left_;
  int send_result_ = 0;
  bool keep_packets_ = false;
  std::function<void(const SentPacket&)> on_send_;
  std::vector<SentPacket> sent_;
  std::vector<std::unique_ptr<CpdPacket>> kept_;
  std::vector<std::string> reported_read_fails_;
};

}  // namespace cpd::test
