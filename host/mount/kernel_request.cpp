#include "mount/kernel_request.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <iterator>

namespace cpd::host {

namespace {

// While an interrupted program waits, how often to check whether the disk can be reached.
constexpr std::chrono::milliseconds kInterval{100};

}  // namespace

// ---- Requests ----

struct KernelRequest::State : std::enable_shared_from_this<State> {
  State(fuse_req_t its_request, Interruptions& its_interruptions, size_t data_size)
      : request(its_request),
        thread(fuse_req_ctx(its_request)->pid),
        interruptions(its_interruptions),
        held(Interruptions::kHeldByEach + data_size) {}
  ~State() {
    if (was_interrupted) interruptions.NoteConclusion(held);
    if (is_answered) return;
    // Waits for OnInterrupt, which cannot take another copy any more.
    fuse_req_interrupt_func(request, nullptr, nullptr);
    fuse_reply_err(request, EIO);
  }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  const fuse_req_t request;  // gone once it is answered
  const pid_t thread;
  Interruptions& interruptions;
  const size_t held;  // bytes
  std::atomic<bool> is_answered = false;
  bool was_interrupted = false;  // written with the answer, read when the last copy is gone
};

KernelRequest::KernelRequest(fuse_req_t request, Interruptions& interruptions, size_t data_size)
    : state_(std::make_shared<State>(request, interruptions, data_size)) {
  fuse_req_interrupt_func(request, OnInterrupt, state_.get());
}

pid_t KernelRequest::thread() const { return state_->thread; }

/// Called with libfuse's lock of the request held, so it must not answer. The state is still there:
/// the first answer waits until this is not running, and so does the end of the last copy.
void KernelRequest::OnInterrupt(fuse_req_t /*request*/, void* state) {
  auto interrupted = static_cast<State*>(state)->weak_from_this().lock();
  if (interrupted == nullptr) return;
  auto& interruptions = interrupted->interruptions;
  interruptions.Add(KernelRequest(std::move(interrupted)));
}

bool KernelRequest::IsAnswered() const { return state_->is_answered; }

/// Whether this is the last copy, of a request that is still to be answered.
bool KernelRequest::IsLost() const { return state_.use_count() == 1; }

template <class Reply>
bool KernelRequest::Answer(Reply reply) const {
  if (state_->is_answered.exchange(true)) return false;
  // Waits for OnInterrupt, which does not run again after this.
  fuse_req_interrupt_func(state_->request, nullptr, nullptr);
  return reply(state_->request) == 0;
}

bool KernelRequest::TryError(int error) const {
  return Answer([error](fuse_req_t request) { return fuse_reply_err(request, error); });
}

bool KernelRequest::ReplyEntry(const fuse_entry_param& entry) const {
  return Answer([&](fuse_req_t request) { return fuse_reply_entry(request, &entry); });
}

bool KernelRequest::ReplyCreated(const fuse_entry_param& entry,
                                 const fuse_file_info& handle) const {
  return Answer([&](fuse_req_t request) { return fuse_reply_create(request, &entry, &handle); });
}

bool KernelRequest::ReplyOpened(const fuse_file_info& handle) const {
  return Answer([&](fuse_req_t request) { return fuse_reply_open(request, &handle); });
}

bool KernelRequest::ReplyAttributes(const struct stat& attributes, double trusted) const {
  return Answer([&](fuse_req_t request) { return fuse_reply_attr(request, &attributes, trusted); });
}

bool KernelRequest::ReplyWritten(size_t size) const {
  return Answer([size](fuse_req_t request) { return fuse_reply_write(request, size); });
}

bool KernelRequest::ReplyBytes(std::string_view bytes) const {
  return Answer(
      [&](fuse_req_t request) { return fuse_reply_buf(request, bytes.data(), bytes.size()); });
}

void KernelRequest::ReplyStatistics(const struct statvfs& statistics) const {
  (void)Answer([&](fuse_req_t request) { return fuse_reply_statfs(request, &statistics); });
}

void KernelRequest::AnswerInterrupted() const {
  auto& interruptions = state_->interruptions;
  if (!interruptions.HasRoomFor(state_->held)) return;
  (void)Answer([this, &interruptions](fuse_req_t request) {
    interruptions.NoteEarlyAnswer(state_->held);
    state_->was_interrupted = true;
    return fuse_reply_err(request, EINTR);
  });
}

// ---- Interruptions ----

Interruptions::Interruptions(std::function<bool()> is_cut_off)
    : is_cut_off_(std::move(is_cut_off)),
      answering_([this](const std::stop_token& stop) { AnswerWhenCutOff(stop); }),
      running_([this](const std::stop_token& stop) { RunDeferred(stop); }) {}

void Interruptions::RunWhenConcluded(std::function<void()> work) {
  {
    const std::lock_guard lock(mutex_);
    if (unconcluded_ > 0 || !deferred_.empty()) return deferred_.push_back(std::move(work));
  }
  work();
}

void Interruptions::Finish() {
  for (auto* const thread : {&answering_, &running_}) {
    thread->request_stop();
    if (thread->joinable()) thread->join();
  }
}

void Interruptions::Add(KernelRequest request) {
  {
    const std::lock_guard lock(mutex_);
    interrupted_.push_back(std::move(request));
  }
  changed_.notify_all();
}

/// The room is still there at the next NoteEarlyAnswer, since only one thread calls the two.
bool Interruptions::HasRoomFor(size_t bytes) {
  const std::lock_guard lock(mutex_);
  return held_ + bytes <= kMostHeld;
}

void Interruptions::NoteEarlyAnswer(size_t bytes) {
  const std::lock_guard lock(mutex_);
  ++unconcluded_;
  held_ += bytes;
}

void Interruptions::NoteConclusion(size_t bytes) {
  {
    const std::lock_guard lock(mutex_);
    --unconcluded_;
    held_ -= bytes;
  }
  changed_.notify_all();
}

/// The lock is not held while requests are answered or let go of: both take it.
void Interruptions::AnswerWhenCutOff(const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  const auto is_needed = [this] { return !interrupted_.empty(); };
  while (changed_.wait(lock, stop, is_needed) && !stop.stop_requested()) {
    auto requests = std::exchange(interrupted_, {});
    lock.unlock();
    if (is_cut_off_()) {
      for (const auto& request : requests) request.AnswerInterrupted();
    }
    std::erase_if(requests,
                  [](const auto& request) { return request.IsAnswered() || request.IsLost(); });
    lock.lock();
    std::ranges::move(requests, std::back_inserter(interrupted_));
    changed_.wait_for(lock, stop, kInterval, [] { return false; });
  }
}

void Interruptions::RunDeferred(const std::stop_token& stop) {
  std::unique_lock lock(mutex_);
  const auto is_due = [this] { return unconcluded_ == 0 && !deferred_.empty(); };
  for (;;) {
    const bool is_last = !changed_.wait(lock, stop, is_due);
    const auto due = std::exchange(deferred_, {});
    lock.unlock();
    for (const auto& work : due) work();
    lock.lock();
    if (is_last) return;
  }
}

}  // namespace cpd::host
