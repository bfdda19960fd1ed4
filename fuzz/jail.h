// A jail, in which an input may do anything to the disk.
#pragma once

#include <functional>
#include <stdexcept>

namespace cpd::fuzz {

/// Thrown when the machine does not let this process make a jail.
struct NoJail : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Runs `task` to its end on a thread that has a root, a working directory, mounts and descriptors
/// of its own. Its root is a small file system in memory, which no "..", absolute path or link can
/// leave, and in which each file is limited to 1 MiB. The fuzzer's own threads keep the machine's
/// root, for corpus and reproducers; a task that ends the process returns there first. Nothing is
/// left over.
/// @throws NoJail
void RunInJail(const std::function<void()>& task);

/// Deletes everything in the jail except /proc. Only for use within a task.
void EmptyJail();

}  // namespace cpd::fuzz
