// The disk as a mounted file system: each of the kernel's questions becomes a request.
#pragma once

#include <fuse_lowlevel.h>

#include <csignal>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "node_table.h"
#include "remote_files.h"

namespace cpd::host {

class Session;

/// A kernel request is read on one of libfuse's threads, sent as a packet, and answered by whoever
/// delivers the reply; no thread waits in between, so any number may be under way.
class FuseMount {
 public:
  /// Mounts, read-only.
  /// @param disk  shown as the mount's source
  /// @throws std::runtime_error when that fails
  FuseMount(Session& session, const std::string& disk, const std::string& mount_point);
  /// Unmounts, if that has not happened from outside.
  ~FuseMount();
  FuseMount(const FuseMount&) = delete;
  FuseMount& operator=(const FuseMount&) = delete;

  /// Serves until SIGINT, SIGTERM or SIGHUP, or until somebody unmounts. Stops the session.
  /// @param stop_signals  these three, blocked in all threads, so that the calling one gets them;
  ///                      blocked there again at the end
  void Serve(const sigset_t& stop_signals);

 private:
  struct DestroySession {
    void operator()(fuse_session* session) const { fuse_session_destroy(session); }
  };

  static fuse_lowlevel_ops Operations();

  void Lookup(fuse_req_t request, fuse_ino_t parent, const char* name);
  void GetAttributes(fuse_req_t request, fuse_ino_t node);
  void Read(fuse_req_t request, fuse_ino_t node, size_t size, off_t offset);
  void OpenDirectory(fuse_req_t request, fuse_file_info* file);
  void ReadDirectory(fuse_req_t request, fuse_ino_t node, size_t size, off_t position,
                     uint64_t handle);
  void ReleaseDirectory(fuse_req_t request, uint64_t handle);
  void GetStatistics(fuse_req_t request, fuse_ino_t node);
  void GetExtendedAttribute(fuse_req_t request, fuse_ino_t node, const char* name);

  void ReplyWithEntries(fuse_req_t request, fuse_ino_t directory, const Listing& listing,
                        size_t first, size_t size);
  void ConfirmShortRead(fuse_req_t request, const std::string& path, FileData data, int64_t end);

  Session& session_;
  RemoteFiles files_;
  NodeTable nodes_;
  std::mutex mutex_;
  // Open directories; null until first read.
  std::map<uint64_t, std::shared_ptr<const Listing>> directories_;  // guarded by mutex_
  uint64_t last_directory_ = 0;                                     // guarded by mutex_
  std::unique_ptr<fuse_session, DestroySession> fuse_;
};

}  // namespace cpd::host
