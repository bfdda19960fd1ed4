// A mount as the kernel has it, before and after it is served.
#pragma once

#include <fuse_lowlevel.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "options.h"

namespace cpd::host {

class FuseMount;

/// Mounts, and starts no thread. Programs that use the mount wait until a FuseMount serves it.
class KernelMount {
 public:
  /// @throws std::runtime_error when nothing can be mounted there
  /// @param unmount  unmounts on behalf of a process that may not, in its sandbox; empty = it may
  KernelMount(const DiskOptions& options, const std::string& mount_point,
              std::function<void()> unmount = nullptr);
  ~KernelMount() { Unmount(); }
  KernelMount(const KernelMount&) = delete;
  KernelMount& operator=(const KernelMount&) = delete;

  /// Unmounts, unless somebody has done that already.
  void Unmount();
  /// To be called once, before the session's requests are read.
  void set_server(FuseMount* server) { server_ = server; }
  [[nodiscard]] fuse_session* session() const { return session_.get(); }

 private:
  friend class FuseMount;
  struct DestroySession {
    void operator()(fuse_session* session) const { fuse_session_destroy(session); }
  };

  static ssize_t ReadCall(int device, void* buffer, size_t size, void* mount);
  static ssize_t WriteReply(int device, iovec* parts, int count, void* mount);

  const std::function<void()> unmount_;
  bool is_unmounted_ = false;  // by unmount_
  FuseMount* server_ = nullptr;
  std::unique_ptr<fuse_session, DestroySession> session_;
};

}  // namespace cpd::host
