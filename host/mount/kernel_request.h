// A request of the kernel, and what happens when the program that waits for it is interrupted.
#pragma once

#include <fuse_lowlevel.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <climits>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace cpd::host {

class Interruptions;

/// A request of the kernel. Copies stand for the same request, which is concluded when the last one
/// is gone; if nobody has answered it by then, as when memory ran out, the program gets EIO.
/// Callable from any thread.
///
/// The first reply counts; it may come from Interruptions. Later ones have no effect. So each
/// returns whether the kernel took it: only then does the kernel hold what the reply refers to,
/// such as a node.
class KernelRequest {
 public:
  /// @param interruptions  must outlive the request and its copies
  /// @param data_size  how much data the request brings, in bytes
  KernelRequest(fuse_req_t request, Interruptions& interruptions, size_t data_size);

  /// The thread whose call this is; 0 for a process in another pid namespace.
  [[nodiscard]] pid_t thread() const;

  /// @param error  an errno; 0 = success
  void ReplyError(int error) const { (void)TryError(error); }
  /// @return whether the program hears of it
  [[nodiscard]] bool TryError(int error) const;
  [[nodiscard]] bool ReplyEntry(const fuse_entry_param& entry) const;
  [[nodiscard]] bool ReplyCreated(const fuse_entry_param& entry,
                                  const fuse_file_info& handle) const;
  [[nodiscard]] bool ReplyOpened(const fuse_file_info& handle) const;
  /// @param trusted  for how long the kernel may cache them, in seconds
  [[nodiscard]] bool ReplyAttributes(const struct stat& attributes, double trusted) const;
  [[nodiscard]] bool ReplyWritten(size_t size) const;
  [[nodiscard]] bool ReplyBytes(std::string_view bytes) const;
  void ReplyStatistics(const struct statvfs& statistics) const;

 private:
  friend class Interruptions;
  struct State;

  explicit KernelRequest(std::shared_ptr<State> state) : state_(std::move(state)) {}
  static void OnInterrupt(fuse_req_t request, void* state);
  [[nodiscard]] bool IsAnswered() const;
  [[nodiscard]] bool IsLost() const;
  template <class Reply>
  [[nodiscard]] bool Answer(Reply reply) const;
  void AnswerInterrupted() const;

  std::shared_ptr<State> state_;
};

/// Lets programs be interrupted while the disk cannot be reached: answers their requests with
/// EINTR. What was asked is carried out all the same, since it may be on its way. A program may ask
/// again each time, so what such requests hold is limited: those that would exceed the limit are
/// not answered until others are concluded.
///
/// The kernel keeps nodes and handles until a request is answered, and the code that carries it out
/// relies on that. So while requests go on after such an answer, what the kernel gives back has to
/// wait.
class Interruptions {
 public:
  /// How much the requests that go on after such an answer may hold together, in bytes.
  static constexpr size_t kMostHeld = 16 << 20;
  /// What a request holds in addition to its data: a packet with a path, and what is noted of it,
  /// which repeats the path. No disk has paths of PATH_MAX bytes or more, although a side that lies
  /// may show some. The second path of a link or a rename is not counted.
  static constexpr size_t kHeldByEach = size_t{4} * PATH_MAX;

  /// @param is_cut_off  whether the disk cannot be reached now
  explicit Interruptions(std::function<bool()> is_cut_off);
  ~Interruptions() { Finish(); }
  Interruptions(const Interruptions&) = delete;
  Interruptions& operator=(const Interruptions&) = delete;

  /// Runs work that takes a node or a handle away: at once if no interrupted request goes on,
  /// otherwise later, on a thread of its own.
  void RunWhenConcluded(std::function<void()> work);
  /// Runs what still waits. No program can be interrupted after this.
  void Finish();

 private:
  friend class KernelRequest;

  void Add(KernelRequest request);
  bool HasRoomFor(size_t bytes);
  void NoteEarlyAnswer(size_t bytes);
  void NoteConclusion(size_t bytes);
  void AnswerWhenCutOff(const std::stop_token& stop);
  void RunDeferred(const std::stop_token& stop);

  const std::function<bool()> is_cut_off_;
  std::mutex mutex_;
  std::vector<KernelRequest> interrupted_;       // guarded by mutex_; may not be answered yet
  size_t unconcluded_ = 0;                       // guarded by mutex_; requests answered with EINTR
  size_t held_ = 0;                              // guarded by mutex_; by these, in bytes
  std::vector<std::function<void()>> deferred_;  // guarded by mutex_
  std::condition_variable_any changed_;
  std::jthread answering_;  // last, like the next: joined before what they use is destroyed
  std::jthread running_;
};

}  // namespace cpd::host
