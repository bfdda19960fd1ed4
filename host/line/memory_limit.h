// Bounds a process's memory, whatever the other side of a line asks for.
#pragma once

#include <cstdint>

#include "descriptor.h"

namespace cpd::host {

/// Makes allocations beyond a limit fail: the module needs twice the length of a listing, and a
/// directory can have any number of entries. Then only the request in question fails.
class MemoryLimit {
 public:
  /// To be called before the process enters its sandbox, which hides what is read here.
  /// @throws std::system_error when the process cannot find out how much it has allocated
  MemoryLimit();

  /// From now on the process can allocate that much more, in bytes. Only the first call counts: at
  /// a later one, memory that is not freed yet would raise the limit. Builds with a sanitizer have
  /// no limit. Not for several threads at once.
  /// @throws std::system_error when the limit cannot be set
  void Set(uint64_t more);

 private:
  Descriptor counts_;
  bool is_set_ = false;
};

}  // namespace cpd::host
