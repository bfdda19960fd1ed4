// The options of one redirected disk, as the command line gives them.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace cpd::host {

struct DiskOptions {
  std::string disk;    ///< the directory to redirect
  std::string name;    ///< announced to the remote side; empty = the directory's name
  std::string label;   ///< the remote side's label; empty = the directory's name
  std::string drive;   ///< the remote side's name for the disk; empty = none
  std::string policy;  ///< passed to the module unchanged
  std::string module;  ///< empty = the one installed or built with this program
  std::string trace;   ///< file for trace events; empty = none are written
  std::string record;  ///< file for the packets; empty = they are not recorded
  std::optional<uint32_t> record_bytes;  ///< recorded of each packet's data; empty = all
  bool trace_reads = false;              ///< trace reads and writes of every file
  bool read_only = false;
  bool unconfined = false;              ///< paths may lead out of the disk
  bool allow_other = false;             ///< let other users use the mount
  bool early = true;                    ///< let writes count as done before they are carried out
  bool batch = true;                    ///< send small writes in batches
  bool prefetch = true;                 ///< read files and list directories ahead
  bool dir_cache = true;                ///< cache listings; check them before reuse
  bool watch = true;                    ///< heed what the side with the disk tells of changes
  uint32_t cache_mib = 64;              ///< MiB that all caches of a mount may take together
  uint32_t bandwidth_kbps = 0;          ///< announced for reads; 0 = no announcement
  std::chrono::seconds time_limit{30};  ///< for a reply; the session adds 10 s for pacing
};

}  // namespace cpd::host
