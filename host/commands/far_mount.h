// Mounts a disk that a line leads to: what `mount` and `attach` have in common.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "capture/recording.h"
#include "commands/line_options.h"
#include "commands/stop_signals.h"
#include "line/line_keeper.h"
#include "line/line_source.h"
#include "line/starter.h"
#include "line/stream.h"
#include "options.h"

namespace cpd::host {

/// The absolute path of a directory on which this process can mount something.
/// @throws std::runtime_error when it cannot
std::string CheckedMountPoint(const std::string& path);

struct FarMount {
  DiskOptions disk;  ///< with the mount point as `drive`
  LineOptions line;
  std::string mount_point;  ///< as CheckedMountPoint gave it
  std::string shown;        ///< in the table of mounts; empty = the announced name
  Id128 session{};          ///< of a side that sets the line up; zeros otherwise
  /// Unmounts on behalf of this process, which cannot do it in its sandbox.
  Starter* starter = nullptr;
  Recording* recording = nullptr;  ///< of the packets; must outlive the mount
  /// A directory for files of its own, which the process can still use in its sandbox; empty =
  /// none.
  std::string runtime_directory = {};
  [[nodiscard]] std::vector<std::string> OwnDirectories() const {
    if (runtime_directory.empty()) return {};
    return {runtime_directory};
  }
  /// Called when the mount is about to be served.
  std::function<void(LineKeeper& keeper)> on_serve = [](LineKeeper&) {};
};

/// Mounts, and serves until a stop signal, an unmount or the end of the session. Prints the table.
/// @throws StreamError when the other side failed, or there is no line to it any more
/// @throws std::exception when this side cannot begin or failed
void MountOverLine(LineSource& source, FarMount far, const StopSignals& stop_signals);

}  // namespace cpd::host
