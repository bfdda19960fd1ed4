#include "mount/kernel_mount.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/fuse.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "cpd/log.h"
#include "mount/fuse_mount.h"
#include "remote/statistics.h"

namespace cpd::host {
namespace {

void LogLibraryMessage(fuse_log_level /*level*/, const char* format, va_list arguments) {
  char message[512] = "";
  (void)std::vsnprintf(message, sizeof message, format, arguments);
  message[std::string_view(message).find_last_not_of('\n') + 1] = '\0';
  tesselLogPrint(0, 7, "FUSE", "%s", message);
}

// The call of the kernel that this thread has read last.
thread_local uint64_t last_call = 0;

/// Raises the kernel's read-ahead to the size of the largest read. Only root may do this; for other
/// users it stays at the kernel's 128 KiB. Takes effect with the first request.
void RaiseReadAhead(const std::string& mount_point) {
  struct statx where {};
  // No attributes are requested, so the kernel does not ask the mount, which is not served yet.
  if (statx(AT_FDCWD, mount_point.c_str(), AT_STATX_DONT_SYNC, 0, &where) != 0) return;
  std::ofstream(
      fmt::format("/sys/class/bdi/{}:{}/read_ahead_kb", where.stx_dev_major, where.stx_dev_minor))
      << FuseMount::kLargestRead / 1024;
}

}  // namespace

KernelMount::KernelMount(const DiskOptions& options, const std::string& mount_point,
                         std::function<void()> unmount)
    : unmount_(std::move(unmount)) {
  fuse_set_log_func(LogLibraryMessage);
  std::string mount_options = "default_permissions,nosuid,nodev,subtype=udisk";
  if (options.read_only) mount_options += ",ro";
  if (options.allow_other) mount_options += ",allow_other";
  // An unescaped comma in the disk's path would end the option.
  mount_options += ",fsname=";
  for (const char c : options.disk) {
    if (c == ',' || c == '\\') mount_options += '\\';
    mount_options += c;
  }
  std::string program = "cpd-host";
  std::string option_flag = "-o";
  char* arguments[] = {program.data(), option_flag.data(), mount_options.data()};
  fuse_args args = FUSE_ARGS_INIT(3, arguments);
  const fuse_lowlevel_ops operations = FuseMount::Operations();
  session_.reset(fuse_session_new(&args, &operations, sizeof operations, this));
  fuse_opt_free_args(&args);
  if (session_ == nullptr || fuse_session_mount(session_.get(), mount_point.c_str()) != 0) {
    throw std::runtime_error(
        fmt::format("cannot mount on {}{}", mount_point,
                    options.allow_other && geteuid() != 0
                        ? "; --allow-other needs root or user_allow_other in /etc/fuse.conf"
                        : ""));
  }
  constexpr fuse_custom_io kCounting{
      .writev = WriteReply, .read = ReadCall, .splice_receive = nullptr, .splice_send = nullptr};
  fuse_session_custom_io(session_.get(), &kCounting, fuse_session_fd(session_.get()));
  RaiseReadAhead(mount_point);
}

ssize_t KernelMount::ReadCall(int device, void* buffer, size_t size, void* mount) {
  auto& turn = static_cast<KernelMount*>(mount)->server_->reading_turn();
  if (!turn.Take()) return -1;
  const ssize_t length = read(device, buffer, size);
  fuse_in_header header{};
  if (length >= static_cast<ssize_t>(sizeof header)) {
    turn.BeginCall();
    std::memcpy(&header, buffer, sizeof header);
    last_call = header.unique;
  }
  return length;
}

// A reply by a thread other than the one that read the call had to wait for the disk, and is
// counted. A reply to no call is a notice.
ssize_t KernelMount::WriteReply(int device, iovec* parts, int count, void* mount) {
  fuse_out_header header{};
  std::memcpy(&header, parts[0].iov_base, sizeof header);
  auto* const server = static_cast<KernelMount*>(mount)->server_;
  if (header.unique != 0 && header.unique != last_call) ++server->savings().waits;
  return writev(device, parts, count);
}

void KernelMount::Unmount() {
  if (unmount_ == nullptr) return fuse_session_unmount(session_.get());
  if (!std::exchange(is_unmounted_, true)) unmount_();
}

}  // namespace cpd::host
