// What is measured. Each load does the same few system calls once bare and once through the driver,
// so that the two can be compared within one run.
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

/// Does so many operations. @return the time that they took
using Load = std::function<Seconds(int operations)>;

// ---- File requests ----

/// One request's work.
struct FileWork {
  enum Kind {
    kAttributes,  ///< lstat
    kRead,        ///< open, pread, close
    kWrite,       ///< open, pwrite, close
  } kind;
  size_t bytes = 0;  ///< how much is read or written
};

/// What any driver that serves requests on a thread of its own has to pay: two threads that hand
/// heap blocks to each other, one a request and one a reply, and the bare system calls.
Load LimitLoop(SampleDisk& disk, FileWork work, int outstanding);
/// The same from onEvent to SendPacket.
/// @param confined  whether the driver keeps paths beneath the disk's root
Load ModuleLoop(SampleDisk& disk, FileWork work, int outstanding, bool confined = false);

// ---- Directories of so many files, one operation at a time ----

/// readdir to the end, and once more with an lstat each.
Load BareWalk(SampleDisk& disk, int files);
Load DirRead(SampleDisk& disk, int files);
/// Of a listing that is still true, hence without a reply.
Load DirCheck(SampleDisk& disk, int files);
/// Lists and compares as a directory check does, without a request around it: that one carries no
/// more than 65535 entries.
Load ListAndCompare(SampleDisk& disk, int files);
/// Compares two equal listings.
Load Compare(SampleDisk& disk, int files);

}  // namespace cpd::bench
