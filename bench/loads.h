// What is measured. Each load makes the same few system calls directly and through the driver, so
// that the two can be compared within one run.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "sample_disk.h"

namespace cpd::bench {

struct Seconds {
  double elapsed = 0;
  double processor = 0;  ///< of all threads together
};

/// Runs `operations` operations. @return the time that they took
using Load = std::function<Seconds(int operations)>;

// ---- File requests ----

/// The work of one request.
struct FileWork {
  enum Kind {
    kAttributes,  ///< lstat
    kRead,        ///< open, pread, close
    kWrite,       ///< open, pwrite, close
  } kind;
  size_t bytes = 0;  ///< bytes read or written
};

/// The cost that no driver with a worker thread can avoid: two threads hand each other one heap
/// block per request and one per reply, and make the same system calls.
Load LimitLoop(SampleDisk& disk, FileWork work, int outstanding);
/// The same work through the driver, from onEvent to SendPacket.
/// @param confined  whether the driver keeps paths beneath the disk's root
Load ModuleLoop(SampleDisk& disk, FileWork work, int outstanding, bool confined = false);
/// The same work by several drivers at the same time, as if each had a disk of its own. Each always
/// has one request outstanding.
Load DisksLoop(SampleDisk& disk, FileWork work, int disks);

// ---- Directories with `files` files, one operation at a time ----

/// Reads a directory to its end, and then again with an lstat per entry.
Load BareWalk(SampleDisk& disk, int files);
Load DirRead(SampleDisk& disk, int files);
/// Checks a listing that has not changed, so there is no reply.
Load DirCheck(SampleDisk& disk, int files);
/// Lists and compares as a directory check does, but without a request, which could carry only
/// 65535 entries.
Load ListAndCompare(SampleDisk& disk, int files);
/// Compares two equal listings.
Load Compare(SampleDisk& disk, int files);

}  // namespace cpd::bench
