// The disk by packets alone, where no file system can be mounted.
#pragma once

#include <string>

namespace cpd::host {

class Session;

/// Each prints to standard output. The path is relative to the disk.
/// @throws std::system_error when the disk does not give what is asked for
void PrintListing(Session& session, const std::string& path);
void PrintFile(Session& session, const std::string& path);
void PrintStatistics(Session& session);

}  // namespace cpd::host
