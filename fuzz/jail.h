// Where inputs may do to the disk whatever they like.
#pragma once

#include <functional>
#include <stdexcept>

namespace cpd::fuzz {

/// The machine does not let this process make a jail.
struct NoJail : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// Runs `task` to its end on a thread that has a root, a working directory, mounts and descriptors
/// of its own: a small file system in memory, where paths with "..", absolute paths and links end,
/// and where sparse files stay below 1 MiB each. The fuzzer's own threads keep the machine's root,
/// for corpus and reproducers; a task that ends the process returns there first. Nothing is left
/// behind.
/// @throws NoJail
void RunInJail(const std::function<void()>& task);

/// Deletes everything in the jail but /proc. Within a task only.
void EmptyJail();

}  // namespace cpd::fuzz
