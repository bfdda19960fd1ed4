// The host's log, to which the module writes through tesselLogPrint.
#pragma once

#include <string>

namespace cpd::host {

enum class LogLevel : int { kDebug = 5, kError = 7, kOff = 100 };

/// Sets what is logged and where. Must be called before a module is loaded.
/// @param file  appended to; empty = standard error
/// @throws std::runtime_error when the file cannot be opened
void SetUpLog(LogLevel level, const std::string& file);

}  // namespace cpd::host
