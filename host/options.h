// What the command line says about a disk.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace cpd::host {

struct DiskOptions {
  std::string disk;          ///< the directory to redirect
  std::string name;          ///< announced to the remote side; empty = the directory's name
  std::string label;         ///< the remote side's label; empty = the directory's name
  std::string drive;         ///< the remote side's name for the disk; empty = none
  std::string policy;        ///< handed to the module as it is
  std::string module;        ///< empty = the one built beside this program
  std::string trace;         ///< file for trace events; empty = none are kept
  bool trace_reads = false;  ///< the path filter matches every path
  bool read_only = false;
  bool unconfined = false;              ///< paths may lead out of the disk
  bool allow_other = false;             ///< users other than the host's may enter the mount
  bool batch = true;                    ///< small writes leave together
  bool prefetch = true;                 ///< small files are read ahead
  bool dir_cache = true;                ///< listings are kept and checked
  uint32_t bandwidth_kbps = 0;          ///< announced for reads; 0 = no announcement
  std::chrono::seconds time_limit{30};  ///< for an answer that does not come
};

}  // namespace cpd::host
