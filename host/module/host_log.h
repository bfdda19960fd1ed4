// The host's log, behind tesselLogPrint.
#pragma once

#include <string>

namespace cpd::host {

enum class LogLevel : int { kDebug = 5, kError = 7, kOff = 100 };

/// Sets what is logged and where; before any module is loaded.
/// @param file  appended to; empty = standard error
/// @throws std::runtime_error when the file cannot be opened
void SetUpLog(LogLevel level, const std::string& file);

}  // namespace cpd::host
