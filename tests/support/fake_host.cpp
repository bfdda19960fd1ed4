#include "support/fake_host.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <utility>

#include "cpd/log.h"
#include "cpd/tracer.h"

namespace cpd::test {
namespace {

std::atomic<int> g_tracer_calls = 0;

/// Splits a line of the form `file function(line): "word" "message"`; leaves others unsplit.
void Split(LogLine* line) {
  const std::string& raw = line->raw;
  const size_t blank = raw.find(' ');
  const size_t open = raw.find('(', blank);
  const size_t close = raw.find("): \"", open);
  if (close == std::string::npos) return;
  const size_t word = close + 4;
  const size_t between = raw.find("\" \"", word);
  if (between == std::string::npos || raw.back() != '"') return;
  const size_t message = between + 3;
  line->file = raw.substr(0, blank);
  line->function = raw.substr(blank + 1, open - blank - 1);
  line->line = std::atoi(raw.c_str() + open + 1);
  line->word = raw.substr(word, between - word);
  line->message = raw.substr(message, raw.size() - 1 - message);
}

}  // namespace

// ---- Log ----

void LogRecorder::Add(int channel, int level, const char* tag, std::string raw) {
  LogLine line;
  line.channel = channel;
  line.level = level;
  line.tag = tag;
  line.raw = std::move(raw);
  Split(&line);
  const std::lock_guard lock(mutex_);
  bytes_ever_ += line.raw.size();
  lines_.push_back(std::move(line));
}

void LogRecorder::Clear() {
  const std::lock_guard lock(mutex_);
  lines_.clear();
}

std::vector<LogLine> LogRecorder::Lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

std::vector<std::string> LogRecorder::Messages(std::optional<int> level) const {
  std::vector<std::string> messages;
  for (const LogLine& line : Lines()) {
    if (!level || line.level == *level) messages.push_back(line.message);
  }
  return messages;
}

size_t LogRecorder::Count(int level, const std::string& message) const {
  const std::vector<std::string> messages = Messages(level);
  return static_cast<size_t>(std::count(messages.begin(), messages.end(), message));
}

bool LogRecorder::Has(int level, const std::string& message) const {
  return Count(level, message) > 0;
}

uint64_t LogRecorder::BytesEver() const {
  const std::lock_guard lock(mutex_);
  return bytes_ever_;
}

LogRecorder& Log() {
  static LogRecorder recorder;
  return recorder;
}

int TracerCalls() { return g_tracer_calls; }

// ---- Device ----

FakeFilter::FakeFilter(std::vector<std::string> paths)
    : matches_([paths = std::move(paths)](const std::string& path) {
        return std::find(paths.begin(), paths.end(), path) != paths.end();
      }) {}

FakeFilter::FakeFilter(std::function<bool(const std::string&)> matches)
    : matches_(std::move(matches)) {}

std::shared_ptr<CpdPathMatch> FakeFilter::MatchPath(const std::string& path) {
  return matches_(path) ? std::make_shared<CpdPathMatch>() : nullptr;
}

std::string FakeBase::GetDeviceParams() {
  const std::lock_guard lock(mutex_);
  return params_;
}

void FakeBase::TraceEvent(const std::string& id, const std::string& event,
                          const std::map<std::string, std::string>& fields) {
  Record({.id = id, .detail = std::nullopt, .event = event, .fields = fields});
}

void FakeBase::TraceEventDetail(const std::string& id, const std::string& detail,
                                const std::string& event,
                                const std::map<std::string, std::string>& fields) {
  Record({.id = id, .detail = detail, .event = event, .fields = fields});
}

void FakeBase::Record(const Trace& trace) {
  std::function<void(const Trace&)> on_trace;
  {
    const std::lock_guard lock(mutex_);
    traces_.push_back(trace);
    on_trace = on_trace_;
  }
  if (on_trace) on_trace(trace);
}

void FakeBase::OnTrace(std::function<void(const Trace&)> action) {
  const std::lock_guard lock(mutex_);
  on_trace_ = std::move(action);
}

std::shared_ptr<CpdPathFilter> FakeBase::GetPathFilter() {
  const std::lock_guard lock(mutex_);
  return filter_;
}

void FakeBase::SetParams(std::string params) {
  const std::lock_guard lock(mutex_);
  params_ = std::move(params);
}

void FakeBase::SetFilter(std::shared_ptr<CpdPathFilter> filter) {
  const std::lock_guard lock(mutex_);
  filter_ = std::move(filter);
}

std::vector<Trace> FakeBase::Traces() const {
  const std::lock_guard lock(mutex_);
  return traces_;
}

std::vector<Trace> FakeBase::Traces(const std::string& event) const {
  std::vector<Trace> traces = Traces();
  std::erase_if(traces, [&](const Trace& trace) { return trace.event != event; });
  return traces;
}

std::shared_ptr<CpdDeviceBase> FakeDevice::getDevBase() {
  const std::lock_guard lock(mutex_);
  if (!base_answers_left_) return base_;
  if (*base_answers_left_ == 0) return nullptr;
  --*base_answers_left_;
  return base_;
}

int FakeDevice::GetDevId() {
  const std::lock_guard lock(mutex_);
  return id_;
}

int FakeDevice::SendPacket(std::unique_ptr<CpdPacket> packet, int flags) {
  const SentPacket sent(*packet, flags);
  std::function<void(const SentPacket&)> on_send;
  int result = 0;
  {
    const std::lock_guard lock(mutex_);
    sent_.push_back(sent);
    if (keep_packets_) kept_.push_back(std::move(packet));
    on_send = on_send_;
    result = send_result_;
  }
  sent_something_.notify_all();
  if (on_send) on_send(sent);
  return result;
}

void FakeDevice::ReportReadFail(const std::string& path) {
  const std::lock_guard lock(mutex_);
  reported_read_fails_.push_back(path);
}

void FakeDevice::SetId(int id) {
  const std::lock_guard lock(mutex_);
  id_ = id;
}

void FakeDevice::DropBase(int more) {
  const std::lock_guard lock(mutex_);
  base_answers_left_ = more;
}

void FakeDevice::SetSendResult(int result) {
  const std::lock_guard lock(mutex_);
  send_result_ = result;
}

void FakeDevice::KeepPackets(bool keep) {
  const std::lock_guard lock(mutex_);
  keep_packets_ = keep;
}

void FakeDevice::OnSend(std::function<void(const SentPacket&)> action) {
  const std::lock_guard lock(mutex_);
  on_send_ = std::move(action);
}

std::vector<SentPacket> FakeDevice::Sent() const {
  const std::lock_guard lock(mutex_);
  return sent_;
}

std::vector<SentPacket> FakeDevice::TakeSent() {
  const std::lock_guard lock(mutex_);
  return std::exchange(sent_, {});
}

bool FakeDevice::WaitForPackets(size_t count) const {
  std::unique_lock lock(mutex_);
  return sent_something_.wait_for(lock, kPatience, [&] { return sent_.size() >= count; });
}

std::vector<std::string> FakeDevice::ReportedReadFails() const {
  const std::lock_guard lock(mutex_);
  return reported_read_fails_;
}

}  // namespace cpd::test

// ---- Functions that a driver module imports ----

namespace cpd {

CpdTracer* CpdTracer::GetInstance() {
  static CpdTracer tracer;
  ++test::g_tracer_calls;
  return &tracer;
}

}  // namespace cpd

extern "C" void tesselLogPrint(int channel, int level, const char* tag, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  std::string line(static_cast<size_t>(std::vsnprintf(nullptr, 0, format, arguments)), '\0');
  va_end(arguments);
  (void)std::vsnprintf(line.data(), line.size() + 1, format, again);
  va_end(again);
  cpd::test::Log().Add(channel, level, tag, std::move(line));
}
